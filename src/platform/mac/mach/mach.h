// Mach types and calls the tool uses: task port and thread ids (absolute time is in
// <mach/mach_time.h>, as on a Mac).
#pragma once

#include <pthread.h>

#include <cstdint>

using kern_return_t = int;
using mach_port_t = uint32_t;
using task_port_t = mach_port_t;
using mach_port_name_t = mach_port_t;

inline constexpr kern_return_t KERN_SUCCESS = 0;
inline constexpr mach_port_t MACH_PORT_NULL = 0;

mach_port_t mach_task_self();
// The kernel's thread id for the calling thread's own handle; 0 for any other thread,
// whose id this stand-in does not know.
mach_port_t pthread_mach_thread_np(pthread_t thread);
