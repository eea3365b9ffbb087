// The worker pool: jobs list and remove themselves, Stop joins exactly what is listed.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <set>
#include <thread>

#include "app/dnd_pool.h"
#include "channel/dnd_message.h"
#include "support/log_capture.h"
#include "support/processes.h"

namespace qvx {
namespace {

using namespace std::chrono_literals;

// A host whose answer to 260 can be held back for chosen workers until released.
class GatedHost {
  public:
    SendFunction send() {
        return [this](CommonMacCommunicator*, const void* out, uint32_t, void*, uint32_t) {
            const uint64_t worker = dnd::worker_id(out);
            std::unique_lock lock(m_mutex);
            m_ended.push_back({dnd::command(out), worker});
            m_changed.notify_all();
            if (worker % 2 == 0) m_changed.wait(lock, [this] { return m_open; });
            return true;
        };
    }
    void open() {
        std::lock_guard lock(m_mutex);
        m_open = true;
        m_changed.notify_all();
    }
    bool wait_for_sends(size_t n) {
        std::unique_lock lock(m_mutex);
        return m_changed.wait_for(lock, 10s, [&] { return m_ended.size() >= n; });
    }
    std::vector<std::pair<uint32_t, uint64_t>> sends() {
        std::lock_guard lock(m_mutex);
        return m_ended;
    }

  private:
    std::mutex m_mutex;
    std::condition_variable m_changed;
    std::vector<std::pair<uint32_t, uint64_t>> m_ended;
    bool m_open = false;
};

TEST(DnDPool, StopJoinsListedJobsWhileOthersRemoveThemselves) {
    GatedHost host;
    DnDPool pool(nullptr, host.send());
    ASSERT_TRUE(pool.Init());
    // Odd workers finish at once and release themselves, racing with Stop's copy; even
    // ones are held in their 260 so that Stop has to join them.
    // Action 7 has nothing to do: each job sends only its closing 260.
    for (uint64_t worker = 1; worker <= 50; ++worker) {
        ASSERT_TRUE(pool.StartSend(worker, 7, {"/a", "/b"}, {}));
    }
    // Odd jobs may still be between their 260 and their removal when Stop copies the list.
    ASSERT_TRUE(host.wait_for_sends(50));

    std::atomic<bool> stopped{false};
    std::thread stopper([&] {
        pool.Stop();
        stopped = true;
    });
    std::this_thread::sleep_for(50ms);
    EXPECT_FALSE(stopped.load()) << "Stop returned while listed jobs were still running";
    host.open();
    stopper.join();

    EXPECT_EQ(pool.ListedCount(), 0u);
    std::set<uint64_t> workers;
    for (const auto& [command, worker] : host.sends()) {
        EXPECT_EQ(command, dnd::kCmdEnd);
        workers.insert(worker);
    }
    EXPECT_EQ(workers.size(), 50u);  // one 260 per job, each with its own worker id
    pool.Destroy();
}

TEST(DnDPool, JobThatEndedIsNotJoinedAndEmptyStopReturns) {
    GatedHost host;
    DnDPool pool(nullptr, host.send());
    ASSERT_TRUE(pool.Init());
    pool.Stop();  // nothing listed
    ASSERT_TRUE(pool.StartSend(1, 7, {}, {}));
    ASSERT_TRUE(pool.StartSend(3, 7, {}, {}));
    ASSERT_TRUE(qvxtest::eventually([&] { return pool.ListedCount() == 0; }, 5s));
    // Both detached themselves; joining them here would be undefined behaviour.
    pool.Stop();
    EXPECT_EQ(host.sends().size(), 2u);
    pool.Destroy();
}

TEST(DnDPool, FailedThreadCreationIsReportedAndDiscarded) {
    qvxtest::LogCapture log;
    GatedHost host;
    DnDPool pool(nullptr, host.send());
    ASSERT_TRUE(pool.Init());
    pool.SetCreateThread(
        [](pthread_t*, const pthread_attr_t*, void* (*)(void*), void*) { return EAGAIN; });
    EXPECT_FALSE(pool.StartSend(1, 0, {"/x"}, {}));
    EXPECT_FALSE(pool.StartReceive(2, "/tmp"));
    EXPECT_EQ(pool.ListedCount(), 0u);
    EXPECT_EQ(log.count("Can't create DnD job thread"), 2u);
    pool.Stop();  // must not join an unusable handle
    pool.Destroy();
}

}  // namespace
}  // namespace qvx
