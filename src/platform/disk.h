// The macOS file-control and disk-driver requests that Linux lacks, with their Linux stand-ins.
#pragma once

#include <cstdint>

// macOS request numbers, so that a real macOS build can take them from <fcntl.h> and
// <sys/disk.h> instead.
#ifndef F_RDAHEAD
#define F_RDAHEAD 45  // argument 1: read ahead, 0: don't
#endif
#ifndef F_NOCACHE
#define F_NOCACHE 48  // argument 1: bypass the buffer cache, 0: use it
#endif
#ifndef F_FULLFSYNC
#define F_FULLFSYNC 51  // flush the file down to the medium
#endif
#ifndef DKIOCGETBLOCKCOUNT
#define DKIOCGETBLOCKCOUNT 0x40086419UL  // uint64_t: number of blocks
#endif
#ifndef DKIOCGETBLOCKSIZE
#define DKIOCGETBLOCKSIZE 0x40046418UL  // uint32_t: bytes per block
#endif

namespace platform {

// fcntl with the three macOS requests above translated; other commands pass through.
//   F_NOCACHE 1 -> posix_fadvise DONTNEED (drop what is cached; Linux has no per-descriptor
//                  "don't cache" switch short of O_DIRECT, whose alignment rules callers
//                  don't follow), 0 -> NORMAL.
//   F_RDAHEAD 1 -> posix_fadvise SEQUENTIAL (wide read-ahead), 0 -> RANDOM (none).
//   F_FULLFSYNC -> fsync.
int disk_fcntl(int fd, int command, int argument);

// ioctl with the two disk requests translated: the block size is the device's logical
// sector size, the block count its byte size divided by that. Other requests pass through.
int disk_ioctl(int fd, unsigned long request, void* argument);

}  // namespace platform
