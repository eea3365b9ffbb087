// The real qvxdragdrop process in a private platform root, against the simulated host.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "hostsim/host.h"
#include "support/processes.h"
#include "support/temp_dir.h"

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

using qvxtest::exists;

size_t occurrences(const std::string& all, const std::string& text) {
    size_t n = 0;
    for (size_t pos = all.find(text); pos != std::string::npos; pos = all.find(text, pos + 1)) ++n;
    return n;
}

// The index of the first line holding `text`, or -1.
long line_of(const std::vector<std::string>& lines, const std::string& text) {
    for (size_t i = 0; i < lines.size(); ++i)
        if (lines[i].find(text) != std::string::npos) return static_cast<long>(i);
    return -1L;
}

class ToolProcessTest : public qvxtest::ProgramRootTest {
  protected:
    void set_platform(const std::string& json) {
        qvxtest::write_file(m_root / "etc/quorvex/platform.json", json);
    }
    std::unique_ptr<hostsim::Host> start_host() {
        hostsim::HostOptions options;
        options.root = m_root.path();
        auto host = std::make_unique<hostsim::Host>(options);
        EXPECT_TRUE(host->start());
        return host;
    }

    void spawn() {
        m_pid = qvxtest::spawn_tool(m_root.path());
        ASSERT_GE(m_pid, 0);
    }
    // Starts qvxhost on this root with `args`, its standard output going to `outPath`.
    void spawn_host(std::vector<std::string> args, const std::string& outPath) {
        m_hostPid = qvxtest::spawn_qvxhost(m_root.path(), std::move(args), outPath);
        ASSERT_GE(m_hostPid, 0);
    }
    // The exit status when the process ends within `timeout`, so that a hang fails.
    std::optional<int> wait_exit(std::chrono::milliseconds timeout) {
        return qvxtest::wait_exit(m_pid, timeout);
    }

    // The stop as the log and the host saw it: the four stop lines in order after the
    // control thread's own, nothing reported as a failure, 257 then the unregistration.
    void expect_orderly_stop(const hostsim::Host& host) {
        EXPECT_TRUE(host.tool_stopped());
        const auto lines = host.trace().lines();
        const long stop = line_of(lines, "guest->host 257");
        const long unreg = line_of(lines, "unregister quorvex.DragDropTool.guest.mac");
        EXPECT_GE(stop, 0);
        EXPECT_GT(unreg, stop);

        const std::string text = log();
        const size_t s1 = text.find("[DNDTOOL] Stop DnD Tool\n");
        const size_t s2 = text.find("[DNDTOOL] Stop DnD Tool [ctrl thread stop]\n");
        const size_t s3 = text.find("[DNDTOOL] Stop DnD Tool [DnDPool stop]\n");
        const size_t s4 = text.find("[DNDTOOL] Stop DnD Tool [communicator deleted]\n");
        ASSERT_NE(s4, std::string::npos) << text;
        EXPECT_TRUE(s1 < s2 && s2 < s3 && s3 < s4) << text;
        EXPECT_LT(text.find("[DNDTOOL] Control Thread stopped"), s2);
        EXPECT_EQ(log_count("Stop DnD Tool\n"), 1u);  // the further stop blocks never run
        EXPECT_EQ(log_count("Can't send"), 0u) << text;
        EXPECT_EQ(log().find(" F /qvxdragdrop:"), std::string::npos) << text;
    }
    std::string log() { return exists(log_path()) ? qvxtest::read_file(log_path()) : ""; }
    std::string log_path() { return m_root / "Library/Logs/quorvex.log"; }
    size_t log_count(const std::string& text) { return occurrences(log(), text); }
};

TEST_F(ToolProcessTest, WithoutToolgateItLogsAndLeavesWithoutAnApplication) {
    spawn();
    EXPECT_EQ(wait_exit(1000ms), std::optional<int>(0));
    EXPECT_NE(log().find(" F /qvxdragdrop:"), std::string::npos);
    EXPECT_EQ(log_count("[DNDTOOL] No toolgate\n"), 1u);
    EXPECT_FALSE(exists(m_root / "run/quorvex"));  // no desktop was ever set up
}

TEST_F(ToolProcessTest, OldSystemsLeaveAtOnceNewerOnesPoll) {
    struct Case {
        const char* platform;
        bool runs;
    };
    const Case cases[] = {
        {R"({"os_version": "10.5.9"})", false},
        {R"({"os_version": "10.5.9", "process_info_version": false})", false},
        {R"({"os_version": "10.6.0", "process_info_version": false})", true},
        {R"({"os_version": "10.6.0"})", true},
        {R"({"os_version": "11.0.0"})", true},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.platform);
        set_platform(c.platform);
        auto host = start_host();
        spawn();
        if (c.runs) {
            EXPECT_TRUE(host->trace().wait_for_line("guest->host 259 poll", 2000ms));
            ::kill(m_pid, SIGTERM);
            EXPECT_EQ(wait_exit(1000ms), std::optional<int>(0));
        } else {
            EXPECT_EQ(wait_exit(1000ms), std::optional<int>(0));
            EXPECT_EQ(host->request_count(), 0u);
            EXPECT_EQ(log().find("No toolgate"), std::string::npos);
        }
    }
}

