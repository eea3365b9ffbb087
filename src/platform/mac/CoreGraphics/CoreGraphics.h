// CoreGraphics stand-in, umbrella header: geometry, the window list and the connection calls.
#pragma once

#include <CoreGraphics/CGBase.h>
#include <CoreGraphics/CGGeometry.h>
#include <CoreGraphics/CGSConnection.h>
#include <CoreGraphics/CGWindow.h>
