// Tests of the IOKit stand-in against a hand-written peer: matching, opening, the frame
// it sends, replies that trickle in, and replies that break the rules.
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <cstring>
#include <functional>
#include <mutex>
#include <optional>
#include <thread>
#include <vector>

#include <IOKit/IOKitLib.h>

#include "channel/communicator.h"
#include "common/byte_order.h"
#include "common/signal_block.h"
#include "common/toolgate_abi.h"
#include "log/log.h"
#include "platform/sim/platform_root.h"
#include "platform/sim/toolgate_frames.h"
#include "support/log_capture.h"
#include "support/private_root.h"
#include "support/temp_dir.h"
#include "toolservice/transport.h"

namespace {

namespace le = qvx::le;

// A peer on the socket of service class `name` that answers each accepted connection's
// requests with `reply(body)`, written `piece` bytes at a time; an empty reply closes, no
// reply at all (nullopt) leaves the request unanswered.
class RawPeer {
  public:
    using Reply =
        std::function<std::optional<std::vector<uint8_t>>(const std::vector<uint8_t>& body)>;
    // `midway`, if given, runs once a reply's first piece has gone out, before the rest.
    RawPeer(const std::string& name, Reply reply, size_t piece,
            std::function<void()> midway = nullptr)
        : m_reply(std::move(reply)), m_piece(piece), m_midway(std::move(midway)) {
        m_path = platform::iokit_service_path(name);
        qvxtest::make_dirs(m_path.substr(0, m_path.rfind('/')));
        unlink(m_path.c_str());
        m_fd = socket(AF_UNIX, SOCK_STREAM, 0);
        sockaddr_un addr{};
        addr.sun_family = AF_UNIX;
        std::strcpy(addr.sun_path, m_path.c_str());
        EXPECT_EQ(bind(m_fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)), 0);
        listen(m_fd, 8);
        m_thread = std::thread([this] { run(); });
    }
    ~RawPeer() {
        shutdown(m_fd, SHUT_RDWR);
        m_thread.join();
        close(m_fd);
        unlink(m_path.c_str());
    }
    int accepted() const { return m_accepted; }
    int requests() const { return m_requests; }
    // Connections that ended because the guest closed them.
    int hangups() const { return m_hangups; }

  private:
    void run() {
        for (;;) {
            const int c = accept(m_fd, nullptr, nullptr);
            if (c < 0) return;
            ++m_accepted;
            serve(c);
            close(c);
        }
    }
    void serve(int c) {
        toolgate::FrameReader reader;
        uint8_t buf[4096];
        for (;;) {
            const ssize_t n = read(c, buf, sizeof(buf));
            if (n == 0) ++m_hangups;
            if (n <= 0) return;
            size_t off = 0;
            while (off < static_cast<size_t>(n)) {
                size_t used = 0;
                auto r = reader.feed(buf + off, static_cast<size_t>(n) - off, used);
                off += used;
                if (r != toolgate::FrameReader::Result::Frame) break;
                ++m_requests;
                const auto reply = m_reply(reader.body());
                if (!reply) continue;
                const std::vector<uint8_t>& out = *reply;
                if (out.empty()) return;
                for (size_t at = 0; at < out.size(); at += m_piece) {
                    if (at > 0 && at == m_piece && m_midway) m_midway();
                    if (send(c, out.data() + at, std::min(m_piece, out.size() - at), MSG_NOSIGNAL) <
                        0)
                        return;
                }
            }
        }
    }
    std::string m_path;
    Reply m_reply;
    size_t m_piece;
    std::function<void()> m_midway;
    int m_fd = -1;
    std::atomic<int> m_accepted{0};
    std::atomic<int> m_requests{0};
    std::atomic<int> m_hangups{0};
    std::thread m_thread;
};

