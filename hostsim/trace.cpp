// The simulated host's trace: storage, waiting, and decoding of DnD records into lines.
#include "hostsim/trace.h"

#include <algorithm>
#include <cinttypes>
#include <cstdarg>
#include <cstdio>

#include "channel/dnd_message.h"
#include "common/byte_order.h"
#include "hostsim/wire_text.h"

namespace hostsim {

namespace dnd = qvx::dnd;
namespace le = qvx::le;

void Trace::add(TraceEntry entry) {
    Listener listener;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        for (Watch* watch : m_watches)
            if (entry.line.find(watch->text) != std::string::npos) watch->seen = true;
        if (m_capacity > 0) {
            // Dropping half at a time keeps the cost per entry constant.
            if (m_entries.size() >= m_capacity)
                m_entries.erase(m_entries.begin(),
                                m_entries.begin() +
                                    static_cast<std::ptrdiff_t>(m_entries.size() - m_capacity / 2));
            m_entries.push_back(entry);
        }
        listener = m_listener;
    }
    m_changed.notify_all();
    if (listener) listener(entry);
}

void Trace::note(std::string line, uint64_t connection) {
    TraceEntry entry;
    entry.direction = Direction::Note;
    entry.connection = connection;
    entry.line = std::move(line);
    add(std::move(entry));
}

std::vector<TraceEntry> Trace::entries() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_entries;
}

std::vector<std::string> Trace::lines() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    std::vector<std::string> out;
    out.reserve(m_entries.size());
    for (const auto& e : m_entries) out.push_back(e.line);
    return out;
}

size_t Trace::size() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_entries.size();
}

size_t Trace::count(std::string_view text) const {
    std::lock_guard<std::mutex> lock(m_mutex);
    size_t n = 0;
    for (const auto& e : m_entries) n += e.line.find(text) != std::string::npos;
    return n;
}

size_t Trace::count_command(uint32_t command) const {
    std::lock_guard<std::mutex> lock(m_mutex);
    size_t n = 0;
    for (const auto& e : m_entries)
        n += e.direction == Direction::GuestToHost && e.request == 0x8304 && e.command == command;
    return n;
}

void Trace::clear() {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_entries.clear();
}

bool Trace::wait_for(const Predicate& predicate, std::chrono::milliseconds timeout) const {
    std::unique_lock<std::mutex> lock(m_mutex);
    return m_changed.wait_for(lock, timeout, [&] { return predicate(m_entries); });
}

bool Trace::wait_for_line(std::string_view text, std::chrono::milliseconds timeout) const {
    std::unique_lock<std::mutex> lock(m_mutex);
    for (const auto& e : m_entries)
        if (e.line.find(text) != std::string::npos) return true;
    Watch watch{text};
    m_watches.push_back(&watch);
    const bool seen = m_changed.wait_for(lock, timeout, [&] { return watch.seen; });
    m_watches.remove(&watch);
    return seen;
}

size_t Trace::waiting() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_watches.size();
}

void Trace::set_listener(Listener listener) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_listener = std::move(listener);
}

const char* command_name(uint32_t command) {
    switch (command) {
        case dnd::kCmdToolActive:
            return "active";
        case dnd::kCmdToolStops:
            return "tool-stops";
        case dnd::kCmdFileList:
            return "file-list";
        case dnd::kCmdPoll:
            return "poll";
        case dnd::kCmdEnd:
            return "end";
        case dnd::kCmdQueryTotals:
            return "query-totals";
        case dnd::kCmdSendTotals:
            return "totals";
        case dnd::kCmdDialog:
            return "dialog";
        case dnd::kCmdItemHeader:
            return "item-header";
        case dnd::kCmdDataBegin:
            return "data-begin";
        case dnd::kCmdDataEnd:
            return "data-end";
        case dnd::kCmdReadData:
            return "read-data";
        case dnd::kCmdWriteData:
            return "write-data";
        case dnd::kCmdRemoveItem:
            return "remove-item";
        case dnd::kCmdItemAttributes:
            return "item-attributes";
        case dnd::kCmdNextItem:
            return "next-item";
        case dnd::kCmdMoveMouse:
            return "move-mouse";
        case dnd::kCmdNewWorkerId:
            return "new-worker-id";
        case dnd::kCmdQueryPrepare:
            return "query-prepare";
        case dnd::kCmdTransferStart:
            return "transfer-start";
        case dnd::kCmdFileListVariant:
            return "file-list-768";
        case dnd::kCmdLinkTarget:
            return "link-target";
        case dnd::kCmdSymlink:
            return "symlink";
        default:
            return "cmd";
    }
}

std::string format(const char* fmt, ...) {
    char buf[256];
    va_list args;
    va_start(args, fmt);
    const int n = std::vsnprintf(buf, sizeof(buf), fmt, args);
    va_end(args);
    return std::string(buf, n < 0 ? 0 : std::min<size_t>(static_cast<size_t>(n), sizeof(buf) - 1));
}

