// Foundation stand-in, umbrella header: objects, geometry, arrays, URLs, standard folders,
// the file manager and the process.
#pragma once

#include <Foundation/NSArray.h>
#include <Foundation/NSGeometry.h>
#include <Foundation/NSObjCRuntime.h>
#include <Foundation/NSObject.h>
#include <Foundation/NSPathUtilities.h>
#include <Foundation/NSProcessInfo.h>
#include <Foundation/NSURL.h>