io_connect_t open_service(const char* name) {
    io_iterator_t it = 0;
    EXPECT_EQ(IOServiceGetMatchingServices(kIOMasterPortDefault, IOServiceMatching(name), &it),
              kIOReturnSuccess);
    io_service_t service = IOIteratorNext(it);
    IOObjectRelease(it);
    if (!service) return 0;
    io_connect_t connect = 0;
    const kern_return_t kr = IOServiceOpen(service, mach_task_self(), 0, &connect);
    IOObjectRelease(service);
    return kr == kIOReturnSuccess ? connect : 0;
}

// A DnD request over `out` and `reply`; returns the call's result and the status.
kern_return_t call_dnd(io_connect_t connect, std::vector<uint8_t>& out, std::vector<uint8_t>& reply,
                       uint32_t& status) {
    uint8_t request[toolgate::request_size(2)] = {};
    le::put32(request, toolgate::kOffCode, toolgate::kRequestDnD);
    le::put32(request, toolgate::kOffStatus, toolgate::kStatusUnset);
    le::put16(request, toolgate::kOffBufferCount, 2);
    le::put64(request, 16, reinterpret_cast<uintptr_t>(out.data()));
    le::put32(request, 24, static_cast<uint32_t>(out.size()));
    le::put64(request, 32, reinterpret_cast<uintptr_t>(reply.data()));
    le::put32(request, 40, static_cast<uint32_t>(reply.size()) - 16);  // keep a guard zone
    le::put32(request, 44, 1);
    uint8_t input[8];
    le::put64(input, 0, reinterpret_cast<uintptr_t>(request));
    size_t outSize = 99;
    const kern_return_t kr = IOConnectCallStructMethod(connect, 0, input, 8, nullptr, &outSize);
    EXPECT_EQ(outSize, 0u);
    status = le::get32(request, toolgate::kOffStatus);
    return kr;
}

// A reply that writes `written` bytes of 0x5A into buffer 1, status 7.
std::vector<uint8_t> reply_frame(uint32_t written, uint32_t lengthAdjust = 0) {
    std::vector<uint8_t> out(toolgate::reply_header_bytes(2));
    const uint32_t counts[2] = {0, written};
    toolgate::encode_reply_header(out.data(), 7, counts, 2);
    le::put32(out.data(), 0, le::get32(out.data(), 0) + lengthAdjust);
    out.insert(out.end(), written, 0x5A);
    return out;
}

class IOKitTest : public ::testing::Test {
  protected:
    static void SetUpTestSuite() { qvxtest::private_platform_root(); }
};

TEST_F(IOKitTest, ServiceIsListedOnlyWhileItsSocketExistsAndOpenNeedsAListener) {
    EXPECT_EQ(open_service("QvxAbsentGate"), 0u);
    io_iterator_t it = 0;
    ASSERT_EQ(IOServiceGetMatchingServices(0, IOServiceMatching("QvxAbsentGate"), &it), 0);
    EXPECT_EQ(IOIteratorNext(it), 0u);
    EXPECT_EQ(IOObjectRelease(it), kIOReturnSuccess);
    EXPECT_NE(IOObjectRelease(it), kIOReturnSuccess);

    // A file of that name without anyone accepting: listed, but it cannot be opened.
    qvxtest::write_file(platform::iokit_service_path("QvxDeafGate"), "");
    ASSERT_EQ(IOServiceGetMatchingServices(0, IOServiceMatching("QvxDeafGate"), &it), 0);
    io_service_t service = IOIteratorNext(it);
    ASSERT_NE(service, 0u);
    EXPECT_EQ(IOIteratorNext(it), 0u);
    io_connect_t connect = 0;
    EXPECT_EQ(IOServiceOpen(service, mach_task_self(), 0, &connect), kIOReturnNotOpen);
    IOObjectRelease(service);
    IOObjectRelease(it);
    EXPECT_NE(IOServiceClose(12345), kIOReturnSuccess);
}

