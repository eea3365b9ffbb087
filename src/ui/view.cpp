// The drop-target view: what it reads from guest drags and the drag it starts for host drops.
#include "ui/view.h"

#include <pthread.h>

#include <string>
#include <vector>

#include "app/dnd_pool.h"
#include "text/encoding.h"
#include "ui/overlay.h"

namespace qvx {

void CView::setWorker(uint64_t worker, uint64_t operation) {
    m_worker = worker;
    m_operation = operation;
    dragEnded.store(0);
}

NSDragOperation CView::draggingEntered(NSDraggingInfo* sender) {
    NSPasteboard* pasteboard = sender ? sender->draggingPasteboard() : nullptr;
    const auto list = pasteboard ? pasteboard->propertyListForType(NSFilenamesPboardType) : nullptr;
    if (!list || list->count() == 0) {
        clear_dragged_paths();
        return NSDragOperationNone;
    }
    std::vector<std::string> local;
    local.reserve(list->count());
    for (NSUInteger i = 0; i < list->count(); ++i) {
        // An entry that cannot be converted stays in the list as an empty path.
        std::string path;
        CFStringToUtf8(static_cast<CFStringRef>(list->objectAtIndex(i)), path);
        local.push_back(std::move(path));
    }
    pthread_mutex_lock(&g_globalMutex);
    draggedPaths = local;
    pthread_mutex_unlock(&g_globalMutex);
    return NSDragOperationCopy;
}

void CView::draggingExited(NSDraggingInfo*) {
    clear_dragged_paths();
}

void CView::draggingEnded(NSDraggingInfo*) {
    dragEnded.store(1);
    clear_dragged_paths();
}

std::shared_ptr<NSArray> CView::namesOfPromisedFilesDroppedAtDestination(NSURL* dropDestination) {
    std::string destination;
    if (dropDestination) CFStringToUtf8(dropDestination->path(), destination);
    take_drop(m_dragOperation, [&] {
        return g_dragPool != nullptr && g_dragPool->StartReceive(m_dragWorker, destination);
    });
    return NSArray::array();
}

void CView::mouseDown(NSEvent* event) {
    m_dragWorker = m_worker;
    m_dragOperation = m_operation;
    const NSPoint p = convertPoint(event->locationInWindow(), nil);
    // One promised type, the empty one: the destination learns nothing of the files
    // before they arrive.
    CFStringRef empty = CFStringCreateWithCString(kCFAllocatorDefault, "", kCFStringEncodingUTF8);
    const auto types = NSArray::arrayWithObjects({empty});
    CFRelease(empty);
    dragPromisedFilesOfTypes(types.get(), NSMakeRect(p.x, p.y, 1.0, 1.0), this, YES, event);
}

void CView::dragImage(NSImage* image, NSPoint at, NSSize offset, NSEvent* event,
                      NSPasteboard* pboard, id sourceObject, BOOL slideBack) {
    if (image) image->setSize(NSMakeSize(1.0, 1.0));
    NSView::dragImage(image, at, offset, event, pboard, sourceObject, slideBack);
}

}  // namespace qvx
