// The control loop against a scripted host: dispatch, worker ids, stop and sleep timing.
#include <gtest/gtest.h>

#include <vector>

#include "app/control_loop.h"
#include "channel/dnd_message.h"
#include "support/log_capture.h"
#include "support/virtual_clock.h"

namespace qvx {
namespace {

struct Sent {
    uint32_t command;
    uint64_t workerId;
};

// One scripted answer to a poll: a failed exchange, or a host command with its worker id
// and drop point.
struct PollAnswer {
    bool ok;
    uint32_t hostCommand = 0;
    uint64_t workerId = 0;
    uint32_t x = 0, y = 0;
    bool stopWithIt = false;  // the stop sequence sets the flag while this poll is out
};

// Plain globals: the hooks are function pointers.
std::vector<Sent> g_sent;
std::vector<std::string> g_events;  // hook calls, in order with the sends
bool g_hostToGuestResult = false;
double g_scale = 1.0;
int g_dropX = -1, g_dropY = -1;
uint64_t g_handlerWorker = 0;

bool fake_host_to_guest(DnDContext ctx, int x, int y) {
    g_dropX = x;
    g_dropY = y;
    g_handlerWorker = ctx.workerId;
    g_events.push_back("200 handler");
    ctx.workerId = 999;  // a copy: must not leak back into the loop's context
    return g_hostToGuestResult;
}
void fake_guest_to_host(DnDContext ctx) {
    g_handlerWorker = ctx.workerId;
    g_events.push_back("204 handler");
}
double fake_scale() {
    return g_scale;
}
int32_t fake_register(const char* id, const char* name, const ToolInfo*, const char*, const void*,
                      uint32_t) {
    g_events.push_back(std::string("register ") + id + " / " + name);
    return 0;
}
int32_t fake_unregister(const char* id) {
    g_events.push_back(std::string("unregister ") + id);
    return 0;
}

class ControlLoopTest : public ::testing::Test {
  protected:
    void SetUp() override {
        g_stopFlag = false;
        g_sent.clear();
        g_events.clear();
        g_hostToGuestResult = false;
        g_scale = 1.0;
        g_dropX = g_dropY = -1;
    }
    void TearDown() override { g_stopFlag = false; }

    // Runs the loop; when the script is used up the host fails with the stop flag set.
    void run(std::vector<PollAnswer> script) {
        size_t next = 0;
        SendFunction send = [&](CommonMacCommunicator*, const void* out, uint32_t outSize,
                                void* reply, uint32_t replySize) {
            EXPECT_EQ(outSize, dnd::kMessageSize);
            EXPECT_EQ(replySize, dnd::kMessageSize);
            const uint32_t command = dnd::command(out);
            g_sent.push_back({command, dnd::worker_id(out)});
            g_events.push_back("send " + std::to_string(command));
            if (command != dnd::kCmdPoll) return true;
            if (next == script.size()) {
                g_stopFlag = true;
                return false;
            }
            const PollAnswer& a = script[next++];
            if (a.stopWithIt) g_stopFlag = true;
            if (!a.ok) return false;
            le::put32(reply, dnd::kOffStatus, a.hostCommand);
            le::put64(reply, dnd::kOffWorkerId, a.workerId);
            le::put32(reply, dnd::kOffPointerX, a.x);
            le::put32(reply, dnd::kOffPointerY, a.y);
            return true;
        };
        ControlLoopHooks hooks{fake_host_to_guest, fake_guest_to_host, fake_scale, fake_register,
                               fake_unregister};
        RunControlLoop(nullptr, send, hooks);
    }

