// Transfer progress: counts per transfer, the terminal bars, item lines and summaries.
#include "hostsim/progress.h"

#include <unistd.h>

#include <algorithm>
#include <cinttypes>
#include <memory>

#include "channel/dnd_message.h"
#include "common/byte_order.h"
#include "hostsim/trace.h"
#include "hostsim/wire_text.h"

namespace hostsim {
namespace {

// Bars are redrawn at most this often; a chunk notice arrives far more often.
constexpr auto kRedrawEvery = std::chrono::milliseconds(100);
constexpr size_t kBarWidth = 24;
constexpr size_t kNameWidth = 40;

const char* direction_text(TransferDirection d) {
    return d == TransferDirection::GuestToHost ? "guest->host" : "host->guest";
}

double megabytes_per_second(uint64_t bytes, double seconds) {
    return seconds > 0 ? static_cast<double>(bytes) / 1e6 / seconds : 0.0;
}

namespace dnd = qvx::dnd;
namespace le = qvx::le;

constexpr uint64_t kFolderBytes = 32;  // what a folder counts in the announced bytes
constexpr uint32_t kAttrDirectory = 0x10;

// Notice text (UTF-16 up to its NUL) as UTF-8 for display.
std::string notice_text(const uint8_t* record) {
    return wire_text(record + dnd::kOffDialogText, dnd::kDialogTextBytes);
}

// What one observed transfer has seen so far; its messages come one at a time.
struct Observed {
    std::mutex mutex;
    bool begun = false;
    bool failed = false;
    bool stopped = false;
    uint64_t lastChunk = 0;
};

// "3/10", or "3" where no total was announced (the host's own totals carry no items).
std::string of_total(uint64_t n, uint64_t total) {
    return total ? format("%" PRIu64 "/%" PRIu64, n, total) : format("%" PRIu64, n);
}

// The end of a long name, which tells more than its start.
std::string tail(std::string_view name, size_t width) {
    if (name.size() <= width) return std::string(name);
    size_t from = name.size() - (width - 3);
    // Never start inside a UTF-8 sequence.
    while (from < name.size() && (static_cast<unsigned char>(name[from]) & 0xC0) == 0x80) ++from;
    return "..." + std::string(name.substr(from));
}

}  // namespace

ProgressBoard::ProgressBoard(std::FILE* out, Style style) : m_out(out), m_style(style) {}

ProgressBoard::Style ProgressBoard::style_for(std::FILE* out) {
    return out && isatty(fileno(out)) ? Style::Bar : Style::Lines;
}

ProgressBoard::Running& ProgressBoard::entry(uint64_t workerId) {
    auto it = m_running.find(workerId);
    if (it != m_running.end()) return it->second;
    Running& r = m_running[workerId];
    r.counts.workerId = workerId;
    r.start = std::chrono::steady_clock::now();
    return r;
}

void ProgressBoard::begin(uint64_t workerId, TransferDirection direction) {
    std::lock_guard<std::mutex> lock(m_mutex);
    entry(workerId).counts.direction = direction;
    draw_bars(true);
}

void ProgressBoard::set_totals(uint64_t workerId, uint64_t bytes, uint64_t items) {
    std::lock_guard<std::mutex> lock(m_mutex);
    Running& r = entry(workerId);
    r.counts.announcedBytes = bytes;
    r.counts.announcedItems = items;
    draw_bars(true);
}

void ProgressBoard::item_begins(uint64_t workerId, std::string_view name) {
    std::lock_guard<std::mutex> lock(m_mutex);
    Running& r = entry(workerId);
    ++r.counts.items;
    r.counts.currentItem.assign(name);
    if (m_out && m_style == Style::Lines) {
        std::fprintf(m_out, "worker=%" PRIu64 " %s item %s %s\n", workerId,
                     direction_text(r.counts.direction),
                     of_total(r.counts.items, r.counts.announcedItems).c_str(),
                     r.counts.currentItem.c_str());
        std::fflush(m_out);
    }
    draw_bars(false);
}

void ProgressBoard::add_bytes(uint64_t workerId, uint64_t bytes) {
    std::lock_guard<std::mutex> lock(m_mutex);
    entry(workerId).counts.bytes += bytes;
    draw_bars(false);
}

TransferCounts ProgressBoard::finish(uint64_t workerId, std::string_view result) {
    std::lock_guard<std::mutex> lock(m_mutex);
    Running& r = entry(workerId);
    r.counts.seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - r.start).count();
    r.counts.result.assign(result);
    TransferCounts counts = std::move(r.counts);
    m_running.erase(workerId);
    m_finished.push_back(counts);
    if (m_out) {
        clear_bars();
        std::fprintf(m_out, "%s\n", summary_line(counts).c_str());
        draw_bars(true);
        std::fflush(m_out);
    }
    return counts;
}

std::optional<TransferCounts> ProgressBoard::running(uint64_t workerId) const {
    std::lock_guard<std::mutex> lock(m_mutex);
    auto it = m_running.find(workerId);
    if (it == m_running.end()) return std::nullopt;
    TransferCounts counts = it->second.counts;
    counts.seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - it->second.start).count();
    return counts;
}

std::vector<TransferCounts> ProgressBoard::finished() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_finished;
}

