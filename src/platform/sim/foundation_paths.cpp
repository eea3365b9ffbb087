// Foundation stand-in, file-system part: the Library folders of the local and user
// domains, path joining and folder creation.
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>

#include <Foundation/NSPathUtilities.h>

#include "platform/sim/platform_root.h"

namespace {

std::string home_directory() {
    if (const char* home = std::getenv("HOME"); home != nullptr && *home != '\0') return home;
    // Without HOME the account database still knows the home folder, as it does on a Mac.
    passwd entry{};
    passwd* found = nullptr;
    char buffer[4096];
    if (getpwuid_r(getuid(), &entry, buffer, sizeof buffer, &found) == 0 && found != nullptr &&
        found->pw_dir != nullptr)
        return found->pw_dir;
    return "/";
}

bool is_directory(const std::string& path) {
    struct stat info {};
    return stat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode);
}

}  // namespace

std::vector<std::string> NSSearchPathForDirectoriesInDomains(NSSearchPathDirectory directory,
                                                             NSSearchPathDomainMask domains,
                                                             bool /*expandTilde*/) {
    std::vector<std::string> found;
    if (directory != NSLibraryDirectory) return found;
    // The order of the real call: user domain before local domain.
    if (domains & NSUserDomainMask)
        found.push_back(NSStringByAppendingPathComponent(home_directory(), "Library"));
    if (domains & NSLocalDomainMask) found.push_back(platform::path("Library"));
    return found;
}

std::string NSStringByAppendingPathComponent(const std::string& base,
                                             const std::string& component) {
    size_t skip = component.find_first_not_of('/');
    std::string tail = skip == std::string::npos ? std::string() : component.substr(skip);
    if (base.empty()) return tail;
    std::string out = base;
    while (out.size() > 1 && out.back() == '/') out.pop_back();
    if (tail.empty()) return out;
    if (out.back() != '/') out += '/';
    out += tail;
    return out;
}

bool NSFileManager::createDirectoryAtPath(const std::string& path,
                                          bool withIntermediateDirectories) {
    if (path.empty()) return false;
    if (!withIntermediateDirectories) return mkdir(path.c_str(), 0777) == 0 || is_directory(path);
    // Create each missing ancestor in turn; one that exists as a file ends the walk.
    for (size_t slash = path.find('/', 1);; slash = path.find('/', slash + 1)) {
        std::string prefix = path.substr(0, slash);
        if (mkdir(prefix.c_str(), 0777) != 0 && errno != EEXIST) return false;
        if (slash == std::string::npos) break;
    }
    return is_directory(path);
}
