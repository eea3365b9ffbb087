// The window server's calls: the window list and window properties on the main connection.
#include <CoreFoundation/CFNumber.h>
#include <CoreGraphics/CGSConnection.h>
#include <CoreGraphics/CGWindow.h>

#include <vector>

#include "platform/sim/cf_object.h"
#include "platform/sim/cf_text.h"
#include "platform/sim/desktop.h"

namespace {

// Any fixed non-zero value; the process has exactly one connection.
constexpr CGSConnectionID kMainConnection = 0x5103;

}  // namespace

CFArrayRef CGWindowListCopyWindowInfo(CGWindowListOption option, CGWindowID relativeToWindow) {
    const auto numbers =
        platform::window_server_list(option, static_cast<NSInteger>(relativeToWindow));
    std::vector<const void*> entries;
    for (NSInteger n : numbers) {
        const int64_t value = n;
        if (CFNumberRef number = CFNumberCreate(nullptr, kCFNumberSInt64Type, &value))
            entries.push_back(number);
    }
    CFArrayRef array = CFArrayCreate(nullptr, entries.data(), static_cast<CFIndex>(entries.size()),
                                     &kCFTypeArrayCallBacks);
    for (const void* e : entries) CFRelease(e);
    return array;
}

CGSConnectionID CGSMainConnectionID() {
    return kMainConnection;
}

CGError CGSSetWindowProperty(CGSConnectionID cid, CGWindowID wid, CFStringRef key,
                             CFTypeRef value) {
    if (cid != kMainConnection || !key || !value) return kCGErrorIllegalArgument;
    platform::PropertyValue stored;
    if (CFGetTypeID(value) == CFNumberGetTypeID()) {
        const auto number = static_cast<CFNumberRef>(value);
        if (CFNumberIsFloatType(number)) {
            double d = 0;
            CFNumberGetValue(number, kCFNumberDoubleType, &d);
            stored = d;
        } else {
            int64_t i = 0;
            CFNumberGetValue(number, kCFNumberSInt64Type, &i);
            stored = i;
        }
    } else if (CFGetTypeID(value) == CFStringGetTypeID()) {
        stored = platform::utf8_of(static_cast<CFStringRef>(value));
    } else {
        return kCGErrorIllegalArgument;
    }
    return platform::window_server_set_property(static_cast<NSInteger>(wid), platform::utf8_of(key),
                                                std::move(stored))
               ? kCGErrorSuccess
               : kCGErrorIllegalArgument;
}