std::string ProgressBoard::summary_line(const TransferCounts& c) {
    return format("transfer worker=%" PRIu64 " %s: %" PRIu64 " items, %" PRIu64
                  " bytes, %.2f s, %.2f MB/s, %s",
                  c.workerId, direction_text(c.direction), c.items, c.bytes, c.seconds,
                  megabytes_per_second(c.bytes, c.seconds), c.result.c_str());
}

std::string ProgressBoard::bar_line(const Running& r) const {
    const TransferCounts& c = r.counts;
    const double seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - r.start).count();
    double done = 0;
    if (c.announcedBytes > 0)
        done = static_cast<double>(c.bytes) / static_cast<double>(c.announcedBytes);
    else if (c.announcedItems > 0)
        done = static_cast<double>(c.items) / static_cast<double>(c.announcedItems);
    done = std::clamp(done, 0.0, 1.0);
    const auto filled = static_cast<size_t>(done * kBarWidth);
    std::string bar(filled, '#');
    bar.append(kBarWidth - filled, '.');
    return format("%" PRIu64 " %s [%s] %3d%% %s items %.1f/%.1f MB %.1f MB/s ", c.workerId,
                  direction_text(c.direction), bar.c_str(), static_cast<int>(done * 100),
                  of_total(c.items, c.announcedItems).c_str(), static_cast<double>(c.bytes) / 1e6,
                  static_cast<double>(c.announcedBytes) / 1e6,
                  megabytes_per_second(c.bytes, seconds)) +
           tail(c.currentItem, kNameWidth);
}

void ProgressBoard::clear_bars() {
    if (m_style != Style::Bar || m_barLines == 0) return;
    // Up to the first bar line, then erase everything below.
    std::fprintf(m_out, "\x1b[%zuA\r\x1b[J", m_barLines);
    m_barLines = 0;
}

void ProgressBoard::draw_bars(bool force) {
    if (!m_out || m_style != Style::Bar) return;
    const auto now = std::chrono::steady_clock::now();
    if (!force && now - m_lastDraw < kRedrawEvery) return;
    m_lastDraw = now;
    clear_bars();
    for (const auto& [worker, r] : m_running) {
        std::fprintf(m_out, "%s\n", bar_line(r).c_str());
        ++m_barLines;
    }
    std::fflush(m_out);
}

Handler observe_progress(ProgressBoard& board, uint64_t workerId, TransferDirection direction,
                         Handler inner) {
    auto seen = std::make_shared<Observed>();
    return [&board, workerId, direction, inner = std::move(inner), seen](Exchange& ex) {
        const uint32_t status = inner ? inner(ex) : dnd::kStatusSuccess;
        std::lock_guard<std::mutex> lock(seen->mutex);
        if (!seen->begun) {
            board.begin(workerId, direction);
            seen->begun = true;
        }
        const uint8_t* req = ex.request.data();
        const uint8_t* reply = ex.reply.data();
        const bool ok = status == dnd::kStatusSuccess;
        switch (ex.command) {
            case dnd::kCmdSendTotals:
                if (ok)
                    board.set_totals(workerId, le::get64(req, dnd::kOffTotalBytes),
                                     le::get32(req, dnd::kOffItemCount));
                break;
            case dnd::kCmdQueryTotals:
                // The host announces bytes only; the items show without a total.
                if (ok) board.set_totals(workerId, le::get64(reply, dnd::kOffTotalBytes), 0);
                break;
            case dnd::kCmdDialog: {
                const uint32_t id = le::get32(req, dnd::kOffDialogId);
                if (id == 1) board.item_begins(workerId, notice_text(req));
                if (id == 5) {
                    board.add_bytes(workerId, seen->lastChunk);
                    seen->lastChunk = 0;
                }
                if (id == 4 || (id == 3 && status != dnd::kStatusSkip)) seen->failed = true;
                break;
            }
            case dnd::kCmdWriteData:
                if (ok) seen->lastChunk = le::get32(req, dnd::kOffDataLength);
                break;
            case dnd::kCmdReadData:
                if (ok && ex.replyWritten >= dnd::kMessageSize)
                    seen->lastChunk = std::min<uint64_t>(le::get32(reply, dnd::kOffDataLength),
                                                         ex.replyWritten - dnd::kMessageSize);
                break;
            case dnd::kCmdItemHeader:
                if (ok && (le::get32(req, dnd::kOffAttributes) & kAttrDirectory))
                    board.add_bytes(workerId, kFolderBytes);
                break;
            case dnd::kCmdNextItem:
                if (ok && (le::get32(reply, dnd::kOffAttributes) & kAttrDirectory))
                    board.add_bytes(workerId, kFolderBytes);
                break;
            case dnd::kCmdEnd: {
                std::string result = seen->failed ? "failed" : seen->stopped ? "stopped" : "done";
                if (auto c = board.running(workerId);
                    c && result == "done" &&
                    (c->bytes != c->announcedBytes ||
                     (c->announcedItems != 0 && c->items != c->announcedItems)))
                    result += ", totals differ";
                board.finish(workerId, result);
                seen->begun = seen->failed = seen->stopped = false;
                seen->lastChunk = 0;
                return status;
            }
            default:
                break;
        }
        if (dnd::is_quiet_stop(status)) seen->stopped = true;
        return status;
    };
}

}  // namespace hostsim
