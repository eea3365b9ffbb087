// CHostFile and its positioned routines, on top of the system-call seam.
#include "fs/host_file.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "platform/seams/syscalls.h"

namespace qvx {
namespace {

constexpr const char* kTag = "";
constexpr const char* kComponent = "HostFile";

RateLimiter g_modeLimiter{5, 0xFFFFFFFF};

unsigned long long ull(uint64_t v) {
    return static_cast<unsigned long long>(v);
}

// A page-aligned bounce buffer for the vectored routines, counted for the caller; null
// with errno ENOMEM when memory is short.
uint8_t* alloc_bounce(uint64_t size, uint32_t* bounceCounter) {
    auto* bounce = static_cast<uint8_t*>(platform::sys_valloc(size));
    if (!bounce) {
        errno = ENOMEM;
        return nullptr;
    }
    if (bounceCounter) ++*bounceCounter;
    return bounce;
}

}  // namespace

RateLimiter& host_file_rate_limiter() {
    return g_modeLimiter;
}

bool CHostFile::open(const char* path, bool openExisting, bool readOnly, bool uncached,
                     uint32_t* result, bool worldWritable) {
    close();
    int flags = readOnly ? O_RDONLY : O_RDWR;
    if (!openExisting) flags |= O_CREAT | O_TRUNC;
    const int fd = platform::sys_open(path, flags, 0664);
    return opened(fd, path, openExisting, readOnly, uncached, result, worldWritable);
}

bool CHostFile::open_at(int dirFd, const char* name, bool openExisting, bool readOnly,
                        bool uncached, uint32_t* result, bool worldWritable) {
    close();
    int flags = (readOnly ? O_RDONLY : O_RDWR) | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC;
    // Creating takes a free name only: whatever lies there already - someone else's file,
    // a hard link to one elsewhere - is never truncated.
    if (!openExisting) flags |= O_CREAT | O_EXCL;
    // Non-blocking changes nothing for a regular file; a named pipe or a device neither
    // holds the open nor a read waiting for a writer or input.
    const int fd = platform::sys_openat(dirFd, name, flags, 0664);
    return opened(fd, name, openExisting, readOnly, uncached, result, worldWritable);
}

bool CHostFile::opened(int fd, const char* path, bool openExisting, bool readOnly, bool uncached,
                       uint32_t* result, bool worldWritable) {
    if (fd == -1) {
        result_from_errno(result);
        log_message(kTag, kComponent, 0, "CHostFile::open(%s) failed: %s", path, strerror(errno));
        return false;
    }
    // Cache advice only; a descriptor that can't take it (a pipe) still works. A descriptor
    // just opened is cached and reads ahead already, so only uncached needs telling: two
    // calls saved on every file a transfer opens.
    if (uncached) {
        platform::sys_fcntl(fd, F_NOCACHE, 1);
        platform::sys_fcntl(fd, F_RDAHEAD, 0);
    }
    if (!openExisting && worldWritable && platform::sys_fchmod(fd, 0666) != 0) {
        log_message(kTag, kComponent, 0,
                    "CHostFile::open(%s) failed to set the world-writable permission: %s", path,
                    strerror(errno));
        const int error = errno;
        platform::sys_close(fd);
        errno = error;
        return false;
    }
    m_fd = fd;
    m_readOnly = readOnly;
    m_uncached = uncached;
    return true;
}

void CHostFile::close() {
    if (m_fd == -1) return;
    // Linux releases the descriptor even when close reports an error, so it is not retried.
    platform::sys_close(m_fd);
    m_fd = -1;
}

bool CHostFile::flush() {
    return platform::sys_fcntl(m_fd, F_FULLFSYNC, 0) != -1;
}

uint64_t CHostFile::seek(uint64_t offset, uint8_t whence) {
    const off_t pos = platform::sys_lseek(m_fd, static_cast<off_t>(offset), whence);
    if (pos == -1) {
        log_message(kTag, kComponent, 0, "CHostFile::seek(%llu) failed: %s", ull(offset),
                    strerror(errno));
        return UINT64_MAX;
    }
    return static_cast<uint64_t>(pos);
}

bool CHostFile::resize(uint64_t length) {
    if (platform::sys_ftruncate(m_fd, static_cast<off_t>(length)) != 0) {
        log_message(kTag, kComponent, 0, "CHostFile::resize(%llu) failed: %s", ull(length),
                    strerror(errno));
        return false;
    }
    return true;
}

int32_t CHostFile::read_(void* buffer, uint32_t length) {
    const ssize_t r = platform::sys_read(m_fd, buffer, length);
    if (r < 0) {
        log_message(kTag, kComponent, 0, "CHostFile::read_(%p, %u) failed: %s", buffer, length,
                    strerror(errno));
    }
    return static_cast<int32_t>(r);
}

int32_t CHostFile::write_(void* buffer, uint32_t length) {
    const ssize_t r = platform::sys_write(m_fd, buffer, length);
    if (r < 0) {
        log_message(kTag, kComponent, 0, "CHostFile::write_(%p, %u) failed: %s", buffer, length,
                    strerror(errno));
    }
    return static_cast<int32_t>(r);
}

int64_t CHostFile::transfer_all(TransferOp op, void* buffer, uint64_t size) {
    auto* cursor = static_cast<uint8_t*>(buffer);
    uint64_t remaining = size;
    int64_t total = 0;
    while (remaining > 0) {
        const auto chunk = static_cast<uint32_t>(std::min<uint64_t>(remaining, kTransferSlice));
        const int32_t r = (this->*op)(cursor, chunk);
        if (r < 0) {
            if (errno == EINTR) continue;
            return r;
        }
        if (r == 0) break;  // end of file
        total += r;
        cursor += r;
        remaining -= static_cast<uint64_t>(r);
    }
    return total;
}

bool CHostFile::unlink(const char* path) {
    if (platform::sys_unlink(path) != 0) {
        log_message(kTag, kComponent, 0, "CHostFile::unlink(%s) failed: %s", path, strerror(errno));
        return false;
    }
    return true;
}

bool CHostFile::unlink_at(int dirFd, const char* name) {
    if (std::strchr(name, '/')) {
        errno = EINVAL;
    } else if (platform::sys_unlinkat(dirFd, name, 0) == 0) {
        return true;
    }
    log_message(kTag, kComponent, 0, "CHostFile::unlink(%s) failed: %s", name, strerror(errno));
    return false;
}

bool CHostFile::rename(const char* oldPath, const char* newPath) {
    if (platform::sys_rename(oldPath, newPath) != 0) {
        log_message(kTag, kComponent, 0, "CHostFile::rename(%s -> %s) failed: %s", oldPath, newPath,
                    strerror(errno));
        return false;
    }
    return true;
}

uint64_t CHostFile::get_file_size(const char* path) {
    struct stat st {};
    if (platform::sys_stat(path, &st) != 0) {
        log_message(kTag, kComponent, 0, "CHostFile::get_file_size(%s) failed: %s", path,
                    strerror(errno));
        return UINT64_MAX;
    }
    return static_cast<uint64_t>(st.st_size);
}

bool CHostFile::get_mode(const char* path, uint32_t* mode, bool followLinks, bool* pathUsable) {
    struct stat st {};
    const int rc = followLinks ? platform::sys_stat(path, &st) : platform::sys_lstat(path, &st);
    return mode_result(rc, st, path, mode, followLinks ? "stat" : "lstat", pathUsable);
}

bool CHostFile::get_mode_at(int dirFd, const char* name, uint32_t* mode, bool* pathUsable) {
    struct stat st {};
    const int rc = platform::sys_fstatat(dirFd, name, &st, AT_SYMLINK_NOFOLLOW);
    return mode_result(rc, st, name, mode, "lstat", pathUsable);
}

bool CHostFile::mode_result(int rc, const struct stat& st, const char* path, uint32_t* mode,
                            const char* call, bool* pathUsable) {
    if (rc == 0) {
        *mode = static_cast<uint32_t>(st.st_mode);
        if (pathUsable) *pathUsable = true;
        return true;
    }
    const int error = errno;
    // Missing items are routine during a transfer; anything else is worth a line, but a
    // broken volume would otherwise flood the log.
    if (error != ENOENT && error != ENOTDIR && log_rate_limiter_allow(&g_modeLimiter)) {
        log_message(kTag, kComponent, 0, "CHostFile::get_mode(%s) %s failed: %s", path, call,
                    strerror(error));
    }
    if (pathUsable) *pathUsable = error != ENOTDIR;
    errno = error;
    return false;
}

int64_t CHostFile::pread_all(int fd, void* buffer, uint64_t size, uint64_t offset) {
    auto* cursor = static_cast<uint8_t*>(buffer);
    uint64_t remaining = size;
    int64_t total = 0;
    for (;;) {
        const ssize_t r = platform::sys_pread(fd, cursor, remaining, static_cast<off_t>(offset));
        if (r < 0) {
            if (errno == EINTR) continue;
            return kIoFailed;
        }
        if (r == 0) return total;  // end of file
        total += r;
        remaining -= static_cast<uint64_t>(r);
        if (remaining == 0) return total;
        if (log_verbosity() >= 3) {
            log_message(kTag, kComponent, 3,
                        "recovered partial read: fd %d, offs %llx, size %llx, res %llx", fd,
                        ull(offset), ull(remaining), ull(static_cast<uint64_t>(r)));
        }
        cursor += r;
        offset += static_cast<uint64_t>(r);
    }
}

int64_t CHostFile::pwrite_all(int fd, const void* buffer, uint64_t size, uint64_t offset) {
    const auto* cursor = static_cast<const uint8_t*>(buffer);
    uint64_t remaining = size;
    int64_t total = 0;
    while (remaining > 0) {
        const ssize_t r = platform::sys_pwrite(fd, cursor, remaining, static_cast<off_t>(offset));
        if (r < 0) {
            if (errno == ENOSPC) return kIoNoSpace;
            if (errno == EINTR) continue;
            return kIoFailed;
        }
        if (r == 0) {
            // A device that accepts nothing would make the retry spin forever.
            errno = EIO;
            return kIoFailed;
        }
        total += r;
        remaining -= static_cast<uint64_t>(r);
        if (remaining == 0) break;
        if (log_verbosity() >= 3) {
            log_message(kTag, kComponent, 3,
                        "recovered partial write: fd %d, offs %llx, size %llx, res %llx", fd,
                        ull(offset), ull(remaining), ull(static_cast<uint64_t>(r)));
        }
        cursor += r;
        offset += static_cast<uint64_t>(r);
    }
    return total;
}

int64_t CHostFile::read_vectored(int fd, const IoSegment* segments, int32_t count, uint64_t offset,
                                 uint64_t totalSize, uint32_t* bounceCounter) {
    if (count == 1) return pread_all(fd, segments[0].base, segments[0].length, offset);
    uint8_t* bounce = alloc_bounce(totalSize, bounceCounter);
    if (!bounce) return kIoNoMemory;
    const int64_t r = pread_all(fd, bounce, totalSize, offset);
    // Only the bytes actually read are handed out, each segment up to its own length.
    uint64_t left = r > 0 ? static_cast<uint64_t>(r) : 0;
    const uint8_t* from = bounce;
    for (int32_t i = 0; i < count && left > 0; ++i) {
        const uint64_t n = std::min<uint64_t>(left, static_cast<uint32_t>(segments[i].length));
        if (n > 0) std::memcpy(segments[i].base, from, n);
        from += n;
        left -= n;
    }
    platform::sys_free(bounce);
    return r;
}

int64_t CHostFile::write_vectored(int fd, const IoSegment* segments, int32_t count, uint64_t offset,
                                  uint64_t totalSize, uint32_t* bounceCounter) {
    if (count == 1) return pwrite_all(fd, segments[0].base, segments[0].length, offset);
    uint8_t* bounce = alloc_bounce(totalSize, bounceCounter);
    if (!bounce) return kIoNoMemory;
    uint64_t placed = 0;
    for (int32_t i = 0; i < count && placed < totalSize; ++i) {
        const uint64_t n =
            std::min<uint64_t>(totalSize - placed, static_cast<uint32_t>(segments[i].length));
        if (n > 0) std::memcpy(bounce + placed, segments[i].base, n);
        placed += n;
    }
    // Segments shorter than the stated total leave a gap; write zeros there rather than
    // whatever the heap held.
    if (placed < totalSize) std::memset(bounce + placed, 0, totalSize - placed);
    const int64_t r = pwrite_all(fd, bounce, totalSize, offset);
    platform::sys_free(bounce);
    return r;
}

void CHostFile::warn_verification_unavailable() {
    log_message(kTag, kComponent, 0,
                "WARNING: file read/write verification can be enabled in debug build only");
}

}  // namespace qvx
