// Both drags through the real qvxdragdrop process, with the files they carry: the simulated
// host (in-process, or the qvxhost program) plays its part, and file-manager windows opened
// through the desktop's control socket take the drop or start the drag.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <functional>
#include <optional>
#include <thread>

#include "hostsim/drag_player.h"
#include "hostsim/host.h"
#include "hostsim/progress.h"
#include "hostsim/tree_sink.h"
#include "hostsim/tree_source.h"
#include "platform/sim/desktop_client.h"
#include "support/processes.h"
#include "support/temp_dir.h"
#include "support/trees.h"

namespace {

using namespace std::chrono_literals;
using nlohmann::json;
using Strings = std::vector<std::string>;
using Clock = std::chrono::steady_clock;

// Several chunks, the last one short.
constexpr size_t kBigFile = 3 * 131072 + 5;

using qvxtest::exists;

using qvxtest::eventually;

size_t count_lines(const Strings& lines, const std::string& line) {
    return static_cast<size_t>(std::count(lines.begin(), lines.end(), line));
}

class DragProcessTest : public qvxtest::ProgramRootTest {
  protected:
    void TearDown() override {
        ProgramRootTest::TearDown();
        m_player.reset();
        if (m_host) m_host->stop();
    }

    // The simulated host in this process, then the tool.
    void start_with_host() {
        hostsim::HostOptions options;
        options.root = m_root.path();
        m_host = std::make_unique<hostsim::Host>(options);
        ASSERT_TRUE(m_host->start());
        m_player = std::make_unique<hostsim::DragPlayer>(*m_host, m_root.path());
        start_tool();
    }
    // qvxhost with `args`, its output to host.out, then the tool.
    void start_with_qvxhost(std::vector<std::string> args) {
        m_hostPid = qvxtest::spawn_qvxhost(m_root.path(), std::move(args), m_root / "host.out");
        ASSERT_GE(m_hostPid, 0);
        ASSERT_TRUE(
            eventually([&] { return exists(m_root / "run/quorvex/iokit/QvxPCIToolGate"); }, 10s));
        start_tool();
    }
    void start_tool() {
        m_pid = qvxtest::spawn_tool(m_root.path());
        ASSERT_GE(m_pid, 0);
        ASSERT_TRUE(m_desk.Connect(m_root / "run/quorvex/desktop", 10s));
    }
    // SIGTERM, then the exit status within the time-out (a race report fails it too).
    static std::optional<int> stop(pid_t& pid) {
        ::kill(pid, SIGTERM);
        return qvxtest::wait_exit(pid, 15s);
    }

    // The host drops `source`'s tree (none: answers 0) at host pixels (x, y) for `worker`.
    void play_drop(uint64_t worker, std::shared_ptr<hostsim::TreeSource> source, uint32_t x = 400,
                   uint32_t y = 1200) {
        hostsim::DropPlan plan;
        plan.x = x;
        plan.y = y;
        plan.workerId = worker;
        if (source) plan.transfer = [source](hostsim::Exchange& ex) { return source->answer(ex); };
        m_player->drop(plan);
    }

