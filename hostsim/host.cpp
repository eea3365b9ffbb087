// The simulated host: the toolgate socket server, the poll and its host command queue,
// reply handlers, expectations, fault injection and the tool service route.
#include "hostsim/host.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cinttypes>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <optional>

#include "channel/dnd_message.h"
#include "common/byte_order.h"
#include "common/signal_block.h"
#include "common/toolgate_abi.h"
#include "platform/sim/platform_root.h"
#include "platform/sim/socket_wait.h"
#include "platform/sim/toolgate_frames.h"

namespace hostsim {

namespace dnd = qvx::dnd;
namespace le = qvx::le;

namespace {

constexpr const char* kServiceRelative = "run/quorvex/iokit/QvxPCIToolGate";
// Completion status for a request this host cannot serve (unknown code, wrong buffers).
constexpr uint32_t kStatusRejected = 0xF0000001;

bool known_host_command(uint32_t command) {
    return command == dnd::kHostCmdNone || command == dnd::kHostCmd10 ||
           command == dnd::kHostCmdHostToGuest || command == dnd::kHostCmdGuestToHost;
}

bool send_frame(int fd, iovec* iov, int iovcnt) {
    while (iovcnt > 0) {
        msghdr msg{};
        msg.msg_iov = iov;
        msg.msg_iovlen = static_cast<size_t>(iovcnt);
        const ssize_t n = sendmsg(fd, &msg, MSG_NOSIGNAL);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        toolgate::advance_iovecs(iov, iovcnt, static_cast<size_t>(n));
    }
    return true;
}

// Sends a reply frame: the status and, per buffer, its leading `written` bytes.
bool send_reply(int fd, uint32_t status, const uint32_t* written, uint8_t* const* contents,
                uint32_t count) {
    uint8_t header[toolgate::reply_header_bytes(toolgate::kMaxBuffers)];
    toolgate::encode_reply_header(header, status, written, count);
    iovec iov[toolgate::kMaxBuffers + 1];
    int n = 0;
    iov[n++] = {header, toolgate::reply_header_bytes(count)};
    for (uint32_t i = 0; i < count; ++i)
        if (written[i]) iov[n++] = {contents[i], written[i]};
    return send_frame(fd, iov, n);
}

// Commands that carry workerId 0 by definition belong to no operation.
bool routed_by_worker(uint32_t command) {
    switch (command) {
        case dnd::kCmdToolActive:
        case dnd::kCmdToolStops:
        case dnd::kCmdFileList:
        case dnd::kCmdPoll:
        case dnd::kCmdNewWorkerId:
        case dnd::kCmdFileListVariant:
            return false;
        default:
            return true;
    }
}

const char* state_name(Expectation::State state) {
    switch (state) {
        case Expectation::State::Pending:
            return "pending";
        case Expectation::State::Met:
            return "met";
        case Expectation::State::Missed:
            return "missed";
    }
    return "?";
}

}  // namespace

struct Host::Connection {
    uint64_t id = 0;
    int fd = -1;  // closed and set to -1 under Host::m_mutex
    // Counts queued commands, so that a held poll can wait for one and for the guest's
    // hang-up on this connection in the same poll(). Closed with `fd`.
    int holdWake = -1;
    std::thread thread;
    std::atomic<bool> done{false};
    std::atomic<bool> dropped{false};  // shut down by drop_connections, not by the guest
    std::vector<uint8_t> buffers[toolgate::kMaxBuffers];  // the host's copies, reused
    std::string faultClose;  // why a transfer fault closes it; its own thread only
};

HostCommand HostCommand::drop(uint32_t x, uint32_t y, uint64_t workerId) {
    return HostCommand{dnd::kHostCmdHostToGuest,
                       workerId,
                       {{static_cast<uint32_t>(dnd::kOffPointerX), x},
                        {static_cast<uint32_t>(dnd::kOffPointerY), y}}};
}

Host::Host(HostOptions options)
    : m_options(std::move(options)),
      m_trace(m_options.traceCapacity),
      m_pollHold(m_options.pollHold) {
    m_socketPath = m_options.root.empty()
                       ? platform::path(kServiceRelative)
                       : (std::filesystem::path(m_options.root) / kServiceRelative).string();
    m_toolService.on_trace = [this](const std::string& line) {
        record_note("toolservice " + line);
    };
}

Host::~Host() {
    stop();
}

bool Host::start() {
    if (m_running.load()) return true;
    std::error_code ec;
    std::filesystem::create_directories(std::filesystem::path(m_socketPath).parent_path(), ec);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    if (m_socketPath.size() >= sizeof(addr.sun_path)) return false;
    std::memcpy(addr.sun_path, m_socketPath.c_str(), m_socketPath.size() + 1);
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) return false;
    // A socket file left by a host that did not stop cleanly would make bind fail.
    unlink(m_socketPath.c_str());
    if (bind(fd, reinterpret_cast<const sockaddr*>(&addr), sizeof(addr)) != 0 ||
        listen(fd, 64) != 0) {
        close(fd);
        return false;
    }
    const int wake = eventfd(0, EFD_CLOEXEC);
    if (wake < 0) {
        close(fd);
        unlink(m_socketPath.c_str());
        return false;
    }
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_stopping = false;
    }
    m_listenFd = fd;
    m_wakeFd = wake;
    m_running = true;
    // The host's threads (the connection threads inherit the accept thread's mask) leave
    // the stop signals to the threads of the process that are meant to take them.
    const qvx::ScopedSignalBlock block({SIGINT, SIGTERM});
    m_acceptThread = std::thread([this] { accept_loop(); });
    return true;
}

