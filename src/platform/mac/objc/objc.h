// Objective-C runtime stand-in: selectors, the names by which the tool asks objects
// whether they answer a message, and the object and truth types of every interface.
#pragma once

#include <cstddef>

typedef const struct objc_selector* SEL;

// The same name always gives the same selector, so selectors compare by value.
SEL sel_registerName(const char* name);
const char* sel_getName(SEL selector);

// Any object; nil is the null object. Objects of the stand-in are C++ objects deriving
// from NSObject.
class NSObject;
typedef NSObject* id;
inline constexpr std::nullptr_t nil = nullptr;

typedef bool BOOL;
inline constexpr BOOL YES = true;
inline constexpr BOOL NO = false;
