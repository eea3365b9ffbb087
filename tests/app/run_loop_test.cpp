// The main run loop's blocks and modes.
#include <gtest/gtest.h>

#include <thread>
#include <vector>

#include <CoreFoundation/CFRunLoop.h>

#include "platform/sim/run_loop.h"
#include "ui/overlay.h"

namespace {

void post(CFRunLoopMode mode, std::function<void()> block) {
    CFRunLoopPerformBlock(CFRunLoopGetMain(), mode, std::move(block));
    CFRunLoopWakeUp(CFRunLoopGetMain());
}

class RunLoopTest : public ::testing::Test {
  protected:
    void TearDown() override { platform::run_loop_reset(CFRunLoopGetMain()); }
};

TEST_F(RunLoopTest, BlocksFromManyThreadsRunOnTheMainThreadInPostingOrder) {
    constexpr int kThreads = 4, kBlocks = 200;
    const auto mainThread = std::this_thread::get_id();
    std::vector<std::pair<int, int>> ran;  // touched only by blocks, i.e. the main thread
    bool allOnMain = true;

    std::vector<std::thread> posters;
    for (int t = 0; t < kThreads; ++t)
        posters.emplace_back([&, t] {
            for (int i = 0; i < kBlocks; ++i)
                qvx::post_to_main([&, t, i] {
                    allOnMain = allOnMain && std::this_thread::get_id() == mainThread;
                    ran.emplace_back(t, i);
                });
        });
    std::thread finisher([&] {
        for (auto& p : posters) p.join();
        qvx::post_to_main([] { CFRunLoopStop(CFRunLoopGetMain()); });
    });
    CFRunLoopRun();
    finisher.join();

    EXPECT_TRUE(allOnMain);
    ASSERT_EQ(ran.size(), size_t{kThreads * kBlocks});
    std::vector<int> next(kThreads, 0);
    for (const auto& [t, i] : ran) EXPECT_EQ(i, next[t]++) << "thread " << t;
}

TEST_F(RunLoopTest, TrackingLoopRunsCommonBlocksWhileDefaultOnesWait) {
    std::vector<std::string> ran;
    post(kCFRunLoopDefaultMode, [&] { ran.push_back("default"); });
    post(kCFRunLoopCommonModes, [&] { ran.push_back("pointer event"); });
    // A drag's nested loop: only the pointer event may run.
    EXPECT_EQ(CFRunLoopRunInMode(NSEventTrackingRunLoopMode, 0.05, false), kCFRunLoopRunTimedOut);
    EXPECT_EQ(ran, std::vector<std::string>{"pointer event"});
    EXPECT_EQ(CFRunLoopRunInMode(kCFRunLoopDefaultMode, 0.05, true), kCFRunLoopRunHandledSource);
    EXPECT_EQ(ran, (std::vector<std::string>{"pointer event", "default"}));
}

TEST_F(RunLoopTest, ShutdownLeavesQueuedBlocksUnrun) {
    int ran = 0;
    post(kCFRunLoopDefaultMode, [&] {
        ++ran;
        platform::run_loop_shutdown(CFRunLoopGetMain());
    });
    post(kCFRunLoopDefaultMode, [&] { ran += 100; });  // the second stop block
    CFRunLoopRun();
    EXPECT_EQ(ran, 1);
    EXPECT_EQ(CFRunLoopRunInMode(kCFRunLoopDefaultMode, 0.05, false), kCFRunLoopRunStopped);
    EXPECT_EQ(ran, 1);
}

}  // namespace
