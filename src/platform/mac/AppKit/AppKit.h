// AppKit stand-in, umbrella header: the application, screens, windows, views, events, the
// pasteboard and dragging, over Foundation and CoreGraphics.
#pragma once

#include <AppKit/NSApplication.h>
#include <AppKit/NSDragging.h>
#include <AppKit/NSEvent.h>
#include <AppKit/NSImage.h>
#include <AppKit/NSPasteboard.h>
#include <AppKit/NSResponder.h>
#include <AppKit/NSScreen.h>
#include <AppKit/NSView.h>
#include <AppKit/NSWindow.h>
#include <CoreGraphics/CoreGraphics.h>
#include <Foundation/Foundation.h>
