// AppKit stand-in, image part: an image is only its size here, which is what a drag shows.
#pragma once

#include <Foundation/NSGeometry.h>
#include <Foundation/NSObject.h>

class NSImage : public NSObject {
  public:
    explicit NSImage(NSSize size) : m_size(size) {}  // initWithSize:
    NSSize size() const { return m_size; }
    void setSize(NSSize size) { m_size = size; }

  private:
    NSSize m_size;
};
