// The headless desktop's state (screens, pointer, windows, drags) and the routing of
// pointer events, drag destinations and drops on the main thread.
#include "platform/sim/desktop.h"

#include <algorithm>
#include <functional>
#include <memory>
#include <mutex>

#include <CoreFoundation/CFRunLoop.h>

#include "platform/sim/cf_text.h"

namespace platform {
namespace {

struct Record {
    NSInteger number = 0;
    WindowOwner owner = WindowOwner::Tool;
    NSWindow* window = nullptr;  // windows of this process; used on the main thread only
    WindowAttributes attributes;
    bool onscreen = false;
    int64_t order = 0;  // within a level, a higher value lies in front
    unsigned timesOrderedIn = 0;
    std::map<std::string, PropertyValue> properties;
    std::string folder;
    bool acceptsDrops = false;
    Selection selection;
};

struct Session {
    uint64_t serial = 0;
    NSInteger source = 0;
    bool ownedByTool = false;
    id sourceObject = nullptr;
    NSPasteboard* pasteboard = nullptr;  // the drag pasteboard, which lives for good
    std::vector<std::string> types;
    std::vector<std::string> paths;
    NSSize image;
    NSDragOperation sourceMask = NSDragOperationEvery;
    NSPoint location;  // window-system points, as of the last event handled
    NSInteger over = 0;
    NSDragOperation operation = NSDragOperationNone;
    // Views of this process; touched on the main thread only.
    NSWindow* overWindow = nullptr;
    NSView* overView = nullptr;
    NSWindow* lastEnteredWindow = nullptr;
    NSView* lastEntered = nullptr;
};

// Guards everything below. Views are never called with it held.
std::mutex g_mutex;
std::map<NSInteger, Record> g_windows;
NSInteger g_nextNumber = 1;
int64_t g_frontStamp = 0;
int64_t g_backStamp = 0;
std::optional<std::vector<ScreenInfo>> g_screens;  // unset: platform.json's
PointerState g_pointer;
std::unique_ptr<Session> g_session;
uint64_t g_nextSession = 1;
std::optional<DropRecord> g_lastDrop;
uint64_t g_lastDropSession = 0;
uint64_t g_drops = 0;

const std::vector<ScreenInfo>& screens_locked() {
    if (!g_screens) g_screens = config().screens;
    return *g_screens;
}

double main_scale_locked() {
    const auto& screens = screens_locked();
    if (screens.empty()) return 1.0;
    const double s = screens.front().scale.value_or(1.0);
    return s > 0 ? s : 1.0;
}

// Keeps the pointer on the screens: the bounding box of all of them, in the pixels of the
// main screen with the origin at its upper left.
void clamp_locked(double& x, double& y) {
    const auto& screens = screens_locked();
    if (screens.empty()) return;
    const ScreenInfo& main = screens.front();
    const double s = main_scale_locked();
    double left = 0, right = 0, top = 0, bottom = 0;
    bool first = true;
    for (const auto& sc : screens) {
        const double l = (sc.x - main.x) * s;
        const double r = (sc.x + sc.width - main.x) * s;
        const double t = (main.y + main.height - (sc.y + sc.height)) * s;
        const double b = (main.y + main.height - sc.y) * s;
        left = first ? l : std::min(left, l);
        right = first ? r : std::max(right, r);
        top = first ? t : std::min(top, t);
        bottom = first ? b : std::max(bottom, b);
        first = false;
    }
    x = std::clamp(x, left, std::max(left, right - 1));
    y = std::clamp(y, top, std::max(top, bottom - 1));
}

NSPoint to_points_locked(double x, double y) {
    const auto& screens = screens_locked();
    const double s = main_scale_locked();
    const double ox = screens.empty() ? 0 : screens.front().x;
    const double oy = screens.empty() ? 0 : screens.front().y;
    const double h = screens.empty() ? 0 : screens.front().height;
    return NSMakePoint(ox + x / s, oy + h - y / s);
}

// On-screen windows, front to back.
std::vector<const Record*> zorder_locked() {
    std::vector<const Record*> out;
    for (const auto& [number, r] : g_windows)
        if (r.onscreen) out.push_back(&r);
    std::stable_sort(out.begin(), out.end(), [](const Record* a, const Record* b) {
        if (a->attributes.level != b->attributes.level)
            return a->attributes.level > b->attributes.level;
        return a->order > b->order;
    });
    return out;
}

bool registered_any(const Record& r, const std::vector<std::string>& types) {
    for (const auto& t : r.attributes.draggedTypes)
        if (std::find(types.begin(), types.end(), t) != types.end()) return true;
    return false;
}

// The topmost on-screen window at `p` that takes the pointer; with `types`, the topmost
// such window whose view registered one of them.
const Record* hit_locked(NSPoint p, const std::vector<std::string>* types) {
    for (const Record* r : zorder_locked()) {
        if (!r->attributes.takesPointer || !NSPointInRect(p, r->attributes.frame)) continue;
        if (types && !registered_any(*r, *types)) continue;
        return r;
    }
    return nullptr;
}

// What a destination is told about the drag, captured under the lock.
struct InfoParts {
    uint64_t session = 0;
    NSPasteboard* pasteboard = nullptr;
    NSPoint location;
    id source = nullptr;
    NSDragOperation mask = NSDragOperationNone;
};

InfoParts info_parts_locked(const Session& s) {
    return InfoParts{s.serial, s.pasteboard, s.location, s.ownedByTool ? s.sourceObject : nullptr,
                     s.sourceMask};
}

class SessionInfo : public NSDraggingInfo {
  public:
    SessionInfo(const InfoParts& parts, NSWindow* destination)
        : m_parts(parts), m_destination(destination) {}
    NSPasteboard* draggingPasteboard() override { return m_parts.pasteboard; }
    NSPoint draggingLocation() override {
        if (!m_destination) return m_parts.location;
        const NSRect f = m_destination->frame();
        return NSMakePoint(m_parts.location.x - f.origin.x, m_parts.location.y - f.origin.y);
    }
    id draggingSource() override { return m_parts.source; }
    NSDragOperation draggingSourceOperationMask() override { return m_parts.mask; }
    NSWindow* draggingDestinationWindow() override { return m_destination; }
    NSInteger draggingSequenceNumber() override { return static_cast<NSInteger>(m_parts.session); }

