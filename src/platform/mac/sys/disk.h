// The disk driver's ioctl requests of <sys/disk.h>, which Linux lacks; the system-call seam
// translates them (platform/sim/disk.h).
#pragma once

#include <cstdint>

#ifndef DKIOCGETBLOCKCOUNT
#define DKIOCGETBLOCKCOUNT 0x40086419UL  // uint64_t: number of blocks
#endif
#ifndef DKIOCGETBLOCKSIZE
#define DKIOCGETBLOCKSIZE 0x40046418UL  // uint32_t: bytes per block
#endif
