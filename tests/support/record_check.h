// Whole-record checks for wire records: a table of fields at offsets written as numbers,
// every byte the table does not name expected to be zero; and replies filled with a byte
// pattern, so that a field read from the wrong offset gives a wrong value.
#pragma once

#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <string_view>
#include <vector>

namespace qvxtest {

struct Field {
    size_t offset;
    unsigned width;  // bytes: 1, 2, 4 or 8, little-endian
    uint64_t value;
};

// UTF-16 code units at `offset`, one field each (a terminator is zero anyway).
inline std::vector<Field> text_at(size_t offset, std::u16string_view text) {
    std::vector<Field> fields;
    for (size_t i = 0; i < text.size(); ++i) fields.push_back({offset + 2 * i, 2, text[i]});
    return fields;
}

inline std::vector<Field> operator+(std::vector<Field> a, const std::vector<Field>& b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

inline std::vector<uint8_t> expected_record(size_t size, const std::vector<Field>& fields) {
    std::vector<uint8_t> record(size, 0);
    for (const Field& f : fields) {
        for (unsigned i = 0; i < f.width && f.offset + i < size; ++i)
            record[f.offset + i] = static_cast<uint8_t>(f.value >> (8 * i));
    }
    return record;
}

// The record is exactly `size` bytes and holds the fields and zeros elsewhere; names the
// first few bytes that differ.
inline ::testing::AssertionResult record_matches(const std::vector<uint8_t>& got, size_t size,
                                                 const std::vector<Field>& fields) {
    if (got.size() != size) {
        return ::testing::AssertionFailure() << "size " << got.size() << ", expected " << size;
    }
    const std::vector<uint8_t> expected = expected_record(size, fields);
    auto result = ::testing::AssertionSuccess();
    int shown = 0;
    for (size_t i = 0; i < size; ++i) {
        if (got[i] == expected[i]) continue;
        if (shown == 0) result = ::testing::AssertionFailure();
        if (shown++ < 8) {
            result << " byte " << i << " is " << int(got[i]) << ", expected " << int(expected[i])
                   << ";";
        }
    }
    return result;
}

// The reply pattern: no two nearby offsets give the same u16, u32 or u64.
inline uint8_t pattern_byte(size_t offset) {
    return static_cast<uint8_t>(offset * 131 + 7);
}
inline uint64_t pattern(size_t offset, unsigned width) {
    uint64_t value = 0;
    for (unsigned i = 0; i < width; ++i) value |= uint64_t{pattern_byte(offset + i)} << (8 * i);
    return value;
}
inline void fill_pattern(uint8_t* record, size_t size) {
    for (size_t i = 0; i < size; ++i) record[i] = pattern_byte(i);
}

}  // namespace qvxtest
