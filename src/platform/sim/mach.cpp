// Mach stand-ins on Linux: monotonic time and kernel thread ids.
#include <mach/mach.h>
#include <mach/mach_time.h>

#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

mach_port_t mach_task_self() {
    return 1;
}

uint64_t mach_absolute_time() {
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<uint64_t>(ts.tv_sec) * 1000000000ull + static_cast<uint64_t>(ts.tv_nsec);
}

kern_return_t mach_timebase_info(mach_timebase_info_t info) {
    info->numer = 1;
    info->denom = 1;
    return KERN_SUCCESS;
}

mach_port_t pthread_mach_thread_np(pthread_t thread) {
    if (!pthread_equal(thread, pthread_self())) return 0;
    return static_cast<mach_port_t>(syscall(SYS_gettid));
}
