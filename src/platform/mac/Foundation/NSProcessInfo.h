// Foundation stand-in, process part: NSProcessInfo's operating system version and the
// NSInvocation machinery through which the tool calls it only where it exists.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

#include <Foundation/NSObjCRuntime.h>
#include <Foundation/NSObject.h>
#include <objc/objc.h>

struct NSOperatingSystemVersion {
    NSInteger majorVersion;
    NSInteger minorVersion;
    NSInteger patchVersion;
};

class NSMethodSignature {
  public:
    explicit NSMethodSignature(NSUInteger returnLength) : m_returnLength(returnLength) {}
    NSUInteger methodReturnLength() const { return m_returnLength; }

  private:
    NSUInteger m_returnLength;
};

class NSProcessInfo : public NSObject {
  public:
    // Whether instances answer `selector`; "operatingSystemVersion" only when
    // platform.json's "process_info_version" is not false (older systems lack it).
    static bool instancesRespondToSelector(SEL selector);
    static NSProcessInfo* processInfo();
    // Null for a selector the class does not answer. Owned by the class.
    const NSMethodSignature* methodSignatureForSelector(SEL selector) const;
    // From platform.json's "os_version" ("major.minor.patch").
    NSOperatingSystemVersion operatingSystemVersion() const;

    bool performSelector(SEL selector, void* returnValue, size_t size) override;
};

class NSInvocation {
  public:
    // Null when `signature` is null.
    static std::unique_ptr<NSInvocation> invocationWithMethodSignature(
        const NSMethodSignature* signature);
    void setTarget(NSObject* target) { m_target = target; }
    void setSelector(SEL selector) { m_selector = selector; }
    void invoke();
    // Copies methodReturnLength bytes of the last invoke's result (zeros before one).
    void getReturnValue(void* buffer) const;

    explicit NSInvocation(const NSMethodSignature* signature);

  private:
    const NSMethodSignature* m_signature;
    NSObject* m_target = nullptr;
    SEL m_selector = nullptr;
    alignas(8) unsigned char m_return[64] = {};
};
