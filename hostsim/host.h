// The simulated host: serves the toolgate socket, hands out host commands to the poll,
// answers every DnD message (with handlers that tests plant), injects faults, routes
// tool service requests, and keeps a decoded trace of every exchange.
//
// Typical use in a test:
//
//   hostsim::Host host;                       // serves <platform
//   root>/run/quorvex/iokit/QvxPCIToolGate ASSERT_TRUE(host.start());
//   host.queue_command(hostsim::HostCommand::drop(640, 480, /*workerId=*/7));
//   host.set_handler(278, [](hostsim::Exchange& ex) {
//       qvx::le::put32(ex.reply.data(), 28, 1);  // the value the drag handler reads
//       return 0u;                               // the reply's status field
//   });
//   ... run the tool ...
//   EXPECT_TRUE(host.trace().wait_for_line("guest->host 260 end worker=7", 2s));
//   EXPECT_TRUE(host.expectations_met());
//
// Every member function is safe to call from any thread while the host runs.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "hostsim/toolservice_host.h"
#include "hostsim/trace.h"

namespace toolgate {
struct RequestView;
}

namespace hostsim {

// A host command handed out as the reply to the next poll (259): the command goes into
// the reply's status field, the workerId at offset 12, and each {offset, value} pair of
// `fields` as a u32 into the reply record (offsets 28 and above).
struct HostCommand {
    uint32_t command = 0;
    uint64_t workerId = 0;
    std::vector<std::pair<uint32_t, uint32_t>> fields;

    // 200: files dragged on the host were dropped on the guest at host pixels x, y.
    static HostCommand drop(uint32_t x, uint32_t y, uint64_t workerId);
};

// One DnD message exchange as a handler sees it.
struct Exchange {
    uint32_t command = 0;              // the request's command code
    uint64_t workerId = 0;             // the request's workerId
    uint64_t connection = 0;           // host-side connection number, from 1
    uint64_t sequence = 0;             // 1 for the first message of this command code, 2 next, ...
    std::span<const uint8_t> request;  // buffer 0 as sent: the record plus any data area
    // Buffer 1, its full size. On entry it holds a default reply: zeroes, with the
    // request's command at 0, version 2 at 4 and its workerId at 12.
    std::span<uint8_t> reply;
    // Leading reply bytes sent back; starts at min(2196, reply.size()). A handler that
    // fills a data area (268, 769) raises it; values above reply.size() are clamped.
    size_t replyWritten = 0;
    // Toolgate completion status; a handler may set it (e.g. 0xF0000020) to fail the
    // exchange itself. The reply record is not sent back unless it is 0.
    uint32_t completion = 0;
};

// Returns the reply record's status field (offset 8).
using Handler = std::function<uint32_t(Exchange& exchange)>;

// What the host expects from the tool after handing out a host command: 256 after 10,
// 260 (with the same workerId) after a host command it does not know. Met when that
// message arrives; missed when the tool polls again first.
struct Expectation {
    enum class State { Pending, Met, Missed };
    uint32_t hostCommand = 0;
    uint64_t workerId = 0;
    uint32_t expectedCommand = 0;
    State state = State::Pending;
};

// Where an injected status lands: the reply record's status field (the message-level
// result the message operations examine; for 259 it is the host command), or the
// toolgate completion status (SendDnDCommand then fails).
enum class FaultLevel { Reply, Completion };

struct HostOptions {
    std::string root;  // empty: platform::root()
    // Longest an idle poll is held before host command 0 answers it; empty (the default):
    // held until a command is queued or the guest closes the connection.
    std::optional<std::chrono::milliseconds> pollHold;
    bool trace = true;  // false: keep no trace (throughput runs)
    // Trace entries kept for queries and waits; 0 keeps none, while a listener still sees
    // every entry.
    size_t traceCapacity = Trace::kDefaultCapacity;
};

class Host {
  public:
    explicit Host(HostOptions options = {});
    ~Host();  // stop()
    Host(const Host&) = delete;
    Host& operator=(const Host&) = delete;

    // Creates the socket's parent folders, replaces a stale socket and starts serving.
    // False when the socket cannot be bound. Connections are served one thread each.
    bool start();
    // Stops accepting, closes every connection, wakes held polls, joins all threads and
    // removes the socket. Harmless when not running.
    void stop();
    const std::string& socket_path() const { return m_socketPath; }

    // --- host commands -------------------------------------------------------------
    // Queued commands are handed out in order, one per poll. A poll that finds the queue
    // empty is held until a command is queued (answered at once), the guest closes that
    // connection (left unanswered; the command stays for the next poll) or, with a hold
    // limit set, the limit passes (answered with host command 0, workerId 0).
    void queue_command(HostCommand command);
    void queue_command(uint32_t command, uint64_t workerId = 0);
    size_t queued_commands() const;
    // Sets the hold limit for polls that arrive from now on; std::nullopt removes it.
    void set_poll_hold(std::optional<std::chrono::milliseconds> hold);

    // --- replies ---------------------------------------------------------------------
    // Every DnD command other than 259 is answered by its handler, else by the fallback
    // handler, else with status 0. Handlers run on the connection's thread, concurrently
    // for different connections; they must not call stop().
    void set_handler(uint32_t command, Handler handler);
    void clear_handler(uint32_t command);
    void set_fallback_handler(Handler handler);

