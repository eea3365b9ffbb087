// CHostFile: the file class of the transfer, with static path operations and positioned,
// retrying and vectored read/write routines.
#pragma once

#include <sys/stat.h>

#include <cstdint>

#include "log/log.h"

namespace qvx {

// One scatter/gather segment; the layout of a POSIX iovec.
struct IoSegment {
    void* base;
    uint64_t length;
};
static_assert(sizeof(IoSegment) == 16);

// Status values of the positioned routines (a non-negative value is a byte count).
inline constexpr int64_t kIoNoMemory = -4;  // errno is ENOMEM
inline constexpr int64_t kIoFailed = -8;
inline constexpr int64_t kIoNoSpace = -16;

// Cut size of transfer_all.
inline constexpr uint32_t kTransferSlice = 0x2000000;

class CHostFile {
  public:
    using TransferOp = int32_t (CHostFile::*)(void* buffer, uint32_t length);

    CHostFile() = default;
    ~CHostFile() { close(); }
    CHostFile(const CHostFile&) = delete;
    CHostFile& operator=(const CHostFile&) = delete;

    // Creates or truncates the file unless `openExisting`; creation mode 0664 before the
    // umask, 0666 regardless of it with `worldWritable` (new files only). A descriptor
    // already held is closed first. On failure `result` gets kResultFailure or
    // kResultAccessDenied (not on the world-writable path) and fd() is -1.
    bool open(const char* path, bool openExisting, bool readOnly, bool uncached,
              uint32_t* result = nullptr, bool worldWritable = false);
    // As open(), for the item `name` of the folder open as `dirFd` (AT_FDCWD: a path), so
    // that walks deeper than a path string can hold still reach their files. Never follows
    // a final symbolic link (ELOOP); the descriptor is non-blocking, so a named pipe or a
    // device never holds the open or a read. Unlike open(), creating (not `openExisting`)
    // takes a free name only (EEXIST otherwise) and never truncates what is there.
    bool open_at(int dirFd, const char* name, bool openExisting, bool readOnly, bool uncached,
                 uint32_t* result = nullptr, bool worldWritable = false);
    void close();
    bool is_open() const { return m_fd != -1; }
    bool flush();
    // New position, or all-ones on failure.
    uint64_t seek(uint64_t offset, uint8_t whence);
    bool resize(uint64_t length);
    // One read()/write(): bytes moved, 0 at end of file, negative on failure.
    int32_t read_(void* buffer, uint32_t length);
    int32_t write_(void* buffer, uint32_t length);
    // Moves `size` bytes through read_ or write_ in slices of at most 32 MiB, retrying
    // interrupted calls; the total moved (short at end of file) or the failing call's result.
    int64_t transfer_all(TransferOp op, void* buffer, uint64_t size);

    int fd() const { return m_fd; }
    bool read_only() const { return m_readOnly; }
    bool uncached() const { return m_uncached; }

    static bool unlink(const char* path);
    // Unlinks `name`, one component, from the folder `dirFd`; a link goes as a link.
    static bool unlink_at(int dirFd, const char* name);
    static bool rename(const char* oldPath, const char* newPath);
    // st_size following links, or all-ones on failure.
    static uint64_t get_file_size(const char* path);
    // False when the path can't be examined; `pathUsable` is then false only when a
    // component of the path is not a folder. Missing paths are not logged.
    static bool get_mode(const char* path, uint32_t* mode, bool followLinks,
                         bool* pathUsable = nullptr);
    // As get_mode without following links, for `name` (one component) in the folder `dirFd`.
    static bool get_mode_at(int dirFd, const char* name, uint32_t* mode,
                            bool* pathUsable = nullptr);
    static constexpr bool is_dir(uint32_t mode) { return (mode & 0xF000) == 0x4000; }
    static constexpr bool is_file(uint32_t mode) { return (mode & 0xF000) == 0x8000; }
    static constexpr bool is_link(uint32_t mode) { return (mode & 0xF000) == 0xA000; }

    // Positioned transfers until done; byte count or kIoNoSpace / kIoFailed. A read stops
    // short at end of file; a write the device reports as 0 bytes ends with kIoFailed.
    static int64_t pread_all(int fd, void* buffer, uint64_t size, uint64_t offset);
    static int64_t pwrite_all(int fd, const void* buffer, uint64_t size, uint64_t offset);
    // One positioned call for the whole range through a page-aligned bounce buffer (counted
    // in `bounceCounter`) unless there is exactly one segment. Copies never exceed a segment
    // or the bytes actually moved, whatever `totalSize` says.
    static int64_t read_vectored(int fd, const IoSegment* segments, int32_t count, uint64_t offset,
                                 uint64_t totalSize, uint32_t* bounceCounter = nullptr);
    static int64_t write_vectored(int fd, const IoSegment* segments, int32_t count, uint64_t offset,
                                  uint64_t totalSize, uint32_t* bounceCounter = nullptr);
    static void warn_verification_unavailable();

  private:
    // The part of opening that follows the open call itself.
    bool opened(int fd, const char* path, bool openExisting, bool readOnly, bool uncached,
                uint32_t* result, bool worldWritable);

    // get_mode's result, mode and log line from the stat call's `rc` and `st`.
    static bool mode_result(int rc, const struct stat& st, const char* path, uint32_t* mode,
                            const char* call, bool* pathUsable);

    int32_t m_fd = -1;
    bool m_readOnly = false;
    bool m_uncached = false;
};

// The tool's one limiter, {5, never}, for get_mode's failure line; tests reset or age it.
RateLimiter& host_file_rate_limiter();

}  // namespace qvx
