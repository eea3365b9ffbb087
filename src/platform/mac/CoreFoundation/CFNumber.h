// CoreFoundation stand-in, number part: integer and floating-point number objects.
#pragma once

#include <CoreFoundation/CFBase.h>

typedef const struct __CFNumber* CFNumberRef;

typedef enum : CFIndex {
    kCFNumberSInt8Type = 1,
    kCFNumberSInt16Type = 2,
    kCFNumberSInt32Type = 3,
    kCFNumberSInt64Type = 4,
    kCFNumberFloat32Type = 5,
    kCFNumberFloat64Type = 6,
    kCFNumberIntType = 9,
    kCFNumberLongType = 10,
    kCFNumberLongLongType = 11,
    kCFNumberFloatType = 12,
    kCFNumberDoubleType = 13,
    kCFNumberCFIndexType = 14,
    kCFNumberNSIntegerType = 15,
    kCFNumberCGFloatType = 16,
} CFNumberType;

CFTypeID CFNumberGetTypeID();
// Null for an unknown type or a null value pointer.
CFNumberRef CFNumberCreate(CFAllocatorRef allocator, CFNumberType theType, const void* valuePtr);
CFNumberType CFNumberGetType(CFNumberRef number);
Boolean CFNumberIsFloatType(CFNumberRef number);
// Writes the value converted to `theType`; false when the conversion loses information
// (the converted value is written all the same, as the real call does).
Boolean CFNumberGetValue(CFNumberRef number, CFNumberType theType, void* valuePtr);
