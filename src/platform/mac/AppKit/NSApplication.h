// AppKit stand-in, application part: the shared application with its delegate and run loop.
#pragma once

#include <atomic>

#include <AppKit/NSResponder.h>
#include <objc/objc.h>

class NSNotification;

class NSApplicationDelegate {
  public:
    virtual ~NSApplicationDelegate() = default;
    // Sent on the main thread by run, before the run loop starts.
    virtual void applicationWillFinishLaunching(NSNotification* notification) = 0;
};

class NSApplication : public NSResponder {
  public:
    // Creates the application on first call, and with it the headless desktop that
    // serves <root>/run/quorvex/desktop.
    static NSApplication* sharedApplication();
    // Not owned, as with the real (weak) delegate.
    void setDelegate(NSApplicationDelegate* delegate);
    NSApplicationDelegate* delegate() const { return m_delegate; }
    // Sends applicationWillFinishLaunching: and runs the main run loop in the default mode
    // until terminate. Unlike AppKit, where terminate: exits the process, here run then
    // returns so that the caller's clean-up and return value decide the exit status.
    void run();
    // Ends the main run loop for good (blocks still queued never run) and closes the
    // desktop, removing its socket. Safe from any thread and more than once.
    void terminate(id sender);
    bool isRunning() const { return m_running.load(); }

    NSApplication(const NSApplication&) = delete;
    NSApplication& operator=(const NSApplication&) = delete;

  private:
    NSApplication() = default;
    NSApplicationDelegate* m_delegate = nullptr;
    std::atomic<bool> m_running{false};
    std::atomic<bool> m_terminated{false};
};
