// The clock seam: wall-clock seconds and sleeps go through here, so that tests can
// run multi-second waits in virtual time.
#pragma once

#include <sys/types.h>

#include <ctime>

namespace platform {

struct ClockOps {
    time_t (*time)(time_t* out);
    unsigned (*sleep)(unsigned seconds);
    int (*usleep)(useconds_t micros);
};

// The calls the tool makes in place of time(), sleep() and usleep().
time_t clock_time(time_t* out = nullptr);
unsigned clock_sleep(unsigned seconds);
int clock_usleep(useconds_t micros);

// Installs a replacement (nullptr restores the real clock) and returns the previous one.
const ClockOps* set_clock(const ClockOps* ops);
const ClockOps* real_clock();

}  // namespace platform
