// CoreGraphics stand-in, geometry part: points, sizes and rectangles.
#pragma once

#include <CoreGraphics/CGBase.h>

struct CGPoint {
    CGFloat x = 0;
    CGFloat y = 0;
};
struct CGSize {
    CGFloat width = 0;
    CGFloat height = 0;
};
struct CGRect {
    CGPoint origin;
    CGSize size;
};

inline CGPoint CGPointMake(CGFloat x, CGFloat y) {
    return CGPoint{x, y};
}
inline CGSize CGSizeMake(CGFloat width, CGFloat height) {
    return CGSize{width, height};
}
inline CGRect CGRectMake(CGFloat x, CGFloat y, CGFloat width, CGFloat height) {
    return CGRect{{x, y}, {width, height}};
}
