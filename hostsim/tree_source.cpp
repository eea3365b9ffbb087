// The host's side of a host-to-guest transfer: a folder listed depth-first, and the
// answers to the guest's next-item, link, data and skip requests and to its notices.
#include "hostsim/tree_source.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <cstring>

#include "channel/dnd_message.h"
#include "common/byte_order.h"
#include "text/encoding.h"
#include "transfer/records.h"

namespace hostsim {

namespace dnd = qvx::dnd;
namespace le = qvx::le;

namespace {

// The reply to a link query for an item that is none, and to a request the listing cannot
// serve: any status the guest does not treat specially.
constexpr uint32_t kStatusNotALink = 4;
constexpr uint32_t kStatusRefused = 5;
// What a folder adds to the announced byte total.
constexpr uint64_t kFolderBytes = 32;

uint64_t saturating_add(uint64_t a, uint64_t b) {
    uint64_t sum = 0;
    return __builtin_add_overflow(a, b, &sum) ? UINT64_MAX : sum;
}

uint64_t to_ticks(const timespec& t) {
    // Times before 1601 do not occur on a host file system.
    const auto seconds = static_cast<uint64_t>(t.tv_sec + 11644473600LL);
    return seconds * qvx::kTicksPerSecond + static_cast<uint64_t>(t.tv_nsec) / 100;
}

std::u16string backslashed(const std::string& utf8) {
    std::u16string units = qvx::Utf8ToUtf16(utf8);
    std::replace(units.begin(), units.end(), u'/', u'\\');
    return units;
}

bool list_level(const std::string& folder, const std::u16string& prefix, uint32_t depth,
                std::vector<SourceItem>& out) {
    DIR* dir = opendir(folder.c_str());
    if (!dir) return false;
    std::vector<std::string> names;
    while (const dirent* entry = readdir(dir)) {
        const std::string name = entry->d_name;
        if (name != "." && name != "..") names.push_back(name);
    }
    closedir(dir);
    std::sort(names.begin(), names.end());

    for (const std::string& name : names) {
        const std::string path = folder + "/" + name;
        struct stat st {};
        if (lstat(path.c_str(), &st) != 0) return false;
        SourceItem item;
        item.depth = depth;
        item.name = prefix + u"\\" + qvx::Utf8ToUtf16(name);
        item.creationTime = to_ticks(st.st_ctim);
        item.accessTime = to_ticks(st.st_atim);
        item.modificationTime = to_ticks(st.st_mtim);
        item.mode = static_cast<uint16_t>(st.st_mode);
        if (S_ISLNK(st.st_mode)) {
            char target[PATH_MAX];
            const ssize_t n = readlink(path.c_str(), target, sizeof target);
            if (n < 0) return false;
            item.kind = SourceItem::Kind::Link;
            item.linkTarget = backslashed(std::string(target, static_cast<size_t>(n)));
            out.push_back(std::move(item));
        } else if (S_ISDIR(st.st_mode)) {
            item.kind = SourceItem::Kind::Folder;
            item.attributes = qvx::kAttrDirectory;
            const std::u16string inner = item.name;
            out.push_back(std::move(item));
            if (!list_level(path, inner, depth + 1, out)) return false;
        } else {
            item.kind = SourceItem::Kind::File;
            item.size = static_cast<uint64_t>(st.st_size);
            item.sourcePath = path;
            out.push_back(std::move(item));
        }
    }
    out.push_back(SourceItem::end_of_level(depth));
    return true;
}

}  // namespace

SourceItem SourceItem::end_of_level(uint32_t depth) {
    SourceItem item;
    item.kind = Kind::EndOfLevel;
    item.depth = depth;
    return item;
}

bool list_folder(const std::string& folder, std::vector<SourceItem>& out) {
    out.clear();
    return list_level(folder, u"", 1, out);
}

uint64_t listing_bytes(const std::vector<SourceItem>& items) {
    uint64_t total = 0;
    for (const SourceItem& item : items) {
        if (item.kind == SourceItem::Kind::File) total = saturating_add(total, item.size);
        if (item.kind == SourceItem::Kind::Folder) total = saturating_add(total, kFolderBytes);
    }
    return total;
}

TreeSource::TreeSource(std::vector<SourceItem> items, SourcePolicy policy)
    : m_items(std::move(items)), m_policy(policy), m_totalBytes(listing_bytes(m_items)) {}

TreeSource::~TreeSource() {
    close_source();
}

void TreeSource::set_policy(SourcePolicy policy) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_policy = policy;
}

