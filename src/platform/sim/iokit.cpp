// IOKit stand-in: services are Unix sockets under <root>/run/quorvex/iokit, and a struct
// method call on a user-client connection is one toolgate frame pair over that socket.
#include <IOKit/IOKitLib.h>

#include <errno.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/uio.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <memory>
#include <mutex>
#include <new>
#include <string>
#include <unordered_map>
#include <vector>

#include "common/byte_order.h"
#include "common/toolgate_abi.h"
#include "platform/sim/platform_root.h"
#include "platform/sim/socket_wait.h"
#include "platform/sim/toolgate_frames.h"

struct __IOMatchingDictionary {
    std::string className;
};

namespace {

namespace le = qvx::le;
using toolgate::FrameBuffer;

constexpr mach_port_t kMasterPort = 0x0b03;
// Any finite time-out makes a signal end a waiting receive (see connect_socket); when it
// runs out, the receive is simply made again.
constexpr time_t kReceiveTimeoutSeconds = 24 * 60 * 60;

// The sockets of one user-client connection. Frames carry no request id, so concurrent
// calls each need a socket of their own: a call takes an idle socket (or opens one) and
// gives it back when its reply has arrived.
struct ConnectionState {
    std::string path;
    std::mutex mutex;
    std::vector<int> idle;
    bool closed = false;
};

enum class Kind { Iterator, Service, Connection };

struct Object {
    Kind kind;
    std::vector<std::string> pending;  // iterator: class names not yet handed out
    std::string className;             // service
    std::shared_ptr<ConnectionState> connection;
};

std::mutex g_tableMutex;
std::unordered_map<io_object_t, Object> g_objects;
io_object_t g_nextHandle = 0x1003;

io_object_t add_object(Object object) {
    std::lock_guard<std::mutex> lock(g_tableMutex);
    while (g_nextHandle == 0 || g_objects.count(g_nextHandle)) ++g_nextHandle;
    const io_object_t handle = g_nextHandle++;
    g_objects.emplace(handle, std::move(object));
    return handle;
}

int connect_socket(const std::string& path) {
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    if (path.size() >= sizeof(addr.sun_path)) return -1;
    std::memcpy(addr.sun_path, path.c_str(), path.size() + 1);
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) return -1;
    int rc;
    do {
        rc = connect(fd, reinterpret_cast<const sockaddr*>(&addr), sizeof(addr));
    } while (rc != 0 && errno == EINTR);
    if (rc != 0) {
        close(fd);
        return -1;
    }
    // A receive on a socket with a time-out is never restarted after a signal handler, not
    // even one installed with SA_RESTART (as signal() does): the signal ends a blocking
    // read of the reply with EINTR, so no poll is needed before it. The time-out itself
    // only makes the wait start again.
    const timeval wait{kReceiveTimeoutSeconds, 0};
    if (setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &wait, sizeof wait) != 0) {
        close(fd);
        return -1;
    }
    return fd;
}

enum class SendResult { Sent, NothingSent, Lost };

// Sends the whole frame; the first sendmsg normally carries all of it.
SendResult send_all(int fd, iovec* iov, int iovcnt) {
    bool any = false;
    while (iovcnt > 0) {
        msghdr msg{};
        msg.msg_iov = iov;
        msg.msg_iovlen = static_cast<size_t>(iovcnt);
        const ssize_t n = sendmsg(fd, &msg, MSG_NOSIGNAL);
        if (n < 0) {
            if (errno == EINTR) continue;
            return any ? SendResult::Lost : SendResult::NothingSent;
        }
        any = any || n > 0;
        toolgate::advance_iovecs(iov, iovcnt, static_cast<size_t>(n));
    }
    return SendResult::Sent;
}

enum class ReadResult { Done, Lost, Interrupted };

// One receive: what has come within a short spin, else one blocking recvmsg, where
// `waitAll` waits until the iovecs are full. A signal that comes
// while nothing has arrived ends it with Interrupted; one that comes after some bytes
// leaves a short count, and the caller's next receive waits again (to be ended by the
// next signal, should the host stop in mid-frame).
ReadResult receive_some(int fd, iovec* iov, int iovcnt, bool waitAll, size_t& n) {
    msghdr msg{};
    msg.msg_iov = iov;
    msg.msg_iovlen = static_cast<size_t>(iovcnt);
    if (const ssize_t r = toolgate::receive_before_sleep(fd, &msg); r > 0) {
        n = static_cast<size_t>(r);
        return ReadResult::Done;
    } else if (r == 0 || (errno != EAGAIN && errno != EWOULDBLOCK)) {
        return ReadResult::Lost;
    }
    for (;;) {
        const ssize_t r = recvmsg(fd, &msg, waitAll ? MSG_WAITALL : 0);
        if (r > 0) {
            n = static_cast<size_t>(r);
            return ReadResult::Done;
        }
        if (r == 0) return ReadResult::Lost;
        if (errno == EINTR) return ReadResult::Interrupted;
        // The receive time-out ran out: wait again.
        if (errno != EAGAIN && errno != EWOULDBLOCK) return ReadResult::Lost;
    }
}

