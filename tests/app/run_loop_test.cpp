// The main run loop's blocks and modes, and the desktop's control socket.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <nlohmann/json.hpp>
#include <thread>
#include <vector>

#include <AppKit/AppKit.h>
#include <CoreFoundation/CFRunLoop.h>

#include "platform/sim/desktop.h"
#include "platform/sim/run_loop.h"
#include "support/temp_dir.h"
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

// One client of the desktop's control socket.
class DesktopClient {
  public:
    explicit DesktopClient(const std::string& path) {
        m_fd = ::socket(AF_UNIX, SOCK_STREAM, 0);
        sockaddr_un addr{};
        addr.sun_family = AF_UNIX;
        std::snprintf(addr.sun_path, sizeof addr.sun_path, "%s", path.c_str());
        m_connected = ::connect(m_fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0;
    }
    ~DesktopClient() { ::close(m_fd); }
    bool connected() const { return m_connected; }
    void send_raw(const std::string& text) {
        ASSERT_EQ(::write(m_fd, text.data(), text.size()), static_cast<ssize_t>(text.size()));
    }
    nlohmann::json reply() {
        std::string line;
        char c;
        while (::read(m_fd, &c, 1) == 1 && c != '\n') line += c;
        return nlohmann::json::parse(line, nullptr, false);
    }
    nlohmann::json request(const std::string& line) {
        send_raw(line + "\n");
        return reply();
    }

  private:
    int m_fd;
    bool m_connected = false;
};

TEST(Desktop, ControlSocketAnswersEveryLineAndRemovesItsSocket) {
    qvxtest::TempDir dir;
    const std::string path = dir / "run/quorvex/desktop";
    platform::Desktop desktop(path);
    ASSERT_TRUE(desktop.Start());
    {
        DesktopClient client(path);
        ASSERT_TRUE(client.connected());

        auto state = client.request(R"({"op": "state"})");
        EXPECT_EQ(state["ok"], true);
        EXPECT_TRUE(state["windows"].is_array() && state["windows"].empty());
        EXPECT_TRUE(state["drag"].is_null());

        // Malformed lines and unknown ops get an error; the connection stays usable.
        for (const char* bad : {"not json", "[1,2]", R"({"op": 5})", R"({"op": "pointer"})",
                                R"({"op": "open_folder", "folder": "/tmp"})"}) {
            auto r = client.request(bad);
            EXPECT_EQ(r["ok"], false) << bad;
            EXPECT_TRUE(r["error"].is_string()) << bad;
        }
        EXPECT_EQ(client.request(R"({"op": "open_folder"})")["error"], "unsupported");

        // A request split over several writes is one line.
        client.send_raw(R"({"op": "poin)");
        client.send_raw(R"(ter", "x": 300, "y": 40, "buttons": 1})"
                        "\n");
        EXPECT_EQ(client.reply()["ok"], true);
        state = client.request(R"({"op": "state"})");
        EXPECT_EQ(state["pointer"], nlohmann::json::array({300.0, 40.0}));
        EXPECT_EQ(state["buttons"], 1);

        // New screens: NSScreen and the scale factor follow; a screen without a scale does
        // not answer backingScaleFactor; the pointer is kept on the screens.
        EXPECT_EQ(
            client.request(R"({"op": "screens", "screens": [{"frame": [0, 0, 800, 600]}]})")["ok"],
            true);
        auto main = NSScreen::mainScreen();
        ASSERT_TRUE(main);
        EXPECT_EQ(main->frame().size.height, 600);
        EXPECT_FALSE(main->respondsToSelector(sel_registerName("backingScaleFactor")));
        EXPECT_EQ(qvx::main_screen_height(), 600);
        client.request(R"({"op": "pointer", "x": 5000, "y": -20})");
        EXPECT_EQ(client.request(R"({"op": "state"})")["pointer"],
                  nlohmann::json::array({799.0, 0.0}));
        EXPECT_EQ(client.request(R"({"op": "screens", "screens": []})")["ok"], true);
        EXPECT_EQ(qvx::main_screen_height(), 0);
    }
    desktop.Stop();
    EXPECT_NE(::access(path.c_str(), F_OK), 0);
}

}  // namespace
