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
#include "common/stop_flag.h"
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

namespace {

// Sleeps in polling steps for `seconds`; false when the tool began to stop meanwhile.
bool pause(unsigned seconds) {
    for (useconds_t slept = 0; slept < seconds * 1000000u; slept += kPollMicros) {
        if (stop_requested()) return false;
        platform::clock_usleep(kPollMicros);
    }
    return !stop_requested();
}

}  // namespace

bool SimulateDrop(const DnDContext& context, uint64_t operation, int x, int y, int px, int py) {
    if (!SendChecked(context, dnd::kCmd279)) return false;
    const double s = backing_scale_factor();
    const double h = main_screen_height();
    const uint32_t parkX = wire(px * s), parkY = wire((h - py) * s);
    // Press on the overlay's centre (its view starts the promised-files drag), pass one
    // point right of the target, and a second later onto it, so that the pointer moves
    // over the target twice before the release.
    const bool moved = sendMoveMouse(context, parkX, parkY, kButtonPressed) &&
                       sendMoveMouse(context, wire((x + 1.0) * s), wire(y * s), kButtonHeld) &&
                       pause(kPauseSeconds) &&
                       sendMoveMouse(context, wire(x * s), wire(y * s), kButtonHeld) &&
                       sendMoveMouse(context, wire(x * s), wire(y * s), kButtonReleased);
    if (!moved) {
        // The press may have started the view's drag, and a drag runs the main thread in
        // event tracking until the button goes up: no default-mode block (the hide, the
        // next show) runs before that. Only a release ends it, and the host makes the
        // releases, so it is asked for one where the press was. The operation is settled
        // first: whatever that release lands on starts no job for it. Should the host fail
        // this release too, the drag lasts until the button next goes up (the host's next
        // drop, or the user), and acts on nothing meanwhile.
        const DropOutcome outcome = settle_drop(operation);
        sendMoveMouse(context, parkX, parkY, kButtonReleased);
        SendPlain(context, dnd::kCmdTransferStart);
        return outcome == DropOutcome::Started;
    }
    const time_t t1 = platform::clock_time();
    while (platform::clock_time() - t1 < kHostWaitSeconds && !stop_requested() &&
           drop_outcome(operation) == DropOutcome::Waiting)
        platform::clock_usleep(kPollMicros);
    // A drop that came after the time-out (or a receive job that could not start) is
    // refused as a whole: exactly one 260 ends the operation, the job's or the loop's.
    const bool started = settle_drop(operation) == DropOutcome::Started;
    if (!started) send_failure_dialog(context);
    SendPlain(context, dnd::kCmdTransferStart);
    return started;
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
    const uint64_t operation = open_drop();
    post_to_main([at, worker, operation] { show_overlay(at.x, at.y, worker, operation); });

    bool listed = false;
    const time_t t0 = platform::clock_time();
    while (platform::clock_time() - t0 < kHostWaitSeconds && !stop_requested()) {
        // Only once this operation's show has run: the window may still be listed for an
        // earlier one whose drag the host never released, and a press would serve that.
        if (overlayWindow.load() != nullptr && overlayOperation.load() == operation &&
            overlay_listing() == 1) {
            listed = true;
            break;
        }
        platform::clock_usleep(kPollMicros);
    }
    bool result = false;
    if (listed) {
        result = SimulateDrop(context, operation, x, y, at.x, at.y);
    } else {
        settle_drop(operation);
        send_failure_dialog(context);
    }
    post_hide();
    return result;
}

void HandleGuestToHostDrag(DnDContext context) {
    clear_dragged_paths();
    const NSPoint start = NSEvent::mouseLocation();
    post_to_main([start] { show_overlay(to_int(start.x), to_int(start.y), 0, 0); });

    const time_t t0 = platform::clock_time();
    std::vector<std::string> paths;
    bool caught = false;
    for (;;) {
        if (platform::clock_time() - t0 > kGuestWaitSeconds || !left_button_down() ||
            stop_requested())
            break;
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
        while (platform::clock_time() - t0 <= kGuestWaitSeconds && !stop_requested()) {
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
    if (g_dragPool == nullptr || !g_dragPool->StartSend(newWorker, action, paths, dragged)) {
        // The job would have ended the new worker's operation; without one the host would
        // wait for that 260 for ever.
        send_failure_dialog(context);
        SendPlain(context, dnd::kCmdEnd);
    }

    // The drag ends over the overlay once the host has released the pointer; hidden
    // earlier, the overlay would let that release drop the files on whatever lies beneath.
    const time_t t1 = platform::clock_time();
    while (platform::clock_time() - t1 <= kGuestWaitSeconds && !dragEnded.load() &&
           !stop_requested())
        platform::clock_usleep(kPollMicros);
    post_hide();
}

}  // namespace qvx
