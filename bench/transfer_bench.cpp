// File transfers through the real tool code against the simulated host, each measured
// against a baseline of the same run: bulk data against `cp -r`, many small files against
// the channel's floor (messages x one raw socketpair round trip), the tool's peak memory
// over a large tree, and a tree deeper than any name can reach. Prints one table.
//
//   transfer_bench [--quick] [--dir FOLDER] [--repeat N] [--only bulk,small,memory,depth]
//                  [--one-cpu]
//
// The raw round trip waits as both ends of the toolgate do: a short spin, then a sleep.
// --one-cpu runs everything (tool, host, cp) on one processor, where neither end spins and
// a round trip is a hand-over on one processor, as a guest's call into its host is on a
// real machine.
#include <fcntl.h>
#include <malloc.h>
#include <sched.h>
#include <signal.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/vfs.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cinttypes>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "channel/communicator.h"
#include "channel/dnd_message.h"
#include "common/signal_block.h"
#include "hostsim/host.h"
#include "hostsim/tree_sink.h"
#include "hostsim/tree_source.h"
#include "platform/sim/socket_wait.h"
#include "transfer/transfer_job.h"

extern char** environ;

namespace {

using Clock = std::chrono::steady_clock;
namespace dnd = qvx::dnd;

constexpr uint64_t kWorker = 0xBE7C;
constexpr uint64_t kMiB = 1024 * 1024;
constexpr int kDepth = 2000;
constexpr size_t kSmallFileBytes = 4096;

struct Sizes {
    int bulkFiles = 8;
    uint64_t bulkFileBytes = 128 * kMiB;
    int smallFiles = 10000;
    int smallFolders = 100;
    int memoryFiles = 100000;
    int memoryFolders = 1000;
};

double seconds_since(Clock::time_point start) {
    return std::chrono::duration<double>(Clock::now() - start).count();
}

// Processor time of the whole process (user and system), in seconds: less disturbed by
// other work on the machine than the elapsed time, since waiting for a core is not in it.
double cpu_seconds() {
    rusage usage{};
    ::getrusage(RUSAGE_SELF, &usage);
    auto seconds = [](const timeval& t) { return static_cast<double>(t.tv_sec) + t.tv_usec / 1e6; };
    return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

[[noreturn]] void die(const std::string& what) {
    std::fprintf(stderr, "transfer_bench: %s\n", what.c_str());
    std::exit(1);
}

// --- files --------------------------------------------------------------------------

void make_dir(const std::string& path) {
    if (::mkdir(path.c_str(), 0755) != 0 && errno != EEXIST) die("cannot create " + path);
}

void write_file_at(int dirFd, const char* name, const uint8_t* data, size_t size) {
    const int fd = ::openat(dirFd, name, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0) die(std::string("cannot create ") + name);
    for (size_t done = 0; done < size;) {
        const ssize_t n = ::write(fd, data + done, size - done);
        if (n <= 0) die(std::string("cannot write ") + name);
        done += static_cast<size_t>(n);
    }
    ::close(fd);
}

// `files` files of `bytes` bytes each, spread over `folders` folders of `top`.
void make_small_tree(const std::string& top, int files, int folders, size_t bytes) {
    make_dir(top);
    std::vector<uint8_t> data(bytes);
    for (size_t i = 0; i < bytes; ++i) data[i] = static_cast<uint8_t>(i * 31 + 7);
    for (int d = 0; d < folders; ++d) {
        char name[32];
        std::snprintf(name, sizeof name, "/folder%04d", d);
        const std::string folder = top + name;
        make_dir(folder);
        const int dirFd = ::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        const int count = files / folders + (d < files % folders ? 1 : 0);
        for (int f = 0; f < count; ++f) {
            std::snprintf(name, sizeof name, "file%06d.dat", f);
            data[0] = static_cast<uint8_t>(f);
            write_file_at(dirFd, name, data.data(), data.size());
        }
        ::close(dirFd);
    }
}

void make_bulk_tree(const std::string& top, int files, uint64_t bytes) {
    make_dir(top);
    std::vector<uint8_t> block(4 * kMiB);
    for (size_t i = 0; i < block.size(); ++i)
        block[i] = static_cast<uint8_t>((i * 2654435761u) >> 13);
    for (int f = 0; f < files; ++f) {
        const std::string path = top + "/part" + std::to_string(f) + ".bin";
        const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
        if (fd < 0) die("cannot create " + path);
        for (uint64_t done = 0; done < bytes;) {
            const size_t n = static_cast<size_t>(std::min<uint64_t>(block.size(), bytes - done));
            block[0] = static_cast<uint8_t>(done >> 20);
            if (::write(fd, block.data(), n) != static_cast<ssize_t>(n))
                die("cannot write " + path);
            done += n;
        }
        ::close(fd);
    }
}

// A chain of `depth` folders named "d" below `top`; made through descriptors, since the
// path of the deepest is longer than a path may be.
void make_deep_tree(const std::string& top, int depth) {
    make_dir(top);
    int fd = ::open(top.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    for (int i = 0; i < depth && fd >= 0; ++i) {
        if (::mkdirat(fd, "d", 0755) != 0) die("cannot create a deep folder");
        const int next = ::openat(fd, "d", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        ::close(fd);
        fd = next;
    }
    if (fd < 0) die("cannot open a deep folder");
    ::close(fd);
}

// How many folders named "d" lie one inside the other below `top`.
int deep_levels(const std::string& top) {
    int fd = ::open(top.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    int levels = 0;
    while (fd >= 0) {
        const int next = ::openat(fd, "d", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        ::close(fd);
        fd = next;
        if (fd >= 0) ++levels;
    }
    return levels;
}

// Runs a program to its end; its time in seconds, or a negative value when it failed.
double run_program(const std::vector<std::string>& args) {
    std::vector<char*> argv;
    for (const std::string& a : args) argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    const auto start = Clock::now();
    pid_t pid = 0;
    if (posix_spawnp(&pid, argv[0], nullptr, nullptr, argv.data(), environ) != 0) return -1;
    int status = 0;
    while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    const double took = seconds_since(start);
    return WIFEXITED(status) && WEXITSTATUS(status) == 0 ? took : -1;
}

void remove_all(const std::string& path) {
    if (::access(path.c_str(), F_OK) == 0 && run_program({"rm", "-rf", path}) < 0)
        die("cannot remove " + path);
}

// --- memory -------------------------------------------------------------------------

// A field of /proc/self/status, in bytes.
uint64_t status_bytes(const char* field) {
    std::ifstream in("/proc/self/status");
    std::string line;
    const size_t n = std::strlen(field);
    while (std::getline(in, line)) {
        if (line.compare(0, n, field) == 0 && line.size() > n && line[n] == ':')
            return std::strtoull(line.c_str() + n + 1, nullptr, 10) * 1024;
    }
    return 0;
}

// Lowers the peak (VmHWM) to the present resident size; false where the kernel refuses.
bool reset_peak() {
    const int fd = ::open("/proc/self/clear_refs", O_WRONLY | O_CLOEXEC);
    if (fd < 0) return false;
    const bool ok = ::write(fd, "5", 1) == 1;
    ::close(fd);
    return ok;
}

// --- the tool's side ----------------------------------------------------------------

// Runs one transfer job on a thread of its own, as the pool does.
void run_job(qvx::TransferJob& job) {
    qvx::CommonMacCommunicator communicator;
    if (communicator.handle() == 0) die("the tool cannot reach the host");
    const qvx::DnDContext ctx{job.workerId, &communicator, qvx::SendDnDCommand};
    std::thread thread;
    {
        const qvx::ScopedSignalBlock block({SIGINT, SIGTERM});
        thread = std::thread([&] { qvx::RunTransferJob(job, ctx); });
    }
    thread.join();
}

void send_job(const std::string& path) {
    qvx::TransferJob job;
    job.direction = qvx::kDirectionSend;
    job.action = qvx::kActionSend;
    job.workerId = kWorker;
    job.paths = {path};
    run_job(job);
}

void receive_job(const std::string& destination) {
    qvx::TransferJob job;
    job.direction = qvx::kDirectionReceive;
    job.workerId = kWorker;
    job.destination = destination;
    run_job(job);
}

// --- the host's side ----------------------------------------------------------------

// The host's listing of `folder`'s contents, or of a hand-made chain of `depth` folders.
std::shared_ptr<hostsim::TreeSource> listing_of(const std::string& folder) {
    std::vector<hostsim::SourceItem> items;
    if (!hostsim::list_folder(folder, items)) die("cannot list " + folder);
    return std::make_shared<hostsim::TreeSource>(std::move(items));
}

std::shared_ptr<hostsim::TreeSource> deep_listing(int depth) {
    std::vector<hostsim::SourceItem> items;
    std::u16string name = u"\\Deep";
    for (int level = 1; level <= depth; ++level) {
        hostsim::SourceItem item;
        item.kind = hostsim::SourceItem::Kind::Folder;
        item.depth = static_cast<uint32_t>(level);
        item.attributes = qvx::kAttrDirectory;
        item.mode = 040755;
        item.name = name;
        items.push_back(std::move(item));
        name += u"\\d";
    }
    for (int level = depth + 1; level >= 1; --level)
        items.push_back(hostsim::SourceItem::end_of_level(static_cast<uint32_t>(level)));
    return std::make_shared<hostsim::TreeSource>(std::move(items));
}

// The host of the memory runs lives in a process of its own, so that the tool's process
// holds only the tool: `transfer_bench --host-child send|receive FOLDER`. It says "ready"
// once it serves, and the outcome once the transfer's 260 has come.
int host_child(const std::string& mode, const std::string& folder) {
    hostsim::HostOptions options;
    options.trace = false;
    options.traceCapacity = 0;
    hostsim::Host host(options);
    if (!host.start()) return 1;
    std::unique_ptr<hostsim::TreeSink> sink;
    std::shared_ptr<hostsim::TreeSource> source;
    if (mode == "send") {
        hostsim::SinkOptions sinkOptions;
        sinkOptions.folder = folder;
        sink = std::make_unique<hostsim::TreeSink>(host, sinkOptions);
    } else {
        source = listing_of(folder);
        hostsim::serve_tree(host, kWorker, source);
    }
    std::printf("ready\n");
    std::fflush(stdout);
    while (host.message_count(dnd::kCmdEnd) == 0)
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    if (sink) {
        const auto r = sink->result(kWorker);
        std::printf("%s %" PRIu64 " items\n", r ? hostsim::state_name(r->state) : "none",
                    r ? r->items : 0);
    } else {
        int failures = 0;
        for (const auto& n : source->notices()) failures += n.dialogId == 3 || n.dialogId == 4;
        std::printf("%" PRIu64 " items served, %d failure notices\n", source->items_served(),
                    failures);
    }
    std::fflush(stdout);
    host.stop();
    return 0;
}

struct Child {
    pid_t pid = -1;
    FILE* out = nullptr;
};

Child start_host_child(const std::string& mode, const std::string& folder) {
    int pipeFds[2];
    if (::pipe2(pipeFds, O_CLOEXEC) != 0) die("pipe");
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, pipeFds[1], STDOUT_FILENO);
    std::string self = "/proc/self/exe";
    std::vector<std::string> args = {"transfer_bench", "--host-child", mode, folder};
    std::vector<char*> argv;
    for (std::string& a : args) argv.push_back(a.data());
    argv.push_back(nullptr);
    Child child;
    if (posix_spawn(&child.pid, self.c_str(), &actions, nullptr, argv.data(), environ) != 0)
        die("cannot start the host process");
    posix_spawn_file_actions_destroy(&actions);
    ::close(pipeFds[1]);
    child.out = ::fdopen(pipeFds[0], "r");
    char line[128];
    if (!child.out || !std::fgets(line, sizeof line, child.out) ||
        std::strcmp(line, "ready\n") != 0)
        die("the host process did not start");
    return child;
}

std::string finish_host_child(Child& child) {
    char line[128] = "";
    if (!std::fgets(line, sizeof line, child.out)) std::strcpy(line, "no outcome\n");
    std::fclose(child.out);
    int status = 0;
    while (::waitpid(child.pid, &status, 0) < 0 && errno == EINTR) {
    }
    std::string text = line;
    if (!text.empty() && text.back() == '\n') text.pop_back();
    return text;
}

// --- the channel's floor ------------------------------------------------------------

// Waits as the toolgate's two ends do (a short spin, then a sleep), so that the floor is
// the same channel without the tool and the host on it.
bool read_exact(int fd, uint8_t* p, size_t n) {
    while (n) {
        ssize_t r = toolgate::receive_before_sleep(fd, p, n);
        if (r < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) r = ::read(fd, p, n);
        if (r <= 0) return false;
        p += r;
        n -= static_cast<size_t>(r);
    }
    return true;
}

// One round trip over a socketpair between two threads: a 2196-byte message carrying
// `payload` more bytes one way, and a 2196-byte answer: mean seconds, and the processor
// time both threads spent on it.
struct Trip {
    double seconds = 0;
    double cpu = 0;
};

Trip raw_round_trip(int trips, size_t payload = 0) {
    int sv[2];
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sv) != 0) die("socketpair");
    const size_t sent = dnd::kMessageSize + payload;
    std::thread echo([fd = sv[1], sent] {
        std::vector<uint8_t> buffer(sent);
        while (read_exact(fd, buffer.data(), sent))
            if (::write(fd, buffer.data(), dnd::kMessageSize) < 0) break;
    });
    std::vector<uint8_t> message(sent, 1), answer(dnd::kMessageSize);
    const double cpu = cpu_seconds();
    const auto start = Clock::now();
    for (int i = 0; i < trips; ++i) {
        if (::write(sv[0], message.data(), message.size()) < 0 ||
            !read_exact(sv[0], answer.data(), answer.size()))
            die("socketpair ping-pong failed");
    }
    const double took = seconds_since(start);
    const double used = cpu_seconds() - cpu;
    ::shutdown(sv[0], SHUT_RDWR);
    echo.join();
    ::close(sv[0]);
    ::close(sv[1]);
    return {took / trips, used / trips};
}

// The median of a few batches: a batch that another engineer's build disturbed does not
// decide the floor.
Trip floor_round_trip(size_t payload = 0, int trips = 4000) {
    std::vector<Trip> batches;
    for (int i = 0; i < 5; ++i) batches.push_back(raw_round_trip(trips, payload));
    std::sort(batches.begin(), batches.end(),
              [](const Trip& a, const Trip& b) { return a.seconds < b.seconds; });
    return batches[batches.size() / 2];
}

// --- the table ----------------------------------------------------------------------

struct Row {
    std::string name, size, tool, baseline, ratio, target, verdict, note;
};

std::string format(const char* fmt, ...) __attribute__((format(printf, 1, 2)));
std::string format(const char* fmt, ...) {
    char text[512];
    va_list args;
    va_start(args, fmt);
    std::vsnprintf(text, sizeof text, fmt, args);
    va_end(args);
    return text;
}

std::string count_text(uint64_t n) {
    std::string digits = std::to_string(n);
    for (int at = static_cast<int>(digits.size()) - 3; at > 0; at -= 3)
        digits.insert(static_cast<size_t>(at), ",");
    return digits;
}

std::string bytes_text(uint64_t bytes) {
    if (bytes >= 1024 * kMiB && bytes % (1024 * kMiB) == 0)
        return format("%" PRIu64 " GiB", bytes / (1024 * kMiB));
    return format("%" PRIu64 " MiB", bytes / kMiB);
}

void print_table(const std::vector<Row>& rows) {
    const char* headers[] = {"case", "size", "tool", "baseline", "ratio", "target", ""};
    size_t width[7] = {};
    auto cells = [](const Row& r) {
        return std::vector<std::string>{r.name,  r.size,   r.tool,   r.baseline,
                                        r.ratio, r.target, r.verdict};
    };
    for (int i = 0; i < 7; ++i) width[i] = std::strlen(headers[i]);
    for (const Row& r : rows) {
        const auto c = cells(r);
        for (int i = 0; i < 7; ++i) width[i] = std::max(width[i], c[static_cast<size_t>(i)].size());
    }
    auto line = [&](const std::vector<std::string>& c) {
        std::string text;
        for (size_t i = 0; i < c.size(); ++i)
            text += format("%-*s  ", static_cast<int>(width[i]), c[i].c_str());
        while (!text.empty() && text.back() == ' ') text.pop_back();
        std::printf("%s\n", text.c_str());
    };
    line({headers, headers + 7});
    for (const Row& r : rows) line(cells(r));
    std::printf("\n");
    for (const Row& r : rows)
        if (!r.note.empty()) std::printf("%s: %s\n", r.name.c_str(), r.note.c_str());
}

// --- the runs -----------------------------------------------------------------------

struct Bench {
    Sizes sizes;
    int repeat = 1;
    std::string work;  // everything the bench makes lies in here
    std::vector<Row> rows;
    std::unique_ptr<hostsim::Host> host;
    double lastCpu = 0;         // processor seconds of the last timed transfer, both ends
    uint64_t lastMessages = 0;  // messages the host answered in it

    // The fastest of the repeated runs of one direction of a case.
    struct Best {
        double seconds = 1e30, cpu = 1e30;
        uint64_t messages = 0;
    };

    void start_host() {
        hostsim::HostOptions options;
        options.trace = false;
        options.traceCapacity = 0;
        host = std::make_unique<hostsim::Host>(options);
        if (!host->start()) die("the host does not start");
    }

    // Sends `top` into a fresh host folder; the seconds it took.
    double timed_send(const std::string& top, const std::string& into, hostsim::SinkResult* out) {
        remove_all(into);
        hostsim::SinkOptions options;
        options.folder = into;
        hostsim::TreeSink sink(*host, options);
        const double cpu = cpu_seconds();
        const uint64_t before = host->request_count();
        const auto start = Clock::now();
        send_job(top);
        const double took = seconds_since(start);
        lastCpu = cpu_seconds() - cpu;
        lastMessages = host->request_count() - before;
        const auto result = sink.result(kWorker);
        if (!result) die("the host saw no send");
        if (out) *out = *result;
        return took;
    }

    // Receives what the host lists of `folder` into a fresh guest folder.
    double timed_receive(std::shared_ptr<hostsim::TreeSource> source, const std::string& into) {
        remove_all(into);
        make_dir(into);
        hostsim::serve_tree(*host, kWorker, source);
        const double cpu = cpu_seconds();
        const uint64_t before = host->request_count();
        const auto start = Clock::now();
        receive_job(into);
        const double took = seconds_since(start);
        lastCpu = cpu_seconds() - cpu;
        lastMessages = host->request_count() - before;
        host->clear_worker_handler(kWorker);
        return took;
    }

    void check_send(const hostsim::SinkResult& r, const char* what) {
        if (r.state != hostsim::SinkResult::State::Done || !r.totals_match())
            die(format("%s: the host holds %s (%s)", what, hostsim::state_name(r.state),
                       r.refusal.c_str()));
    }

    void check_receive(const hostsim::TreeSource& source, uint64_t items, const char* what) {
        if (source.items_served() != items || source.ends() != 1)
            die(format("%s: %" PRIu64 " of %" PRIu64 " items served", what, source.items_served(),
                       items));
        for (const auto& n : source.notices())
            if (n.dialogId == 4 || n.dialogId == 3)
                die(format("%s: the guest reported a failure", what));
    }

    void keep_if_faster(Best& best, double took) {
        best.seconds = std::min(best.seconds, took);
        best.cpu = std::min(best.cpu, lastCpu);
        best.messages = lastMessages;
    }

    // One round of a case over the tree `top` inside `src` (`items` items with `top`):
    // `cp -r` of it, a send of it to the host and a receive of it from the host, each
    // checked, the fastest kept.
    void one_round(const std::string& name, const std::string& src, const std::string& top,
                   uint64_t items, double& cp, Best& send, Best& receive) {
        const std::string copy = work + "/" + name + "-cp";
        const double c = run_program({"cp", "-r", top, copy});
        if (c < 0) die("cp -r failed");
        cp = std::min(cp, c);
        remove_all(copy);

        const std::string hostCopy = work + "/" + name + "-host";
        hostsim::SinkResult r;
        keep_if_faster(send, timed_send(top, hostCopy, &r));
        check_send(r, (name + " send").c_str());
        remove_all(hostCopy);

        const std::string guestCopy = work + "/" + name + "-guest";
        auto source = listing_of(src);
        keep_if_faster(receive, timed_receive(source, guestCopy));
        check_receive(*source, items, (name + " receive").c_str());
        remove_all(guestCopy);
    }

    void bulk() {
        const std::string src = work + "/bulk-src", top = src + "/Bulk";
        const uint64_t total = sizes.bulkFiles * sizes.bulkFileBytes;
        make_dir(src);
        make_bulk_tree(top, sizes.bulkFiles, sizes.bulkFileBytes);
        double cp = 1e30;
        Best send, receive;
        for (int i = 0; i < repeat; ++i)
            one_round("bulk", src, top, static_cast<uint64_t>(sizes.bulkFiles) + 1, cp, send,
                      receive);
        remove_all(src);
        // What the channel alone costs for these messages: each chunk is one round trip
        // carrying 128 KiB, every other message (progress notices, headers) a plain one.
        const Trip chunkTrip = floor_round_trip(dnd::kMaxChunk, 200);
        const Trip plainTrip = floor_round_trip();
        const double chunks = static_cast<double>(total) / dnd::kMaxChunk;
        const std::string size =
            format("%s in %d files", bytes_text(total).c_str(), sizes.bulkFiles);
        const double mbps = static_cast<double>(total) / 1e6;
        for (auto [name, best] :
             {std::pair{"bulk send", send}, std::pair{"bulk receive", receive}}) {
            const auto [took, cpu, messages] = best;
            const double ratio = cp / took;
            const double channel = chunks * chunkTrip.seconds +
                                   (static_cast<double>(messages) - chunks) * plainTrip.seconds;
            rows.push_back(
                {name, size, format("%.2f s, %.0f MB/s", took, mbps / took),
                 format("cp -r %.2f s, %.0f MB/s", cp, mbps / cp), format("%.2fx", ratio),
                 ">= 0.60x", ratio >= 0.6 ? "met" : "missed",
                 format("processor time of both ends %.2f s (%.1f us per 128 KiB); %s messages "
                        "(%.2f per chunk); the channel alone takes %.2f s for them (%.1f us a "
                        "128 KiB round trip, %.1f us a plain one), %.2fx cp -r",
                        cpu, cpu * 1e6 / chunks, count_text(messages).c_str(), messages / chunks,
                        channel, chunkTrip.seconds * 1e6, plainTrip.seconds * 1e6, cp / channel)});
        }
    }

    void small() {
        const std::string src = work + "/small-src", top = src + "/Small";
        make_dir(src);
        make_small_tree(top, sizes.smallFiles, sizes.smallFolders, kSmallFileBytes);
        const uint64_t items = static_cast<uint64_t>(sizes.smallFiles + sizes.smallFolders) + 1;
        double cp = 1e30;  // not a baseline of the ratio: the file system's own share
        Best send, receive;
        std::vector<Trip> floors;
        for (int i = 0; i < repeat; ++i) {
            floors.push_back(floor_round_trip());
            one_round("small", src, top, items, cp, send, receive);
        }
        floors.push_back(floor_round_trip());
        remove_all(src);
        std::sort(floors.begin(), floors.end(),
                  [](const Trip& a, const Trip& b) { return a.seconds < b.seconds; });
        const double trip = floors[floors.size() / 2].seconds;
        const double tripCpu = floors[floors.size() / 2].cpu;
        const std::string size =
            format("%s x 4 KiB in %d folders",
                   count_text(static_cast<uint64_t>(sizes.smallFiles)).c_str(), sizes.smallFolders);
        const double files = sizes.smallFiles;
        for (auto [name, best] :
             {std::pair{"small send", send}, std::pair{"small receive", receive}}) {
            const auto [took, cpu, messages] = best;
            const double floor = static_cast<double>(messages) * trip;
            const double ratio = took / floor;
            const double perFile = static_cast<double>(messages) / files;
            rows.push_back(
                {name, size, format("%.2f s", took), format("floor %.2f s", floor),
                 format("%.2fx", ratio), "<= 1.25x", ratio <= 1.25 ? "met" : "missed",
                 format("%s messages (%.1f per file) x %.1f us raw round trip; processor time "
                        "%.1f us per file, %.1f us for its raw round trips (%.2fx); cp -r of "
                        "the tree alone takes %.2f s (%.2fx the floor)",
                        count_text(messages).c_str(), perFile, trip * 1e6, cpu * 1e6 / files,
                        perFile * tripCpu * 1e6, cpu / files / (perFile * tripCpu), cp,
                        cp / floor)});
        }
    }

    // Peak resident memory of the tool's process above its idle size while it runs one
    // transfer; the host runs in a process of its own.
    void memory_run(const char* name, const std::string& mode, const std::string& hostFolder,
                    const std::string& guestPath, const std::string& size) {
        Child child = start_host_child(mode, hostFolder);
        malloc_trim(0);
        const uint64_t idle = status_bytes("VmRSS");
        const bool reset = reset_peak();
        const auto start = Clock::now();
        if (mode == "send")
            send_job(guestPath);
        else
            receive_job(guestPath);
        const double took = seconds_since(start);
        const uint64_t peak = status_bytes("VmHWM");
        const std::string outcome = finish_host_child(child);
        const double above = peak > idle ? static_cast<double>(peak - idle) / kMiB : 0.0;
        rows.push_back({name, size, format("+%.1f MiB", above),
                        format("idle %.1f MiB", static_cast<double>(idle) / kMiB), "-", "<= 16 MiB",
                        above <= 16 ? "met" : "missed",
                        format("%.1f s; host (own process): %s%s", took, outcome.c_str(),
                               reset ? "" : "; peak not resettable, whole-process peak")});
    }

    void memory() {
        const std::string src = work + "/memory-src", top = src + "/Many";
        make_dir(src);
        make_small_tree(top, sizes.memoryFiles, sizes.memoryFolders, kSmallFileBytes);
        const std::string size = format(
            "%s x 4 KiB in %d folders",
            count_text(static_cast<uint64_t>(sizes.memoryFiles)).c_str(), sizes.memoryFolders);
        const std::string hostCopy = work + "/memory-host", guestCopy = work + "/memory-guest";
        remove_all(hostCopy);
        memory_run("memory send", "send", hostCopy, top, size);
        remove_all(hostCopy);
        remove_all(guestCopy);
        make_dir(guestCopy);
        memory_run("memory receive", "receive", src, guestCopy, size);
        remove_all(guestCopy);
        remove_all(src);
    }

    void depth() {
        const std::string src = work + "/deep-src", top = src + "/Deep";
        make_dir(src);
        make_deep_tree(top, kDepth);
        const std::string hostCopy = work + "/deep-host", guestCopy = work + "/deep-guest";
        hostsim::SinkResult r;
        const double send = timed_send(top, hostCopy, &r);
        std::string codes;
        for (uint32_t c : r.failureCodes) codes += format("%s(4, %u)", codes.empty() ? "" : " ", c);
        const int sentLevels = deep_levels(hostCopy + "/Deep") + 1;
        rows.push_back({"depth send", format("%d folders deep", kDepth + 1), format("%.2f s", send),
                        "-", "-", "ends cleanly",
                        r.state != hostsim::SinkResult::State::Running ? "met" : "missed",
                        format("%s after %d levels, notice %s", hostsim::state_name(r.state),
                               sentLevels, codes.empty() ? "none" : codes.c_str())});
        remove_all(hostCopy);

        auto source = deep_listing(kDepth + 1);
        const double receive = timed_receive(source, guestCopy);
        std::string notices;
        for (const auto& n : source->notices())
            if (n.dialogId == 4) notices += format("%s(4, %u)", notices.empty() ? "" : " ", n.code);
        const int receivedLevels = deep_levels(guestCopy + "/Deep") + 1;
        rows.push_back(
            {"depth receive", format("%d folders deep", kDepth + 1), format("%.2f s", receive), "-",
             "-", "ends cleanly", source->ends() == 1 ? "met" : "missed",
             format("%s after %d levels, notice %s", source->ends() == 1 ? "ended" : "not ended",
                    receivedLevels, notices.empty() ? "none" : notices.c_str())});
        remove_all(guestCopy);
        remove_all(src);
    }
};

// The folder to work in: tmpfs when it has room for the bulk data three times over (the
// source, the host's copy and cp's copy), else a disk folder.
std::string work_folder(const std::optional<std::string>& chosen, uint64_t bulkBytes,
                        std::string& kind) {
    const uint64_t needed = bulkBytes * 3 + 1024 * kMiB;
    std::vector<std::string> candidates;
    if (chosen) candidates.push_back(*chosen);
    candidates.insert(candidates.end(), {"/dev/shm", "/var/tmp", "/tmp"});
    for (const std::string& base : candidates) {
        struct statfs fs {};
        if (::statfs(base.c_str(), &fs) != 0) continue;
        const uint64_t free =
            static_cast<uint64_t>(fs.f_bavail) * static_cast<uint64_t>(fs.f_bsize);
        if (!chosen && free < needed) continue;
        std::string templ = base + "/qvxbench.XXXXXX";
        if (!::mkdtemp(templ.data())) continue;
        kind = fs.f_type == 0x01021994 ? "tmpfs" : "disk";
        kind += format(", %.1f GiB free", static_cast<double>(free) / (1024.0 * kMiB));
        return templ;
    }
    die("no folder with room for the bench");
}

}  // namespace

int main(int argc, char** argv) {
    if (argc == 4 && std::strcmp(argv[1], "--host-child") == 0) return host_child(argv[2], argv[3]);

    Bench bench;
    bool quick = false;
    std::optional<std::string> dir;
    std::string only;  // ",bulk,small," runs just those
    bool oneCpu = false;
    for (int i = 1; i < argc; ++i) {
        const std::string a = argv[i];
        if (a == "--quick") {
            quick = true;
        } else if (a == "--dir" && i + 1 < argc) {
            dir = argv[++i];
        } else if (a == "--only" && i + 1 < argc) {
            only = std::string(",") + argv[++i] + ",";
        } else if (a == "--one-cpu") {
            oneCpu = true;
        } else if (a == "--repeat" && i + 1 < argc) {
            bench.repeat = std::max(1, std::atoi(argv[++i]));
        } else {
            std::fprintf(stderr,
                         "usage: %s [--quick] [--dir FOLDER] [--repeat N] [--only "
                         "bulk,small,memory,depth] [--one-cpu]\n",
                         argv[0]);
            return 2;
        }
    }
    if (quick) {
        bench.sizes = Sizes{8, 32 * kMiB, 2000, 20, 10000, 100};
    } else if (bench.repeat == 1) {
        bench.repeat = 3;
    }
    int cpu = -1;
    if (oneCpu) {
        // Before any thread or child exists: they inherit the mask.
        cpu = sched_getcpu();
        cpu_set_t set;
        CPU_ZERO(&set);
        CPU_SET(cpu, &set);
        if (cpu < 0 || sched_setaffinity(0, sizeof set, &set) != 0) die("sched_setaffinity");
    }
    std::string kind;
    bench.work = work_folder(dir, bench.sizes.bulkFiles * bench.sizes.bulkFileBytes, kind);
    const std::string root = bench.work + "/root";
    make_dir(root);
    // Read once per process by the stand-ins; the host's child process inherits it.
    setenv("QVX_PLATFORM_ROOT", root.c_str(), 1);
    std::printf("transfer bench in %s (%s)%s, best of %d%s\n\n", bench.work.c_str(), kind.c_str(),
                quick ? ", quick" : "", bench.repeat,
                cpu >= 0 ? format(", all on processor %d", cpu).c_str() : "");
    std::fflush(stdout);

    // Memory first, before the in-process host or earlier runs have grown the heap.
    auto wanted = [&](const char* name) {
        return only.empty() || only.find(std::string(",") + name + ",") != std::string::npos;
    };
    if (wanted("memory")) bench.memory();
    bench.start_host();
    if (wanted("bulk")) bench.bulk();
    if (wanted("small")) bench.small();
    if (wanted("depth")) bench.depth();
    bench.host->stop();

    // In table order.
    std::vector<Row> ordered;
    for (const char* prefix : {"bulk", "small", "memory", "depth"})
        for (const Row& r : bench.rows)
            if (r.name.compare(0, std::strlen(prefix), prefix) == 0) ordered.push_back(r);
    print_table(ordered);
    remove_all(bench.work);
    return 0;
}
