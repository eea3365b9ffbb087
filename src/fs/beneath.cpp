// Resolution of names beneath a folder descriptor: the kernel's own where it has one
// (platform::sys_open_beneath), a walk of one component at a time where it does not.
#include "fs/beneath.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <string_view>

#include "platform/seams/syscalls.h"

namespace qvx {
namespace {

// The kernel answers EAGAIN when a rename or mount elsewhere raced its lookup; after a few
// tries the walk, which does not care, takes over.
constexpr int kRetries = 8;

bool has_dot_dot(std::string_view name) {
    size_t start = 0;
    for (;;) {
        const size_t slash = name.find('/', start);
        if (name.substr(start, slash - start) == "..") return true;
        if (slash == std::string_view::npos) return false;
        start = slash + 1;
    }
}

// After O_NOFOLLOW refused or mis-typed `name`: ELOOP when it is a link, so that callers
// see one errno for "a link was in the way" on both paths.
int link_or(int dirFd, const char* name, int error) {
    struct stat st {};
    if (platform::sys_fstatat(dirFd, name, &st, AT_SYMLINK_NOFOLLOW) == 0 && S_ISLNK(st.st_mode))
        return ELOOP;
    return error;
}

int walk_beneath(int dirFd, std::string_view name, int flags, mode_t mode) {
    UniqueFd held;  // the folder reached so far, once past dirFd
    int current = dirFd;
    std::string component;
    size_t start = 0;
    for (;;) {
        const size_t slash = name.find('/', start);
        const bool last = slash == std::string_view::npos;
        component.assign(name.substr(start, last ? std::string_view::npos : slash - start));
        start = slash + 1;
        if (!last && (component.empty() || component == ".")) continue;
        const int fd =
            last ? platform::sys_openat(current, component.c_str(), flags | O_NOFOLLOW | O_CLOEXEC,
                                        mode)
                 : platform::sys_openat(current, component.c_str(),
                                        platform::kOpenPath | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
        if (fd == -1) {
            const int error = errno;
            errno = (error == ENOTDIR || error == ELOOP)
                        ? link_or(current, component.c_str(), error)
                        : error;
            return -1;
        }
        if (last) {
            // O_PATH with O_NOFOLLOW opens a final link itself instead of refusing it.
            struct stat st {};
            if ((flags & platform::kOpenPath) && platform::sys_fstat(fd, &st) == 0 &&
                S_ISLNK(st.st_mode)) {
                UniqueFd drop(fd);
                errno = ELOOP;
                return -1;
            }
            return fd;
        }
        held.reset(fd);
        current = fd;
    }
}

}  // namespace

UniqueFd& UniqueFd::operator=(UniqueFd&& other) noexcept {
    if (this != &other) reset(std::exchange(other.m_fd, -1));
    return *this;
}

void UniqueFd::reset(int fd) {
    if (m_fd != -1) {
        const int error = errno;
        platform::sys_close(m_fd);
        errno = error;
    }
    m_fd = fd;
}

int open_beneath(int dirFd, const char* name, int flags, mode_t mode) {
    const std::string_view view(name);
    if (view.empty()) {
        errno = ENOENT;
        return -1;
    }
    // RESOLVE_BENEATH would let "a/../b" through; nothing we open needs "..", so both
    // paths refuse it outright, as they refuse an absolute name.
    if (view.front() == '/' || has_dot_dot(view)) {
        errno = EXDEV;
        return -1;
    }
    for (int attempt = 0; attempt < kRetries; ++attempt) {
        const int fd = platform::sys_open_beneath(dirFd, name, flags, mode);
        if (fd != -1) return fd;
        if (errno != EAGAIN) {
            if (errno != ENOSYS) return -1;
            break;
        }
    }
    return walk_beneath(dirFd, view, flags, mode);
}

}  // namespace qvx
