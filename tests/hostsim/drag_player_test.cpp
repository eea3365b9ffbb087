// The host's drag player against an in-process desktop: its answers, the pointer it drives,
// and the host commands it queues when the desktop is ready for them.
#include "hostsim/drag_player.h"

#include <gtest/gtest.h>

#include <chrono>
#include <mutex>
#include <thread>

#include "channel/dnd_message.h"
#include "channel/message_ops.h"
#include "platform/sim/desktop.h"
#include "platform/sim/desktop_socket.h"
#include "platform/sim/platform_root.h"
#include "support/main_loop.h"
#include "support/private_root.h"
#include "support/processes.h"

namespace {

using namespace std::chrono_literals;
namespace dnd = qvx::dnd;

using qvxtest::eventually;

class DragPlayerTest : public ::testing::Test {
  protected:
    static void SetUpTestSuite() { qvxtest::private_platform_root(); }
    void SetUp() override {
        platform::desktop_reset();
        ASSERT_TRUE(m_desktop.Start());
        m_host.set_poll_hold(10ms);
        ASSERT_TRUE(m_host.start());
        m_comm = std::make_unique<qvx::CommonMacCommunicator>();
    }
    void TearDown() override {
        platform::run_loop_reset(CFRunLoopGetMain());
        platform::desktop_reset();
    }
    qvx::DnDContext context(uint64_t worker) {
        return qvx::DnDContext{worker, m_comm.get(), qvx::SendDnDCommand};
    }
    // The next host command the poll hands out.
    uint32_t poll() {
        uint8_t out[dnd::kMessageSize], reply[dnd::kMessageSize];
        dnd::init_message(out, sizeof out, dnd::kCmdPoll, 0);
        if (!qvx::SendDnDCommand(m_comm.get(), out, sizeof out, reply, sizeof reply)) return ~0u;
        return dnd::status(reply);
    }

