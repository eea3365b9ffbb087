// The file manager's references and catalog information on Linux: POSIX metadata, plus
// user.quorvex.* extended attributes for what Linux does not keep.
#include <CoreServices/CoreServices.h>
#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "common/byte_order.h"
#include "platform/seams/syscalls.h"

namespace platform {

struct FSRefAccess {
    static int fd(const FSRef& ref) { return ref.m_fd; }
    static UInt32 format(const FSRef& ref) { return ref.m_format; }
    static bool opened(const FSRef& ref) { return ref.m_opened; }
    // Hands `fd` to `ref`, releasing what it held before.
    static void assign(FSRef& ref, int fd, UInt32 format, bool opened) {
        FSRef made;
        made.m_fd = fd;
        made.m_format = format;
        made.m_opened = opened;
        ref = std::move(made);
    }
};

}  // namespace platform

FSRef::FSRef(FSRef&& other) noexcept
    : m_fd(std::exchange(other.m_fd, -1)),
      m_format(std::exchange(other.m_format, 0)),
      m_opened(std::exchange(other.m_opened, false)) {}

FSRef& FSRef::operator=(FSRef&& other) noexcept {
    if (this != &other) {
        if (m_fd >= 0) platform::sys_close(m_fd);
        m_fd = std::exchange(other.m_fd, -1);
        m_format = std::exchange(other.m_format, 0);
        m_opened = std::exchange(other.m_opened, false);
    }
    return *this;
}

FSRef::~FSRef() {
    if (m_fd >= 0) platform::sys_close(m_fd);
}

namespace {

using platform::FSRefAccess;
namespace le = qvx::le;

constexpr char kCreateTimeName[] = "user.quorvex.crtime";        // u64 LE, seconds since 1904
constexpr char kFinderFlagsName[] = "user.quorvex.finderflags";  // u16 LE
constexpr char kNodeFlagsName[] = "user.quorvex.nodeflags";      // u16 LE, bit 0 locked

constexpr FSCatalogInfoBitmap kSettable = kFSCatInfoNodeFlags | kFSCatInfoCreateDate |
                                          kFSCatInfoContentMod | kFSCatInfoAccessDate |
                                          kFSCatInfoPermissions | kFSCatInfoFinderInfo;
constexpr FSCatalogInfoBitmap kGettable =
    kSettable | kFSCatInfoVolume | kFSCatInfoNodeID | kFSCatInfoDataSizes;

constexpr int64_t kSeconds1904To1970 = 2'082'844'800;
constexpr uint64_t kMaxDateSeconds = (uint64_t{1} << 48) - 1;
constexpr uint64_t kNanosecondsPerSecond = 1'000'000'000;
constexpr UniCharCount kMaxNameUnits = 255;

OSErr from_errno(int error) {
    switch (error) {
        case ENOENT:
            return fnfErr;
        case ENOTDIR:
            return dirNFErr;
        case EACCES:
            return afpAccessDenied;
        case EPERM:
            return permErr;
        case EINVAL:
            return paramErr;
        case ENAMETOOLONG:
            return bdNamErr;
        case EMFILE:
        case ENFILE:
            return tmfoErr;
        case ENOMEM:
            return memFullErr;
        case EROFS:
            return wPrErr;
        case ENOSPC:
        case EDQUOT:
            return dskFulErr;
        default:
            return ioErr;
    }
}

// Where the attribute calls reach an object. A descriptor open for reading takes them
// itself. An O_PATH one does not, but its /proc/self/fd entry leads to the object itself:
// following that entry goes no further, so a reference to a link reaches the link and never
// its target. The entry costs a path walk through /proc on every call, more than the rest
// of a catalog call, which is why references to files and folders hold a readable one.
class ObjectAccess {
  public:
    ObjectAccess(int fd, bool opened) : m_fd(fd), m_opened(opened) {
        std::snprintf(m_text, sizeof m_text, "/proc/self/fd/%d", fd);
    }
    const char* c_str() const { return m_text; }
    ssize_t get(const char* name, void* value, size_t size) const {
        return m_opened ? platform::sys_fgetxattr(m_fd, name, value, size)
                        : platform::sys_getxattr(m_text, name, value, size);
    }
    int set(const char* name, const void* value, size_t size) const {
        return m_opened ? platform::sys_fsetxattr(m_fd, name, value, size, 0)
                        : platform::sys_setxattr(m_text, name, value, size, 0);
    }
    int remove(const char* name) const {
        return m_opened ? platform::sys_fremovexattr(m_fd, name)
                        : platform::sys_removexattr(m_text, name);
    }
    ssize_t list(char* names, size_t size) const {
        return m_opened ? platform::sys_flistxattr(m_fd, names, size)
                        : platform::sys_listxattr(m_text, names, size);
    }

