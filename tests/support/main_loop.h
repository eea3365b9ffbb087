// Running the main run loop in a test: the test's own steps go to a second thread while
// the main thread runs the loop, as the tool's control thread and main thread do.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <thread>

#include <CoreFoundation/CFRunLoop.h>

#include "platform/sim/run_loop.h"

namespace qvxtest {

// Waits until the main loop has run everything posted so far that its current mode can
// run (call it from the second thread).
inline void settle() {
    EXPECT_TRUE(platform::run_loop_wait_idle(CFRunLoopGetMain(), std::chrono::seconds(20)))
        << "the main run loop did not come to rest";
}

// Runs `steps` on a second thread while this thread, which must be the main thread, runs
// the main loop in the default mode; returns once `steps` returned and what it posted
// has run.
inline void with_main_loop(const std::function<void()>& steps) {
    std::thread second;
    CFRunLoopRef main = CFRunLoopGetMain();
    CFRunLoopPerformBlock(main, kCFRunLoopDefaultMode, [&] {
        second = std::thread([&] {
            steps();
            CFRunLoopPerformBlock(main, kCFRunLoopDefaultMode, [main] { CFRunLoopStop(main); });
            CFRunLoopWakeUp(main);
        });
    });
    CFRunLoopWakeUp(main);
    CFRunLoopRun();
    second.join();
}

}  // namespace qvxtest
