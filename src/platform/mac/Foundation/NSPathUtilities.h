// Foundation stand-in, file-system part: standard folders and folder creation.
#pragma once

#include <string>
#include <vector>

enum NSSearchPathDirectory : unsigned long { NSLibraryDirectory = 5 };
enum NSSearchPathDomainMask : unsigned long { NSUserDomainMask = 1, NSLocalDomainMask = 2 };

// The local domain's Library is <root>/Library (never created here); the user domain's
// is $HOME/Library. `expandTilde` is accepted for the shape of the call; the paths
// returned never hold a tilde.
std::vector<std::string> NSSearchPathForDirectoriesInDomains(NSSearchPathDirectory directory,
                                                             NSSearchPathDomainMask domains,
                                                             bool expandTilde);

// -[NSString stringByAppendingPathComponent:]
std::string NSStringByAppendingPathComponent(const std::string& base, const std::string& component);

// Scope of an autorelease pool; here only the shape of the real code.
struct NSAutoreleasePool {
    NSAutoreleasePool() = default;
    NSAutoreleasePool(const NSAutoreleasePool&) = delete;
    NSAutoreleasePool& operator=(const NSAutoreleasePool&) = delete;
};

class NSFileManager {
  public:
    // -createDirectoryAtPath:withIntermediateDirectories:attributes:error: without
    // attributes; true when the folder exists afterwards.
    bool createDirectoryAtPath(const std::string& path, bool withIntermediateDirectories);
};
