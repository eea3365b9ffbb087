// AppKit stand-in, dragging part: drag operations, the information a destination is given
// and the destination and source roles that views take.
#pragma once

#include <memory>

#include <Foundation/NSArray.h>
#include <Foundation/NSGeometry.h>
#include <Foundation/NSObjCRuntime.h>
#include <Foundation/NSURL.h>
#include <objc/objc.h>

class NSPasteboard;
class NSWindow;

typedef NSUInteger NSDragOperation;
inline constexpr NSDragOperation NSDragOperationNone = 0;
inline constexpr NSDragOperation NSDragOperationCopy = 1;
inline constexpr NSDragOperation NSDragOperationLink = 2;
inline constexpr NSDragOperation NSDragOperationGeneric = 4;
inline constexpr NSDragOperation NSDragOperationPrivate = 8;
inline constexpr NSDragOperation NSDragOperationMove = 16;
inline constexpr NSDragOperation NSDragOperationDelete = 32;
inline constexpr NSDragOperation NSDragOperationEvery = ~NSDragOperation{0};

// What a destination learns about the drag over it (a protocol on the Mac).
class NSDraggingInfo {
  public:
    virtual ~NSDraggingInfo() = default;
    virtual NSPasteboard* draggingPasteboard() = 0;
    // In the destination window's coordinates.
    virtual NSPoint draggingLocation() = 0;
    // The source object when it lives in this process; nil for a drag of another
    // application.
    virtual id draggingSource() = 0;
    virtual NSDragOperation draggingSourceOperationMask() = 0;
    virtual NSWindow* draggingDestinationWindow() = 0;
    virtual NSInteger draggingSequenceNumber() = 0;
};

// The messages a drag destination receives, on the main thread; a view that registered
// dragged types and derives from this class gets them.
class NSDraggingDestination {
  public:
    virtual ~NSDraggingDestination() = default;
    virtual NSDragOperation draggingEntered(NSDraggingInfo* sender) {
        (void)sender;
        return NSDragOperationNone;
    }
    virtual void draggingExited(NSDraggingInfo* sender) { (void)sender; }
    virtual void draggingEnded(NSDraggingInfo* sender) { (void)sender; }
};

// The messages a drag source receives.
class NSDraggingSource {
  public:
    virtual ~NSDraggingSource() = default;
    // A promised-files drag was dropped on a folder: the source makes the files there
    // and names them (nil: names nothing).
    virtual std::shared_ptr<NSArray> namesOfPromisedFilesDroppedAtDestination(
        NSURL* dropDestination) {
        (void)dropDestination;
        return nullptr;
    }
};
