// Both drags through the real qvxdragdrop process: the simulated host plays its part, and
// a file-manager window opened through the desktop's control socket takes the drop or
// starts the drag.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <optional>
#include <thread>

#include "hostsim/drag_player.h"
#include "hostsim/host.h"
#include "hostsim/tree_source.h"
#include "platform/sim/desktop_client.h"
#include "support/temp_dir.h"

namespace {

using namespace std::chrono_literals;
using nlohmann::json;
using Strings = std::vector<std::string>;

class DragProcessTest : public ::testing::Test {
  protected:
    void SetUp() override {
        qvxtest::make_dirs(m_root / "Library/Logs");
        qvxtest::make_dirs(m_root / "home");
        qvxtest::write_file(m_root / "guest/out/a.txt", "alpha");
        qvxtest::write_file(m_root / "guest/out/b.txt", "beta");
        qvxtest::make_dirs(m_root / "guest/in");
        qvxtest::write_file(m_root / "host/out/hello.txt", "from the host");
        qvxtest::write_file(m_root / "host/out/photos/beach.jpg", "not really a picture");
        hostsim::HostOptions options;
        options.root = m_root.path();
        m_host = std::make_unique<hostsim::Host>(options);
        ASSERT_TRUE(m_host->start());
        m_player = std::make_unique<hostsim::DragPlayer>(*m_host, m_root.path());
        spawn();
        ASSERT_TRUE(m_desk.Connect(m_root / "run/quorvex/desktop", 10s));
    }
    void TearDown() override {
        if (m_pid > 0) {
            ::kill(m_pid, SIGKILL);
            ::waitpid(m_pid, nullptr, 0);
        }
        m_player.reset();
        m_host->stop();
    }

    void spawn() {
        // Built before fork: only exec may run in the child of a threaded process.
        const std::string rootVar = "QVX_PLATFORM_ROOT=" + m_root.path();
        const std::string homeVar = "HOME=" + (m_root / "home");
        char* const argv[] = {const_cast<char*>(QVX_DRAGDROP_BIN), nullptr};
        char* const envp[] = {const_cast<char*>(rootVar.c_str()),
                              const_cast<char*>(homeVar.c_str()), nullptr};
        m_pid = ::fork();
        ASSERT_GE(m_pid, 0);
        if (m_pid == 0) {
            ::execve(QVX_DRAGDROP_BIN, argv, envp);
            ::_exit(127);
        }
    }
    // SIGTERM, then the exit status within the time-out (a race report fails it too).
    std::optional<int> stop_tool() {
        ::kill(m_pid, SIGTERM);
        const auto end = std::chrono::steady_clock::now() + 15s;
        while (std::chrono::steady_clock::now() < end) {
            int status = 0;
            if (::waitpid(m_pid, &status, WNOHANG) == m_pid) {
                m_pid = -1;
                return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
            }
            std::this_thread::sleep_for(5ms);
        }
        return std::nullopt;
    }
    json ask(const json& request) {
        auto reply = m_desk.Request(request);
        EXPECT_TRUE(reply && reply->value("ok", false)) << request.dump();
        return reply.value_or(json::object());
    }
    bool overlay_hidden_within(std::chrono::milliseconds timeout) {
        const auto end = std::chrono::steady_clock::now() + timeout;
        do {
            bool shown = false;
            const json state = ask({{"op", "state"}});
            for (const auto& w : state["windows"])
                shown = shown || (w["owner"] == "tool" && w["onscreen"] == true);
            if (!shown) return true;
            std::this_thread::sleep_for(10ms);
        } while (std::chrono::steady_clock::now() < end);
        return false;
    }
    // The decoded requests the tool sent for one worker, without their details.
    Strings sent_for(uint64_t worker) {
        Strings out;
        const std::string tag = " worker=" + std::to_string(worker);
        for (const auto& line : m_host->trace().lines()) {
            if (line.rfind("guest->host ", 0) != 0) continue;
            const size_t at = line.find(tag);
            if (at == std::string::npos ||
                (at + tag.size() < line.size() && line[at + tag.size()] != ' '))
                continue;
            out.push_back(line.substr(12, line.find(' ', 12) - 12) + line.substr(at + tag.size()));
        }
        return out;
    }

