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

}  // namespace
