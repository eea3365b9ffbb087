// The shared application, its run and termination, and NSScreen over the desktop's screens.
#include <AppKit/AppKit.h>

#include <cstring>

#include <CoreFoundation/CFRunLoop.h>

#include "platform/sim/desktop.h"
#include "platform/sim/desktop_socket.h"
#include "platform/sim/run_loop.h"

NSApplication* NSApplication::sharedApplication() {
    // Never destroyed: the application lives as long as the process, as on the Mac.
    static NSApplication* const app = [] {
        platform::shared_desktop();
        return new NSApplication;
    }();
    return app;
}

void NSApplication::setDelegate(NSApplicationDelegate* delegate) {
    m_delegate = delegate;
}

void NSApplication::run() {
    m_running = true;
    if (m_delegate != nullptr && !m_terminated.load())
        m_delegate->applicationWillFinishLaunching(nullptr);
    while (!m_terminated.load()) CFRunLoopRunInMode(kCFRunLoopDefaultMode, 1e10, false);
    m_running = false;
}

void NSApplication::terminate(id) {
    m_terminated = true;
    platform::run_loop_shutdown(CFRunLoopGetMain());
    platform::stop_shared_desktop();
}

std::vector<std::shared_ptr<NSScreen>> NSScreen::screens() {
    std::vector<std::shared_ptr<NSScreen>> out;
    for (const auto& s : platform::current_screens())
        out.push_back(std::make_shared<NSScreen>(NSMakeRect(s.x, s.y, s.width, s.height),
                                                 s.scale.has_value(), s.scale.value_or(1.0)));
    return out;
}

std::shared_ptr<NSScreen> NSScreen::mainScreen() {
    auto all = screens();
    return all.empty() ? nullptr : all.front();
}

bool NSScreen::respondsToSelector(SEL selector) const {
    if (selector == sel_registerName("backingScaleFactor")) return m_hasScale;
    return selector == sel_registerName("frame");
}
