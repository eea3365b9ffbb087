// Tests of CommonMacCommunicator and SendDnDCommand against the simulated host.
#include "channel/communicator.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

#include "channel/dnd_message.h"
#include "common/byte_order.h"
#include "hostsim/host.h"
#include "log/log.h"
#include "support/log_capture.h"
#include "support/private_root.h"

namespace {

using namespace std::chrono_literals;
namespace dnd = qvx::dnd;
namespace le = qvx::le;

#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
constexpr int kMessagesPerThread = 1000;
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer) || __has_feature(address_sanitizer)
constexpr int kMessagesPerThread = 1000;
#else
constexpr int kMessagesPerThread = 10000;
#endif
#else
constexpr int kMessagesPerThread = 10000;
#endif

class CommunicatorTest : public ::testing::Test {
  protected:
    static void SetUpTestSuite() { qvxtest::private_platform_root(); }
    void SetUp() override { qvx::log_set_verbosity(1); }

    bool send(qvx::CommonMacCommunicator& c, uint32_t command, std::vector<uint8_t>& reply) {
        std::vector<uint8_t> out(dnd::kMessageSize);
        dnd::init_message(out.data(), out.size(), command, 0);
        reply.assign(dnd::kMessageSize, 0);
        return qvx::SendDnDCommand(&c, out.data(), dnd::kMessageSize, reply.data(),
                                   dnd::kMessageSize);
    }
};

TEST_F(CommunicatorTest, CompletionStatusDecidesTheResultAndTheLogLine) {
    hostsim::Host host;
    ASSERT_TRUE(host.start());
    qvx::CommonMacCommunicator c;
    ASSERT_NE(c.handle(), 0u);
    qvxtest::LogCapture log;
    std::vector<uint8_t> reply;

    host.set_handler(273, [](hostsim::Exchange&) { return 42u; });
    EXPECT_TRUE(send(c, 273, reply));
    EXPECT_EQ(dnd::status(reply.data()), 42u);  // message-level status is the caller's business

    host.set_suspended(true);
    EXPECT_FALSE(send(c, 273, reply));
    EXPECT_EQ(log.count("[DNDTOOL] DnD command [273] finished with status suspended"), 1u);
    EXPECT_FALSE(log.contains("finished with status ["));
    host.set_suspended(false);

    host.fail_nth(273, 3, 0x1234, hostsim::FaultLevel::Completion);
    EXPECT_FALSE(send(c, 273, reply));
    EXPECT_EQ(log.count("DnD command [273] finished with status [4660]"), 1u);

    // Verbosity 0 keeps both level-1 lines out.
    qvx::log_set_verbosity(0);
    host.set_suspended(true);
    log.clear();
    EXPECT_FALSE(send(c, 273, reply));
    EXPECT_TRUE(log.lines().empty());
    qvx::log_set_verbosity(-1);
}

TEST_F(CommunicatorTest, WithoutTheServiceTheHandleIsZeroAndCallsNeverReachTheDriver) {
    qvxtest::LogCapture log;
    qvx::CommonMacCommunicator c;  // nothing serves the socket
    EXPECT_EQ(c.handle(), 0u);
    EXPECT_TRUE(log.contains("[COMMON_COM] qvx_tg driver is not loaded."));
    uint8_t request[48] = {};
    EXPECT_EQ(c.Call(request), static_cast<kern_return_t>(0xFFFFFFFB));
    std::vector<uint8_t> reply;
    EXPECT_FALSE(send(c, 259, reply));
    EXPECT_TRUE(log.contains("[DNDTOOL] Can't send DnD command [259] to toolgate"));
}

TEST_F(CommunicatorTest, HostGoneFailsEachCallAndCloseThatFailsStillClears) {
    auto host = std::make_unique<hostsim::Host>();
    ASSERT_TRUE(host->start());
    qvx::CommonMacCommunicator c;
    ASSERT_NE(c.handle(), 0u);
    std::vector<uint8_t> reply;
    EXPECT_TRUE(send(c, 256, reply));
    host.reset();

    qvxtest::LogCapture log;
    EXPECT_FALSE(send(c, 256, reply));
    EXPECT_FALSE(send(c, 256, reply));
    EXPECT_EQ(log.count("Can't send DnD command [256] to toolgate"), 2u);

    // Closing the handle behind the communicator's back makes its own close fail.
    ASSERT_EQ(IOServiceClose(c.handle()), kIOReturnSuccess);
    c.Close();
    EXPECT_EQ(c.handle(), 0u);
    EXPECT_TRUE(log.contains("[COMMON_COM] IOServiceClose returned 0x"));
    c.Close();
    EXPECT_EQ(log.count("IOServiceClose returned"), 1u);
}

TEST_F(CommunicatorTest, ReconnectsAfterTheHostClosesAConnection) {
    hostsim::Host host;
    ASSERT_TRUE(host.start());
    qvx::CommonMacCommunicator c;
    std::vector<uint8_t> reply;
    EXPECT_TRUE(send(c, 256, reply));
    host.close_at(2);
    EXPECT_FALSE(send(c, 256, reply));  // the host read it and hung up
    EXPECT_TRUE(send(c, 256, reply));
    // A connection dropped while idle costs no failed call: nothing had been sent on it.
    host.drop_connections();
    for (int i = 0; i < 400 && host.open_connections() > 0; ++i) std::this_thread::sleep_for(5ms);
    ASSERT_EQ(host.open_connections(), 0u);
    EXPECT_TRUE(send(c, 256, reply));
}

TEST_F(CommunicatorTest, ConcurrentCallsOnOneConnectionEachGetTheirOwnReply) {
    hostsim::HostOptions options;
    options.trace = false;
    hostsim::Host host(options);
    // The reply carries back what only this request had: its workerId and a payload word.
    host.set_fallback_handler([](hostsim::Exchange& ex) {
        le::put32(ex.reply.data(), 28, le::get32(ex.request.data(), 28) ^ 0x5A5A5A5A);
        return static_cast<uint32_t>(ex.workerId);
    });
    ASSERT_TRUE(host.start());
    qvx::CommonMacCommunicator c;
    ASSERT_NE(c.handle(), 0u);
    std::atomic<int> mismatches{0}, failures{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 8; ++t) {
        threads.emplace_back([&, t] {
            std::vector<uint8_t> out(dnd::kMessageSize), reply(dnd::kMessageSize);
            for (int i = 0; i < kMessagesPerThread; ++i) {
                const uint64_t worker = static_cast<uint64_t>(t) << 20 | static_cast<uint64_t>(i);
                dnd::init_message(out.data(), out.size(), 266, worker);
                le::put32(out.data(), 28, static_cast<uint32_t>(worker * 2654435761u));
                if (!qvx::SendDnDCommand(&c, out.data(), dnd::kMessageSize, reply.data(),
                                         dnd::kMessageSize)) {
                    ++failures;
                    continue;
                }
                if (dnd::worker_id(reply.data()) != worker ||
                    dnd::status(reply.data()) != static_cast<uint32_t>(worker) ||
                    le::get32(reply.data(), 28) !=
                        (static_cast<uint32_t>(worker * 2654435761u) ^ 0x5A5A5A5A))
                    ++mismatches;
            }
        });
    }
    for (auto& th : threads) th.join();
    EXPECT_EQ(failures.load(), 0);
    EXPECT_EQ(mismatches.load(), 0);
    EXPECT_EQ(host.message_count(266), 8u * kMessagesPerThread);
    EXPECT_LE(host.open_connections(), 8u);
}

}  // namespace
