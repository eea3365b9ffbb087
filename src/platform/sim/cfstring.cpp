// CoreFoundation string stand-in: UTF-16 string objects, ICU normalization, UTF-8 out.
#include <CoreFoundation/CFString.h>

#include <unicode/normalizer2.h>
#include <unicode/unistr.h>

#include <atomic>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <new>
#include <string>
#include <string_view>

#include "common/byte_order.h"
#include "platform/sim/cf_object.h"

struct __CFAllocator {
    int kind;
};

namespace {

const __CFAllocator gMallocAllocator{1};
const __CFAllocator gNullAllocator{2};

}  // namespace

const CFAllocatorRef kCFAllocatorDefault = nullptr;
const CFAllocatorRef kCFAllocatorMalloc = &gMallocAllocator;
const CFAllocatorRef kCFAllocatorNull = &gNullAllocator;

struct __CFString : platform::CFObject {
    __CFString() : CFObject(platform::kCFStringTypeID) {}
    ~__CFString() override {
        if (external && externalDeallocator != kCFAllocatorNull)
            std::free(const_cast<void*>(external));
    }
    bool Equals(const CFObject& other) const override;

    bool isMutable = false;
    // A no-copy UTF-16LE string reads its caller's bytes; `units` is unused then.
    const uint8_t* borrowed = nullptr;
    size_t borrowedUnits = 0;
    // Bytes handed over by a no-copy creation, freed at the end unless kCFAllocatorNull.
    const void* external = nullptr;
    CFAllocatorRef externalDeallocator = kCFAllocatorNull;
    std::u16string units;
    // NUL-terminated 8-bit form offered by CFStringGetCStringPtr; empty when not offered.
    std::string cstring;
    bool hasCString = false;
};

namespace {

bool IsHigh(char16_t u) {
    return u >= 0xD800 && u <= 0xDBFF;
}
bool IsLow(char16_t u) {
    return u >= 0xDC00 && u <= 0xDFFF;
}

// Strict UTF-8: overlong forms, encoded surrogates, values above U+10FFFF and truncated
// sequences are all refused, so a string object never holds an unpaired surrogate.
bool DecodeUtf8(const unsigned char* p, size_t n, std::u16string& out) {
    out.reserve(n);
    size_t i = 0;
    while (i < n) {
        const unsigned b = p[i];
        if (b < 0x80) {
            out.push_back(static_cast<char16_t>(b));
            ++i;
            continue;
        }
        size_t len;
        uint32_t cp;
        uint32_t min;
        if (b >= 0xC2 && b <= 0xDF) {
            len = 2, cp = b & 0x1F, min = 0x80;
        } else if ((b & 0xF0) == 0xE0) {
            len = 3, cp = b & 0x0F, min = 0x800;
        } else if (b >= 0xF0 && b <= 0xF4) {
            len = 4, cp = b & 0x07, min = 0x10000;
        } else {
            return false;
        }
        if (n - i < len) return false;
        for (size_t k = 1; k < len; ++k) {
            const unsigned c = p[i + k];
            if ((c & 0xC0) != 0x80) return false;
            cp = (cp << 6) | (c & 0x3F);
        }
        if (cp < min || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) return false;
        if (cp >= 0x10000) {
            cp -= 0x10000;
            out.push_back(static_cast<char16_t>(0xD800 + (cp >> 10)));
            out.push_back(static_cast<char16_t>(0xDC00 + (cp & 0x3FF)));
        } else {
            out.push_back(static_cast<char16_t>(cp));
        }
        i += len;
    }
    return true;
}

// UTF-8 of `units` into buf[0, cap); false when it does not fit or a surrogate is
// unpaired.
bool EncodeUtf8(std::u16string_view units, char* buf, size_t cap, size_t& written) {
    size_t o = 0;
    for (size_t i = 0; i < units.size(); ++i) {
        uint32_t cp = units[i];
        if (IsHigh(units[i])) {
            if (i + 1 >= units.size() || !IsLow(units[i + 1])) return false;
            cp = 0x10000 + ((cp - 0xD800) << 10) + (units[i + 1] - 0xDC00);
            ++i;
        } else if (IsLow(units[i])) {
            return false;
        }
        const size_t len = cp < 0x80 ? 1 : cp < 0x800 ? 2 : cp < 0x10000 ? 3 : 4;
        if (cap - o < len) return false;
        if (len == 1) {
            buf[o] = static_cast<char>(cp);
        } else {
            static constexpr unsigned char kLead[] = {0, 0, 0xC0, 0xE0, 0xF0};
            for (size_t k = len - 1; k > 0; --k, cp >>= 6) {
                buf[o + k] = static_cast<char>(0x80 | (cp & 0x3F));
            }
            buf[o] = static_cast<char>(kLead[len] | cp);
        }
        o += len;
    }
    written = o;
    return true;
}

// The string's code units; a no-copy string's bytes are read into `scratch` first since
// they may sit at any alignment.
bool ViewUnits(const __CFString* s, std::u16string& scratch, std::u16string_view& view) {
    if (!s->borrowed) {
        view = s->units;
        return true;
    }
    try {
        scratch.resize(s->borrowedUnits);
    } catch (const std::bad_alloc&) {
        return false;
    }
    for (size_t i = 0; i < s->borrowedUnits; ++i) {
        scratch[i] = static_cast<char16_t>(qvx::le::get16(s->borrowed + 2 * i));
    }
    view = scratch;
    return true;
}

bool IsAscii(const void* bytes, size_t n) {
    const auto* p = static_cast<const unsigned char*>(bytes);
    for (size_t i = 0; i < n; ++i) {
        if (p[i] >= 0x80) return false;
    }
    return true;
}

bool KnownEightBit(CFStringEncoding e) {
    return e == kCFStringEncodingUTF8 || e == kCFStringEncodingASCII;
}

}  // namespace

