// Fault sweeps over whole transfers of a 50-item tree with every kind of item, in both
// directions: the simulated host fails each message of the transfer in turn (connection
// closed, status 9, status 5), and the system-call seam fails each call of the guest in
// turn, a rename and a removal of a temporary among them. A receive replaces older items
// of the tree. Every run ends with exactly one 260, leaves no partial file or temporary in
// the guest and no descriptor or thread behind, and the same process then serves a
// transfer correctly.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "hostsim/tree_sink.h"
#include "hostsim/tree_source.h"
#include "log/log.h"
#include "support/fault_scope.h"
#include "support/job_host.h"
#include "support/scripted_host.h"
#include "support/source_host.h"
#include "support/temp_dir.h"
#include "support/trees.h"
#include "transfer/transfer_job.h"

namespace {

namespace fs = std::filesystem;
using namespace qvxtest;

// Every message and call in the default build. The sanitizer builds run the same sweeps
// many times slower, so they take every 7th (always the last as well): CI runs all three
// presets, and a full sweep under tsan alone would take minutes.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr uint64_t kStride = 7;
#else
constexpr uint64_t kStride = 1;
#endif

using Contents = TreeContents;

Contents contents_of(const std::string& root) {
    return tree_contents(root);
}

std::string bytes(size_t size, int seed) {
    std::string data(size, '\0');
    for (size_t i = 0; i < size; ++i) data[i] = static_cast<char>('a' + (i * 7 + seed) % 26);
    return data;
}

// The tree: `top` and 49 items below it. Files empty, small and of two chunks, folders
// empty, nested and with an odd mode, links relative, absolute, dangling and to a folder.
void make_tree(const std::string& top) {
    int seed = 0;
    for (const char* f : {"a", "b", "c", "d"}) {
        const std::string folder = top + "/" + f;
        for (size_t size : {0, 1, 100, 1000, 5000, 20})
            write_file(folder + "/file" + std::to_string(size), bytes(size, ++seed));
        write_file(folder + "/sub/one", bytes(10, ++seed));
        write_file(folder + "/sub/two", bytes(300, ++seed));
        ASSERT_EQ(::symlink("sub/one", (folder + "/link").c_str()), 0);
    }
    write_file(top + "/two chunks", bytes(131072 + 7, ++seed));
    write_file(top + "/private", "private");
    ASSERT_EQ(::chmod((top + "/private").c_str(), 0600), 0);
    make_dirs(top + "/empty");
    ASSERT_EQ(::chmod((top + "/empty").c_str(), 0700), 0);
    ASSERT_EQ(::symlink("/nonexistent/target", (top + "/dangling").c_str()), 0);
    ASSERT_EQ(::symlink("a", (top + "/to a").c_str()), 0);
}

void reset_folder(const std::string& path) {
    std::error_code ec;
    fs::remove_all(path, ec);
    make_dirs(path);
}

// What the destination holds before each receive: older versions of the host's folder,
// file and link, which the host replaces.
const Contents kOlder{{"tree", "d"},
                      {"tree/older only", "f:older"},
                      {"top file", "f:older"},
                      {"top link", "l:older"}};

void reset_destination(const std::string& dest) {
    reset_folder(dest);
    for (const auto& [name, what] : kOlder) {
        if (what[0] == 'f') write_file(dest + "/" + name, what.substr(2));
        if (what[0] == 'l') {
            ASSERT_EQ(::symlink(what.c_str() + 2, (dest + "/" + name).c_str()), 0);
        }
    }
}

// Whatever a failed receive left is whole: each item is one the source has, of the same
// kind, and each file has all of its bytes; or it is the older item it was to replace. No
// temporary is left behind.
void expect_nothing_partial(const std::string& dest, const Contents& source, uint64_t n) {
    for (const auto& [name, what] : contents_of(dest)) {
        auto it = source.find(name);
        auto older = kOlder.find(name);
        if (older != kOlder.end() && older->second == what) continue;
        if (it == source.end()) {
            ADD_FAILURE() << "message/call " << n << ": " << name << " is no source item";
        } else if (it->second != what) {
            ADD_FAILURE() << "message/call " << n << ": " << name << " is not whole ("
                          << what.size() - 2 << " of " << it->second.size() - 2 << " bytes)";
        }
    }
}

enum class HostFault { Close, Stop, Refuse };

const char* fault_name(HostFault f) {
    return f == HostFault::Close ? "Close" : f == HostFault::Stop ? "Status9" : "Status5";
}

class Sweep : public ::testing::Test {
  public:
    static void SetUpTestSuite() {
        s_jobs = new JobHost;
        // The log opens its file at the first line; a failure's line must not count as a
        // descriptor leaked.
        qvx::log_message("SWEEP", "test", 0, "fault sweep starts");
        s_dir = new TempDir(memory_temp_parent());
        make_tree(*s_dir / "host/tree");
        // Beside the tree, a file and a link that a receive replaces, as it does the tree.
        write_file(*s_dir / "host/top file", "top");
        ::symlink("tree", (*s_dir / "host/top link").c_str());
        make_tree(*s_dir / "guest/tree");
        make_dirs(*s_dir / "verify/source/v");
        write_file(*s_dir / "verify/source/v/f", "verified");
        ::symlink("v/f", (*s_dir / "verify/source/l").c_str());
    }
    static void TearDownTestSuite() {
        delete s_jobs;
        delete s_dir;
        s_jobs = nullptr;
        s_dir = nullptr;
    }
    void SetUp() override {
        ASSERT_TRUE(s_jobs->ready());
        ASSERT_TRUE(hostsim::list_folder(*s_dir / "host", m_listing));
        size_t items = 0;
        for (const auto& item : m_listing)
            items += item.kind != hostsim::SourceItem::Kind::EndOfLevel;
        ASSERT_EQ(items, 52u);
        m_hostTree = contents_of(*s_dir / "host");
        ASSERT_EQ(m_hostTree.size(), 52u);
        // A transfer in each direction first, so that the communicator's socket and the
        // host's connection are there before anything is counted.
        verify_receive();
        verify_send();
        m_baseline = ProcessCounts::now();
    }

