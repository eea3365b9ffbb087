// The host's UTF-16 conversions, on ICU.
#include "hostsim/wire_text.h"

#include <unicode/ustring.h>

#include "common/byte_order.h"

namespace hostsim {
namespace {

// Converts with ICU; `substitute` is the code point an unpaired surrogate becomes, or -1
// to refuse such text.
bool convert(std::u16string_view in, std::string& out, UChar32 substitute) {
    out.clear();
    if (in.empty()) return true;
    const auto* units = reinterpret_cast<const UChar*>(in.data());
    const auto length = static_cast<int32_t>(in.size());
    // At most three UTF-8 bytes per UTF-16 unit (a pair of units gives four).
    out.resize(in.size() * 3);
    int32_t written = 0;
    UErrorCode status = U_ZERO_ERROR;
    if (substitute < 0) {
        u_strToUTF8(out.data(), static_cast<int32_t>(out.size()), &written, units, length, &status);
    } else {
        u_strToUTF8WithSub(out.data(), static_cast<int32_t>(out.size()), &written, units, length,
                           substitute, nullptr, &status);
    }
    if (U_FAILURE(status)) {
        out.clear();
        return false;
    }
    out.resize(static_cast<size_t>(written));
    return true;
}

}  // namespace

bool utf16_to_utf8(std::u16string_view in, std::string& out) {
    return convert(in, out, -1);
}

std::string wire_text(const uint8_t* p, size_t bytes, size_t* consumed) {
    std::u16string units;
    size_t i = 0;
    for (; i + 1 < bytes; i += 2) {
        const char16_t u = static_cast<char16_t>(qvx::le::get16(p + i));
        if (u == 0) {
            i += 2;
            break;
        }
        units += u;
    }
    if (consumed) *consumed = i;
    std::string out;
    convert(units, out, 0xFFFD);
    return out;
}

}  // namespace hostsim
