// The tree sender: counts the listed items, announces the totals, and sends every item
// depth first with its data in chunks read straight into the transfer buffer.
//
// The walks keep their folders on the heap, not on the call stack: a folder is listed
// into memory in readdir order and closed at once, and its items are reached relative to
// a descriptor of the folder, so neither the stack, nor the descriptors, nor the length
// of a path string limit the depth. Only the outermost folders of a walk stay open while
// the walk is deeper; a deeper one is reopened through ".." and checked to be the same
// folder when the walk comes back to it.
#include "transfer/tree_sender.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>
#include <new>

#include "common/deprecated_call.h"
#include "fs/fs_helpers.h"
#include "fs/host_file.h"
#include "platform/seams/syscalls.h"
#include "text/encoding.h"
#include "transfer/records.h"
#include "transfer/transfer_job.h"

namespace qvx {

using namespace dnd;

namespace {

constexpr int kDirFlags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;
// Folders of a walk that stay open below the deepest: enough for ordinary trees, few
// enough to leave room under a small descriptor limit.
constexpr size_t kHeldLevels = 16;
// What a folder adds to the announced bytes.
constexpr uint64_t kFolderBytes = 32;
// The catalog fields the sender reads: node flags, creation, content modification and
// access dates, permissions, Finder information and data sizes.
constexpr FSCatalogInfoBitmap kItemInfoFields = 0x4D62;
static_assert(kItemInfoFields ==
              (kFSCatInfoNodeFlags | kFSCatInfoCreateDate | kFSCatInfoContentMod |
               kFSCatInfoAccessDate | kFSCatInfoPermissions | kFSCatInfoFinderInfo |
               kFSCatInfoDataSizes));
constexpr size_t kLinkBufferStart = 256;
// The status the sender reads when the exchange itself failed.
constexpr uint32_t kNoExchange = 0xFFFFFFFF;

bool is_dot_entry(const char* name) {
    return name[0] == '.' && (name[1] == '\0' || (name[1] == '.' && name[2] == '\0'));
}

// The entries of the folder open as `dirFd`, in readdir order, each followed by a NUL.
// The listing uses a descriptor of its own, closed before returning.
bool list_entries(int dirFd, std::string& entries) {
    entries.clear();
    const int listFd = platform::sys_openat(dirFd, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (listFd == -1) return false;
    DIR* dir = platform::sys_fdopendir(listFd);
    if (!dir) {
        platform::sys_close(listFd);
        return false;
    }
    bool ok = true;
    for (;;) {
        errno = 0;
        const dirent* entry = platform::sys_readdir(dir);
        if (!entry) {
            ok = errno == 0;
            break;
        }
        if (is_dot_entry(entry->d_name)) continue;
        entries.append(entry->d_name, std::strlen(entry->d_name) + 1);
    }
    platform::sys_closedir(dir);
    return ok;
}

// The next entry of a listing, advancing `next`; null after the last.
const char* next_entry(const std::string& entries, size_t& next) {
    if (next >= entries.size()) return nullptr;
    const char* name = entries.data() + next;
    next += std::strlen(name) + 1;
    return name;
}

// Opens the parent of the folder open as `childFd` and checks that it is the folder
// that was left there (`dev`, `ino`): -1 when it cannot be had or was moved meanwhile.
int reopen_parent(int childFd, dev_t dev, ino_t ino) {
    const int fd = platform::sys_openat(childFd, "..", kDirFlags);
    if (fd == -1) return -1;
    struct stat st {};
    if (platform::sys_fstat(fd, &st) != 0 || st.st_dev != dev || st.st_ino != ino) {
        platform::sys_close(fd);
        return -1;
    }
    return fd;
}

bool checked_add(uint64_t& total, uint64_t n) {
    return !__builtin_add_overflow(total, n, &total);
}

// Folders, links and regular files are sent. Anything else (a device, a pipe, a socket)
// has no contents to copy: its size says nothing and reading it may never end.
bool is_sent(mode_t mode) {
    return S_ISDIR(mode) || S_ISLNK(mode) || S_ISREG(mode);
}

// One folder of the counting walk.
struct CountLevel {
    int fd = -1;  // -1 while the walk is deeper and this folder is not held
    dev_t dev = 0;
    ino_t ino = 0;
    std::string entries;
    size_t next = 0;
};

class CountWalk {
  public:
    ~CountWalk() {
        for (CountLevel& level : m_levels)
            if (level.fd != -1) platform::sys_close(level.fd);
    }

    bool run(const std::string& path, uint32_t& items, uint64_t& bytes) {
        struct stat st {};
        if (platform::sys_lstat(path.c_str(), &st) != 0 || !add(st, items, bytes)) return false;
        if (!S_ISDIR(st.st_mode)) return true;
        if (!enter(AT_FDCWD, path.c_str())) return false;
        while (!m_levels.empty()) {
            CountLevel& top = m_levels.back();
            const char* name = next_entry(top.entries, top.next);
            if (!name) {
                if (!leave()) return false;
                continue;
            }
            if (platform::sys_fstatat(top.fd, name, &st, AT_SYMLINK_NOFOLLOW) != 0 ||
                !add(st, items, bytes))
                return false;
            if (S_ISDIR(st.st_mode) && !enter(top.fd, name)) return false;
        }
        return true;
    }

  private:
    static bool add(const struct stat& st, uint32_t& items, uint64_t& bytes) {
        if (!is_sent(st.st_mode)) return true;
        if (items == UINT32_MAX) return false;
        ++items;
        if (S_ISDIR(st.st_mode)) return checked_add(bytes, kFolderBytes);
        if (S_ISLNK(st.st_mode)) return true;
        return checked_add(bytes, static_cast<uint64_t>(st.st_size));
    }

    // Opens and lists the folder `name` inside `dirFd` as the new deepest level.
    bool enter(int dirFd, const char* name) {
        const int fd = platform::sys_openat(dirFd, name, kDirFlags);
        if (fd == -1) return false;
        CountLevel level;
        level.fd = fd;
        struct stat st {};
        const bool ok = platform::sys_fstat(fd, &st) == 0 && list_entries(fd, level.entries);
        level.dev = st.st_dev;
        level.ino = st.st_ino;
        if (m_levels.size() >= kHeldLevels && m_levels.back().fd != -1) {
            platform::sys_close(m_levels.back().fd);
            m_levels.back().fd = -1;
        }
        m_levels.push_back(std::move(level));
        return ok;
    }

    bool leave() {
        const int childFd = m_levels.back().fd;
        m_levels.pop_back();
        bool ok = true;
        if (!m_levels.empty() && m_levels.back().fd == -1) {
            CountLevel& parent = m_levels.back();
            parent.fd = reopen_parent(childFd, parent.dev, parent.ino);
            ok = parent.fd != -1;
        }
        platform::sys_close(childFd);
        return ok;
    }

    std::vector<CountLevel> m_levels;
};

// One folder of the sending walk: what its entries need (a descriptor and a catalog
// reference of the folder, the listing) and what its closing 271 needs.
struct SendLevel {
    int fd = -1;  // -1, and ref empty, while the walk is deeper and this folder not held
    FSRef ref;
    dev_t dev = 0;
    ino_t ino = 0;
    std::string entries;
    size_t next = 0;
    size_t pathLength = 0;  // the folder's path and name are these prefixes of the walk's
    size_t nameUnits = 0;
    ItemInfo info;  // times, attributes and mode; path and name empty
};

// Sends one listed item and everything below it.
class SendWalk {
  public:
    SendWalk(const DnDContext& ctx, uint8_t* buffer) : m_ctx(ctx), m_buffer(buffer) {}
    ~SendWalk() {
        for (SendLevel& level : m_levels)
            if (level.fd != -1) platform::sys_close(level.fd);
    }

    uint32_t run(const std::string& path, size_t nameOffset);

  private:
    enum class Step { Done, Entered, Failed, Skipped };

    Step send_one(int dirFd, const char* atName, FSRef& ref);
    Step send_content(int dirFd, const char* atName, FSRef& ref, const std::string& target);
    Step send_file(int dirFd, const char* atName);
    // The 265 or 770 of the item: the reply's status, or kNoExchange.
    uint32_t announce(const std::string& target);
    bool enter(int dirFd, const char* atName, FSRef& ref);
    bool leave();
    bool rebuild_ref(size_t index);

    uint32_t exchange(size_t size);
    void notice(const Notice& n) {
        SendDialog(m_ctx, n.dialogId, n.code,
                   n.withName ? std::u16string_view(m_item.name) : std::u16string_view());
    }
    Step fail(const Notice& n) {
        notice(n);
        return Step::Failed;
    }
    // Clean-up of a file item whose 266 was accepted: 267 then 270, replies ignored.
    void end_data() {
        init_message(m_buffer, kMessageSize, kCmdDataEnd, m_ctx.workerId);
        exchange(kMessageSize);
    }
    void remove_item() {
        if (build_remove_item(m_buffer, m_ctx.workerId, m_item)) exchange(kMessageSize);
    }

    const DnDContext& m_ctx;
    uint8_t* m_buffer;  // kTransferBufferSize: records are built at its start
    // One reply record for every exchange of the walk; never on the stack.
    std::unique_ptr<uint8_t[]> m_reply{new (std::nothrow) uint8_t[kMessageSize]};
    std::string m_path;     // the current item's full path
    std::u16string m_name;  // and its name on the wire
    std::string m_leaf;     // and its last path component
    ItemInfo m_item;
    std::vector<SendLevel> m_levels;
};

uint32_t SendWalk::exchange(size_t size) {
    std::memset(m_reply.get(), 0, kMessageSize);
    if (!m_ctx.send || !m_ctx.send(m_ctx.communicator, m_buffer, static_cast<uint32_t>(size),
                                   m_reply.get(), kMessageSize))
        return kNoExchange;
    return status(m_reply.get());
}

uint32_t SendWalk::run(const std::string& path, size_t nameOffset) {
    if (!m_reply || nameOffset > path.size()) {
        notice(notice::kFailed);
        return kTransferFailed;
    }
    m_path = path;
    m_leaf = path;
    m_name = Utf8ToUtf16(path.data() + nameOffset, path.size() - nameOffset);
    FSRef ref;
    if (m_name.empty() || QVX_DEPRECATED_CALL(FSPathMakeRefWithOptions(
                              reinterpret_cast<const UInt8*>(path.c_str()),
                              kFSPathMakeRefDoNotFollowLeafSymlink, &ref, nullptr)) != noErr) {
        notice(notice::kFailed);
        return kTransferFailed;
    }
    Step step = send_one(AT_FDCWD, m_leaf.c_str(), ref);
    if (step == Step::Skipped) return kSendSkipped;
    if (step == Step::Failed) return kTransferFailed;

    while (!m_levels.empty()) {
        SendLevel& top = m_levels.back();
        const char* entry = next_entry(top.entries, top.next);
        if (!entry) {
            // The folder's 271 closes it, after everything inside it.
            m_path.resize(top.pathLength);
            m_name.resize(top.nameUnits);
            m_item = std::move(top.info);
            m_item.path = m_path;
            m_item.name = m_name;
            if (!SendEntry(m_ctx, m_item)) return kTransferFailed;
            if (!leave()) {
                notice(notice::kFailed);
                return kTransferFailed;
            }
            continue;
        }
        // Copied: entering a folder may move the levels and their listings.
        m_leaf = entry;
        m_path.resize(top.pathLength);
        m_path += '/';
        m_path += m_leaf;
        m_name.resize(top.nameUnits);
        const std::u16string leafUnits = Utf8ToUtf16(m_leaf);
        if (leafUnits.empty() ||
            QVX_DEPRECATED_CALL(FSMakeFSRefUnicode(
                &top.ref, leafUnits.size(), reinterpret_cast<const UniChar*>(leafUnits.data()),
                kTextEncodingUnknown, &ref)) != noErr) {
            notice(notice::kFailed);
            return kTransferFailed;
        }
        m_name += u'/';
        m_name += leafUnits;
        step = send_one(top.fd, m_leaf.c_str(), ref);
        // An item inside a folder that is skipped fails the folder: the host would hold
        // a folder without it.
        if (step == Step::Failed || step == Step::Skipped) return kTransferFailed;
    }
    return kTransferDone;
}

// One item, from its notice to its 271 (for a folder: to its header; the walk sends its
// entries and then its 271).
SendWalk::Step SendWalk::send_one(int dirFd, const char* atName, FSRef& ref) {
    m_item.path = m_path;
    m_item.name = m_name;
    if (!read_item_info(m_item, ref)) return fail(notice::kFailed);
    // Not counted, not announced: the host only hears that it could not be read.
    if (!is_sent(m_item.mode)) {
        notice(notice::kCannotOpen);
        return Step::Done;
    }
    // The catalog's mode is the item's own: a final link is not followed.
    const bool maybeLink = S_ISLNK(m_item.mode);
    const std::string target = maybeLink ? read_link_target(dirFd, atName) : std::string();

    notice(notice::kItemBegins);
    // A cut name would name another item on the host.
    if (m_item.name.size() > kMaxTextUnits) return fail(notice::kHeaderRefused);

    uint32_t s = announce(target);
    if (s == kNoExchange) return Step::Failed;
    if (s == kStatusExists) {
        const uint32_t answer =
            SendDialog(m_ctx, notice::kItemExists.dialogId, notice::kItemExists.code, m_item.name);
        if (answer == kStatusSkip) return Step::Skipped;
        if (answer != kStatusReplace) return Step::Failed;
        // SendEntryName sends the notice (4, 6, name) for a refusal of its own.
        if (!SendEntryName(m_ctx, m_item, true)) return Step::Failed;
        s = announce(target);
        if (s != kStatusSuccess) return fail(notice::kHeaderRefused);
    } else if (is_quiet_stop(s)) {
        return Step::Failed;
    } else if (s != kStatusSuccess) {
        return fail(notice::kHeaderRefused);
    }
    return send_content(dirFd, atName, ref, target);
}

uint32_t SendWalk::announce(const std::string& target) {
    if (!target.empty()) {
        const uint32_t s = SendLinkTarget(m_ctx, m_item, target);
        return s == kStatusStopAlso ? kStatusStop : s;
    }
    if (!build_item_header(m_buffer, m_ctx.workerId, m_item)) return kNoExchange;
    const uint32_t s = exchange(kMessageSize);
    return is_quiet_stop(s) ? kNoExchange : s;
}

SendWalk::Step SendWalk::send_content(int dirFd, const char* atName, FSRef& ref,
                                      const std::string& target) {
    if (target.empty() && S_ISDIR(m_item.mode)) {
        // A folder that cannot be listed fails without a notice of its own.
        return enter(dirFd, atName, ref) ? Step::Entered : Step::Failed;
    }
    if (target.empty()) {
        const Step step = send_file(dirFd, atName);
        if (step != Step::Done) return step;
    }
    return SendEntry(m_ctx, m_item) ? Step::Done : Step::Failed;
}

SendWalk::Step SendWalk::send_file(int dirFd, const char* atName) {
    if (!build_data_begin(m_buffer, m_ctx.workerId, m_item, 1)) return fail(notice::kFailed);
    const uint32_t begun = exchange(kMessageSize);
    if (begun == kNoExchange || is_quiet_stop(begun)) {
        remove_item();
        return Step::Failed;
    }
    if (begun != kStatusSuccess) {
        notice(notice::kCannotOpen);
        remove_item();
        return Step::Failed;
    }

    CHostFile file;
    struct stat st {};
    // What was a regular file when its information was read may be something else now.
    if (!file.open_at(dirFd, atName, true, true, false) ||
        platform::sys_fstat(file.fd(), &st) != 0 || !S_ISREG(st.st_mode)) {
        notice(notice::kCannotOpen);
        file.close();
        end_data();
        remove_item();
        return Step::Failed;
    }
    // Just opened, the file is read from its start. The size at opening: a file that grows
    // meanwhile is sent up to it.
    const auto total = static_cast<uint64_t>(st.st_size);
    uint64_t sent = 0;
    for (;;) {
        const auto n = static_cast<uint32_t>(std::min<uint64_t>(total - sent, kMaxChunk));
        if (n == 0 ||
            file.transfer_all(&CHostFile::read_, m_buffer + kOffData, n) != static_cast<int64_t>(n))
            break;
        build_data_chunk_header(m_buffer, m_ctx.workerId, n);
        const uint32_t s = exchange(kMessageSize + n);
        if (s != kStatusSuccess) {
            if (s != kNoExchange && !is_quiet_stop(s)) notice(notice::kChunkRefused);
            file.close();
            end_data();
            remove_item();
            return Step::Failed;
        }
        sent += n;
        notice(notice::kProgress);
    }
    file.close();
    if (sent != total) {
        // Fewer bytes than the size at opening; a file that grew is sent up to that size.
        notice(notice::kShortRead);
        end_data();
        remove_item();
        return Step::Failed;
    }
    init_message(m_buffer, kMessageSize, kCmdDataEnd, m_ctx.workerId);
    const uint32_t ended = exchange(kMessageSize);
    if (ended != kStatusSuccess) {
        if (ended != kNoExchange && !is_quiet_stop(ended)) notice(notice::kFailed);
        remove_item();
        return Step::Failed;
    }
    return Step::Done;
}

// Opens and lists the folder the current item is, as the walk's new deepest level.
bool SendWalk::enter(int dirFd, const char* atName, FSRef& ref) {
    const int fd = platform::sys_openat(dirFd, atName, kDirFlags);
    if (fd == -1) return false;
    SendLevel level;
    struct stat st {};
    if (platform::sys_fstat(fd, &st) != 0 || !list_entries(fd, level.entries)) {
        platform::sys_close(fd);
        return false;
    }
    level.fd = fd;
    level.dev = st.st_dev;
    level.ino = st.st_ino;
    level.ref = std::move(ref);
    level.pathLength = m_path.size();
    level.nameUnits = m_name.size();
    level.info.creationTime = m_item.creationTime;
    level.info.accessTime = m_item.accessTime;
    level.info.modificationTime = m_item.modificationTime;
    level.info.modeValid = m_item.modeValid;
    level.info.mode = m_item.mode;
    level.info.attributes = m_item.attributes;
    level.info.size = m_item.size;
    if (m_levels.size() >= kHeldLevels && m_levels.back().fd != -1) {
        platform::sys_close(m_levels.back().fd);
        m_levels.back().fd = -1;
        m_levels.back().ref = FSRef();
    }
    m_levels.push_back(std::move(level));
    return true;
}

bool SendWalk::leave() {
    const int childFd = m_levels.back().fd;
    m_levels.pop_back();
    bool ok = true;
    if (!m_levels.empty() && m_levels.back().fd == -1) {
        SendLevel& parent = m_levels.back();
        parent.fd = reopen_parent(childFd, parent.dev, parent.ino);
        ok = parent.fd != -1 && rebuild_ref(m_levels.size() - 1);
    }
    platform::sys_close(childFd);
    return ok;
}

// A reference to the folder of level `index`, made again from the deepest level that
// still holds one, one name at a time. The walk's name still begins with the folder's.
bool SendWalk::rebuild_ref(size_t index) {
    size_t from = index;
    while (from > 0 && m_levels[from - 1].fd == -1) --from;
    if (from == 0) return false;
    // Level `from - 1` still holds its reference; make each deeper one from its parent's.
    FSRef current;
    const FSRef* parent = &m_levels[from - 1].ref;
    for (size_t i = from; i <= index; ++i) {
        const size_t start = m_levels[i - 1].nameUnits + 1;
        FSRef next;
        if (QVX_DEPRECATED_CALL(
                FSMakeFSRefUnicode(parent, m_levels[i].nameUnits - start,
                                   reinterpret_cast<const UniChar*>(m_name.data() + start),
                                   kTextEncodingUnknown, &next)) != noErr)
            return false;
        current = std::move(next);
        parent = &current;
    }
    m_levels[index].ref = std::move(current);
    return true;
}

}  // namespace

bool read_item_info(ItemInfo& info, const FSRef& ref) {
    info.attributes = 0;
    FSCatalogInfo catalog{};
    if (QVX_DEPRECATED_CALL(
            FSGetCatalogInfo(&ref, kItemInfoFields, &catalog, nullptr, nullptr, nullptr)) != noErr)
        return false;
    FileInfo finder;
    std::memcpy(&finder, catalog.finderInfo, sizeof finder);
    if (finder.finderFlags & kIsInvisible) info.attributes |= kAttrInvisible;
    if (catalog.nodeFlags & kFSNodeLockedMask) info.attributes |= kAttrLocked;
    const bool folder = (catalog.nodeFlags & kFSNodeIsDirectoryMask) != 0;
    if (folder) info.attributes |= kAttrDirectory;
    info.size = folder ? 0 : catalog.dataLogicalSize;
    info.modeValid = 1;
    info.mode = catalog.permissions.mode;
    info.creationTime = catalog_seconds_to_ticks(catalog.createDate.lowSeconds);
    info.modificationTime = catalog_seconds_to_ticks(catalog.contentModDate.lowSeconds);
    info.accessTime = catalog_seconds_to_ticks(catalog.accessDate.lowSeconds);
    return true;
}

bool read_item_info(ItemInfo& info, const std::string& path) {
    info.path = path;
    info.attributes = 0;
    FSRef ref;
    if (QVX_DEPRECATED_CALL(FSPathMakeRefWithOptions(reinterpret_cast<const UInt8*>(path.c_str()),
                                                     kFSPathMakeRefDoNotFollowLeafSymlink, &ref,
                                                     nullptr)) != noErr)
        return false;
    return read_item_info(info, ref);
}

std::string read_link_target(int dirFd, const char* name) {
    for (size_t size = kLinkBufferStart;; size *= 2) {
        std::string buffer(size + 1, '\0');
        const ssize_t n = platform::sys_readlinkat(dirFd, name, buffer.data(), size);
        if (n < 1) return std::string();
        if (static_cast<size_t>(n) < size) {
            buffer.resize(static_cast<size_t>(n));
            return buffer;
        }
    }
}

std::string read_link_target(const std::string& path) {
    return read_link_target(AT_FDCWD, path.c_str());
}

bool count_tree(const std::string& path, uint32_t& items, uint64_t& bytes) {
    CountWalk walk;
    return walk.run(path, items, bytes);
}

uint32_t send_item(const DnDContext& ctx, const std::string& path, size_t nameOffset,
                   uint8_t* buffer) {
    SendWalk walk(ctx, buffer);
    return walk.run(path, nameOffset);
}

uint32_t send_top_item(const DnDContext& ctx, const std::string& path) {
    std::unique_ptr<uint8_t[]> buffer(new (std::nothrow) uint8_t[kTransferBufferSize]());
    const size_t slash = path.rfind('/');
    if (!buffer || !is_plain_path(path)) {
        SendDialog(ctx, notice::kFailed.dialogId, notice::kFailed.code, {});
        return kTransferFailed;
    }
    return send_item(ctx, path, slash + 1, buffer.get());
}

uint32_t send_tree(const DnDContext& ctx, const std::vector<std::string>& paths) {
    SendDialog(ctx, notice::kPrepare.dialogId, notice::kPrepare.code, {});

    struct Tally {
        uint32_t items = 0;
        uint64_t bytes = 0;
    };
    std::vector<Tally> tallies(paths.size());
    uint32_t items = 0;
    uint64_t bytes = 0;
    for (size_t i = 0; i < paths.size(); ++i) {
        Tally& t = tallies[i];
        // A path through "." or ".." would name its item by a name that is not its own.
        if (!is_plain_path(paths[i]) || !count_tree(paths[i], t.items, t.bytes) ||
            __builtin_add_overflow(items, t.items, &items) || !checked_add(bytes, t.bytes)) {
            SendDialog(ctx, notice::kFailed.dialogId, notice::kFailed.code, {});
            return kTransferFailed;
        }
    }
    const auto topLevel = static_cast<uint32_t>(paths.size());
    if (!SendTransferTotals(ctx, bytes, items, topLevel)) return kTransferFailed;

    for (size_t i = 0; i < paths.size(); ++i) {
        const uint32_t result = send_top_item(ctx, paths[i]);
        if (result == kTransferFailed) return kTransferFailed;
        if (result == kSendSkipped) {
            // The host's progress counts on the lowered totals from here on.
            items -= tallies[i].items;
            bytes -= tallies[i].bytes;
            if (!SendTransferTotals(ctx, bytes, items, topLevel)) return kTransferFailed;
        }
    }
    return kTransferDone;
}

}  // namespace qvx
