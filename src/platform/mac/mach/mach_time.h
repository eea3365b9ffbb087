// Mach absolute time and its timebase.
#pragma once

#include <mach/mach.h>

#include <cstdint>

struct mach_timebase_info_data_t {
    uint32_t numer;
    uint32_t denom;
};
using mach_timebase_info_t = mach_timebase_info_data_t*;

// Nanoseconds of CLOCK_MONOTONIC; the timebase is 1/1.
uint64_t mach_absolute_time();
kern_return_t mach_timebase_info(mach_timebase_info_t info);
