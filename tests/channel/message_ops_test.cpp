// Tests of the message operations against a scripted host that records every request.
#include "channel/message_ops.h"

#include <gtest/gtest.h>

#include <string>
#include <tuple>
#include <vector>

#include "log/log.h"
#include "support/log_capture.h"
#include "support/scripted_host.h"

namespace {

using namespace qvx;
using namespace qvx::dnd;
using qvxtest::Answer;
using qvxtest::Request;
using qvxtest::ScriptedHost;

void expect_failure_dialog(const Request& r, uint32_t code = 12) {
    ASSERT_EQ(r.command(), 263u);
    EXPECT_EQ(r.bytes.size(), kMessageSize);
    EXPECT_EQ(le::get32(r.bytes.data(), 28), 4u);
    EXPECT_EQ(le::get32(r.bytes.data(), 2080), code);
    if (code == 12) {
        EXPECT_EQ(le::get16(r.bytes.data(), 32), 0u);
    }
}

TEST(MessageOps, ReplyPatternsSendDialogOnlyForUnexpectedStatusWhenReporting) {
    for (uint32_t quiet : {9u, 100u}) {
        ScriptedHost host;
        host.answer({quiet});
        EXPECT_FALSE(SendChecked(host.context(), 280));
        EXPECT_EQ(host.sent.size(), 1u);
    }
    ScriptedHost host;
    host.answer({5, 77});  // the dialog's own reply is ignored
    EXPECT_FALSE(SendChecked(host.context(), 273));
    ASSERT_EQ(host.sent.size(), 2u);
    expect_failure_dialog(host.sent[1]);

    host.fail();
    EXPECT_FALSE(SendChecked(host.context(), 260));
    EXPECT_EQ(host.sent.size(), 3u);
    EXPECT_TRUE(SendChecked(host.context(), 260));

    // The quiet and status patterns never add a dialog.
    host.sent.clear();
    host.answer({5, 5, 5});
    auto ctx = host.context();
    EXPECT_FALSE(SendPlain(ctx, 260));
    EXPECT_FALSE(SendStateNotice(ctx, true));
    ItemInfo entry;
    entry.name = u"a";
    EXPECT_EQ(SendEntryWithValue(ctx, entry, 1), 5u);
    host.fail();
    EXPECT_EQ(SendEntryWithAttribute(ctx, entry), 9u);
    EXPECT_EQ(host.sent.size(), 4u);
}

TEST(MessageOps, SendMoveMouseReportsEvenQuietStatuses) {
    qvxtest::LogCapture log;
    ScriptedHost host;
    host.answer({9});
    EXPECT_FALSE(sendMoveMouse(host.context(), 10, 20, 1));
    ASSERT_EQ(host.sent.size(), 2u);
    EXPECT_EQ(le::get32(host.sent[0].bytes.data(), 32), 20u);
    EXPECT_EQ(le::get32(host.sent[0].bytes.data(), 36), 1u);
    expect_failure_dialog(host.sent[1]);
    EXPECT_TRUE(log.contains("sendMoveMouse failed iResult = 9"));

    host.fail();
    EXPECT_FALSE(sendMoveMouse(host.context(), 10, 20, 1));
    EXPECT_EQ(host.sent.size(), 3u);
    EXPECT_TRUE(log.contains("sendMoveMouse toolgate failed"));
}

// A path that is no UTF-8 goes out as an empty name in its place; the list keeps its count.
TEST(MessageOps, FileListSendsUnusablePathsAsEmptyNames) {
    ScriptedHost host;
    host.answer({5});
    EXPECT_FALSE(SendFileList(host.context(), false, {"/a", "\xFF\xFE", "/b"}, nullptr, nullptr));
    ASSERT_EQ(host.sent.size(), 1u) << "no dialog for a refused list";
    const auto& b = host.sent[0].bytes;
    ASSERT_EQ(b.size(), 2196u + 14u);
    EXPECT_EQ(le::get32(b.data(), 28), 3u);
    EXPECT_EQ(le::get32(b.data(), 32), 14u);
    const std::u16string names = std::u16string(u"/a") + u'\0' + u'\0' + u"/b" + u'\0';
    for (size_t i = 0; i < names.size(); ++i) EXPECT_EQ(le::get16(b.data(), 36 + 2 * i), names[i]);
}

TEST(MessageOps, EntryNameReportsRefusalsWithTheName) {
    ItemInfo entry;
    entry.name = u"dir/f";
    ScriptedHost host;
    host.answer({5, 0, 5, 9});
    auto ctx = host.context();
    EXPECT_FALSE(SendEntryName(ctx, entry, true));
    ASSERT_EQ(host.sent.size(), 2u);
    expect_failure_dialog(host.sent[1], 6);
    EXPECT_EQ(le::get16(host.sent[1].bytes.data(), 32), u'd');
    EXPECT_FALSE(SendEntryName(ctx, entry, false));
    EXPECT_FALSE(SendEntryName(ctx, entry, true));
    EXPECT_EQ(host.sent.size(), 4u);
}

// What the tool refuses itself sends nothing and reads differently from any host answer,
// so that the caller can send its own notice; the host's quiet stop stays a plain failure.
TEST(MessageOps, LocalRefusalsAreToldApartFromTheHostsStop) {
    ScriptedHost host;
    auto ctx = host.context();
    ItemInfo entry;
    entry.name = std::u16string(1024, u'x');
    bool refused = false;
    EXPECT_FALSE(SendEntry(ctx, entry, &refused));
    EXPECT_TRUE(refused);
    refused = false;
    EXPECT_FALSE(SendEntryName(ctx, entry, true, &refused));
    EXPECT_TRUE(refused);
    EXPECT_EQ(SendLinkTarget(ctx, entry, "t"), kStatusRefusedLocally);
    EXPECT_EQ(SendEntryWithValue(ctx, entry, 1), kStatusRefusedLocally);
    EXPECT_EQ(SendEntryWithAttribute(ctx, entry), kStatusRefusedLocally);
    std::vector<uint8_t> data(kMessageSize + 131073);
    EXPECT_EQ(ReadData(ctx, data.data(), 131073), kStatusRefusedLocally);
    EXPECT_EQ(WriteData(ctx, data.data(), 131073), kStatusRefusedLocally);
    std::string target;
    EXPECT_FALSE(query_link_target(ctx, entry, target));
    EXPECT_EQ(host.sent.size(), 0u);

    entry.name = std::u16string(1023, u'x');
    host.answer({9, 100, 9, 9, 9, 9, 9});
    EXPECT_FALSE(SendEntry(ctx, entry, &refused));
    EXPECT_FALSE(refused);
    refused = true;
    EXPECT_FALSE(SendEntryName(ctx, entry, true, &refused));
    EXPECT_FALSE(refused);
    EXPECT_EQ(SendLinkTarget(ctx, entry, "t"), 9u);
    EXPECT_EQ(SendEntryWithValue(ctx, entry, 1), 9u);
    EXPECT_EQ(SendEntryWithAttribute(ctx, entry), 9u);
    EXPECT_EQ(ReadData(ctx, data.data(), 131072), 9u);
    EXPECT_EQ(WriteData(ctx, data.data(), 131072), 9u);
    EXPECT_EQ(host.sent.size(), 7u);
    host.fail();
    EXPECT_EQ(SendEntryWithAttribute(ctx, entry), 9u) << "a failed exchange is the host's stop";
}

// A link target that is no UTF-8 goes out as an empty target rather than not at all.
TEST(MessageOps, UnusableLinkTargetIsSentEmpty) {
    ScriptedHost host;
    ItemInfo entry;
    entry.name = u"l";
    EXPECT_EQ(SendLinkTarget(host.context(), entry, "a\xC3"), 0u);
    ASSERT_EQ(host.sent.size(), 1u);
    ASSERT_EQ(host.sent[0].bytes.size(), kMessageSize);
    EXPECT_EQ(le::get32(host.sent[0].bytes.data(), 2128), 0u);
    EXPECT_EQ(le::get16(host.sent[0].bytes.data(), 80), u'l');
}

Answer entry_reply(std::u16string name, uint32_t length) {
    return {true, 0, [name, length](uint8_t* r, size_t) {
                le::put32(r, 32, 0x10);
                le::put64(r, 52, 0xABCDEF0123);
                le::put64(r, 68, 300000);
                le::put32(r, 76, length);
                for (size_t i = 0; i < name.size(); ++i) le::put16(r, 80 + 2 * i, name[i]);
                le::put16(r, 2132, 1);
                le::put16(r, 2134, 0644);
            }};
}

TEST(MessageOps, NextItemReadsEntryAndReportsBadReplies) {
    ScriptedHost host;
    auto ctx = host.context();
    ItemInfo entry;
    host.script.push_back(entry_reply(u"\\dir\\a.txt", 10));
    ASSERT_EQ(next_item(ctx, entry, "/Users/u/Desktop", 3), 0);
    EXPECT_EQ(le::get32(host.sent[0].bytes.data(), 28), 3u);
    EXPECT_EQ(entry.path, "/Users/u/Desktop/dir/a.txt");
    EXPECT_EQ(entry.name, u"\\dir\\a.txt");
    EXPECT_EQ(std::tuple(entry.accessTime, entry.size, entry.attributes, entry.mode),
              std::tuple(uint64_t{0xABCDEF0123}, uint64_t{300000}, 0x10u, uint16_t{0644}));

    host.answer({7, 9, 100});
    EXPECT_EQ(next_item(ctx, entry, "/d", 0), 1);
    EXPECT_EQ(next_item(ctx, entry, "/d", 0), 2);
    EXPECT_EQ(next_item(ctx, entry, "/d", 0), 2);
    EXPECT_EQ(host.sent.size(), 4u);

    // Each of these ends with a failure dialog: an unexpected status, an empty name, a
    // length beyond the field and a name without its terminator.
    for (Answer bad : {Answer{true, 5, nullptr}, entry_reply(u"", 0), entry_reply(u"x", 1024),
                       entry_reply(u"abc", 2)}) {
        host.script.push_back(bad);
        host.answer({0});  // the dialog's reply
        const size_t before = host.sent.size();
        EXPECT_EQ(next_item(ctx, entry, "/d", 0), 2);
        ASSERT_EQ(host.sent.size(), before + 2);
        expect_failure_dialog(host.sent.back());
    }
    EXPECT_EQ(entry.path, "/Users/u/Desktop/dir/a.txt") << "a failed read leaves the entry";
}

Answer link_reply(uint32_t status, std::u16string target, uint32_t length) {
    return {true, status, [target, length](uint8_t* r, size_t size) {
                le::put32(r, 2128, length);
                for (size_t i = 0; i < target.size() && 2196 + 2 * i + 1 < size; ++i) {
                    le::put16(r, 2196 + 2 * i, target[i]);
                }
            }};
}

TEST(MessageOps, QueryLinkTargetGrowsReplyBuffer) {
    ScriptedHost host;
    auto ctx = host.context();
    ItemInfo entry;
    entry.name = u"link";
    std::string target;
    host.answer({13, 13});
    host.script.push_back(link_reply(0, u"..\\lib\\x", 16));
    ASSERT_TRUE(query_link_target(ctx, entry, target));
    EXPECT_EQ(target, "../lib/x");
    ASSERT_EQ(host.sent.size(), 3u);
    EXPECT_EQ(std::tuple(host.sent[0].replySize, host.sent[1].replySize, host.sent[2].replySize),
              std::tuple(2452u, 4904u, 9808u));
    EXPECT_EQ(host.sent[2].command(), 769u);
    EXPECT_EQ(le::get16(host.sent[2].bytes.data(), 80), u'l');

    host.answer({4});
    target = "stale";
    EXPECT_TRUE(query_link_target(ctx, entry, target));
    EXPECT_EQ(target, "") << "any other status: not a link";
    host.answer({100});
    EXPECT_FALSE(query_link_target(ctx, entry, target));
    host.script.push_back(link_reply(0, u"abc", 3));
    EXPECT_FALSE(query_link_target(ctx, entry, target));
    host.script.push_back(link_reply(0, u"ab", 258));  // longer than the 2452-byte buffer
    EXPECT_FALSE(query_link_target(ctx, entry, target));
    host.script.push_back(link_reply(0, u"ab", 0xFFFFFFFE));
    EXPECT_FALSE(query_link_target(ctx, entry, target));
    // A target that is no text converts to empty, which means no link.
    host.script.push_back(link_reply(0, u"a\xD800", 4));
    target = "stale";
    EXPECT_TRUE(query_link_target(ctx, entry, target));
    EXPECT_EQ(target, "");

    // A host that keeps asking for more room is given up on at a bounded size.
    host.sent.clear();
    for (int i = 0; i < 64; ++i) host.answer({13});
    EXPECT_FALSE(query_link_target(ctx, entry, target));
    EXPECT_LT(host.sent.size(), 12u);
    EXPECT_LE(host.sent.back().replySize, size_t{1} << 20);
}

}  // namespace