void Host::stop() {
    if (!m_running.exchange(false)) return;
    std::vector<std::shared_ptr<Connection>> connections;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_stopping = true;
    }
    m_wake.notify_all();
    const uint64_t one = 1;
    if (write(m_wakeFd, &one, sizeof(one)) < 0) {
        // The eventfd cannot be full after one write; nothing else can fail here.
    }
    m_acceptThread.join();
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        for (auto& c : m_connections)
            if (c->fd >= 0) shutdown(c->fd, SHUT_RDWR);
        connections.swap(m_connections);
    }
    for (auto& c : connections) c->thread.join();
    close(m_listenFd);
    close(m_wakeFd);
    m_listenFd = m_wakeFd = -1;
    unlink(m_socketPath.c_str());
}

void Host::accept_loop() {
    pollfd fds[2] = {{m_listenFd, POLLIN, 0}, {m_wakeFd, POLLIN, 0}};
    for (;;) {
        const int rc = poll(fds, 2, -1);
        if (rc < 0 && errno == EINTR) continue;
        if (rc < 0 || (fds[1].revents & POLLIN)) return;
        if (!(fds[0].revents & POLLIN)) continue;
        const int fd = accept4(m_listenFd, nullptr, nullptr, SOCK_CLOEXEC);
        if (fd < 0) continue;
        reap_finished();
        auto connection = std::make_shared<Connection>();
        connection->fd = fd;
        connection->holdWake = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
        if (connection->holdWake < 0) {
            close(fd);
            continue;
        }
        std::lock_guard<std::mutex> lock(m_mutex);
        if (m_stopping) {
            close(fd);
            close(connection->holdWake);
            return;
        }
        connection->id = m_nextConnection++;
        m_connections.push_back(connection);
        connection->thread = std::thread([this, connection] { serve(connection); });
    }
}

void Host::reap_finished() {
    std::vector<std::shared_ptr<Connection>> finished;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        auto it = std::stable_partition(m_connections.begin(), m_connections.end(),
                                        [](const auto& c) { return !c->done.load(); });
        finished.assign(std::make_move_iterator(it), std::make_move_iterator(m_connections.end()));
        m_connections.erase(it, m_connections.end());
    }
    for (auto& c : finished) c->thread.join();
}

