// Gestalt: the system version selectors, from the same source as NSProcessInfo.
#include <CoreServices/CoreServices.h>

#include "platform/sim/os_version.h"

OSErr Gestalt(OSType selector, SInt32* response) {
    if (response == nullptr) return gestaltUndefSelectorErr;
    const NSOperatingSystemVersion v = platform::os_version_parts();
    switch (selector) {
        case gestaltSystemVersionMajor:
            *response = static_cast<SInt32>(v.majorVersion);
            break;
        case gestaltSystemVersionMinor:
            *response = static_cast<SInt32>(v.minorVersion);
            break;
        case gestaltSystemVersionBugFix:
            *response = static_cast<SInt32>(v.patchVersion);
            break;
        default:
            return gestaltUndefSelectorErr;
    }
    return noErr;
}
