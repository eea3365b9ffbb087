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
// The drop operation of the latest show, stored once the show is done: a handler presses
// only a window shown for its own operation.
extern std::atomic<uint64_t> overlayOperation;
// Set by the view when a drag over it ended; cleared by each show.
extern std::atomic<uint8_t> dragEnded;

// The host drop whose handler waits for the promised files, tied to its operation: only
// the drag pressed on the overlay shown for that operation may start its receive, and only
// while the handler still waits. Whichever comes first, the drop or the handler giving up,
// settles it, so a drop either starts the operation's one receive job or nothing, and a
// stale drag (one the host never released) can never act on a later operation.
enum class DropOutcome { Waiting, Started, Failed };
// Control thread, before the show: a new operation number (never 0), waiting.
uint64_t open_drop();
DropOutcome drop_outcome(uint64_t operation);
// The handler gives up: Failed, unless the drop came first and its job started.
DropOutcome settle_drop(uint64_t operation);
// Main thread, the drop: when `operation` still waits, settles it with what `start` (which
// starts the receive job) returns and gives that; false without calling it otherwise.
bool take_drop(uint64_t operation, const std::function<bool()>& start);

bool init_global_mutex();
void destroy_global_mutex();
// Empties draggedPaths under the global mutex.
void clear_dragged_paths();

// Main thread only. Shows the 200 x 200 point overlay centred on (x, y) (window-system
// points) serving `workerId` and the drop `operation` (0 for a guest drag), making it on
// first use; moves it; orders it out. Each returns true.
bool show_overlay(int x, int y, uint64_t workerId, uint64_t operation);
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
