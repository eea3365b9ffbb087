// Conversions of names and paths between platform strings, UTF-8 and UTF-16.
#include "text/encoding.h"

#include <errno.h>
#include <iconv.h>

#include <algorithm>
#include <climits>
#include <cstring>
#include <memory>
#include <new>
#include <stdexcept>

#include <CoreFoundation/CFString.h>

#include "common/byte_order.h"
#include "text/encoding_iconv.h"

namespace qvx {

int CFStringToUtf8(CFStringRef string, std::string& out) {
    if (!string) return kConvFailed;
    if (const char* direct = CFStringGetCStringPtr(string, kCFStringEncodingUTF8)) {
        try {
            out.assign(direct);
        } catch (const std::bad_alloc&) {
            return kConvNoMemory;
        }
        return kConvOk;
    }
    const CFIndex max =
        CFStringGetMaximumSizeForEncoding(CFStringGetLength(string), kCFStringEncodingUTF8);
    // A size too large to count is too large to allocate.
    if (max == kCFNotFound || max == LONG_MAX) return kConvNoMemory;
    const CFIndex size = max + 1;
    std::unique_ptr<char[]> buffer(new (std::nothrow) char[static_cast<size_t>(size)]);
    if (!buffer) return kConvNoMemory;
    if (!CFStringGetCString(string, buffer.get(), size, kCFStringEncodingUTF8)) return kConvFailed;
    try {
        out.assign(buffer.get());
    } catch (const std::bad_alloc&) {
        return kConvNoMemory;
    }
    return kConvOk;
}

void Utf16ToNormalizedUtf8(const void* bytes, size_t byteCount, std::string& out) {
    out.clear();
    if (byteCount > static_cast<size_t>(LONG_MAX)) return;
    CFStringRef wire = CFStringCreateWithBytesNoCopy(
        kCFAllocatorDefault, static_cast<const UInt8*>(bytes), static_cast<CFIndex>(byteCount),
        kCFStringEncodingUTF16LE, false, kCFAllocatorNull);
    if (!wire) return;
    CFMutableStringRef decomposed = CFStringCreateMutableCopy(kCFAllocatorDefault, 0, wire);
    if (decomposed) {
        CFStringNormalize(decomposed, kCFStringNormalizationFormD);
        // A failure leaves `out` empty, which callers treat as an unusable name.
        (void)CFStringToUtf8(decomposed, out);
        CFRelease(decomposed);
    }
    CFRelease(wire);
}

// The wire wants little-endian units and no byte-order mark. Asking iconv for
// "UTF-16LE" gives exactly that on every converter; plain "UTF-16" leaves both the mark
// and the byte order to the converter (glibc writes FF FE and then host order).
std::u16string Utf8ToUtf16(const char* utf8, size_t byteCount) {
    return text_detail::Utf8ToUtf16Via("UTF-16LE", utf8, byteCount);
}

namespace text_detail {

namespace {

// One converter per call keeps the conversions reentrant.
class Converter {
  public:
    explicit Converter(const char* toCode) : m_cd(iconv_open(toCode, "UTF-8")) {}
    ~Converter() {
        if (ok()) iconv_close(m_cd);
    }
    Converter(const Converter&) = delete;
    Converter& operator=(const Converter&) = delete;

    bool ok() const { return m_cd != reinterpret_cast<iconv_t>(-1); }
    iconv_t get() const { return m_cd; }

  private:
    iconv_t m_cd;
};

// Output bytes to code units in the byte order that `toCode` implies.
std::u16string DecodeUnits(const char* toCode, const std::string& bytes, size_t count) {
    const auto* p = reinterpret_cast<const uint8_t*>(bytes.data());
    bool little = std::strcmp(toCode, "UTF-16LE") == 0;
    if (std::strcmp(toCode, "UTF-16LE") != 0 && std::strcmp(toCode, "UTF-16BE") != 0 &&
        count >= 2) {
        if (p[0] == 0xFF && p[1] == 0xFE) {
            little = true;
            p += 2, count -= 2;
        } else if (p[0] == 0xFE && p[1] == 0xFF) {
            p += 2, count -= 2;
        }
    }
    if (count % 2 != 0) return {};
    std::u16string units(count / 2, u'\0');
    for (size_t i = 0; i < units.size(); ++i) {
        const uint16_t v =
            little ? le::get16(p + 2 * i) : static_cast<uint16_t>((p[2 * i] << 8) | p[2 * i + 1]);
        units[i] = static_cast<char16_t>(v);
    }
    return units;
}

}  // namespace

std::u16string Utf8ToUtf16Via(const char* toCode, const char* utf8, size_t byteCount) {
    if (byteCount == 0 || !utf8) return {};
    // The produced bytes must fit both the byte buffer and the code-unit string made
    // from them; an area beyond that is refused rather than wrapped around.
    const size_t limit = std::min(std::string().max_size(), std::u16string().max_size() * 2);
    if (byteCount > limit / 2) return {};

    Converter cd(toCode);
    if (!cd.ok()) return {};

    try {
        std::string out(2 * byteCount, '\0');
        char* in = const_cast<char*>(utf8);
        size_t inLeft = byteCount;
        size_t produced = 0;
        bool flushing = false;
        for (;;) {
            char* o = out.data() + produced;
            size_t outLeft = out.size() - produced;
            const size_t r = flushing ? iconv(cd.get(), nullptr, nullptr, &o, &outLeft)
                                      : iconv(cd.get(), &in, &inLeft, &o, &outLeft);
            produced = out.size() - outLeft;
            if (r != static_cast<size_t>(-1)) {
                if (flushing) break;
                flushing = true;  // let the converter write out any state it holds
                continue;
            }
            // EILSEQ and EINVAL (invalid or truncated UTF-8): no partial names.
            if (errno != E2BIG) return {};
            if (out.size() > limit / 2) return {};
            out.resize(out.size() * 2);
        }
        return DecodeUnits(toCode, out, produced);
    } catch (const std::bad_alloc&) {
        return {};
    } catch (const std::length_error&) {
        return {};
    }
}

}  // namespace text_detail

}  // namespace qvx
