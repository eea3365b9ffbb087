// The main run loop: a queue of posted blocks run on the main thread, mode by mode.
#include "platform/sim/run_loop.h"

#include <chrono>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <thread>
#include <vector>

namespace {

// Mode names are only compared by address; these give each one a distinct address.
const char g_defaultMode[] = "kCFRunLoopDefaultMode";
const char g_commonModes[] = "kCFRunLoopCommonModes";
const char g_trackingMode[] = "NSEventTrackingRunLoopMode";

// Static initialisation runs on the thread of main(), which is the main thread.
const std::thread::id g_mainThread = std::this_thread::get_id();

}  // namespace

const CFRunLoopMode kCFRunLoopDefaultMode = reinterpret_cast<CFRunLoopMode>(g_defaultMode);
const CFRunLoopMode kCFRunLoopCommonModes = reinterpret_cast<CFRunLoopMode>(g_commonModes);
const CFRunLoopMode NSEventTrackingRunLoopMode = reinterpret_cast<CFRunLoopMode>(g_trackingMode);

struct __CFRunLoop {
    struct Entry {
        CFRunLoopMode mode;
        std::function<void()> block;
    };

    std::mutex mutex;
    std::condition_variable cv;
    std::deque<Entry> queue;
    bool woken = false;
    int depth = 0;                     // nested invocations now running
    std::vector<CFRunLoopMode> modes;  // of the running invocations, innermost last
    bool waiting = false;              // the innermost invocation sleeps for want of a block
    std::condition_variable idle;      // signalled whenever it starts sleeping
    bool stopPending = false;
    bool shutDown = false;
};

namespace {

bool runs_in(CFRunLoopMode blockMode, CFRunLoopMode loopMode) {
    return blockMode == loopMode || blockMode == kCFRunLoopCommonModes;
}

bool has_runnable(const __CFRunLoop& loop, CFRunLoopMode mode) {
    for (const auto& entry : loop.queue)
        if (runs_in(entry.mode, mode)) return true;
    return false;
}

}  // namespace

CFRunLoopRef CFRunLoopGetMain() {
    // Never destroyed: threads that post late must not find it gone during exit.
    static __CFRunLoop* const loop = new __CFRunLoop;
    return loop;
}

CFRunLoopRef CFRunLoopGetCurrent() {
    return std::this_thread::get_id() == g_mainThread ? CFRunLoopGetMain() : nullptr;
}

void CFRunLoopPerformBlock(CFRunLoopRef loop, CFRunLoopMode mode, std::function<void()> block) {
    if (loop == nullptr || !block) return;
    std::lock_guard lock(loop->mutex);
    loop->queue.push_back({mode, std::move(block)});
}

void CFRunLoopWakeUp(CFRunLoopRef loop) {
    if (loop == nullptr) return;
    {
        std::lock_guard lock(loop->mutex);
        loop->woken = true;
    }
    loop->cv.notify_all();
}

void CFRunLoopStop(CFRunLoopRef loop) {
    if (loop == nullptr) return;
    {
        std::lock_guard lock(loop->mutex);
        if (loop->depth == 0) return;
        loop->stopPending = true;
        loop->woken = true;
    }
    loop->cv.notify_all();
}

int32_t CFRunLoopRunInMode(CFRunLoopMode mode, CFTimeInterval seconds,
                           bool returnAfterSourceHandled) {
    __CFRunLoop* loop = CFRunLoopGetMain();
    const auto deadline =
        std::chrono::steady_clock::now() +
        std::chrono::duration_cast<std::chrono::steady_clock::duration>(
            std::chrono::duration<double>(seconds > 1e9 ? 1e9 : (seconds < 0 ? 0 : seconds)));

    std::unique_lock lock(loop->mutex);
    if (loop->shutDown) return kCFRunLoopRunStopped;
    ++loop->depth;
    loop->modes.push_back(mode);
    int32_t result = kCFRunLoopRunTimedOut;
    for (;;) {
        if (loop->shutDown) {
            result = kCFRunLoopRunStopped;
            break;
        }
        if (loop->stopPending) {
            loop->stopPending = false;
            result = kCFRunLoopRunStopped;
            break;
        }
        auto it = loop->queue.begin();
        while (it != loop->queue.end() && !runs_in(it->mode, mode)) ++it;
        if (it != loop->queue.end()) {
            std::function<void()> block = std::move(it->block);
            loop->queue.erase(it);
            lock.unlock();
            block();
            block = nullptr;  // release what it captured outside the lock
            lock.lock();
            if (returnAfterSourceHandled) {
                result = kCFRunLoopRunHandledSource;
                break;
            }
            continue;
        }
        // Nothing runnable: sleep until woken. Blocks posted without a wake-up wait here,
        // as they do on the real loop.
        loop->waiting = true;
        loop->idle.notify_all();
        const bool woken = loop->cv.wait_until(lock, deadline, [loop] { return loop->woken; });
        loop->waiting = false;
        if (!woken) {
            result = kCFRunLoopRunTimedOut;
            break;
        }
        loop->woken = false;
    }
    loop->modes.pop_back();
    --loop->depth;
    return result;
}

void CFRunLoopRun() {
    while (CFRunLoopRunInMode(kCFRunLoopDefaultMode, 1e10, false) != kCFRunLoopRunStopped) {
    }
}

namespace platform {

void run_loop_shutdown(CFRunLoopRef loop) {
    if (loop == nullptr) return;
    {
        std::lock_guard lock(loop->mutex);
        loop->shutDown = true;
        loop->woken = true;
    }
    loop->cv.notify_all();
}

bool run_loop_wait_idle(CFRunLoopRef loop, std::chrono::milliseconds timeout) {
    if (loop == nullptr) return false;
    std::unique_lock lock(loop->mutex);
    return loop->idle.wait_for(lock, timeout, [loop] {
        return loop->depth > 0 && loop->waiting && !has_runnable(*loop, loop->modes.back());
    });
}

void run_loop_reset(CFRunLoopRef loop) {
    if (loop == nullptr) return;
    std::deque<__CFRunLoop::Entry> dropped;
    {
        std::lock_guard lock(loop->mutex);
        dropped.swap(loop->queue);
        loop->woken = false;
        loop->stopPending = false;
        loop->shutDown = false;
    }
}

}  // namespace platform
