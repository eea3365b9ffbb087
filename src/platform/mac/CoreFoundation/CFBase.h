// CoreFoundation stand-in, base part: the common types, allocators and the reference
// counting shared by every CoreFoundation object.
#pragma once

#include <cstdint>

typedef unsigned char Boolean;
typedef unsigned char UInt8;
typedef long CFIndex;
typedef unsigned long CFTypeID;
typedef const void* CFTypeRef;
typedef const struct __CFAllocator* CFAllocatorRef;

inline constexpr CFIndex kCFNotFound = -1;

// As on the Mac, the default allocator is the null reference. Allocators only matter
// here as the deallocator of a no-copy string: kCFAllocatorNull leaves the bytes to the
// caller; the default and malloc allocators free() them when the string goes away.
extern const CFAllocatorRef kCFAllocatorDefault;
extern const CFAllocatorRef kCFAllocatorMalloc;
extern const CFAllocatorRef kCFAllocatorNull;

// Reference counting for every object of the stand-in (strings, numbers, arrays).
// Unlike the real one, CFRelease ignores null so that cleanup paths need no checks.
CFTypeRef CFRetain(CFTypeRef cf);
void CFRelease(CFTypeRef cf);
// Strings compare by their text, numbers by value, anything else by identity.
Boolean CFEqual(CFTypeRef cf1, CFTypeRef cf2);
CFTypeID CFGetTypeID(CFTypeRef cf);
