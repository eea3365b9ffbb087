// The system-call seam for file access: one replaceable table of calls plus a fault injector.
#pragma once

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/types.h>

#include <cstddef>
#include <cstdint>

struct open_how;

// The macOS file-control requests that Linux's <fcntl.h> lacks; the real table translates
// them (platform/sim/disk.h). On a Mac they come from <fcntl.h>.
#ifndef F_RDAHEAD
#define F_RDAHEAD 45  // argument 1: read ahead, 0: don't
#endif
#ifndef F_NOCACHE
#define F_NOCACHE 48  // argument 1: bypass the buffer cache, 0: use it
#endif
#ifndef F_FULLFSYNC
#define F_FULLFSYNC 51  // flush the file down to the medium
#endif

namespace platform {

// Open flags for a descriptor that only names its object, for the *at calls and fstat:
// O_PATH where the system has it; macOS has none and opens the object for reading.
#ifdef O_PATH
inline constexpr int kOpenPath = O_PATH;
#else
inline constexpr int kOpenPath = O_RDONLY;
#endif

// Every call the file-access code makes. Tests install a copy with some members replaced;
// fcntl and ioctl understand the macOS requests above and those of <sys/disk.h>.
struct SyscallTable {
    int (*open)(const char* path, int flags, mode_t mode);
    int (*close)(int fd);
    ssize_t (*read)(int fd, void* buffer, size_t length);
    ssize_t (*write)(int fd, const void* buffer, size_t length);
    ssize_t (*pread)(int fd, void* buffer, size_t length, off_t offset);
    ssize_t (*pwrite)(int fd, const void* buffer, size_t length, off_t offset);
    off_t (*lseek)(int fd, off_t offset, int whence);
    int (*ftruncate)(int fd, off_t length);
    int (*fstat)(int fd, struct stat* st);
    int (*stat)(const char* path, struct stat* st);
    int (*lstat)(const char* path, struct stat* st);
    int (*unlink)(const char* path);
    int (*rename)(const char* from, const char* to);
    int (*mkdir)(const char* path, mode_t mode);
    int (*rmdir)(const char* path);
    int (*fchmod)(int fd, mode_t mode);
    int (*fcntl)(int fd, int command, int argument);
    int (*ioctl)(int fd, unsigned long request, void* argument);
    int (*openat)(int dirFd, const char* name, int flags, mode_t mode);
    int (*unlinkat)(int dirFd, const char* name, int flags);
    int (*fstatat)(int dirFd, const char* name, struct stat* st, int flags);
    int (*fstatvfs)(int fd, struct statvfs* st);
    DIR* (*fdopendir)(int fd);
    DIR* (*opendir)(const char* path);
    struct dirent* (*readdir)(DIR* dir);
    int (*closedir)(DIR* dir);
    void* (*valloc)(size_t size);
    void (*free)(void* block);
    int (*statx)(int dirFd, const char* name, int flags, unsigned mask, struct statx* sx);
    int (*utimensat)(int dirFd, const char* name, const struct timespec times[2], int flags);
    // AT_EMPTY_PATH changes the object `dirFd` names, an O_PATH descriptor too; EINVAL or
    // ENOSYS where the kernel cannot.
    int (*fchmodat)(int dirFd, const char* name, mode_t mode, int flags);
    ssize_t (*getxattr)(const char* path, const char* name, void* value, size_t size);
    int (*setxattr)(const char* path, const char* name, const void* value, size_t size, int flags);
    int (*removexattr)(const char* path, const char* name);
    ssize_t (*listxattr)(const char* path, char* list, size_t size);
    // The same on a descriptor opened for reading or writing (an O_PATH one gets EBADF).
    ssize_t (*fgetxattr)(int fd, const char* name, void* value, size_t size);
    int (*fsetxattr)(int fd, const char* name, const void* value, size_t size, int flags);
    int (*fremovexattr)(int fd, const char* name);
    ssize_t (*flistxattr)(int fd, char* list, size_t size);
    ssize_t (*readlinkat)(int dirFd, const char* name, char* buffer, size_t size);
    // openat2 takes the kernel's struct open_how; ENOSYS where the kernel lacks it.
    int (*openat2)(int dirFd, const char* name, struct open_how* how, size_t size);
    int (*mkdirat)(int dirFd, const char* name, mode_t mode);
    int (*symlinkat)(const char* target, int dirFd, const char* name);
    // Renames that never lose an item: the first fails with EEXIST when `to` exists, the
    // second swaps the two items, which must both exist. EINVAL where the file system
    // cannot.
    int (*rename_noreplace)(int fromDirFd, const char* from, int toDirFd, const char* to);
    int (*rename_exchange)(int fromDirFd, const char* from, int toDirFd, const char* to);
    // Writes the file's data, and what is needed to read it back, to the device.
    int (*fdatasync)(int fd);
};

// Installs a replacement (nullptr restores the real calls) and returns the previous table.
// The table must outlive its use.
const SyscallTable* set_syscalls(const SyscallTable* table);
const SyscallTable* real_syscalls();

// The kinds the injector counts; `any` counts every call.
enum class Sys : uint8_t {
    any,
    open,
    close,
    read,
    write,
    pread,
    pwrite,
    lseek,
    ftruncate,
    fstat,
    stat,
    lstat,
    unlink,
    rename,
    mkdir,
    rmdir,
    fchmod,
    fcntl,
    ioctl,
    openat,
    unlinkat,
    fstatat,
    fstatvfs,
    fdopendir,
    opendir,
    readdir,
    closedir,
    valloc,
    statx,
    utimensat,
    fchmodat,
    getxattr,
    setxattr,
    removexattr,
    listxattr,
    fgetxattr,
    fsetxattr,
    fremovexattr,
    flistxattr,
    readlinkat,
    openat2,
    mkdirat,
    symlinkat,
    rename_noreplace,
    rename_exchange,
    fdatasync,
    kCount
};

// Fails the nth call (1-based) of `kind`, counted from this call on, with `error`; with
// `persistent` every later call of that kind fails too. Arming resets the counters.
void fault_inject(Sys kind, uint64_t nth, int error, bool persistent = false);
// Disarms the fault and the short-count cap; counters keep running.
void fault_clear();
// True once the armed fault has fired at least once.
bool fault_fired();
// Calls of `kind` since the last arming or reset.
uint64_t fault_calls(Sys kind);
void fault_reset_counts();
// read, write, pread and pwrite move at most `maxBytes` per call (0 lifts the cap).
void fault_short_io(size_t maxBytes);

// The calls the file-access code makes in place of the POSIX ones. A failure returns what
// the real call returns on failure (-1 or null) with errno set. An injected close or
// closedir failure still releases the descriptor, as Linux does when close reports EINTR.
int sys_open(const char* path, int flags, mode_t mode = 0);
int sys_close(int fd);
ssize_t sys_read(int fd, void* buffer, size_t length);
ssize_t sys_write(int fd, const void* buffer, size_t length);
ssize_t sys_pread(int fd, void* buffer, size_t length, off_t offset);
ssize_t sys_pwrite(int fd, const void* buffer, size_t length, off_t offset);
off_t sys_lseek(int fd, off_t offset, int whence);
int sys_ftruncate(int fd, off_t length);
int sys_fstat(int fd, struct stat* st);
int sys_stat(const char* path, struct stat* st);
int sys_lstat(const char* path, struct stat* st);
int sys_unlink(const char* path);
int sys_rename(const char* from, const char* to);
int sys_mkdir(const char* path, mode_t mode);
int sys_rmdir(const char* path);
int sys_fchmod(int fd, mode_t mode);
int sys_fcntl(int fd, int command, int argument);
int sys_ioctl(int fd, unsigned long request, void* argument);
int sys_openat(int dirFd, const char* name, int flags, mode_t mode = 0);
int sys_unlinkat(int dirFd, const char* name, int flags);
int sys_fstatat(int dirFd, const char* name, struct stat* st, int flags);
int sys_fstatvfs(int fd, struct statvfs* st);
DIR* sys_fdopendir(int fd);
DIR* sys_opendir(const char* path);
struct dirent* sys_readdir(DIR* dir);
int sys_closedir(DIR* dir);
void* sys_valloc(size_t size);
void sys_free(void* block);
int sys_statx(int dirFd, const char* name, int flags, unsigned mask, struct statx* sx);
int sys_utimensat(int dirFd, const char* name, const struct timespec times[2], int flags);
int sys_fchmodat(int dirFd, const char* name, mode_t mode, int flags);
ssize_t sys_getxattr(const char* path, const char* name, void* value, size_t size);
int sys_setxattr(const char* path, const char* name, const void* value, size_t size, int flags);
int sys_removexattr(const char* path, const char* name);
ssize_t sys_listxattr(const char* path, char* list, size_t size);
ssize_t sys_fgetxattr(int fd, const char* name, void* value, size_t size);
int sys_fsetxattr(int fd, const char* name, const void* value, size_t size, int flags);
int sys_fremovexattr(int fd, const char* name);
ssize_t sys_flistxattr(int fd, char* list, size_t size);
ssize_t sys_readlinkat(int dirFd, const char* name, char* buffer, size_t size);
int sys_openat2(int dirFd, const char* name, struct open_how* how, size_t size);
int sys_mkdirat(int dirFd, const char* name, mode_t mode);
int sys_symlinkat(const char* target, int dirFd, const char* name);
int sys_rename_noreplace(int fromDirFd, const char* from, int toDirFd, const char* to);
int sys_rename_exchange(int fromDirFd, const char* from, int toDirFd, const char* to);
int sys_fdatasync(int fd);

// Opens `name` beneath `dirFd` in one call, the kernel refusing any link on the way (ELOOP)
// and any way out: openat2 with RESOLVE_BENEATH | RESOLVE_NO_SYMLINKS |
// RESOLVE_NO_MAGICLINKS on Linux, openat with O_NOFOLLOW_ANY on macOS. The name holds no
// ".." and no leading slash (the caller refuses those). ENOSYS where the kernel cannot,
// EAGAIN when a race elsewhere asks for another try. O_CLOEXEC is added.
int sys_open_beneath(int dirFd, const char* name, int flags, mode_t mode);

}  // namespace platform