namespace {

// Wire text for a trace line, its quotes and backslashes escaped.
std::string utf16_text(const uint8_t* p, size_t bytes, size_t* consumed = nullptr) {
    const std::string text = wire_text(p, bytes, consumed);
    std::string out;
    out.reserve(text.size());
    for (char c : text) {
        if (c == '"' || c == '\\') out += '\\';
        out += c;
    }
    return out;
}

bool is_named_entry(uint32_t command) {
    switch (command) {
        case dnd::kCmdItemHeader:
        case dnd::kCmdDataBegin:
        case dnd::kCmdRemoveItem:
        case dnd::kCmdItemAttributes:
        case dnd::kCmdLinkTarget:
        case dnd::kCmdSymlink:
            return true;
        default:
            return false;
    }
}

std::string name_field(const uint8_t* record) {
    return " name=\"" + utf16_text(record + dnd::kOffName, dnd::kNameBytes) + "\"";
}

}  // namespace

std::string describe_request(const uint8_t* r, size_t size) {
    if (size < dnd::kMessageSize) return format("guest->host short record (%zu bytes)", size);
    const uint32_t command = dnd::command(r);
    std::string line = format("guest->host %u %s worker=%" PRIu64, command, command_name(command),
                              dnd::worker_id(r));
    switch (command) {
        case dnd::kCmdDialog:
            line += format(" id=%u code=%u", le::get32(r, dnd::kOffDialogId),
                           le::get32(r, dnd::kOffDialogCode));
            line += " text=\"" + utf16_text(r + dnd::kOffDialogText, dnd::kDialogTextBytes) + "\"";
            break;
        case dnd::kCmdMoveMouse:
            line += format(" x=%u y=%u buttons=%u", le::get32(r, dnd::kOffPointerX),
                           le::get32(r, dnd::kOffPointerY), le::get32(r, dnd::kOffPointerButtons));
            break;
        case dnd::kCmdFileList:
        case dnd::kCmdFileListVariant: {
            const uint32_t count = le::get32(r, dnd::kOffListCount);
            const uint32_t bytes = le::get32(r, dnd::kOffListSize);
            line += format(" count=%u size=%u", count, bytes);
            // Names are read only as far as the record actually reaches.
            size_t avail = size - dnd::kOffListNames;
            if (bytes < avail) avail = bytes;
            size_t at = 0;
            for (uint32_t i = 0; i < count && at < avail; ++i) {
                size_t used = 0;
                line += i == 0 ? " names=\"" : ",\"";
                line += utf16_text(r + dnd::kOffListNames + at, avail - at, &used) + "\"";
                at += used;
            }
            break;
        }
        case dnd::kCmdSendTotals:
            line += format(" bytes=%" PRIu64 " items=%u top=%u", le::get64(r, dnd::kOffTotalBytes),
                           le::get32(r, dnd::kOffItemCount), le::get32(r, dnd::kOffTopLevelCount));
            break;
        case dnd::kCmdNextItem:
            line += format(" value=%u", le::get32(r, dnd::kOffEntryValue));
            break;
        case dnd::kCmdReadData:
        case dnd::kCmdWriteData:
            line += format(" dataLength=%u", le::get32(r, dnd::kOffDataLength));
            break;
        default:
            break;
    }
    if (is_named_entry(command)) {
        if (command == dnd::kCmdDataBegin) line += format(" value=%u", le::get32(r, 28));
        if (command == dnd::kCmdItemHeader) line += format(" value=%u", le::get32(r, 32));
        line += name_field(r);
        if (command == dnd::kCmdSymlink) {
            const uint32_t length = le::get32(r, dnd::kOffDataLength);
            const size_t avail = size - dnd::kOffData;
            line += " target=\"" + utf16_text(r + dnd::kOffData, length < avail ? length : avail) +
                    "\"";
        }
    }
    if (size != dnd::kMessageSize) line += format(" size=%zu", size);
    return line;
}

std::string describe_reply(uint32_t command, const uint8_t* r, size_t written,
                           uint32_t completion) {
    if (completion != 0) return format("host->guest %u completion=0x%08x", command, completion);
    if (written < dnd::kMessageSize) return format("host->guest %u written=%zu", command, written);
    const uint32_t status = dnd::status(r);
    std::string line =
        format("host->guest %u status=%u worker=%" PRIu64, command, status, dnd::worker_id(r));
    switch (command) {
        case dnd::kCmdPoll:
            if (status == dnd::kHostCmdHostToGuest)
                line += format(" x=%u y=%u", le::get32(r, dnd::kOffPointerX),
                               le::get32(r, dnd::kOffPointerY));
            break;
        case dnd::kCmdFileList:
        case dnd::kCmdFileListVariant:
            line += format(" action=%u", le::get32(r, dnd::kOffReplyAction));
            break;
        case dnd::kCmdQueryTotals:
            line += format(" bytes=%" PRIu64 " second=%u", le::get64(r, dnd::kOffTotalBytes),
                           le::get32(r, dnd::kOffTotalsSecond));
            break;
        case dnd::kCmdQueryPrepare:
            line += format(" value=%u", le::get32(r, dnd::kOffPrepareValue));
            break;
        case dnd::kCmdReadData:
        case dnd::kCmdLinkTarget:
            line += format(" dataLength=%u", le::get32(r, dnd::kOffDataLength));
            break;
        case dnd::kCmdNextItem:
            if (status == 0) line += name_field(r);
            break;
        default:
            break;
    }
    return line;
}

}  // namespace hostsim
