// The process-wide log: one shared file, a fixed line prefix, a replaceable writer,
// hex dumps, a rate limiter, a monotonic clock and errno helpers.
#pragma once

#include <cstdarg>
#include <cstddef>
#include <cstdint>

namespace qvx {

inline constexpr uint32_t kResultFailure = 0x80000001;
inline constexpr uint32_t kResultAccessDenied = 0x80000005;

struct LogSite {
    const char* file;       // printed as its base name; may be null
    int32_t line;
    const char* function;   // printed from after its last ':'; may be null
    const char* tag;        // "[tag] " unless empty; printed as is when it begins with '['
    const char* component;  // printed with the process and thread id
};

// Receives every finished line (with its newline); the result is not examined.
using LogWriter = int (*)(const char* text, int32_t length);

// Level letters: 0 F, 1 W, 2 I, 3 D, 4 T (level % 16), "O(n) " otherwise. The call
// itself does not filter: callers test log_verbosity() first for levels above 0.
void log_message(const char* tag, const char* component, int level, const char* format, ...)
    __attribute__((format(printf, 4, 5)));
void log_message_at(const char* file, int line, const char* function, const char* tag,
                    const char* component, int level, const char* format, ...)
    __attribute__((format(printf, 7, 8)));
int log_vmessage(const LogSite* site, int level, const char* format, va_list args)
    __attribute__((format(printf, 3, 0)));
void log_hexdump(const char* tag, const char* component, int level, const void* data,
                 size_t length, const char* file, int line, const char* function);

// Installs a writer; when it returns no call of the previous writer is running.
LogWriter log_set_writer(LogWriter writer);
void log_set_verbosity(int verbosity);  // -1 restores the default, 1
int log_verbosity();

// Makes folder/name the log file. The open file is let go at once, but its descriptor
// number stays the log's (it then names /dev/null) until the next line opens the new path.
void log_set_directory(const char* folder, const char* name);
const char* log_directory();
const char* log_file_path();
int log_open();
void log_write_header();
uint32_t log_thread_id();

struct RateLimiter {
    uint32_t interval;  // seconds
    uint32_t last;      // second of the last line let through; 0xFFFFFFFF never
};
bool log_rate_limiter_allow(RateLimiter* limiter);

uint64_t monotonic_us();
uint64_t monotonic_ms();
uint32_t monotonic_ms32();
void sleep_ms(uint32_t ms);

int get_errno();
void set_errno(int value);
// Writes kResultAccessDenied for EACCES and kResultFailure otherwise, when `result` is set.
void result_from_errno(uint32_t* result);

}  // namespace qvx
