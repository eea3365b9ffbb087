// Foundation stand-in, URL part: file URLs, as the drag and drop system names folders.
#pragma once

#include <memory>

#include <CoreFoundation/CFString.h>
#include <Foundation/NSObject.h>

class NSURL : public NSObject {
  public:
    // Null for a null path. A relative path stays as given.
    static std::shared_ptr<NSURL> fileURLWithPath(CFStringRef path, BOOL isDirectory);

    // The file system path; owned by the URL.
    CFStringRef path() const { return m_path; }
    BOOL isFileURL() const { return YES; }
    BOOL hasDirectoryPath() const { return m_directory; }

    NSURL(CFStringRef path, BOOL isDirectory);
    ~NSURL() override;
    NSURL(const NSURL&) = delete;
    NSURL& operator=(const NSURL&) = delete;

  private:
    CFStringRef m_path;
    BOOL m_directory;
};
