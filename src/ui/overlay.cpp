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
std::atomic<uint64_t> overlayOperation{0};
std::atomic<uint8_t> dragEnded{0};

namespace {

// The drop slot. Held while the view starts the receive, so that the handler giving up
// cannot slip in between the drop's claim and its job.
std::mutex g_dropMutex;
uint64_t g_lastOperation = 0;
uint64_t g_waitingOperation = 0;  // 0: no drop waits
uint64_t g_settledOperation = 0;
DropOutcome g_settled = DropOutcome::Failed;

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

NSWindow* make_overlay(int x, int y, uint64_t workerId, uint64_t operation) {
    auto* window = new NSWindow(frame_around(x, y), kStyleMask, NSBackingStoreBuffered, NO);
    auto* view = new CView();
    view->setWorker(workerId, operation);
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

uint64_t open_drop() {
    std::lock_guard lock(g_dropMutex);
    g_waitingOperation = ++g_lastOperation;
    return g_waitingOperation;
}

DropOutcome drop_outcome(uint64_t operation) {
    std::lock_guard lock(g_dropMutex);
    if (operation == g_waitingOperation) return DropOutcome::Waiting;
    return operation == g_settledOperation ? g_settled : DropOutcome::Failed;
}

DropOutcome settle_drop(uint64_t operation) {
    std::lock_guard lock(g_dropMutex);
    if (operation == g_waitingOperation) {
        g_waitingOperation = 0;
        g_settledOperation = operation;
        g_settled = DropOutcome::Failed;
    }
    return operation == g_settledOperation ? g_settled : DropOutcome::Failed;
}

bool take_drop(uint64_t operation, const std::function<bool()>& start) {
    std::lock_guard lock(g_dropMutex);
    if (operation == 0 || operation != g_waitingOperation) return false;
    g_waitingOperation = 0;
    g_settledOperation = operation;
    g_settled = start() ? DropOutcome::Started : DropOutcome::Failed;
    return g_settled == DropOutcome::Started;
}

bool show_overlay(int x, int y, uint64_t workerId, uint64_t operation) {
    NSWindow* window = overlayWindow.load();
    if (window == nullptr) {
        window = make_overlay(x, y, workerId, operation);
        overlayWindowNumber.store(window->windowNumber());
        overlayWindow.store(window);
    } else {
        static_cast<CView*>(window->contentView())->setWorker(workerId, operation);
        window->orderBack(nil);
        window->setFrame(frame_around(x, y), YES);
    }
    overlayOperation.store(operation);
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