// Reads into the iovecs until at least `atLeast` bytes have come, never more than they
// hold, without waiting for more than that (the iovecs may hold more than the host
// sends); `got` counts them.
ReadResult read_at_least(int fd, iovec* iov, int iovcnt, size_t atLeast, size_t& got) {
    size_t room = 0;
    for (int i = 0; i < iovcnt; ++i) room += iov[i].iov_len;
    const bool exact = room == atLeast;  // then nothing beyond is waited for
    got = 0;
    while (got < atLeast) {
        size_t n = 0;
        if (const ReadResult r = receive_some(fd, iov, iovcnt, exact, n); r != ReadResult::Done)
            return r;
        toolgate::advance_iovecs(iov, iovcnt, n);
        got += n;
    }
    return ReadResult::Done;
}

// Fills the iovecs completely from what the host sends, normally in one call.
ReadResult read_reply(int fd, iovec* iov, int iovcnt) {
    while (iovcnt > 0 && iov->iov_len == 0) {
        ++iov;
        --iovcnt;
    }
    while (iovcnt > 0) {
        size_t n = 0;
        if (const ReadResult r = receive_some(fd, iov, iovcnt, true, n); r != ReadResult::Done)
            return r;
        toolgate::advance_iovecs(iov, iovcnt, n);
    }
    return ReadResult::Done;
}

// The buffers of one toolgate request as the frames describe them.
struct CallBuffers {
    uint32_t code = 0;
    uint32_t count = 0;
    FrameBuffer frame[toolgate::kMaxBuffers];
    uint8_t* address[toolgate::kMaxBuffers] = {};
    uint32_t contentsBytes = 0;
};

bool describe_call(const uint8_t* request, CallBuffers& call) {
    call.code = le::get32(request, toolgate::kOffCode);
    call.count = le::get16(request, toolgate::kOffBufferCount);
    if (call.count > toolgate::kMaxBuffers) return false;
    for (uint32_t i = 0; i < call.count; ++i) {
        const uint8_t* desc = request + toolgate::kHeaderSize + i * toolgate::kDescriptorSize;
        const uint64_t address = le::get64(desc, toolgate::kDescAddress);
        const uint32_t size = le::get32(desc, toolgate::kDescSize);
        const bool writable = le::get32(desc, toolgate::kDescWritable) != 0;
        if (size != 0 && address == 0) return false;
        call.address[i] = reinterpret_cast<uint8_t*>(static_cast<uintptr_t>(address));
        call.frame[i].size = size;
        call.frame[i].flags = writable ? toolgate::kFrameFlagWritable : 0;
        // The DnD reply buffer is output only; everything else travels to the host.
        const bool outputOnly = writable && call.code == toolgate::kRequestDnD && i == 1;
        if (!outputOnly) call.frame[i].flags |= toolgate::kFrameFlagContents;
    }
    const int64_t contents = toolgate::request_contents_bytes(call.frame, call.count);
    if (contents < 0) return false;
    call.contentsBytes = static_cast<uint32_t>(contents);
    return true;
}

enum class ExchangeResult { Done, NothingSent, Lost, Aborted };

ExchangeResult exchange_result(ReadResult r) {
    return r == ReadResult::Interrupted ? ExchangeResult::Aborted : ExchangeResult::Lost;
}

