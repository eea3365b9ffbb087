// The virtual clock behind the clock seam.
#include "support/virtual_clock.h"

#include <atomic>

#include "platform/seams/clock.h"

namespace qvxtest {
namespace {

std::atomic<uint64_t> g_nowUs{0};
std::atomic<uint64_t> g_sleepCalls{0};
std::atomic<uint64_t> g_sleptUs{0};
std::function<void()> g_beforeSleep;

time_t v_time(time_t* out) {
    const time_t t = static_cast<time_t>(g_nowUs.load() / 1000000);
    if (out) *out = t;
    return t;
}
unsigned v_sleep(unsigned seconds) {
    if (g_beforeSleep) g_beforeSleep();
    g_sleepCalls++;
    g_sleptUs += seconds * 1000000ull;
    g_nowUs += seconds * 1000000ull;
    return 0;
}
int v_usleep(useconds_t micros) {
    if (g_beforeSleep) g_beforeSleep();
    g_sleepCalls++;
    g_sleptUs += micros;
    g_nowUs += micros;
    return 0;
}
constexpr platform::ClockOps kVirtual{v_time, v_sleep, v_usleep};

}  // namespace

VirtualClock::VirtualClock(time_t start) {
    g_nowUs = static_cast<uint64_t>(start) * 1000000ull;
    g_sleepCalls = 0;
    g_sleptUs = 0;
    platform::set_clock(&kVirtual);
}
VirtualClock::~VirtualClock() {
    platform::set_clock(nullptr);
    g_beforeSleep = nullptr;
}
void VirtualClock::set_before_sleep(std::function<void()> hook) {
    g_beforeSleep = std::move(hook);
}
uint64_t VirtualClock::sleep_calls() const {
    return g_sleepCalls;
}
uint64_t VirtualClock::slept_us() const {
    return g_sleptUs;
}

}  // namespace qvxtest
