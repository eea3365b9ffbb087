// AppKit stand-in, screen part: snapshots of the desktop's screens.
#pragma once

#include <memory>
#include <vector>

#include <Foundation/NSGeometry.h>
#include <Foundation/NSObject.h>

// A snapshot of one screen; the desktop's "screens" request replaces the set.
class NSScreen : public NSObject {
  public:
    static std::vector<std::shared_ptr<NSScreen>> screens();
    // The first screen (the one with the menu bar); null when there is none.
    static std::shared_ptr<NSScreen> mainScreen();

    NSRect frame() const { return m_frame; }
    // Only "backingScaleFactor" depends on the screen: a screen without a scale does not
    // answer it.
    bool respondsToSelector(SEL selector) const override;
    // 1.0 on a screen that does not answer it.
    CGFloat backingScaleFactor() const { return m_hasScale ? m_scale : 1.0; }

    NSScreen(NSRect frame, bool hasScale, CGFloat scale)
        : m_frame(frame), m_hasScale(hasScale), m_scale(scale) {}

  private:
    NSRect m_frame;
    bool m_hasScale;
    CGFloat m_scale;
};
