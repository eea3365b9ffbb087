// Foundation stand-in, array part: immutable arrays of CoreFoundation objects (NSString is
// CFString, toll-free bridged as on the Mac).
#pragma once

#include <initializer_list>
#include <memory>
#include <vector>

#include <CoreFoundation/CFBase.h>
#include <Foundation/NSObjCRuntime.h>
#include <Foundation/NSObject.h>

// Arrays are handed out as shared pointers (null is nil); each holds a reference to its
// objects for as long as it lives.
class NSArray : public NSObject {
  public:
    static std::shared_ptr<NSArray> array();
    // Null entries are left out, as nil ends the real argument list.
    static std::shared_ptr<NSArray> arrayWithObjects(std::initializer_list<CFTypeRef> objects);
    static std::shared_ptr<NSArray> arrayWithArray(const std::vector<CFTypeRef>& objects);

    NSUInteger count() const { return m_objects.size(); }
    // Null for an index outside the array (the real one raises). Valid while the array is.
    CFTypeRef objectAtIndex(NSUInteger index) const;

    explicit NSArray(const std::vector<CFTypeRef>& objects);
    ~NSArray() override;
    NSArray(const NSArray&) = delete;
    NSArray& operator=(const NSArray&) = delete;

  private:
    std::vector<CFTypeRef> m_objects;
};
