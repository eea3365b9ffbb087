// Tests of the IOKit stand-in against a hand-written peer: matching, opening, the frame
// it sends, replies that trickle in, and replies that break the rules.
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <functional>
#include <thread>
#include <vector>

#include <IOKit/IOKitLib.h>

#include "common/byte_order.h"
#include "common/toolgate_abi.h"
#include "platform/sim/platform_root.h"
#include "platform/sim/toolgate_frames.h"
#include "support/private_root.h"
#include "support/temp_dir.h"

namespace {

namespace le = qvx::le;

// A peer on the socket of service class `name` that answers each accepted connection's
// requests with `reply(body)`, written `piece` bytes at a time; an empty reply closes.
class RawPeer {
  public:
    using Reply = std::function<std::vector<uint8_t>(const std::vector<uint8_t>& body)>;
    RawPeer(const std::string& name, Reply reply, size_t piece)
        : m_reply(std::move(reply)), m_piece(piece) {
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
            if (n <= 0) return;
            size_t off = 0;
            while (off < static_cast<size_t>(n)) {
                size_t used = 0;
                auto r = reader.feed(buf + off, static_cast<size_t>(n) - off, used);
                off += used;
                if (r != toolgate::FrameReader::Result::Frame) break;
                const auto out = m_reply(reader.body());
                if (out.empty()) return;
                for (size_t at = 0; at < out.size(); at += m_piece)
                    if (send(c, out.data() + at, std::min(m_piece, out.size() - at), MSG_NOSIGNAL) <
                        0)
                        return;
            }
        }
    }
    std::string m_path;
    Reply m_reply;
    size_t m_piece;
    int m_fd = -1;
    std::atomic<int> m_accepted{0};
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
        [&](const std::vector<uint8_t>& body) {
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
        [&](const std::vector<uint8_t>&) -> std::vector<uint8_t> {
            switch (round++) {
                case 0:
                    return reply_frame(2196 + 8);  // more than the buffer
                case 1:
                    return reply_frame(10, 1);  // length disagrees
                case 2:
                    return {};  // closed without a reply
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
        EXPECT_EQ(status, toolgate::kStatusUnset);
    }
    for (size_t i = 2196; i < reply.size(); ++i) ASSERT_EQ(reply[i], 0) << i;
    EXPECT_EQ(call_dnd(connect, out, reply, status), kIOReturnSuccess);
    EXPECT_EQ(status, 7u);
    EXPECT_EQ(peer.accepted(), 4);
    IOServiceClose(connect);
}

}  // namespace