ExchangeResult exchange(int fd, const CallBuffers& call, uint32_t& status) {
    uint8_t header[toolgate::request_header_bytes(toolgate::kMaxBuffers)];
    toolgate::encode_request_header(header, call.code, call.frame, call.count, call.contentsBytes);
    iovec iov[toolgate::kMaxBuffers + 1];
    int n = 0;
    iov[n++] = {header, toolgate::request_header_bytes(call.count)};
    for (uint32_t i = 0; i < call.count; ++i) {
        if ((call.frame[i].flags & toolgate::kFrameFlagContents) && call.frame[i].size)
            iov[n++] = {call.address[i], call.frame[i].size};
    }
    switch (send_all(fd, iov, n)) {
        case SendResult::Sent:
            break;
        case SendResult::NothingSent:
            return ExchangeResult::NothingSent;
        case SendResult::Lost:
            return ExchangeResult::Lost;
    }

    // Where one buffer alone may take the host's bytes (a DnD reply), the first read takes
    // the reply's header and as much of that buffer's part as has come: the reply is all
    // the host sends, so nothing beyond it can be read into the buffer.
    const size_t headerBytes = toolgate::reply_header_bytes(call.count);
    uint8_t replyHeader[toolgate::reply_header_bytes(toolgate::kMaxBuffers)];
    int only = -1;
    for (uint32_t i = 0; i < call.count; ++i) {
        if (!(call.frame[i].flags & toolgate::kFrameFlagWritable)) continue;
        only = only == -1 ? static_cast<int>(i) : -2;
    }
    iovec first[2] = {{replyHeader, headerBytes}, {}};
    if (only >= 0) first[1] = {call.address[only], call.frame[only].size};
    size_t got = 0;
    if (const ReadResult r = read_at_least(fd, first, only >= 0 ? 2 : 1, headerBytes, got);
        r != ReadResult::Done)
        return exchange_result(r);
    uint32_t written[toolgate::kMaxBuffers];
    for (uint32_t i = 0; i < call.count; ++i) written[i] = le::get32(replyHeader, 8 + 4 * i);
    if (!toolgate::reply_header_valid(le::get32(replyHeader, 0), written, call.frame, call.count))
        return ExchangeResult::Lost;
    // The rest goes straight into the caller's buffers; the header has just shown that
    // each part fits the buffer it is meant for.
    const size_t early = got - headerBytes;  // bytes of buffer `only` already in place
    if (only >= 0 && early > written[only]) return ExchangeResult::Lost;
    n = 0;
    for (uint32_t i = 0; i < call.count; ++i) {
        const size_t skip = static_cast<int>(i) == only ? early : 0;
        if (written[i] > skip) iov[n++] = {call.address[i] + skip, written[i] - skip};
    }
    if (const ReadResult r = read_reply(fd, iov, n); r != ReadResult::Done)
        return exchange_result(r);
    status = le::get32(replyHeader, 4);
    return ExchangeResult::Done;
}

std::shared_ptr<ConnectionState> find_connection(io_connect_t handle) {
    std::lock_guard<std::mutex> lock(g_tableMutex);
    auto it = g_objects.find(handle);
    if (it == g_objects.end() || it->second.kind != Kind::Connection) return nullptr;
    return it->second.connection;
}

// Takes an idle socket, or opens a new one when none is idle (or `fresh` asks for it).
int take_socket(ConnectionState& state, bool fresh, bool& reused) {
    if (!fresh) {
        std::lock_guard<std::mutex> lock(state.mutex);
        if (state.closed) return -1;
        if (!state.idle.empty()) {
            const int fd = state.idle.back();
            state.idle.pop_back();
            reused = true;
            return fd;
        }
    }
    reused = false;
    return connect_socket(state.path);
}

void give_back(ConnectionState& state, int fd) {
    {
        std::lock_guard<std::mutex> lock(state.mutex);
        if (!state.closed) {
            state.idle.push_back(fd);
            return;
        }
    }
    close(fd);
}

}  // namespace

kern_return_t IOMasterPort(mach_port_t /*bootstrapPort*/, mach_port_t* masterPort) {
    if (!masterPort) return kIOReturnBadArgument;
    *masterPort = kMasterPort;
    return KERN_SUCCESS;
}

CFMutableDictionaryRef IOServiceMatching(const char* name) {
    if (!name) return nullptr;
    auto* dict = new (std::nothrow) __IOMatchingDictionary;
    if (dict) dict->className = name;
    return dict;
}

kern_return_t IOServiceGetMatchingServices(mach_port_t /*masterPort*/, CFDictionaryRef matching,
                                           io_iterator_t* existing) {
    if (!matching) return kIOReturnBadArgument;
    std::unique_ptr<__IOMatchingDictionary> dict(matching);
    if (!existing) return kIOReturnBadArgument;
    Object iterator{Kind::Iterator, {}, {}, nullptr};
    struct stat st {};
    if (stat(platform::iokit_service_path(dict->className).c_str(), &st) == 0)
        iterator.pending.push_back(dict->className);
    *existing = add_object(std::move(iterator));
    return KERN_SUCCESS;
}

