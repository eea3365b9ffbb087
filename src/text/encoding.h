// Conversions of names and paths between platform strings, UTF-8 and UTF-16.
#pragma once

#include <cstddef>
#include <string>

typedef const struct __CFString* CFStringRef;

namespace qvx {

// Result codes of CFStringToUtf8.
inline constexpr int kConvOk = 0;
inline constexpr int kConvNoMemory = 4;
inline constexpr int kConvFailed = 7;

// A platform string as UTF-8; 0, 4 (out of memory) or 7 (conversion failed, `out`
// unchanged).
int CFStringToUtf8(CFStringRef string, std::string& out);

// UTF-16LE bytes (no NUL) to UTF-8 in normalization form D. Bytes that are no text
// (an odd count, unpaired surrogates) leave `out` empty.
void Utf16ToNormalizedUtf8(const void* bytes, size_t byteCount, std::string& out);

// UTF-8 to UTF-16 code units (no byte-order mark). Invalid or incomplete UTF-8 gives
// an empty string, never a partial one.
std::u16string Utf8ToUtf16(const char* utf8, size_t byteCount);
inline std::u16string Utf8ToUtf16(const std::string& utf8) {
    return Utf8ToUtf16(utf8.data(), utf8.size());
}

}  // namespace qvx
