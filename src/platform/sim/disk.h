// The Linux stand-ins of the macOS file-control and disk-driver requests, behind the
// system-call seam.
#pragma once

#include <sys/disk.h>

#include "platform/seams/syscalls.h"

namespace platform {

// fcntl with the three macOS requests of syscalls.h translated; other commands pass through.
//   F_NOCACHE 1 -> posix_fadvise DONTNEED (drop what is cached; Linux has no per-descriptor
//                  "don't cache" switch short of O_DIRECT, whose alignment rules callers
//                  don't follow), 0 -> nothing (caching is always on; read-ahead advice
//                  belongs to F_RDAHEAD and is left as it is).
//   F_RDAHEAD 1 -> posix_fadvise SEQUENTIAL (wide read-ahead), 0 -> RANDOM (none).
//   F_FULLFSYNC -> fsync.
int disk_fcntl(int fd, int command, int argument);

// ioctl with the two disk requests translated: the block size is the device's logical
// sector size, the block count its byte size divided by that. Other requests pass through.
int disk_ioctl(int fd, unsigned long request, void* argument);

}  // namespace platform
