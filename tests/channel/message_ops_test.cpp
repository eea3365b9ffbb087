// Tests of the message operations against a scripted host that records every request.
#include "channel/message_ops.h"

#include <gtest/gtest.h>

#include <cstring>
#include <deque>
#include <functional>
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
constexpr uint64_t kWorker = ScriptedHost::kWorker;

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

TEST(MessageOps, EveryRecordCarriesVersionAndWorkerId) {
    ScriptedHost host;
    auto ctx = host.context();
    ItemInfo entry;
    entry.name = u"n";
    std::string target;
    std::vector<uint8_t> data(kMessageSize + 4);
    SendStateNotice(ctx, true);
    SendStateNotice(ctx, false);
    SendFileList(ctx, false, {"/a"}, nullptr, nullptr);
    RequestWorkerId(ctx, nullptr);
    const size_t zeroIdCount = host.sent.size();
    SendChecked(ctx, 280);
    SendDialog(ctx, 0, 0, u"");
    QueryPrepare(ctx, nullptr);
    QueryTransferTotals(ctx, nullptr, nullptr);
    SendTransferTotals(ctx, 1, 2, 3);
    sendMoveMouse(ctx, 1, 2, 0);
    SendEntry(ctx, entry);
    SendEntryName(ctx, entry, true);
    SendLinkTarget(ctx, entry, "t");
    SendEntryWithValue(ctx, entry, 0);
    SendEntryWithAttribute(ctx, entry);
    ReadData(ctx, data.data(), 4);
    WriteData(ctx, data.data(), 4);
    query_link_target(ctx, entry, target);
    ASSERT_EQ(host.sent.size(), zeroIdCount + 14);
    for (size_t i = 0; i < host.sent.size(); ++i) {
        const auto& r = host.sent[i];
        EXPECT_EQ(le::get32(r.bytes.data(), 4), 2u) << r.command();
        EXPECT_EQ(le::get64(r.bytes.data(), 12), i < zeroIdCount ? 0 : kWorker) << r.command();
    }
}

TEST(MessageOps, ReplyOutputsAreRead) {
    ScriptedHost host;
    const auto fill = [](uint8_t* r, size_t) {
        le::put64(r, 12, 99);
        le::put64(r, 28, 0xA0000000B);
        le::put32(r, 2088, 42);
        le::put32(r, 2092, 4);
    };
    host.script.assign({{true, 0, fill}, {true, 0, fill}, {true, 200, fill}});
    auto ctx = host.context();
    uint64_t total = 0, id = 0, listId = 0;
    uint32_t second = 0, action = 0;
    EXPECT_TRUE(QueryTransferTotals(ctx, &total, &second));
    EXPECT_TRUE(RequestWorkerId(ctx, &id));
    EXPECT_TRUE(SendFileList(ctx, true, {"/x"}, &listId, &action));
    EXPECT_EQ(std::tuple(total, second, id, listId, action),
              std::tuple(0xA0000000Bu, 42u, 99u, 99u, 4u));
    EXPECT_EQ(host.sent.back().command(), 768u);
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

TEST(MessageOps, SendFileListSizeLimitAndLayout) {
    // Two names of 32767 units need exactly 2 x (65534 + 2) = 131072 bytes.
    const std::string half(32767, 'a');
    ScriptedHost host;
    EXPECT_TRUE(SendFileList(host.context(), false, {half, half}, nullptr, nullptr));
    ASSERT_EQ(host.sent.size(), 1u);
    EXPECT_EQ(host.sent[0].bytes.size(), kMessageSize + 131072);
    EXPECT_EQ(le::get32(host.sent[0].bytes.data(), 32), 131072u);
    EXPECT_FALSE(SendFileList(host.context(), false, {half, half + "b"}, nullptr, nullptr));
    EXPECT_EQ(host.sent.size(), 1u) << "an oversized list is refused before sending";

    host.sent.clear();
    EXPECT_TRUE(SendFileList(host.context(), false, {}, nullptr, nullptr));
    ASSERT_EQ(host.sent.size(), 1u);
    EXPECT_EQ(host.sent[0].bytes.size(), kMessageSize);
    EXPECT_EQ(le::get64(host.sent[0].bytes.data(), 28), 0u);  // count and names size

    host.sent.clear();
    host.answer({5});
    EXPECT_FALSE(SendFileList(host.context(), false, {"/a", "/bé"}, nullptr, nullptr));
    ASSERT_EQ(host.sent.size(), 1u) << "no dialog for a refused list";
    const auto& b = host.sent[0].bytes;
    EXPECT_EQ(le::get32(b.data(), 28), 2u);
    EXPECT_EQ(le::get32(b.data(), 32), 14u);
    const std::u16string names = std::u16string(u"/a") + u'\0' + u"/bé" + u'\0';
    for (size_t i = 0; i < names.size(); ++i) EXPECT_EQ(le::get16(b.data(), 36 + 2 * i), names[i]);
}

TEST(MessageOps, EntryOperationsAndLongNames) {
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

    // Names over 1023 units are refused without a single byte sent.
    entry.name = std::u16string(1024, u'x');
    std::string target;
    EXPECT_FALSE(SendEntry(ctx, entry));
    EXPECT_FALSE(SendEntryName(ctx, entry, true));
    EXPECT_EQ(SendLinkTarget(ctx, entry, "t"), 9u);
    EXPECT_FALSE(query_link_target(ctx, entry, target));
    EXPECT_EQ(host.sent.size(), 4u);

    entry.name = u"l";
    host.answer({1});
    EXPECT_EQ(SendLinkTarget(ctx, entry, "../lib/x"), 1u);
    const auto& b = host.sent.back().bytes;
    ASSERT_EQ(b.size(), kMessageSize + 16);
    EXPECT_EQ(le::get32(b.data(), 2128), 16u);
    const std::u16string wire = u"..\\lib\\x";
    for (size_t i = 0; i < wire.size(); ++i) EXPECT_EQ(le::get16(b.data(), 2196 + 2 * i), wire[i]);
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

    // A host that keeps asking for more room is given up on at a bounded size.
    host.sent.clear();
    for (int i = 0; i < 64; ++i) host.answer({13});
    EXPECT_FALSE(query_link_target(ctx, entry, target));
    EXPECT_LT(host.sent.size(), 12u);
    EXPECT_LE(host.sent.back().replySize, size_t{1} << 20);
}

}  // namespace
