// A scope that keeps chosen signals blocked in the calling thread, so that the threads it
// creates start with them blocked; the thread's previous mask comes back at its end.
#pragma once

#include <pthread.h>
#include <signal.h>

#include <initializer_list>

namespace qvx {

class ScopedSignalBlock {
  public:
    explicit ScopedSignalBlock(std::initializer_list<int> signals) {
        sigset_t set;
        sigemptyset(&set);
        for (int s : signals) sigaddset(&set, s);
        // Cannot fail with a valid `how` and set.
        pthread_sigmask(SIG_BLOCK, &set, &m_previous);
    }
    ~ScopedSignalBlock() { pthread_sigmask(SIG_SETMASK, &m_previous, nullptr); }
    ScopedSignalBlock(const ScopedSignalBlock&) = delete;
    ScopedSignalBlock& operator=(const ScopedSignalBlock&) = delete;

  private:
    sigset_t m_previous;
};

}  // namespace qvx