  private:
    int m_fd;
    bool m_opened;
    char m_text[32];
};

// Calls `call` on the object itself (AT_EMPTY_PATH on its descriptor, which is cheap),
// or through its /proc entry where the kernel takes no empty path for the call.
template <typename Call>
bool by_descriptor(int fd, const ObjectAccess& path, Call call) {
    if (call(fd, "", AT_EMPTY_PATH) == 0) return true;
    if (errno != EINVAL && errno != ENOSYS) return false;
    return call(AT_FDCWD, path.c_str(), 0) == 0;
}

// Linux keeps user attributes only on regular files and folders.
bool holds_attributes(UInt32 format) {
    return format == S_IFREG || format == S_IFDIR;
}

// Reads an attribute of exactly `size` bytes. One that is absent, of another size, or on
// a file system without user attributes leaves *present false; another failure returns
// false with errno set.
bool get_attribute(const ObjectAccess& path, const char* name, uint8_t* value, size_t size,
                   bool* present) {
    *present = false;
    const ssize_t n = path.get(name, value, size);
    if (n >= 0) {
        *present = static_cast<size_t>(n) == size;
        return true;
    }
    return errno == ENODATA || errno == EOPNOTSUPP || errno == ERANGE;
}

// Stores an attribute; a file system without user attributes skips it. A flags word of
// zero is stored as no attribute, so items that never had flags carry none.
bool put_attribute(const ObjectAccess& path, const char* name, const uint8_t* value, size_t size,
                   bool zeroIsAbsent) {
    if (zeroIsAbsent && std::all_of(value, value + size, [](uint8_t b) { return b == 0; })) {
        if (path.remove(name) == 0) return true;
        return errno == ENODATA || errno == EOPNOTSUPP;
    }
    if (path.set(name, value, size) == 0) return true;
    return errno == EOPNOTSUPP;
}

// Which of our attributes an object has. Most items have none, so when several are wanted
// one listing saves asking for each; a name not listed is absent.
class AttributeNames {
  public:
    // Lists the object's attributes; false (errno set) when that failed in a way a read of
    // each would have failed too.
    bool list(const ObjectAccess& path) {
        const ssize_t n = path.list(m_names, sizeof m_names);
        if (n >= 0) {
            m_listed = true;
            m_size = static_cast<size_t>(n);
            return true;
        }
        // A long list is read name by name; a file system without user attributes has none.
        if (errno == ERANGE) return true;
        if (errno == EOPNOTSUPP) {
            m_listed = true;
            m_size = 0;
            return true;
        }
        return false;
    }
    // False only when the listing shows the attribute is absent.
    bool may_hold(const char* name) const {
        if (!m_listed) return true;
        const size_t length = std::strlen(name) + 1;
        for (size_t at = 0; at < m_size;) {
            const char* entry = m_names + at;
            const size_t entryLength = strnlen(entry, m_size - at) + 1;
            if (entryLength == length && std::memcmp(entry, name, length) == 0) return true;
            at += entryLength;
        }
        return false;
    }

