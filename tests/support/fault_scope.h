// Test helpers for the system-call seam: a scope that restores the real calls, and a sweep
// that fails the 1st, 2nd, 3rd ... call until an operation runs without a fault.
#pragma once

#include <cerrno>
#include <cstdint>

#include "platform/seams/syscalls.h"

namespace qvxtest {

// Holds a modifiable copy of the real call table. Nothing is replaced until install();
// leaving the scope restores the real calls and disarms every fault.
class FaultScope {
  public:
    FaultScope() : m_table(*platform::real_syscalls()) {
        platform::fault_clear();
        platform::fault_reset_counts();
    }
    ~FaultScope() {
        platform::set_syscalls(nullptr);
        platform::fault_clear();
    }
    FaultScope(const FaultScope&) = delete;
    FaultScope& operator=(const FaultScope&) = delete;

    platform::SyscallTable& table() { return m_table; }
    void install() { platform::set_syscalls(&m_table); }
    // openat2 answers ENOSYS, as on kernels without it: every name beneath a folder is
    // then resolved by the component walk.
    void force_component_walk() {
        m_table.openat2 = [](int, const char*, struct open_how*, size_t) {
            errno = ENOSYS;
            return -1;
        };
        install();
    }

  private:
    platform::SyscallTable m_table;
};

// Runs `run(n)` with the nth call of `kind` failing with `error` (once), for n = 1, 2, ...
// until a run in which the fault did not fire; `run` does its own checks. Returns the
// number of runs in which the fault fired, or -1 when `limit` runs did not get through.
template <class Run>
int fault_sweep(platform::Sys kind, int error, Run run, int limit = 10000) {
    for (int n = 1; n <= limit; ++n) {
        platform::fault_inject(kind, static_cast<uint64_t>(n), error);
        run(n);
        const bool fired = platform::fault_fired();
        platform::fault_clear();
        if (!fired) return n - 1;
    }
    return -1;
}

}  // namespace qvxtest