void TreeSource::set_override(Override override) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_override = std::move(override);
}

void TreeSource::set_total_bytes(uint64_t bytes) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_totalBytes = bytes;
}

std::vector<ReceivedNotice> TreeSource::notices() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_notices;
}

uint32_t TreeSource::ends() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_ends;
}

uint64_t TreeSource::bytes_served() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_bytesServed;
}

uint64_t TreeSource::items_served() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_itemsServed;
}

uint32_t TreeSource::answer(Exchange& ex) {
    std::lock_guard<std::mutex> lock(m_mutex);
    if (m_override) {
        if (std::optional<uint32_t> status = m_override(ex, m_current)) return *status;
    }
    switch (ex.command) {
        case dnd::kCmdTransferStart:
            // A new transfer under the same workerId starts the listing over.
            close_source();
            m_next = 0;
            m_current = nullptr;
            return dnd::kStatusSuccess;
        case dnd::kCmdQueryTotals:
            le::put64(ex.reply.data(), dnd::kOffTotalBytes, m_totalBytes);
            return dnd::kStatusSuccess;
        case dnd::kCmdNextItem:
            return next_item(ex);
        case dnd::kCmdLinkTarget:
            return link_target(ex);
        case dnd::kCmdDataBegin:
            return data_begin();
        case dnd::kCmdReadData:
            return data(ex);
        case dnd::kCmdDataEnd:
            close_source();
            return dnd::kStatusSuccess;
        case dnd::kCmd274:
            return skip_folder();
        case dnd::kCmdDialog:
            return notice(ex);
        case dnd::kCmdEnd:
            close_source();
            ++m_ends;
            return dnd::kStatusSuccess;
        default:
            return dnd::kStatusSuccess;
    }
}

void serve_tree(Host& host, uint64_t workerId, std::shared_ptr<TreeSource> source) {
    host.set_worker_handler(
        workerId, [source = std::move(source)](Exchange& ex) { return source->answer(ex); });
}

uint32_t TreeSource::next_item(Exchange& ex) {
    if (m_next >= m_items.size()) return dnd::kStatusNoMoreItems;
    const SourceItem& item = m_items[m_next++];
    if (item.kind == SourceItem::Kind::EndOfLevel) return dnd::kStatusNoMoreItems;
    m_current = &item;
    m_itemsServed = saturating_add(m_itemsServed, 1);
    uint8_t* r = ex.reply.data();
    le::put32(r, dnd::kOffAttributes, item.attributes);
    le::put64(r, dnd::kOffCreationTime, item.creationTime);
    le::put64(r, dnd::kOffAccessTime, item.accessTime);
    le::put64(r, dnd::kOffModificationTime, item.modificationTime);
    le::put64(r, dnd::kOffSize, item.size);
    le::put32(r, dnd::kOffNameLength,
              item.nameLength.value_or(static_cast<uint32_t>(item.name.size())));
    // Whatever the length says, the units stay inside the name field; the terminator
    // follows them when there is room.
    const size_t units = std::min(item.name.size(), dnd::kNameBytes / 2);
    for (size_t i = 0; i < units; ++i) le::put16(r, dnd::kOffName + 2 * i, item.name[i]);
    le::put16(r, dnd::kOffModeValid, item.modeValid);
    le::put16(r, dnd::kOffMode, item.mode);
    return dnd::kStatusSuccess;
}