  private:
    char m_names[1024];
    size_t m_size = 0;
    bool m_listed = false;  // false: not listed, every attribute may be there
};

// Reads an attribute the listing may show; an absent one reads as not present.
bool get_listed(const ObjectAccess& path, const AttributeNames& names, const char* name,
                uint8_t* value, size_t size, bool* present) {
    *present = false;
    return !names.may_hold(name) || get_attribute(path, name, value, size, present);
}

// A flags word kept in an attribute; 0 where there is none.
bool get_flags(const ObjectAccess& path, const AttributeNames& names, bool kept, const char* name,
               UInt16* flags) {
    uint8_t raw[2];
    bool present = false;
    if (kept && !get_listed(path, names, name, raw, sizeof raw, &present)) return false;
    *flags = present ? le::get16(raw) : 0;
    return true;
}

bool put_flags(const ObjectAccess& path, const char* name, UInt16 flags) {
    uint8_t raw[2];
    le::put16(raw, flags);
    return put_attribute(path, name, raw, sizeof raw, true);
}

UTCDateTime date_from_1904(uint64_t seconds, uint32_t nanoseconds) {
    seconds = std::min(seconds, kMaxDateSeconds);
    UTCDateTime date;
    date.highSeconds = static_cast<UInt16>(seconds >> 32);
    date.lowSeconds = static_cast<UInt32>(seconds);
    date.fraction = static_cast<UInt16>(nanoseconds * uint64_t{65536} / kNanosecondsPerSecond);
    return date;
}

// Times before 1904 read as 1904 itself, the earliest a catalog date can say.
UTCDateTime date_from_unix(const struct statx_timestamp& t) {
    if (t.tv_sec < -kSeconds1904To1970) return date_from_1904(0, 0);
    if (t.tv_sec > static_cast<int64_t>(kMaxDateSeconds) - kSeconds1904To1970)
        return date_from_1904(kMaxDateSeconds, 0);
    return date_from_1904(static_cast<uint64_t>(t.tv_sec + kSeconds1904To1970), t.tv_nsec);
}

uint64_t seconds_1904(const UTCDateTime& date) {
    return uint64_t{date.highSeconds} << 32 | date.lowSeconds;
}

struct timespec unix_from_date(const UTCDateTime& date) {
    struct timespec t {};
    t.tv_sec = static_cast<time_t>(static_cast<int64_t>(seconds_1904(date)) - kSeconds1904To1970);
    // Rounded up, so that reading the time back gives the same fraction.
    t.tv_nsec =
        static_cast<long>((uint64_t{date.fraction} * kNanosecondsPerSecond + 65535) / 65536);
    return t;
}

// Volume reference numbers are small negatives, handed out as devices are first seen.
FSVolumeRefNum volume_number(uint32_t major, uint32_t minor) {
    constexpr int kFirst = -100;
    constexpr size_t kMaxVolumes = 32000;
    static std::mutex lock;
    static std::vector<uint64_t> seen;
    const uint64_t device = uint64_t{major} << 32 | minor;
    const std::lock_guard<std::mutex> hold(lock);
    size_t i = static_cast<size_t>(std::find(seen.begin(), seen.end(), device) - seen.begin());
    if (i == seen.size()) {
        if (seen.size() == kMaxVolumes) return kFSInvalidVolumeRefNum;
        seen.push_back(device);
    }
    return static_cast<FSVolumeRefNum>(kFirst - static_cast<int>(i));
}

// Failures of the open for reading after which the reference is still made, as an O_PATH
// one: no read permission, a lease that would hold the open, or a name that no longer
// holds what it held a moment before.
bool named_instead(int error) {
    switch (error) {
        case EACCES:
        case EPERM:
        case EAGAIN:
        case ELOOP:
        case ENOTDIR:
        case ENXIO:
        case ENOENT:
            return true;
        default:
            return false;
    }
}

bool same_object(const struct statx& a, const struct statx& b) {
    return (a.stx_mode & S_IFMT) == (b.stx_mode & S_IFMT) && a.stx_ino == b.stx_ino &&
           a.stx_dev_major == b.stx_dev_major && a.stx_dev_minor == b.stx_dev_minor;
}

// Opens `name` under `dirFd` as a reference, never following a final link. A regular file
// or folder is opened for reading, so that attribute calls take its descriptor; anything
// else (a link, a device, a pipe) is never opened, only named with O_PATH. The type comes
// from the name first, and a descriptor that is not that same object (the name changed in
// between) is let go for one named afresh.
OSErr open_ref(int dirFd, const char* name, FSRef* ref, Boolean* isDirectory) {
    constexpr unsigned kIdentity = STATX_TYPE | STATX_INO;
    struct statx named {};
    if (platform::sys_statx(dirFd, name, AT_SYMLINK_NOFOLLOW, kIdentity, &named) != 0)
        return from_errno(errno);
    UInt32 format = named.stx_mode & S_IFMT;
    if (holds_attributes(format)) {
        const int flags = O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC |
                          (format == S_IFDIR ? O_DIRECTORY : 0);
        const int fd = platform::sys_openat(dirFd, name, flags);
        if (fd < 0 && !named_instead(errno)) return from_errno(errno);
        if (fd >= 0) {
            struct statx opened {};
            if (platform::sys_statx(fd, "", AT_EMPTY_PATH, kIdentity, &opened) != 0) {
                const int error = errno;
                platform::sys_close(fd);
                return from_errno(error);
            }
            if (same_object(named, opened)) {
                FSRefAccess::assign(*ref, fd, format, true);
                if (isDirectory != nullptr) *isDirectory = format == S_IFDIR;
                return noErr;
            }
            platform::sys_close(fd);
        }
    }
    const int fd = platform::sys_openat(dirFd, name, O_PATH | O_NOFOLLOW | O_CLOEXEC);
    if (fd < 0) return from_errno(errno);
    struct statx sx {};
    if (platform::sys_statx(fd, "", AT_EMPTY_PATH | AT_SYMLINK_NOFOLLOW, STATX_TYPE, &sx) != 0) {
        const int error = errno;
        platform::sys_close(fd);
        return from_errno(error);
    }
    format = sx.stx_mode & S_IFMT;
    FSRefAccess::assign(*ref, fd, format, false);
    if (isDirectory != nullptr) *isDirectory = format == S_IFDIR;
    return noErr;
}

// UTF-16 to UTF-8; false on an unpaired surrogate.
bool utf8_from_utf16(const UniChar* units, size_t count, std::string* out) {
    out->clear();
    for (size_t i = 0; i < count; ++i) {
        uint32_t c = units[i];
        if (c >= 0xDC00 && c <= 0xDFFF) return false;
        if (c >= 0xD800 && c <= 0xDBFF) {
            if (i + 1 == count || units[i + 1] < 0xDC00 || units[i + 1] > 0xDFFF) return false;
            c = 0x10000 + ((c - 0xD800) << 10) + (units[++i] - 0xDC00u);
        }
        if (c < 0x80) {
            out->push_back(static_cast<char>(c));
        } else if (c < 0x800) {
            out->push_back(static_cast<char>(0xC0 | c >> 6));
            out->push_back(static_cast<char>(0x80 | (c & 0x3F)));
        } else if (c < 0x10000) {
            out->push_back(static_cast<char>(0xE0 | c >> 12));
            out->push_back(static_cast<char>(0x80 | (c >> 6 & 0x3F)));
            out->push_back(static_cast<char>(0x80 | (c & 0x3F)));
        } else {
            out->push_back(static_cast<char>(0xF0 | c >> 18));
            out->push_back(static_cast<char>(0x80 | (c >> 12 & 0x3F)));
            out->push_back(static_cast<char>(0x80 | (c >> 6 & 0x3F)));
            out->push_back(static_cast<char>(0x80 | (c & 0x3F)));
        }
    }
    return true;
}

}  // namespace

