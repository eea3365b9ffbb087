// The real clock behind the clock seam, and the switch that tests use.
#include "platform/seams/clock.h"

#include <unistd.h>

#include <atomic>

namespace platform {
namespace {

time_t real_time(time_t* out) {
    return ::time(out);
}
unsigned real_sleep(unsigned seconds) {
    return ::sleep(seconds);
}
int real_usleep(useconds_t micros) {
    return ::usleep(micros);
}

constexpr ClockOps kReal{real_time, real_sleep, real_usleep};
std::atomic<const ClockOps*> g_clock{&kReal};

}  // namespace

time_t clock_time(time_t* out) {
    return g_clock.load(std::memory_order_acquire)->time(out);
}
unsigned clock_sleep(unsigned seconds) {
    return g_clock.load(std::memory_order_acquire)->sleep(seconds);
}
int clock_usleep(useconds_t micros) {
    return g_clock.load(std::memory_order_acquire)->usleep(micros);
}

const ClockOps* set_clock(const ClockOps* ops) {
    return g_clock.exchange(ops ? ops : &kReal, std::memory_order_acq_rel);
}
const ClockOps* real_clock() {
    return &kReal;
}

}  // namespace platform
