// The common part of every CoreFoundation object of the stand-in: its reference count,
// its type and how it compares.
#pragma once

#include <atomic>

#include <CoreFoundation/CFBase.h>

namespace platform {

inline constexpr CFTypeID kCFStringTypeID = 7;
inline constexpr CFTypeID kCFArrayTypeID = 19;
inline constexpr CFTypeID kCFNumberTypeID = 22;

// Every CFTypeRef handed out points at one of these (the first and only base of each
// object type, so the addresses agree).
struct CFObject {
    explicit CFObject(CFTypeID type) : typeID(type) {}
    virtual ~CFObject() = default;
    CFObject(const CFObject&) = delete;
    CFObject& operator=(const CFObject&) = delete;
    // Called only with an object of the same type.
    virtual bool Equals(const CFObject& other) const { return this == &other; }

    mutable std::atomic<long> refs{1};
    const CFTypeID typeID;
};

inline const CFObject* cf_object(CFTypeRef cf) {
    return static_cast<const CFObject*>(cf);
}

}  // namespace platform
