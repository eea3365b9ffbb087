// What the simulated Mac does to the main run loop beyond CoreFoundation's calls.
#pragma once

#include <chrono>

#include <CoreFoundation/CFRunLoop.h>

namespace platform {

// The application's termination. Every running invocation of the loop returns and later
// ones return at once, so queued blocks are never run.
void run_loop_shutdown(CFRunLoopRef loop);
// Tests only: waits until the loop is running and sleeps with nothing to run in its
// current mode (so everything posted so far that can run has run); false when that did
// not happen within `timeout`.
bool run_loop_wait_idle(CFRunLoopRef loop, std::chrono::milliseconds timeout);
// Tests only: drops queued blocks and undoes a shutdown, so one process can run the loop
// again.
void run_loop_reset(CFRunLoopRef loop);

}  // namespace platform
