// NSProcessInfo, NSMethodSignature and NSInvocation for the version query, and selectors.
#include <Foundation/NSProcessInfo.h>

#include <cstdlib>
#include <cstring>
#include <mutex>
#include <set>
#include <string>

#include "platform/sim/os_version.h"
#include "platform/sim/platform_root.h"

SEL sel_registerName(const char* name) {
    // Interned for the life of the process: equal names give the same pointer.
    static std::mutex mutex;
    static auto* names = new std::set<std::string>;
    std::lock_guard lock(mutex);
    const std::string& interned = *names->insert(name ? name : "").first;
    return reinterpret_cast<SEL>(interned.c_str());
}

const char* sel_getName(SEL selector) {
    return reinterpret_cast<const char*>(selector);
}

namespace platform {

NSOperatingSystemVersion os_version_parts() {
    NSOperatingSystemVersion v{0, 0, 0};
    const std::string& text = config().osVersion;
    const char* p = text.c_str();
    NSInteger* parts[] = {&v.majorVersion, &v.minorVersion, &v.patchVersion};
    for (NSInteger* part : parts) {
        char* end = nullptr;
        *part = std::strtol(p, &end, 10);
        if (end == p || *end != '.') break;
        p = end + 1;
    }
    return v;
}

}  // namespace platform

namespace {

SEL version_selector() {
    return sel_registerName("operatingSystemVersion");
}

}  // namespace

bool NSProcessInfo::instancesRespondToSelector(SEL selector) {
    return selector == version_selector() && platform::config().processInfoVersion;
}

NSProcessInfo* NSProcessInfo::processInfo() {
    static NSProcessInfo info;
    return &info;
}

const NSMethodSignature* NSProcessInfo::methodSignatureForSelector(SEL selector) const {
    static const NSMethodSignature versionSignature(sizeof(NSOperatingSystemVersion));
    return instancesRespondToSelector(selector) ? &versionSignature : nullptr;
}

NSOperatingSystemVersion NSProcessInfo::operatingSystemVersion() const {
    return platform::os_version_parts();
}

bool NSProcessInfo::performSelector(SEL selector, void* returnValue, size_t size) {
    if (!instancesRespondToSelector(selector)) return false;
    const NSOperatingSystemVersion v = operatingSystemVersion();
    std::memcpy(returnValue, &v, size < sizeof v ? size : sizeof v);
    return true;
}

NSInvocation::NSInvocation(const NSMethodSignature* signature) : m_signature(signature) {}

std::unique_ptr<NSInvocation> NSInvocation::invocationWithMethodSignature(
    const NSMethodSignature* signature) {
    if (signature == nullptr || signature->methodReturnLength() > sizeof m_return) return nullptr;
    return std::make_unique<NSInvocation>(signature);
}

void NSInvocation::invoke() {
    if (m_target != nullptr)
        m_target->performSelector(m_selector, m_return, m_signature->methodReturnLength());
}

void NSInvocation::getReturnValue(void* buffer) const {
    std::memcpy(buffer, m_return, m_signature->methodReturnLength());
}
