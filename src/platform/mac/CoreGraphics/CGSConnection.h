// CoreGraphics stand-in, window server connection part: the process's connection and the
// properties it sets on its windows (private calls on the Mac, declared by their users).
#pragma once

#include <cstdint>

#include <CoreFoundation/CFBase.h>
#include <CoreFoundation/CFString.h>
#include <CoreGraphics/CGBase.h>
#include <CoreGraphics/CGWindow.h>

typedef int32_t CGSConnectionID;

// The connection the process's windows belong to; the same value on every call.
CGSConnectionID CGSMainConnectionID();
// Sets `key` of a window of this connection to `value` (a CFNumber or a CFString).
// kCGErrorIllegalArgument for another connection, an unknown window, a null key or a
// value of another type.
CGError CGSSetWindowProperty(CGSConnectionID cid, CGWindowID wid, CFStringRef key, CFTypeRef value);
