// CoreGraphics stand-in, base part: the floating-point type of coordinates and error codes.
#pragma once

#include <cstdint>

typedef double CGFloat;

typedef int32_t CGError;
inline constexpr CGError kCGErrorSuccess = 0;
inline constexpr CGError kCGErrorFailure = 1000;
inline constexpr CGError kCGErrorIllegalArgument = 1001;
