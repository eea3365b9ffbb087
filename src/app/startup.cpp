// The entry point, the launch by the application delegate, the stop signals and the stop
// sequence.
#include "app/startup.h"

#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <new>

#include <CoreFoundation/CFRunLoop.h>
#include <CoreServices/CoreServices.h>
#include <Foundation/NSProcessInfo.h>
#include <IOKit/IOKitLib.h>

#include "app/control_loop.h"
#include "app/dnd_pool.h"
#include "channel/communicator.h"
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
        CFRunLoopRef main = CFRunLoopGetMain();
        CFRunLoopPerformBlock(main, kCFRunLoopDefaultMode, [] { stop_sequence(); });
        CFRunLoopWakeUp(main);
    }
}

bool install_stop_signals() {
    if (::pipe2(g_signalPipe, O_CLOEXEC) != 0) return false;
    ::fcntl(g_signalPipe[1], F_SETFL, ::fcntl(g_signalPipe[1], F_GETFL) | O_NONBLOCK);
    if (pthread_create(&g_relayThread, nullptr, relay_thread, nullptr) != 0) {
        ::close(g_signalPipe[0]);
        ::close(g_signalPipe[1]);
        g_signalPipe[0] = g_signalPipe[1] = -1;
        return false;
    }
    g_relayRunning = true;
    std::signal(SIGINT, on_stop_signal);
    std::signal(SIGTERM, on_stop_signal);
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

uint32_t os_version() {
    uint32_t v = g_osVersion.load();
    if (v == 0) {
        v = query_os_version();
        g_osVersion.store(v);
    }
    return v;
}

bool toolgate_present() {
    mach_port_t master = 0;
    if (IOMasterPort(MACH_PORT_NULL, &master) != KERN_SUCCESS) return false;
    CFMutableDictionaryRef matching = IOServiceMatching("QvxPCIToolGate");
    if (matching == nullptr) return false;
    io_iterator_t iterator = 0;
    if (IOServiceGetMatchingServices(master, matching, &iterator) != KERN_SUCCESS) return false;
    const io_service_t service = IOIteratorNext(iterator);
    IOObjectRelease(iterator);
    if (service == 0) return false;
    IOObjectRelease(service);
    return true;
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
        } else if (pthread_create(&g_controlThread, nullptr, ControlThread, g_communicator) != 0) {
            log_message(kTag, kComponent, 0, "Can't create control thread");
        } else {
            started = true;
        }
        if (started) {
            g_controlThreadRunning = true;
            g_dragPool = g_pool;
            return;
        }
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
    // Cuts short the one-second sleep after a failed poll. The same handler runs on the
    // control thread and queues a second stop block behind this one, which never runs.
    pthread_kill(g_controlThread, SIGINT);
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
    install_stop_signals();

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
