// The members of the real system-call table that each system answers its own way:
// syscalls_linux.cpp and syscalls_darwin.cpp define them, syscalls.cpp puts them in the table.
#pragma once

#include "platform/seams/syscalls.h"

namespace platform {

// fcntl and ioctl with the macOS requests of syscalls.h and <sys/disk.h>.
int system_fcntl(int fd, int command, int argument);
int system_ioctl(int fd, unsigned long request, void* argument);
// ENOSYS where the system has no such call; callers have a fallback.
int system_statx(int dirFd, const char* name, int flags, unsigned mask, struct statx* sx);
int system_openat2(int dirFd, const char* name, struct open_how* how, size_t size);
int system_fchmodat(int dirFd, const char* name, mode_t mode, int flags);
// The extended-attribute calls with Linux's signatures; the path forms follow links.
ssize_t system_getxattr(const char* path, const char* name, void* value, size_t size);
int system_setxattr(const char* path, const char* name, const void* value, size_t size, int flags);
int system_removexattr(const char* path, const char* name);
ssize_t system_listxattr(const char* path, char* list, size_t size);
ssize_t system_fgetxattr(int fd, const char* name, void* value, size_t size);
int system_fsetxattr(int fd, const char* name, const void* value, size_t size, int flags);
int system_fremovexattr(int fd, const char* name);
ssize_t system_flistxattr(int fd, char* list, size_t size);
// The renames that never lose an item, and the flush of a file's data to the device.
int system_rename_noreplace(int fromDirFd, const char* from, int toDirFd, const char* to);
int system_rename_exchange(int fromDirFd, const char* from, int toDirFd, const char* to);
int system_fdatasync(int fd);

}  // namespace platform
