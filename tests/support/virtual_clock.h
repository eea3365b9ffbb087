// A virtual clock for the clock seam: sleeps return at once and advance time, so a
// five-second wait costs nothing in a test.
#pragma once

#include <cstdint>
#include <ctime>
#include <functional>

namespace qvxtest {

class VirtualClock {
  public:
    explicit VirtualClock(time_t start = 1700000000);
    ~VirtualClock();
    VirtualClock(const VirtualClock&) = delete;
    VirtualClock& operator=(const VirtualClock&) = delete;

    // Sleep calls made through the seam, and the virtual microseconds they slept.
    uint64_t sleep_calls() const;
    uint64_t slept_us() const;
    // Runs before every sleep advances time, on the sleeping thread: a test whose code
    // waits for another thread's effects lets that thread catch up here. Set it while no
    // other thread sleeps.
    void set_before_sleep(std::function<void()> hook);
};

}  // namespace qvxtest
