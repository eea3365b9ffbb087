// The control loop against a scripted host: dispatch, worker ids, stop and sleep timing.
#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "app/control_loop.h"
#include "channel/dnd_message.h"
#include "support/log_capture.h"
#include "support/record_check.h"
#include "support/virtual_clock.h"

namespace qvx {
namespace {

using Pairs = std::vector<std::pair<uint32_t, uint64_t>>;

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

class ControlLoopTest : public ::testing::Test {
  protected:
    void SetUp() override { g_stopFlag = false; }
    void TearDown() override { g_stopFlag = false; }

    std::vector<Sent> m_sent;
    std::vector<std::string> m_events;          // hook calls, in order with the sends
    std::vector<std::vector<uint8_t>> m_polls;  // every poll record as sent
    bool m_hostToGuestResult = false;
    double m_scale = 1.0;
    int m_dropX = -1, m_dropY = -1;
    std::vector<std::pair<uint32_t, uint64_t>> m_handlerWorkers;  // host command, workerId

    ControlLoopHooks hooks() {
        ControlLoopHooks h;
        h.hostToGuestDrag = [this](DnDContext ctx, int x, int y) {
            m_dropX = x;
            m_dropY = y;
            m_handlerWorkers.emplace_back(200, ctx.workerId);
            m_events.push_back("200 handler");
            ctx.workerId = 999;  // a copy: must not leak back into the loop's context
            return m_hostToGuestResult;
        };
        h.guestToHostDrag = [this](DnDContext ctx) {
            m_handlerWorkers.emplace_back(204, ctx.workerId);
            m_events.push_back("204 handler");
        };
        h.scaleFactor = [this] { return m_scale; };
        h.registerTool = [this](const char* id, const char* name, const ToolInfo*, const char*,
                                const void*, uint32_t) {
            m_events.push_back(std::string("register ") + id + " / " + name);
            return 0;
        };
        h.unregisterTool = [this](const char* id) {
            m_events.push_back(std::string("unregister ") + id);
            return 0;
        };
        return h;
    }

    // Runs the loop; when the script is used up the host fails with the stop flag set.
    void run(std::vector<PollAnswer> script) {
        size_t next = 0;
        SendFunction send = [&](CommonMacCommunicator*, const void* out, uint32_t outSize,
                                void* reply, uint32_t replySize) {
            EXPECT_EQ(outSize, 2196u);
            EXPECT_EQ(replySize, 2196u);
            const uint32_t command = dnd::command(out);
            m_sent.push_back({command, dnd::worker_id(out)});
            m_events.push_back("send " + std::to_string(command));
            if (command != 259) return true;
            const auto* bytes = static_cast<const uint8_t*>(out);
            m_polls.emplace_back(bytes, bytes + outSize);
            if (next == script.size()) {
                g_stopFlag = true;
                return false;
            }
            const PollAnswer& a = script[next++];
            if (a.stopWithIt) g_stopFlag = true;
            if (!a.ok) return false;
            // The reply fields at their offsets: host command 8, workerId 12, x 28, y 32.
            le::put32(reply, 8, a.hostCommand);
            le::put64(reply, 12, a.workerId);
            le::put32(reply, 28, a.x);
            le::put32(reply, 32, a.y);
            return true;
        };
        RunControlLoop(nullptr, send, hooks());
    }

