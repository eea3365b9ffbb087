// The tree receiver and its free-space check. Every name the host sends is checked and
// split before anything is created, and every item is reached from the destination
// folder's descriptor through folders only: no "..", no link, no path string a host name
// could redirect.
#include "transfer/tree_receiver.h"

#include <CoreServices/CoreServices.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>

#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstring>
#include <memory>
#include <new>

#include "channel/dnd_message.h"
#include "common/deprecated_call.h"
#include "fs/beneath.h"
#include "fs/fs_helpers.h"
#include "fs/host_file.h"
#include "platform/seams/syscalls.h"
#include "text/encoding.h"
#include "transfer/transfer_job.h"

namespace qvx {

using namespace dnd;

namespace {

// What one receive works with.
struct Receive {
    const DnDContext& ctx;
    const std::string& destination;
    int root;         // the destination folder, open for the whole receive
    uint8_t* buffer;  // kTransferBufferSize bytes
    uint64_t budget;  // data bytes the host may still send, of those it announced
    // The destination as a catalog reference, and the last folder reached from it (items
    // of one folder come one after another), so that an item's reference is made one name
    // at a time from the destination, never from a path string.
    FSRef destRef;
    std::string refFolder;  // relative name of `refFolderRef`; empty: the destination
    FSRef refFolderRef;
    bool refFolderValid = false;
    FSVolumeRefNum volume = 0;  // the destination's, which every item created is on
    // The folder the last item went into, reached beneath the destination: the items of a
    // folder come one after another. Only ever a folder this receive made, or reached as
    // it was then; nothing is resolved through it again.
    std::string parentFolder;
    UniqueFd parentFd;
    unsigned pid = 0;  // in the temporary names
};

// A file or link is made under a temporary name in its folder and takes its own name only
// once whole, so that a receive cut short, even by SIGKILL or a power loss, leaves no
// partial item under a name the host sent. The name is hidden, says whose it is and is of
// one short length whatever the item's own name: ".qvxdragdrop-<pid>-<n>.part". Unique
// within the process by its counter; creation with O_EXCL (or a link's EEXIST) moves on to
// the next number when another process left one of the same name.
//
// What a killed receive leaves are such temporaries, and a later receive leaves them be:
// a name of this form is no proof that the file is ours and abandoned (another receive, in
// this process or another, may be writing it right now, and anyone may name a file so), and
// a mark that would prove it costs a call on every file and outlives the rename.
constexpr char kTempPrefix[] = ".qvxdragdrop-";
constexpr size_t kTempNameSize = 48;
constexpr int kTempTries = 16;
std::atomic<uint64_t> g_tempCounter{0};

// What the link target query found.
enum class Link { None, Target, Unusable };

// The item being received.
struct Item {
    ItemInfo info;  // from the 272 reply; info.path names the item, it is never opened
    ItemName name;
    Link link = Link::None;
    std::string linkTarget;  // with Link::Target
    // The folder that holds the item, reached beneath the destination: the destination's
    // own descriptor, one of our own, or -1 when it cannot be reached (parentError says why,
    // and creating the item fails with it).
    int parent = -1;
    int parentError = 0;
    // Why the item cannot be created at all, as an errno (0: nothing known against it).
    int refusal = 0;
    // The host agreed to replace what the name holds: the new item takes its place once
    // whole, and the old one goes then.
    bool replacing = false;
    // What was created, so that nothing else is changed or removed under its name later.
    bool created = false;
    dev_t dev = 0;
    ino_t ino = 0;
};

// The item under its temporary name, until it is put in place; removed (when it still is
// what was made) if it never is, whatever ends the item.
struct Staged {
    int dir = -1;
    char name[kTempNameSize] = "";
    bool folder = false;
    // What was made, once known. Before that only this receive, a moment ago, can have put
    // anything under the name.
    bool known = false;
    dev_t dev = 0;
    ino_t ino = 0;

