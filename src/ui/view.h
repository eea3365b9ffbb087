// CView: the overlay window's content view, destination of guest drags that reach it and
// source of the promised-files drag that carries a host drop into the guest.
#pragma once

#include <cstdint>
#include <memory>

#include <AppKit/AppKit.h>

namespace qvx {

// Every method runs on the main thread.
class CView : public NSView, public NSDraggingDestination, public NSDraggingSource {
  public:
    // The host-to-guest operation the view serves, its worker and its drop (both 0 for a
    // guest-to-host drag); clears dragEnded.
    void setWorker(uint64_t worker, uint64_t operation);
    // Collects the file names of the drag into draggedPaths: copy when there are some,
    // no operation otherwise.
    NSDragOperation draggingEntered(NSDraggingInfo* sender) override;
    void draggingExited(NSDraggingInfo* sender) override;
    void draggingEnded(NSDraggingInfo* sender) override;
    // The promised files were dropped on a folder: starts the job that receives them
    // there, when the drag's operation still waits for its drop. Names no files itself.
    std::shared_ptr<NSArray> namesOfPromisedFilesDroppedAtDestination(
        NSURL* dropDestination) override;
    // A click starts the promised-files drag for the operation the view serves now;
    // returns when that drag is over.
    void mouseDown(NSEvent* event) override;
    // Shows a one-point image for the drag.
    void dragImage(NSImage* image, NSPoint at, NSSize offset, NSEvent* event, NSPasteboard* pboard,
                   id sourceObject, BOOL slideBack) override;

    uint64_t worker() const { return m_worker; }

  private:
    uint64_t m_worker = 0;
    uint64_t m_operation = 0;
    // Of the drag in progress, taken at its press.
    uint64_t m_dragWorker = 0;
    uint64_t m_dragOperation = 0;
};

}  // namespace qvx