TEST_F(IOKitTest, SendsOnlyTheOutgoingRecordAndFillsTheReplyFromATricklingPeer) {
    std::vector<uint8_t> seen;
    RawPeer peer(
        "QvxTrickleGate",
        [&](const std::vector<uint8_t>& body) -> std::optional<std::vector<uint8_t>> {
            seen = body;
            return reply_frame(40);
        },
        /*piece=*/3);
    io_connect_t connect = open_service("QvxTrickleGate");
    ASSERT_NE(connect, 0u);
    std::vector<uint8_t> out(2196, 0x11), reply(2196 + 16, 0);
    uint32_t status = 0;
    ASSERT_EQ(call_dnd(connect, out, reply, status), kIOReturnSuccess);
    EXPECT_EQ(status, 7u);
    EXPECT_EQ(reply[39], 0x5A);
    EXPECT_EQ(reply[40], 0);
    toolgate::RequestView view;
    ASSERT_TRUE(toolgate::parse_request(seen.data(), seen.size(), view));
    EXPECT_EQ(view.count, 2u);
    EXPECT_EQ(view.buffers[1].flags, toolgate::kFrameFlagWritable);
    EXPECT_EQ(seen.size(), 8 + 16 + 2196u);
    EXPECT_EQ(IOServiceClose(connect), kIOReturnSuccess);
    EXPECT_NE(IOServiceClose(connect), kIOReturnSuccess);
}

TEST_F(IOKitTest, BrokenRepliesFailTheCallWithoutWritingPastTheBufferAndTheNextCallReconnects) {
    int round = 0;
    RawPeer peer(
        "QvxBrokenGate",
        [&](const std::vector<uint8_t>&) -> std::optional<std::vector<uint8_t>> {
            switch (round++) {
                case 0:
                    return reply_frame(2196 + 8);  // more than the buffer
                case 1:
                    return reply_frame(10, 1);  // length disagrees
                case 2:
                    return std::vector<uint8_t>{};  // closed without a reply
                default:
                    return reply_frame(2196);
            }
        },
        64);
    io_connect_t connect = open_service("QvxBrokenGate");
    ASSERT_NE(connect, 0u);
    std::vector<uint8_t> out(2196, 0x22), reply(2196 + 16, 0);
    uint32_t status = 0;
    for (int i = 0; i < 3; ++i) {
        EXPECT_LT(call_dnd(connect, out, reply, status), 0) << "round " << i;
        EXPECT_EQ(status, 0xFFFFFFFFu);  // unset
    }
    for (size_t i = 2196; i < reply.size(); ++i) ASSERT_EQ(reply[i], 0) << i;
    EXPECT_EQ(call_dnd(connect, out, reply, status), kIOReturnSuccess);
    EXPECT_EQ(status, 7u);
    EXPECT_EQ(peer.accepted(), 4);
    IOServiceClose(connect);
}

// Holds a peer's reply until released, for at most 3 s: a call the signal failed to end
// then fails the test instead of hanging it.
struct Hold {
    std::mutex mutex;
    std::condition_variable cv;
    bool released = false;
    bool wait() {
        std::unique_lock lock(mutex);
        return cv.wait_for(lock, std::chrono::seconds(3), [&] { return released; });
    }
    void release() {
        {
            std::lock_guard lock(mutex);
            released = true;
        }
        cv.notify_all();
    }
};

volatile sig_atomic_t g_handled = 0;
void count_signal(int) {
    g_handled = g_handled + 1;
}

// Runs `call` on a thread and sends it SIGUSR1 every 20 ms until the call returns (one sent
// just before the thread starts to wait is spent on nothing). `blocked`: the thread keeps
// the signal blocked. Returns the call's result.
kern_return_t call_under_signals(const std::function<kern_return_t()>& call, bool blocked,
                                 std::chrono::milliseconds& took) {
    std::atomic<bool> done{false};
    kern_return_t result = kIOReturnError;
    const auto start = std::chrono::steady_clock::now();
    std::optional<qvx::ScopedSignalBlock> block;  // inherited by the thread from its start
    if (blocked) block.emplace(std::initializer_list<int>{SIGUSR1});
    std::thread caller([&] {
        result = call();
        done = true;
    });
    block.reset();
    for (int i = 0; i < 250 && !done; ++i) {
        pthread_kill(caller.native_handle(), SIGUSR1);
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    caller.join();
    took = std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() -
                                                                 start);
    return result;
}