void Host::serve(std::shared_ptr<Connection> connection) {
    record_note(format("connection %" PRIu64 " opened", connection->id), connection->id);
    // Frames are read into place: once a frame's length is known the buffer grows to hold
    // it whole (and stays that size), so a data chunk is never copied out of a smaller
    // read buffer. The guest sends nothing on a socket until its reply has come, so a
    // read normally ends with a frame.
    std::vector<uint8_t> buffer(64 * 1024);
    size_t have = 0;
    std::string reason = "closed by the guest";
    bool open = true;
    while (open) {
        ssize_t n = toolgate::receive_before_sleep(connection->fd, buffer.data() + have,
                                                   buffer.size() - have);
        if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK))
            n = read(connection->fd, buffer.data() + have, buffer.size() - have);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) {
            if (connection->dropped)
                reason = "dropped by the host";
            else if (have > 0)
                reason = "short frame";
            break;
        }
        have += static_cast<size_t>(n);
        size_t at = 0;
        while (open && have - at >= toolgate::kFrameLengthBytes) {
            const uint32_t length = le::get32(buffer.data() + at);
            if (length > toolgate::kMaxFrameLength) {
                reason = "malformed frame (length over 16 MiB)";
                open = false;
                break;
            }
            const size_t whole = toolgate::kFrameLengthBytes + length;
            if (have - at < whole) break;
            open = handle_frame(*connection, buffer.data() + at + toolgate::kFrameLengthBytes,
                                length, reason);
            at += whole;
        }
        // What is left is the beginning of the next frame: to the front, with room for
        // all of it.
        if (at > 0) {
            std::memmove(buffer.data(), buffer.data() + at, have - at);
            have -= at;
        }
        if (have >= toolgate::kFrameLengthBytes) {
            const size_t whole = toolgate::kFrameLengthBytes + le::get32(buffer.data());
            if (whole > buffer.size() &&
                whole <= toolgate::kFrameLengthBytes + toolgate::kMaxFrameLength)
                buffer.resize(whole);
        }
    }
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        close(connection->fd);
        connection->fd = -1;
        close(connection->holdWake);
        connection->holdWake = -1;
    }
    record_note(format("connection %" PRIu64 " closed: %s", connection->id, reason.c_str()),
                connection->id);
    connection->done = true;
}

bool Host::handle_frame(Connection& connection, const uint8_t* body, size_t size,
                        std::string& reason) {
    toolgate::RequestView request;
    if (!toolgate::parse_request(body, size, request)) {
        reason = "malformed frame";
        return false;
    }
    bool suspended;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        const uint64_t n = ++m_requests;
        auto hit = std::find(m_closeAt.begin(), m_closeAt.end(), n);
        if (hit != m_closeAt.end()) {
            m_closeAt.erase(hit);
            reason = format("closed at request %" PRIu64, n);
            return false;
        }
        suspended = m_suspended;
    }

    // Copies of the buffers the host may write, sized as the guest declared them; the
    // connection keeps their memory from one request to the next.
    std::vector<uint8_t>* buffers = connection.buffers;
    for (uint32_t i = 0; i < request.count; ++i) {
        if (!(request.buffers[i].flags & toolgate::kFrameFlagWritable)) {
            buffers[i].clear();
            continue;
        }
        buffers[i].assign(request.buffers[i].size, 0);
        if (request.contents[i])
            std::memcpy(buffers[i].data(), request.contents[i], request.buffers[i].size);
    }
    uint32_t written[toolgate::kMaxBuffers] = {};
    uint8_t* contents[toolgate::kMaxBuffers] = {};
    for (uint32_t i = 0; i < request.count; ++i) contents[i] = buffers[i].data();

    uint32_t completion = 0;
    if (request.code == toolgate::kRequestDnD) {
        const auto done = handle_dnd(connection, request, buffers[1], written[1], suspended);
        if (!done) {
            std::lock_guard<std::mutex> lock(m_mutex);
            reason = !connection.faultClose.empty() ? connection.faultClose
                     : m_stopping                   ? "host stopping while a poll was held"
                     : connection.dropped           ? "dropped by the host"
                                                    : "closed by the guest while a poll was held";
            return false;
        }
        completion = *done;
    } else if (request.code == toolgate::kRequestToolService) {
        if (suspended) {
            completion = toolgate::kStatusSuspended;
        } else if (request.count == 0) {
            record_note("guest->host toolservice probe", connection.id);
            completion = m_toolService.probe();
        } else if (request.count == 2 &&
                   (request.buffers[0].flags & toolgate::kFrameFlagWritable) &&
                   (request.buffers[1].flags & toolgate::kFrameFlagWritable)) {
            record_note(format("guest->host toolservice request control=%u request=%u",
                               request.buffers[0].size, request.buffers[1].size),
                        connection.id);
            completion = m_toolService.send(buffers[0], buffers[1], written[0], written[1]);
            // The tool service may have resized its vectors; never send more than they
            // hold or than the guest's buffers can take.
            for (uint32_t i = 0; i < 2; ++i) {
                written[i] = std::min<uint32_t>(written[i], request.buffers[i].size);
                written[i] =
                    std::min<uint32_t>(written[i], static_cast<uint32_t>(buffers[i].size()));
                contents[i] = buffers[i].data();
            }
        } else {
            completion = kStatusRejected;
        }
        record_note(format("host->guest toolservice completion=0x%08x", completion), connection.id);
    } else {
        record_note(
            format("guest->host unknown request 0x%x with %u buffers", request.code, request.count),
            connection.id);
        completion = kStatusRejected;
    }
    if (completion != 0) std::fill(std::begin(written), std::end(written), 0u);
    return send_reply(connection.fd, completion, written, contents, request.count) ||
           (reason = "reply could not be sent", false);
}

