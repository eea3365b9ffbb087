// Opening names beneath a folder descriptor so that no name, link or racing rename can
// lead outside it, and a descriptor holder that closes what it holds.
#pragma once

#include <sys/types.h>

#include <utility>

namespace qvx {

// Owns one descriptor (or none, -1) and closes it through the system-call seam.
class UniqueFd {
  public:
    UniqueFd() = default;
    explicit UniqueFd(int fd) : m_fd(fd) {}
    UniqueFd(UniqueFd&& other) noexcept : m_fd(std::exchange(other.m_fd, -1)) {}
    UniqueFd& operator=(UniqueFd&& other) noexcept;
    UniqueFd(const UniqueFd&) = delete;
    UniqueFd& operator=(const UniqueFd&) = delete;
    ~UniqueFd() { reset(); }

    int get() const { return m_fd; }
    explicit operator bool() const { return m_fd != -1; }
    // Closes what is held (keeping errno) and holds `fd` instead.
    void reset(int fd = -1);

  private:
    int m_fd = -1;
};

// Opens `name`, a path relative to the folder `dirFd` ("a/b/c": no leading slash, no
// empty component), with open's `flags` and `mode`, looking each component up inside the
// folder before it. Nothing is followed: a symbolic or magic link anywhere on the way, the
// last component included, fails with ELOOP, and a ".." component with EXDEV, so the
// result always lies beneath `dirFd`. Uses the kernel's resolution beneath a folder
// (platform::sys_open_beneath); where the kernel lacks it (ENOSYS) or keeps asking to
// retry, walks one component at a time with O_NOFOLLOW | O_DIRECTORY.
// O_CLOEXEC is always added. The descriptor, or -1 with errno.
int open_beneath(int dirFd, const char* name, int flags, mode_t mode = 0);

}  // namespace qvx