    platform::Desktop m_desktop{platform::path("run/quorvex/desktop")};
    hostsim::Host m_host;
    std::unique_ptr<qvx::CommonMacCommunicator> m_comm;
};

TEST_F(DragPlayerTest, DropWaitsForAWindowAndPointerMessagesMoveTheGuestPointer) {
    hostsim::DragPlayer player(m_host);
    player.set_prepare_value(3);
    uint32_t value = 0;
    EXPECT_TRUE(qvx::QueryPrepare(context(7), &value));
    EXPECT_EQ(value, 3u);

    EXPECT_TRUE(qvx::sendMoveMouse(context(7), 100, 200, 1));
    EXPECT_EQ(platform::pointer_state().x, 100);
    EXPECT_EQ(platform::pointer_state().buttons, 1u);
    EXPECT_TRUE(qvx::sendMoveMouse(context(7), 300, 200, 2));
    EXPECT_EQ(platform::pointer_state().buttons, 1u);
    EXPECT_TRUE(qvx::sendMoveMouse(context(7), 300, 200, 0));
    EXPECT_EQ(platform::pointer_state().buttons, 0u);
    EXPECT_TRUE(m_host.trace().contains("desktop pointer x=300 y=200 buttons=0"));

    // Host pixels (400, 1200) are the point (200, 300): nothing there yet.
    std::mutex mutex;
    std::vector<uint32_t> passedOn;  // by the host's connection thread
    hostsim::DropPlan plan;
    plan.x = 400;
    plan.y = 1200;
    plan.workerId = 5;
    plan.whenWindowThere = true;
    plan.transfer = [&](hostsim::Exchange& ex) {
        std::lock_guard lock(mutex);
        passedOn.push_back(ex.command);
        return 0u;
    };
    player.drop(plan);
    std::this_thread::sleep_for(100ms);
    EXPECT_EQ(m_host.queued_commands(), 0u);
    platform::open_folder_window("/elsewhere", NSMakeRect(600, 0, 100, 100), true);
    std::this_thread::sleep_for(100ms);
    EXPECT_EQ(m_host.queued_commands(), 0u);
    platform::open_folder_window("/guest", NSMakeRect(0, 0, 500, 400), true);
    ASSERT_TRUE(eventually([&] { return m_host.queued_commands() == 1; }, 5s));
    EXPECT_EQ(poll(), dnd::kHostCmdHostToGuest);
    EXPECT_EQ(player.pending(), 0u);

    // The drop's operation: the drag's messages stay with the player (its prepare notice
    // too: the receive has not begun), the receive's go to the transfer, which sees only
    // the first of the two 280s.
    qvx::SendDialog(context(5), dnd::kDialogPrepare, 0, u"");
    EXPECT_TRUE(qvx::QueryPrepare(context(5), &value));
    EXPECT_TRUE(qvx::SendPlain(context(5), dnd::kCmdTransferStart));
    EXPECT_TRUE(qvx::SendPlain(context(5), dnd::kCmdTransferStart));
    EXPECT_TRUE(qvx::QueryTransferTotals(context(5), nullptr, nullptr));
    qvx::SendDialog(context(5), 1, 0, u"a.txt");
    std::lock_guard lock(mutex);
    EXPECT_EQ(passedOn, (std::vector<uint32_t>{dnd::kCmdTransferStart, dnd::kCmdQueryTotals,
                                               dnd::kCmdDialog}));
}

TEST_F(DragPlayerTest, GuestDragAtTheEdgeIsTakenOnceAndReleasedAtHandOver) {
    hostsim::DragPlayer player(m_host);
    // A list outside the drags the player plays goes to the fallback.
    player.set_file_list_fallback([](hostsim::Exchange& ex) {
        qvx::le::put64(ex.reply.data(), dnd::kOffWorkerId, 77);
        return 0u;
    });
    uint64_t worker = 0;
    EXPECT_TRUE(qvx::SendFileList(context(0), false, {"/g/a"}, &worker, nullptr));
    EXPECT_EQ(worker, 77u);

    hostsim::GuestDragPlan plan;
    plan.workerId = 8;
    plan.newWorkerId = 9;
    plan.action = 4u /* delete */;
    player.guest_drag(plan);
    plan.workerId = 10;
    plan.newWorkerId = 11;
    plan.action = 0u /* send */;
    player.guest_drag(plan);
    const NSInteger folder = platform::open_folder_window("/g", NSMakeRect(0, 0, 300, 300), true);
    platform::select_in_window(folder, {platform::Selection::Kind::Paths, {"/g/a"}, {}});

    qvxtest::with_main_loop([&] {
        // Held inside the screens: no 204; at the edge: one.
        platform::post_pointer_event(100, 1500, 1);
        platform::post_pointer_event(2000, 1500, 1);
        qvxtest::settle();
        std::this_thread::sleep_for(100ms);
        EXPECT_EQ(m_host.queued_commands(), 0u);
        platform::post_pointer_event(1e7, 1500, 1);
        ASSERT_TRUE(eventually([&] { return m_host.queued_commands() == 1; }, 5s));
        EXPECT_EQ(poll(), dnd::kHostCmdGuestToHost);

        uint32_t action = 0;
        EXPECT_TRUE(qvx::SendFileList(context(0), false, {"/g/a"}, &worker, &action));
        EXPECT_EQ(worker, 9u);
        EXPECT_EQ(action, 4u /* delete */);
        EXPECT_TRUE(qvx::SendChecked(context(9), dnd::kCmd273));
        EXPECT_EQ(platform::pointer_state().buttons, 0u);
        EXPECT_EQ(platform::pointer_state().x, 2879);
        qvxtest::settle();
        EXPECT_FALSE(platform::current_drag());

        // The next drag goes straight back to the edge, maybe before the player looks
        // again: the release at 273 ended the last one there, so this is a new arrival.
        platform::post_pointer_event(100, 1500, 1);
        platform::post_pointer_event(1e7, 1500, 1);
        ASSERT_TRUE(eventually([&] { return m_host.queued_commands() == 1; }, 5s));
        EXPECT_EQ(poll(), dnd::kHostCmdGuestToHost);
        EXPECT_TRUE(qvx::SendFileList(context(0), false, {"/g/a"}, &worker, &action));
        EXPECT_EQ(worker, 11u);
        EXPECT_EQ(action, 0u /* send */);
        EXPECT_TRUE(qvx::SendChecked(context(11), dnd::kCmd273));
        qvxtest::settle();
    });
    EXPECT_EQ(m_host.queued_commands(), 0u);
    EXPECT_EQ(player.pending(), 0u);
}

}  // namespace
