// Tests of the simulated host: the held poll, expectations, faults, the trace, and
// surviving broken frames on one connection while serving another.
#include "hostsim/host.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "channel/communicator.h"
#include "channel/dnd_message.h"
#include "common/byte_order.h"
#include "common/toolgate_abi.h"
#include "platform/sim/toolgate_frames.h"
#include "support/private_root.h"

namespace {

using namespace std::chrono_literals;
namespace dnd = qvx::dnd;
namespace le = qvx::le;

class HostTest : public ::testing::Test {
  protected:
    static void SetUpTestSuite() { qvxtest::private_platform_root(); }
    void SetUp() override {
        host.set_poll_hold(100ms);
        ASSERT_TRUE(host.start());
        comm = std::make_unique<qvx::CommonMacCommunicator>();
        ASSERT_NE(comm->handle(), 0u);
    }

    // Sends one record; returns the reply, or an empty vector when the exchange failed.
    std::vector<uint8_t> exchange(uint32_t command, uint64_t workerId = 0) {
        std::vector<uint8_t> out(dnd::kMessageSize), reply(dnd::kMessageSize);
        dnd::init_message(out.data(), out.size(), command, workerId);
        if (command == dnd::kCmdMoveMouse) {
            le::put32(out.data(), dnd::kOffPointerX, 100);
            le::put32(out.data(), dnd::kOffPointerY, 200);
            le::put32(out.data(), dnd::kOffPointerButtons, 1);
        }
        if (!qvx::SendDnDCommand(comm.get(), out.data(), dnd::kMessageSize, reply.data(),
                                 dnd::kMessageSize))
            return {};
        return reply;
    }

