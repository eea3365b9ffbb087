// The headless desktop: screens, the pointer, the window server's windows of every
// application, file-manager folder windows and drag sessions, with the routing of pointer
// events on the main run loop.
//
// Threads: the state below is guarded by one lock and may be read and changed from any
// thread (the control socket's thread, the tool's control thread through the window list,
// tests). Views of this process are only ever called on the main thread: pointer events
// and destination re-evaluations are posted to the main run loop in its common modes, so
// they are handled during a drag's event tracking too.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include <AppKit/AppKit.h>

#include "platform/sim/platform_root.h"

namespace platform {

// --- screens and pointer ------------------------------------------------------------

// The screens NSScreen reports: platform.json's until a "screens" request replaces them.
std::vector<ScreenInfo> current_screens();
void set_screens(std::vector<ScreenInfo> screens);

// The pointer in the units of command 275: pixels, origin at the upper left of the main
// screen. Buttons: bit 0 left.
struct PointerState {
    double x = 0;
    double y = 0;
    uint32_t buttons = 0;
};
PointerState pointer_state();
// The host's virtual pointer moves there (clamped to the screens) with those buttons held,
// at once for NSEvent's class methods; the event itself is routed on the main run loop:
// the move first (a drag re-evaluates its destination), then a press (mouseDown: to a
// window of this process, or a file drag from a folder window with a selection) or a
// release (the drop and the end of the drag).
void post_pointer_event(double x, double y, uint32_t buttons);

// Between pointer units and window-system points (origin at the lower left of the main
// screen), with the main screen's scale (1.0 for a screen without one).
NSPoint pointer_to_points(double x, double y);
void points_to_pointer(NSPoint point, double& x, double& y);

// --- the window server --------------------------------------------------------------

enum class WindowOwner { Tool, Desktop };
using PropertyValue = std::variant<int64_t, double, std::string>;

// What the window server knows of a window of this process, as NSWindow publishes it.
struct WindowAttributes {
    NSRect frame;
    NSInteger level = 0;
    double alpha = 1.0;
    bool hasShadow = true;
    bool takesPointer = true;  // mouse events not ignored (and not let through as clear)
    NSUInteger styleMask = 0;
    NSUInteger backing = 2;
    std::vector<std::string> draggedTypes;  // of the content view, UTF-8 names
};

struct Selection {
    enum class Kind { None, Paths, Text, Color };
    Kind kind = Kind::None;
    std::vector<std::string> paths;
    std::string text;
};

struct WindowSnapshot {
    NSInteger number = 0;
    WindowOwner owner = WindowOwner::Tool;
    WindowAttributes attributes;
    bool onscreen = false;
    unsigned timesOrderedIn = 0;  // how often it went from off screen to on screen
    std::map<std::string, PropertyValue> properties;
    // Folder windows only.
    std::string folder;
    bool acceptsDrops = false;
    Selection selection;
};

// Every window: those on screen front to back, then the others by number.
std::vector<WindowSnapshot> windows();
std::optional<WindowSnapshot> window(NSInteger number);

// For NSWindow. A new window starts off screen.
enum class Ordering { Front, Back, Out };
NSInteger window_server_add(NSWindow* window, const WindowAttributes& attributes);
void window_server_update(NSInteger number, const WindowAttributes& attributes);
void window_server_order(NSInteger number, Ordering ordering);
void window_server_remove(NSInteger number);
bool window_server_set_property(NSInteger number, const std::string& key, PropertyValue value);
// The window numbers CGWindowListCopyWindowInfo lists for these arguments.
std::vector<NSInteger> window_server_list(uint32_t option, NSInteger relativeTo);

// --- folder windows of the file manager ---------------------------------------------

// Opens a window on `folder`, in front of the normal windows; its number.
NSInteger open_folder_window(const std::string& folder, NSRect frame, bool acceptsDrops);
// False for a number that is no folder window.
bool select_in_window(NSInteger number, Selection selection);
bool close_folder_window(NSInteger number);

// --- drags ---------------------------------------------------------------------------

struct DragSnapshot {
    NSInteger source = 0;  // the window it started from
    bool ownedByTool = false;
    std::vector<std::string> types;
    std::vector<std::string> paths;
    NSInteger over = 0;  // the destination window, 0 for none
    NSUInteger operation = 0;
    NSSize image;
};
std::optional<DragSnapshot> current_drag();

struct DropRecord {
    NSInteger window = 0;  // where it was dropped
    NSInteger source = 0;
    std::string folder;  // the folder window's folder; empty for a window of the tool
    std::vector<std::string> types;
    std::vector<std::string> paths;
    NSUInteger operation = 0;
};
std::optional<DropRecord> last_drop();
uint64_t drop_count();

// NSView's dragImage: runs a drag that a view of this process starts, handling pointer
// events in the event-tracking mode until the drag ends. True when it was dropped.
bool run_view_drag(NSView* view, NSImage* image, NSPoint at, NSEvent* event,
                   NSPasteboard* pasteboard, id source);

// --- tests ---------------------------------------------------------------------------

// Back to the start: platform.json's screens, the pointer at (0, 0) with no button, no
// folder windows, no drag and no drops. Windows of this process stay.
void desktop_reset();

}  // namespace platform
