// The simulated host's decoded record of every exchange: one entry (and one printable
// line) per message in each direction, handed to a listener and the latest of them kept in
// memory, safe to read from any thread.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <list>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

namespace hostsim {

enum class Direction {
    GuestToHost,  // a request as the guest sent it
    HostToGuest,  // the reply the host wrote back
    Note,         // host-side events: connections, malformed frames, expectations, faults
};

struct TraceEntry {
    Direction direction = Direction::Note;
    uint32_t request = 0;     // toolgate request code (0x8304, 0x8050); 0 for notes
    uint32_t command = 0;     // DnD command code (0 for other requests and notes)
    uint64_t workerId = 0;    // the record's workerId (request or reply)
    uint32_t status = 0;      // replies: the record's status field (host command for 259)
    uint32_t completion = 0;  // replies: the toolgate completion status
    uint64_t connection = 0;  // host-side connection number, from 1
    // Decoded text, exactly as printed, e.g.
    //   "guest->host 259 poll worker=0"
    //   "host->guest 259 status=200 worker=7 x=640 y=480"
    //   "guest->host 263 dialog worker=7 id=4 code=12 text=\"Cannot copy\""
    //   "guest->host 275 move-mouse worker=0 x=100 y=200 buttons=1"
    //   "host->guest 258 completion=0xf0000020"
    //   "expectation met: 256 after host command 10 worker=0"
    std::string line;
};

// A long-running host must not grow without bound: at most `capacity` entries are kept
// (when full, the older half is dropped), and the queries below see those. Every entry
// still reaches the listener, and a wait_for_line in progress sees every line added while
// it waits, kept or not.
class Trace {
  public:
    using Predicate = std::function<bool(const std::vector<TraceEntry>& entries)>;
    using Listener = std::function<void(const TraceEntry& entry)>;

    static constexpr size_t kDefaultCapacity = 10000;

    explicit Trace(size_t capacity = kDefaultCapacity) : m_capacity(capacity) {}

    void add(TraceEntry entry);
    void note(std::string line, uint64_t connection = 0);

    std::vector<TraceEntry> entries() const;
    std::vector<std::string> lines() const;
    size_t size() const;
    // Lines containing `text`.
    size_t count(std::string_view text) const;
    bool contains(std::string_view text) const { return count(text) > 0; }
    // Guest requests of one DnD command among the kept entries.
    size_t count_command(uint32_t command) const;
    void clear();

    // Blocks until `predicate` holds over the kept entries (checked at once and after
    // every new entry) or `timeout` passes; returns whether it held.
    bool wait_for(const Predicate& predicate, std::chrono::milliseconds timeout) const;
    // Waits until a kept line, or any line added meanwhile, contains `text`.
    bool wait_for_line(std::string_view text, std::chrono::milliseconds timeout) const;
    // wait_for_line calls in progress, for tests that must add lines only once one waits.
    size_t waiting() const;

    // Called with every new entry, outside the trace's lock, on the thread that added it
    // (qvxhost --trace prints from here). Set it before the host starts.
    void set_listener(Listener listener);

  private:
    // A wait_for_line in progress: the text it looks for, and whether a line had it.
    struct Watch {
        std::string_view text;
        bool seen = false;
    };

    const size_t m_capacity;
    mutable std::mutex m_mutex;
    mutable std::condition_variable m_changed;
    std::vector<TraceEntry> m_entries;
    mutable std::list<Watch*> m_watches;
    Listener m_listener;
};

// printf into a std::string, for trace lines (cut at 255 bytes).
std::string format(const char* fmt, ...) __attribute__((format(printf, 1, 2)));

// Short name of a DnD command for trace lines ("poll", "dialog", ...); "cmd" for a
// command whose meaning the protocol leaves at its code (273, 274, 279) or an unknown one.
const char* command_name(uint32_t command);

// Decodes one guest request record (2196 bytes or more) into its trace line.
std::string describe_request(const uint8_t* record, size_t size);
// Decodes one reply record written by the host for `command`.
std::string describe_reply(uint32_t command, const uint8_t* record, size_t written,
                           uint32_t completion);

}  // namespace hostsim
