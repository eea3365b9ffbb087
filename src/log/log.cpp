// The process-wide log: file location and reopening, line formatting, writer swaps,
// hex dumps, banner, thread ids, rate limiter, monotonic clock and errno helpers.
#include "log/log.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <pthread.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <mutex>
#include <string>

#include <Foundation/NSPathUtilities.h>
#include <mach/mach.h>
#include <mach/mach_time.h>

#include "build_info.h"
#include "platform/seams/descriptors.h"

namespace qvx {
namespace {

constexpr size_t kLineBuffer = 4096;
constexpr size_t kMaxLineText = 4094;  // leaves room for the newline and the NUL
constexpr size_t kPathBytes = 1024;
constexpr const char kFileName[] = "quorvex.log";

// Restores errno on every way out of a scope, exceptions included.
class ErrnoGuard {
  public:
    ErrnoGuard() : m_saved(errno) {}
    ~ErrnoGuard() { errno = m_saved; }
    ErrnoGuard(const ErrnoGuard&) = delete;
    ErrnoGuard& operator=(const ErrnoGuard&) = delete;

  private:
    int m_saved;
};

// Folder and path in use. A change publishes a new block instead of editing the one in
// use, so that a thread reading the path while another swaps it never sees a torn
// string, and pointers handed out by log_directory/log_file_path stay valid. Old blocks
// stay linked from the new one: they live for the process, and stay reachable.
struct LogPaths {
    char directory[kPathBytes];
    char path[kPathBytes];
    const LogPaths* previous;
};

constinit const LogPaths g_unsetPaths{};  // empty path: no folder chosen yet
constinit std::atomic<const LogPaths*> g_paths{&g_unsetPaths};

// Heap copies computed on first use; the empty string until then.
constinit std::atomic<const char*> g_systemDirectory{""};
constinit std::atomic<const char*> g_userDirectory{""};

int file_writer(const char* text, int32_t length);

constinit std::atomic<int> g_verbosity{1};
constinit std::atomic<LogWriter> g_writer{&file_writer};
constinit std::atomic<time_t> g_lastCheck{0};
constinit std::atomic<int> g_fd{-1};
constinit std::atomic<uint32_t> g_counters[2]{0, 0};
constinit std::atomic<std::atomic<uint32_t>*> g_activeCounter{&g_counters[0]};
constinit std::atomic<uint32_t> g_fallbackTaken{0};

// Swaps of the writer are rare; serialising them keeps the wait in log_set_writer sound
// when two swaps overlap. The line path never takes this lock.
constinit std::mutex g_writerSwapMutex;

// Folder and path are cut to what fits, like every other overlong value in the log.
LogPaths* make_paths(const char* folder, const char* name) {
    auto* paths = new LogPaths{};
    std::strncpy(paths->directory, folder, kPathBytes);
    paths->directory[kPathBytes - 1] = '\0';
    if (std::snprintf(paths->path, kPathBytes, "%s/%s", paths->directory, name) < 0)
        paths->path[0] = '\0';
    paths->path[kPathBytes - 1] = '\0';
    return paths;
}

// Publishes folder + "/" + name as the path in use.
void publish_paths(const char* folder, const char* name) {
    LogPaths* paths = make_paths(folder, name);
    const LogPaths* old = g_paths.load();
    do {
        paths->previous = old;
    } while (!g_paths.compare_exchange_weak(old, paths));
}

// Stores a heap copy of `value` in `slot` unless another thread stored one first.
const char* store_directory(std::atomic<const char*>& slot, const std::string& value) {
    char* copy = strdup(value.c_str());
    if (copy == nullptr) return slot.load();
    const char* expected = slot.load();
    if (expected[0] == '\0' && slot.compare_exchange_strong(expected, copy)) return copy;
    std::free(copy);
    return expected;
}

const char* system_directory() {
    const char* dir = g_systemDirectory.load();
    if (dir[0] != '\0') return dir;
    try {
        [[maybe_unused]] NSAutoreleasePool pool;
        auto found =
            NSSearchPathForDirectoriesInDomains(NSLibraryDirectory, NSLocalDomainMask, true);
        if (found.empty()) return dir;
        return store_directory(g_systemDirectory,
                               NSStringByAppendingPathComponent(found.front(), "Logs"));
    } catch (...) {
        return dir;
    }
}

// Created on demand; stays empty (and is retried next time) when it cannot be created.
const char* user_directory() {
    const char* dir = g_userDirectory.load();
    if (dir[0] != '\0') return dir;
    try {
        auto found =
            NSSearchPathForDirectoriesInDomains(NSLibraryDirectory, NSUserDomainMask, true);
        if (found.empty()) return dir;
        std::string logs = NSStringByAppendingPathComponent(found.front(), "Logs");
        NSFileManager manager;
        if (!manager.createDirectoryAtPath(logs, true)) return dir;
        return store_directory(g_userDirectory, logs);
    } catch (...) {
        return dir;
    }
}

const LogPaths* ensure_paths() {
    const LogPaths* paths = g_paths.load();
    if (paths->path[0] != '\0') return paths;
    const char* folder = system_directory();
    // Two first users may race here; the loser's block merely stays in the chain.
    LogPaths* fresh = make_paths(folder, kFileName);
    fresh->previous = paths;
    if (g_paths.compare_exchange_strong(paths, fresh)) return fresh;
    delete fresh;
    return paths;
}

// The log's descriptor number, once it has one, stays the log's for the life of the
// process: a new file is put in place over the same number (dup2) and never by closing
// it. A writer may hold the number between log_open and its write; had the number been
// closed, the next open or socket of the process could get it, and the late line would
// land in a received file or a toolgate socket.
constinit std::atomic<const LogPaths*> g_fdPaths{nullptr};  // the paths fd was opened for

int open_path(const char* path) {
    return open(path, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0666);
}

// Makes the file open as `fresh` the log file and returns the log's descriptor. The
// first open publishes `fresh` itself; later ones copy it over the number in use.
int install_fd(int current, int fresh, const LogPaths* paths) {
    // The creation mask of the process must not narrow a file that every user shares.
    fchmod(fresh, 0666);
    if (current < 0) {
        if (!g_fd.compare_exchange_strong(current, fresh)) {
            // Another thread opened first; its descriptor wins.
            close(fresh);
            return current;
        }
        g_fdPaths.store(paths);
        return fresh;
    }
    // Threads replacing at once each put the file of the path they saw; should the last
    // one be stale, the next once-a-second check replaces it again.
    if (platform::dup_cloexec(fresh, current) == -1) {
        close(fresh);
        return current;
    }
    close(fresh);
    g_fdPaths.store(paths);
    return current;
}

// Lets go of the open file without letting go of its number: /dev/null takes its place
// until the next line opens the new path.
void release_log_file() {
    const int fd = g_fd.load();
    if (fd < 0) return;
    const int null = open("/dev/null", O_WRONLY | O_CLOEXEC);
    if (null < 0) return;  // the next line replaces the file anyway
    platform::dup_cloexec(null, fd);
    close(null);
}

bool names_open_file(const char* path, int fd) {
    struct stat byPath {};
    struct stat byFd {};
    return stat(path, &byPath) == 0 && fstat(fd, &byFd) == 0 && byPath.st_dev == byFd.st_dev &&
           byPath.st_ino == byFd.st_ino;
}

int file_writer(const char* text, int32_t length) {
    int fd = log_open();
    if (fd < 0) return -1;
    return static_cast<int>(write(fd, text, static_cast<size_t>(length)));
}

// Appends printf output at `*used`, keeping `*used` within the buffer.
void append_v(char* buffer, size_t* used, const char* format, va_list args)
    __attribute__((format(printf, 3, 0)));
void append_v(char* buffer, size_t* used, const char* format, va_list args) {
    size_t room = kLineBuffer - *used;
    if (room <= 1) return;
    int written = std::vsnprintf(buffer + *used, room, format, args);
    if (written < 0) {
        buffer[*used] = '\0';
        return;
    }
    *used += static_cast<size_t>(written) < room ? static_cast<size_t>(written) : room - 1;
}

void append(char* buffer, size_t* used, const char* format, ...)
    __attribute__((format(printf, 3, 4)));
void append(char* buffer, size_t* used, const char* format, ...) {
    va_list args;
    va_start(args, format);
    append_v(buffer, used, format, args);
    va_end(args);
}

// Copies text at `*used`, cut to what the buffer holds.
void append_text(char* buffer, size_t* used, const char* text) {
    size_t room = kLineBuffer - *used;
    if (room <= 1) return;
    size_t length = std::strlen(text);
    if (length > room - 1) length = room - 1;
    std::memcpy(buffer + *used, text, length);
    *used += length;
    buffer[*used] = '\0';
}

// "%m-%d %H:%M:%S.mmm " of the current local time. Written without printf: the
// prefix is on every line and printf calls dominate the cost of formatting.
void append_time(char* buffer, size_t* used) {
    timeval now{};
    gettimeofday(&now, nullptr);
    time_t seconds = now.tv_sec;
    tm local{};
    localtime_r(&seconds, &local);
    char stamp[128 + 6];
    size_t length = std::strftime(stamp, 128, "%m-%d %H:%M:%S", &local);
    int ms = static_cast<int>(now.tv_usec / 1000);
    stamp[length++] = '.';
    stamp[length++] = static_cast<char>('0' + ms / 100);
    stamp[length++] = static_cast<char>('0' + ms / 10 % 10);
    stamp[length++] = static_cast<char>('0' + ms % 10);
    stamp[length++] = ' ';
    stamp[length] = '\0';
    append_text(buffer, used, stamp);
}

const char* after_last(const char* text, const char* separators) {
    const char* result = text;
    for (const char* p = text; *p != '\0'; ++p) {
        if (std::strchr(separators, *p) != nullptr) result = p + 1;
    }
    return result;
}

void write_line(const char* text, int32_t length) {
    // Count this call on the active counter, and make sure the counter was still the
    // active one after counting: a count on a retired counter could outlive the wait
    // of a later swap.
    std::atomic<uint32_t>* counter;
    for (;;) {
        counter = g_activeCounter.load();
        counter->fetch_add(1);
        if (g_activeCounter.load() == counter) break;
        counter->fetch_sub(1);
    }
    LogWriter writer = g_writer.load();
    writer(text, length);
    // A line written during a swap also reaches the new writer. This second call is
    // still counted, so it too has ended when log_set_writer returns.
    LogWriter current = g_writer.load();
    if (current != writer) current(text, length);
    counter->fetch_sub(1);
}

using ThreadIdFunction = int (*)(pthread_t, uint64_t*);
constinit std::atomic<ThreadIdFunction> g_threadIdFunction{nullptr};
constinit std::atomic<bool> g_threadIdResolved{false};

using ClockFunction = uint64_t (*)();
uint64_t first_monotonic_us();
constinit std::atomic<ClockFunction> g_clock{&first_monotonic_us};
constinit std::atomic<uint32_t> g_timebaseNumer{1};
constinit std::atomic<uint32_t> g_timebaseDenom{1};

uint64_t converted_monotonic_us() {
    unsigned __int128 ticks = mach_absolute_time();
    uint64_t denom = uint64_t{g_timebaseDenom.load(std::memory_order_relaxed)} * 1000u;
    return static_cast<uint64_t>(ticks * g_timebaseNumer.load(std::memory_order_relaxed) / denom);
}

uint64_t first_monotonic_us() {
    mach_timebase_info_data_t info{};
    if (mach_timebase_info(&info) == KERN_SUCCESS && info.numer != 0 && info.denom != 0) {
        g_timebaseNumer.store(info.numer, std::memory_order_relaxed);
        g_timebaseDenom.store(info.denom, std::memory_order_relaxed);
    }
    g_clock.store(&converted_monotonic_us);
    return converted_monotonic_us();
}

}  // namespace

void log_message(const char* tag, const char* component, int level, const char* format, ...) {
    ErrnoGuard keep;
    LogSite site{nullptr, 0, nullptr, tag, component};
    va_list args;
    va_start(args, format);
    log_vmessage(&site, level, format, args);
    va_end(args);
}

void log_message_at(const char* file, int line, const char* function, const char* tag,
                    const char* component, int level, const char* format, ...) {
    ErrnoGuard keep;
    LogSite site{file, line, function, tag, component};
    va_list args;
    va_start(args, format);
    log_vmessage(&site, level, format, args);
    va_end(args);
}

int log_vmessage(const LogSite* site, int level, const char* format, va_list args) {
    static constexpr LogSite kNoSite{nullptr, 0, nullptr, "", ""};
    if (site == nullptr) site = &kNoSite;
    const char* file = site->file != nullptr ? after_last(site->file, "/\\") : nullptr;
    const char* function = site->function != nullptr ? after_last(site->function, ":") : nullptr;
    const char* tag = site->tag != nullptr ? site->tag : "";
    const char* component = site->component != nullptr ? site->component : "";

    char line[kLineBuffer];
    size_t used = 0;
    line[0] = '\0';
    append_time(line, &used);

    static constexpr const char* kLetters[] = {"F ", "W ", "I ", "D ", "T "};
    int remainder = level % 16;
    if (remainder >= 0 && remainder <= 4) {
        append_text(line, &used, kLetters[remainder]);
    } else {
        append(line, &used, "O(%d) ", remainder);
    }
    append(line, &used, "/%s:%lld:%x/ ", component, static_cast<long long>(getpid()),
           log_thread_id());
    if (tag[0] == '[') {
        append(line, &used, "%s ", tag);
    } else if (tag[0] != '\0') {
        append(line, &used, "[%s] ", tag);
    }
    if (file != nullptr && function != nullptr) {
        append(line, &used, "{%s @ %s:%i} ", function, file, static_cast<int>(site->line));
    }
    append_v(line, &used, format, args);

    if (used > kMaxLineText) used = kMaxLineText;
    line[used++] = '\n';
    line[used] = '\0';
    write_line(line, static_cast<int32_t>(used));
    return 0;
}

void log_hexdump(const char* tag, const char* component, int level, const void* data, size_t length,
                 const char* file, int line, const char* function) {
    const auto* bytes = static_cast<const unsigned char*>(data);
    uint32_t rows = static_cast<uint32_t>((length + 15) / 16);
    for (uint32_t row = 0; row < rows; ++row) {
        size_t offset = size_t{row} * 16;
        unsigned char b[16] = {};
        size_t count = length - offset < 16 ? length - offset : 16;
        std::memcpy(b, bytes + offset, count);
        char text[17];
        for (int i = 0; i < 16; ++i) text[i] = b[i] < 0x20 ? '.' : static_cast<char>(b[i]);
        text[16] = '\0';
        log_message_at(file, line, function, tag, component, level,
                       "%08x %02x %02x %02x %02x %02x %02x %02x %02x | "
                       "%02x %02x %02x %02x %02x %02x %02x %02x %s",
                       static_cast<unsigned>(offset), b[0], b[1], b[2], b[3], b[4], b[5], b[6],
                       b[7], b[8], b[9], b[10], b[11], b[12], b[13], b[14], b[15], text);
    }
}

LogWriter log_set_writer(LogWriter writer) {
    std::lock_guard lock(g_writerSwapMutex);
    LogWriter previous = g_writer.exchange(writer);
    std::atomic<uint32_t>* retired = g_activeCounter.load();
    g_activeCounter.store(retired == &g_counters[0] ? &g_counters[1] : &g_counters[0]);
    while (retired->load() != 0) usleep(1000);
    return previous;
}

void log_set_verbosity(int verbosity) {
    g_verbosity.store(verbosity == -1 ? 1 : verbosity, std::memory_order_relaxed);
}

int log_verbosity() {
    return g_verbosity.load(std::memory_order_relaxed);
}

void log_set_directory(const char* folder, const char* name) {
    ErrnoGuard keep;
    // Released before the new path is published: a line that slips in between goes to
    // /dev/null, never to the old file after the caller was told it is closed.
    release_log_file();
    publish_paths(folder != nullptr ? folder : "", name != nullptr ? name : kFileName);
    g_fallbackTaken.store(0);
}

const char* log_directory() {
    return ensure_paths()->directory;
}

const char* log_file_path() {
    return ensure_paths()->path;
}

int log_open() {
    time_t now = time(nullptr);
    int fd = g_fd.load();
    // A descriptor opened for another path (log_set_directory, the fallback) is replaced
    // at once; otherwise the file is compared with its path once per second.
    if (fd >= 0 && g_fdPaths.load() == ensure_paths()) {
        time_t last = g_lastCheck.load(std::memory_order_relaxed);
        if (last == now) return fd;
        // One thread per second does the check; the others go on with the open file.
        if (g_lastCheck.exchange(now) == now) return fd;
        if (names_open_file(ensure_paths()->path, fd)) return fd;
    }
    const LogPaths* paths = ensure_paths();
    int fresh = open_path(paths->path);
    if (fresh < 0) {
        if (g_fallbackTaken.load() != 0) return -1;
        // The machine-wide folder is given up for good: later lines go to the user's.
        publish_paths(user_directory(), kFileName);
        g_fallbackTaken.store(1);
        paths = g_paths.load();
        fresh = open_path(paths->path);
        if (fresh < 0) {
            release_log_file();
            return -1;
        }
    }
    return install_fd(fd, fresh, paths);
}

void log_write_header() {
    ErrnoGuard keep;
    int fd = log_open();
    if (fd < 0) return;
    // Each line is its own write, like a log line, so that concurrent lines never split it.
    auto emit = [fd](const char* text, size_t length) {
        ssize_t ignored = write(fd, text, length);
        (void)ignored;
    };
    auto emit_text = [&emit](const char* text) { emit(text, std::strlen(text)); };
    static constexpr char kStars[] =
        "* * * * * * * * * * * * * * * * * * * * * * * * * * * * * * * * * *\n";
    char line[kLineBuffer];
    emit_text(kStars);
    emit_text("* Quorvex Virtualization System Log File\n");
    emit_text("*\n");
    std::snprintf(line, sizeof line, "* Product information %s\n", QVX_PRODUCT_NAME);
    emit_text(line);
    std::snprintf(line, sizeof line, "* Build information %s %s\n", QVX_VERSION_STRING,
                  QVX_BUILD_DATE);
    emit_text(line);
    emit_text("*\n");
    size_t used = 0;
    line[0] = '\0';
    append_time(line, &used);
    if (used < sizeof line - 1) line[used++] = '\n';
    emit(line, used);
    emit_text("*\n");
    emit_text("* Operating System macOS\n");
    emit_text(kStars);
    emit_text("\n");
}

uint32_t log_thread_id() {
    if (!g_threadIdResolved.load(std::memory_order_acquire)) {
        ErrnoGuard keep;
        void* library = dlopen("/usr/lib/system/libsystem_pthread.dylib", RTLD_LAZY);
        if (library != nullptr) {
            g_threadIdFunction.store(
                reinterpret_cast<ThreadIdFunction>(dlsym(library, "pthread_threadid_np")));
        }
        g_threadIdResolved.store(true, std::memory_order_release);
    }
    if (ThreadIdFunction function = g_threadIdFunction.load(); function != nullptr) {
        uint64_t id = 0;
        function(pthread_t{}, &id);
        return static_cast<uint32_t>(id);
    }
    return pthread_mach_thread_np(pthread_self());
}

bool log_rate_limiter_allow(RateLimiter* limiter) {
    ErrnoGuard keep;
    uint32_t now = static_cast<uint32_t>(monotonic_ms() / 1000);
    // A plain value by design; atomic access only keeps concurrent callers well defined
    // (the builtins, since macOS's C++ library has no std::atomic_ref).
    uint32_t previous = __atomic_load_n(&limiter->last, __ATOMIC_RELAXED);
    if (previous != 0xFFFFFFFFu && now - previous <= limiter->interval) return false;
    __atomic_store_n(&limiter->last, now, __ATOMIC_RELAXED);
    return true;
}

uint64_t monotonic_us() {
    return g_clock.load()();
}

uint64_t monotonic_ms() {
    return monotonic_us() / 1000;
}

uint32_t monotonic_ms32() {
    return static_cast<uint32_t>(monotonic_ms());
}

void sleep_ms(uint32_t ms) {
    // usleep's argument is 32 bits wide; long sleeps go in steps that it accepts.
    uint64_t micros = uint64_t{ms} * 1000u;
    while (micros > 0) {
        uint64_t step = micros < 1000000u ? micros : 1000000u;
        usleep(static_cast<useconds_t>(step));
        micros -= step;
    }
}

int get_errno() {
    return errno;
}

void set_errno(int value) {
    errno = value;
}

void result_from_errno(uint32_t* result) {
    if (result == nullptr) return;
    *result = errno == EACCES ? kResultAccessDenied : kResultFailure;
}

}  // namespace qvx
