// Objective-C runtime stand-in: selectors, the names by which the tool asks objects
// whether they answer a message.
#pragma once

typedef const struct objc_selector* SEL;

// The same name always gives the same selector, so selectors compare by value.
SEL sel_registerName(const char* name);
const char* sel_getName(SEL selector);
