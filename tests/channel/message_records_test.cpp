// The records of the message operations pinned to the byte: every request as a whole, with
// its fields at the offsets written as numbers, and every reply field read at its offset.
#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "channel/message_ops.h"
#include "support/record_check.h"
#include "support/scripted_host.h"

namespace {

using namespace qvx;
using qvxtest::Field;
using qvxtest::pattern;
using qvxtest::record_matches;
using qvxtest::ScriptedHost;
using qvxtest::text_at;

constexpr uint64_t W = 0x1122334455667788;  // the context's workerId

std::vector<Field> header(uint32_t command, uint64_t workerId) {
    return {{0, 4, command}, {4, 4, 2}, {12, 8, workerId}};
}

struct RequestCase {
    const char* name;
    std::function<void(const DnDContext&)> send;
    size_t size;
    std::vector<Field> fields;
};

TEST(MessageRecords, EveryRequestIsPinnedToTheByte) {
    const std::vector<RequestCase> cases = {
        {"256 tool active, worker 0", [](auto& c) { SendStateNotice(c, true); }, 2196,
         header(256, 0)},
        {"257 tool stops, worker 0", [](auto& c) { SendStateNotice(c, false); }, 2196,
         header(257, 0)},
        {"260 plain", [](auto& c) { SendPlain(c, 260); }, 2196, header(260, W)},
        {"280 checked", [](auto& c) { SendChecked(c, 280); }, 2196, header(280, W)},
        {"263 dialog", [](auto& c) { SendDialog(c, 4, 6, u"Hi"); }, 2196,
         header(263, W) + std::vector<Field>{{28, 4, 4}, {2080, 4, 6}} + text_at(32, u"Hi")},
        {"263 dialog with empty text: one NUL at 32", [](auto& c) { SendDialog(c, 0, 0, u""); },
         2196, header(263, W)},
        {"275 pointer", [](auto& c) { sendMoveMouse(c, 2880, 1800, 2); }, 2196,
         header(275, W) + std::vector<Field>{{28, 4, 2880}, {32, 4, 1800}, {36, 4, 2}}},
        {"276 new worker id, worker 0", [](auto& c) { RequestWorkerId(c, nullptr); }, 2196,
         header(276, 0)},
        {"278 prepare query", [](auto& c) { QueryPrepare(c, nullptr); }, 2196, header(278, W)},
        {"258 file list, worker 0",
         [](auto& c) {
             SendFileList(c, false, {"/a", "/b\xC3\xA9"}, nullptr, nullptr);
         },
         2196 + 14,
         header(258, 0) + std::vector<Field>{{28, 4, 2}, {32, 4, 14}} + text_at(36, u"/a") +
             text_at(42, u"/b\u00E9")},
        {"768 file list", [](auto& c) { SendFileList(c, true, {"/x"}, nullptr, nullptr); },
         2196 + 6,
         header(768, 0) + std::vector<Field>{{28, 4, 1}, {32, 4, 6}} + text_at(36, u"/x")},
        {"258 empty file list", [](auto& c) { SendFileList(c, false, {}, nullptr, nullptr); }, 2196,
         header(258, 0)},
    };
    for (const RequestCase& c : cases) {
        ScriptedHost host;
        c.send(host.context(W));
        ASSERT_EQ(host.sent.size(), 1u) << c.name;
        EXPECT_TRUE(record_matches(host.sent[0].bytes, c.size, c.fields)) << c.name;
        EXPECT_EQ(host.sent[0].replySize, 2196u) << c.name;
    }
}

// The host answers status 0 (or the row's status) with every other reply byte set to a
// pattern; each output must be the pattern at the field's offset.
struct ReplyCase {
    const char* name;
    uint32_t status;
    std::function<uint64_t(const DnDContext&)> read;
    size_t offset;
    unsigned width;
};

TEST(MessageRecords, EveryReplyFieldIsReadAtItsOffset) {
    const std::vector<ReplyCase> cases = {
        {"276 worker id at 12", 0,
         [](auto& c) {
             uint64_t id = 0;
             EXPECT_TRUE(RequestWorkerId(c, &id));
             return id;
         },
         12, 8},
        {"278 value at 28", 0,
         [](auto& c) {
             uint32_t value = 0;
             EXPECT_TRUE(QueryPrepare(c, &value));
             return uint64_t{value};
         },
         28, 4},
        {"263 status at 8", 0x0B0A0908, [](auto& c) { return uint64_t{SendDialog(c, 4, 12, u"")}; },
         8, 4},
    };
    const auto patterned = [](uint32_t status) {
        return qvxtest::Answer{true, 0, [status](uint8_t* reply, size_t size) {
                                   qvxtest::fill_pattern(reply, size);
                                   le::put32(reply, 8, status);
                               }};
    };
    for (const ReplyCase& c : cases) {
        ScriptedHost host;
        host.script.push_back(patterned(c.status));
        const uint64_t expected = c.offset == 8 ? c.status : pattern(c.offset, c.width);
        EXPECT_EQ(c.read(host.context(W)), expected) << c.name;
    }
    // Both file lists, accepted or taken over by the host: worker id at 12, action at 2092.
    for (const bool list768 : {false, true}) {
        for (const uint32_t status : {0u, 200u}) {
            ScriptedHost host;
            host.script.push_back(patterned(status));
            uint64_t id = 0;
            uint32_t action = 0;
            EXPECT_TRUE(SendFileList(host.context(W), list768, {"/a"}, &id, &action));
            EXPECT_EQ(id, pattern(12, 8)) << list768 << " " << status;
            EXPECT_EQ(action, pattern(2092, 4)) << list768 << " " << status;
        }
    }
}

TEST(MessageRecords, DialogReturnsAllOnesWhenTheExchangeFails) {
    ScriptedHost host;
    host.fail();
    EXPECT_EQ(SendDialog(host.context(), 4, 12, u"x"), 0xFFFFFFFFu);
    EXPECT_EQ(host.sent.size(), 1u);
}

// A dialog text holds 1023 code units and its NUL between 32 and 2079; dialogCode at 2080
// is never touched, and a cut never leaves half a surrogate pair.
TEST(MessageRecords, LongDialogTextIsCutWithinItsField) {
    ScriptedHost host;
    SendDialog(host.context(), 4, 12, std::u16string(1024, u'b'));
    ASSERT_EQ(host.sent.size(), 1u);
    EXPECT_TRUE(record_matches(host.sent[0].bytes, 2196,
                               header(263, ScriptedHost::kWorker) +
                                   std::vector<Field>{{28, 4, 4}, {2080, 4, 12}} +
                                   text_at(32, std::u16string(1023, u'b'))));

    // U+1F600 as its pair D83D DE00 at units 1022 and 1023: the pair does not fit whole.
    const std::u16string text = std::u16string(1022, u'a') + u"\U0001F600";
    host.sent.clear();
    SendDialog(host.context(), 4, 12, text);
    ASSERT_EQ(host.sent.size(), 1u);
    EXPECT_TRUE(record_matches(host.sent[0].bytes, 2196,
                               header(263, ScriptedHost::kWorker) +
                                   std::vector<Field>{{28, 4, 4}, {2080, 4, 12}} +
                                   text_at(32, std::u16string(1022, u'a'))));
}

// Names need code units x 2 + 2 bytes each: two names of 32767 units need 131072 bytes, and
// one unit more is refused before anything is sent.
TEST(MessageRecords, FileListOfAtMost131072BytesOfNames) {
    const std::string half(32767, 'a');
    ScriptedHost host;
    EXPECT_TRUE(SendFileList(host.context(), false, {half, half}, nullptr, nullptr));
    ASSERT_EQ(host.sent.size(), 1u);
    const auto& b = host.sent[0].bytes;
    ASSERT_EQ(b.size(), 2196u + 131072u);
    EXPECT_EQ(le::get32(b.data(), 28), 2u);
    EXPECT_EQ(le::get32(b.data(), 32), 131072u);
    EXPECT_EQ(le::get16(b.data(), 36 + 65534), 0u);
    EXPECT_EQ(le::get16(b.data(), 36 + 65536), u'a');
    EXPECT_EQ(le::get16(b.data(), 36 + 131068), u'a');
    EXPECT_EQ(le::get16(b.data(), 36 + 131070), 0u);

    EXPECT_FALSE(SendFileList(host.context(), false, {half, half + "b"}, nullptr, nullptr));
    EXPECT_EQ(host.sent.size(), 1u);
}

}  // namespace