    json ask(const json& request) {
        auto reply = m_desk.Request(request);
        EXPECT_TRUE(reply && reply->value("ok", false)) << request.dump();
        return reply.value_or(json::object());
    }
    json open_window(const std::string& folder, std::vector<double> frame) {
        return ask({{"op", "open_folder"}, {"folder", folder}, {"frame", frame}})["window"];
    }
    // The user presses in the window (at its centre, x 1800 y 700 in pointer pixels, for the
    // frame 700, 300, 400, 300) and drags to the right edge of the screen.
    void drag_out(const json& window, const Strings& paths) {
        ask({{"op", "select"}, {"window", window}, {"paths", paths}});
        ask({{"op", "pointer"}, {"x", 1800}, {"y", 700}, {"buttons", 1}});
        ask({{"op", "pointer"}, {"x", 1e7}, {"y", 700}, {"buttons", 1}});
    }
    bool overlay_hidden_within(std::chrono::milliseconds timeout) {
        return eventually(
            [&] {
                const json state = ask({{"op", "state"}});
                for (const auto& w : state["windows"])
                    if (w["owner"] == "tool" && w["onscreen"] == true) return false;
                return true;
            },
            timeout);
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
    // Lines of qvxhost's output, split.
    Strings host_out() {
        Strings lines;
        const std::string all = qvxtest::read_file(m_root / "host.out");
        for (size_t start = 0, end; start < all.size(); start = end + 1) {
            end = all.find('\n', start);
            if (end == std::string::npos) end = all.size();
            lines.push_back(all.substr(start, end - start));
        }
        return lines;
    }
    bool host_out_has(const std::string& prefix) {
        for (const auto& line : host_out())
            if (line.rfind(prefix, 0) == 0) return true;
        return false;
    }

    std::unique_ptr<hostsim::Host> m_host;
    std::unique_ptr<hostsim::DragPlayer> m_player;
    platform::DesktopClient m_desk;
};

TEST_F(DragProcessTest, HostDropsCopyEveryKindOfItemIntoTheFolderWindow) {
    ASSERT_NO_FATAL_FAILURE(start_with_host());
    const std::string from = m_root / "host/out";
    qvxtest::make_every_kind_tree(from, kBigFile);
    // Files of exactly one chunk and one byte more.
    qvxtest::write_file(from + "/chunk", std::string(131072, 'c'));
    qvxtest::write_file(from + "/chunk+1", std::string(131073, 'd'));
    std::vector<hostsim::SourceItem> items;
    ASSERT_TRUE(hostsim::list_folder(from, items));
    uint64_t bytes = 0;
    for (const auto& item : items)
        bytes += item.kind == hostsim::SourceItem::Kind::File ? item.size : 0;

    // Two drops, one after the other, each into a window of its own at the same place.
    for (const uint64_t worker : {7u, 17u}) {
        SCOPED_TRACE(worker);
        const std::string folder = m_root / ("guest/in" + std::to_string(worker));
        qvxtest::make_dirs(folder);
        const json window = open_window(folder, {0, 0, 500, 400});
        auto source = std::make_shared<hostsim::TreeSource>(items);
        // Host pixels (400, 1200) at scale 2 are the point (200, 300) of the window system.
        play_drop(worker, source);
        const std::string w = " worker=" + std::to_string(worker);
        ASSERT_TRUE(m_host->trace().wait_for_line("host->guest 260 status=0" + w, 30s));
        ASSERT_TRUE(m_host->trace().wait_for_line("guest->host 280 transfer-start" + w, 5s));

        // The handler's 280 and the receive job's messages come from two threads, in either
        // order, after the drag itself; the job ends the operation with the one 260.
        const Strings sent = sent_for(worker);
        ASSERT_GE(sent.size(), 9u);
        EXPECT_EQ(Strings(sent.begin(), sent.begin() + 7),
                  (Strings{"263 id=0 code=0 text=\"\"", "278", "279", "275 x=1440 y=900 buttons=1",
                           "275 x=402 y=1200 buttons=2", "275 x=400 y=1200 buttons=2",
                           "275 x=400 y=1200 buttons=0"}));
        for (size_t i = 7; i < sent.size(); ++i) {
            EXPECT_NE(sent[i].rfind("275", 0), 0u) << sent[i];
            EXPECT_NE(sent[i].rfind("263 id=4", 0), 0u) << sent[i];
        }
        EXPECT_EQ(count_lines(sent, "260"), 1u);
        EXPECT_EQ(source->ends(), 1u);
        EXPECT_EQ(source->bytes_served(), bytes) << "every byte asked for once";
        EXPECT_EQ(qvxtest::tree_differences(from, folder, true), Strings{});

        const json state = ask({{"op", "state"}});
        EXPECT_EQ(state["last_drop"]["window"], window);
        EXPECT_EQ(state["last_drop"]["folder"], folder);
        EXPECT_TRUE(state["drag"].is_null());
        // The handler hides the overlay after its last message, maybe after the job's 260.
        EXPECT_TRUE(overlay_hidden_within(5s));
        ask({{"op", "close"}, {"window", window}});
    }
    EXPECT_EQ(stop(m_pid), std::optional<int>(0));
}

TEST_F(DragProcessTest, GuestDragsOutCopyEveryKindOfItemToTheHost) {
    ASSERT_NO_FATAL_FAILURE(start_with_host());
    // Two drags, one after the other, out of two windows: a listed folder and a file, then
    // a folder alone.
    const std::string out = m_root / "guest/out", more = m_root / "guest/more";
    qvxtest::make_every_kind_tree(out + "/tree", kBigFile);
    qvxtest::write_file(out + "/top.txt", "top");
    qvxtest::make_every_kind_tree(more + "/second", 1000, 1600000000);
    struct Drag {
        uint64_t worker, newWorker;
        std::string from;  // the folder that holds what is dragged, and only that
        Strings paths;
    };
    const Drag drags[] = {{8, 9, out, {out + "/tree", out + "/top.txt"}},
                          {10, 11, more, {more + "/second"}}};
    hostsim::ProgressBoard progress;
    for (const Drag& d : drags) {
        SCOPED_TRACE(d.newWorker);
        const json window = open_window(d.from, {700, 300, 400, 300});
        hostsim::SinkOptions options;
        options.folder = m_root / ("host/in" + std::to_string(d.newWorker));
        options.progress = &progress;
        hostsim::TreeSink sink(*m_host, options);
        hostsim::GuestDragPlan plan;
        plan.workerId = d.worker;
        plan.newWorkerId = d.newWorker;
        plan.transfer = sink.endpoint(d.newWorker);
        m_player->guest_drag(plan);
        drag_out(window, d.paths);
        const std::string w = " worker=" + std::to_string(d.newWorker);
        ASSERT_TRUE(m_host->trace().wait_for_line("host->guest 260 status=0" + w, 30s));

        std::string names;
        for (const auto& p : d.paths) names += (names.empty() ? "\"" : ",\"") + p + "\"";
        EXPECT_TRUE(m_host->trace().contains("guest->host 258 file-list worker=0 count=" +
                                             std::to_string(d.paths.size())));
        EXPECT_TRUE(m_host->trace().contains(" names=" + names)) << names;
        // The hand-over under the new worker, the send job's messages, its one 260; the
        // control loop closes the 204's operation.
        const Strings handOver = sent_for(d.newWorker);
        ASSERT_GE(handOver.size(), 3u);
        EXPECT_EQ(handOver[0], "275 x=2879 y=700 buttons=2");
        EXPECT_EQ(handOver[1], "273");
        EXPECT_EQ(handOver.back(), "260");
        EXPECT_EQ(count_lines(handOver, "260"), 1u);
        // The handler returns once the drag has ended, which may be after the job's 260.
        ASSERT_TRUE(m_host->trace().wait_for_line(
            "host->guest 260 status=0 worker=" + std::to_string(d.worker), 10s));
        EXPECT_EQ(sent_for(d.worker), Strings{"260"});
        const auto result = sink.result(d.newWorker);
        ASSERT_TRUE(result);
        EXPECT_EQ(result->state, hostsim::SinkResult::State::Done) << result->refusal;
        EXPECT_TRUE(result->totals_match());
        EXPECT_TRUE(result->failureCodes.empty());
        // The host's progress, followed from the messages, reaches the announced totals.
        const auto shown = progress.finished();
        ASSERT_FALSE(shown.empty());
        EXPECT_EQ(shown.back().items, result->items);
        EXPECT_EQ(shown.back().bytes, result->announcedBytes);
        EXPECT_EQ(shown.back().result, "done");
        // What the host holds is what was dragged, names as the guest has them.
        EXPECT_EQ(qvxtest::tree_differences(d.from, options.folder), Strings{});

        const json state = ask({{"op", "state"}});
        EXPECT_TRUE(state["drag"].is_null());
        EXPECT_EQ(state["buttons"], 0);
        EXPECT_EQ(state["last_drop"]["source"], window);
        ASSERT_TRUE(overlay_hidden_within(10s));
        ask({{"op", "close"}, {"window", window}});
    }
    EXPECT_EQ(stop(m_pid), std::optional<int>(0));
}

TEST_F(DragProcessTest, QvxhostTakesACopyThenAMoveThatDeletesTheGuestOriginals) {
    const std::string out = m_root / "guest/out", into = m_root / "host/in";
    qvxtest::make_every_kind_tree(out + "/tree", kBigFile);
    qvxtest::write_file(out + "/top.txt", "top");
    ASSERT_NO_FATAL_FAILURE(
        start_with_qvxhost({"--trace", "--guest-drag", "8:9:copy", "--receive-into", into,
                            "--guest-drag", "10:11:move"}));
    const json window = open_window(out, {700, 300, 400, 300});
    const Strings paths = {out + "/tree", out + "/top.txt"};

    drag_out(window, paths);
    const size_t items = qvxtest::tree_size(out);
    ASSERT_TRUE(eventually([&] { return host_out_has("transfer worker=9 "); }, 30s));
    EXPECT_TRUE(host_out_has("host->guest 258 status=0 worker=9 action=0"));
    EXPECT_TRUE(
        host_out_has("transfer worker=9 guest->host: " + std::to_string(items) + " items, "));
    EXPECT_EQ(qvxtest::tree_differences(out, into), Strings{});

    // The same items again: the host answers with a move, and the guest deletes them.
    ASSERT_TRUE(overlay_hidden_within(10s));
    drag_out(window, paths);
    ASSERT_TRUE(
        eventually([&] { return !exists(out + "/tree") && !exists(out + "/top.txt"); }, 30s));
    ASSERT_TRUE(
        eventually([&] { return host_out_has("host->guest 260 status=0 worker=11"); }, 10s));
    EXPECT_TRUE(host_out_has("host->guest 258 status=0 worker=11 action=4"));
    // The control loop closes the 204's operation once the handler has seen the drag end,
    // which may be after the send job's 260.
    ASSERT_TRUE(
        eventually([&] { return host_out_has("host->guest 260 status=0 worker=10"); }, 10s));
    EXPECT_EQ(qvxtest::tree_size(out), 0u);
    EXPECT_EQ(qvxtest::tree_size(into), items);  // the host's copy stays

    const Strings lines = host_out();
    for (const int worker : {8, 9, 10, 11})
        EXPECT_EQ(count_lines(lines, "guest->host 260 end worker=" + std::to_string(worker)), 1u)
            << worker;
    for (const auto& line : lines)
        EXPECT_EQ(line.find(" dialog worker=11 id=4 "), std::string::npos);
    EXPECT_EQ(stop(m_pid), std::optional<int>(0));
    EXPECT_EQ(stop(m_hostPid), std::optional<int>(0));
}

// The host fails the move that follows the press: the tool has the pointer released where
// it pressed, which ends its drag, and ends the operation. The next drop lands its own
// tree, received under its own worker.
TEST_F(DragProcessTest, FailedMoveAfterThePressLeavesNothingBehindForTheNextDrop) {
    ASSERT_NO_FATAL_FAILURE(start_with_host());
    m_host->fail_nth(275, 2, 9);
    const std::string folder = m_root / "guest/in";
    qvxtest::make_dirs(folder);
    open_window(folder, {0, 0, 500, 400});
    std::shared_ptr<hostsim::TreeSource> source;
    for (const uint64_t worker : {7u, 17u}) {
        const std::string from = m_root / ("host/out" + std::to_string(worker));
        qvxtest::write_file(from + "/only" + std::to_string(worker) + ".txt", "tree");
        std::vector<hostsim::SourceItem> items;
        ASSERT_TRUE(hostsim::list_folder(from, items));
        source = std::make_shared<hostsim::TreeSource>(items);
        play_drop(worker, source);
        ASSERT_TRUE(m_host->trace().wait_for_line(
            "host->guest 260 status=0 worker=" + std::to_string(worker), 30s));
    }
    EXPECT_EQ(sent_for(7),
              (Strings{"263 id=0 code=0 text=\"\"", "278", "279", "275 x=1440 y=900 buttons=1",
                       "275 x=402 y=1200 buttons=2", "263 id=4 code=12 text=\"\"",
                       "275 x=1440 y=900 buttons=0", "280", "260"}));
    EXPECT_EQ(count_lines(sent_for(17), "260"), 1u);
    EXPECT_EQ(source->ends(), 1u);
    EXPECT_EQ(qvxtest::tree_differences(m_root / "host/out17", folder, true), Strings{});
    EXPECT_TRUE(overlay_hidden_within(5s));
    EXPECT_EQ(stop(m_pid), std::optional<int>(0));
}

// SIGTERM while the tool's own drag holds the pointer (between the moves of a host drop),
// and while the host is answering a guest drag's file list: the tool stops within half a
// second, and every operation and job ends with exactly one 260.
TEST_F(DragProcessTest, StopInTheMiddleOfEitherDragIsPromptAndEndsEveryOperationOnce) {
    for (const bool intoGuest : {true, false}) {
        SCOPED_TRACE(intoGuest);
        ASSERT_NO_FATAL_FAILURE(start_with_host());
        const std::string out = m_root / ("guest/out" + std::to_string(intoGuest));
        qvxtest::write_file(out + "/a.txt", "alpha");
        qvxtest::write_file(out + "/b.txt", "beta");
        const json window = open_window(out, {700, 300, 400, 300});
        std::optional<hostsim::TreeSink> sink;
        std::string wait;
        if (intoGuest) {
            play_drop(7, nullptr, 1800, 700);
            wait = "guest->host 275 move-mouse worker=7 x=1802";  // the pause after it
        } else {
            hostsim::SinkOptions options;
            options.folder = m_root / "host/in";
            sink.emplace(*m_host, options);
            hostsim::GuestDragPlan plan;
            plan.workerId = 8;
            plan.newWorkerId = 9;
            plan.transfer = sink->endpoint(9);
            m_player->guest_drag(plan);
            // The stop comes while the host answers the list; the send job that follows is
            // still waiting for an answer when the control thread has ended.
            m_host->delay_reply(258, 1, 100ms);
            m_host->delay_reply(271, 1, 150ms);
            drag_out(window, {out + "/a.txt", out + "/b.txt"});
            wait = "guest->host 258";
        }
        ASSERT_TRUE(m_host->trace().wait_for_line(wait, 30s));
        const auto sent = Clock::now();
        EXPECT_EQ(stop(m_pid), std::optional<int>(0));
        EXPECT_LT(Clock::now() - sent, 500ms);
        EXPECT_TRUE(m_host->tool_stopped());
        for (const uint64_t worker :
             intoGuest ? std::vector<uint64_t>{7} : std::vector<uint64_t>{8, 9})
            EXPECT_EQ(count_lines(sent_for(worker), "260"), 1u) << worker;
        if (sink) {
            const auto result = sink->result(9);
            ASSERT_TRUE(result);
            EXPECT_EQ(result->state, hostsim::SinkResult::State::Done) << result->refusal;
        }
        m_player.reset();
        m_host->stop();
    }
}

}  // namespace
