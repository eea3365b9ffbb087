// Foundation stand-in, root object: what every object of the stand-in answers.
#pragma once

#include <cstddef>

#include <objc/objc.h>

class NSObject {
  public:
    virtual ~NSObject() = default;
    // Whether the object answers `selector`; the classes that are asked say so.
    virtual bool respondsToSelector(SEL selector) const {
        (void)selector;
        return false;
    }
    // Runs the method named by `selector`, writing its return value (at most `size`
    // bytes); false for a selector the object does not answer.
    virtual bool performSelector(SEL selector, void* returnValue, size_t size) {
        (void)selector;
        (void)returnValue;
        (void)size;
        return false;
    }
};