std::optional<uint32_t> Host::handle_dnd(Connection& connection,
                                         const toolgate::RequestView& request,
                                         std::vector<uint8_t>& reply, uint32_t& replyWritten,
                                         bool suspended) {
    // A DnD exchange is one readable record (2196 bytes or more) and a writable reply
    // buffer of at least a record; anything else is refused without being decoded.
    if (request.count != 2 || (request.buffers[0].flags & toolgate::kFrameFlagWritable) ||
        !request.contents[0] || request.buffers[0].size < dnd::kMessageSize ||
        !(request.buffers[1].flags & toolgate::kFrameFlagWritable) ||
        request.buffers[1].size < dnd::kMessageSize) {
        record_note("guest->host malformed DnD request", connection.id);
        return kStatusRejected;
    }
    const uint8_t* sent = request.contents[0];
    Exchange ex;
    ex.command = dnd::command(sent);
    ex.workerId = dnd::worker_id(sent);
    ex.connection = connection.id;
    ex.request = std::span<const uint8_t>(sent, request.buffers[0].size);
    ex.reply = std::span<uint8_t>(reply.data(), reply.size());
    ex.replyWritten = dnd::kMessageSize;
    dnd::init_message(reply.data(), dnd::kMessageSize, ex.command, ex.workerId);

    TraceEntry in;
    in.direction = Direction::GuestToHost;
    in.request = toolgate::kRequestDnD;
    in.command = ex.command;
    in.workerId = ex.workerId;
    in.connection = connection.id;
    if (m_options.trace) in.line = describe_request(sent, request.buffers[0].size);
    record(std::move(in));

    std::optional<StatusFault> fault;
    std::optional<TransferFault> transferFault;
    uint64_t transferMessage = 0;
    std::chrono::milliseconds delay{0};
    // Held by a shared pointer, so that taking it under the lock copies no captures.
    std::shared_ptr<const Handler> handler;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        ex.sequence = ++m_commandCounts[ex.command];
        for (auto it = m_statusFaults.begin(); it != m_statusFaults.end(); ++it) {
            if (it->command == ex.command && it->nth == ex.sequence) {
                fault = *it;
                m_statusFaults.erase(it);
                break;
            }
        }
        if (routed_by_worker(ex.command)) {
            transferMessage = ++m_transferCounts[ex.workerId];
            for (auto it = m_transferFaults.begin(); it != m_transferFaults.end(); ++it) {
                if (it->workerId == ex.workerId && it->nth == transferMessage) {
                    transferFault = *it;
                    m_transferFaults.erase(it);
                    break;
                }
            }
        }
        for (const auto& d : m_delayFaults)
            if (d.command == ex.command && (d.nth == 0 || d.nth == ex.sequence)) delay = d.delay;
        if (auto w = m_workerHandlers.find(ex.workerId);
            w != m_workerHandlers.end() && routed_by_worker(ex.command))
            handler = w->second;
        else if (auto it = m_handlers.find(ex.command); it != m_handlers.end())
            handler = it->second;
        else
            handler = m_fallback;
    }
    check_expectations(ex.command, ex.workerId, connection.id);
    if (transferFault && !transferFault->status) {
        connection.faultClose = format("closed at message %" PRIu64 " of transfer %" PRIu64,
                                       transferMessage, ex.workerId);
        return std::nullopt;
    }
    if (transferFault && !fault) {
        fault = StatusFault{ex.command, ex.sequence, *transferFault->status, transferFault->level};
    }

    uint32_t status = 0;
    if (suspended) {
        ex.completion = toolgate::kStatusSuspended;
    } else if (fault && fault->level == FaultLevel::Completion) {
        ex.completion = fault->status;
    } else if (fault) {
        status = fault->status;
        if (ex.command == dnd::kCmdPoll) note_host_command(status, 0, connection.id);
        record_note(format("fault: status %u for %s #%" PRIu64, status, command_name(ex.command),
                           ex.sequence),
                    connection.id);
    } else if (ex.command == dnd::kCmdPoll) {
        const auto answer = answer_poll(connection, ex);
        if (!answer) return std::nullopt;
        status = *answer;
    } else if (handler && *handler) {
        status = (*handler)(ex);
    }
    if (delay.count() > 0) {
        std::unique_lock<std::mutex> lock(m_mutex);
        m_wake.wait_for(lock, delay, [this] { return m_stopping; });
    }

    TraceEntry out;
    out.direction = Direction::HostToGuest;
    out.request = toolgate::kRequestDnD;
    out.command = ex.command;
    out.connection = connection.id;
    out.completion = ex.completion;
    if (ex.completion == 0) {
        le::put32(reply.data(), dnd::kOffStatus, status);
        replyWritten = static_cast<uint32_t>(std::min(ex.replyWritten, reply.size()));
        out.status = status;
        out.workerId = dnd::worker_id(reply.data());
    }
    if (m_options.trace)
        out.line = describe_reply(ex.command, reply.data(), ex.completion ? 0 : replyWritten,
                                  ex.completion);
    record(std::move(out));
    return ex.completion;
}