    std::string dir(const std::string& relative) const { return *s_dir / relative; }

    // A receive and a send through the real communicator and host arrive whole.
    void verify_receive() {
        std::vector<hostsim::SourceItem> items;
        ASSERT_TRUE(hostsim::list_folder(dir("verify/source"), items));
        reset_folder(dir("verify/into"));
        auto source = std::make_shared<hostsim::TreeSource>(std::move(items));
        EXPECT_EQ(s_jobs->receive(source, dir("verify/into"), s_jobs->new_worker()), 1);
        EXPECT_EQ(contents_of(dir("verify/into")), contents_of(dir("verify/source")));
    }
    void verify_send() {
        reset_folder(dir("verify/stored"));
        hostsim::SinkOptions options;
        options.folder = dir("verify/stored");
        hostsim::TreeSink sink(s_jobs->host(), options);
        EXPECT_EQ(
            s_jobs->send({dir("verify/source/v"), dir("verify/source/l")}, s_jobs->new_worker()),
            1);
        EXPECT_EQ(contents_of(dir("verify/stored")), contents_of(dir("verify/source")));
    }

    void expect_no_leak(uint64_t n) {
        ProcessCounts seen;
        EXPECT_TRUE(ProcessCounts::settle_to(m_baseline, seen))
            << "message/call " << n << ": " << seen.fds << " descriptors, " << seen.threads
            << " threads where " << m_baseline.fds << " and " << m_baseline.threads << " were";
    }

    // The numbers a sweep visits: 1 to `last` by the stride, and `last` itself.
    static std::vector<uint64_t> visits(uint64_t last) {
        std::vector<uint64_t> out;
        for (uint64_t n = 1; n <= last; n += kStride) out.push_back(n);
        if (out.empty() || out.back() != last) out.push_back(last);
        return out;
    }

    void arm(HostFault fault, uint64_t worker, uint64_t n) {
        if (fault == HostFault::Close)
            s_jobs->host().close_transfer_at(worker, n);
        else
            s_jobs->host().fail_transfer_nth(worker, n, fault == HostFault::Stop ? 9 : 5);
    }