CFStringRef CFStringCreateWithBytesNoCopy(CFAllocatorRef /*alloc*/, const UInt8* bytes,
                                          CFIndex numBytes, CFStringEncoding encoding,
                                          Boolean isExternalRepresentation,
                                          CFAllocatorRef contentsDeallocator) {
    if (numBytes < 0 || (bytes == nullptr && numBytes != 0)) return nullptr;
    const size_t n = static_cast<size_t>(numBytes);
    auto* s = new (std::nothrow) __CFString;
    if (!s) return nullptr;

    bool ok = false;
    if (encoding == kCFStringEncodingUTF16LE) {
        const uint8_t* p = bytes;
        size_t count = n;
        if (isExternalRepresentation && count >= 2 && p[0] == 0xFF && p[1] == 0xFE) {
            p += 2;
            count -= 2;
        }
        ok = count % 2 == 0;
        const size_t units = count / 2;
        for (size_t i = 0; ok && i < units; ++i) {
            const auto u = static_cast<char16_t>(qvx::le::get16(p + 2 * i));
            if (IsHigh(u)) {
                ok = i + 1 < units && IsLow(static_cast<char16_t>(qvx::le::get16(p + 2 * i + 2)));
                ++i;
            } else if (IsLow(u)) {
                ok = false;
            }
        }
        s->borrowed = p;
        s->borrowedUnits = units;
    } else if (KnownEightBit(encoding)) {
        // 8-bit text is kept as UTF-16 like everything else; the bytes are no longer
        // read, but are still freed at the end as the caller asked.
        try {
            ok = (encoding == kCFStringEncodingUTF8 || IsAscii(bytes, n)) &&
                 DecodeUtf8(bytes, n, s->units);
        } catch (const std::bad_alloc&) {
            ok = false;
        }
    }
    if (!ok) {
        delete s;
        return nullptr;
    }
    s->external = bytes;
    s->externalDeallocator = contentsDeallocator;
    return s;
}

CFStringRef CFStringCreateWithCString(CFAllocatorRef /*alloc*/, const char* cStr,
                                      CFStringEncoding encoding) {
    if (!cStr || !KnownEightBit(encoding)) return nullptr;
    auto* s = new (std::nothrow) __CFString;
    if (!s) return nullptr;
    try {
        s->cstring.assign(cStr);
        const bool ascii = IsAscii(s->cstring.data(), s->cstring.size());
        if ((encoding == kCFStringEncodingASCII && !ascii) ||
            !DecodeUtf8(reinterpret_cast<const unsigned char*>(s->cstring.data()),
                        s->cstring.size(), s->units)) {
            delete s;
            return nullptr;
        }
        s->hasCString = ascii;
        if (!ascii) std::string().swap(s->cstring);
    } catch (const std::bad_alloc&) {
        delete s;
        return nullptr;
    }
    return s;
}

CFMutableStringRef CFStringCreateMutableCopy(CFAllocatorRef /*alloc*/, CFIndex maxLength,
                                             CFStringRef theString) {
    if (!theString || maxLength < 0) return nullptr;
    auto* s = new (std::nothrow) __CFString;
    if (!s) return nullptr;
    s->isMutable = true;
    std::u16string scratch;
    std::u16string_view view;
    bool ok = ViewUnits(theString, scratch, view) &&
              (maxLength == 0 || view.size() <= static_cast<size_t>(maxLength));
    if (ok) {
        try {
            if (theString->borrowed) {
                s->units.swap(scratch);
            } else {
                s->units.assign(view);
            }
        } catch (const std::bad_alloc&) {
            ok = false;
        }
    }
    if (!ok) {
        delete s;
        return nullptr;
    }
    return s;
}

