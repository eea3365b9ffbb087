// The Mac's basic scalar types, points, rectangles and the no-error result.
#pragma once

#include <cstdint>

typedef uint8_t UInt8;
typedef int8_t SInt8;
typedef uint16_t UInt16;
typedef int16_t SInt16;
typedef uint32_t UInt32;
typedef int32_t SInt32;
typedef uint64_t UInt64;
typedef int64_t SInt64;
typedef unsigned char Boolean;

typedef SInt16 OSErr;
typedef SInt32 OSStatus;
typedef UInt32 OSType;
typedef UInt32 OptionBits;
typedef unsigned long ItemCount;
typedef UInt16 UniChar;
typedef ItemCount UniCharCount;
typedef UInt32 TextEncoding;

struct Point {
    short v;
    short h;
};
struct Rect {
    short top;
    short left;
    short bottom;
    short right;
};

inline constexpr OSErr noErr = 0;
