// NSPasteboard with its type names, and the Foundation objects it holds: NSArray, NSURL.
#include <AppKit/NSPasteboard.h>
#include <Foundation/NSArray.h>
#include <Foundation/NSURL.h>

#include <map>
#include <mutex>

#include "platform/sim/cf_text.h"

namespace {

// Made once and never released, like the constant strings of the real framework.
CFStringRef constant(const char* name) {
    return platform::make_cfstring(name);
}

}  // namespace

const NSPasteboardType NSFilenamesPboardType = constant(platform::kFilenamesType);
const NSPasteboardType NSStringPboardType = constant(platform::kStringType);
const NSPasteboardType NSColorPboardType = constant(platform::kColorType);
const NSPasteboardType NSFilesPromisePboardType = constant(platform::kFilesPromiseType);
const CFStringRef NSDragPboard = constant("NSDragPboard");

std::shared_ptr<NSArray> NSArray::array() {
    return std::make_shared<NSArray>(std::vector<CFTypeRef>{});
}

std::shared_ptr<NSArray> NSArray::arrayWithObjects(std::initializer_list<CFTypeRef> objects) {
    return arrayWithArray(std::vector<CFTypeRef>(objects));
}

std::shared_ptr<NSArray> NSArray::arrayWithArray(const std::vector<CFTypeRef>& objects) {
    return std::make_shared<NSArray>(objects);
}

NSArray::NSArray(const std::vector<CFTypeRef>& objects) {
    for (CFTypeRef o : objects)
        if (o) m_objects.push_back(CFRetain(o));
}

NSArray::~NSArray() {
    for (CFTypeRef o : m_objects) CFRelease(o);
}

CFTypeRef NSArray::objectAtIndex(NSUInteger index) const {
    return index < m_objects.size() ? m_objects[index] : nullptr;
}

std::shared_ptr<NSURL> NSURL::fileURLWithPath(CFStringRef path, BOOL isDirectory) {
    if (!path) return nullptr;
    return std::make_shared<NSURL>(path, isDirectory);
}

NSURL::NSURL(CFStringRef path, BOOL isDirectory)
    : m_path(static_cast<CFStringRef>(CFRetain(path))), m_directory(isDirectory) {}

NSURL::~NSURL() {
    CFRelease(m_path);
}

std::shared_ptr<NSPasteboard> NSPasteboard::pasteboardWithName(CFStringRef name) {
    static std::mutex mutex;
    static auto* boards = new std::map<std::string, std::shared_ptr<NSPasteboard>>;
    std::lock_guard lock(mutex);
    auto& board = (*boards)[platform::utf8_of(name)];
    if (!board) board = std::make_shared<NSPasteboard>();
    return board;
}

NSPasteboard::~NSPasteboard() {
    clear();
}

void NSPasteboard::clear() {
    for (auto& item : m_items) CFRelease(item.string);
    m_items.clear();
}

NSPasteboard::Item* NSPasteboard::find(NSPasteboardType type) {
    const std::string name = platform::utf8_of(type);
    for (auto& item : m_items)
        if (item.type == name) return &item;
    return nullptr;
}

const NSPasteboard::Item* NSPasteboard::find(NSPasteboardType type) const {
    return const_cast<NSPasteboard*>(this)->find(type);
}

NSInteger NSPasteboard::declareTypes(NSArray* newTypes, id) {
    clear();
    for (NSUInteger i = 0; newTypes && i < newTypes->count(); ++i)
        m_items.push_back(
            Item{platform::utf8_of(static_cast<CFStringRef>(newTypes->objectAtIndex(i))), {}, {}});
    return ++m_changeCount;
}

std::shared_ptr<NSArray> NSPasteboard::types() const {
    std::vector<CFTypeRef> made;
    for (const auto& item : m_items)
        if (CFStringRef s = platform::make_cfstring(item.type)) made.push_back(s);
    auto out = NSArray::arrayWithArray(made);
    for (CFTypeRef s : made) CFRelease(s);
    return out;
}

BOOL NSPasteboard::setPropertyList(std::shared_ptr<NSArray> plist, NSPasteboardType dataType) {
    Item* item = find(dataType);
    if (!item) return NO;
    item->plist = std::move(plist);
    return YES;
}

std::shared_ptr<NSArray> NSPasteboard::propertyListForType(NSPasteboardType dataType) const {
    const Item* item = find(dataType);
    return item ? item->plist : nullptr;
}

BOOL NSPasteboard::setString(CFStringRef string, NSPasteboardType dataType) {
    Item* item = find(dataType);
    if (!item || !string) return NO;
    CFRelease(item->string);
    item->string = static_cast<CFStringRef>(CFRetain(string));
    return YES;
}

CFStringRef NSPasteboard::stringForType(NSPasteboardType dataType) const {
    const Item* item = find(dataType);
    return item ? item->string : nullptr;
}
