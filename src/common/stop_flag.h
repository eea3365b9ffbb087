// The tool's stop flag: set once by the stop sequence on the main thread, read by the
// control loop and by the drag handlers' waits, which give up when it is set.
#pragma once

#include <atomic>

namespace qvx {

inline std::atomic<bool> g_stopFlag{false};

inline bool stop_requested() {
    return g_stopFlag.load(std::memory_order_relaxed);
}

}  // namespace qvx
