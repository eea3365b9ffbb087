// The shared drag state and the helpers that any thread may call.
#include "ui/overlay.h"

#include <mutex>

#include <AppKit/AppKit.h>
#include <CoreFoundation/CFRunLoop.h>

namespace qvx {

DnDPool* g_dragPool = nullptr;
pthread_mutex_t g_globalMutex;
std::vector<std::string> draggedPaths;

bool init_global_mutex() {
    return pthread_mutex_init(&g_globalMutex, nullptr) == 0;
}

void destroy_global_mutex() {
    pthread_mutex_destroy(&g_globalMutex);
}

void clear_dragged_paths() {
    pthread_mutex_lock(&g_globalMutex);
    draggedPaths.clear();
    pthread_mutex_unlock(&g_globalMutex);
}

void post_to_main(std::function<void()> block) {
    CFRunLoopRef main = CFRunLoopGetMain();
    CFRunLoopPerformBlock(main, kCFRunLoopDefaultMode, std::move(block));
    CFRunLoopWakeUp(main);
}

double backing_scale_factor() {
    static std::once_flag once;
    static bool answers = false;
    std::call_once(once, [] {
        auto screen = NSScreen::mainScreen();
        answers = screen && screen->respondsToSelector(sel_registerName("backingScaleFactor"));
    });
    if (!answers) return 1.0;
    auto screen = NSScreen::mainScreen();
    return screen ? screen->backingScaleFactor() : 1.0;
}

double main_screen_height() {
    auto screens = NSScreen::screens();
    if (screens.empty() || !screens.front()) return 0;
    return screens.front()->frame().size.height;
}

}  // namespace qvx
