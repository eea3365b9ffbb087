// The overlay window and the state the drag flows share across threads, with the helpers
// for any thread: posting to the main thread, the display scale, the main screen's height
// and the dragged paths.
#pragma once

#include <pthread.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include <Foundation/NSObjCRuntime.h>

class NSWindow;

namespace qvx {

class DnDPool;

// The window-server property set on the overlay window, to 1.
inline constexpr const char* kOverlayPropertyKey = "29F372FD-FDC7-498C-A2B7-B7D8FB0CD15E";

// The pool through which the drop-target view starts receive jobs; set at launch.
extern DnDPool* g_dragPool;

// The global mutex: guards draggedPaths only and is never held across a message exchange.
// Initialised at launch and destroyed at stop.
extern pthread_mutex_t g_globalMutex;
// The file list of the guest drag that entered the view (UTF-8 paths).
extern std::vector<std::string> draggedPaths;

// Written on the main thread, polled by the control thread without a lock. The window is
// made on the first show and kept for the life of the process; its number is stored
// before it, so a reader that sees the window also sees its number.
extern std::atomic<NSWindow*> overlayWindow;
extern std::atomic<NSInteger> overlayWindowNumber;
// Set by the view: a promised-files drop was accepted; a drag over the view ended.
// Both are cleared by each show.
extern std::atomic<uint8_t> filesDropped;
extern std::atomic<uint8_t> dragEnded;

bool init_global_mutex();
void destroy_global_mutex();
// Empties draggedPaths under the global mutex.
void clear_dragged_paths();

// Main thread only. Shows the 200 x 200 point overlay centred on (x, y) (window-system
// points) serving `workerId`, making it on first use; moves it; orders it out. Each
// returns true.
bool show_overlay(int x, int y, uint64_t workerId);
bool move_overlay(int x, int y);
bool hide_overlay();

// Queues `block` on the main run loop (default mode) and wakes the loop; returns at once.
// Whatever the block needs it must carry by copy.
void post_to_main(std::function<void()> block);

// The main screen's backing scale factor; 1.0 when the screen does not answer it. Whether
// it answers is asked once for the process; the value is read anew on every call.
double backing_scale_factor();

// Height of the first screen's frame, 0 without screens; turns the window system's
// lower-left coordinates into the upper-left ones of the pointer messages.
double main_screen_height();

}  // namespace qvx
