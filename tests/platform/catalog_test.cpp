// File references and catalog information: round trips, links, swapped paths, child names.
#include <CoreServices/CoreServices.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

#include "common/byte_order.h"
#include "support/fault_scope.h"
#include "support/temp_dir.h"

using qvxtest::TempDir;

namespace {

constexpr FSCatalogInfoBitmap kWritable = kFSCatInfoNodeFlags | kFSCatInfoCreateDate |
                                          kFSCatInfoContentMod | kFSCatInfoAccessDate |
                                          kFSCatInfoPermissions | kFSCatInfoFinderInfo;
constexpr FSCatalogInfoBitmap kAll =
    kWritable | kFSCatInfoVolume | kFSCatInfoNodeID | kFSCatInfoDataSizes;
constexpr uint64_t kAfter2040 = (uint64_t{1} << 32) + 5;  // needs the high seconds

OSStatus make_ref(const std::string& path, FSRef* ref, Boolean* isDirectory = nullptr) {
    return FSPathMakeRefWithOptions(reinterpret_cast<const UInt8*>(path.c_str()),
                                    kFSPathMakeRefDoNotFollowLeafSymlink, ref, isDirectory);
}
OSErr make_child(const FSRef& parent, std::u16string_view name, FSRef* child) {
    const std::vector<UniChar> units(name.begin(), name.end());
    return FSMakeFSRefUnicode(&parent, units.size(), units.data(), kTextEncodingUnknown, child);
}
FSCatalogInfo info_of(const FSRef& ref, FSCatalogInfoBitmap which = kAll) {
    FSCatalogInfo info{};
    EXPECT_EQ(FSGetCatalogInfo(&ref, which, &info, nullptr, nullptr, nullptr), noErr);
    return info;
}

UTCDateTime date(uint64_t seconds1904, UInt16 fraction = 0) {
    return {static_cast<UInt16>(seconds1904 >> 32), static_cast<UInt32>(seconds1904), fraction};
}
// Seconds and fraction as one number, so that packed fields are compared by value.
uint64_t when(const UTCDateTime& d) {
    return (uint64_t{d.highSeconds} << 32 | d.lowSeconds) << 16 | d.fraction;
}
UInt16 finder_flags(const FSCatalogInfo& info) {
    FileInfo finder;
    std::memcpy(&finder, info.finderInfo, sizeof finder);
    return finder.finderFlags;
}

// Everything a caller can set: fractions on two dates, a creation date past 2040.
FSCatalogInfo new_values() {
    FSCatalogInfo info{};
    info.nodeFlags = kFSNodeLockedMask;
    info.createDate = date(kAfter2040);
    info.contentModDate = date(3'600'000'000, 0x8000);
    info.accessDate = date(3'500'000'000, 0x0001);
    info.permissions.mode = 0751;
    FileInfo finder{};
    finder.finderFlags = kIsInvisible;
    std::memcpy(info.finderInfo, &finder, sizeof finder);
    return info;
}
void expect_new_values(const FSCatalogInfo& got, UInt16 format) {
    EXPECT_EQ(got.nodeFlags, kFSNodeLockedMask | (format == S_IFDIR ? kFSNodeIsDirectoryMask : 0));
    EXPECT_EQ(when(got.createDate), when(date(kAfter2040)));
    EXPECT_EQ(when(got.contentModDate), when(date(3'600'000'000, 0x8000)));
    EXPECT_EQ(when(got.accessDate), when(date(3'500'000'000, 0x0001)));
    EXPECT_EQ(got.permissions.mode, format | 0751);
    EXPECT_EQ(finder_flags(got), kIsInvisible);
}

struct stat lstat_of(const std::string& path) {
    struct stat st {};
    EXPECT_EQ(::lstat(path.c_str(), &st), 0) << path;
    return st;
}
// Mode and all three times, to the nanosecond: the ctime catches any change at all.
void expect_untouched(const struct stat& before, const std::string& path) {
    const struct stat now = lstat_of(path);
    EXPECT_EQ(now.st_mode, before.st_mode) << path;
    for (auto time : {&stat::st_atim, &stat::st_mtim, &stat::st_ctim}) {
        EXPECT_EQ((now.*time).tv_sec, (before.*time).tv_sec) << path;
        EXPECT_EQ((now.*time).tv_nsec, (before.*time).tv_nsec) << path;
    }
}

}  // namespace

// Every writable field goes round on a file and a folder. Attribute calls take the item's
// own descriptor; an item that cannot be read (here refused by the seam) gets them through
// /proc. A pipe is named, never opened.
TEST(Catalog, FileAndFolderRoundTripEveryFieldThroughTheirDescriptorOrProc) {
    TempDir dir;
    ASSERT_EQ(::mkfifo((dir / "pipe").c_str(), 0644), 0);
    using platform::Sys;
    const FSCatalogInfo values = new_values();
    for (const bool readable : {true, false}) {
        const std::string f = readable ? "f" : "unreadable f", d = readable ? "d" : "unreadable d";
        qvxtest::write_file(dir / f, "twelve bytes");
        qvxtest::make_dirs(dir / d);
        qvxtest::FaultScope faults;
        if (!readable) {
            faults.table().openat = [](int dirFd, const char* n, int flags, mode_t m) {
                if (!(flags & O_PATH)) return errno = EACCES, -1;
                return platform::real_syscalls()->openat(dirFd, n, flags, m);
            };
        }
        faults.install();
        for (const auto& [name, format] : {std::pair{f, S_IFREG}, std::pair{d, S_IFDIR}}) {
            SCOPED_TRACE(name);
            platform::fault_reset_counts();
            FSRef ref;
            Boolean isDirectory = 2;
            ASSERT_EQ(make_ref(dir / name, &ref, &isDirectory), noErr);
            EXPECT_EQ(isDirectory, format == S_IFDIR);
            const FSCatalogInfo before = info_of(ref);
            EXPECT_EQ(before.nodeFlags, format == S_IFDIR ? kFSNodeIsDirectoryMask : 0);
            EXPECT_EQ(finder_flags(before), 0);
            EXPECT_EQ(before.dataLogicalSize, format == S_IFDIR ? 0u : 12u);
            EXPECT_EQ(before.nodeID, static_cast<UInt32>(lstat_of(dir / name).st_ino));

            ASSERT_EQ(FSSetCatalogInfo(&ref, kWritable, &values), noErr);
            const FSCatalogInfo after = info_of(ref);
            expect_new_values(after, format);
            EXPECT_EQ(after.volume, before.volume);
            const struct stat st = lstat_of(dir / name);
            EXPECT_EQ(st.st_mtim.tv_sec, 3'600'000'000 - 2'082'844'800);
            EXPECT_EQ(st.st_mtim.tv_nsec, 500'000'000);
            // Other programs read the creation date here: u64 LE seconds since 1904.
            uint8_t raw[8];
            ASSERT_EQ(::lgetxattr((dir / name).c_str(), "user.quorvex.crtime", raw, 8), 8);
            EXPECT_EQ(qvx::le::get64(raw), kAfter2040);

            const uint64_t byPath = platform::fault_calls(Sys::listxattr) +
                                    platform::fault_calls(Sys::setxattr) +
                                    platform::fault_calls(Sys::getxattr);
            const uint64_t byDescriptor = platform::fault_calls(Sys::flistxattr) +
                                          platform::fault_calls(Sys::fsetxattr) +
                                          platform::fault_calls(Sys::fgetxattr);
            EXPECT_EQ(byPath > 0, !readable);
            EXPECT_EQ(byDescriptor > 0, readable);
        }
    }
    FSRef pipe;
    ASSERT_EQ(make_ref(dir / "pipe", &pipe), noErr);
    EXPECT_EQ(info_of(pipe).permissions.mode & S_IFMT, S_IFIFO);
    // A writer finds no reader: the reference did not open the pipe.
    EXPECT_EQ(::open((dir / "pipe").c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC), -1);
    EXPECT_EQ(errno, ENXIO);
}

// Our attributes are found among many others (a list longer than one read takes), and
// a kernel that takes no empty path for times and mode gets them through /proc.
TEST(Catalog, AttributesAmongManyAndCallsWithoutEmptyPaths) {
    TempDir dir;
    qvxtest::write_file(dir / "f", "");
    const std::string path = dir / "f";
    for (int i = 0; i < 40; ++i) {
        const std::string name = "user.other.attribute.with.a.long.name." + std::to_string(i);
        ASSERT_EQ(::setxattr(path.c_str(), name.c_str(), "x", 1, 0), 0);
    }
    FSRef ref;
    ASSERT_EQ(make_ref(path, &ref), noErr);
    const FSCatalogInfo values = new_values();
    ASSERT_EQ(FSSetCatalogInfo(&ref, kWritable, &values), noErr);
    expect_new_values(info_of(ref), S_IFREG);

    qvxtest::FaultScope faults;
    faults.table().utimensat = [](int d, const char* n, const struct timespec t[2], int f) {
        if (f & AT_EMPTY_PATH) return errno = EINVAL, -1;
        return platform::real_syscalls()->utimensat(d, n, t, f);
    };
    faults.table().fchmodat = [](int d, const char* n, mode_t m, int f) {
        if (f & AT_EMPTY_PATH) return errno = ENOSYS, -1;
        return platform::real_syscalls()->fchmodat(d, n, m, f);
    };
    faults.install();
    FSCatalogInfo other = values;
    other.contentModDate = date(3'700'000'000);
    other.permissions.mode = 0640;
    ASSERT_EQ(FSSetCatalogInfo(&ref, kFSCatInfoContentMod | kFSCatInfoPermissions, &other), noErr);
    const struct stat st = lstat_of(path);
    EXPECT_EQ(st.st_mtim.tv_sec, 3'700'000'000 - 2'082'844'800);
    EXPECT_EQ(st.st_mode & 07777, 0640u);
}

TEST(Catalog, LinkIsChangedItselfAndItsTargetNever) {
    TempDir dir;
    qvxtest::write_file(dir / "target", "t");
    ASSERT_EQ(::symlink("target", (dir / "link").c_str()), 0);
    const struct stat target = lstat_of(dir / "target");
    FSRef ref;
    Boolean isDirectory = 2;
    ASSERT_EQ(make_ref(dir / "link", &ref, &isDirectory), noErr);
    EXPECT_EQ(isDirectory, 0);
    const FSCatalogInfo values = new_values();
    ASSERT_EQ(FSSetCatalogInfo(&ref, kWritable, &values), noErr);

    const FSCatalogInfo got = info_of(ref);
    EXPECT_EQ(got.permissions.mode & S_IFMT, S_IFLNK);
    EXPECT_EQ(got.dataLogicalSize, 6u);  // the target's path
    EXPECT_EQ(when(got.contentModDate), when(values.contentModDate));
    EXPECT_EQ(when(got.accessDate), when(values.accessDate));
    // A link holds no attributes: no lock, no Finder flags, the file system's creation date.
    EXPECT_EQ(got.nodeFlags, 0);
    EXPECT_EQ(finder_flags(got), 0);
    EXPECT_NE(when(got.createDate), when(values.createDate));
    expect_untouched(target, dir / "target");
}

TEST(Catalog, CreationDateFallsBackToBirthTimeThenModificationTime) {
    TempDir dir;
    qvxtest::write_file(dir / "f", "");
    FSRef ref;
    ASSERT_EQ(make_ref(dir / "f", &ref), noErr);
    struct statx sx {};
    ASSERT_EQ(::statx(AT_FDCWD, (dir / "f").c_str(), 0, STATX_BTIME | STATX_MTIME, &sx), 0);
    const statx_timestamp born = (sx.stx_mask & STATX_BTIME) ? sx.stx_btime : sx.stx_mtime;
    EXPECT_EQ(when(info_of(ref, kFSCatInfoCreateDate).createDate),
              when(date(static_cast<uint64_t>(born.tv_sec + 2'082'844'800),
                        static_cast<UInt16>(born.tv_nsec * uint64_t{65536} / 1'000'000'000))));

    qvxtest::FaultScope noBirthTime;
    noBirthTime.table().statx = [](int fd, const char* name, int flags, unsigned mask,
                                   struct statx* out) {
        const int rc = ::statx(fd, name, flags, mask, out);
        out->stx_mask &= ~STATX_BTIME;
        return rc;
    };
    noBirthTime.install();
    const FSCatalogInfo got = info_of(ref, kFSCatInfoCreateDate | kFSCatInfoContentMod);
    EXPECT_EQ(when(got.createDate), when(got.contentModDate));
}

TEST(Catalog, ReferenceFollowsTheObjectNotThePath) {
    TempDir dir;
    qvxtest::write_file(dir / "item", "mine");
    qvxtest::write_file(dir / "elsewhere", "theirs");
    const struct stat elsewhere = lstat_of(dir / "elsewhere");
    FSRef ref;
    ASSERT_EQ(make_ref(dir / "item", &ref), noErr);
    ASSERT_EQ(::rename((dir / "item").c_str(), (dir / "moved").c_str()), 0);
    ASSERT_EQ(::symlink((dir / "elsewhere").c_str(), (dir / "item").c_str()), 0);

    const FSCatalogInfo values = new_values();
    ASSERT_EQ(FSSetCatalogInfo(&ref, kWritable, &values), noErr);
    FSRef moved;
    ASSERT_EQ(make_ref(dir / "moved", &moved), noErr);
    expect_new_values(info_of(moved), S_IFREG);
    expect_untouched(elsewhere, dir / "elsewhere");
}

// The name is swapped between the look at its type and the open: for a link, which must not
// be followed, and for a folder, whose descriptor must not pass for a file's. Either way the
// reference names what the name holds once it is made, as an O_PATH one made at that moment
// would, and the item first named is left alone.
TEST(Catalog, NameSwappedWhileTheReferenceIsMadeIsNeverFollowed) {
    for (const bool toLink : {true, false}) {
        SCOPED_TRACE(toLink ? "swapped for a link" : "swapped for a folder");
        TempDir dir;
        qvxtest::write_file(dir / "item", "mine");
        qvxtest::write_file(dir / "elsewhere", "theirs");
        static std::string s_dir;
        static bool s_toLink;
        s_dir = dir.path();
        s_toLink = toLink;
        const struct stat item = lstat_of(dir / "item");
        const struct stat elsewhere = lstat_of(dir / "elsewhere");
        qvxtest::FaultScope faults;
        faults.table().openat = [](int d, const char* n, int flags, mode_t m) {
            if (!(flags & O_PATH)) {
                const std::string path = s_dir + "/item";
                ::rename(path.c_str(), (s_dir + "/moved").c_str());
                if (s_toLink)
                    ::symlink((s_dir + "/elsewhere").c_str(), path.c_str());
                else
                    ::mkdir(path.c_str(), 0700);
            }
            return platform::real_syscalls()->openat(d, n, flags, m);
        };
        faults.install();
        FSRef ref;
        Boolean isDirectory = 2;
        ASSERT_EQ(make_ref(dir / "item", &ref, &isDirectory), noErr);
        platform::set_syscalls(nullptr);
        EXPECT_EQ(isDirectory, !toLink);
        const FSCatalogInfo values = new_values();
        ASSERT_EQ(FSSetCatalogInfo(&ref, kWritable, &values), noErr);
        const FSCatalogInfo got = info_of(ref);
        EXPECT_EQ(got.permissions.mode & S_IFMT, toLink ? S_IFLNK : S_IFDIR);
        if (!toLink) expect_new_values(got, S_IFDIR);
        // The rename changed its ctime; nothing else may have changed.
        const struct stat moved = lstat_of(dir / "moved");
        EXPECT_EQ(moved.st_mode, item.st_mode);
        EXPECT_EQ(moved.st_mtim.tv_sec, item.st_mtim.tv_sec);
        EXPECT_EQ(moved.st_mtim.tv_nsec, item.st_mtim.tv_nsec);
        EXPECT_EQ(::lgetxattr((dir / "moved").c_str(), "user.quorvex.crtime", nullptr, 0), -1);
        expect_untouched(elsewhere, dir / "elsewhere");
    }
}

TEST(Catalog, ChildNamesNeverClimbOrFollowALink) {
    TempDir dir;
    qvxtest::write_file(dir / "d/x", "x");
    qvxtest::write_file(dir / "d/\U0001F600\u00E9", "");
    ASSERT_EQ(::symlink(".", (dir / "d/self").c_str()), 0);
    FSRef folder, child, beyond;
    ASSERT_EQ(make_ref(dir / "d", &folder), noErr);

    using namespace std::literals;
    for (std::u16string_view bad : {u""sv, u"."sv, u".."sv, u"a/b"sv, u"/x"sv, u"../x"sv, u"x\0y"sv,
                                    u"\xD83D"sv, u"\xDC00x"sv})
        EXPECT_EQ(make_child(folder, bad, &child), bdNamErr);
    EXPECT_EQ(make_child(folder, u"missing", &child), fnfErr);
    EXPECT_EQ(make_child(folder, u"\U0001F600e\u0301", &child), fnfErr);  // not normalized
    EXPECT_EQ(make_child(folder, u"\U0001F600\u00E9", &child), noErr);
    ASSERT_EQ(make_child(folder, u"x", &child), noErr);
    EXPECT_EQ(info_of(child).nodeID, static_cast<UInt32>(lstat_of(dir / "d/x").st_ino));
    EXPECT_EQ(make_child(child, u"y", &beyond), errFSNotAFolder);

    // A link child is the link itself, and nothing lies beneath it.
    ASSERT_EQ(make_child(folder, u"self", &child), noErr);
    EXPECT_EQ(info_of(child).permissions.mode & S_IFMT, S_IFLNK);
    EXPECT_EQ(make_child(child, u"x", &beyond), errFSNotAFolder);
}

TEST(Catalog, ReferencesOwnTheirDescriptors) {
    TempDir dir;
    qvxtest::write_file(dir / "f", "");
    const int open = qvxtest::open_fd_count();
    {
        FSRef a, b;
        EXPECT_EQ(make_ref(dir / "f/below", &a), dirNFErr);
        ASSERT_EQ(make_ref(dir / "f", &a), noErr);
        ASSERT_EQ(make_ref(dir / "f", &a), noErr);  // remaking releases the first
        const FSRef c(std::move(a));
        FSCatalogInfo info{};
        EXPECT_EQ(FSSetCatalogInfo(&a, kFSCatInfoNodeFlags, &info), errFSBadFSRef);
        EXPECT_EQ(FSSetCatalogInfo(&c, kFSCatInfoDataSizes, &info), errFSBadInfoBitmap);
        EXPECT_EQ(qvxtest::open_fd_count(), open + 1);
    }
    EXPECT_EQ(qvxtest::open_fd_count(), open);
}

// Each system call of a make, get and set failing in turn is reported and leaks nothing.
TEST(Catalog, EveryFailingCallIsReported) {
    TempDir dir;
    qvxtest::write_file(dir / "f", "");
    const int open = qvxtest::open_fd_count();
    const FSCatalogInfo values = new_values();
    const int runs = qvxtest::fault_sweep(platform::Sys::any, EIO, [&](int) {
        FSRef ref;
        FSCatalogInfo info{};
        const bool ok = make_ref(dir / "f", &ref) == noErr &&
                        FSGetCatalogInfo(&ref, kAll, &info, nullptr, nullptr, nullptr) == noErr &&
                        FSSetCatalogInfo(&ref, kWritable, &values) == noErr;
        EXPECT_NE(ok, platform::fault_fired());
    });
    EXPECT_GE(runs, 10);
    EXPECT_EQ(qvxtest::open_fd_count(), open);
}

// ramfs keeps no user attributes; a child mounts one in a mount namespace of its own.
TEST(Catalog, FileSystemWithoutAttributesReadsZeroAndSkipsWrites) {
    TempDir dir;
    const pid_t pid = ::fork();
    ASSERT_NE(pid, -1);
    if (pid == 0) {
        if (::unshare(CLONE_NEWNS) != 0 ||
            ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
            ::mount("none", dir.path().c_str(), "ramfs", 0, nullptr) != 0)
            ::_exit(10);
        qvxtest::write_file(dir / "f", "");
        FSRef ref;
        const FSCatalogInfo values = new_values();
        FSCatalogInfo got{};
        if (make_ref(dir / "f", &ref) != noErr ||
            FSSetCatalogInfo(&ref, kWritable, &values) != noErr ||
            FSGetCatalogInfo(&ref, kAll, &got, nullptr, nullptr, nullptr) != noErr)
            ::_exit(1);
        ::_exit(got.nodeFlags == 0 && finder_flags(got) == 0 &&
                        when(got.createDate) != when(values.createDate) &&
                        when(got.contentModDate) == when(values.contentModDate) &&
                        got.permissions.mode == (S_IFREG | 0751)
                    ? 0
                    : 2);
    }
    int status = 0;
    ASSERT_EQ(::waitpid(pid, &status, 0), pid);
    ASSERT_TRUE(WIFEXITED(status));
    if (WEXITSTATUS(status) == 10) GTEST_SKIP() << "cannot mount ramfs here";
    EXPECT_EQ(WEXITSTATUS(status), 0) << "1: a call failed, 2: wrong values";
}
