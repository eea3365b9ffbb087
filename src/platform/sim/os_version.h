// The simulated system's version, the source of both NSProcessInfo's and Gestalt's answers.
#pragma once

#include <Foundation/NSProcessInfo.h>

namespace platform {

// platform.json's "os_version" split into its numbers (a missing one counts as 0).
NSOperatingSystemVersion os_version_parts();

}  // namespace platform
