// The shared drag state, the overlay window's show, move and hide, and the helpers that
// any thread may call.
#include "ui/overlay.h"

#include <mutex>

#include <AppKit/AppKit.h>
#include <CoreFoundation/CoreFoundation.h>
#include <CoreGraphics/CoreGraphics.h>

#include "ui/view.h"

namespace qvx {

DnDPool* g_dragPool = nullptr;
pthread_mutex_t g_globalMutex;
std::vector<std::string> draggedPaths;
std::atomic<NSWindow*> overlayWindow{nullptr};
std::atomic<NSInteger> overlayWindowNumber{0};
std::atomic<uint8_t> filesDropped{0};
std::atomic<uint8_t> dragEnded{0};

namespace {

constexpr double kHalfSide = 100;            // the window is 200 x 200 points
constexpr NSWindowStyleMask kStyleMask = 6;  // closable and miniaturizable, no title bar
constexpr NSWindowLevel kLevel = 26;
constexpr NSAutoresizingMaskOptions kAutoresizing = 18;  // width and height sizable

NSRect frame_around(int x, int y) {
    return NSMakeRect(x - kHalfSide, y - kHalfSide, 2 * kHalfSide, 2 * kHalfSide);
}

void mark_window(NSWindow* window) {
    CFStringRef key =
        CFStringCreateWithCString(kCFAllocatorDefault, kOverlayPropertyKey, kCFStringEncodingUTF8);
    const int32_t one = 1;
    CFNumberRef value = CFNumberCreate(kCFAllocatorDefault, kCFNumberSInt32Type, &one);
    CGSSetWindowProperty(CGSMainConnectionID(), static_cast<CGWindowID>(window->windowNumber()),
                         key, value);
    CFRelease(value);
    CFRelease(key);
}

NSWindow* make_overlay(int x, int y, uint64_t workerId) {
    auto* window = new NSWindow(frame_around(x, y), kStyleMask, NSBackingStoreBuffered, NO);
    auto* view = new CView();
    view->setWorker(workerId);
    view->setAutoresizingMask(kAutoresizing);
    window->setContentView(view);
    view->registerForDraggedTypes(
        NSArray::arrayWithObjects({NSColorPboardType, NSFilenamesPboardType}).get());
    window->setLevel(kLevel);
    mark_window(window);
    window->setAlphaValue(0.0);
    window->setIgnoresMouseEvents(NO);
    window->setHasShadow(NO);
    window->makeKeyAndOrderFront(NSApplication::sharedApplication());
    window->display();
    return window;
}

}  // namespace

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

bool show_overlay(int x, int y, uint64_t workerId) {
    NSWindow* window = overlayWindow.load();
    if (window == nullptr) {
        window = make_overlay(x, y, workerId);
        overlayWindowNumber.store(window->windowNumber());
        overlayWindow.store(window);
        return true;
    }
    static_cast<CView*>(window->contentView())->setWorker(workerId);
    window->orderBack(nil);
    window->setFrame(frame_around(x, y), YES);
    return true;
}

bool move_overlay(int x, int y) {
    if (NSWindow* window = overlayWindow.load()) window->setFrame(frame_around(x, y), YES);
    return true;
}

bool hide_overlay() {
    if (NSWindow* window = overlayWindow.load()) window->orderOut(nil);
    return true;
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