uint32_t TreeSource::link_target(Exchange& ex) {
    if (!m_current || m_current->kind != SourceItem::Kind::Link) return kStatusNotALink;
    const size_t bytes = m_current->linkTarget.size() * 2;
    if (ex.reply.size() < dnd::kMessageSize + bytes) return dnd::kStatusBufferTooSmall;
    le::put32(ex.reply.data(), dnd::kOffDataLength, static_cast<uint32_t>(bytes));
    for (size_t i = 0; i < m_current->linkTarget.size(); ++i)
        le::put16(ex.reply.data(), dnd::kOffData + 2 * i, m_current->linkTarget[i]);
    ex.replyWritten = dnd::kMessageSize + bytes;
    return dnd::kStatusSuccess;
}

uint32_t TreeSource::data_begin() {
    close_source();
    m_offset = 0;
    if (!m_current || m_current->kind != SourceItem::Kind::File) return kStatusRefused;
    if (!m_current->sourcePath.empty()) {
        m_sourceFd = ::open(m_current->sourcePath.c_str(), O_RDONLY | O_CLOEXEC);
        if (m_sourceFd < 0) return kStatusRefused;
    }
    return dnd::kStatusSuccess;
}

uint32_t TreeSource::data(Exchange& ex) {
    const uint32_t wanted = le::get32(ex.request.data(), dnd::kOffDataLength);
    if (!m_current || m_current->kind != SourceItem::Kind::File || wanted > dnd::kMaxChunk ||
        ex.reply.size() < dnd::kMessageSize + size_t{wanted} ||
        wanted > m_current->size - std::min(m_offset, m_current->size)) {
        return kStatusRefused;
    }
    // Straight from the file into the reply: the chunk is copied once, by the kernel.
    uint8_t* to = ex.reply.data() + dnd::kOffData;
    size_t done = 0;
    if (m_sourceFd >= 0) {
        while (done < wanted) {
            const ssize_t n =
                ::pread(m_sourceFd, to + done, wanted - done, static_cast<off_t>(m_offset + done));
            if (n < 0 && errno == EINTR) continue;
            if (n <= 0) return kStatusRefused;  // the file shrank or failed
            done += static_cast<size_t>(n);
        }
    } else {
        const std::string& content = m_current->content;
        const size_t from = std::min<uint64_t>(m_offset, content.size());
        const size_t have = std::min<size_t>(wanted, content.size() - from);
        std::memcpy(to, content.data() + from, have);
        std::memset(to + have, 0, wanted - have);
    }
    le::put32(ex.reply.data(), dnd::kOffDataLength, wanted);
    ex.replyWritten = dnd::kMessageSize + wanted;
    m_offset += wanted;
    m_bytesServed = saturating_add(m_bytesServed, wanted);
    return dnd::kStatusSuccess;
}

uint32_t TreeSource::skip_folder() {
    if (!m_current || m_current->kind != SourceItem::Kind::Folder) return kStatusRefused;
    // The guest does not descend: leave out everything listed deeper than the folder,
    // the end of its own level included.
    while (m_next < m_items.size() && m_items[m_next].depth > m_current->depth) ++m_next;
    return dnd::kStatusSuccess;
}

uint32_t TreeSource::notice(const Exchange& ex) {
    ReceivedNotice n;
    n.dialogId = le::get32(ex.request.data(), dnd::kOffDialogId);
    n.code = le::get32(ex.request.data(), dnd::kOffDialogCode);
    for (size_t i = 0; i + 1 < dnd::kDialogTextBytes / 2; ++i) {
        const uint16_t unit = le::get16(ex.request.data(), dnd::kOffDialogText + 2 * i);
        if (unit == 0) break;
        n.text.push_back(static_cast<char16_t>(unit));
    }
    if (n.dialogId == qvx::notice::kItemExists.dialogId && n.code == qvx::notice::kItemExists.code)
        n.answer = m_policy.onExists;
    else if (n.dialogId == qvx::notice::kItemNotCreated.dialogId)
        n.answer = m_policy.onFailure;
    m_notices.push_back(n);
    return n.answer;
}

void TreeSource::close_source() {
    if (m_sourceFd >= 0) ::close(m_sourceFd);
    m_sourceFd = -1;
}

}  // namespace hostsim