bool Host::wait_for_command(Connection& connection, std::optional<std::chrono::milliseconds> hold,
                            HostCommand& command) {
    using Clock = std::chrono::steady_clock;
    // Capped so that the sum cannot overflow; a year is as good as forever here.
    const auto deadline = hold ? Clock::now() + std::min<std::chrono::milliseconds>(
                                                    *hold, std::chrono::hours(24 * 365))
                               : Clock::time_point::max();
    for (;;) {
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            if (m_stopping) return false;
            if (!m_queue.empty()) {
                command = std::move(m_queue.front());
                m_queue.pop_front();
                return true;
            }
        }
        int timeout = -1;
        if (hold) {
            const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now());
            if (left.count() <= 0) return true;  // host command 0
            timeout = static_cast<int>(std::min<int64_t>(left.count(), INT32_MAX));
        }
        // A command queued after the check above has already counted up holdWake, so it
        // cannot be missed. Only the hang-up is asked for on the connection: the guest
        // sends nothing else on a socket while its call is out.
        pollfd fds[2] = {{connection.fd, POLLRDHUP, 0}, {connection.holdWake, POLLIN, 0}};
        const int rc = poll(fds, 2, timeout);
        if (rc < 0 && errno != EINTR) return false;
        if (rc > 0 && (fds[0].revents & (POLLRDHUP | POLLHUP | POLLERR | POLLNVAL))) return false;
        if (rc > 0 && (fds[1].revents & POLLIN)) {
            uint64_t count;
            if (read(connection.holdWake, &count, sizeof count) < 0) {
                // Another reader cannot exist; a failed read only means nothing was counted.
            }
        }
    }
}

std::optional<uint32_t> Host::answer_poll(Connection& connection, Exchange& ex) {
    std::optional<std::chrono::milliseconds> hold;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        hold = m_pollHold;
    }
    HostCommand command;
    if (!wait_for_command(connection, hold, command)) return std::nullopt;
    le::put64(ex.reply.data(), dnd::kOffWorkerId, command.workerId);
    for (const auto& [offset, value] : command.fields)
        if (offset >= dnd::kOffPayload && offset + 4 <= ex.reply.size())
            le::put32(ex.reply.data(), offset, value);
    note_host_command(command.command, command.workerId, ex.connection);
    return command.command;
}

void Host::note_host_command(uint32_t command, uint64_t workerId, uint64_t connection) {
    Expectation e;
    e.hostCommand = command;
    e.workerId = workerId;
    if (command == dnd::kHostCmd10)
        e.expectedCommand = dnd::kCmdToolActive;
    else if (!known_host_command(command))
        e.expectedCommand = dnd::kCmdEnd;
    else
        return;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_expectations.push_back(e);
    }
    record_note(format("expecting %u after host command %u worker=%" PRIu64, e.expectedCommand,
                       command, workerId),
                connection);
}

