// The iconv conversion behind Utf8ToUtf16, open to any UTF-16 form so tests can drive it.
#pragma once

#include <cstddef>
#include <string>

namespace qvx::text_detail {

// UTF-8 to UTF-16 code units through an iconv converter to `toCode`: "UTF-16LE",
// "UTF-16BE", or "UTF-16", whose leading byte-order mark gives the byte order and is
// dropped (no mark means big-endian). Empty on any conversion error.
std::u16string Utf8ToUtf16Via(const char* toCode, const char* utf8, size_t byteCount);

}  // namespace qvx::text_detail
