// AppKit stand-in, pasteboard part: the drag pasteboard and its types.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include <CoreFoundation/CFString.h>
#include <Foundation/NSArray.h>
#include <Foundation/NSObjCRuntime.h>
#include <Foundation/NSObject.h>

// Type names are NSStrings, i.e. CFStrings.
typedef CFStringRef NSPasteboardType;
extern const NSPasteboardType NSFilenamesPboardType;     // property list: array of paths
extern const NSPasteboardType NSStringPboardType;        // plain text
extern const NSPasteboardType NSColorPboardType;         // a colour
extern const NSPasteboardType NSFilesPromisePboardType;  // property list: promised types
// The name of the pasteboard that carries the drag in progress.
extern const CFStringRef NSDragPboard;

class NSPasteboard : public NSObject {
  public:
    // The one pasteboard of that name, made on first use and never released.
    static std::shared_ptr<NSPasteboard> pasteboardWithName(CFStringRef name);

    // Forgets the contents, declares the types in that order and returns the new change
    // count. The owner is not kept.
    NSInteger declareTypes(NSArray* newTypes, id newOwner);
    NSInteger changeCount() const { return m_changeCount; }
    std::shared_ptr<NSArray> types() const;
    // Only array property lists exist here. False for an undeclared type.
    BOOL setPropertyList(std::shared_ptr<NSArray> plist, NSPasteboardType dataType);
    // Null when the type was not declared or carries no property list.
    std::shared_ptr<NSArray> propertyListForType(NSPasteboardType dataType) const;
    BOOL setString(CFStringRef string, NSPasteboardType dataType);
    // Owned by the pasteboard until its contents change; null without such text.
    CFStringRef stringForType(NSPasteboardType dataType) const;

    NSPasteboard() = default;
    ~NSPasteboard() override;
    NSPasteboard(const NSPasteboard&) = delete;
    NSPasteboard& operator=(const NSPasteboard&) = delete;

  private:
    struct Item {
        std::string type;  // UTF-8 name
        std::shared_ptr<NSArray> plist;
        CFStringRef string = nullptr;
    };
    Item* find(NSPasteboardType type);
    const Item* find(NSPasteboardType type) const;
    void clear();

    std::vector<Item> m_items;
    NSInteger m_changeCount = 0;
};
