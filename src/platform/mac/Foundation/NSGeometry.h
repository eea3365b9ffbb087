// Foundation stand-in, geometry part: points, sizes and rectangles of the window system
// (the CoreGraphics types, as on 64-bit Macs).
#pragma once

#include <CoreGraphics/CGGeometry.h>

typedef CGPoint NSPoint;
typedef CGSize NSSize;
typedef CGRect NSRect;

inline NSPoint NSMakePoint(CGFloat x, CGFloat y) {
    return NSPoint{x, y};
}
inline NSSize NSMakeSize(CGFloat width, CGFloat height) {
    return NSSize{width, height};
}
inline NSRect NSMakeRect(CGFloat x, CGFloat y, CGFloat w, CGFloat h) {
    return NSRect{{x, y}, {w, h}};
}
// The lower and left edges belong to the rectangle, the upper and right ones do not.
inline bool NSPointInRect(NSPoint point, NSRect rect) {
    return point.x >= rect.origin.x && point.x < rect.origin.x + rect.size.width &&
           point.y >= rect.origin.y && point.y < rect.origin.y + rect.size.height;
}