    // The non-poll records, in order.
    std::vector<std::pair<uint32_t, uint64_t>> replies() const {
        std::vector<std::pair<uint32_t, uint64_t>> out;
        for (const auto& s : m_sent)
            if (s.command != 259) out.emplace_back(s.command, s.workerId);
        return out;
    }
};

TEST_F(ControlLoopTest, DispatchesEachHostCommandAndPollsWithWorkerZero) {
    qvxtest::VirtualClock clock;
    qvxtest::LogCapture log;
    m_hostToGuestResult = true;
    run({{true, 10, 0}, {true, 77, 5}, {true, 204, 9}, {true, 200, 11, 100, 200}, {true, 0, 0}});

    // 10: one 256 and no 260; unknown 77 and the idle 0: 260 with the reply's id; 204:
    // 260 after the handler; 200 taken over by the handler: nothing; then 257.
    EXPECT_EQ(replies(), (Pairs{{256, 0}, {260, 5}, {260, 9}, {260, 0}, {257, 0}}));
    for (const auto& s : m_sent) EXPECT_TRUE(s.command != 259 || s.workerId == 0) << s.workerId;
    EXPECT_EQ(clock.sleep_calls(), 0u);  // successful polls follow each other at once

    ASSERT_GE(m_events.size(), 3u);
    EXPECT_EQ(m_events.front(), "register quorvex.DragDropTool.guest.mac / DnD tool");
    EXPECT_EQ(m_events[m_events.size() - 2], "send 257");
    EXPECT_EQ(m_events.back(), "unregister quorvex.DragDropTool.guest.mac");

    EXPECT_EQ(log.count("W /qvxdragdrop:"), log.count("[DNDTOOL]"));
    EXPECT_EQ(log.count("[DNDTOOL] DnD command received [10]"), 1u);
    EXPECT_EQ(log.count("[DNDTOOL] DnD command received [204]"), 1u);
    EXPECT_EQ(log.count("[DNDTOOL] Control Thread stopped"), 1u);
}

TEST_F(ControlLoopTest, DeclinedHostDropEndsTheOperationWithTheReplysWorker) {
    qvxtest::VirtualClock clock;
    m_hostToGuestResult = false;
    run({{true, 200, 12, 0, 0}, {true, 204, 13}});
    EXPECT_EQ(replies(), (Pairs{{260, 12}, {260, 13}, {257, 0}}));
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
    EXPECT_EQ(m_events, expected);
    EXPECT_EQ(m_handlerWorkers, (Pairs{{200, 12}, {204, 13}}));
}

// Every poll is the bare header, worker 0 whatever the last reply said; each handler is
// given the workerId of the reply that brought its host command.
TEST_F(ControlLoopTest, PollRecordIsBareAndHandlersGetTheirReplysWorker) {
    qvxtest::VirtualClock clock;
    m_hostToGuestResult = true;
    run({{true, 200, 0x0102030405060708, 10, 20}, {true, 204, 0x1112131415161718}});
    EXPECT_EQ(m_handlerWorkers, (Pairs{{200, 0x0102030405060708}, {204, 0x1112131415161718}}));
    ASSERT_EQ(m_polls.size(), 3u);
    for (const auto& poll : m_polls) {
        EXPECT_TRUE(qvxtest::record_matches(poll, 2196, {{0, 4, 259}, {4, 4, 2}}));
    }
}

TEST_F(ControlLoopTest, HostPixelsAreDividedByTheScaleFactor) {
    qvxtest::VirtualClock clock;
    m_scale = 2.0;
    m_hostToGuestResult = true;
    run({{true, 200, 3, 2880, 1800}});
    EXPECT_EQ(m_dropX, 1440);
    EXPECT_EQ(m_dropY, 900);

    g_stopFlag = false;
    m_scale = 1.5;  // truncation toward zero, not rounding
    run({{true, 200, 3, 1001, 2}});
    EXPECT_EQ(m_dropX, 667);
    EXPECT_EQ(m_dropY, 1);

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
    EXPECT_EQ(replies(), (Pairs{{257, 0}}));
    EXPECT_EQ(m_events.back(), "unregister quorvex.DragDropTool.guest.mac");
}

TEST_F(ControlLoopTest, StopSetDuringAPassEndsTheLoopAfterItAndBeforeStartSendsOnly257) {
    qvxtest::VirtualClock clock;
    run({{true, 10, 0, 0, 0, /*stopWithIt=*/true}, {true, 10, 0}});
    EXPECT_EQ(replies(), (Pairs{{256, 0}, {257, 0}}));

    m_sent.clear();
    run({{true, 10, 0}});  // the flag is still set
    EXPECT_EQ(replies(), (Pairs{{257, 0}}));
    EXPECT_EQ(m_sent.size(), 1u);  // not a single poll
}

}  // namespace
}  // namespace qvx