TEST_F(IOKitTest, SignalEndsTheWaitForAReplyAndItsSocketUnlessTheThreadBlocksIt) {
    // signal() gives SA_RESTART, which restarts a blocking read: the wait must still end.
    const auto previous = std::signal(SIGUSR1, count_signal);
    std::atomic<int> round{0};
    Hold hold;
    RawPeer peer(
        "QvxHoldGate",
        [&](const std::vector<uint8_t>&) -> std::optional<std::vector<uint8_t>> {
            switch (round++) {
                case 0:  // a held poll, answered only if the guest still waits
                    if (hold.wait()) return std::nullopt;
                    return reply_frame(40);
                case 1:
                    std::this_thread::sleep_for(std::chrono::milliseconds(300));
                    return reply_frame(40);
                default:
                    return reply_frame(40);
            }
        },
        4096);
    io_connect_t connect = open_service("QvxHoldGate");
    ASSERT_NE(connect, 0u);
    std::vector<uint8_t> out(2196, 0x33), reply(2196 + 16, 0);
    uint32_t status = 0;
    auto call = [&] { return call_dnd(connect, out, reply, status); };

    std::chrono::milliseconds took{};
    EXPECT_EQ(call_under_signals(call, false, took), kIOReturnAborted);
    hold.release();
    EXPECT_EQ(status, 0xFFFFFFFFu);  // unset
    EXPECT_GT(g_handled, 0);
    EXPECT_LT(took.count(), 2000);
    // The aborted call's socket is closed: a late reply on it would answer the next call.
    for (int i = 0; i < 200 && peer.hangups() == 0; ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    EXPECT_EQ(peer.hangups(), 1);

    // A thread that blocks the signal waits for its slow reply, on a new socket.
    g_handled = 0;
    EXPECT_EQ(call_under_signals(call, true, took), kIOReturnSuccess);
    EXPECT_EQ(status, 7u);
    EXPECT_GE(took.count(), 250);
    EXPECT_EQ(peer.accepted(), 2);
    EXPECT_EQ(peer.requests(), 2);

    // The blocked signals are still pending on that (ended) thread; none was handled.
    EXPECT_EQ(g_handled, 0);
    IOServiceClose(connect);
    std::signal(SIGUSR1, previous);
}

// A reply of a whole data chunk fills its buffer; a host that stops in the middle of a reply
// still leaves the caller's wait to a signal.
TEST_F(IOKitTest, LargeReplyArrivesWholeAndASignalEndsAWaitInMidReply) {
    const auto previous = std::signal(SIGUSR1, count_signal);
    constexpr uint32_t kLarge = 2196 + 131072;
    std::atomic<bool> stall{false};
    Hold hold;
    RawPeer peer(
        "QvxMidwayGate",
        [&](const std::vector<uint8_t>&) -> std::optional<std::vector<uint8_t>> {
            return reply_frame(kLarge);
        },
        /*piece=*/100 * 1024,
        [&] {
            if (stall) hold.wait();
        });
    io_connect_t connect = open_service("QvxMidwayGate");
    ASSERT_NE(connect, 0u);
    std::vector<uint8_t> out(2196, 0x44), reply(kLarge + 16, 0);
    uint32_t status = 0;
    ASSERT_EQ(call_dnd(connect, out, reply, status), kIOReturnSuccess);
    EXPECT_EQ(status, 7u);
    EXPECT_EQ(std::count(reply.begin(), reply.begin() + kLarge, 0x5A), kLarge);
    EXPECT_EQ(std::count(reply.begin() + kLarge, reply.end(), 0), 16);

    stall = true;
    status = 0;
    std::chrono::milliseconds took{};
    EXPECT_EQ(
        call_under_signals([&] { return call_dnd(connect, out, reply, status); }, false, took),
        kIOReturnAborted);
    EXPECT_EQ(status, 0xFFFFFFFFu);  // unset
    EXPECT_LT(took.count(), 2000);
    stall = false;
    hold.release();
    // The next call goes out on a new socket and is answered in full.
    ASSERT_EQ(call_dnd(connect, out, reply, status), kIOReturnSuccess);
    EXPECT_EQ(status, 7u);
    EXPECT_EQ(peer.accepted(), 2);
    IOServiceClose(connect);
    std::signal(SIGUSR1, previous);
}

// The request codes as the driver reads them: the simulated host shares the tool's names
// for them, so only this peer, which knows the numbers, shows a code that drifted.
TEST_F(IOKitTest, DnDExchangesAndToolServiceRequestsReachTheDriverWithTheirCodes) {
    std::mutex mutex;
    std::vector<uint32_t> codes;
    RawPeer peer(
        "QvxPCIToolGate",
        [&](const std::vector<uint8_t>& body) -> std::optional<std::vector<uint8_t>> {
            toolgate::RequestView view;
            if (!toolgate::parse_request(body.data(), body.size(), view))
                return std::vector<uint8_t>{};
            std::lock_guard lock(mutex);
            codes.push_back(view.code);
            std::vector<uint8_t> out(toolgate::reply_header_bytes(view.count));
            const uint32_t written[toolgate::kMaxBuffers] = {};
            toolgate::encode_reply_header(out.data(), 0, written, view.count);
            return out;
        },
        1 << 16);
    qvx::ServiceHandle handle{};
    ASSERT_EQ(qvx::service_open(&handle, 2 /* driver only */), 0);
    qvx::service_close(&handle);
    qvx::CommonMacCommunicator communicator;
    std::vector<uint8_t> out(2196), reply(2196);
    EXPECT_TRUE(qvx::SendDnDCommand(&communicator, out.data(), 2196, reply.data(), 2196));
    std::lock_guard lock(mutex);
    EXPECT_EQ(codes, (std::vector<uint32_t>{0x8050, 0x8304}));
}

// A busy driver (0xF0000025) is asked again; any other failure, such as suspended
// (0xF0000020), refuses the tool service at once.
TEST_F(IOKitTest, ToolServiceProbeRetriesABusyDriverOnly) {
    const struct {
        std::vector<uint32_t> statuses;
        int32_t result;
        int requests;
    } cases[] = {{{0xF0000025, 0}, 0, 2}, {{0xF0000020, 0}, -6, 1}};
    for (const auto& c : cases) {
        std::atomic<size_t> next{0};
        RawPeer peer(
            "QvxPCIToolGate",
            [&](const std::vector<uint8_t>&) -> std::optional<std::vector<uint8_t>> {
                std::vector<uint8_t> out(toolgate::reply_header_bytes(0));
                toolgate::encode_reply_header(out.data(), c.statuses[next++ % 2], nullptr, 0);
                return out;
            },
            1 << 16);
        qvx::ServiceHandle handle{};
        EXPECT_EQ(qvx::service_open(&handle, 2 /* driver only */), c.result);
        qvx::service_close(&handle);
        EXPECT_EQ(peer.requests(), c.requests);
    }
}

// The tool names the suspended status (0xF0000020) when it ends a DnD exchange.
TEST_F(IOKitTest, SuspendedDnDExchangeIsLoggedAsSuch) {
    RawPeer peer(
        "QvxPCIToolGate",
        [](const std::vector<uint8_t>&) -> std::optional<std::vector<uint8_t>> {
            std::vector<uint8_t> out(toolgate::reply_header_bytes(2));
            const uint32_t written[2] = {};
            toolgate::encode_reply_header(out.data(), 0xF0000020, written, 2);
            return out;
        },
        1 << 16);
    qvxtest::LogCapture log;
    qvx::log_set_verbosity(1);
    qvx::CommonMacCommunicator communicator;
    std::vector<uint8_t> out(2196), reply(2196);
    qvx::le::put32(out.data(), 0, 259);
    EXPECT_FALSE(qvx::SendDnDCommand(&communicator, out.data(), 2196, reply.data(), 2196));
    qvx::log_set_verbosity(-1);
    EXPECT_TRUE(log.contains("DnD command [259] finished with status suspended"));
}

}  // namespace
