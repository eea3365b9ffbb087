// The Linux calls of the system-call table: openat2 and fchmodat2 through syscall(2), the
// macOS file-control and disk requests translated (platform/sim/disk.h).
#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <cstdio>

#include "platform/seams/syscalls_system.h"
#include "platform/sim/disk.h"

namespace platform {

int system_fcntl(int fd, int command, int argument) {
    return disk_fcntl(fd, command, argument);
}
int system_ioctl(int fd, unsigned long request, void* argument) {
    return disk_ioctl(fd, request, argument);
}

int system_statx(int dirFd, const char* name, int flags, unsigned mask, struct statx* sx) {
    return ::statx(dirFd, name, flags, mask, sx);
}

// glibc has no wrapper for openat2.
int system_openat2(int dirFd, const char* name, struct open_how* how, size_t size) {
    return static_cast<int>(::syscall(SYS_openat2, dirFd, name, how, size));
}

// glibc's fchmodat refuses AT_EMPTY_PATH; the kernel's fchmodat2 (Linux 6.6) takes it.
#ifndef SYS_fchmodat2
#define SYS_fchmodat2 452
#endif
int system_fchmodat(int dirFd, const char* name, mode_t mode, int flags) {
    if (flags & AT_EMPTY_PATH)
        return static_cast<int>(::syscall(SYS_fchmodat2, dirFd, name, mode, flags));
    return ::fchmodat(dirFd, name, mode, flags);
}

ssize_t system_getxattr(const char* path, const char* name, void* value, size_t size) {
    return ::getxattr(path, name, value, size);
}
int system_setxattr(const char* path, const char* name, const void* value, size_t size, int flags) {
    return ::setxattr(path, name, value, size, flags);
}
int system_removexattr(const char* path, const char* name) {
    return ::removexattr(path, name);
}
ssize_t system_listxattr(const char* path, char* list, size_t size) {
    return ::listxattr(path, list, size);
}
ssize_t system_fgetxattr(int fd, const char* name, void* value, size_t size) {
    return ::fgetxattr(fd, name, value, size);
}
int system_fsetxattr(int fd, const char* name, const void* value, size_t size, int flags) {
    return ::fsetxattr(fd, name, value, size, flags);
}
int system_fremovexattr(int fd, const char* name) {
    return ::fremovexattr(fd, name);
}
ssize_t system_flistxattr(int fd, char* list, size_t size) {
    return ::flistxattr(fd, list, size);
}

int system_rename_noreplace(int fromDirFd, const char* from, int toDirFd, const char* to) {
    return ::renameat2(fromDirFd, from, toDirFd, to, RENAME_NOREPLACE);
}
int system_rename_exchange(int fromDirFd, const char* from, int toDirFd, const char* to) {
    return ::renameat2(fromDirFd, from, toDirFd, to, RENAME_EXCHANGE);
}
int system_fdatasync(int fd) {
    return ::fdatasync(fd);
}

int sys_open_beneath(int dirFd, const char* name, int flags, mode_t mode) {
    open_how how{};
    how.flags = static_cast<uint64_t>(flags | O_CLOEXEC);
    // openat2 refuses a mode that nothing creates with; O_TMPFILE includes O_DIRECTORY.
    how.mode = ((flags & O_CREAT) || (flags & O_TMPFILE) == O_TMPFILE) ? mode : 0;
    how.resolve = RESOLVE_BENEATH | RESOLVE_NO_SYMLINKS | RESOLVE_NO_MAGICLINKS;
    return sys_openat2(dirFd, name, &how, sizeof how);
}

}  // namespace platform
