// CoreServices stand-in: the Gestalt version selectors here, the file manager in Files.h.
#pragma once

#include <CoreServices/Files.h>
#include <MacTypes.h>

constexpr OSType FourCharCode(const char (&code)[5]) {
    return static_cast<OSType>(static_cast<unsigned char>(code[0])) << 24 |
           static_cast<OSType>(static_cast<unsigned char>(code[1])) << 16 |
           static_cast<OSType>(static_cast<unsigned char>(code[2])) << 8 |
           static_cast<OSType>(static_cast<unsigned char>(code[3]));
}

inline constexpr OSType gestaltSystemVersionMajor = FourCharCode("sys1");
inline constexpr OSType gestaltSystemVersionMinor = FourCharCode("sys2");
inline constexpr OSType gestaltSystemVersionBugFix = FourCharCode("sys3");

inline constexpr OSErr gestaltUndefSelectorErr = -5551;

// Answers the three version selectors from platform.json's "os_version"; any other
// selector gives gestaltUndefSelectorErr and leaves *response alone.
OSErr Gestalt(OSType selector, SInt32* response);
