// CoreGraphics stand-in, window list part: what the window server shows on screen.
#pragma once

#include <cstdint>

#include <CoreFoundation/CFArray.h>

typedef uint32_t CGWindowID;
inline constexpr CGWindowID kCGNullWindowID = 0;

typedef uint32_t CGWindowListOption;
inline constexpr CGWindowListOption kCGWindowListOptionAll = 0;
inline constexpr CGWindowListOption kCGWindowListOptionOnScreenOnly = 1 << 0;
inline constexpr CGWindowListOption kCGWindowListOptionOnScreenAboveWindow = 1 << 1;
inline constexpr CGWindowListOption kCGWindowListOptionOnScreenBelowWindow = 1 << 2;
inline constexpr CGWindowListOption kCGWindowListOptionIncludingWindow = 1 << 3;
inline constexpr CGWindowListOption kCGWindowListOptionExcludeDesktopElements = 1 << 4;

// One entry per window, front to back. The real entries are description dictionaries;
// here each is the CFNumber of the window's number (the value of kCGWindowNumber), which
// is all a count or an identity check needs. With kCGWindowListOptionIncludingWindow
// alone, the array holds `relativeToWindow` exactly while that window is ordered on
// screen, and is empty otherwise. The caller releases the array.
CFArrayRef CGWindowListCopyWindowInfo(CGWindowListOption option, CGWindowID relativeToWindow);