io_object_t IOIteratorNext(io_iterator_t iterator) {
    std::string className;
    {
        std::lock_guard<std::mutex> lock(g_tableMutex);
        auto it = g_objects.find(iterator);
        if (it == g_objects.end() || it->second.kind != Kind::Iterator ||
            it->second.pending.empty())
            return 0;
        className = std::move(it->second.pending.front());
        it->second.pending.erase(it->second.pending.begin());
    }
    return add_object(Object{Kind::Service, {}, std::move(className), nullptr});
}

kern_return_t IOObjectRelease(io_object_t object) {
    std::lock_guard<std::mutex> lock(g_tableMutex);
    auto it = g_objects.find(object);
    // Connections end with IOServiceClose, not here.
    if (it == g_objects.end() || it->second.kind == Kind::Connection) return kIOReturnBadArgument;
    g_objects.erase(it);
    return KERN_SUCCESS;
}

kern_return_t IOServiceOpen(io_service_t service, task_port_t /*owningTask*/, uint32_t /*type*/,
                            io_connect_t* connect) {
    if (!connect) return kIOReturnBadArgument;
    std::string className;
    {
        std::lock_guard<std::mutex> lock(g_tableMutex);
        auto it = g_objects.find(service);
        if (it == g_objects.end() || it->second.kind != Kind::Service) return kIOReturnBadArgument;
        className = it->second.className;
    }
    auto state = std::make_shared<ConnectionState>();
    state->path = platform::iokit_service_path(className);
    // Opening proves that someone serves the socket; the socket becomes the first idle one.
    const int fd = connect_socket(state->path);
    if (fd < 0) return kIOReturnNotOpen;
    state->idle.push_back(fd);
    *connect = add_object(Object{Kind::Connection, {}, std::move(className), std::move(state)});
    return KERN_SUCCESS;
}

kern_return_t IOServiceClose(io_connect_t connect) {
    std::shared_ptr<ConnectionState> state;
    {
        std::lock_guard<std::mutex> lock(g_tableMutex);
        auto it = g_objects.find(connect);
        if (it == g_objects.end() || it->second.kind != Kind::Connection)
            return kIOReturnBadArgument;
        state = std::move(it->second.connection);
        g_objects.erase(it);
    }
    std::vector<int> idle;
    {
        std::lock_guard<std::mutex> lock(state->mutex);
        state->closed = true;
        idle.swap(state->idle);
    }
    // Sockets of calls still in progress are closed when those calls give them back.
    for (int fd : idle) close(fd);
    return KERN_SUCCESS;
}

kern_return_t IOConnectCallStructMethod(mach_port_t connection, uint32_t selector,
                                        const void* input, size_t inputSize, void* /*output*/,
                                        size_t* outputSize) {
    if (outputSize) *outputSize = 0;
    if (selector != 0 || !input || inputSize != 8) return kIOReturnBadArgument;
    auto* request = reinterpret_cast<uint8_t*>(static_cast<uintptr_t>(le::get64(input, 0)));
    if (!request) return kIOReturnBadArgument;
    CallBuffers call;
    if (!describe_call(request, call)) return kIOReturnBadArgument;

    std::shared_ptr<ConnectionState> state = find_connection(connection);
    if (!state) return kIOReturnNotOpen;

    bool fresh = false;
    for (;;) {
        bool reused = false;
        const int fd = take_socket(*state, fresh, reused);
        if (fd < 0) return kIOReturnNotOpen;
        uint32_t status = toolgate::kStatusUnset;
        switch (exchange(fd, call, status)) {
            case ExchangeResult::Done:
                le::put32(request, toolgate::kOffStatus, status);
                give_back(*state, fd);
                return kIOReturnSuccess;
            case ExchangeResult::NothingSent:
                close(fd);
                // An idle socket the host had already closed: nothing reached the host,
                // so the request can go out again on a new socket.
                if (reused) {
                    fresh = true;
                    continue;
                }
                return kIOReturnNotAttached;
            case ExchangeResult::Lost:
                close(fd);
                return kIOReturnIOError;
            case ExchangeResult::Aborted:
                // The reply may still come; on this socket it would be taken for the
                // reply to the next request, so the socket goes.
                close(fd);
                return kIOReturnAborted;
        }
    }
}
