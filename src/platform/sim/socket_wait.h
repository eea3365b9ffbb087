// Receiving from a toolgate socket whose peer usually answers within microseconds.
#pragma once

#include <errno.h>
#include <sched.h>
#include <sys/socket.h>

#include <chrono>

namespace toolgate {

// How long a receive keeps trying before it sleeps. A thread put to sleep and woken from
// another processor costs tens of microseconds in a virtual machine (the wake-up is an
// interrupt through the hypervisor), more than most answers take to come; trying this long
// first turns most round trips into a hand-over without a sleep. It covers the host's
// write of a 128 KiB chunk; an answer that takes longer has work behind it that costs
// more than the wake-up.
inline constexpr std::chrono::microseconds kSpinBeforeSleep{100};

// Trying only makes sense while the peer can run meanwhile: with a single processor the
// spinning thread would hold the one the answer needs.
inline bool spinning_helps() {
    static const bool helps = [] {
        cpu_set_t set;
        return sched_getaffinity(0, sizeof set, &set) == 0 && CPU_COUNT(&set) > 1;
    }();
    return helps;
}

// Receives what has already arrived, without sleeping, until kSpinBeforeSleep has passed:
// the count received, 0 at the end of the stream, or -1 with errno (EAGAIN when nothing
// came in time; the caller then makes its usual blocking receive). A signal that comes
// meanwhile ends nothing here; the blocking receive is the place where one is seen.
inline ssize_t receive_before_sleep(int fd, msghdr* msg) {
    if (!spinning_helps()) {
        errno = EAGAIN;
        return -1;
    }
    const auto until = std::chrono::steady_clock::now() + kSpinBeforeSleep;
    for (;;) {
        const ssize_t r = recvmsg(fd, msg, MSG_DONTWAIT);
        if (r >= 0 || (errno != EAGAIN && errno != EWOULDBLOCK)) return r;
        if (std::chrono::steady_clock::now() >= until) return -1;
        // Whatever else waits for this processor (the peer, on a busy machine) goes first.
        sched_yield();
    }
}

inline ssize_t receive_before_sleep(int fd, void* data, size_t size) {
    iovec iov{data, size};
    msghdr msg{};
    msg.msg_iov = &iov;
    msg.msg_iovlen = 1;
    return receive_before_sleep(fd, &msg);
}

}  // namespace toolgate
