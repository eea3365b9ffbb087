// The drag handlers: a host drop played inside the guest through the overlay's promised-
// files drag, and a guest drag caught by the overlay and handed to the host.
#include "ui/drag_handlers.h"

#include <pthread.h>

#include <algorithm>
#include <climits>
#include <cmath>
#include <string>
#include <vector>

#include <AppKit/AppKit.h>
#include <CoreFoundation/CoreFoundation.h>
#include <CoreGraphics/CoreGraphics.h>

#include "app/dnd_pool.h"
#include "channel/dnd_message.h"
#include "log/log.h"
#include "platform/seams/clock.h"
#include "ui/overlay.h"

namespace qvx {
namespace {

constexpr const char* kTag = "DNDTOOL";
constexpr const char* kComponent = "qvxdragdrop";

constexpr int kParkDistance = 110;       // points from the centre, on each axis, strictly
constexpr int kParkShift = 220;          // points to the left
constexpr time_t kHostWaitSeconds = 5;   // for the window, then for the drop
constexpr time_t kGuestWaitSeconds = 4;  // more than this many whole seconds ends a wait
constexpr useconds_t kPollMicros = 10000;
constexpr unsigned kPauseSeconds = 1;  // between the two moves over the target

// Button states of command 275.
constexpr uint32_t kButtonReleased = 0;
constexpr uint32_t kButtonPressed = 1;
constexpr uint32_t kButtonHeld = 2;

constexpr uint32_t kLeftButton = 1;

// A truncated coordinate in the wire's u32 field. Out-of-range doubles cannot be
// converted (that is undefined), so the value is brought into int's range first; a
// negative one then wraps as the unsigned field takes it.
uint32_t wire(double value) {
    const double t = std::trunc(value);
    if (std::isnan(t)) return 0;
    const double clamped =
        std::clamp(t, static_cast<double>(INT_MIN), static_cast<double>(INT_MAX));
    return static_cast<uint32_t>(static_cast<int32_t>(clamped));
}

int to_int(double value) {
    const double t = std::trunc(value);
    if (std::isnan(t)) return 0;
    return static_cast<int>(
        std::clamp(t, static_cast<double>(INT_MIN), static_cast<double>(INT_MAX)));
}

void send_failure_dialog(const DnDContext& context) {
    SendDialog(context, dnd::kDialogError, dnd::kDialogCodeFailed, {});
}

// The number of windows the window server lists for the overlay: 1 while it is on
// screen, 0 when not; -1 when the server gave no list.
CFIndex overlay_listing() {
    CFArrayRef list = CGWindowListCopyWindowInfo(
        kCGWindowListOptionIncludingWindow, static_cast<CGWindowID>(overlayWindowNumber.load()));
    if (list == nullptr) return -1;
    const CFIndex count = CFArrayGetCount(list);
    CFRelease(list);
    return count;
}

bool left_button_down() {
    return (NSEvent::pressedMouseButtons() & kLeftButton) != 0;
}

void post_hide() {
    post_to_main([] { hide_overlay(); });
}

}  // namespace

std::optional<ParkedAt> ParkPoint(int x, int yc) {
    const auto screens = NSScreen::screens();
    if (screens.empty()) return std::nullopt;
    const NSRect frame = screens.front() ? screens.front()->frame() : NSRect{};
    ParkedAt park{to_int(frame.size.width * 0.5), to_int(frame.size.height * 0.5)};
    if (park.x - kParkDistance < x && x < park.x + kParkDistance && park.y - kParkDistance < yc &&
        yc < park.y + kParkDistance)
        park.x -= kParkShift;
    return park;
}

bool SimulateDrop(const DnDContext& context, int x, int y, int px, int py) {
    if (!SendChecked(context, dnd::kCmd279)) return false;
    const double s = backing_scale_factor();
    const double h = main_screen_height();
    // Press on the overlay's centre (its view starts the promised-files drag), pass one
    // point right of the target, and a second later onto it, so that the pointer moves
    // over the target twice before the release.
    bool moved = sendMoveMouse(context, wire(px * s), wire((h - py) * s), kButtonPressed) &&
                 sendMoveMouse(context, wire((x + 1.0) * s), wire(y * s), kButtonHeld);
    if (moved) {
        platform::clock_sleep(kPauseSeconds);
        moved = sendMoveMouse(context, wire(x * s), wire(y * s), kButtonHeld) &&
                sendMoveMouse(context, wire(x * s), wire(y * s), kButtonReleased);
    }
    if (!moved) {
        SendPlain(context, dnd::kCmdTransferStart);
        return false;
    }
    const time_t t1 = platform::clock_time();
    while (platform::clock_time() - t1 < kHostWaitSeconds) {
        if (filesDropped.load()) {
            SendPlain(context, dnd::kCmdTransferStart);
            return true;
        }
        platform::clock_usleep(kPollMicros);
    }
    send_failure_dialog(context);
    SendPlain(context, dnd::kCmdTransferStart);
    return false;
}

bool HandleHostToGuestDrag(DnDContext context, int x, int y) {
    log_message(kTag, kComponent, 0, "send DD_DIALOG_ID_PREPARE worker = %llu",
                static_cast<unsigned long long>(context.workerId));
    SendDialog(context, dnd::kDialogPrepare, 0, {});
    uint32_t value = 0;
    if (!QueryPrepare(context, &value)) return false;
    if (value != 0) {
        send_failure_dialog(context);
        return false;
    }
    const bool hasScreen = !NSScreen::screens().empty();
    const int yc = hasScreen ? to_int(main_screen_height() - y) : 0;
    const auto park = ParkPoint(x, yc);
    if (!park) {
        // Without a screen there is nowhere to show the overlay or to press the pointer,
        // so the drop is refused before anything is shown, like any other failed drop.
        send_failure_dialog(context);
        return false;
    }
    const ParkedAt at = *park;
    const uint64_t worker = context.workerId;
    post_to_main([at, worker] { show_overlay(at.x, at.y, worker); });

    bool listed = false;
    const time_t t0 = platform::clock_time();
    while (platform::clock_time() - t0 < kHostWaitSeconds) {
        if (overlayWindow.load() != nullptr && overlay_listing() == 1) {
            listed = true;
            break;
        }
        platform::clock_usleep(kPollMicros);
    }
    bool result = false;
    if (listed) {
        result = SimulateDrop(context, x, y, at.x, at.y);
    } else {
        send_failure_dialog(context);
    }
    post_hide();
    return result;
}

void HandleGuestToHostDrag(DnDContext context) {
    clear_dragged_paths();
    const NSPoint start = NSEvent::mouseLocation();
    post_to_main([start] { show_overlay(to_int(start.x), to_int(start.y), 0); });

    const time_t t0 = platform::clock_time();
    std::vector<std::string> paths;
    bool caught = false;
    for (;;) {
        if (platform::clock_time() - t0 > kGuestWaitSeconds || !left_button_down()) break;
        if (overlayWindow.load() == nullptr) {
            platform::clock_usleep(kPollMicros);
            continue;
        }
        pthread_mutex_lock(&g_globalMutex);
        paths = draggedPaths;
        pthread_mutex_unlock(&g_globalMutex);
        if (!paths.empty()) {
            caught = true;
            break;
        }
        const NSPoint p = NSEvent::mouseLocation();
        post_to_main([p] { move_overlay(to_int(p.x), to_int(p.y)); });
        platform::clock_usleep(kPollMicros);
    }
    if (!caught) {
        post_hide();
        return;
    }
    // What the drag carries is fixed here, before the host is told: a move deletes these
    // items, not whatever the names lead to once the host has answered.
    const std::vector<FileIdentity> dragged = identify_items(paths);

    uint64_t newWorker = 0;
    uint32_t action = 0;
    if (!SendFileList(context, false, paths, &newWorker, &action)) {
        post_hide();
        // The host learns of the end only once the overlay can no longer take the drag.
        while (platform::clock_time() - t0 <= kGuestWaitSeconds) {
            const CFIndex listed = overlay_listing();
            if (listed <= 0) break;
            platform::clock_usleep(kPollMicros);
        }
        SendChecked(context, dnd::kCmd273);
        return;
    }
    context.workerId = newWorker;
    const NSPoint p = NSEvent::mouseLocation();
    const double s = backing_scale_factor();
    const auto screens = NSScreen::screens();
    const uint32_t py = screens.empty() ? 0 : wire((main_screen_height() - p.y) * s);
    sendMoveMouse(context, wire(p.x * s), py, kButtonHeld);
    SendChecked(context, dnd::kCmd273);
    if (g_dragPool) g_dragPool->StartSend(newWorker, action, paths, dragged);

    const time_t t1 = platform::clock_time();
    while (platform::clock_time() - t1 <= kGuestWaitSeconds && !dragEnded.load())
        platform::clock_usleep(kPollMicros);
    post_hide();
}

}  // namespace qvx
