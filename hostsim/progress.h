// Progress of the file transfers the simulated host takes part in, either direction:
// items and bytes against the announced totals, a bar per transfer on a terminal, a
// plain line per item elsewhere, and one summary line per transfer.
//
// observe_progress() feeds a board from a transfer's messages as they pass its endpoint
// (the sink, a tree source, a test's handler). By hand: begin() when a transfer is first
// seen, set_totals() with what was announced, item_begins() on the notice (1, 0, name),
// add_bytes() on the notice (5, 0, name) with the size of the chunk that notice confirms
// (the notice itself carries no count) and with 32 for each folder as it is announced, so
// that the bytes reach the announced total, and finish() when the transfer's 260 arrives.
#pragma once

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "hostsim/host.h"

namespace hostsim {

enum class TransferDirection { GuestToHost, HostToGuest };

struct TransferCounts {
    uint64_t workerId = 0;
    TransferDirection direction = TransferDirection::GuestToHost;
    uint64_t announcedBytes = 0;
    uint64_t announcedItems = 0;
    uint64_t items = 0;  // items begun
    uint64_t bytes = 0;
    std::string currentItem;
    double seconds = 0;  // since begin(), up to finish() once finished
    std::string result;  // set by finish(): "done", "failed", "stopped", ...
};

class ProgressBoard {
  public:
    enum class Style {
        Bar,    // one redrawn line per running transfer (a terminal)
        Lines,  // a line per item
        Quiet,  // summary lines only
    };

    // Prints to `out` (which may be null: then nothing is printed but counts are kept).
    explicit ProgressBoard(std::FILE* out = nullptr, Style style = Style::Quiet);
    ProgressBoard(const ProgressBoard&) = delete;
    ProgressBoard& operator=(const ProgressBoard&) = delete;

    // Bar when `out` is a terminal, else Lines.
    static Style style_for(std::FILE* out);

    // Each call names the transfer by its workerId; calls for a transfer not begun
    // begin it (guest to host).
    void begin(uint64_t workerId, TransferDirection direction);
    void set_totals(uint64_t workerId, uint64_t bytes, uint64_t items);
    void item_begins(uint64_t workerId, std::string_view name);
    void add_bytes(uint64_t workerId, uint64_t bytes);
    // Ends the transfer, prints its summary line and returns its counts. A later
    // transfer may reuse the workerId.
    TransferCounts finish(uint64_t workerId, std::string_view result);

    // A running transfer's counts so far.
    std::optional<TransferCounts> running(uint64_t workerId) const;
    // Finished transfers, in the order they finished.
    std::vector<TransferCounts> finished() const;

    // "transfer worker=7 guest->host: 4 items, 94 bytes, 0.01 s, 0.01 MB/s, done"
    // (MB is 10^6 bytes).
    static std::string summary_line(const TransferCounts& counts);

  private:
    struct Running {
        TransferCounts counts;
        std::chrono::steady_clock::time_point start;
    };
    Running& entry(uint64_t workerId);  // under m_mutex
    void draw_bars(bool force);         // under m_mutex
    void clear_bars();                  // under m_mutex
    std::string bar_line(const Running& r) const;

    std::FILE* m_out;
    Style m_style;
    mutable std::mutex m_mutex;
    std::map<uint64_t, Running> m_running;
    std::vector<TransferCounts> m_finished;
    size_t m_barLines = 0;  // bar lines on screen below the cursor's line
    std::chrono::steady_clock::time_point m_lastDraw{};
};

// Wraps `inner`, the handler of transfer `workerId`'s messages, so that `board` follows
// the transfer: the totals (the guest's 262, the host's reply to 261), the notices (1, 0)
// and (5, 0), the chunk sizes (269 sent, 268 answered), folders (a 265 accepted or a 272
// answered with the folder bit) and the 260 that ends it: "failed" after a notice of kind
// 4 or an unanswered kind 3, "stopped" after the host answered 9 or 100, else "done" (with
// ", totals differ" when the counts missed the announced totals). A later transfer of
// the same workerId begins anew. `board` must outlive the handler.
Handler observe_progress(ProgressBoard& board, uint64_t workerId, TransferDirection direction,
                         Handler inner);

}  // namespace hostsim
