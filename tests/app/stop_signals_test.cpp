// Stop signals in the tool's own process: a process-wide SIGTERM never lands on a job, and
// a tool that cannot set up its signal relay says so and does not start.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <mutex>
#include <vector>

#include "app/dnd_pool.h"
#include "app/startup.h"
#include "channel/dnd_message.h"
#include "common/signal_block.h"
#include "hostsim/host.h"
#include "support/log_capture.h"
#include "support/private_root.h"
#include "ui/overlay.h"

namespace qvx {
namespace {

using namespace std::chrono_literals;

class StopSignalsTest : public ::testing::Test {
  protected:
    static void SetUpTestSuite() { qvxtest::private_platform_root(); }
};

std::atomic<int> g_termHandled{0};
void count_term(int) {
    g_termHandled.fetch_add(1);
}

// The lowest free descriptor number; a leaked descriptor raises it.
int lowest_free_fd() {
    const int fd = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
    ::close(fd);
    return fd;
}

TEST_F(StopSignalsTest, ProcessWideSigtermLeavesAJobsLongExchangeAlone) {
    hostsim::Host host;
    ASSERT_TRUE(host.start());
    host.delay_reply(dnd::kCmdEnd, 1, 600ms);
    CommonMacCommunicator communicator;
    ASSERT_NE(communicator.handle(), 0u);

    struct Result {
        uint32_t command;
        bool ok;
        std::chrono::steady_clock::time_point at;
    };
    std::mutex mutex;
    std::vector<Result> results;
    SendFunction send = [&](CommonMacCommunicator* c, const void* out, uint32_t outSize,
                            void* reply, uint32_t replySize) {
        const bool ok = SendDnDCommand(c, out, outSize, reply, replySize);
        std::lock_guard lock(mutex);
        results.push_back({dnd::command(out), ok, std::chrono::steady_clock::now()});
        return ok;
    };
    DnDPool pool(&communicator, send);
    ASSERT_TRUE(pool.Init());

    // As in the tool: a handler installed with signal(), and the job started by a thread
    // that takes stop signals itself (the main thread starts receive jobs).
    const auto previous = std::signal(SIGTERM, count_term);
    // An action with nothing to do: the job's one exchange is its closing 260.
    ASSERT_TRUE(pool.StartSend(7, /*action=*/9, {}, {}));
    ASSERT_TRUE(host.trace().wait_for_line("guest->host 260 end worker=7", 2s));

    std::chrono::steady_clock::time_point stopped;
    bool stillPending = false;
    {
        // This thread blocks it too, so a thread that does not would be the one to take it.
        const ScopedSignalBlock block({SIGTERM});
        ::kill(::getpid(), SIGTERM);
        pool.Stop();
        stopped = std::chrono::steady_clock::now();
        sigset_t term;
        sigemptyset(&term);
        sigaddset(&term, SIGTERM);
        const timespec now{0, 0};
        stillPending = sigtimedwait(&term, nullptr, &now) == SIGTERM;
    }
    std::signal(SIGTERM, previous);

    EXPECT_TRUE(stillPending) << "some thread of the process took the SIGTERM";
    EXPECT_EQ(g_termHandled.load(), 0);
    ASSERT_EQ(results.size(), 1u);
    EXPECT_EQ(results[0].command, dnd::kCmdEnd);
    EXPECT_TRUE(results[0].ok) << "the job's 260 exchange was cut short";
    EXPECT_LE(results[0].at, stopped);  // Stop waited for the job
    EXPECT_TRUE(host.trace().contains("host->guest 260 status=0 worker=7"));
    EXPECT_FALSE(host.trace().contains("closed by the guest"));
    pool.Destroy();
}

TEST_F(StopSignalsTest, WithoutPipeOrRelayThreadTheToolSaysSoAndDoesNotStart) {
    hostsim::Host host;  // the toolgate is there: only the signal set-up fails
    ASSERT_TRUE(host.start());
    qvxtest::LogCapture log;
    const StartupOps noPipe{[](int*, int) {
                                errno = EMFILE;
                                return -1;
                            },
                            pthread_create};
    const StartupOps noThread{
        ::pipe2, [](pthread_t*, const pthread_attr_t*, void* (*)(void*), void*) { return EAGAIN; }};
    struct Case {
        const StartupOps* ops;
        const char* line;
    };
    const Case cases[] = {
        {&noPipe, "[DNDTOOL] Can't create the stop signal pipe (errno 24); DnD tool not started"},
        {&noThread,
         "[DNDTOOL] Can't create the stop signal relay thread (11); DnD tool not started"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.line);
        log.clear();
        const int freeFd = lowest_free_fd();
        set_startup_ops(c.ops);
        EXPECT_EQ(dragdrop_main(), 1);
        set_startup_ops(nullptr);
        EXPECT_EQ(log.count(c.line), 1u);
        EXPECT_EQ(log.lines().size(), 1u);
        EXPECT_EQ(lowest_free_fd(), freeFd);  // the pipe of the second case is closed again
        struct sigaction term {};
        sigaction(SIGTERM, nullptr, &term);
        EXPECT_EQ(term.sa_handler, SIG_DFL);
        EXPECT_EQ(host.request_count(), 0u);  // never registered: nothing to take back
    }
}

// The control thread's first command may be a drag that starts a job, so the drags have
// the pool before the thread exists. A launch that cannot make the thread undoes itself.
TEST_F(StopSignalsTest, ControlThreadStartsWithThePoolAndALaunchWithoutItUndoesItself) {
    hostsim::Host host;
    ASSERT_TRUE(host.start());
    qvxtest::LogCapture log;
    static std::vector<bool> poolThere;  // at each thread the start makes
    const StartupOps noControlThread{
        ::pipe2,
        [](pthread_t* thread, const pthread_attr_t* attr, void* (*start)(void*), void* arg) {
            poolThere.push_back(g_dragPool != nullptr);
            return poolThere.size() == 2 ? EAGAIN : pthread_create(thread, attr, start, arg);
        }};
    set_startup_ops(&noControlThread);
    EXPECT_EQ(dragdrop_main(), 0);
    set_startup_ops(nullptr);
    EXPECT_EQ(poolThere, (std::vector<bool>{false, true}));  // the relay, the control thread
    EXPECT_EQ(log.count("[DNDTOOL] Can't create control thread"), 1u);
    EXPECT_EQ(g_dragPool, nullptr);
    EXPECT_EQ(g_pool, nullptr);
    EXPECT_EQ(g_communicator, nullptr);
}

}  // namespace
}  // namespace qvx
