// The entry point, the launch by the application delegate, the stop signals and the stop
// sequence.
#include "app/startup.h"

#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <mutex>
#include <new>

#include <CoreFoundation/CFRunLoop.h>
#include <CoreServices/CoreServices.h>
#include <Foundation/NSProcessInfo.h>

#include "app/control_loop.h"
#include "app/dnd_pool.h"
#include "channel/communicator.h"
#include "channel/toolgate.h"
#include "common/signal_block.h"
#include "log/log.h"
#include "ui/overlay.h"

namespace qvx {

CommonMacCommunicator* g_communicator = nullptr;
DnDPool* g_pool = nullptr;
pthread_t g_controlThread{};

namespace {

constexpr const char* kTag = "DNDTOOL";
constexpr const char* kComponent = "qvxdragdrop";
constexpr uint32_t kLastUnsupportedVersion = 0x0A05FF;  // 10.5.x; 10.6.0 is the first

std::atomic<uint32_t> g_osVersion{0};
bool g_controlThreadRunning = false;  // main thread only

// How often the stop sequence repeats its SIGINT until the control thread has ended.
constexpr std::chrono::milliseconds kInterruptRepeat{100};
std::mutex g_controlEndMutex;
std::condition_variable g_controlEnd;
bool g_controlEnded = false;  // guarded by g_controlEndMutex

void* control_thread_main(void* arg) {
    ControlThread(arg);
    {
        std::lock_guard lock(g_controlEndMutex);
        g_controlEnded = true;
    }
    g_controlEnd.notify_all();
    return nullptr;
}

constexpr StartupOps kRealStartupOps{::pipe2, pthread_create};
const StartupOps* g_startupOps = &kRealStartupOps;

// The stop signals reach the main run loop through a pipe and a relay thread: posting a
// block allocates and takes the run loop's lock, and creating a thread does too, none of
// which a signal handler may do (malloc or a lock held by the interrupted code would
// deadlock). The handler only writes one byte; the relay posts one stop block per byte.
int g_signalPipe[2] = {-1, -1};
pthread_t g_relayThread{};
bool g_relayRunning = false;

void on_stop_signal(int) {
    const int saved = errno;
    const char byte = 1;
    // Non-blocking: with the pipe full a stop is already queued many times over.
    const ssize_t written = ::write(g_signalPipe[1], &byte, 1);
    (void)written;
    errno = saved;
}

void* relay_thread(void*) {
    char byte;
    for (;;) {
        const ssize_t n = ::read(g_signalPipe[0], &byte, 1);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return nullptr;  // write end closed: the tool is leaving
        // In the common modes, unlike the drag blocks: a drag the tool's view runs keeps
        // the main thread in event tracking until the pointer is released, and a stop must
        // not wait for a release that only the host can make.
        CFRunLoopRef main = CFRunLoopGetMain();
        CFRunLoopPerformBlock(main, kCFRunLoopCommonModes, [] { stop_sequence(); });
        CFRunLoopWakeUp(main);
    }
}

// Without the pipe or the relay thread a stop signal could only kill the tool, without
// 257 and without the unregistration, leaving the host with a tool it believes alive.
// Rather than run like that the tool does not start: it has not registered yet, so the
// host's view stays right, and a failure this early (no descriptor or thread to spare in
// a fresh process) would most likely fail the launch too. The exit status is 1 so that
// whoever started the tool can tell and try again.
bool install_stop_signals() {
    if (g_startupOps->pipe2(g_signalPipe, O_CLOEXEC) != 0) {
        log_message(kTag, kComponent, 0,
                    "Can't create the stop signal pipe (errno %d); DnD tool not started", errno);
        g_signalPipe[0] = g_signalPipe[1] = -1;
        return false;
    }
    ::fcntl(g_signalPipe[1], F_SETFL, ::fcntl(g_signalPipe[1], F_GETFL) | O_NONBLOCK);
    int rc;
    {
        // The relay must never take a stop signal itself: it is the one that would have to
        // pass it on.
        const ScopedSignalBlock block({SIGINT, SIGTERM});
        rc = g_startupOps->createThread(&g_relayThread, nullptr, relay_thread, nullptr);
    }
    if (rc != 0) {
        log_message(kTag, kComponent, 0,
                    "Can't create the stop signal relay thread (%d); DnD tool not started", rc);
        ::close(g_signalPipe[0]);
        ::close(g_signalPipe[1]);
        g_signalPipe[0] = g_signalPipe[1] = -1;
        return false;
    }
    g_relayRunning = true;
    std::signal(SIGINT, on_stop_signal);
    std::signal(SIGTERM, on_stop_signal);
    // The main thread is where process-wide stop signals land (every other thread of the
    // tool blocks them), even when whoever started the tool left them blocked.
    sigset_t stopSignals;
    sigemptyset(&stopSignals);
    sigaddset(&stopSignals, SIGINT);
    sigaddset(&stopSignals, SIGTERM);
    pthread_sigmask(SIG_UNBLOCK, &stopSignals, nullptr);
    return true;
}

void remove_stop_signals() {
    // Ignored from here on, so that a late signal neither writes into a closed (or reused)
    // descriptor nor turns the exit status into a signal death.
    std::signal(SIGINT, SIG_IGN);
    std::signal(SIGTERM, SIG_IGN);
    if (!g_relayRunning) return;
    ::close(g_signalPipe[1]);
    pthread_join(g_relayThread, nullptr);
    ::close(g_signalPipe[0]);
    g_signalPipe[0] = g_signalPipe[1] = -1;
    g_relayRunning = false;
}

void delete_communicator() {
    g_communicator->Close();
    delete g_communicator;
    g_communicator = nullptr;
}

uint32_t query_os_version() {
    NSInteger major = 0, minor = 0, patch = 0;
    bool known = false;
    const SEL selector = sel_registerName("operatingSystemVersion");
    // operatingSystemVersion appeared late; asked through an invocation so that the same
    // code runs on systems whose NSProcessInfo lacks it.
    if (NSProcessInfo::instancesRespondToSelector(selector)) {
        NSProcessInfo* info = NSProcessInfo::processInfo();
        const NSMethodSignature* signature =
            info ? info->methodSignatureForSelector(selector) : nullptr;
        auto invocation = NSInvocation::invocationWithMethodSignature(signature);
        if (info && signature && invocation) {
            invocation->setTarget(info);
            invocation->setSelector(selector);
            invocation->invoke();
            if (signature->methodReturnLength() == 24) {
                NSOperatingSystemVersion v{};
                invocation->getReturnValue(&v);
                major = v.majorVersion;
                minor = v.minorVersion;
                patch = v.patchVersion;
                known = true;
            }
        }
    }
    if (!known) {
        SInt32 sys1 = 0, sys2 = 0, sys3 = 0;
        Gestalt(gestaltSystemVersionMajor, &sys1);
        Gestalt(gestaltSystemVersionMinor, &sys2);
        Gestalt(gestaltSystemVersionBugFix, &sys3);
        major = sys1;
        minor = sys2;
        patch = sys3;
    }
    // Unsigned arithmetic: minor and patch are deliberately not masked to 8 bits.
    return static_cast<uint32_t>(major) << 16 | static_cast<uint32_t>(minor) << 8 |
           static_cast<uint32_t>(patch);
}

}  // namespace

void set_startup_ops(const StartupOps* ops) {
    g_startupOps = ops ? ops : &kRealStartupOps;
}

uint32_t os_version() {
    uint32_t v = g_osVersion.load();
    if (v == 0) {
        v = query_os_version();
        g_osVersion.store(v);
    }
    return v;
}

bool toolgate_present() {
    return find_toolgate().step == ToolgateStep::Done;
}

void AppDelegate::applicationWillFinishLaunching(NSNotification*) {
    g_communicator = new (std::nothrow) CommonMacCommunicator();
    if (g_communicator == nullptr) {
        log_message(kTag, kComponent, 0, "Can't create CommonMacCommunicator");
    } else if (!init_global_mutex()) {
        log_message(kTag, kComponent, 0, "Can't create mutex");
        delete_communicator();
    } else if ((g_pool = new (std::nothrow) DnDPool(g_communicator, SendDnDCommand)) == nullptr) {
        log_message(kTag, kComponent, 0, "Can't create DnD thread pool");
        destroy_global_mutex();
        delete_communicator();
    } else {
        bool started = false;
        if (!g_pool->Init()) {
            log_message(kTag, kComponent, 0, "Can't init DnD thread pool");
        } else {
            // Before the control thread, whose first command may already be a drag.
            g_dragPool = g_pool;
            g_controlEnded = false;
            int rc;
            {
                // SIGINT stays open: the stop sequence ends the thread's wait with it. A
                // SIGTERM for the process goes to the main thread.
                const ScopedSignalBlock block({SIGTERM});
                rc = g_startupOps->createThread(&g_controlThread, nullptr, control_thread_main,
                                                g_communicator);
            }
            if (rc != 0)
                log_message(kTag, kComponent, 0, "Can't create control thread");
            else
                started = true;
        }
        if (started) {
            g_controlThreadRunning = true;
            return;
        }
        g_dragPool = nullptr;
        g_pool->Destroy();
        delete g_pool;
        g_pool = nullptr;
        destroy_global_mutex();
        delete_communicator();
    }
    NSApplication::sharedApplication()->terminate(nullptr);
}

void stop_sequence() {
    // A second stop block only runs if terminate did not end the loop; it finds the
    // objects gone and must not join or free them again.
    if (!g_controlThreadRunning) return;
    const bool verbose = log_verbosity() > 0;
    if (verbose) log_message(kTag, kComponent, 1, "Stop DnD Tool");
    g_stopFlag.store(true);
    // Ends the wait for the host's answer to a poll (held until the host has a command) or
    // the one-second sleep after a failed one. A SIGINT that lands just before the thread
    // starts to wait is spent on nothing, so it is repeated until the thread has ended;
    // the loop blocks it while a handler runs (whose waits see the flag) and once it has
    // left, so that none cuts short a handler's exchange, the 257 or the unregistration.
    // The same handler runs on the control thread and queues further stop blocks behind
    // this one, which never run.
    {
        std::unique_lock lock(g_controlEndMutex);
        do {
            pthread_kill(g_controlThread, SIGINT);
        } while (!g_controlEnd.wait_for(lock, kInterruptRepeat, [] { return g_controlEnded; }));
    }
    pthread_join(g_controlThread, nullptr);
    g_controlThreadRunning = false;
    if (verbose) log_message(kTag, kComponent, 1, "Stop DnD Tool [ctrl thread stop]");
    // After the control thread, which starts send jobs; receive jobs start on this thread.
    g_pool->Stop();
    if (verbose) log_message(kTag, kComponent, 1, "Stop DnD Tool [DnDPool stop]");
    destroy_global_mutex();
    // Last, so that no thread can still be using the connection.
    delete_communicator();
    if (verbose) log_message(kTag, kComponent, 1, "Stop DnD Tool [communicator deleted]");
    NSApplication::sharedApplication()->terminate(nullptr);
}

int dragdrop_main() {
    if (os_version() <= kLastUnsupportedVersion) {
        if (log_verbosity() > 0)
            log_message(kTag, kComponent, 1, "DnD requires Mac OS X 10.6 or later");
        return 0;
    }
    if (!toolgate_present()) {
        log_message(kTag, kComponent, 0, "No toolgate");
        return 0;
    }
    if (!install_stop_signals()) return 1;

    NSApplication* app = NSApplication::sharedApplication();
    AppDelegate delegate;
    app->setDelegate(&delegate);
    // terminate ends the run loop and run returns here (the Mac's terminate: would exit
    // the process instead); the process then exits with status 0.
    app->run();
    app->setDelegate(nullptr);
    remove_stop_signals();
    return 0;
}

}  // namespace qvx
