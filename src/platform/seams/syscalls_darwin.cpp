// The macOS calls of the system-call table: file-control and disk requests are the
// system's own, the Linux-only calls report ENOSYS and the attribute calls translate.
#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

#include "platform/seams/syscalls_system.h"

namespace platform {

int system_fcntl(int fd, int command, int argument) {
    return ::fcntl(fd, command, argument);
}
int system_ioctl(int fd, unsigned long request, void* argument) {
    return ::ioctl(fd, request, argument);
}

int system_statx(int, const char*, int, unsigned, struct statx*) {
    errno = ENOSYS;
    return -1;
}
int system_openat2(int, const char*, struct open_how*, size_t) {
    errno = ENOSYS;
    return -1;
}
int system_fchmodat(int dirFd, const char* name, mode_t mode, int flags) {
    return ::fchmodat(dirFd, name, mode, flags);
}

namespace {
// Linux's XATTR_CREATE (1) and XATTR_REPLACE (2) in macOS's numbering.
int xattr_options(int linuxFlags) {
    return ((linuxFlags & 1) ? XATTR_CREATE : 0) | ((linuxFlags & 2) ? XATTR_REPLACE : 0);
}
}  // namespace

ssize_t system_getxattr(const char* path, const char* name, void* value, size_t size) {
    return ::getxattr(path, name, value, size, 0, 0);
}
int system_setxattr(const char* path, const char* name, const void* value, size_t size, int flags) {
    return ::setxattr(path, name, value, size, 0, xattr_options(flags));
}
int system_removexattr(const char* path, const char* name) {
    return ::removexattr(path, name, 0);
}
ssize_t system_listxattr(const char* path, char* list, size_t size) {
    return ::listxattr(path, list, size, 0);
}
ssize_t system_fgetxattr(int fd, const char* name, void* value, size_t size) {
    return ::fgetxattr(fd, name, value, size, 0, 0);
}
int system_fsetxattr(int fd, const char* name, const void* value, size_t size, int flags) {
    return ::fsetxattr(fd, name, value, size, 0, xattr_options(flags));
}
int system_fremovexattr(int fd, const char* name) {
    return ::fremovexattr(fd, name, 0);
}
ssize_t system_flistxattr(int fd, char* list, size_t size) {
    return ::flistxattr(fd, list, size, 0);
}

int system_rename_noreplace(int fromDirFd, const char* from, int toDirFd, const char* to) {
    return ::renameatx_np(fromDirFd, from, toDirFd, to, RENAME_EXCL);
}
int system_rename_exchange(int fromDirFd, const char* from, int toDirFd, const char* to) {
    return ::renameatx_np(fromDirFd, from, toDirFd, to, RENAME_SWAP);
}
// macOS's fsync leaves the data in the drive's cache; F_FULLFSYNC flushes that too, on the
// file systems that can (others get the plain fsync).
int system_fdatasync(int fd) {
    if (::fcntl(fd, F_FULLFSYNC) == 0) return 0;
    return ::fsync(fd);
}

// O_NOFOLLOW_ANY (macOS 11) refuses a link in any component, the last one included.
int sys_open_beneath(int dirFd, const char* name, int flags, mode_t mode) {
    return sys_openat(dirFd, name, flags | O_NOFOLLOW_ANY | O_CLOEXEC, mode);
}

}  // namespace platform
