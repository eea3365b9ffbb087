// AppKit stand-in, view part: views as drag destinations and drag sources.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include <AppKit/NSDragging.h>
#include <AppKit/NSResponder.h>
#include <Foundation/NSArray.h>
#include <Foundation/NSGeometry.h>
#include <Foundation/NSObjCRuntime.h>

class NSEvent;
class NSImage;
class NSPasteboard;
class NSWindow;

typedef NSUInteger NSAutoresizingMaskOptions;
inline constexpr NSAutoresizingMaskOptions NSViewNotSizable = 0;
inline constexpr NSAutoresizingMaskOptions NSViewWidthSizable = 2;
inline constexpr NSAutoresizingMaskOptions NSViewHeightSizable = 16;

class NSView : public NSResponder {
  public:
    NSView() = default;                                // init
    explicit NSView(NSRect frame) : m_frame(frame) {}  // initWithFrame:
    ~NSView() override;
    NSView(const NSView&) = delete;
    NSView& operator=(const NSView&) = delete;

    NSWindow* window() const { return m_window; }
    NSRect frame() const { return m_frame; }
    void setFrame(NSRect frame) { m_frame = frame; }
    void setAutoresizingMask(NSAutoresizingMaskOptions mask) { m_autoresizingMask = mask; }
    NSAutoresizingMaskOptions autoresizingMask() const { return m_autoresizingMask; }

    // The pasteboard types for which the view is a drag destination, in this order.
    void registerForDraggedTypes(NSArray* newTypes);
    void unregisterDraggedTypes();
    std::shared_ptr<NSArray> registeredDraggedTypes() const;

    // convertPoint:fromView: a point of `view` (of the window when nil) in this view.
    NSPoint convertPoint(NSPoint point, NSView* view) const;

    // dragPromisedFilesOfTypes:fromRect:source:slideBack:event: starts a drag that
    // promises files of `typeArray` from the rectangle (view coordinates) through
    // dragImage below, and returns when the drag is over: YES when it started.
    BOOL dragPromisedFilesOfTypes(NSArray* typeArray, NSRect rect, id sourceObject, BOOL slideBack,
                                  NSEvent* event);
    // dragImage:at:offset:event:pasteboard:source:slideBack: runs a drag of the
    // pasteboard's contents showing `image`; returns when the drag ends, the run loop
    // meanwhile in the event-tracking mode.
    virtual void dragImage(NSImage* image, NSPoint at, NSSize offset, NSEvent* event,
                           NSPasteboard* pboard, id sourceObject, BOOL slideBack);

  private:
    friend class NSWindow;
    void setWindow(NSWindow* window) { m_window = window; }

    NSWindow* m_window = nullptr;
    NSRect m_frame;
    NSAutoresizingMaskOptions m_autoresizingMask = NSViewNotSizable;
    std::vector<std::string> m_draggedTypes;  // UTF-8 names
};