  private:
    InfoParts m_parts;
    NSWindow* m_destination;
};

NSDraggingDestination* destination_of(NSView* view) {
    return dynamic_cast<NSDraggingDestination*>(view);
}

void post_to_main_loop(std::function<void()> block) {
    CFRunLoopRef main = CFRunLoopGetMain();
    CFRunLoopPerformBlock(main, kCFRunLoopCommonModes, std::move(block));
    CFRunLoopWakeUp(main);
}

// Main thread: finds the destination under the drag again and tells the views that the
// drag left or entered. Repeats while the views' answers moved windows under it.
void reevaluate() {
    for (int round = 0; round < 8; ++round) {
        InfoParts parts;
        NSView* exitView = nullptr;
        NSWindow* exitWindow = nullptr;
        NSView* enterView = nullptr;
        NSWindow* enterWindow = nullptr;
        {
            std::lock_guard lock(g_mutex);
            Session* s = g_session.get();
            if (!s) return;
            const Record* r = hit_locked(s->location, &s->types);
            const NSInteger target = r ? r->number : 0;
            if (target == s->over) return;
            exitView = s->overView;
            exitWindow = s->overWindow;
            s->over = target;
            s->overView = nullptr;
            s->overWindow = nullptr;
            s->operation = NSDragOperationNone;
            if (r && r->owner == WindowOwner::Tool && r->window) {
                s->overWindow = r->window;
                s->overView = r->window->contentView();
            } else if (r && r->acceptsDrops) {
                // The file manager copies whatever the source allows it to.
                s->operation = s->sourceMask & NSDragOperationCopy;
            }
            enterView = s->overView;
            enterWindow = s->overWindow;
            if (enterView && destination_of(enterView)) {
                s->lastEntered = enterView;
                s->lastEnteredWindow = enterWindow;
            }
            parts = info_parts_locked(*s);
        }
        if (NSDraggingDestination* d = exitView ? destination_of(exitView) : nullptr) {
            SessionInfo info(parts, exitWindow);
            d->draggingExited(&info);
        }
        if (NSDraggingDestination* d = enterView ? destination_of(enterView) : nullptr) {
            SessionInfo info(parts, enterWindow);
            const NSDragOperation operation = d->draggingEntered(&info);
            std::lock_guard lock(g_mutex);
            if (g_session && g_session->serial == parts.session && g_session->overView == enterView)
                g_session->operation = operation;
        }
    }
}

void post_reevaluate() {
    post_to_main_loop([] { reevaluate(); });
}

// Main thread: the drag ends, dropped where it is when `allowDrop` and the destination
// took it. The promising source is asked for the files; the view that last heard
// draggingEntered: hears draggingEnded:.
void finish_drag(bool allowDrop) {
    InfoParts parts;
    bool dropped = false;
    bool promised = false;
    NSDraggingSource* promiser = nullptr;
    DropRecord drop;
    NSView* overView = nullptr;
    NSWindow* overWindow = nullptr;
    NSView* lastEntered = nullptr;
    NSWindow* lastEnteredWindow = nullptr;
    {
        std::lock_guard lock(g_mutex);
        Session* s = g_session.get();
        if (!s) return;
        parts = info_parts_locked(*s);
        dropped = allowDrop && s->over != 0 && s->operation != NSDragOperationNone;
        drop.window = s->over;
        drop.source = s->source;
        drop.types = s->types;
        drop.paths = s->paths;
        drop.operation = s->operation;
        if (auto it = g_windows.find(s->over); it != g_windows.end())
            drop.folder = it->second.folder;
        promised = s->ownedByTool &&
                   std::find(s->types.begin(), s->types.end(), kFilesPromiseType) != s->types.end();
        promiser = s->ownedByTool ? dynamic_cast<NSDraggingSource*>(s->sourceObject) : nullptr;
        overView = s->overView;
        overWindow = s->overWindow;
        lastEntered = s->lastEntered;
        lastEnteredWindow = s->lastEnteredWindow;
    }
    if (dropped && promised && promiser && !drop.folder.empty()) {
        CFStringRef folder = make_cfstring(drop.folder);
        auto url = NSURL::fileURLWithPath(folder, YES);
        CFRelease(folder);
        promiser->namesOfPromisedFilesDroppedAtDestination(url.get());
    }
    if (!dropped)
        if (NSDraggingDestination* d = overView ? destination_of(overView) : nullptr) {
            SessionInfo info(parts, overWindow);
            d->draggingExited(&info);
        }
    if (NSDraggingDestination* d = lastEntered ? destination_of(lastEntered) : nullptr) {
        SessionInfo info(parts, lastEnteredWindow);
        d->draggingEnded(&info);
    }
    std::lock_guard lock(g_mutex);
    if (dropped) {
        g_lastDrop = std::move(drop);
        g_lastDropSession = parts.session;
        ++g_drops;
    }
    if (g_session && g_session->serial == parts.session) g_session.reset();
}

// Main thread: fills the drag pasteboard with a folder window's selection.
void fill_pasteboard(NSPasteboard* pasteboard, const Selection& selection,
                     std::vector<std::string>& types) {
    std::vector<CFTypeRef> made;
    auto make = [&made](const std::string& text) {
        CFStringRef s = make_cfstring(text);
        if (s) made.push_back(s);
        return s;
    };
    switch (selection.kind) {
        case Selection::Kind::Paths: {
            pasteboard->declareTypes(NSArray::arrayWithObjects({NSFilenamesPboardType}).get(),
                                     nullptr);
            std::vector<CFTypeRef> paths;
            for (const auto& p : selection.paths)
                if (CFStringRef s = make(p)) paths.push_back(s);
            pasteboard->setPropertyList(NSArray::arrayWithArray(paths), NSFilenamesPboardType);
            types = {kFilenamesType};
            break;
        }
        case Selection::Kind::Text:
            pasteboard->declareTypes(NSArray::arrayWithObjects({NSStringPboardType}).get(),
                                     nullptr);
            pasteboard->setString(make(selection.text), NSStringPboardType);
            types = {kStringType};
            break;
        case Selection::Kind::Color:
            pasteboard->declareTypes(NSArray::arrayWithObjects({NSColorPboardType}).get(), nullptr);
            types = {kColorType};
            break;
        case Selection::Kind::None:
            break;
    }
    for (CFTypeRef s : made) CFRelease(s);
}

// Main thread: a press on a window of this process sends it mouseDown: (which may run a
// whole drag); one on a folder window with a selection starts a drag of the file
// manager, which does not hold this process's run loop.
void press(NSPoint p) {
    NSWindow* target = nullptr;
    Selection selection;
    NSInteger folderWindow = 0;
    {
        std::lock_guard lock(g_mutex);
        if (g_session) return;
        const Record* r = hit_locked(p, nullptr);
        if (!r) return;
        if (r->owner == WindowOwner::Tool) {
            target = r->window;
        } else if (r->selection.kind != Selection::Kind::None) {
            selection = r->selection;
            folderWindow = r->number;
        }
    }
    if (folderWindow != 0) {
        NSPasteboard* pasteboard = NSPasteboard::pasteboardWithName(NSDragPboard).get();
        std::vector<std::string> types;
        fill_pasteboard(pasteboard, selection, types);
        {
            std::lock_guard lock(g_mutex);
            auto s = std::make_unique<Session>();
            s->serial = g_nextSession++;
            s->source = folderWindow;
            s->pasteboard = pasteboard;
            s->types = std::move(types);
            if (selection.kind == Selection::Kind::Paths) s->paths = selection.paths;
            s->image = NSMakeSize(32, 32);
            s->location = p;
            g_session = std::move(s);
        }
        reevaluate();
        return;
    }
    if (target && target->contentView()) {
        const NSRect f = target->frame();
        NSEvent event(NSEventTypeLeftMouseDown, NSMakePoint(p.x - f.origin.x, p.y - f.origin.y),
                      target);
        target->contentView()->mouseDown(&event);
    }
}

// Main thread: one pointer event.
void handle_pointer_event(double x, double y, uint32_t buttons, uint32_t previous) {
    NSPoint p;
    {
        std::lock_guard lock(g_mutex);
        p = to_points_locked(x, y);
        if (g_session) g_session->location = p;
    }
    reevaluate();
    const bool down = buttons & 1;
    const bool wasDown = previous & 1;
    if (down && !wasDown) {
        press(p);
    } else if (!down && wasDown) {
        finish_drag(true);
    }
}

std::vector<std::string> pasteboard_strings(NSPasteboard* pasteboard, NSPasteboardType type) {
    std::vector<std::string> out;
    auto list = pasteboard->propertyListForType(type);
    for (NSUInteger i = 0; list && i < list->count(); ++i)
        out.push_back(utf8_of(static_cast<CFStringRef>(list->objectAtIndex(i))));
    return out;
}

WindowSnapshot snapshot_of(const Record& r) {
    WindowSnapshot w;
    w.number = r.number;
    w.owner = r.owner;
    w.attributes = r.attributes;
    w.onscreen = r.onscreen;
    w.timesOrderedIn = r.timesOrderedIn;
    w.properties = r.properties;
    w.folder = r.folder;
    w.acceptsDrops = r.acceptsDrops;
    w.selection = r.selection;
    return w;
}

}  // namespace

std::vector<ScreenInfo> current_screens() {
    std::lock_guard lock(g_mutex);
    return screens_locked();
}

void set_screens(std::vector<ScreenInfo> screens) {
    {
        std::lock_guard lock(g_mutex);
        g_screens = std::move(screens);
        clamp_locked(g_pointer.x, g_pointer.y);
        if (!g_session) return;
    }
    post_reevaluate();
}

PointerState pointer_state() {
    std::lock_guard lock(g_mutex);
    return g_pointer;
}

void post_pointer_event(double x, double y, uint32_t buttons) {
    // Posted under the lock so that events reach the loop in the order the pointer moved,
    // each knowing the buttons held before it.
    std::lock_guard lock(g_mutex);
    clamp_locked(x, y);
    const uint32_t previous = g_pointer.buttons;
    g_pointer = PointerState{x, y, buttons};
    post_to_main_loop([=] { handle_pointer_event(x, y, buttons, previous); });
}

NSPoint pointer_to_points(double x, double y) {
    std::lock_guard lock(g_mutex);
    return to_points_locked(x, y);
}

void points_to_pointer(NSPoint point, double& x, double& y) {
    std::lock_guard lock(g_mutex);
    const auto& screens = screens_locked();
    const double s = main_scale_locked();
    const double ox = screens.empty() ? 0 : screens.front().x;
    const double oy = screens.empty() ? 0 : screens.front().y;
    const double h = screens.empty() ? 0 : screens.front().height;
    x = (point.x - ox) * s;
    y = (oy + h - point.y) * s;
}

std::vector<WindowSnapshot> windows() {
    std::lock_guard lock(g_mutex);
    std::vector<WindowSnapshot> out;
    for (const Record* r : zorder_locked()) out.push_back(snapshot_of(*r));
    for (const auto& [number, r] : g_windows)
        if (!r.onscreen) out.push_back(snapshot_of(r));
    return out;
}

std::optional<WindowSnapshot> window(NSInteger number) {
    std::lock_guard lock(g_mutex);
    auto it = g_windows.find(number);
    if (it == g_windows.end()) return std::nullopt;
    return snapshot_of(it->second);
}

NSInteger window_server_add(NSWindow* window, const WindowAttributes& attributes) {
    std::lock_guard lock(g_mutex);
    Record r;
    r.number = g_nextNumber++;
    r.owner = WindowOwner::Tool;
    r.window = window;
    r.attributes = attributes;
    g_windows[r.number] = std::move(r);
    return g_nextNumber - 1;
}

void window_server_update(NSInteger number, const WindowAttributes& attributes) {
    {
        std::lock_guard lock(g_mutex);
        auto it = g_windows.find(number);
        if (it == g_windows.end()) return;
        it->second.attributes = attributes;
        if (!g_session) return;
    }
    post_reevaluate();
}

void window_server_order(NSInteger number, Ordering ordering) {
    {
        std::lock_guard lock(g_mutex);
        auto it = g_windows.find(number);
        if (it == g_windows.end()) return;
        Record& r = it->second;
        if (ordering == Ordering::Out) {
            r.onscreen = false;
        } else {
            if (!r.onscreen) ++r.timesOrderedIn;
            r.onscreen = true;
            r.order = ordering == Ordering::Front ? ++g_frontStamp : --g_backStamp;
        }
        if (!g_session) return;
    }
    post_reevaluate();
}

void window_server_remove(NSInteger number) {
    {
        std::lock_guard lock(g_mutex);
        auto it = g_windows.find(number);
        if (it == g_windows.end()) return;
        const NSWindow* gone = it->second.window;
        g_windows.erase(it);
        if (!g_session) return;
        // The window's views go with it; the drag must not call them any more.
        if (gone && g_session->overWindow == gone) {
            g_session->overWindow = nullptr;
            g_session->overView = nullptr;
        }
        if (gone && g_session->lastEnteredWindow == gone) {
            g_session->lastEnteredWindow = nullptr;
            g_session->lastEntered = nullptr;
        }
    }
    post_reevaluate();
}

bool window_server_set_property(NSInteger number, const std::string& key, PropertyValue value) {
    std::lock_guard lock(g_mutex);
    auto it = g_windows.find(number);
    if (it == g_windows.end()) return false;
    it->second.properties[key] = std::move(value);
    return true;
}

std::vector<NSInteger> window_server_list(uint32_t option, NSInteger relativeTo) {
    constexpr uint32_t kAbove = kCGWindowListOptionOnScreenAboveWindow;
    constexpr uint32_t kBelow = kCGWindowListOptionOnScreenBelowWindow;
    constexpr uint32_t kIncluding = kCGWindowListOptionIncludingWindow;
    std::lock_guard lock(g_mutex);
    const auto order = zorder_locked();
    std::vector<NSInteger> out;
    if (option & (kAbove | kBelow)) {
        auto at = std::find_if(order.begin(), order.end(),
                               [&](const Record* r) { return r->number == relativeTo; });
        if (at == order.end()) return out;
        const auto from = (option & kAbove) ? order.begin() : at + 1;
        const auto to = (option & kAbove) ? at : order.end();
        for (auto it = from; it != to; ++it) out.push_back((*it)->number);
        if (option & kIncluding) {
            if (option & kAbove)
                out.push_back(relativeTo);
            else
                out.insert(out.begin(), relativeTo);
        }
        return out;
    }
    if (option & kIncluding) {
        // Listed exactly while ordered on screen.
        auto it = g_windows.find(relativeTo);
        if (it != g_windows.end() && it->second.onscreen) out.push_back(relativeTo);
        return out;
    }
    for (const Record* r : order) out.push_back(r->number);
    if (!(option & kCGWindowListOptionOnScreenOnly))
        for (const auto& [number, r] : g_windows)
            if (!r.onscreen) out.push_back(number);
    return out;
}

NSInteger open_folder_window(const std::string& folder, NSRect frame, bool acceptsDrops) {
    NSInteger number;
    {
        std::lock_guard lock(g_mutex);
        Record r;
        r.number = number = g_nextNumber++;
        r.owner = WindowOwner::Desktop;
        r.attributes.frame = frame;
        if (acceptsDrops) r.attributes.draggedTypes = {kFilenamesType, kFilesPromiseType};
        r.onscreen = true;
        r.order = ++g_frontStamp;
        r.timesOrderedIn = 1;
        r.folder = folder;
        r.acceptsDrops = acceptsDrops;
        g_windows[number] = std::move(r);
        if (!g_session) return number;
    }
    post_reevaluate();
    return number;
}

bool select_in_window(NSInteger number, Selection selection) {
    std::lock_guard lock(g_mutex);
    auto it = g_windows.find(number);
    if (it == g_windows.end() || it->second.owner != WindowOwner::Desktop) return false;
    it->second.selection = std::move(selection);
    return true;
}

bool close_folder_window(NSInteger number) {
    {
        std::lock_guard lock(g_mutex);
        auto it = g_windows.find(number);
        if (it == g_windows.end() || it->second.owner != WindowOwner::Desktop) return false;
        g_windows.erase(it);
        if (!g_session) return true;
    }
    post_reevaluate();
    return true;
}

std::optional<DragSnapshot> current_drag() {
    std::lock_guard lock(g_mutex);
    if (!g_session) return std::nullopt;
    const Session& s = *g_session;
    return DragSnapshot{s.source, s.ownedByTool, s.types, s.paths, s.over, s.operation, s.image};
}

std::optional<DropRecord> last_drop() {
    std::lock_guard lock(g_mutex);
    return g_lastDrop;
}

uint64_t drop_count() {
    std::lock_guard lock(g_mutex);
    return g_drops;
}

bool run_view_drag(NSView* view, NSImage* image, NSPoint at, NSEvent* event,
                   NSPasteboard* pasteboard, id source) {
    // Drags belong to the main thread's event handling.
    if (!CFRunLoopGetCurrent() || !view || !pasteboard) return false;
    NSPoint location;
    if (event && event->window()) {
        const NSRect f = event->window()->frame();
        location = NSMakePoint(f.origin.x + event->locationInWindow().x,
                               f.origin.y + event->locationInWindow().y);
    } else {
        const NSRect f = view->window() ? view->window()->frame() : NSRect{};
        location = NSMakePoint(f.origin.x + view->frame().origin.x + at.x,
                               f.origin.y + view->frame().origin.y + at.y);
    }
    std::vector<std::string> types;
    if (auto declared = pasteboard->types())
        for (NSUInteger i = 0; i < declared->count(); ++i)
            types.push_back(utf8_of(static_cast<CFStringRef>(declared->objectAtIndex(i))));
    std::vector<std::string> paths = pasteboard_strings(pasteboard, NSFilenamesPboardType);

    uint64_t serial;
    {
        std::lock_guard lock(g_mutex);
        if (g_session) return false;
        auto s = std::make_unique<Session>();
        s->serial = serial = g_nextSession++;
        s->source = view->window() ? view->window()->windowNumber() : 0;
        s->ownedByTool = true;
        s->sourceObject = source;
        s->pasteboard = pasteboard;
        s->types = std::move(types);
        s->paths = std::move(paths);
        s->image = image ? image->size() : NSSize{};
        // A source that does not say otherwise offers a copy to other applications.
        s->sourceMask = NSDragOperationCopy;
        s->location = location;
        g_session = std::move(s);
    }
    reevaluate();
    for (;;) {
        {
            std::lock_guard lock(g_mutex);
            if (!g_session || g_session->serial != serial) break;
        }
        const int32_t result = CFRunLoopRunInMode(NSEventTrackingRunLoopMode, 1e10, true);
        if (result == kCFRunLoopRunStopped || result == kCFRunLoopRunFinished) {
            // The application is going away: the drag is cancelled where it is.
            finish_drag(false);
            break;
        }
    }
    std::lock_guard lock(g_mutex);
    return g_lastDropSession == serial;
}

void desktop_reset() {
    std::lock_guard lock(g_mutex);
    std::erase_if(g_windows,
                  [](const auto& entry) { return entry.second.owner == WindowOwner::Desktop; });
    g_screens.reset();
    g_pointer = PointerState{};
    g_session.reset();
    g_lastDrop.reset();
    g_lastDropSession = 0;
    g_drops = 0;
}

}  // namespace platform

NSPoint NSEvent::mouseLocation() {
    const platform::PointerState p = platform::pointer_state();
    return platform::pointer_to_points(p.x, p.y);
}

NSUInteger NSEvent::pressedMouseButtons() {
    return platform::pointer_state().buttons;
}

NSInteger NSEvent::windowNumber() const {
    return m_window ? m_window->windowNumber() : 0;
}
