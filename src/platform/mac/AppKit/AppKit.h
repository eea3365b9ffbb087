// AppKit stand-in: the shared application with its delegate and run loop, and the screens.
#pragma once

#include <atomic>
#include <memory>
#include <vector>

#include <objc/objc.h>

typedef double CGFloat;

struct NSPoint {
    CGFloat x = 0;
    CGFloat y = 0;
};
struct NSSize {
    CGFloat width = 0;
    CGFloat height = 0;
};
struct NSRect {
    NSPoint origin;
    NSSize size;
};
inline NSRect NSMakeRect(CGFloat x, CGFloat y, CGFloat w, CGFloat h) {
    return NSRect{{x, y}, {w, h}};
}

class NSNotification;

class NSApplicationDelegate {
  public:
    virtual ~NSApplicationDelegate() = default;
    // Sent on the main thread by run, before the run loop starts.
    virtual void applicationWillFinishLaunching(NSNotification* notification) = 0;
};

class NSApplication {
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
    void terminate(void* sender);
    bool isRunning() const { return m_running.load(); }

    NSApplication(const NSApplication&) = delete;
    NSApplication& operator=(const NSApplication&) = delete;

  private:
    NSApplication() = default;
    NSApplicationDelegate* m_delegate = nullptr;
    std::atomic<bool> m_running{false};
    std::atomic<bool> m_terminated{false};
};

// A snapshot of one screen; the desktop's "screens" request replaces the set.
class NSScreen {
  public:
    static std::vector<std::shared_ptr<NSScreen>> screens();
    // The first screen (the one with the menu bar); null when there is none.
    static std::shared_ptr<NSScreen> mainScreen();

    NSRect frame() const { return m_frame; }
    // Only "backingScaleFactor" depends on the screen: a screen without a scale does not
    // answer it.
    bool respondsToSelector(SEL selector) const;
    // 1.0 on a screen that does not answer it.
    CGFloat backingScaleFactor() const { return m_hasScale ? m_scale : 1.0; }

    NSScreen(NSRect frame, bool hasScale, CGFloat scale)
        : m_frame(frame), m_hasScale(hasScale), m_scale(scale) {}

  private:
    NSRect m_frame;
    bool m_hasScale;
    CGFloat m_scale;
};
