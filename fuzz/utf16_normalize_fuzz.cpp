// Fuzzes the wire-to-path conversion with arbitrary bytes and checks its round trip.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "text/encoding.h"

namespace {

// Whether the bytes are UTF-16LE text (even count, surrogates paired) whose first unit
// is not NUL: such input must give a non-empty name.
bool IsNonEmptyText(const uint8_t* data, size_t size) {
    if (size == 0 || size % 2 != 0) return false;
    const size_t units = size / 2;
    auto unit = [&](size_t i) {
        return static_cast<uint16_t>(data[2 * i] | (data[2 * i + 1] << 8));
    };
    if (unit(0) == 0) return false;
    for (size_t i = 0; i < units; ++i) {
        const uint16_t u = unit(i);
        if (u >= 0xD800 && u <= 0xDBFF) {
            if (i + 1 >= units || unit(i + 1) < 0xDC00 || unit(i + 1) > 0xDFFF) return false;
            ++i;
        } else if (u >= 0xDC00 && u <= 0xDFFF) {
            return false;
        }
    }
    return true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::string name;
    qvx::Utf16ToNormalizedUtf8(data, size, name);
    if (IsNonEmptyText(data, size) && name.empty()) std::abort();
    if (name.empty()) return 0;
    if (name.find('\0') != std::string::npos) std::abort();

    // The name must be valid UTF-8, and already decomposed: sending it back over the
    // wire and receiving it again changes nothing.
    const std::u16string units = qvx::Utf8ToUtf16(name);
    if (units.empty()) std::abort();
    std::string wire;
    for (char16_t u : units) {
        wire.push_back(static_cast<char>(u & 0xFF));
        wire.push_back(static_cast<char>(u >> 8));
    }
    std::string again;
    qvx::Utf16ToNormalizedUtf8(wire.data(), wire.size(), again);
    if (again != name) std::abort();
    return 0;
}
