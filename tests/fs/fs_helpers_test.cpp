// Folder creation and tree removal, open-file and device sizes.
#include "fs/fs_helpers.h"

#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>

#include "support/fault_scope.h"
#include "support/temp_dir.h"

using platform::Sys;
using qvxtest::FaultScope;
using qvxtest::TempDir;

namespace {

using qvxtest::exists;

int entries(const std::string& folder) {
    int n = 0;
    if (DIR* d = ::opendir(folder.c_str())) {
        while (const dirent* e = ::readdir(d)) n += e->d_name[0] != '.';
        ::closedir(d);
    }
    return n;
}

}  // namespace

TEST(MakeDirectory, CreatesAndReportsFailure) {
    TempDir dir;
    const std::string path = dir / "d";
    uint32_t result = 0;
    EXPECT_TRUE(qvx::make_directory(path.c_str(), &result));
    EXPECT_EQ(result, 0u);
    EXPECT_FALSE(qvx::make_directory(path.c_str(), &result));
    EXPECT_EQ(result, qvx::kResultFailure);
    EXPECT_FALSE(qvx::make_directory((dir / "a/b").c_str(), nullptr));
}

TEST(RemoveTree, RemovesFoldersAndRefusesFiles) {
    TempDir dir;
    qvxtest::make_dirs(dir / "empty");
    EXPECT_TRUE(qvx::remove_tree((dir / "empty").c_str()));
    EXPECT_FALSE(exists(dir / "empty"));

    qvxtest::write_file(dir / "file", "keep");
    EXPECT_FALSE(qvx::remove_tree((dir / "file").c_str()));
    EXPECT_EQ(qvxtest::read_file(dir / "file"), "keep");
    EXPECT_FALSE(qvx::remove_tree((dir / "missing").c_str()));

    qvxtest::write_file(dir / "tree/a/b/c/deep", "1");
    qvxtest::write_file(dir / "tree/a/x", "2");
    qvxtest::make_dirs(dir / "tree/empty");
    ASSERT_EQ(::mkfifo((dir / "tree/a/fifo").c_str(), 0600), 0);
    EXPECT_TRUE(qvx::remove_tree((dir / "tree").c_str()));
    EXPECT_FALSE(exists(dir / "tree"));
}

TEST(RemoveTree, RemovesLinksAsLinksAndNeverFollowsThem) {
    TempDir dir;
    qvxtest::write_file(dir / "outside/precious", "data");
    qvxtest::write_file(dir / "tree/sub/f", "x");
    ASSERT_EQ(::symlink((dir / "outside").c_str(), (dir / "tree/dirlink").c_str()), 0);
    ASSERT_EQ(::symlink((dir / "outside").c_str(), (dir / "tree/sub/dirlink").c_str()), 0);
    ASSERT_EQ(::symlink((dir / "outside/precious").c_str(), (dir / "tree/filelink").c_str()), 0);
    ASSERT_EQ(::symlink("nowhere", (dir / "tree/dangling").c_str()), 0);

    EXPECT_TRUE(qvx::remove_tree((dir / "tree").c_str()));
    EXPECT_FALSE(exists(dir / "tree"));
    EXPECT_EQ(qvxtest::read_file(dir / "outside/precious"), "data");

    // A link handed over as the folder itself goes; its target stays.
    ASSERT_EQ(::symlink((dir / "outside").c_str(), (dir / "top").c_str()), 0);
    EXPECT_TRUE(qvx::remove_tree((dir / "top").c_str()));
    EXPECT_FALSE(exists(dir / "top"));
    ASSERT_EQ(::symlink((dir / "outside").c_str(), (dir / "top").c_str()), 0);
    EXPECT_TRUE(qvx::remove_tree((dir / "top//").c_str()));
    EXPECT_FALSE(exists(dir / "top"));
    EXPECT_EQ(qvxtest::read_file(dir / "outside/precious"), "data");
}