    // The non-poll records, in order.
    static std::vector<std::pair<uint32_t, uint64_t>> replies() {
        std::vector<std::pair<uint32_t, uint64_t>> out;
        for (const auto& s : g_sent)
            if (s.command != dnd::kCmdPoll) out.emplace_back(s.command, s.workerId);
        return out;
    }
};

TEST_F(ControlLoopTest, DispatchesEachHostCommandAndPollsWithWorkerZero) {
    qvxtest::VirtualClock clock;
    qvxtest::LogCapture log;
    g_hostToGuestResult = true;
    run({{true, 10, 0}, {true, 77, 5}, {true, 204, 9}, {true, 200, 11, 100, 200}, {true, 0, 0}});

    using R = std::vector<std::pair<uint32_t, uint64_t>>;
    // 10: one 256 and no 260; unknown 77 and the idle 0: 260 with the reply's id; 204:
    // 260 after the handler; 200 taken over by the handler: nothing; then 257.
    EXPECT_EQ(replies(), (R{{256, 0}, {260, 5}, {260, 9}, {260, 0}, {257, 0}}));
    for (const auto& s : g_sent) {
        if (s.command == dnd::kCmdPoll) {
            EXPECT_EQ(s.workerId, 0u);
        }
    }
    EXPECT_EQ(clock.sleep_calls(), 0u);  // successful polls follow each other at once

    ASSERT_GE(g_events.size(), 3u);
    EXPECT_EQ(g_events.front(), "register quorvex.DragDropTool.guest.mac / DnD tool");
    EXPECT_EQ(g_events[g_events.size() - 2], "send 257");
    EXPECT_EQ(g_events.back(), "unregister quorvex.DragDropTool.guest.mac");

    EXPECT_EQ(log.count("W /qvxdragdrop:"), log.count("[DNDTOOL]"));
    EXPECT_EQ(log.count("[DNDTOOL] DnD command received [10]"), 1u);
    EXPECT_EQ(log.count("[DNDTOOL] DnD command received [204]"), 1u);
    EXPECT_EQ(log.count("[DNDTOOL] Control Thread stopped"), 1u);
}

TEST_F(ControlLoopTest, DeclinedHostDropEndsTheOperationWithTheReplysWorker) {
    qvxtest::VirtualClock clock;
    g_hostToGuestResult = false;
    run({{true, 200, 12, 0, 0}, {true, 204, 13}});
    using R = std::vector<std::pair<uint32_t, uint64_t>>;
    EXPECT_EQ(replies(), (R{{260, 12}, {260, 13}, {257, 0}}));
    const std::vector<std::string> expected{"register quorvex.DragDropTool.guest.mac / DnD tool",
                                            "send 259",
                                            "200 handler",
                                            "send 260",
                                            "send 259",
                                            "204 handler",
                                            "send 260",
                                            "send 259",
                                            "send 257",
                                            "unregister quorvex.DragDropTool.guest.mac"};
    EXPECT_EQ(g_events, expected);
    EXPECT_EQ(g_handlerWorker, 13u);
}

TEST_F(ControlLoopTest, HostPixelsAreDividedByTheScaleFactor) {
    qvxtest::VirtualClock clock;
    g_scale = 2.0;
    g_hostToGuestResult = true;
    run({{true, 200, 3, 2880, 1800}});
    EXPECT_EQ(g_dropX, 1440);
    EXPECT_EQ(g_dropY, 900);

    g_stopFlag = false;
    g_scale = 1.5;  // truncation toward zero, not rounding
    run({{true, 200, 3, 1001, 2}});
    EXPECT_EQ(g_dropX, 667);
    EXPECT_EQ(g_dropY, 1);

    // Values from the host and a broken screen scale stay within int.
    EXPECT_EQ(host_pixels_to_points(0xFFFFFFFFu, 1.0), INT_MAX);
    EXPECT_EQ(host_pixels_to_points(5, 0.0), INT_MAX);
    EXPECT_EQ(host_pixels_to_points(0, 0.0), 0);
}

TEST_F(ControlLoopTest, FailedPollSleepsOneSecondUnlessStopping) {
    qvxtest::VirtualClock clock;
    run({{false}, {false}, {false, 0, 0, 0, 0, /*stopWithIt=*/true}});
    // Two sleeps for the first two failures; the third sees the flag and leaves at once.
    EXPECT_EQ(clock.sleep_calls(), 2u);
    EXPECT_EQ(clock.slept_us(), 2'000'000u);
    using R = std::vector<std::pair<uint32_t, uint64_t>>;
    EXPECT_EQ(replies(), (R{{257, 0}}));
    EXPECT_EQ(g_events.back(), "unregister quorvex.DragDropTool.guest.mac");
}

TEST_F(ControlLoopTest, StopSetBeforeStartSendsOnlyTheStopNotice) {
    qvxtest::VirtualClock clock;
    g_stopFlag = true;
    run({{true, 10, 0}});
    using R = std::vector<std::pair<uint32_t, uint64_t>>;
    EXPECT_EQ(replies(), (R{{257, 0}}));
    EXPECT_EQ(g_sent.size(), 1u);  // not a single poll
}

TEST_F(ControlLoopTest, StopSetDuringAPassEndsTheLoopAfterIt) {
    qvxtest::VirtualClock clock;
    run({{true, 10, 0, 0, 0, /*stopWithIt=*/true}, {true, 10, 0}});
    using R = std::vector<std::pair<uint32_t, uint64_t>>;
    EXPECT_EQ(replies(), (R{{256, 0}, {257, 0}}));
}

}  // namespace
}  // namespace qvx