    Staged() = default;
    Staged(const Staged&) = delete;
    Staged& operator=(const Staged&) = delete;
    ~Staged() { discard(); }
    bool held() const { return name[0] != '\0'; }
    void next_name(const Receive& rx) {
        std::snprintf(name, sizeof name, "%s%x-%llx.part", kTempPrefix, rx.pid,
                      static_cast<unsigned long long>(g_tempCounter.fetch_add(1)));
    }
    void made(const Item& item) {
        known = true;
        dev = item.dev;
        ino = item.ino;
    }
    void discard() {
        if (!held()) return;
        struct stat st {};
        if (!known || (platform::sys_fstatat(dir, name, &st, AT_SYMLINK_NOFOLLOW) == 0 &&
                       st.st_dev == dev && st.st_ino == ino)) {
            platform::sys_unlinkat(dir, name, folder ? AT_REMOVEDIR : 0);
        }
        name[0] = '\0';
    }
};

// Answers to the question "does the item's name exist already?".
enum class Existing { Absent, Replace, Skip, Fail };

struct Record {
    uint8_t bytes[kMessageSize];
    uint8_t* data() { return bytes; }
};

// One exchange. The reply's fixed record is cleared first, so that a host writing less
// cannot leave an old status or length to be read. The data area behind it only ever holds
// bytes this host sent, so what a short reply leaves there discloses nothing of the guest.
bool exchange(const Receive& rx, const uint8_t* out, uint8_t* reply, size_t replySize) {
    std::memset(reply, 0, kMessageSize);
    if (!rx.ctx.send) return false;
    return rx.ctx.send(rx.ctx.communicator, out, kMessageSize, reply,
                       static_cast<uint32_t>(replySize));
}

// A notice about the item (or with an empty text); the host's reply status, or
// 0xFFFFFFFF when the exchange failed.
uint32_t notify(const Receive& rx, const Notice& n, const Item* item = nullptr) {
    return SendDialog(rx.ctx, n.dialogId, n.code,
                      n.withName && item ? std::u16string_view(item->info.name) : u"");
}

void notify_failed(const Receive& rx) {
    notify(rx, notice::kFailed);
}

// A header-only request (267, 274); the reply's status, or kStatusStop when the exchange
// failed.
uint32_t send_bare(const Receive& rx, uint32_t command) {
    Record out, reply;
    init_message(out.data(), kMessageSize, command, rx.ctx.workerId);
    return exchange(rx, out.data(), reply.data(), kMessageSize) ? status(reply.data())
                                                                : kStatusStop;
}

// Where a failure to create the item leaves the receive: the host's answer to the c = 3
// notice skips it (102) or stops everything.
uint32_t ask_skip(const Receive& rx, const Notice& n, const Item& item) {
    return notify(rx, n, &item) == kStatusSkip ? kReceiveSkipped : kTransferFailed;
}

void note_identity(Item& item, const struct stat& st) {
    item.created = true;
    item.dev = st.st_dev;
    item.ino = st.st_ino;
}

// Notes what `name` in the item's folder now holds, when it is what was just created (a
// racing process may have put something else there). Without it, nothing is changed or
// removed under the name later.
bool note_created(Item& item, const char* name, mode_t type) {
    struct stat st {};
    if (platform::sys_fstatat(item.parent, name, &st, AT_SYMLINK_NOFOLLOW) != 0 ||
        (st.st_mode & S_IFMT) != type)
        return false;
    note_identity(item, st);
    return true;
}

// True while the item's name still holds what this receive created.
bool still_ours(const Item& item) {
    struct stat st {};
    return item.created && item.parent != -1 &&
           platform::sys_fstatat(item.parent, item.name.leaf(), &st, AT_SYMLINK_NOFOLLOW) == 0 &&
           st.st_dev == item.dev && st.st_ino == item.ino;
}

// Reaches the folder that holds the item; false when it cannot be reached (parentError
// says why). An item that cannot be created reaches none, so that creating it fails as it
// would in a folder that refuses it: with a notice the host may answer with a skip.
bool reach_parent(Receive& rx, Item& item) {
    if (item.refusal != 0) {
        item.parent = -1;
        item.parentError = item.refusal;
        return false;
    }
    const std::string_view folder = item.name.folder();
    if (folder.empty()) {
        item.parent = rx.root;
        return true;
    }
    if (!rx.parentFd || rx.parentFolder != folder) {
        rx.parentFolder.clear();
        rx.parentFd.reset(
            open_beneath(rx.root, std::string(folder).c_str(), platform::kOpenPath | O_DIRECTORY));
        if (!rx.parentFd) {
            item.parent = -1;
            item.parentError = errno;
            return false;
        }
        rx.parentFolder.assign(folder);
    }
    item.parent = rx.parentFd.get();
    return true;
}

// The item's folder may be let go of once its own items come: after them it is reached
// again.
void release_parent(Item& item) {
    item.parent = -1;
}

// 272: 0 an item is ready, 1 no more items at this level, 2 stop.
int next_item(const Receive& rx, Item& item) {
    Record out, reply;
    init_message(out.data(), kMessageSize, kCmdNextItem, rx.ctx.workerId);
    le::put32(out.data(), kOffEntryValue, 0);
    if (!exchange(rx, out.data(), reply.data(), kMessageSize)) return 2;
    const uint32_t st = status(reply.data());
    if (st == kStatusNoMoreItems) return 1;
    if (is_quiet_stop(st)) return 2;
    // An unexpected status, a name field the reader rejects and a name that is no text are
    // all the same to the user: the host sent something this receive cannot use.
    if (st != kStatusSuccess ||
        read_file_entry(reply.data(), kMessageSize, item.info) != ReplyRead::Ok ||
        !parse_item_name(item.info.name, item.name)) {
        notify_failed(rx);
        return 2;
    }
    // The full path is only ever shown, never opened.
    item.info.path = rx.destination;
    if (item.info.path.empty() || item.info.path.back() != '/') item.info.path += '/';
    item.info.path += item.name.relative;
    return 0;
}

// 769, its reply in the transfer buffer: true with item.link set, false when the receive
// must stop. A link whose target cannot be read from the reply (longer than we ask for,
// a length that does not fit, a NUL) is one we cannot create.
bool query_link_target(const Receive& rx, Item& item) {
    Record out;
    init_message(out.data(), kMessageSize, kCmdLinkTarget, rx.ctx.workerId);
    put_name(out.data(), item.info.name);  // read_file_entry let no longer name through
    size_t size = kLinkReplyInitial;
    for (;;) {
        // The guest cannot tell how many bytes the host wrote, and the buffer still holds
        // the last chunk of data: cleared, a length that reaches past the target sent
        // reads NULs, which no target has, instead of old bytes taken for a target.
        std::memset(rx.buffer, 0, size);
        if (!exchange(rx, out.data(), rx.buffer, size)) return false;
        const uint32_t st = status(rx.buffer);
        if (st == kStatusBufferTooSmall) {
            if (size == kLinkReplyLimit) {
                item.link = Link::Unusable;
                return true;
            }
            size = std::min(size * 2, kLinkReplyLimit);
            continue;
        }
        if (is_quiet_stop(st)) return false;
        if (st != kStatusSuccess) return true;
        std::u16string units;
        if (read_link_target(rx.buffer, size, units) != ReplyRead::Ok ||
            units.find(u'\0') != std::u16string::npos) {
            item.link = Link::Unusable;
            return true;
        }
        // No target at all: the item is no link, as with any other status.
        if (units.empty()) return true;
        std::string target;
        // A target that is no text converts to empty, which means "no link": the item is
        // then received as what its attributes say.
        Utf16ToNormalizedUtf8(rx.buffer + kOffData, units.size() * 2, target);
        if (target.empty()) return true;
        // Stored as it came; the receiver never resolves it.
        for (char& c : target) {
            if (c == '\\') c = '/';
        }
        item.link = Link::Target;
        item.linkTarget = std::move(target);
        return true;
    }
}

// The item's name exists already: the host decides between replacing it and skipping the
// new one. A folder replaces a folder or a link, a file or link anything but a folder: the
// old item goes as a folder with everything in it, or by unlink, so that others cannot be
// taken away, and the host hears so at once.
Existing existing_path(Receive& rx, Item& item, bool folder) {
    uint32_t mode = 0;
    if (item.parent == -1 || !CHostFile::get_mode_at(item.parent, item.name.leaf(), &mode)) {
        return Existing::Absent;
    }
    const uint32_t answer = notify(rx, notice::kItemExists, &item);
    if (answer == kStatusSkip) return Existing::Skip;
    if (answer != kStatusReplace) return Existing::Fail;
    const bool removable =
        folder ? CHostFile::is_dir(mode) || CHostFile::is_link(mode) : !CHostFile::is_dir(mode);
    if (removable) {
        item.replacing = true;
        return Existing::Replace;
    }
    notify(rx, notice::kCannotRemove, &item);
    return Existing::Fail;
}

// For a file or a link: kTransferDone once it may be made, else the item's result.
uint32_t check_name(Receive& rx, Item& item) {
    switch (existing_path(rx, item, false)) {
        case Existing::Fail:
            return kTransferFailed;
        case Existing::Skip:
            return kReceiveSkipped;
        case Existing::Absent:
        case Existing::Replace:
            break;
    }
    return kTransferDone;
}

// Puts the whole item, made under its temporary name, in place: under a free name only,
// or in exchange for the old item the host agreed to replace, which then goes (a folder
// with everything in it, anything else by unlink). kTransferDone; when the old item cannot
// be removed, it is put back, (4, 6) reports it and the receive ends; when the name was
// taken meanwhile, the item is one that cannot be created.
uint32_t install(Receive& rx, Item& item, Staged& staged, bool folder) {
    const char* leaf = item.name.leaf();
    if (item.replacing) {
        // A folder remembered by name may lie in the old folder, but not the one it is in.
        if (folder) {
            rx.refFolderValid = false;
            if (item.parent != rx.parentFd.get()) {
                rx.parentFd.reset();
                rx.parentFolder.clear();
            }
        }
        if (platform::sys_rename_exchange(item.parent, staged.name, item.parent, leaf) == 0) {
            const bool removed = folder ? remove_tree_at(item.parent, staged.name)
                                        : CHostFile::unlink_at(item.parent, staged.name);
            if (removed) {
                staged.name[0] = '\0';
                return kTransferDone;
            }
            // What is left of the old item goes back under its name; the new one is let go.
            platform::sys_rename_exchange(item.parent, staged.name, item.parent, leaf);
            notify(rx, notice::kCannotRemove, &item);
            return kTransferFailed;
        }
        // Nothing to exchange with: the old item went meanwhile, and the name is free.
        if (errno != ENOENT) {
            notify(rx, notice::kCannotRemove, &item);
            return kTransferFailed;
        }
    }
    if (platform::sys_rename_noreplace(item.parent, staged.name, item.parent, leaf) == 0) {
        staged.name[0] = '\0';
        return kTransferDone;
    }
    return ask_skip(rx, folder ? notice::kFolderNotCreated : notice::kItemNotCreated, item);
}

uint32_t receive_symlink(Receive& rx, Item& item) {
    if (const uint32_t r = check_name(rx, item); r != kTransferDone) return r;
    Staged staged;
    staged.dir = item.parent;
    for (int tries = 0; item.parent != -1 && tries < kTempTries; ++tries) {
        staged.next_name(rx);
        if (platform::sys_symlinkat(item.linkTarget.c_str(), item.parent, staged.name) == 0) {
            if (!note_created(item, staged.name, S_IFLNK)) break;
            staged.made(item);
            return install(rx, item, staged, false);
        }
        staged.name[0] = '\0';
        if (errno != EEXIST) break;
    }
    return ask_skip(rx, notice::kItemNotCreated, item);
}

// 274: the host leaves the folder's items out of the following 272 replies.
uint32_t skip_folder(const Receive& rx) {
    const uint32_t st = send_bare(rx, kCmd274);
    if (st == kStatusSuccess) return kReceiveSkipped;
    if (!is_quiet_stop(st)) notify_failed(rx);
    return kTransferFailed;
}

uint32_t receive_directory(Receive& rx, Item& item) {
    if (item.info.attributes & kAttrDoNotCreate) {
        if (notify(rx, notice::kItemNotCreated, &item) != kStatusSkip) return kTransferFailed;
        return skip_folder(rx);
    }
    switch (existing_path(rx, item, true)) {
        case Existing::Fail:
            return kTransferFailed;
        case Existing::Skip:
            return skip_folder(rx);
        case Existing::Absent:
        case Existing::Replace:
            break;
    }
    uint32_t result = 0;
    if (item.parent == -1) {
        errno = item.parentError;
        result_from_errno(&result);
    } else if (!item.replacing) {
        // A new folder is whole as soon as it exists: it is made under its own name.
        if (make_directory_at(item.parent, item.name.leaf(), &result)) {
            note_created(item, item.name.leaf(), S_IFDIR);
            return kTransferDone;
        }
    } else {
        // In place of an old folder: made beside it under a temporary name, exchanged for
        // it, and the old one then removed from there.
        Staged staged;
        staged.dir = item.parent;
        staged.folder = true;
        for (int tries = 0; tries < kTempTries; ++tries) {
            staged.next_name(rx);
            if (make_directory_at(item.parent, staged.name, &result)) break;
            staged.name[0] = '\0';
            if (errno != EEXIST) break;
        }
        if (staged.held() && note_created(item, staged.name, S_IFDIR)) {
            staged.made(item);
            const uint32_t r = install(rx, item, staged, true);
            return r == kReceiveSkipped ? skip_folder(rx) : r;
        }
    }
    if (result == kResultAccessDenied) {
        notify(rx, notice::kAccessDenied, &item);
        return kTransferFailed;
    }
    if (notify(rx, notice::kFolderNotCreated, &item) != kStatusSkip) return kTransferFailed;
    return skip_folder(rx);
}

// Pulls the file's data chunk by chunk into the transfer buffer and writes each from there.
uint32_t receive_data(const Receive& rx, Item& item, CHostFile& file) {
    uint64_t remaining = item.info.size;
    while (remaining > 0) {
        const auto chunk = static_cast<uint32_t>(std::min<uint64_t>(remaining, kMaxChunk));
        Record out;
        init_message(out.data(), kMessageSize, kCmdReadData, rx.ctx.workerId);
        le::put32(out.data(), kOffDataLength, chunk);
        if (!exchange(rx, out.data(), rx.buffer, kMessageSize + chunk)) return kTransferFailed;
        const uint32_t st = status(rx.buffer);
        if (is_quiet_stop(st)) return kTransferFailed;
        if (st != kStatusSuccess) return ask_skip(rx, notice::kDataRequestRefused, item);
        // The reply buffer holds exactly the chunk asked for, so no more can arrive; a
        // reply that says it carries a different amount is not the data asked for.
        const uint32_t claimed = le::get32(rx.buffer, kOffDataLength);
        if (claimed != 0 && claimed != chunk)
            return ask_skip(rx, notice::kDataRequestRefused, item);
        if (file.transfer_all(&CHostFile::write_, rx.buffer + kOffData, chunk) !=
            static_cast<int64_t>(chunk)) {
            return ask_skip(rx, notice::kChunkNotWritten, item);
        }
        notify(rx, notice::kProgress, &item);
        remaining -= chunk;
    }
    return kTransferDone;
}

// The data goes to the device before the file takes its name: after a power loss (a
// guest reset is one to its file system) the name holds either nothing or all of it. On a
// disk this costs about half again the time of writing a small file; in memory, next to
// nothing. An empty file has nothing to lose.
bool flush_data(CHostFile& file, uint64_t size) {
    return size == 0 || platform::sys_fdatasync(file.fd()) == 0;
}

uint32_t receive_file(Receive& rx, Item& item) {
    if (const uint32_t r = check_name(rx, item); r != kTransferDone) return r;
    {
        Record out;
        build_data_begin(out.data(), rx.ctx.workerId, item.info, 0);
        Record reply;
        if (!exchange(rx, out.data(), reply.data(), kMessageSize)) return kTransferFailed;
        const uint32_t st = status(reply.data());
        if (is_quiet_stop(st)) return kTransferFailed;
        if (st != kStatusSuccess) return ask_skip(rx, notice::kItemNotCreated, item);
    }

    uint32_t result = kTransferDone;
    CHostFile file;
    Staged staged;
    staged.dir = item.parent;
    uint32_t openResult = 0;
    bool opened = false;
    if (item.info.size > rx.budget) {
        // More data than the host announced, and so more than the room checked for.
        errno = EFBIG;
        result_from_errno(&openResult);
    } else if (item.parent == -1) {
        errno = item.parentError;
        result_from_errno(&openResult);
    } else {
        for (int tries = 0; !opened && tries < kTempTries; ++tries) {
            staged.next_name(rx);
            opened = file.open_at(item.parent, staged.name, false, false, false, &openResult);
            if (!opened && errno != EEXIST) break;
        }
        if (!opened) staged.name[0] = '\0';
    }
    if (!opened) {
        if (openResult == kResultAccessDenied) {
            notify(rx, notice::kAccessDenied, &item);
            result = kTransferFailed;
        } else {
            result = ask_skip(rx, notice::kItemNotCreated, item);
        }
    } else {
        rx.budget -= item.info.size;
        struct stat st {};
        if (platform::sys_fstat(file.fd(), &st) == 0) {
            note_identity(item, st);
            staged.made(item);
        }
        // A new file is at position 0. Whatever ends its data early, out of memory
        // included, takes it along with `staged`.
        result = receive_data(rx, item, file);
        if (result == kTransferDone && !flush_data(file, item.info.size)) {
            result = ask_skip(rx, notice::kChunkNotWritten, item);
        }
        file.close();
        if (result == kTransferDone) result = install(rx, item, staged, false);
    }

    if (result != kTransferDone) {
        send_bare(rx, kCmdDataEnd);
        return result;
    }
    const uint32_t st = send_bare(rx, kCmdDataEnd);
    if (st == kStatusSuccess) return kTransferDone;
    if (!is_quiet_stop(st)) notify_failed(rx);
    return kTransferFailed;
}

// The catalog reference of the folder `relative` (empty: the destination), reached from
// the destination one name at a time: the catalog never follows a final link nor goes
// through anything but a folder, so no link leads the reference elsewhere.
const FSRef* folder_ref(Receive& rx, std::string_view relative) {
    if (relative.empty()) return &rx.destRef;
    if (rx.refFolderValid && rx.refFolder == relative) return &rx.refFolderRef;
    rx.refFolderValid = false;
    FSRef current;
    const FSRef* parent = &rx.destRef;
    size_t at = 0;
    for (;;) {
        const size_t slash = relative.find('/', at);
        const std::string_view component = relative.substr(at, slash - at);
        const std::u16string units = Utf8ToUtf16(component.data(), component.size());
        FSRef next;
        if (units.empty() ||
            QVX_DEPRECATED_CALL(FSMakeFSRefUnicode(parent, units.size(),
                                                   reinterpret_cast<const UniChar*>(units.data()),
                                                   kTextEncodingUnknown, &next)) != noErr) {
            return nullptr;
        }
        current = std::move(next);
        parent = &current;
        if (slash == std::string_view::npos) break;
        at = slash + 1;
    }
    rx.refFolder.assign(relative);
    rx.refFolderRef = std::move(current);
    rx.refFolderValid = true;
    return &rx.refFolderRef;
}

UTCDateTime catalog_date(uint64_t ticks) {
    // The catalog holds 48 bits of seconds since 1904.
    const uint64_t seconds = ticks_to_catalog_seconds(ticks);
    UTCDateTime date{};
    date.highSeconds = static_cast<UInt16>(seconds >> 32);
    date.lowSeconds = static_cast<UInt32>(seconds);
    date.fraction = 0;
    return date;
}

// Times, permissions and the lock flag of a received item, only on what this receive
// created and the item's name still holds, and never through a link. The lock comes last:
// a locked item would refuse the rest.
bool apply_item_info(Receive& rx, Item& item) {
    if (item.parent == -1 && !reach_parent(rx, item)) return false;
    if (!still_ours(item)) return false;
    const FSRef* folder = folder_ref(rx, item.name.folder());
    const std::u16string leaf = Utf8ToUtf16(item.name.leaf(), std::strlen(item.name.leaf()));
    FSRef ref;
    if (!folder || leaf.empty() ||
        QVX_DEPRECATED_CALL(FSMakeFSRefUnicode(folder, leaf.size(),
                                               reinterpret_cast<const UniChar*>(leaf.data()),
                                               kTextEncodingUnknown, &ref)) != noErr) {
        return false;
    }
    const bool locked = item.info.attributes & kAttrLocked;
    FSCatalogInfoBitmap which = kFSCatInfoCreateDate | kFSCatInfoContentMod | kFSCatInfoAccessDate;
    if (item.info.modeValid != 0) which |= kFSCatInfoPermissions;
    // Read is only what is written back unchanged (the owner beside the mode, the flags
    // beside the lock) and what identifies the item: the dates are all replaced, and the
    // Finder information, which the host does not send, is left as it is.
    FSCatalogInfo info{};
    if (QVX_DEPRECATED_CALL(FSGetCatalogInfo(&ref,
                                             (which & kFSCatInfoPermissions) | kFSCatInfoNodeID |
                                                 kFSCatInfoVolume |
                                                 (locked ? kFSCatInfoNodeFlags : 0),
                                             &info, nullptr, nullptr, nullptr)) != noErr) {
        return false;
    }
    // The reference must be to the item created, as its name showed a moment ago. The
    // catalog tells the node in 32 bits only; with the volume, an item swapped in between
    // would have to share those 32 bits with ours on the same volume.
    if (info.nodeID != static_cast<UInt32>(item.ino) || info.volume != rx.volume) return false;

    info.createDate = catalog_date(item.info.creationTime);
    info.contentModDate = catalog_date(item.info.modificationTime);
    info.accessDate = catalog_date(item.info.accessTime);
    // The host's set-user-ID and set-group-ID bits are dropped: a host must not be able to
    // plant a program that runs with the rights of whoever owns the received copy.
    if (item.info.modeValid != 0) {
        info.permissions.mode = item.info.mode & ~static_cast<uint16_t>(S_ISUID | S_ISGID);
    }
    // The catalog sets the access and modification times too, on the item the reference
    // holds; setting them again by name would reach whatever the name holds by then.
    if (QVX_DEPRECATED_CALL(FSSetCatalogInfo(&ref, which, &info)) != noErr) return false;
    if (!locked) return true;
    info.nodeFlags |= kFSNodeLockedMask;
    return QVX_DEPRECATED_CALL(FSSetCatalogInfo(&ref, kFSCatInfoNodeFlags, &info)) == noErr;
}

uint32_t receive_level(Receive& rx, uint32_t level) {
    for (;;) {
        Item item;
        const int next = next_item(rx, item);
        if (next == 1) return kTransferDone;
        if (next == 2) return kTransferFailed;
        notify(rx, notice::kItemBegins, &item);
        if (!query_link_target(rx, item)) return kTransferFailed;
        const bool folder = item.link == Link::None && (item.info.attributes & kAttrDirectory);
        item.refusal = item.name.refusal;
        if (item.link == Link::Unusable) item.refusal = EINVAL;
        if (folder && level >= kMaxLevels) item.refusal = ENAMETOOLONG;
        reach_parent(rx, item);

        uint32_t result = 0;
        if (item.link != Link::None) {
            result = receive_symlink(rx, item);
        } else if (folder) {
            result = receive_directory(rx, item);
        } else {
            result = receive_file(rx, item);
        }
        if (result == kTransferFailed) return kTransferFailed;
        if (result == kReceiveSkipped) continue;
        if (folder) {
            // Item names are relative to the destination, not to the folder. The folder's
            // parent is let go meanwhile, so that the descriptors held stay few at any depth.
            release_parent(item);
            if (receive_level(rx, level + 1) != kTransferDone) return kTransferFailed;
        }
        apply_item_info(rx, item);
    }
}

}  // namespace

bool parse_item_name(std::u16string_view units, ItemName& out) {
    out = ItemName();
    if (units.empty() || units.size() > kMaxTextUnits) return false;
    uint8_t bytes[kNameBytes];
    for (size_t i = 0; i < units.size(); ++i) {
        // The conversion would stop at a NUL and hand back only the name before it.
        if (units[i] == 0) out.refusal = EINVAL;
        le::put16(bytes + 2 * i, units[i]);
    }
    std::string name;
    Utf16ToNormalizedUtf8(bytes, units.size() * 2, name);
    if (name.empty()) return false;
    if (name.find('\0') != std::string::npos) out.refusal = EINVAL;
    for (char& c : name) {
        if (c == '\\') c = '/';
    }
    const size_t start = name.front() == '/' ? 1 : 0;
    size_t at = start;
    for (;;) {
        const size_t slash = name.find('/', at);
        const std::string_view component =
            std::string_view(name).substr(at, slash == std::string::npos ? slash : slash - at);
        if (component.empty() || component == "." || component == "..") {
            out.refusal = EINVAL;
        } else if (component.size() > kMaxComponentBytes && out.refusal == 0) {
            out.refusal = ENAMETOOLONG;
        }
        if (slash == std::string::npos) break;
        at = slash + 1;
    }
    out.relative = name.substr(start);
    out.leafAt = at - start;
    return true;
}

uint32_t receive_tree(const DnDContext& ctx, const std::string& destination, int root,
                      uint64_t announced) {
    std::unique_ptr<uint8_t[]> buffer(new (std::nothrow) uint8_t[kTransferBufferSize]());
    Receive rx{ctx, destination, root, buffer.get(), announced, {}, {}, {}, false, 0, {}, {}, 0};
    rx.pid = static_cast<unsigned>(::getpid());
    // The catalog's reference to the same folder: "/." lets a link in the destination's own
    // path be followed, as opening it did, and the node number shows it is the same one.
    struct stat rootStat {};
    FSCatalogInfo rootInfo{};
    const bool ready =
        root != -1 && buffer && platform::sys_fstat(root, &rootStat) == 0 &&
        QVX_DEPRECATED_CALL(FSPathMakeRefWithOptions(
            reinterpret_cast<const UInt8*>((destination + "/.").c_str()),
            kFSPathMakeRefDoNotFollowLeafSymlink, &rx.destRef, nullptr)) == noErr &&
        QVX_DEPRECATED_CALL(FSGetCatalogInfo(&rx.destRef, kFSCatInfoNodeID | kFSCatInfoVolume,
                                             &rootInfo, nullptr, nullptr, nullptr)) == noErr &&
        rootInfo.nodeID == static_cast<UInt32>(rootStat.st_ino);
    if (!ready) {
        SendDialog(ctx, notice::kFailed.dialogId, notice::kFailed.code, u"");
        return kTransferFailed;
    }
    rx.volume = rootInfo.volume;
    return receive_level(rx, 1);
}

uint32_t receive_tree(const DnDContext& ctx, const std::string& destination) {
    const UniqueFd root(platform::sys_open(
        destination.c_str(), platform::kOpenPath | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    return receive_tree(ctx, destination, root.get(), UINT64_MAX);
}

bool get_free_space_at(int folderFd, uint64_t* freeBytes) {
    struct statvfs vfs {};
    if (folderFd == -1 || platform::sys_fstatvfs(folderFd, &vfs) != 0) return false;
    // Every free block, those kept for the superuser included. A product that does not fit
    // 64 bits is more than any transfer can announce.
    uint64_t bytes = 0;
    if (__builtin_mul_overflow(static_cast<uint64_t>(vfs.f_bfree),
                               static_cast<uint64_t>(vfs.f_bsize), &bytes)) {
        bytes = UINT64_MAX;
    }
    *freeBytes = bytes;
    return true;
}

bool get_free_space(const std::string& folder, uint64_t* freeBytes) {
    const UniqueFd fd(platform::sys_open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    return get_free_space_at(fd.get(), freeBytes);
}

bool check_free_space_at(const DnDContext& ctx, int folderFd, uint64_t needed, uint8_t report) {
    uint64_t freeBytes = 0;
    if (!get_free_space_at(folderFd, &freeBytes)) {
        if (report == 1) {
            SendDialog(ctx, notice::kSpaceUnknown.dialogId, notice::kSpaceUnknown.code, u"");
        }
        return false;
    }
    if (freeBytes > needed) return true;
    if (report == 1) SendDialog(ctx, notice::kNoSpace.dialogId, notice::kNoSpace.code, u"");
    return false;
}

bool check_free_space(const DnDContext& ctx, const std::string& destination, uint64_t needed,
                      uint8_t report) {
    const UniqueFd fd(platform::sys_open(destination.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    return check_free_space_at(ctx, fd.get(), needed, report);
}

}  // namespace qvx
