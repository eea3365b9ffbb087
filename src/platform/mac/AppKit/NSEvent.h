// AppKit stand-in, event part: pointer events and the pointer's state.
#pragma once

#include <Foundation/NSGeometry.h>
#include <Foundation/NSObjCRuntime.h>
#include <Foundation/NSObject.h>

class NSWindow;

enum NSEventType : NSUInteger {
    NSEventTypeLeftMouseDown = 1,
    NSEventTypeLeftMouseUp = 2,
    NSEventTypeMouseMoved = 5,
    NSEventTypeLeftMouseDragged = 6,
};

class NSEvent : public NSObject {
  public:
    // The pointer now, in window-system points (origin at the lower left of the main
    // screen), whatever events are still queued.
    static NSPoint mouseLocation();
    // Bit 0: the left button is held; bit 1: the right one.
    static NSUInteger pressedMouseButtons();

    // Made by the desktop's event routing; `location` is in the window's coordinates.
    NSEvent(NSEventType type, NSPoint location, NSWindow* window)
        : m_type(type), m_location(location), m_window(window) {}

    NSEventType type() const { return m_type; }
    NSPoint locationInWindow() const { return m_location; }
    NSWindow* window() const { return m_window; }
    NSInteger windowNumber() const;

  private:
    NSEventType m_type;
    NSPoint m_location;
    NSWindow* m_window;
};
