// Start-up and shutdown: the entry point's checks, the application delegate that creates
// the shared objects, the signal relay and the stop sequence.
#pragma once

#include <pthread.h>

#include <cstdint>

#include <AppKit/AppKit.h>

namespace qvx {

class CommonMacCommunicator;
class DnDPool;

// The process-wide objects, owned by the launch and stop sequence.
extern CommonMacCommunicator* g_communicator;
extern DnDPool* g_pool;
extern pthread_t g_controlThread;

// major << 16 | minor << 8 | patch, computed on first use and cached.
uint32_t os_version();
// Whether an IOKit service of class "QvxPCIToolGate" exists; logs nothing.
bool toolgate_present();

class AppDelegate : public NSApplicationDelegate {
  public:
    // Creates communicator, global mutex, pool, pool lock and control thread in that
    // order; on a failure releases what it made in reverse order and terminates.
    void applicationWillFinishLaunching(NSNotification* notification) override;
};

// Runs on the main thread from the run loop: stops the control thread, then the jobs,
// releases the shared objects and terminates the application.
void stop_sequence();

// The entry point: 0 after a stop and on an old system or without the toolgate; 1 when the
// stop signals could not be set up (logged), in which case nothing was started.
int dragdrop_main();

// Tests only: the calls that make the stop signals' pipe, and the threads of the start (the
// signal relay, then the control thread).
struct StartupOps {
    int (*pipe2)(int fds[2], int flags);
    int (*createThread)(pthread_t* thread, const pthread_attr_t* attr, void* (*start)(void*),
                        void* arg);
};
// Installs replacements; nullptr restores the real calls.
void set_startup_ops(const StartupOps* ops);

}  // namespace qvx