    // --- transfers -------------------------------------------------------------------
    // The messages of one operation (by workerId) go to its worker handler before any
    // command handler; faults still come first. Commands that always carry workerId 0
    // (256 to 259, 276, 768) never go to a worker handler. A handler may set or clear
    // worker handlers, its own included.
    void set_worker_handler(uint64_t workerId, Handler handler);
    void clear_worker_handler(uint64_t workerId);
    bool has_worker_handler(uint64_t workerId) const;

    // --- expectations ----------------------------------------------------------------
    std::vector<Expectation> expectations() const;
    // True when no expectation was missed and none is still pending.
    bool expectations_met() const;
    // True once the tool sent 257 (it is stopping).
    bool tool_stopped() const;

    // --- faults ----------------------------------------------------------------------
    // The `nth` message (from 1) of DnD command `command` is answered with `status`,
    // whatever its handler or the queue would say. Once per call; several may be set.
    void fail_nth(uint32_t command, uint64_t nth, uint32_t status,
                  FaultLevel level = FaultLevel::Reply);
    // While set, every request (DnD or tool service) completes with 0xF0000020.
    void set_suspended(bool suspended);
    // Holds the reply to the `nth` message of `command` (nth 0: every one) for `delay`.
    void delay_reply(uint32_t command, uint64_t nth, std::chrono::milliseconds delay);
    // The connection carrying the `n`-th request (from 1, counted over all requests and
    // connections) is closed instead of answered. Once.
    void close_at(uint64_t n);
    // Closes every open connection now (the guest reconnects on its next call).
    void drop_connections();
    // Faults counted over one transfer: its `nth` message (from 1, every message that
    // carries `workerId` and would go to a worker handler, whatever its command) is
    // answered with `status` instead of by its handler, or, with close_transfer_at, its
    // connection is closed unanswered, so that the guest's exchange is lost. Once each.
    void fail_transfer_nth(uint64_t workerId, uint64_t nth, uint32_t status,
                           FaultLevel level = FaultLevel::Reply);
    void close_transfer_at(uint64_t workerId, uint64_t nth);

    // --- observation -----------------------------------------------------------------
    Trace& trace() { return m_trace; }
    const Trace& trace() const { return m_trace; }
    // The tool service part (request 0x8050): probe, registry and its own faults.
    ToolServiceHost& tool_service() { return m_toolService; }
    size_t open_connections() const;
    // Requests received so far: all of them, and of one DnD command.
    uint64_t request_count() const;
    uint64_t message_count(uint32_t command) const;
    // Messages of the transfer `workerId` received so far, as the transfer faults count them.
    uint64_t transfer_message_count(uint64_t workerId) const;

  private:
    struct Connection;
    struct DelayFault {
        uint32_t command;
        uint64_t nth;
        std::chrono::milliseconds delay;
    };
    struct StatusFault {
        uint32_t command;
        uint64_t nth;
        uint32_t status;
        FaultLevel level;
    };
    struct TransferFault {
        uint64_t workerId;
        uint64_t nth;
        std::optional<uint32_t> status;  // none: close the connection
        FaultLevel level;
    };

    void accept_loop();
    void serve(std::shared_ptr<Connection> connection);
    // Handles one request frame body; false closes the connection, with `reason` set.
    bool handle_frame(Connection& connection, const uint8_t* body, size_t size,
                      std::string& reason);
    // One DnD exchange: fills the reply buffer and returns the completion status, or
    // nothing when the guest left a held poll (the connection is then closed unanswered).
    std::optional<uint32_t> handle_dnd(Connection& connection, const toolgate::RequestView& request,
                                       std::vector<uint8_t>& reply, uint32_t& replyWritten,
                                       bool suspended);
    std::optional<uint32_t> answer_poll(Connection& connection, Exchange& exchange);
    // Waits for a queued command; false when the guest closed the connection or the host
    // stops. With `hold`, `command` stays host command 0 when the hold passes.
    bool wait_for_command(Connection& connection, std::optional<std::chrono::milliseconds> hold,
                          HostCommand& command);
    void note_host_command(uint32_t command, uint64_t workerId, uint64_t connection);
    void check_expectations(uint32_t command, uint64_t workerId, uint64_t connection);
    void record(TraceEntry entry);
    void record_note(std::string line, uint64_t connection = 0);
    void reap_finished();

    HostOptions m_options;
    std::string m_socketPath;
    Trace m_trace;
    ToolServiceHost m_toolService;

    mutable std::mutex m_mutex;  // guards everything below except the atomics
    std::condition_variable m_wake;
    std::deque<HostCommand> m_queue;
    std::map<uint32_t, std::shared_ptr<const Handler>> m_handlers;
    std::map<uint64_t, std::shared_ptr<const Handler>> m_workerHandlers;
    std::shared_ptr<const Handler> m_fallback;
    std::vector<Expectation> m_expectations;
    std::vector<StatusFault> m_statusFaults;
    std::vector<DelayFault> m_delayFaults;
    std::vector<uint64_t> m_closeAt;
    std::vector<TransferFault> m_transferFaults;
    std::map<uint64_t, uint64_t> m_transferCounts;
    std::map<uint32_t, uint64_t> m_commandCounts;
    uint64_t m_requests = 0;
    bool m_toolStopped = false;
    bool m_suspended = false;
    bool m_stopping = false;
    std::optional<std::chrono::milliseconds> m_pollHold;
    std::vector<std::shared_ptr<Connection>> m_connections;
    uint64_t m_nextConnection = 1;

    int m_listenFd = -1;
    int m_wakeFd = -1;  // eventfd that ends the accept loop
    std::thread m_acceptThread;
    std::atomic<bool> m_running{false};
};

}  // namespace hostsim
