// Tests of the transfer records: time conversions, field placement and the reply readers.
#include "transfer/records.h"

#include <gtest/gtest.h>

#include <cstring>
#include <vector>

namespace {

using namespace qvx;
using namespace qvx::dnd;

std::u16string units(size_t n, char16_t c = u'a') {
    return std::u16string(n, c);
}

TEST(RecordTimes, CatalogSecondsAndTicks) {
    EXPECT_EQ(catalog_seconds_to_ticks(0), 95'616'288'000'000'000ull);
    // Only the low 32 bits of the catalog seconds are carried.
    EXPECT_EQ(catalog_seconds_to_ticks((1ull << 32) + 5), catalog_seconds_to_ticks(5));
    EXPECT_EQ(catalog_seconds_to_ticks(0xFFFFFFFF),
              0xFFFFFFFFull * 10'000'000 + 95'616'288'000'000'000ull);
    for (uint64_t s : {0ull, 1ull, 3'786'825'600ull, 0xFFFFFFFFull}) {
        EXPECT_EQ(ticks_to_catalog_seconds(catalog_seconds_to_ticks(s)), s);
    }
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

    // Reading it back as a host reply gives the same item, apart from the size.
    ItemInfo back;
    ASSERT_EQ(read_file_entry(msg, sizeof msg, back), ReplyRead::Ok);
    EXPECT_EQ(back.name, item.name);
    EXPECT_EQ(back.creationTime, item.creationTime);
    EXPECT_EQ(back.mode, item.mode);
    EXPECT_EQ(back.attributes, item.attributes);
}

TEST(RecordBuilders, NameFieldLimit) {
    ItemInfo item;
    item.name = units(1023, u'x');
    uint8_t msg[kMessageSize];
    ASSERT_TRUE(build_remove_item(msg, 1, item));
    EXPECT_EQ(le::get32(msg, 76), 1023u);
    EXPECT_EQ(le::get16(msg, 80 + 2044), u'x');
    EXPECT_EQ(le::get16(msg, 2126), 0u);  // the terminator ends the field at +2127
    EXPECT_EQ(le::get32(msg, 2128), 0u);

    // One unit more is refused and leaves nothing that could be sent.
    item.name = units(1024, u'x');
    for (auto build : {+[](uint8_t*m, const ItemInfo&i) { return build_remove_item(m, 1, i); },
                       +[](uint8_t*m, const ItemInfo&i) { return build_file_entry(m, 1, i); },
                       +[](uint8_t*m, const ItemInfo&i) { return build_item_header(m, 1, i); },
                       +[](uint8_t*m, const ItemInfo&i) { return build_data_begin(m, 1, i, 1); }}) {
        EXPECT_FALSE(build(msg, item));
        EXPECT_EQ(std::vector<uint8_t>(msg, msg + kMessageSize),
                  std::vector<uint8_t>(kMessageSize, 0));
    }
    std::vector<uint8_t> link;
    EXPECT_FALSE(build_symlink(link, 1, item, u"t"));
}

TEST(RecordBuilders, NoticeCutsLongTextAndKeepsCode) {
    uint8_t msg[kMessageSize];
    build_notice(msg, 5, notice::kCannotRemove, units(1500, u'n'));
    EXPECT_EQ(le::get32(msg, 28), 4u);
    EXPECT_EQ(le::get16(msg, 32 + 2 * 1022), u'n');
    EXPECT_EQ(le::get16(msg, 32 + 2 * 1023), 0u);
    EXPECT_EQ(le::get32(msg, 2080), 6u);

    build_notice(msg, 5, notice::kFailed, u"ignored");
    EXPECT_EQ(le::get16(msg, 32), 0u);
    EXPECT_EQ(le::get32(msg, 2080), 12u);
}

TEST(RecordBuilders, SymlinkTargetGoesOutWithBackslashes) {
    ItemInfo item;
    item.name = u"dir/link";
    std::vector<uint8_t> out;
    ASSERT_TRUE(build_symlink(out, 9, item, u"../lib/x"));
    ASSERT_EQ(out.size(), kMessageSize + 16);
    EXPECT_EQ(le::get32(out.data(), 0), 770u);
    EXPECT_EQ(le::get32(out.data(), 76), 8u);
    EXPECT_EQ(le::get32(out.data(), 2128), 16u);
    const std::u16string expected = u"..\\lib\\x";
    for (size_t i = 0; i < expected.size(); ++i) {
        EXPECT_EQ(le::get16(out.data(), 2196 + 2 * i), expected[i]) << i;
    }
}

TEST(RecordReaders, FileEntryRejectsInconsistentNames) {
    std::vector<uint8_t> reply(kMessageSize, 0);
    ItemInfo item;
    item.name = u"keep";

    le::put32(reply.data(), 76, 1024);  // would put the terminator past the field
    EXPECT_EQ(read_file_entry(reply.data(), reply.size(), item), ReplyRead::Malformed);
    le::put32(reply.data(), 76, 3);
    le::put16(reply.data(), 80 + 6, u'z');  // no NUL where the length says
    EXPECT_EQ(read_file_entry(reply.data(), reply.size(), item), ReplyRead::Malformed);
    EXPECT_EQ(item.name, u"keep");
    le::put16(reply.data(), 80 + 6, 0);
    EXPECT_EQ(read_file_entry(reply.data(), kMessageSize - 1, item), ReplyRead::Malformed);
    EXPECT_EQ(read_file_entry(reply.data(), reply.size(), item), ReplyRead::Ok);
    EXPECT_EQ(item.name.size(), 3u);
}

TEST(RecordReaders, LinkTargetLengthMustFitAndBeEven) {
    std::vector<uint8_t> reply(kMessageSize + 8, 0);
    std::u16string target;
    le::put32(reply.data(), 2128, 3);
    EXPECT_EQ(read_link_target(reply.data(), reply.size(), target), ReplyRead::Malformed);
    le::put32(reply.data(), 2128, 10);
    EXPECT_EQ(read_link_target(reply.data(), reply.size(), target), ReplyRead::Malformed);
    le::put32(reply.data(), 2128, 0xFFFFFFFE);
    EXPECT_EQ(read_link_target(reply.data(), reply.size(), target), ReplyRead::Malformed);
    le::put32(reply.data(), 2128, 8);
    le::put16(reply.data(), 2196, u'/');
    ASSERT_EQ(read_link_target(reply.data(), reply.size(), target), ReplyRead::Ok);
    EXPECT_EQ(target.size(), 4u);
    EXPECT_EQ(target[0], u'/');
}

}  // namespace