TEST_F(ToolProcessTest, StopSignalStopsInOrderAndSaysGoodbye) {
    for (int sig : {SIGTERM, SIGINT}) {
        SCOPED_TRACE(sig);
        ::unlink(log_path().c_str());
        auto host = start_host();
        host->queue_command(10);
        spawn();
        // Registered first, then polling; host command 10 is answered with 256.
        ASSERT_TRUE(
            host->trace().wait_for_line("expectation met: 256 after host command 10", 3000ms));
        EXPECT_TRUE(exists(m_root / "run/quorvex/desktop"));
        // The poll after 10 is held: the stop must end it.
        ASSERT_TRUE(qvxtest::eventually([&] { return host->message_count(259) == 2; }, 2000ms));
        const auto sent = Clock::now();
        ::kill(m_pid, sig);
        EXPECT_EQ(wait_exit(1000ms), std::optional<int>(0));
        EXPECT_LT(Clock::now() - sent, 1000ms);
        EXPECT_TRUE(host->expectations_met());
        EXPECT_FALSE(exists(m_root / "run/quorvex/desktop"));

        const auto lines = host->trace().lines();
        const long reg = line_of(lines, "register quorvex.DragDropTool.guest.mac (DnD tool)");
        EXPECT_GE(reg, 0);
        EXPECT_LT(reg, line_of(lines, "guest->host 259"));
        EXPECT_NE(log().find("W /qvxdragdrop:"), std::string::npos);
        expect_orderly_stop(*host);
    }
}

TEST_F(ToolProcessTest, IdleToolWritesNothingAndStopsAtOnceWhileItsPollIsHeld) {
    auto host = start_host();  // holds an idle poll until it has a command
    spawn();
    ASSERT_TRUE(host->trace().wait_for_line("guest->host 259 poll", 3000ms));
    const uint64_t requests = host->request_count();
    const std::string logAtStart = log();

    std::this_thread::sleep_for(20s);
    EXPECT_EQ(host->message_count(259), 1u);  // one poll, held all along
    EXPECT_EQ(host->request_count(), requests);
    EXPECT_EQ(log(), logAtStart);

    const auto sent = Clock::now();
    ::kill(m_pid, SIGTERM);
    EXPECT_EQ(wait_exit(2000ms), std::optional<int>(0));
    const auto took = std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - sent);
    EXPECT_LT(took, 500ms);
    RecordProperty("stop_ms", static_cast<int>(took.count()));
    expect_orderly_stop(*host);
}

TEST_F(ToolProcessTest, BoundedHoldOfQvxhostIsAnsweredWithZeroWhichTheToolClosesWith260) {
    const std::string tracePath = m_root / "host.trace";
    spawn_host({"--trace", "--poll-hold-ms", "250"}, tracePath);
    ASSERT_TRUE(qvxtest::eventually(
        [&] { return exists(m_root / "run/quorvex/iokit/QvxPCIToolGate"); }, 3000ms));
    spawn();
    auto count = [&](const std::string& text) {
        return occurrences(exists(tracePath) ? qvxtest::read_file(tracePath) : "", text);
    };
    // Four times a second: host command 0, logged and closed with 260.
    EXPECT_TRUE(
        qvxtest::eventually([&] { return count("guest->host 260 end worker=0") >= 3; }, 5000ms));
    EXPECT_GE(count("host->guest 259 status=0 worker=0"), 3u);
    EXPECT_GE(count("host->guest 260 status=0"), 3u);
    EXPECT_GE(log_count("[DNDTOOL] DnD command received [0]"), 3u);
    ::kill(m_pid, SIGTERM);
    EXPECT_EQ(wait_exit(1000ms), std::optional<int>(0));
    EXPECT_EQ(log_count("Stop DnD Tool [communicator deleted]"), 1u);
    ::kill(m_hostPid, SIGTERM);
    EXPECT_EQ(qvxtest::wait_exit(m_hostPid, 2000ms), std::optional<int>(0));
}

TEST_F(ToolProcessTest, UnansweredToolgateIsRetriedOnceASecondUntilStopped) {
    // A socket nobody accepts on: the service exists but cannot be opened.
    const std::string path = m_root / "run/quorvex/iokit/QvxPCIToolGate";
    qvxtest::make_dirs(m_root / "run/quorvex/iokit");
    const int fd = ::socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    std::snprintf(addr.sun_path, sizeof addr.sun_path, "%s", path.c_str());
    ASSERT_EQ(::bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr), 0);

    spawn();
    std::this_thread::sleep_for(2500ms);
    const size_t failures = log_count("[DNDTOOL] Can't send DnD command [259] to toolgate");
    EXPECT_GE(failures, 2u);
    EXPECT_LE(failures, 4u);
    ::kill(m_pid, SIGTERM);
    EXPECT_EQ(wait_exit(1000ms), std::optional<int>(0));
    EXPECT_EQ(log_count("Stop DnD Tool [communicator deleted]"), 1u);
    ::close(fd);
}

TEST_F(ToolProcessTest, SuspendedHostIsPolledOnceASecond) {
    auto host = start_host();
    host->set_suspended(true);
    spawn();
    ASSERT_TRUE(host->trace().wait_for_line("guest->host 259", 2000ms));
    const uint64_t first = host->message_count(259);
    std::this_thread::sleep_for(2500ms);
    const uint64_t polls = host->message_count(259) - first;
    EXPECT_GE(polls, 2u);
    EXPECT_LE(polls, 3u);
    ::kill(m_pid, SIGTERM);
    EXPECT_EQ(wait_exit(1000ms), std::optional<int>(0));
}

}  // namespace
