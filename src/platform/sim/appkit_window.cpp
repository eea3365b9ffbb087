// NSWindow and NSView of this process, published to the desktop's window server.
#include <AppKit/NSPasteboard.h>
#include <AppKit/NSView.h>
#include <AppKit/NSWindow.h>

#include <algorithm>

#include "platform/sim/cf_text.h"
#include "platform/sim/desktop.h"

NSWindow::NSWindow(NSRect contentRect, NSWindowStyleMask style, NSBackingStoreType backingStoreType,
                   BOOL)
    : m_frame(contentRect), m_styleMask(style), m_backing(backingStoreType) {
    platform::WindowAttributes attributes;
    attributes.frame = m_frame;
    attributes.styleMask = m_styleMask;
    attributes.backing = m_backing;
    m_number = platform::window_server_add(this, attributes);
    publish();
}

NSWindow::~NSWindow() {
    platform::window_server_remove(m_number);
    delete m_contentView;
}

void NSWindow::publish() {
    platform::WindowAttributes a;
    a.frame = m_frame;
    a.level = m_level;
    a.alpha = m_alpha;
    a.hasShadow = m_hasShadow;
    a.takesPointer = !m_ignoresMouseEvents && (m_alpha > 0 || m_mouseEventsSet);
    a.styleMask = m_styleMask;
    a.backing = m_backing;
    if (m_contentView)
        if (auto types = m_contentView->registeredDraggedTypes())
            for (NSUInteger i = 0; i < types->count(); ++i)
                a.draggedTypes.push_back(
                    platform::utf8_of(static_cast<CFStringRef>(types->objectAtIndex(i))));
    platform::window_server_update(m_number, a);
}

void NSWindow::setContentView(NSView* view) {
    if (view == m_contentView) return;
    if (m_contentView) {
        m_contentView->setWindow(nullptr);
        delete m_contentView;
    }
    m_contentView = view;
    if (view) {
        view->setWindow(this);
        view->setFrame(NSMakeRect(0, 0, m_frame.size.width, m_frame.size.height));
    }
    publish();
}

void NSWindow::draggedTypesChanged() {
    publish();
}

void NSWindow::setFrame(NSRect frameRect, BOOL flag) {
    m_calls.push_back("setFrame:display:");
    m_frame = frameRect;
    if (m_contentView)
        m_contentView->setFrame(NSMakeRect(0, 0, frameRect.size.width, frameRect.size.height));
    publish();
    if (flag) ++m_displayCount;
}

void NSWindow::display() {
    m_calls.push_back("display");
    ++m_displayCount;
}

void NSWindow::setLevel(NSWindowLevel level) {
    m_level = level;
    publish();
}

void NSWindow::setAlphaValue(CGFloat value) {
    m_alpha = std::clamp(value, 0.0, 1.0);
    publish();
}

void NSWindow::setHasShadow(BOOL hasShadow) {
    m_hasShadow = hasShadow;
    publish();
}

void NSWindow::setIgnoresMouseEvents(BOOL flag) {
    m_ignoresMouseEvents = flag;
    m_mouseEventsSet = YES;
    publish();
}

void NSWindow::makeKeyAndOrderFront(id) {
    m_calls.push_back("makeKeyAndOrderFront:");
    m_visible = YES;
    platform::window_server_order(m_number, platform::Ordering::Front);
}

void NSWindow::orderFront(id) {
    m_calls.push_back("orderFront:");
    m_visible = YES;
    platform::window_server_order(m_number, platform::Ordering::Front);
}

void NSWindow::orderBack(id) {
    m_calls.push_back("orderBack:");
    m_visible = YES;
    platform::window_server_order(m_number, platform::Ordering::Back);
}

void NSWindow::orderOut(id) {
    m_calls.push_back("orderOut:");
    m_visible = NO;
    platform::window_server_order(m_number, platform::Ordering::Out);
}

NSView::~NSView() = default;

void NSView::registerForDraggedTypes(NSArray* newTypes) {
    m_draggedTypes.clear();
    for (NSUInteger i = 0; newTypes && i < newTypes->count(); ++i)
        m_draggedTypes.push_back(
            platform::utf8_of(static_cast<CFStringRef>(newTypes->objectAtIndex(i))));
    if (m_window) m_window->draggedTypesChanged();
}

void NSView::unregisterDraggedTypes() {
    registerForDraggedTypes(nullptr);
}

std::shared_ptr<NSArray> NSView::registeredDraggedTypes() const {
    std::vector<CFTypeRef> made;
    for (const auto& t : m_draggedTypes)
        if (CFStringRef s = platform::make_cfstring(t)) made.push_back(s);
    auto out = NSArray::arrayWithArray(made);
    for (CFTypeRef s : made) CFRelease(s);
    return out;
}

NSPoint NSView::convertPoint(NSPoint point, NSView* view) const {
    // Window coordinates first, then this view's; views here are only content views,
    // whose frames are given in their window.
    if (view)
        point = NSMakePoint(point.x + view->m_frame.origin.x, point.y + view->m_frame.origin.y);
    return NSMakePoint(point.x - m_frame.origin.x, point.y - m_frame.origin.y);
}

BOOL NSView::dragPromisedFilesOfTypes(NSArray* typeArray, NSRect rect, id sourceObject,
                                      BOOL slideBack, NSEvent* event) {
    auto pasteboard = NSPasteboard::pasteboardWithName(NSDragPboard);
    pasteboard->declareTypes(NSArray::arrayWithObjects({NSFilesPromisePboardType}).get(),
                             sourceObject);
    std::vector<CFTypeRef> promised;
    for (NSUInteger i = 0; typeArray && i < typeArray->count(); ++i)
        promised.push_back(typeArray->objectAtIndex(i));
    pasteboard->setPropertyList(NSArray::arrayWithArray(promised), NSFilesPromisePboardType);
    // A file icon's size until the view's dragImage says otherwise.
    NSImage image(NSMakeSize(32, 32));
    dragImage(&image, rect.origin, NSMakeSize(0, 0), event, pasteboard.get(), sourceObject,
              slideBack);
    return YES;
}

void NSView::dragImage(NSImage* image, NSPoint at, NSSize, NSEvent* event, NSPasteboard* pboard,
                       id sourceObject, BOOL) {
    platform::run_view_drag(this, image, at, event, pboard, sourceObject);
}
