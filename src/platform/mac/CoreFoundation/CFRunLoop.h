// CoreFoundation run loop stand-in: the main run loop, its modes and posted blocks.
#pragma once

#include <cstdint>
#include <functional>

typedef const struct __CFString* CFStringRef;
typedef CFStringRef CFRunLoopMode;
typedef struct __CFRunLoop* CFRunLoopRef;
typedef double CFTimeInterval;

// A block posted in the default mode runs only while a loop runs in the default mode; a
// nested loop in the event-tracking mode (a drag in progress) leaves it waiting. Blocks
// posted in the common modes run in either.
extern const CFRunLoopMode kCFRunLoopDefaultMode;
extern const CFRunLoopMode kCFRunLoopCommonModes;
extern const CFRunLoopMode NSEventTrackingRunLoopMode;

enum : int32_t {
    kCFRunLoopRunFinished = 1,
    kCFRunLoopRunStopped = 2,
    kCFRunLoopRunTimedOut = 3,
    kCFRunLoopRunHandledSource = 4,
};

// The loop of the process's main thread (the thread that first ran any code of this
// library's static initialisation, i.e. the thread of main()).
CFRunLoopRef CFRunLoopGetMain();
// The main loop on the main thread; null elsewhere (other threads have no loop here).
CFRunLoopRef CFRunLoopGetCurrent();

// Queues a block; it runs, in posting order among blocks of its mode, on the loop's
// thread once the loop is woken. The call itself does not wake the loop.
void CFRunLoopPerformBlock(CFRunLoopRef loop, CFRunLoopMode mode, std::function<void()> block);
void CFRunLoopWakeUp(CFRunLoopRef loop);

// Runs the main loop in `mode` on the calling (main) thread until CFRunLoopStop, the
// time-out, or, with `returnAfterSourceHandled`, after one block.
int32_t CFRunLoopRunInMode(CFRunLoopMode mode, CFTimeInterval seconds,
                           bool returnAfterSourceHandled);
void CFRunLoopRun();
// Makes the innermost running invocation of the loop return; blocks still queued stay.
void CFRunLoopStop(CFRunLoopRef loop);