OSStatus FSPathMakeRefWithOptions(const UInt8* path, OptionBits options, FSRef* ref,
                                  Boolean* isDirectory) {
    if (path == nullptr || ref == nullptr) return paramErr;
    if ((options & ~kFSPathMakeRefDoNotFollowLeafSymlink) != 0) return paramErr;
    return open_ref(AT_FDCWD, reinterpret_cast<const char*>(path), ref, isDirectory);
}

OSErr FSMakeFSRefUnicode(const FSRef* parentRef, UniCharCount nameLength, const UniChar* name,
                         TextEncoding /*textEncodingHint*/, FSRef* newRef) {
    if (parentRef == nullptr || newRef == nullptr || (nameLength > 0 && name == nullptr))
        return paramErr;
    if (FSRefAccess::fd(*parentRef) < 0) return errFSBadFSRef;
    if (FSRefAccess::format(*parentRef) != S_IFDIR) return errFSNotAFolder;
    std::string leaf;
    if (nameLength == 0 || nameLength > kMaxNameUnits ||
        !utf8_from_utf16(name, nameLength, &leaf) || leaf == "." || leaf == ".." ||
        leaf.find_first_of(std::string("/\0", 2)) != std::string::npos)
        return bdNamErr;
    return open_ref(FSRefAccess::fd(*parentRef), leaf.c_str(), newRef, nullptr);
}

