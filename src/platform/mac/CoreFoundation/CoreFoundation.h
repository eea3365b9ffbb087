// CoreFoundation stand-in, umbrella header: the run loop and strings.
#pragma once

#include <CoreFoundation/CFRunLoop.h>
#include <CoreFoundation/CFString.h>