    hostsim::Host host;
    std::unique_ptr<qvx::CommonMacCommunicator> comm;
};

TEST_F(HostTest, BoundedHoldAnswersZeroOrAtOnceWithAQueuedCommand) {
    auto start = std::chrono::steady_clock::now();
    auto reply = exchange(dnd::kCmdPoll);
    ASSERT_FALSE(reply.empty());
    EXPECT_EQ(dnd::status(reply.data()), 0u);
    EXPECT_GE(std::chrono::steady_clock::now() - start, 90ms);

    host.set_poll_hold(5s);
    std::thread late([&] {
        std::this_thread::sleep_for(50ms);
        host.queue_command(hostsim::HostCommand::drop(640, 480, 7));
    });
    start = std::chrono::steady_clock::now();
    reply = exchange(dnd::kCmdPoll);
    late.join();
    EXPECT_LT(std::chrono::steady_clock::now() - start, 2s);
    ASSERT_FALSE(reply.empty());
    EXPECT_EQ(dnd::status(reply.data()), 200u);
    EXPECT_EQ(dnd::worker_id(reply.data()), 7u);
    EXPECT_EQ(le::get32(reply.data(), dnd::kOffPointerX), 640u);
    EXPECT_EQ(le::get32(reply.data(), dnd::kOffPointerY), 480u);
    EXPECT_TRUE(host.trace().contains("guest->host 259 poll worker=0"));
    EXPECT_TRUE(host.trace().contains("host->guest 259 status=200 worker=7 x=640 y=480"));
}

TEST_F(HostTest, ExpectationsAreMetByTheRightAnswerAndMissedByAnEarlyPoll) {
    host.queue_command(10);
    host.queue_command(77, 5);
    host.queue_command(78, 6);
    EXPECT_EQ(dnd::status(exchange(dnd::kCmdPoll).data()), 10u);
    exchange(dnd::kCmdToolActive);
    EXPECT_EQ(dnd::status(exchange(dnd::kCmdPoll).data()), 77u);
    exchange(dnd::kCmdEnd, 4);  // wrong workerId: not the answer
    exchange(dnd::kCmdEnd, 5);
    EXPECT_TRUE(host.expectations_met());
    EXPECT_EQ(dnd::status(exchange(dnd::kCmdPoll).data()), 78u);
    EXPECT_FALSE(host.expectations_met());  // pending
    exchange(dnd::kCmdPoll);                // 78 was never answered
    exchange(dnd::kCmdToolStops);

    const auto e = host.expectations();
    ASSERT_EQ(e.size(), 3u);
    EXPECT_EQ(e[0].state, hostsim::Expectation::State::Met);
    EXPECT_EQ(e[1].state, hostsim::Expectation::State::Met);
    EXPECT_EQ(e[2].state, hostsim::Expectation::State::Missed);
    EXPECT_FALSE(host.expectations_met());
    EXPECT_TRUE(host.tool_stopped());
    EXPECT_TRUE(host.trace().contains("expectation met: 256 after host command 10 worker=0"));
    EXPECT_TRUE(host.trace().contains("expectation missed: 260 after host command 78 worker=6"));
}

TEST_F(HostTest, FaultsHitExactlyTheNthMessageAndHandlersShapeReplies) {
    host.fail_nth(dnd::kCmdMoveMouse, 2, 9);
    host.fail_nth(dnd::kCmdPoll, 1, 0xF0000025, hostsim::FaultLevel::Completion);
    host.set_handler(dnd::kCmdQueryPrepare, [](hostsim::Exchange& ex) {
        le::put32(ex.reply.data(), dnd::kOffPrepareValue, 3);
        return 0u;
    });
    EXPECT_EQ(dnd::status(exchange(dnd::kCmdMoveMouse).data()), 0u);
    EXPECT_EQ(dnd::status(exchange(dnd::kCmdMoveMouse).data()), 9u);
    EXPECT_EQ(dnd::status(exchange(dnd::kCmdMoveMouse).data()), 0u);
    EXPECT_TRUE(exchange(dnd::kCmdPoll).empty());
    EXPECT_EQ(le::get32(exchange(dnd::kCmdQueryPrepare).data(), dnd::kOffPrepareValue), 3u);

    host.delay_reply(dnd::kCmdDataEnd, 0, 150ms);
    const auto start = std::chrono::steady_clock::now();
    EXPECT_FALSE(exchange(dnd::kCmdDataEnd).empty());
    EXPECT_GE(std::chrono::steady_clock::now() - start, 140ms);

    EXPECT_TRUE(host.trace().contains("guest->host 275 move-mouse worker=0 x=100 y=200 buttons=1"));
    EXPECT_TRUE(host.trace().contains("host->guest 275 status=9 worker=0"));
    EXPECT_TRUE(host.trace().contains("host->guest 259 completion=0xf0000025"));
}

// Transfer faults count every message of one workerId, whatever its command, and leave
// other transfers and the operation-less commands alone.
TEST_F(HostTest, TransferFaultsHitTheNthMessageOfTheirTransferOnly) {
    host.set_worker_handler(7, [](hostsim::Exchange&) { return 0u; });
    host.fail_transfer_nth(7, 2, 5);
    host.close_transfer_at(7, 4);
    EXPECT_EQ(dnd::status(exchange(dnd::kCmdTransferStart, 7).data()), 0u);
    EXPECT_EQ(dnd::status(exchange(dnd::kCmdTransferStart, 8).data()), 0u);
    EXPECT_EQ(dnd::status(exchange(dnd::kCmdPoll).data()), 0u) << "no message of a transfer";
    EXPECT_EQ(dnd::status(exchange(dnd::kCmdNextItem, 7).data()), 5u);
    EXPECT_EQ(dnd::status(exchange(dnd::kCmdDialog, 7).data()), 0u);
    const uint64_t requests = host.request_count();
    EXPECT_TRUE(exchange(dnd::kCmdLinkTarget, 7).empty()) << "the exchange is lost";
    EXPECT_TRUE(host.trace().wait_for_line("closed at message 4 of transfer 7", 2s));
    EXPECT_EQ(dnd::status(exchange(dnd::kCmdEnd, 7).data()), 0u) << "once, on a new connection";
    EXPECT_EQ(host.request_count(), requests + 2);
    EXPECT_EQ(host.transfer_message_count(7), 5u);
    EXPECT_EQ(host.transfer_message_count(8), 1u);
}

int raw_connect(const std::string& path);

// A poll frame as the guest sends it: the record, and a reply buffer without contents.
std::vector<uint8_t> poll_frame() {
    const toolgate::FrameBuffer buffers[2] = {{dnd::kMessageSize, toolgate::kFrameFlagContents},
                                              {dnd::kMessageSize, toolgate::kFrameFlagWritable}};
    std::vector<uint8_t> frame(toolgate::request_header_bytes(2) + dnd::kMessageSize);
    toolgate::encode_request_header(frame.data(), toolgate::kRequestDnD, buffers, 2,
                                    dnd::kMessageSize);
    dnd::init_message(frame.data() + toolgate::request_header_bytes(2), dnd::kMessageSize,
                      dnd::kCmdPoll, 0);
    return frame;
}

TEST_F(HostTest, IdlePollWaitsForACommandAndIsLeftWhenTheGuestHangsUp) {
    host.set_poll_hold(std::nullopt);
    // A guest that gives up on its held poll: the next command must not be spent on it.
    const int fd = raw_connect(host.socket_path());
    const auto frame = poll_frame();
    ASSERT_EQ(send(fd, frame.data(), frame.size(), MSG_NOSIGNAL),
              static_cast<ssize_t>(frame.size()));
    ASSERT_TRUE(host.trace().wait_for_line("guest->host 259 poll", 2s));
    close(fd);
    EXPECT_TRUE(host.trace().wait_for_line("closed by the guest while a poll was held", 2s));

    std::thread late([&] {
        std::this_thread::sleep_for(400ms);
        host.queue_command(10);
    });
    const auto start = std::chrono::steady_clock::now();
    const auto reply = exchange(dnd::kCmdPoll);
    late.join();
    EXPECT_GE(std::chrono::steady_clock::now() - start, 350ms);  // held, not answered with 0
    ASSERT_FALSE(reply.empty());
    EXPECT_EQ(dnd::status(reply.data()), 10u);
    EXPECT_EQ(host.queued_commands(), 0u);
    EXPECT_EQ(host.trace().count("host->guest 259"), 1u);
}

int raw_connect(const std::string& path) {
    const int fd = socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    std::strcpy(addr.sun_path, path.c_str());
    EXPECT_EQ(connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)), 0);
    return fd;
}