OSErr FSGetCatalogInfo(const FSRef* ref, FSCatalogInfoBitmap whichInfo, FSCatalogInfo* catalogInfo,
                       HFSUniStr255* outName, FSSpecPtr fsSpec, FSRef* parentRef) {
    if (ref == nullptr || outName != nullptr || fsSpec != nullptr || parentRef != nullptr ||
        (whichInfo != 0 && catalogInfo == nullptr))
        return paramErr;
    if ((whichInfo & ~kGettable) != 0) return errFSBadInfoBitmap;
    const int fd = FSRefAccess::fd(*ref);
    if (fd < 0) return errFSBadFSRef;
    if (whichInfo == 0) return noErr;

    struct statx sx {};
    if (platform::sys_statx(fd, "", AT_EMPTY_PATH | AT_SYMLINK_NOFOLLOW,
                            STATX_BASIC_STATS | STATX_BTIME, &sx) != 0)
        return from_errno(errno);
    const bool folder = S_ISDIR(sx.stx_mode);
    const bool kept = holds_attributes(sx.stx_mode & S_IFMT);
    const ObjectAccess path(fd, FSRefAccess::opened(*ref));
    FSCatalogInfo& info = *catalogInfo;
    AttributeNames names;
    constexpr FSCatalogInfoBitmap kFromAttributes =
        kFSCatInfoNodeFlags | kFSCatInfoCreateDate | kFSCatInfoFinderInfo;
    if (kept && __builtin_popcount(whichInfo & kFromAttributes) > 1 && !names.list(path))
        return from_errno(errno);

    if (whichInfo & kFSCatInfoNodeFlags) {
        UInt16 flags = 0;
        if (!get_flags(path, names, kept, kNodeFlagsName, &flags)) return from_errno(errno);
        info.nodeFlags = static_cast<UInt16>((flags & kFSNodeLockedMask) |
                                             (folder ? kFSNodeIsDirectoryMask : 0));
    }
    if (whichInfo & kFSCatInfoVolume)
        info.volume = volume_number(sx.stx_dev_major, sx.stx_dev_minor);
    if (whichInfo & kFSCatInfoNodeID) info.nodeID = static_cast<UInt32>(sx.stx_ino);
    if (whichInfo & kFSCatInfoCreateDate) {
        uint8_t raw[8];
        bool present = false;
        if (kept && !get_listed(path, names, kCreateTimeName, raw, sizeof raw, &present))
            return from_errno(errno);
        if (present)
            info.createDate = date_from_1904(le::get64(raw), 0);
        else
            info.createDate =
                date_from_unix((sx.stx_mask & STATX_BTIME) ? sx.stx_btime : sx.stx_mtime);
    }
    if (whichInfo & kFSCatInfoContentMod) info.contentModDate = date_from_unix(sx.stx_mtime);
    if (whichInfo & kFSCatInfoAccessDate) info.accessDate = date_from_unix(sx.stx_atime);
    if (whichInfo & kFSCatInfoPermissions)
        info.permissions =
            FSPermissionInfo{sx.stx_uid, sx.stx_gid, 0, 0, static_cast<UInt16>(sx.stx_mode), 0};
    if (whichInfo & kFSCatInfoFinderInfo) {
        FileInfo finder{};
        if (!get_flags(path, names, kept, kFinderFlagsName, &finder.finderFlags))
            return from_errno(errno);
        std::memcpy(info.finderInfo, &finder, sizeof finder);
    }
    if (whichInfo & kFSCatInfoDataSizes) {
        info.dataLogicalSize = folder ? 0 : sx.stx_size;
        info.dataPhysicalSize = folder ? 0 : sx.stx_blocks * 512;
    }
    return noErr;
}

