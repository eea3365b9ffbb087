// Tests of the transfer records: time conversions and field placement. The reply
// readers are tested through next_item and query_link_target, and fuzzed.
#include "transfer/records.h"

#include <gtest/gtest.h>

#include <cstring>
#include <vector>

namespace {

using namespace qvx;
using namespace qvx::dnd;

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

TEST(RecordBuilders, FileEntryPlacesEveryField) {
    ItemInfo item;
    item.attributes = 0x11;
    item.creationTime = 0x0102030405060708;
    item.accessTime = 0x1112131415161718;
    item.modificationTime = 0x2122232425262728;
    item.size = 12345;
    item.modeValid = 1;
    item.mode = 0755;
    item.name = u"Photos/2019/a.jpg";
    uint8_t msg[kMessageSize];
    std::memset(msg, 0xEE, sizeof msg);
    ASSERT_TRUE(build_file_entry(msg, 77, item));

    EXPECT_EQ(le::get32(msg, 0), 271u);
    EXPECT_EQ(le::get32(msg, 4), 2u);
    EXPECT_EQ(le::get64(msg, 12), 77u);
    EXPECT_EQ(le::get32(msg, 32), 0x11u);
    EXPECT_EQ(le::get64(msg, 36), 0u);
    EXPECT_EQ(le::get64(msg, 44), item.creationTime);
    EXPECT_EQ(le::get64(msg, 52), item.accessTime);
    EXPECT_EQ(le::get64(msg, 60), item.modificationTime);
    EXPECT_EQ(le::get64(msg, 68), 0u) << "a 271 always carries size 0";
    EXPECT_EQ(le::get32(msg, 76), 17u);
    EXPECT_EQ(le::get16(msg, 80), u'P');
    EXPECT_EQ(le::get16(msg, 80 + 2 * 17), 0u);
    EXPECT_EQ(le::get16(msg, 2132), 1u);
    EXPECT_EQ(le::get16(msg, 2134), 0755u);
}

TEST(RecordBuilders, NameFieldLimit) {
    ItemInfo item;
    item.name = std::u16string(1023, u'x');
    uint8_t msg[kMessageSize];
    ASSERT_TRUE(build_remove_item(msg, 1, item));
    EXPECT_EQ(le::get32(msg, 76), 1023u);
    EXPECT_EQ(le::get16(msg, 80 + 2044), u'x');
    EXPECT_EQ(le::get16(msg, 2126), 0u);  // the terminator ends the field at +2127
    EXPECT_EQ(le::get32(msg, 2128), 0u);

    // One unit more is refused and leaves nothing that could be sent.
    item.name = std::u16string(1024, u'x');
    EXPECT_FALSE(build_remove_item(msg, 1, item));
    EXPECT_EQ(std::vector<uint8_t>(msg, msg + kMessageSize), std::vector<uint8_t>(kMessageSize, 0));
    EXPECT_FALSE(build_file_entry(msg, 1, item));
    EXPECT_EQ(le::get32(msg, 0), 0u);
    std::vector<uint8_t> link;
    EXPECT_FALSE(build_symlink(link, 1, item, u"t"));
}

}  // namespace