// "." and ".." as the last component name the folder or the one above it: removing them
// would take what lies beside the item. A folder on another file system inside the tree
// (a mount point, here a folder whose device the seam changes) stops the walk before it.
TEST(RemoveTree, RefusesDotNamesAndStaysOnItsFileSystem) {
    TempDir dir;
    qvxtest::write_file(dir / "keep/sub/f", "f");
    qvxtest::write_file(dir / "keep/other", "other");
    for (const char* path : {"keep/sub/..", "keep/sub/../", "keep/sub/.", "keep/.."})
        EXPECT_FALSE(qvx::remove_tree((dir / path).c_str())) << path;
    EXPECT_TRUE(exists(dir / "keep/sub/f"));
    EXPECT_TRUE(exists(dir / "keep/other"));

    qvxtest::write_file(dir / "tree/mnt/volume-file", "v");
    FaultScope faults;
    faults.table().fstatat = [](int dirFd, const char* name, struct stat* st, int flags) {
        const int rc = ::fstatat(dirFd, name, st, flags);
        if (rc == 0 && std::strcmp(name, "mnt") == 0) st->st_dev ^= 1;
        return rc;
    };
    faults.install();
    EXPECT_FALSE(qvx::remove_tree((dir / "tree").c_str()));
    EXPECT_EQ(errno, EXDEV);
    EXPECT_TRUE(exists(dir / "tree/mnt/volume-file"));
}

// A folder far deeper than both the descriptor limit and PATH_MAX, built and checked
// through descriptors only.
TEST(RemoveTree, RemovesATreeDeeperThanTheDescriptorLimit) {
    TempDir dir;
    qvxtest::write_file(dir / "outside/precious", "data");
    qvxtest::make_dirs(dir / "deep");
    constexpr int kDepth = 2000;
    int fd = ::open((dir / "deep").c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    ASSERT_NE(fd, -1);
    for (int level = 1; level <= kDepth; ++level) {
        if (level % 500 == 0) {
            const int file = ::openat(fd, "file", O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
            ASSERT_NE(file, -1);
            ::close(file);
        }
        if (level == 1500) {
            ASSERT_EQ(::symlinkat((dir / "outside").c_str(), fd, "out"), 0);
        }
        ASSERT_EQ(::mkdirat(fd, "level-folder", 0755), 0) << level;
        const int next = ::openat(fd, "level-folder", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        ASSERT_NE(next, -1) << level;
        ::close(fd);
        fd = next;
    }
    ::close(fd);

    rlimit saved{};
    ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &saved), 0);
    rlimit low = saved;
    low.rlim_cur = 64;
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &low), 0);
    const bool removed = qvx::remove_tree((dir / "deep").c_str());
    const int error = errno;
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &saved), 0);
    EXPECT_TRUE(removed) << strerror(error);
    EXPECT_FALSE(exists(dir / "deep"));
    EXPECT_EQ(qvxtest::read_file(dir / "outside/precious"), "data");
}

std::string g_moveFrom, g_moveTo;

// A folder moved out of the tree while the walk is deep below it: coming back up, the walk
// finds through ".." a folder other than the one it came down through, and stops there
// instead of emptying it.
TEST(RemoveTree, StopsWhenAFolderWasMovedOutOfTheTreeMeanwhile) {
    TempDir dir;
    std::string path = dir / "t";
    for (int i = 0; i < 40; ++i) path += "/d";
    qvxtest::write_file(path + "/f", "x");
    qvxtest::write_file(dir / "outside/keep", "data");
    g_moveFrom = dir / "t/d/d/d/d/d";
    g_moveTo = dir / "outside/d";
    FaultScope faults;
    faults.table().unlinkat = [](int dirFd, const char* name, int flags) {
        // The deepest file goes first; the folder five levels down moves out right then.
        if (std::strcmp(name, "f") == 0 && !g_moveFrom.empty()) {
            EXPECT_EQ(::rename(g_moveFrom.c_str(), g_moveTo.c_str()), 0);
            g_moveFrom.clear();
        }
        return ::unlinkat(dirFd, name, flags);
    };
    faults.install();
    EXPECT_FALSE(qvx::remove_tree((dir / "t").c_str()));
    EXPECT_EQ(qvxtest::read_file(dir / "outside/keep"), "data");
    EXPECT_TRUE(exists(dir / "t/d/d/d/d"));
}

TEST(RemoveTree, StopsAtFirstEntryThatCannotBeRemoved) {
    TempDir dir;
    for (const char* name : {"a", "b", "c", "d", "e"}) qvxtest::write_file(dir / "t/" + name, name);
    FaultScope faults;
    const int fds = qvxtest::open_fd_count();
    platform::fault_inject(Sys::unlinkat, 3, EPERM);
    EXPECT_FALSE(qvx::remove_tree((dir / "t").c_str()));
    // readdir order is the file system's: two entries went before the refusal, three stay.
    EXPECT_EQ(entries(dir / "t"), 3);
    EXPECT_EQ(qvxtest::open_fd_count(), fds);
    platform::fault_clear();
    EXPECT_TRUE(qvx::remove_tree((dir / "t").c_str()));
}