    qvxtest::TempDir m_root;
    std::unique_ptr<hostsim::Host> m_host;
    std::unique_ptr<hostsim::DragPlayer> m_player;
    platform::DesktopClient m_desk;
    pid_t m_pid = -1;
};

TEST_F(DragProcessTest, HostDropLandsOnTheFolderWindowAndItsReceiveJobFillsIt) {
    const std::string folder = m_root / "guest/in";
    const json opened =
        ask({{"op", "open_folder"}, {"folder", folder}, {"frame", {0, 0, 500, 400}}});
    std::vector<hostsim::SourceItem> items;
    ASSERT_TRUE(hostsim::list_folder(m_root / "host/out", items));
    auto source = std::make_shared<hostsim::TreeSource>(std::move(items));
    // Host pixels (400, 1200) at scale 2 are the point (200, 300) of the window system.
    hostsim::DropPlan plan;
    plan.x = 400;
    plan.y = 1200;
    plan.workerId = 7;
    plan.transfer = [source](hostsim::Exchange& ex) { return source->answer(ex); };
    m_player->drop(plan);
    // The receive job's end, answered by the tree source.
    ASSERT_TRUE(m_host->trace().wait_for_line("host->guest 260 status=0 worker=7", 20s));
    ASSERT_TRUE(m_host->trace().wait_for_line("guest->host 280 transfer-start worker=7", 5s));

    // The handler's 280 and the receive job's messages come from two threads, in either
    // order, after the drag itself.
    const Strings sent = sent_for(7);
    ASSERT_GE(sent.size(), 9u);
    EXPECT_EQ(Strings(sent.begin(), sent.begin() + 7),
              (Strings{"263 id=0 code=0 text=\"\"", "278", "279", "275 x=1440 y=900 buttons=1",
                       "275 x=402 y=1200 buttons=2", "275 x=400 y=1200 buttons=2",
                       "275 x=400 y=1200 buttons=0"}));
    for (size_t i = 7; i < sent.size(); ++i) EXPECT_NE(sent[i].rfind("275", 0), 0u) << sent[i];
    EXPECT_EQ(qvxtest::read_file(folder + "/hello.txt"), "from the host");
    EXPECT_EQ(qvxtest::read_file(folder + "/photos/beach.jpg"), "not really a picture");
    EXPECT_EQ(source->ends(), 1u);
    const json state = ask({{"op", "state"}});
    EXPECT_EQ(state["last_drop"]["window"], opened["window"]);
    EXPECT_EQ(state["last_drop"]["folder"], folder);
    EXPECT_EQ(state["last_drop"]["types"], json::array({"NSFilesPromisePboardType"}));
    EXPECT_TRUE(state["drag"].is_null());
    // The handler hides the overlay after its last message, maybe after the job's 260.
    EXPECT_TRUE(overlay_hidden_within(5s));
    EXPECT_EQ(stop_tool(), std::optional<int>(0));
}

TEST_F(DragProcessTest, GuestDragOutReachesTheHostWithTheSelectedPaths) {
    const std::string a = m_root / "guest/out/a.txt", b = m_root / "guest/out/b.txt";
    const json opened = ask(
        {{"op", "open_folder"}, {"folder", m_root / "guest/out"}, {"frame", {700, 300, 400, 300}}});
    ask({{"op", "select"}, {"window", opened["window"]}, {"paths", {a, b}}});
    hostsim::GuestDragPlan plan;
    plan.workerId = 8;
    plan.newWorkerId = 9;
    m_player->guest_drag(plan);
    // The user presses in the window and drags to the screen's right edge.
    ask({{"op", "pointer"}, {"x", 1800}, {"y", 700}, {"buttons", 1}});
    ask({{"op", "pointer"}, {"x", 1e7}, {"y", 700}, {"buttons", 1}});
    ASSERT_TRUE(m_host->trace().wait_for_line("guest->host 260 end worker=8", 20s));
    ASSERT_TRUE(m_host->trace().wait_for_line("guest->host 260 end worker=9", 10s));

    EXPECT_TRUE(m_host->trace().contains("guest->host 258 file-list worker=0 count=2 size=" +
                                         std::to_string(2 * (a.size() + b.size()) + 4) +
                                         " names=\"" + a + "\",\"" + b + "\""));
    // The send job's own messages follow under the new worker, ending with 260.
    const Strings handOver = sent_for(9);
    ASSERT_GE(handOver.size(), 3u);
    EXPECT_EQ(handOver[0], "275 x=2879 y=700 buttons=2");
    EXPECT_EQ(handOver[1], "273");
    EXPECT_EQ(handOver.back(), "260");
    EXPECT_EQ(sent_for(8), Strings{"260"});
    const json state = ask({{"op", "state"}});
    EXPECT_TRUE(state["drag"].is_null());
    EXPECT_EQ(state["buttons"], 0);
    EXPECT_EQ(state["drops"], 1);
    EXPECT_EQ(state["last_drop"]["source"], opened["window"]);
    EXPECT_EQ(stop_tool(), std::optional<int>(0));
}

}  // namespace
