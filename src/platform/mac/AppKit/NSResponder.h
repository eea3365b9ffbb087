// AppKit stand-in, responder part: the pointer messages that windows and views receive.
#pragma once

#include <Foundation/NSObject.h>

class NSEvent;

class NSResponder : public NSObject {
  public:
    // Sent on the main thread by the desktop's event routing; the default ignores them.
    virtual void mouseDown(NSEvent* event) { (void)event; }
    virtual void mouseDragged(NSEvent* event) { (void)event; }
    virtual void mouseUp(NSEvent* event) { (void)event; }
};