// Every call of a nested removal failing in turn: each failed run holds no descriptor, and a
// clean retry finishes the job. One branch is deep enough for folders to be let go of and
// opened again on the way back up.
TEST(RemoveTree, SurvivesAFaultAtEveryCall) {
    TempDir dir;
    const std::string root = dir / "t";
    std::string deep = root + "/sub";
    for (int i = 0; i < 10; ++i) deep += "/d";
    auto build = [&] {
        qvxtest::write_file(root + "/f", "1");
        qvxtest::write_file(root + "/sub/g", "2");
        qvxtest::write_file(root + "/sub/deeper/h", "3");
        qvxtest::write_file(deep + "/i", "4");
        if (!exists(root + "/link")) ::symlink(dir.path().c_str(), (root + "/link").c_str());
    };
    FaultScope faults;
    const int fds = qvxtest::open_fd_count();
    const int runs = qvxtest::fault_sweep(Sys::any, EIO, [&](int n) {
        build();
        const bool removed = qvx::remove_tree(root.c_str());
        if (platform::fault_fired() && !removed) {
            EXPECT_TRUE(exists(root)) << "call " << n;
            platform::fault_clear();
            EXPECT_TRUE(qvx::remove_tree(root.c_str())) << "call " << n;
        }
        EXPECT_FALSE(exists(root)) << "call " << n;
        EXPECT_EQ(qvxtest::open_fd_count(), fds) << "call " << n;
    });
    EXPECT_GT(runs, 10);
}

TEST(OpenFileSize, MeasuresFilesPipesAndDevices) {
    TempDir dir;
    qvxtest::write_file(dir / "f", std::string(12345, 'z'));
    const int fd = ::open((dir / "f").c_str(), O_RDONLY);
    ASSERT_NE(fd, -1);
    EXPECT_EQ(qvx::get_open_file_size(fd), 12345u);
    uint64_t total = 1, block = 1;
    EXPECT_FALSE(qvx::get_device_geometry(fd, &total, &block));
    EXPECT_EQ(total, 0u);
    EXPECT_EQ(block, 0u);
    {
        FaultScope faults;
        platform::fault_inject(Sys::fstat, 1, EIO);
        EXPECT_EQ(qvx::get_open_file_size(fd), UINT64_MAX);
    }
    ::close(fd);

    int pipeFds[2];
    ASSERT_EQ(::pipe(pipeFds), 0);
    ASSERT_EQ(::write(pipeFds[1], "abc", 3), 3);
    struct stat st {};
    ASSERT_EQ(::fstat(pipeFds[0], &st), 0);
    EXPECT_EQ(qvx::get_open_file_size(pipeFds[0]), static_cast<uint64_t>(st.st_size));
    ::close(pipeFds[0]);
    ::close(pipeFds[1]);

    // A character device that is no disk can't tell its size.
    const int null = ::open("/dev/null", O_RDONLY);
    ASSERT_NE(null, -1);
    EXPECT_EQ(qvx::get_open_file_size(null), UINT64_MAX);
    ::close(null);
}

TEST(OpenFileSize, BlockDeviceIsBlockCountTimesBlockSize) {
    int dev = -1;
    for (const char* name : {"/dev/vda", "/dev/sda", "/dev/nvme0n1", "/dev/zram0", "/dev/loop0"}) {
        struct stat st {};
        if (::stat(name, &st) == 0 && S_ISBLK(st.st_mode) &&
            (dev = ::open(name, O_RDONLY | O_CLOEXEC)) != -1)
            break;
    }
    if (dev == -1) GTEST_SKIP() << "no block device can be opened here";
    uint64_t bytes = 0;
    int sector = 0;
    ASSERT_EQ(::ioctl(dev, BLKGETSIZE64, &bytes), 0);
    ASSERT_EQ(::ioctl(dev, BLKSSZGET, &sector), 0);
    const uint64_t expected = bytes / static_cast<uint64_t>(sector) * static_cast<uint64_t>(sector);
    EXPECT_EQ(qvx::get_open_file_size(dev), expected);
    uint64_t total = 0, block = 0;
    ASSERT_TRUE(qvx::get_device_geometry(dev, &total, &block));
    EXPECT_EQ(block, static_cast<uint64_t>(sector));
    EXPECT_EQ(total, expected);
    {
        FaultScope faults;
        platform::fault_inject(Sys::ioctl, 2, EIO);
        EXPECT_EQ(qvx::get_open_file_size(dev), UINT64_MAX);
    }
    ::close(dev);
}