// Sends bytes and waits until the host hangs up on this connection.
bool host_hangs_up(const std::string& path, const std::vector<uint8_t>& bytes, bool halfClose) {
    const int fd = raw_connect(path);
    EXPECT_EQ(send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL),
              static_cast<ssize_t>(bytes.size()));
    if (halfClose) shutdown(fd, SHUT_WR);
    uint8_t buf[64];
    timeval tv{2, 0};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof(tv));
    const ssize_t n = read(fd, buf, sizeof(buf));
    close(fd);
    return n == 0;
}

TEST_F(HostTest, BrokenFramesCloseTheirConnectionWhileOthersAreServed) {
    std::vector<uint8_t> oversized(8);
    le::put32(oversized.data(), 0, (16u << 20) + 1);
    std::vector<uint8_t> count17(12);
    le::put32(count17.data(), 0, 8);
    le::put32(count17.data(), 4, 0x8304);
    le::put32(count17.data(), 8, 17);
    std::vector<uint8_t> garbage(300);
    for (size_t i = 0; i < garbage.size(); ++i) garbage[i] = static_cast<uint8_t>(i * 37 + 1);
    le::put32(garbage.data(), 0, 296);
    std::vector<uint8_t> truncated(100, 0);
    le::put32(truncated.data(), 0, 2000);

    EXPECT_TRUE(host_hangs_up(host.socket_path(), oversized, false));
    EXPECT_FALSE(exchange(dnd::kCmdToolActive).empty());
    EXPECT_TRUE(host_hangs_up(host.socket_path(), count17, false));
    EXPECT_TRUE(host_hangs_up(host.socket_path(), garbage, false));
    EXPECT_TRUE(host_hangs_up(host.socket_path(), truncated, true));
    EXPECT_FALSE(exchange(dnd::kCmdToolActive).empty());
    // The host notes why it closed a connection just after closing it, so the note may
    // trail the hang-up that the client saw.
    EXPECT_TRUE(host.trace().wait_for_line("malformed frame (length over 16 MiB)", 2s));
    EXPECT_TRUE(host.trace().wait_for_line("short frame", 2s));
    EXPECT_EQ(host.message_count(dnd::kCmdToolActive), 2u);
}

// A long-running host keeps only the latest entries, while the listener sees every one.
TEST(Trace, KeepsTheLatestEntriesWithinItsCapacity) {
    hostsim::Trace trace(8);
    size_t heard = 0;
    trace.set_listener([&](const hostsim::TraceEntry&) { ++heard; });
    for (int i = 0; i < 1000; ++i) trace.note("note " + std::to_string(i));
    EXPECT_EQ(heard, 1000u);
    EXPECT_LE(trace.size(), 8u);
    EXPECT_GE(trace.size(), 4u);
    EXPECT_EQ(trace.lines().back(), "note 999");
    EXPECT_FALSE(trace.contains("note 0"));

    hostsim::Trace none(0);
    none.set_listener([&](const hostsim::TraceEntry&) { ++heard; });
    for (int i = 0; i < 10; ++i) none.note("x");
    EXPECT_EQ(heard, 1010u);
    EXPECT_EQ(none.size(), 0u);
}

// A line that arrives while a wait is in progress is seen even when it is dropped before
// the waiting thread gets to run.
TEST(Trace, WaitSeesALineDroppedBeforeItWokeUp) {
    hostsim::Trace trace(4);
    bool seen = false;
    std::thread waiter([&] { seen = trace.wait_for_line("needle", 10s); });
    while (trace.waiting() == 0) std::this_thread::sleep_for(1ms);
    trace.note("the needle");
    for (int i = 0; i < 100; ++i) trace.note("hay");
    waiter.join();
    EXPECT_TRUE(seen);
    EXPECT_FALSE(trace.contains("needle"));
    EXPECT_EQ(trace.waiting(), 0u);
    EXPECT_FALSE(trace.wait_for_line("needle", 10ms));
}

}  // namespace