namespace {

// ICU builds its normalizer singletons behind its own once-flags, which ThreadSanitizer
// cannot see; fetching them inside C++ static initialisation publishes them to every
// thread through a guard the sanitizer (and the language) does know.
const icu::Normalizer2* normalizer_for(CFStringNormalizationForm form) {
    using Getter = const icu::Normalizer2* (*)(UErrorCode&);
    auto fetch = [](Getter get) -> const icu::Normalizer2* {
        UErrorCode status = U_ZERO_ERROR;
        const icu::Normalizer2* n = get(status);
        return U_SUCCESS(status) ? n : nullptr;
    };
    switch (form) {
        case kCFStringNormalizationFormD: {
            static const icu::Normalizer2* const n = fetch(icu::Normalizer2::getNFDInstance);
            return n;
        }
        case kCFStringNormalizationFormKD: {
            static const icu::Normalizer2* const n = fetch(icu::Normalizer2::getNFKDInstance);
            return n;
        }
        case kCFStringNormalizationFormC: {
            static const icu::Normalizer2* const n = fetch(icu::Normalizer2::getNFCInstance);
            return n;
        }
        case kCFStringNormalizationFormKC: {
            static const icu::Normalizer2* const n = fetch(icu::Normalizer2::getNFKCInstance);
            return n;
        }
    }
    return nullptr;
}

}  // namespace

void CFStringNormalize(CFMutableStringRef theString, CFStringNormalizationForm theForm) {
    if (!theString || !theString->isMutable) return;
    if (theString->units.size() > static_cast<size_t>(INT32_MAX)) return;
    const icu::Normalizer2* normalizer = normalizer_for(theForm);
    if (!normalizer) return;
    UErrorCode status = U_ZERO_ERROR;

    // A read-only alias: ICU reads our units in place.
    const icu::UnicodeString source(false, theString->units.data(),
                                    static_cast<int32_t>(theString->units.size()));
    if (normalizer->isNormalized(source, status) || U_FAILURE(status)) return;
    const icu::UnicodeString result = normalizer->normalize(source, status);
    if (U_FAILURE(status) || result.isBogus()) return;
    try {
        theString->units.assign(result.getBuffer(), static_cast<size_t>(result.length()));
    } catch (const std::bad_alloc&) {
    }
}

CFIndex CFStringGetLength(CFStringRef theString) {
    if (!theString) return 0;
    return static_cast<CFIndex>(theString->borrowed ? theString->borrowedUnits
                                                    : theString->units.size());
}

CFIndex CFStringGetMaximumSizeForEncoding(CFIndex length, CFStringEncoding encoding) {
    if (length < 0) return kCFNotFound;
    // One UTF-16 unit takes at most three UTF-8 bytes; a surrogate pair takes four
    // for its two units.
    CFIndex perUnit = 0;
    if (encoding == kCFStringEncodingUTF8) {
        perUnit = 3;
    } else if (encoding == kCFStringEncodingUTF16LE) {
        perUnit = 2;
    } else if (encoding == kCFStringEncodingASCII) {
        perUnit = 1;
    } else {
        return kCFNotFound;
    }
    if (length > LONG_MAX / perUnit) return kCFNotFound;
    return length * perUnit;
}

const char* CFStringGetCStringPtr(CFStringRef theString, CFStringEncoding encoding) {
    if (!theString || theString->isMutable || !theString->hasCString) return nullptr;
    return KnownEightBit(encoding) ? theString->cstring.c_str() : nullptr;
}

Boolean CFStringGetCString(CFStringRef theString, char* buffer, CFIndex bufferSize,
                           CFStringEncoding encoding) {
    if (!theString || !buffer || bufferSize <= 0 || !KnownEightBit(encoding)) return false;
    std::u16string scratch;
    std::u16string_view view;
    if (!ViewUnits(theString, scratch, view)) return false;
    if (encoding == kCFStringEncodingASCII) {
        for (char16_t u : view) {
            if (u >= 0x80) return false;
        }
    }
    size_t written = 0;
    // One byte stays free for the NUL.
    if (!EncodeUtf8(view, buffer, static_cast<size_t>(bufferSize) - 1, written)) return false;
    buffer[written] = '\0';
    return true;
}

CFTypeID CFStringGetTypeID() {
    return platform::kCFStringTypeID;
}

bool __CFString::Equals(const CFObject& other) const {
    std::u16string mine, theirs;
    std::u16string_view a, b;
    return ViewUnits(this, mine, a) &&
           ViewUnits(static_cast<const __CFString*>(&other), theirs, b) && a == b;
}
