// CoreServices stand-in, Gestalt part: the system version selectors.
#pragma once

#include <cstdint>

typedef int16_t OSErr;
typedef uint32_t OSType;
typedef int32_t SInt32;

constexpr OSType FourCharCode(const char (&code)[5]) {
    return static_cast<OSType>(static_cast<unsigned char>(code[0])) << 24 |
           static_cast<OSType>(static_cast<unsigned char>(code[1])) << 16 |
           static_cast<OSType>(static_cast<unsigned char>(code[2])) << 8 |
           static_cast<OSType>(static_cast<unsigned char>(code[3]));
}

inline constexpr OSType gestaltSystemVersionMajor = FourCharCode("sys1");
inline constexpr OSType gestaltSystemVersionMinor = FourCharCode("sys2");
inline constexpr OSType gestaltSystemVersionBugFix = FourCharCode("sys3");

inline constexpr OSErr noErr = 0;
inline constexpr OSErr gestaltUndefSelectorErr = -5551;

// Answers the three version selectors from platform.json's "os_version"; any other
// selector gives gestaltUndefSelectorErr and leaves *response alone.
OSErr Gestalt(OSType selector, SInt32* response);
