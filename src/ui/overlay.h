// State the drag flows share across threads, and the helpers for any thread: posting to
// the main thread, the display scale, the main screen's height and the dragged paths.
#pragma once

#include <pthread.h>

#include <functional>
#include <string>
#include <vector>

namespace qvx {

class DnDPool;

// The pool through which the drop-target view starts receive jobs; set at launch.
extern DnDPool* g_dragPool;

// The global mutex: guards draggedPaths only and is never held across a message exchange.
// Initialised at launch and destroyed at stop.
extern pthread_mutex_t g_globalMutex;
// The file list of the guest drag that entered the view (UTF-8 paths).
extern std::vector<std::string> draggedPaths;

bool init_global_mutex();
void destroy_global_mutex();
// Empties draggedPaths under the global mutex.
void clear_dragged_paths();

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
