// Foundation stand-in, umbrella header: standard folders, the file manager and the process.
#pragma once

#include <Foundation/NSPathUtilities.h>
#include <Foundation/NSProcessInfo.h>
