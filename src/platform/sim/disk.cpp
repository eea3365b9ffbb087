// Linux stand-ins for the macOS file-control and disk-driver requests.
#include "platform/sim/disk.h"

#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cerrno>

namespace platform {
namespace {

// posix_fadvise reports its error as the result; callers here expect -1 and errno.
int advise(int fd, int advice) {
    const int rc = posix_fadvise(fd, 0, 0, advice);
    if (rc == 0) return 0;
    errno = rc;
    return -1;
}

int sector_size(int fd, uint32_t* out) {
    int size = 0;
    if (::ioctl(fd, BLKSSZGET, &size) != 0) return -1;
    if (size <= 0) {
        errno = EINVAL;
        return -1;
    }
    *out = static_cast<uint32_t>(size);
    return 0;
}

}  // namespace

int disk_fcntl(int fd, int command, int argument) {
    switch (command) {
        case F_NOCACHE:
            // Linux always caches: turning caching on leaves nothing to undo (DONTNEED drops
            // pages once, it sets nothing), so 0 costs no call on each file the tool opens.
            return argument ? advise(fd, POSIX_FADV_DONTNEED) : 0;
        case F_RDAHEAD:
            return advise(fd, argument ? POSIX_FADV_SEQUENTIAL : POSIX_FADV_RANDOM);
        case F_FULLFSYNC:
            return ::fsync(fd);
        default:
            return ::fcntl(fd, command, argument);
    }
}

int disk_ioctl(int fd, unsigned long request, void* argument) {
    if (request == DKIOCGETBLOCKSIZE) {
        uint32_t size = 0;
        if (sector_size(fd, &size) != 0) return -1;
        *static_cast<uint32_t*>(argument) = size;
        return 0;
    }
    if (request == DKIOCGETBLOCKCOUNT) {
        uint32_t size = 0;
        uint64_t bytes = 0;
        if (sector_size(fd, &size) != 0 || ::ioctl(fd, BLKGETSIZE64, &bytes) != 0) return -1;
        *static_cast<uint64_t*>(argument) = bytes / size;
        return 0;
    }
    return ::ioctl(fd, request, argument);
}

}  // namespace platform
