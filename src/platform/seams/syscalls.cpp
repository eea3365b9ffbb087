// The real system-call table, the replaceable pointer to it, and the fault injector. The
// calls that differ between Linux and macOS come from syscalls_<system>.cpp.
#include "platform/seams/syscalls.h"

#include <fcntl.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdlib>

#include "platform/seams/syscalls_system.h"

namespace platform {
namespace {

// Wrappers where the libc call is variadic, overloaded or a macro, so each member has
// one plain signature.
int real_open(const char* path, int flags, mode_t mode) {
    return ::open(path, flags, mode);
}
int real_openat(int dirFd, const char* name, int flags, mode_t mode) {
    return ::openat(dirFd, name, flags, mode);
}
int real_stat(const char* path, struct stat* st) {
    return ::stat(path, st);
}
int real_lstat(const char* path, struct stat* st) {
    return ::lstat(path, st);
}
int real_fstat(int fd, struct stat* st) {
    return ::fstat(fd, st);
}
int real_fstatat(int dirFd, const char* name, struct stat* st, int flags) {
    return ::fstatat(dirFd, name, st, flags);
}
void* real_valloc(size_t size) {
    // A page-aligned block, as valloc gives, from the non-obsolete call; free releases it.
    void* block = nullptr;
    const long page = ::sysconf(_SC_PAGESIZE);
    if (::posix_memalign(&block, page > 0 ? static_cast<size_t>(page) : 4096, size) != 0)
        return nullptr;
    return block;
}
void real_free(void* block) {
    std::free(block);
}

int real_fstatvfs(int fd, struct statvfs* st) {
    return ::fstatvfs(fd, st);
}

// Designated, so that a call added to the table cannot shift its neighbours.
constexpr SyscallTable kReal{
    .open = real_open,
    .close = ::close,
    .read = ::read,
    .write = ::write,
    .pread = ::pread,
    .pwrite = ::pwrite,
    .lseek = ::lseek,
    .ftruncate = ::ftruncate,
    .fstat = real_fstat,
    .stat = real_stat,
    .lstat = real_lstat,
    .unlink = ::unlink,
    .rename = ::rename,
    .mkdir = ::mkdir,
    .rmdir = ::rmdir,
    .fchmod = ::fchmod,
    .fcntl = system_fcntl,
    .ioctl = system_ioctl,
    .openat = real_openat,
    .unlinkat = ::unlinkat,
    .fstatat = real_fstatat,
    .fstatvfs = real_fstatvfs,
    .fdopendir = ::fdopendir,
    .opendir = ::opendir,
    .readdir = ::readdir,
    .closedir = ::closedir,
    .valloc = real_valloc,
    .free = real_free,
    .statx = system_statx,
    .utimensat = ::utimensat,
    .fchmodat = system_fchmodat,
    .getxattr = system_getxattr,
    .setxattr = system_setxattr,
    .removexattr = system_removexattr,
    .listxattr = system_listxattr,
    .fgetxattr = system_fgetxattr,
    .fsetxattr = system_fsetxattr,
    .fremovexattr = system_fremovexattr,
    .flistxattr = system_flistxattr,
    .readlinkat = ::readlinkat,
    .openat2 = system_openat2,
    .mkdirat = ::mkdirat,
    .symlinkat = ::symlinkat,
    .rename_noreplace = system_rename_noreplace,
    .rename_exchange = system_rename_exchange,
    .fdatasync = system_fdatasync,
};

std::atomic<const SyscallTable*> g_table{&kReal};

constexpr size_t kKinds = static_cast<size_t>(Sys::kCount);
std::atomic<uint64_t> g_counts[kKinds];
std::atomic<uint64_t> g_faultNth{0};  // 0: no fault armed
std::atomic<Sys> g_faultKind{Sys::any};
std::atomic<int> g_faultError{0};
std::atomic<bool> g_faultPersistent{false};
std::atomic<bool> g_faultFired{false};
std::atomic<size_t> g_shortCap{0};

const SyscallTable& table() {
    return *g_table.load(std::memory_order_acquire);
}

// Counts the call and decides whether the armed fault fires on it (then errno is set).
bool fires(Sys kind) {
    const uint64_t all = g_counts[0].fetch_add(1) + 1;
    const uint64_t mine = g_counts[static_cast<size_t>(kind)].fetch_add(1) + 1;
    const uint64_t nth = g_faultNth.load(std::memory_order_acquire);
    if (nth == 0) return false;
    const Sys target = g_faultKind.load();
    const uint64_t n = target == Sys::any ? all : (target == kind ? mine : 0);
    if (n == 0 || n < nth || (n > nth && !g_faultPersistent.load())) return false;
    g_faultFired = true;
    errno = g_faultError.load();
    return true;
}

size_t capped(size_t length) {
    const size_t cap = g_shortCap.load();
    return cap == 0 ? length : std::min(length, cap);
}

}  // namespace

const SyscallTable* set_syscalls(const SyscallTable* replacement) {
    return g_table.exchange(replacement ? replacement : &kReal, std::memory_order_acq_rel);
}
const SyscallTable* real_syscalls() {
    return &kReal;
}

void fault_inject(Sys kind, uint64_t nth, int error, bool persistent) {
    g_faultNth.store(0);
    fault_reset_counts();
    g_faultKind = kind;
    g_faultError = error;
    g_faultPersistent = persistent;
    g_faultFired = false;
    g_faultNth.store(nth, std::memory_order_release);
}

void fault_clear() {
    g_faultNth.store(0);
    g_shortCap = 0;
}

bool fault_fired() {
    return g_faultFired.load();
}

uint64_t fault_calls(Sys kind) {
    return g_counts[static_cast<size_t>(kind)].load();
}

void fault_reset_counts() {
    for (auto& count : g_counts) count.store(0);
}

void fault_short_io(size_t maxBytes) {
    g_shortCap = maxBytes;
}

int sys_open(const char* path, int flags, mode_t mode) {
    return fires(Sys::open) ? -1 : table().open(path, flags, mode);
}
int sys_close(int fd) {
    if (fires(Sys::close)) {
        const int error = errno;
        table().close(fd);
        errno = error;
        return -1;
    }
    return table().close(fd);
}
ssize_t sys_read(int fd, void* buffer, size_t length) {
    return fires(Sys::read) ? -1 : table().read(fd, buffer, capped(length));
}
ssize_t sys_write(int fd, const void* buffer, size_t length) {
    return fires(Sys::write) ? -1 : table().write(fd, buffer, capped(length));
}
ssize_t sys_pread(int fd, void* buffer, size_t length, off_t offset) {
    return fires(Sys::pread) ? -1 : table().pread(fd, buffer, capped(length), offset);
}
ssize_t sys_pwrite(int fd, const void* buffer, size_t length, off_t offset) {
    return fires(Sys::pwrite) ? -1 : table().pwrite(fd, buffer, capped(length), offset);
}
off_t sys_lseek(int fd, off_t offset, int whence) {
    return fires(Sys::lseek) ? -1 : table().lseek(fd, offset, whence);
}
int sys_ftruncate(int fd, off_t length) {
    return fires(Sys::ftruncate) ? -1 : table().ftruncate(fd, length);
}
int sys_fstat(int fd, struct stat* st) {
    return fires(Sys::fstat) ? -1 : table().fstat(fd, st);
}
int sys_stat(const char* path, struct stat* st) {
    return fires(Sys::stat) ? -1 : table().stat(path, st);
}
int sys_lstat(const char* path, struct stat* st) {
    return fires(Sys::lstat) ? -1 : table().lstat(path, st);
}
int sys_unlink(const char* path) {
    return fires(Sys::unlink) ? -1 : table().unlink(path);
}
int sys_rename(const char* from, const char* to) {
    return fires(Sys::rename) ? -1 : table().rename(from, to);
}
int sys_mkdir(const char* path, mode_t mode) {
    return fires(Sys::mkdir) ? -1 : table().mkdir(path, mode);
}
int sys_rmdir(const char* path) {
    return fires(Sys::rmdir) ? -1 : table().rmdir(path);
}
int sys_fchmod(int fd, mode_t mode) {
    return fires(Sys::fchmod) ? -1 : table().fchmod(fd, mode);
}
int sys_fcntl(int fd, int command, int argument) {
    return fires(Sys::fcntl) ? -1 : table().fcntl(fd, command, argument);
}
int sys_ioctl(int fd, unsigned long request, void* argument) {
    return fires(Sys::ioctl) ? -1 : table().ioctl(fd, request, argument);
}
int sys_openat(int dirFd, const char* name, int flags, mode_t mode) {
    return fires(Sys::openat) ? -1 : table().openat(dirFd, name, flags, mode);
}
int sys_unlinkat(int dirFd, const char* name, int flags) {
    return fires(Sys::unlinkat) ? -1 : table().unlinkat(dirFd, name, flags);
}
int sys_fstatat(int dirFd, const char* name, struct stat* st, int flags) {
    return fires(Sys::fstatat) ? -1 : table().fstatat(dirFd, name, st, flags);
}
int sys_fstatvfs(int fd, struct statvfs* st) {
    return fires(Sys::fstatvfs) ? -1 : table().fstatvfs(fd, st);
}
DIR* sys_fdopendir(int fd) {
    return fires(Sys::fdopendir) ? nullptr : table().fdopendir(fd);
}
DIR* sys_opendir(const char* path) {
    return fires(Sys::opendir) ? nullptr : table().opendir(path);
}
struct dirent* sys_readdir(DIR* dir) {
    return fires(Sys::readdir) ? nullptr : table().readdir(dir);
}
int sys_closedir(DIR* dir) {
    if (fires(Sys::closedir)) {
        const int error = errno;
        table().closedir(dir);
        errno = error;
        return -1;
    }
    return table().closedir(dir);
}
void* sys_valloc(size_t size) {
    return fires(Sys::valloc) ? nullptr : table().valloc(size);
}
// Releasing memory cannot fail, so it is neither counted nor faulted.
void sys_free(void* block) {
    table().free(block);
}

int sys_statx(int dirFd, const char* name, int flags, unsigned mask, struct statx* sx) {
    return fires(Sys::statx) ? -1 : table().statx(dirFd, name, flags, mask, sx);
}
int sys_utimensat(int dirFd, const char* name, const struct timespec times[2], int flags) {
    return fires(Sys::utimensat) ? -1 : table().utimensat(dirFd, name, times, flags);
}
int sys_fchmodat(int dirFd, const char* name, mode_t mode, int flags) {
    return fires(Sys::fchmodat) ? -1 : table().fchmodat(dirFd, name, mode, flags);
}
ssize_t sys_getxattr(const char* path, const char* name, void* value, size_t size) {
    return fires(Sys::getxattr) ? -1 : table().getxattr(path, name, value, size);
}
int sys_setxattr(const char* path, const char* name, const void* value, size_t size, int flags) {
    return fires(Sys::setxattr) ? -1 : table().setxattr(path, name, value, size, flags);
}
int sys_removexattr(const char* path, const char* name) {
    return fires(Sys::removexattr) ? -1 : table().removexattr(path, name);
}
ssize_t sys_listxattr(const char* path, char* list, size_t size) {
    return fires(Sys::listxattr) ? -1 : table().listxattr(path, list, size);
}
ssize_t sys_fgetxattr(int fd, const char* name, void* value, size_t size) {
    return fires(Sys::fgetxattr) ? -1 : table().fgetxattr(fd, name, value, size);
}
int sys_fsetxattr(int fd, const char* name, const void* value, size_t size, int flags) {
    return fires(Sys::fsetxattr) ? -1 : table().fsetxattr(fd, name, value, size, flags);
}
int sys_fremovexattr(int fd, const char* name) {
    return fires(Sys::fremovexattr) ? -1 : table().fremovexattr(fd, name);
}
ssize_t sys_flistxattr(int fd, char* list, size_t size) {
    return fires(Sys::flistxattr) ? -1 : table().flistxattr(fd, list, size);
}
ssize_t sys_readlinkat(int dirFd, const char* name, char* buffer, size_t size) {
    return fires(Sys::readlinkat) ? -1 : table().readlinkat(dirFd, name, buffer, size);
}
int sys_openat2(int dirFd, const char* name, struct open_how* how, size_t size) {
    return fires(Sys::openat2) ? -1 : table().openat2(dirFd, name, how, size);
}
int sys_mkdirat(int dirFd, const char* name, mode_t mode) {
    return fires(Sys::mkdirat) ? -1 : table().mkdirat(dirFd, name, mode);
}
int sys_symlinkat(const char* target, int dirFd, const char* name) {
    return fires(Sys::symlinkat) ? -1 : table().symlinkat(target, dirFd, name);
}
int sys_rename_noreplace(int fromDirFd, const char* from, int toDirFd, const char* to) {
    return fires(Sys::rename_noreplace) ? -1
                                        : table().rename_noreplace(fromDirFd, from, toDirFd, to);
}
int sys_rename_exchange(int fromDirFd, const char* from, int toDirFd, const char* to) {
    return fires(Sys::rename_exchange) ? -1 : table().rename_exchange(fromDirFd, from, toDirFd, to);
}
int sys_fdatasync(int fd) {
    return fires(Sys::fdatasync) ? -1 : table().fdatasync(fd);
}

}  // namespace platform
