// UTF-8 to and from the stand-in's CFStrings, for the simulated Mac's own bookkeeping.
#pragma once

#include <string>
#include <vector>

#include <CoreFoundation/CFString.h>

namespace platform {

// The text of a string object; empty for null or a string that cannot be converted.
inline std::string utf8_of(CFStringRef string) {
    if (!string) return {};
    const CFIndex max =
        CFStringGetMaximumSizeForEncoding(CFStringGetLength(string), kCFStringEncodingUTF8);
    if (max < 0) return {};
    std::vector<char> buffer(static_cast<size_t>(max) + 1);
    if (!CFStringGetCString(string, buffer.data(), static_cast<CFIndex>(buffer.size()),
                            kCFStringEncodingUTF8))
        return {};
    return buffer.data();
}

// A new string object (the caller releases it); null for text that is no UTF-8.
inline CFStringRef make_cfstring(const std::string& text) {
    return CFStringCreateWithCString(kCFAllocatorDefault, text.c_str(), kCFStringEncodingUTF8);
}

// The names behind the pasteboard type constants.
inline constexpr const char* kFilenamesType = "NSFilenamesPboardType";
inline constexpr const char* kStringType = "NSStringPboardType";
inline constexpr const char* kColorType = "NSColorPboardType";
inline constexpr const char* kFilesPromiseType = "NSFilesPromisePboardType";

}  // namespace platform
