// AppKit stand-in, window part: windows of this process on the desktop's window server.
#pragma once

#include <string>
#include <vector>

#include <AppKit/NSResponder.h>
#include <Foundation/NSGeometry.h>
#include <Foundation/NSObjCRuntime.h>
#include <objc/objc.h>

class NSView;

typedef NSUInteger NSWindowStyleMask;
inline constexpr NSWindowStyleMask NSWindowStyleMaskBorderless = 0;
inline constexpr NSWindowStyleMask NSWindowStyleMaskTitled = 1 << 0;
inline constexpr NSWindowStyleMask NSWindowStyleMaskClosable = 1 << 1;
inline constexpr NSWindowStyleMask NSWindowStyleMaskMiniaturizable = 1 << 2;
inline constexpr NSWindowStyleMask NSWindowStyleMaskResizable = 1 << 3;

enum NSBackingStoreType : NSUInteger {
    NSBackingStoreRetained = 0,
    NSBackingStoreNonretained = 1,
    NSBackingStoreBuffered = 2,
};

typedef NSInteger NSWindowLevel;
inline constexpr NSWindowLevel NSNormalWindowLevel = 0;

// Every call belongs on the main thread. Each show, move or hide re-evaluates the
// destination of a drag in progress.
class NSWindow : public NSResponder {
  public:
    // initWithContentRect:styleMask:backing:defer:. Without a title bar the frame is the
    // content rectangle. The window server gives the window its number at once (a
    // deferred window too, unlike the Mac); the window starts off screen.
    NSWindow(NSRect contentRect, NSWindowStyleMask style, NSBackingStoreType backingStoreType,
             BOOL flag);
    ~NSWindow() override;
    NSWindow(const NSWindow&) = delete;
    NSWindow& operator=(const NSWindow&) = delete;

    // The window owns its content view and resizes it with the frame.
    void setContentView(NSView* view);
    NSView* contentView() const { return m_contentView; }
    // The window server learns the content view's dragged types through this.
    void draggedTypesChanged();

    NSInteger windowNumber() const { return m_number; }
    NSWindowStyleMask styleMask() const { return m_styleMask; }
    NSBackingStoreType backingType() const { return m_backing; }
    NSRect frame() const { return m_frame; }
    void setFrame(NSRect frameRect, BOOL flag);  // setFrame:display:
    void setLevel(NSWindowLevel level);
    NSWindowLevel level() const { return m_level; }
    void setAlphaValue(CGFloat value);
    CGFloat alphaValue() const { return m_alpha; }
    void setHasShadow(BOOL hasShadow);
    BOOL hasShadow() const { return m_hasShadow; }
    // As on the Mac, a fully transparent window lets the pointer through unless it was
    // told outright not to ignore mouse events.
    void setIgnoresMouseEvents(BOOL flag);
    BOOL ignoresMouseEvents() const { return m_ignoresMouseEvents; }

    void makeKeyAndOrderFront(id sender);
    void orderFront(id sender);
    void orderBack(id sender);
    void orderOut(id sender);
    BOOL isVisible() const { return m_visible; }
    void display();
    NSUInteger displayCount() const { return m_displayCount; }
    // Tests only: the ordering and display calls made, by selector name, in order.
    const std::vector<std::string>& calls() const { return m_calls; }

  private:
    void publish();

    NSInteger m_number = 0;
    NSView* m_contentView = nullptr;
    NSRect m_frame;
    NSWindowStyleMask m_styleMask;
    NSBackingStoreType m_backing;
    NSWindowLevel m_level = NSNormalWindowLevel;
    CGFloat m_alpha = 1.0;
    BOOL m_hasShadow = YES;
    BOOL m_ignoresMouseEvents = NO;
    BOOL m_mouseEventsSet = NO;
    BOOL m_visible = NO;
    NSUInteger m_displayCount = 0;
    std::vector<std::string> m_calls;
};