void Host::check_expectations(uint32_t command, uint64_t workerId, uint64_t connection) {
    std::vector<std::string> notes;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (command == dnd::kCmdToolStops) m_toolStopped = true;
        for (auto& e : m_expectations) {
            if (e.state != Expectation::State::Pending) continue;
            const bool matches =
                command == e.expectedCommand && (command != dnd::kCmdEnd || workerId == e.workerId);
            // The control thread answers a host command before it polls again, so a poll
            // that comes first means the answer was never sent.
            if (matches)
                e.state = Expectation::State::Met;
            else if (command == dnd::kCmdPoll)
                e.state = Expectation::State::Missed;
            else
                continue;
            notes.push_back(format("expectation %s: %u after host command %u worker=%" PRIu64,
                                   state_name(e.state), e.expectedCommand, e.hostCommand,
                                   e.workerId));
        }
    }
    if (command == dnd::kCmdToolStops) notes.push_back("tool stopping");
    for (auto& n : notes) record_note(std::move(n), connection);
}

void Host::record(TraceEntry entry) {
    if (m_options.trace) m_trace.add(std::move(entry));
}

void Host::record_note(std::string line, uint64_t connection) {
    if (m_options.trace) m_trace.note(std::move(line), connection);
}

void Host::queue_command(HostCommand command) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_queue.push_back(std::move(command));
    // Every held poll looks; the first to take the command answers with it.
    const uint64_t one = 1;
    for (const auto& c : m_connections)
        if (c->holdWake >= 0 && write(c->holdWake, &one, sizeof one) < 0) {
            // Full only after 2^64 - 2 commands nobody took; the count stays non-zero.
        }
}

void Host::queue_command(uint32_t command, uint64_t workerId) {
    queue_command(HostCommand{command, workerId, {}});
}

size_t Host::queued_commands() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_queue.size();
}

void Host::set_poll_hold(std::optional<std::chrono::milliseconds> hold) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_pollHold = hold;
}

void Host::set_handler(uint32_t command, Handler handler) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_handlers[command] = std::make_shared<const Handler>(std::move(handler));
}

void Host::clear_handler(uint32_t command) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_handlers.erase(command);
}

void Host::set_fallback_handler(Handler handler) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_fallback = std::make_shared<const Handler>(std::move(handler));
}

void Host::set_worker_handler(uint64_t workerId, Handler handler) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_workerHandlers[workerId] = std::make_shared<const Handler>(std::move(handler));
}

void Host::clear_worker_handler(uint64_t workerId) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_workerHandlers.erase(workerId);
}

bool Host::has_worker_handler(uint64_t workerId) const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_workerHandlers.count(workerId) != 0;
}

std::vector<Expectation> Host::expectations() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_expectations;
}

bool Host::expectations_met() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return std::all_of(m_expectations.begin(), m_expectations.end(),
                       [](const Expectation& e) { return e.state == Expectation::State::Met; });
}

bool Host::tool_stopped() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_toolStopped;
}

void Host::fail_nth(uint32_t command, uint64_t nth, uint32_t status, FaultLevel level) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_statusFaults.push_back({command, nth, status, level});
}

void Host::set_suspended(bool suspended) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_suspended = suspended;
}

void Host::delay_reply(uint32_t command, uint64_t nth, std::chrono::milliseconds delay) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_delayFaults.push_back({command, nth, delay});
}

void Host::close_at(uint64_t n) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_closeAt.push_back(n);
}

void Host::fail_transfer_nth(uint64_t workerId, uint64_t nth, uint32_t status, FaultLevel level) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_transferFaults.push_back({workerId, nth, status, level});
}

void Host::close_transfer_at(uint64_t workerId, uint64_t nth) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_transferFaults.push_back({workerId, nth, std::nullopt, FaultLevel::Reply});
}

uint64_t Host::transfer_message_count(uint64_t workerId) const {
    std::lock_guard<std::mutex> lock(m_mutex);
    auto it = m_transferCounts.find(workerId);
    return it == m_transferCounts.end() ? 0 : it->second;
}

void Host::drop_connections() {
    std::lock_guard<std::mutex> lock(m_mutex);
    for (auto& c : m_connections) {
        if (c->fd < 0) continue;
        c->dropped = true;
        shutdown(c->fd, SHUT_RDWR);
    }
}

size_t Host::open_connections() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return static_cast<size_t>(std::count_if(m_connections.begin(), m_connections.end(),
                                             [](const auto& c) { return c->fd >= 0; }));
}

uint64_t Host::request_count() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_requests;
}

uint64_t Host::message_count(uint32_t command) const {
    std::lock_guard<std::mutex> lock(m_mutex);
    auto it = m_commandCounts.find(command);
    return it == m_commandCounts.end() ? 0 : it->second;
}

}  // namespace hostsim
