// Tests of the tagged request writer and reader.
#include "toolservice/service_buffer.h"

#include <gtest/gtest.h>

#include <array>
#include <cstring>
#include <string>
#include <vector>

#include "common/byte_order.h"

namespace qvx {
namespace {

using le::get32;

// A record built by hand: container at `offset`, elements {tag, index, length}.
std::vector<uint8_t> record(uint32_t offset, std::vector<std::array<uint32_t, 3>> elements,
                            uint32_t tag = kContainerTag) {
    std::vector<uint8_t> bytes(offset + 12);
    for (const auto& e : elements) {
        size_t at = bytes.size();
        bytes.resize(at + 12 + e[2], 0xEE);
        le::put32(bytes.data(), at, e[2]);
        le::put32(bytes.data(), at + 4, e[0]);
        le::put32(bytes.data(), at + 8, e[1]);
    }
    le::put32(bytes.data(), offset, static_cast<uint32_t>(bytes.size() - offset - 12));
    le::put32(bytes.data(), offset + 4, tag);
    return bytes;
}

bool same_state(const ServiceWriter& a, const ServiceWriter& b) {
    return a.count == b.count && a.headerOffset == b.headerOffset && a.position == b.position &&
           a.data == b.data && a.capacity == b.capacity && a.fixed == b.fixed;
}

TEST(ServiceWriter, GrowsByDoublingFromThePrefix) {
    ServiceWriter w{};
    ASSERT_EQ(writer_init(&w, 16), 0);
    EXPECT_EQ(w.capacity, 32u);
    EXPECT_EQ(w.position, 28u);
    EXPECT_EQ(get32(w.data, 16), 0u);
    EXPECT_EQ(get32(w.data, 20), 0x1000u);
    EXPECT_EQ(writer_total_size(&w), 28u);

    const uint8_t eight[8] = {1, 2, 3, 4, 5, 6, 7, 8};
    uint8_t* at = nullptr;
    ASSERT_EQ(writer_put(&w, eight, 8, 0x2001, &at), 0);
    EXPECT_EQ(w.capacity, 64u);
    EXPECT_EQ(at, w.data + 40);
    EXPECT_EQ(std::memcmp(at, eight, 8), 0);
    EXPECT_EQ(writer_total_size(&w), 48u);
    EXPECT_EQ(get32(w.data, 16), 20u);

    // No data and no length: a bare header that still takes the next index.
    ASSERT_EQ(writer_put(&w, nullptr, 0, 0x20CC, nullptr), 0);
    EXPECT_EQ(writer_total_size(&w), 60u);
    EXPECT_EQ(get32(w.data, 48), 0u);
    EXPECT_EQ(get32(w.data, 52), 0x20CCu);
    EXPECT_EQ(get32(w.data, 56), 1u);
    EXPECT_EQ(w.count, 2u);
    writer_free(&w);
    EXPECT_EQ(w.data, nullptr);
}

TEST(ServiceWriter, FailedPutLeavesStateAsItWas) {
    uint8_t fixedBuffer[44] = {};
    ServiceWriter w{};
    ASSERT_EQ(writer_attach(&w, 16, fixedBuffer, sizeof fixedBuffer), 0);
    ASSERT_EQ(writer_put(&w, "abcd", 4, 1, nullptr), 0);  // exactly fills the buffer
    const ServiceWriter before = w;
    EXPECT_EQ(writer_put(&w, nullptr, 0, 2, nullptr), kSbNoMemory);
    EXPECT_EQ(writer_reserve(&w, 1), kSbNoMemory);
    EXPECT_TRUE(same_state(before, w));
    EXPECT_EQ(w.data, fixedBuffer);
    EXPECT_EQ(get32(fixedBuffer, 16), 16u);

    ServiceWriter small{};
    EXPECT_EQ(writer_attach(&small, 16, fixedBuffer, 27), kSbNoMemory);

    // A length whose element cannot fit in 32 bits fails before anything moves.
    ServiceWriter g{};
    ASSERT_EQ(writer_init(&g, 0), 0);
    const ServiceWriter grown = g;
    EXPECT_EQ(writer_put(&g, nullptr, 0xFFFFFFF8u, 1, nullptr), kSbNoMemory);
    EXPECT_TRUE(same_state(grown, g));
    writer_free(&g);
}

TEST(ServiceReader, ReportsEachKindOfDamage) {
    ServiceWriter r{};
    auto open = [&](const std::vector<uint8_t>& b, uint32_t offset) {
        return reader_open(&r, b.data(), static_cast<uint32_t>(b.size()), offset);
    };
    EXPECT_EQ(open(record(4, {}), 4), kSbEnd);
    EXPECT_EQ(open(record(0, {{7, 0, 3}}, kContainerTagAlt), 0), 0);
    EXPECT_EQ(open(record(0, {{7, 0, 3}}, 0x1001), 0), kSbBadHeader);
    EXPECT_EQ(open(record(8, {}), 9), kSbBadHeader);  // header would end past the buffer
    EXPECT_EQ(open(record(0, {{7, 1, 3}}), 0), kSbSequence);

    auto longer = record(0, {{7, 0, 3}});
    le::put32(longer.data(), 0, 16);  // container claims one byte more than it holds
    EXPECT_EQ(open(longer, 0), kSbBounds);
    auto wraps = record(0, {{7, 0, 3}});
    le::put32(wraps.data(), 0, 0xFFFFFFF8u);
    EXPECT_EQ(open(wraps, 0), kSbWrap);

    auto elementPastEnd = record(0, {{7, 0, 3}, {8, 1, 0}});
    le::put32(elementPastEnd.data(), 27, 1);  // the second element claims a byte
    ASSERT_EQ(open(elementPastEnd, 0), 0);
    EXPECT_EQ(reader_next(&r), kSbBounds);

    // A container too short for an element header: reported before the header is read.
    auto stub = record(0, {});
    stub.resize(20, 0);
    le::put32(stub.data(), 0, 8);
    EXPECT_EQ(open(stub, 0), kSbBounds);

    auto outOfOrder = record(0, {{7, 0, 1}, {8, 5, 1}});
    ASSERT_EQ(open(outOfOrder, 0), 0);
    EXPECT_EQ(reader_next(&r), kSbSequence);
    EXPECT_EQ(reader_next(&r), kSbSequence);  // a broken element stops the walk
}

TEST(ServiceBuffer, AllocatesResizesAndFrees) {
    ServiceBuffer b{reinterpret_cast<uint8_t*>(1), 9};
    ASSERT_TRUE(buffer_alloc(&b, 0));
    EXPECT_EQ(b.data, nullptr);
    EXPECT_EQ(b.size, 0u);
    ASSERT_TRUE(buffer_resize(&b, 100));
    EXPECT_EQ(b.size, 100u);
    buffer_free(&b);
    EXPECT_EQ(b.data, nullptr);
    EXPECT_EQ(next_power_of_two(2, 28), 32u);
    EXPECT_EQ(next_power_of_two(0x80000000u, 0xFFFFFFFFu), 0u);
    EXPECT_EQ(safe_strlen(nullptr), 0u);
}

}  // namespace
}  // namespace qvx