OSErr FSSetCatalogInfo(const FSRef* ref, FSCatalogInfoBitmap whichInfo,
                       const FSCatalogInfo* catalogInfo) {
    if (ref == nullptr || (whichInfo != 0 && catalogInfo == nullptr)) return paramErr;
    if ((whichInfo & ~kSettable) != 0) return errFSBadInfoBitmap;
    const int fd = FSRefAccess::fd(*ref);
    if (fd < 0) return errFSBadFSRef;
    if (whichInfo == 0) return noErr;
    const UInt32 format = FSRefAccess::format(*ref);
    const ObjectAccess path(fd, FSRefAccess::opened(*ref));
    const FSCatalogInfo& info = *catalogInfo;

    // Attributes first and the mode last: a mode without the owner's write bit would
    // keep an owner who is not root from writing the attributes.
    if (holds_attributes(format)) {
        if (whichInfo & kFSCatInfoCreateDate) {
            uint8_t raw[8];
            le::put64(raw, seconds_1904(info.createDate));
            if (!put_attribute(path, kCreateTimeName, raw, sizeof raw, false))
                return from_errno(errno);
        }
        if (whichInfo & kFSCatInfoFinderInfo) {
            FileInfo finder;
            std::memcpy(&finder, info.finderInfo, sizeof finder);
            if (!put_flags(path, kFinderFlagsName, finder.finderFlags)) return from_errno(errno);
        }
        if ((whichInfo & kFSCatInfoNodeFlags) &&
            !put_flags(path, kNodeFlagsName, info.nodeFlags & kFSNodeLockedMask))
            return from_errno(errno);
    }
    if (whichInfo & (kFSCatInfoContentMod | kFSCatInfoAccessDate)) {
        struct timespec times[2] = {{0, UTIME_OMIT}, {0, UTIME_OMIT}};
        if (whichInfo & kFSCatInfoAccessDate) times[0] = unix_from_date(info.accessDate);
        if (whichInfo & kFSCatInfoContentMod) times[1] = unix_from_date(info.contentModDate);
        if (!by_descriptor(fd, path, [&](int at, const char* name, int flags) {
                return platform::sys_utimensat(at, name, times, flags);
            }))
            return from_errno(errno);
    }
    // Linux cannot change a link's mode.
    if ((whichInfo & kFSCatInfoPermissions) && format != S_IFLNK &&
        !by_descriptor(fd, path, [&](int at, const char* name, int flags) {
            return platform::sys_fchmodat(at, name, info.permissions.mode & 07777, flags);
        }))
        return from_errno(errno);
    return noErr;
}
