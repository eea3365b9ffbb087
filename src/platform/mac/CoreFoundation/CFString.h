// CoreFoundation stand-in, string part: string objects, normalization and encoding out.
#pragma once

#include <cstdint>

#include <CoreFoundation/CFBase.h>

typedef uint32_t CFStringEncoding;
typedef const struct __CFString* CFStringRef;
typedef struct __CFString* CFMutableStringRef;

inline constexpr CFStringEncoding kCFStringEncodingASCII = 0x0600;
inline constexpr CFStringEncoding kCFStringEncodingUTF8 = 0x08000100;
inline constexpr CFStringEncoding kCFStringEncodingUTF16LE = 0x14000100;

typedef enum : CFIndex {
    kCFStringNormalizationFormD = 0,
    kCFStringNormalizationFormKD = 1,
    kCFStringNormalizationFormC = 2,
    kCFStringNormalizationFormKC = 3,
} CFStringNormalizationForm;

// None of these functions throws. A string that cannot be made (bad arguments, bytes
// that are no text in the named encoding, no memory) is returned as null.

// Wraps the caller's bytes without copying them; they must outlive the string. Accepts
// UTF-16LE (an odd byte count or an unpaired surrogate gives null; with
// `isExternalRepresentation` a leading byte-order mark is skipped), UTF-8 and ASCII
// (strictly validated). When null is returned the bytes stay the caller's.
CFStringRef CFStringCreateWithBytesNoCopy(CFAllocatorRef alloc, const UInt8* bytes,
                                          CFIndex numBytes, CFStringEncoding encoding,
                                          Boolean isExternalRepresentation,
                                          CFAllocatorRef contentsDeallocator);

// A copy of the NUL-terminated `cStr` (UTF-8 or ASCII).
CFStringRef CFStringCreateWithCString(CFAllocatorRef alloc, const char* cStr,
                                      CFStringEncoding encoding);

// `maxLength` 0 means no limit; a longer source than a non-zero limit gives null.
CFMutableStringRef CFStringCreateMutableCopy(CFAllocatorRef alloc, CFIndex maxLength,
                                             CFStringRef theString);

// Leaves the string unchanged when normalization cannot be done (no memory).
void CFStringNormalize(CFMutableStringRef theString, CFStringNormalizationForm theForm);

// Length in UTF-16 code units.
CFIndex CFStringGetLength(CFStringRef theString);

// Bytes that `length` code units can take in `encoding`; kCFNotFound on overflow or
// for an encoding this stand-in does not write.
CFIndex CFStringGetMaximumSizeForEncoding(CFIndex length, CFStringEncoding encoding);

// Like the real one, this hands out an inner pointer only for strings kept as 8-bit
// characters: immutable strings made by CFStringCreateWithCString whose text is all
// ASCII (valid as UTF-8 and ASCII alike). Everything else gives null and must be
// read with CFStringGetCString.
const char* CFStringGetCStringPtr(CFStringRef theString, CFStringEncoding encoding);

// Writes the text and a NUL into `buffer` (UTF-8 or ASCII); false when it does not fit
// or cannot be represented.
Boolean CFStringGetCString(CFStringRef theString, char* buffer, CFIndex bufferSize,
                           CFStringEncoding encoding);

CFTypeID CFStringGetTypeID();
