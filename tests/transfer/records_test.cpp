// Tests of the transfer records: time conversions, and every record pinned to the byte with
// its offsets written as numbers. The reply readers are also fuzzed.
#include "transfer/records.h"

#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "support/record_check.h"
#include "support/scripted_host.h"
#include "transfer/tree_receiver.h"

namespace {

using namespace qvx;
using namespace qvx::dnd;
using qvxtest::Field;
using qvxtest::pattern;
using qvxtest::record_matches;
using qvxtest::ScriptedHost;
using qvxtest::text_at;

TEST(RecordTimes, CatalogSecondsAndTicks) {
    EXPECT_EQ(catalog_seconds_to_ticks(0), 95'616'288'000'000'000ull);
    // Only the low 32 bits of the catalog seconds are carried.
    EXPECT_EQ(catalog_seconds_to_ticks((1ull << 32) + 5), catalog_seconds_to_ticks(5));
    EXPECT_EQ(catalog_seconds_to_ticks(0xFFFFFFFF),
              0xFFFFFFFFull * 10'000'000 + 95'616'288'000'000'000ull);
    EXPECT_EQ(ticks_to_catalog_seconds(catalog_seconds_to_ticks(3'786'825'600)), 3'786'825'600u);
    // Before 1904 the unsigned subtraction wraps.
    EXPECT_EQ(ticks_to_catalog_seconds(0), uint64_t{0} - 9'561'628'800ull);
}

TEST(RecordTimes, UnixSecondsTruncateTowardZero) {
    const uint64_t epoch = 116'444'736'000'000'000ull;
    EXPECT_EQ(ticks_to_unix_seconds(epoch), 0);
    EXPECT_EQ(ticks_to_unix_seconds(epoch + 15'000'000), 1);
    EXPECT_EQ(ticks_to_unix_seconds(epoch - 15'000'000), -1);
    EXPECT_EQ(ticks_to_unix_seconds(epoch - 1), 0);
    EXPECT_EQ(ticks_to_unix_seconds(0), -11'644'473'600);
    EXPECT_EQ(ticks_to_unix_seconds(UINT64_MAX), int64_t((UINT64_MAX - epoch) / 10'000'000));
}

constexpr uint64_t W = 0x1122334455667788;  // the workerId of the records

std::vector<Field> header(uint32_t command) {
    return {{0, 4, command}, {4, 4, 2}, {12, 8, W}};
}

// An item with every field set, so that a field leaking into a record that does not carry
// it shows.
ItemInfo full_item(std::u16string name) {
    ItemInfo item;
    item.creationTime = 0x0102030405060708;
    item.accessTime = 0x1112131415161718;
    item.modificationTime = 0x2122232425262728;
    item.modeValid = 1;
    item.mode = 0755;
    item.path = "/Users/u/Photos/2019";
    item.attributes = 0x13;
    item.size = 12345;
    item.name = std::move(name);
    return item;
}

std::vector<uint8_t> built(void (*build)(uint8_t*)) {
    std::vector<uint8_t> msg(2196, 0xEE);  // the builder must clear what it does not set
    build(msg.data());
    return msg;
}

// The one request an operation sends to a host that answers `status`.
std::vector<uint8_t> sent_by(const std::function<void(const DnDContext&)>& send,
                             uint32_t status = 0) {
    ScriptedHost host;
    host.answer({status});
    send(host.context(W));
    EXPECT_EQ(host.sent.size(), 1u);
    return host.sent.empty() ? std::vector<uint8_t>{} : host.sent[0].bytes;
}

// The 769 the receiver sends for a host item named `name`: the third request, after the
// 272 that describes the item and the notice that it begins.
std::vector<uint8_t> link_query_of(std::u16string name) {
    ScriptedHost host;
    host.script.push_back({true, 0, [name](uint8_t* r, size_t) {
                               le::put32(r, 76, static_cast<uint32_t>(name.size()));
                               for (size_t i = 0; i < name.size(); ++i) {
                                   le::put16(r, 80 + 2 * i, name[i]);
                               }
                           }});
    host.answer({0, 9});  // the notice, then the 769: stop
    receive_tree(host.context(W), "/tmp");
    EXPECT_EQ(host.sent.size(), 3u);
    return host.sent.size() < 3 ? std::vector<uint8_t>{} : host.sent[2].bytes;
}

struct RecordCase {
    const char* name;
    std::function<std::vector<uint8_t>()> make;
    size_t size;
    std::vector<Field> fields;
};

TEST(TransferRecords, EveryRequestIsPinnedToTheByte) {
    static const ItemInfo item = full_item(u"Photos/2019");
    const auto name = std::vector<Field>{{76, 4, 11}} + text_at(80, u"Photos/2019");
    const auto entry = header(271) +
                       std::vector<Field>{{32, 4, 0x13},
                                          {44, 8, 0x0102030405060708},
                                          {52, 8, 0x1112131415161718},
                                          {60, 8, 0x2122232425262728},
                                          {2132, 2, 1},
                                          {2134, 2, 0755}} +
                       name;
    const std::vector<RecordCase> cases = {
        {"261 totals query",
         [] { return sent_by([](auto& c) { QueryTransferTotals(c, nullptr, nullptr); }); }, 2196,
         header(261)},
        {"262 tree totals",
         [] {
             return built([](uint8_t* m) {
                 build_send_totals(m, W, 0x0102030405060708, 0x0A0B0C0D, 0x11121314);
             });
         },
         2196,
         header(262) + std::vector<Field>{{28, 8, 0x0102030405060708},
                                          {36, 4, 0x0A0B0C0D},
                                          {2088, 4, 0x11121314}}},
        {"262 through SendTransferTotals",
         [] { return sent_by([](auto& c) { SendTransferTotals(c, 7, 8, 9); }); }, 2196,
         header(262) + std::vector<Field>{{28, 8, 7}, {36, 4, 8}, {2088, 4, 9}}},
        {"265 item header", [] { return built([](uint8_t* m) { build_item_header(m, W, item); }); },
         2196, header(265) + std::vector<Field>{{32, 4, 0x13}} + name},
        {"265 through SendEntryWithAttribute",
         [] { return sent_by([](auto& c) { SendEntryWithAttribute(c, item); }); }, 2196,
         header(265) + std::vector<Field>{{32, 4, 0x13}} + name},
        {"266 data begins",
         [] { return built([](uint8_t* m) { build_data_begin(m, W, item, 1); }); }, 2196,
         header(266) + std::vector<Field>{{28, 4, 1}} + name},
        {"266 through SendEntryWithValue",
         [] { return sent_by([](auto& c) { SendEntryWithValue(c, item, 0); }); }, 2196,
         header(266) + name},
        {"267 data ends", [] { return built([](uint8_t* m) { build_data_end(m, W); }); }, 2196,
         header(267)},
        {"268 data request",
         [] {
             return sent_by([](auto& c) {
                 std::vector<uint8_t> buffer(2196 + 4096);
                 ReadData(c, buffer.data(), 4096);
             });
         },
         2196, header(268) + std::vector<Field>{{2128, 4, 4096}}},
        {"269 data chunk",
         [] {
             return sent_by([](auto& c) {
                 std::vector<uint8_t> buffer(2196 + 3, 0xEE);
                 std::memcpy(buffer.data() + 2196, "xyz", 3);
                 WriteData(c, buffer.data(), 3);
             });
         },
         2199,
         header(269) +
             std::vector<Field>{{2128, 4, 3}, {2196, 1, 'x'}, {2197, 1, 'y'}, {2198, 1, 'z'}}},
        {"270 remove item", [] { return built([](uint8_t* m) { build_remove_item(m, W, item); }); },
         2196, header(270) + name},
        {"270 through SendEntryName",
         [] { return sent_by([](auto& c) { SendEntryName(c, item, true); }); }, 2196,
         header(270) + name},
        {"271 item attributes, size always 0",
         [] { return built([](uint8_t* m) { build_file_entry(m, W, item); }); }, 2196, entry},
        {"271 through SendEntry", [] { return sent_by([](auto& c) { SendEntry(c, item); }); }, 2196,
         entry},
        {"272 next item request",
         [] { return sent_by([](auto& c) { receive_tree(c, "/tmp"); }, 7); }, 2196, header(272)},
        {"769 link target request", [] { return link_query_of(u"\\Photos\\2019"); }, 2196,
         header(769) + std::vector<Field>{{76, 4, 12}} + text_at(80, u"\\Photos\\2019")},
        {"770 symbolic link, slashes sent as backslashes",
         [] { return sent_by([](auto& c) { SendLinkTarget(c, item, "../lib/x"); }); }, 2196 + 16,
         header(770) + name + std::vector<Field>{{2128, 4, 16}} + text_at(2196, u"..\\lib\\x")},
        {"770 empty target", [] { return sent_by([](auto& c) { SendLinkTarget(c, item, ""); }); },
         2196, header(770) + name},
        {"1023-unit name: NUL at 80 + 2046, nothing past 2127",
         [] {
             return built([](uint8_t* m) {
                 build_remove_item(m, W, full_item(std::u16string(1023, u'x')));
             });
         },
         2196,
         header(270) + std::vector<Field>{{76, 4, 1023}} + text_at(80, std::u16string(1023, u'x'))},
    };
    for (const RecordCase& c : cases) {
        EXPECT_TRUE(record_matches(c.make(), c.size, c.fields)) << c.name;
    }
}

// A reply whose bytes are all set to a pattern: every field read must be the pattern at its
// offset. The name of a 272 reply and the target of a 769 reply have to be well formed,
// so they are written over the pattern.
TEST(TransferRecords, EveryReplyFieldIsReadAtItsOffset) {
    ScriptedHost host;
    auto ctx = host.context(W);
    host.script.push_back({true, 0, [](uint8_t* r, size_t size) {
                               qvxtest::fill_pattern(r, size);
                               le::put32(r, 8, 0);
                           }});
    uint64_t total = 0;
    uint32_t second = 0;
    ASSERT_TRUE(QueryTransferTotals(ctx, &total, &second));
    EXPECT_EQ(total, pattern(28, 8));
    EXPECT_EQ(second, pattern(2088, 4));

    // 272 and 769 replies, through the readers the receiver uses on them.
    std::vector<uint8_t> reply(2196 + 16);
    qvxtest::fill_pattern(reply.data(), reply.size());
    le::put32(reply.data(), 76, 3);
    le::put16(reply.data(), 80, u'a');
    le::put16(reply.data(), 82, u'\\');
    le::put16(reply.data(), 84, u'b');
    le::put16(reply.data(), 86, 0);
    ItemInfo entry;
    ASSERT_EQ(read_file_entry(reply.data(), 2196, entry), ReplyRead::Ok);
    EXPECT_EQ(entry.attributes, pattern(32, 4));
    EXPECT_EQ(entry.creationTime, pattern(44, 8));
    EXPECT_EQ(entry.accessTime, pattern(52, 8));
    EXPECT_EQ(entry.modificationTime, pattern(60, 8));
    EXPECT_EQ(entry.size, pattern(68, 8));
    EXPECT_EQ(entry.modeValid, pattern(2132, 2));
    EXPECT_EQ(entry.mode, pattern(2134, 2));
    EXPECT_EQ(entry.name, u"a\\b");

    le::put32(reply.data(), 2128, 6);
    le::put16(reply.data(), 2196, u'.');
    le::put16(reply.data(), 2198, u'\\');
    le::put16(reply.data(), 2200, u'x');
    std::u16string target;
    ASSERT_EQ(read_link_target(reply.data(), reply.size(), target), ReplyRead::Ok);
    EXPECT_EQ(target, u".\\x");

    // 268: the status, and the data left where the caller's buffer holds it.
    host.script.push_back({true, 0, [](uint8_t* r, size_t size) {
                               qvxtest::fill_pattern(r, size);
                               le::put32(r, 8, 0x0A0B0C0D);
                           }});
    std::vector<uint8_t> buffer(2196 + 16);
    EXPECT_EQ(ReadData(ctx, buffer.data(), 16), 0x0A0B0C0Du);
    EXPECT_EQ(host.sent.back().replySize, 2196u + 16u);
    EXPECT_EQ(buffer[2196 + 15], qvxtest::pattern_byte(2196 + 15));
}

TEST(RecordBuilders, NameFieldLimit) {
    ItemInfo item;
    // One unit more than the field holds is refused and leaves nothing that could be sent.
    item.name = std::u16string(1024, u'x');
    uint8_t msg[kMessageSize];
    EXPECT_FALSE(build_remove_item(msg, 1, item));
    EXPECT_EQ(std::vector<uint8_t>(msg, msg + kMessageSize), std::vector<uint8_t>(kMessageSize, 0));
    EXPECT_FALSE(build_file_entry(msg, 1, item));
    EXPECT_EQ(le::get32(msg, 0), 0u);
    std::vector<uint8_t> link;
    EXPECT_FALSE(build_symlink(link, 1, item, u"t"));
}

}  // namespace