    static JobHost* s_jobs;
    static TempDir* s_dir;
    std::vector<hostsim::SourceItem> m_listing;
    Contents m_hostTree;
    ProcessCounts m_baseline;
};

JobHost* Sweep::s_jobs = nullptr;
TempDir* Sweep::s_dir = nullptr;

class HostFaultSweep : public Sweep, public ::testing::WithParamInterface<HostFault> {};

TEST_P(HostFaultSweep, EveryMessageOfAReceive) {
    const std::string dest = dir("dest");
    reset_destination(dest);
    uint64_t worker = s_jobs->new_worker();
    auto clean = std::make_shared<hostsim::TreeSource>(m_listing);
    ASSERT_EQ(s_jobs->receive(clean, dest, worker), 1);
    ASSERT_EQ(contents_of(dest), m_hostTree);
    const uint64_t messages = s_jobs->host().transfer_message_count(worker);
    ASSERT_GT(messages, 250u);

    for (uint64_t n : visits(messages)) {
        reset_destination(dest);
        worker = s_jobs->new_worker();
        arm(GetParam(), worker, n);
        auto source = std::make_shared<hostsim::TreeSource>(m_listing);
        EXPECT_EQ(s_jobs->receive(source, dest, worker), 1) << "message " << n;
        EXPECT_GE(s_jobs->host().transfer_message_count(worker), n);
        // The last message is the 260: the fault answers it in place of the tree source.
        EXPECT_EQ(source->ends(), n == messages ? 0u : 1u) << "message " << n;
        expect_nothing_partial(dest, m_hostTree, n);
        // After the next transfer: a connection cut off is open again by then.
        verify_receive();
        expect_no_leak(n);
        if (HasFailure()) break;
    }
}

TEST_P(HostFaultSweep, EveryMessageOfASend) {
    const std::string stored = dir("stored");
    const std::vector<std::string> paths{dir("guest/tree")};
    uint64_t messages = 0;
    {
        reset_folder(stored);
        hostsim::SinkOptions options;
        options.folder = stored;
        hostsim::TreeSink sink(s_jobs->host(), options);
        const uint64_t worker = s_jobs->new_worker();
        ASSERT_EQ(s_jobs->send(paths, worker), 1);
        ASSERT_EQ(contents_of(stored), contents_of(dir("guest")));
        messages = s_jobs->host().transfer_message_count(worker);
        ASSERT_GT(messages, 250u);
    }
    for (uint64_t n : visits(messages)) {
        reset_folder(stored);
        {
            hostsim::SinkOptions options;
            options.folder = stored;
            // A transfer whose 260 never came holds its folder open until the sink goes.
            hostsim::TreeSink sink(s_jobs->host(), options);
            const uint64_t worker = s_jobs->new_worker();
            arm(GetParam(), worker, n);
            EXPECT_EQ(s_jobs->send(paths, worker), 1) << "message " << n;
            EXPECT_GE(s_jobs->host().transfer_message_count(worker), n);
        }
        verify_send();
        expect_no_leak(n);
        if (HasFailure()) break;
    }
}

INSTANTIATE_TEST_SUITE_P(Faults, HostFaultSweep,
                         ::testing::Values(HostFault::Close, HostFault::Stop, HostFault::Refuse),
                         [](const auto& info) { return fault_name(info.param); });

// The guest's n-th system call fails with EIO, for every n (by the stride) until a transfer
// gets through untouched; returns the number of calls that transfer made. The host is
// played in-process, so that only the guest's calls are counted.
template <class Run>
uint64_t sweep_calls(Run& run) {
    for (uint64_t n = 1;; n += kStride) {
        platform::fault_inject(platform::Sys::any, n, EIO);
        run(n);
        const bool fired = platform::fault_fired();
        platform::fault_clear();
        if (!fired) return platform::fault_calls(platform::Sys::any);
        run.check(n);
        if (::testing::Test::HasFailure()) return 0;
    }
}

using SyscallSweep = Sweep;

TEST_F(SyscallSweep, EveryCallOfAReceive) {
    const std::string dest = dir("dest");
    FaultScope faults;
    struct {
        SyscallSweep* test;
        std::string dest;
        std::unique_ptr<SourceHost> host;
        void operator()(uint64_t) {
            reset_destination(dest);
            host = std::make_unique<SourceHost>(test->m_listing);
            qvx::TransferJob job;
            job.direction = qvx::kDirectionReceive;
            job.destination = dest;
            qvx::RunTransferJob(job, host->context());
        }
        void check(uint64_t n) {
            EXPECT_EQ(host->of(qvx::dnd::kCmdEnd).size(), 1u) << "call " << n;
            EXPECT_EQ(host->commands().back(), qvx::dnd::kCmdEnd) << "call " << n;
            expect_nothing_partial(dest, test->m_hostTree, n);
            test->expect_no_leak(n);
            test->verify_receive();
        }
    } run{this, dest, nullptr};
    EXPECT_GT(sweep_calls(run), 800u) << "a receive of 52 items makes more calls than that";
    EXPECT_EQ(contents_of(dest), m_hostTree) << "the run the fault did not reach";
    EXPECT_EQ(platform::fault_calls(platform::Sys::rename_exchange), 3u)
        << "each older item was exchanged for its new one";
}

TEST_F(SyscallSweep, EveryCallOfASend) {
    FaultScope faults;
    struct {
        SyscallSweep* test;
        std::unique_ptr<ScriptedHost> host;
        // The host accepts everything; what arrives is checked by the host sweeps.
        void operator()(uint64_t) {
            host = std::make_unique<ScriptedHost>();
            qvx::TransferJob job;
            job.direction = qvx::kDirectionSend;
            job.action = qvx::kActionSend;
            job.paths = {test->dir("guest/tree")};
            qvx::RunTransferJob(job, host->context());
        }
        void check(uint64_t n) {
            size_t ends = 0;
            for (uint32_t c : host->commands()) ends += c == qvx::dnd::kCmdEnd;
            EXPECT_EQ(ends, 1u) << "call " << n;
            EXPECT_EQ(host->commands().back(), qvx::dnd::kCmdEnd) << "call " << n;
            test->expect_no_leak(n);
            test->verify_send();
        }
    } run{this, nullptr};
    EXPECT_GT(sweep_calls(run), 500u) << "a send of 50 items makes more calls than that";
    size_t entries = 0;
    for (uint32_t c : run.host->commands()) entries += c == qvx::dnd::kCmdItemAttributes;
    EXPECT_EQ(entries, 50u) << "the run the fault did not reach sent one 271 per item";
}

}  // namespace
