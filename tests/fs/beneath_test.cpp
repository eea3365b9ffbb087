// Names opened, created and removed beneath a folder descriptor, through openat2 and
// through the component walk that stands in for it on older kernels.
#include "fs/beneath.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <string>

#include "fs/fs_helpers.h"
#include "fs/host_file.h"
#include "support/fault_scope.h"
#include "support/log_capture.h"
#include "support/temp_dir.h"

using platform::Sys;
using qvx::UniqueFd;
using qvxtest::FaultScope;
using qvxtest::TempDir;

namespace {

bool exists(const std::string& path) {
    struct stat st {};
    return ::lstat(path.c_str(), &st) == 0;
}

// Runs each test twice: with the kernel's openat2, and with openat2 answering ENOSYS so
// that every resolution takes the walk.
class Beneath : public ::testing::TestWithParam<bool> {
  protected:
    void SetUp() override {
        if (GetParam()) {
            m_faults.table().openat2 = [](int, const char*, struct open_how*, size_t) {
                errno = ENOSYS;
                return -1;
            };
            m_faults.install();
        }
        qvxtest::write_file(m_dir / "out/secret", "secret");
        qvxtest::make_dirs(m_dir / "dest/a/b");
        qvxtest::write_file(m_dir / "dest/a/b/f.txt", "f");
        ASSERT_EQ(::symlink((m_dir / "out").c_str(), (m_dir / "dest/a/L").c_str()), 0);
        ASSERT_EQ(::symlink("../../out", (m_dir / "dest/a/R").c_str()), 0);
        m_root.reset(::open((m_dir / "dest").c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
        ASSERT_TRUE(m_root);
    }
    bool walking() const { return GetParam(); }
    int open(const char* name, int flags, mode_t mode = 0) {
        return qvx::open_beneath(m_root.get(), name, flags, mode);
    }
    int error_of(const char* name, int flags) {
        errno = 0;
        UniqueFd fd(open(name, flags, 0644));
        return fd ? 0 : errno;
    }

    FaultScope m_faults;
    TempDir m_dir;
    UniqueFd m_root;
};

TEST_P(Beneath, OpensAndCreatesNamesInsideTheFolder) {
    platform::fault_reset_counts();
    UniqueFd file(open("a/b/f.txt", O_RDONLY));
    ASSERT_TRUE(file);
    char c = 0;
    EXPECT_EQ(::read(file.get(), &c, 1), 1);
    EXPECT_EQ(c, 'f');
    UniqueFd folder(open("a/b", O_PATH | O_DIRECTORY));
    EXPECT_TRUE(folder);
    UniqueFd created(open("a/./b//new", O_RDWR | O_CREAT | O_EXCL, 0600));
    EXPECT_TRUE(created);
    EXPECT_TRUE(exists(m_dir / "dest/a/b/new"));
    // The walk opens one folder per component; openat2 needs nothing else.
    EXPECT_EQ(platform::fault_calls(Sys::openat) > 0, walking());
    EXPECT_EQ(fcntl(created.get(), F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
}

TEST_P(Beneath, NeverFollowsALinkNorClimbsOut) {
    for (const char* name : {"a/L/secret", "a/R/secret", "a/L", "a/R"}) {
        EXPECT_EQ(error_of(name, O_RDONLY), ELOOP) << name;
        EXPECT_EQ(error_of(name, O_PATH), ELOOP) << name;
    }
    EXPECT_EQ(error_of("a/L", O_PATH | O_DIRECTORY), ELOOP);
    EXPECT_EQ(error_of("a/L/new", O_RDWR | O_CREAT), ELOOP);
    EXPECT_EQ(error_of("a/L", O_RDWR | O_CREAT | O_TRUNC), ELOOP);
    for (const char* name : {"..", "../out/secret", "a/../../out/secret", "a/b/../f", "/etc"}) {
        EXPECT_EQ(error_of(name, O_RDONLY), EXDEV) << name;
    }
    EXPECT_EQ(error_of("", O_RDONLY), ENOENT);
    EXPECT_EQ(error_of("a/b/f.txt/x", O_RDONLY), ENOTDIR);
    EXPECT_EQ(error_of("a/missing/x", O_RDWR | O_CREAT), ENOENT);
    EXPECT_EQ(qvxtest::read_file(m_dir / "out/secret"), "secret");
    EXPECT_FALSE(exists(m_dir / "out/new"));
}

TEST_P(Beneath, RemovesAndCreatesOneNameInAFolder) {
    UniqueFd a(open("a", O_PATH | O_DIRECTORY));
    ASSERT_TRUE(a);
    // A link to a folder goes as a link; the folder it names stays whole.
    EXPECT_TRUE(qvx::remove_tree_at(a.get(), "L"));
    EXPECT_FALSE(exists(m_dir / "dest/a/L"));
    EXPECT_TRUE(exists(m_dir / "out/secret"));
    // A folder goes with what is in it, an outward link inside it as a link.
    ASSERT_EQ(::symlink((m_dir / "out").c_str(), (m_dir / "dest/a/b/o").c_str()), 0);
    EXPECT_TRUE(qvx::remove_tree_at(a.get(), "b"));
    EXPECT_FALSE(exists(m_dir / "dest/a/b"));
    EXPECT_TRUE(exists(m_dir / "out/secret"));

    qvxtest::write_file(m_dir / "dest/a/file", "keep");
    EXPECT_FALSE(qvx::remove_tree_at(a.get(), "file"));
    EXPECT_TRUE(exists(m_dir / "dest/a/file"));
    errno = 0;
    EXPECT_FALSE(qvx::remove_tree_at(m_root.get(), "a/file"));
    EXPECT_EQ(errno, EINVAL);

    uint32_t result = 0;
    EXPECT_TRUE(qvx::make_directory_at(a.get(), "d", &result));
    EXPECT_FALSE(qvx::make_directory_at(a.get(), "d", &result));
    EXPECT_EQ(result, qvx::kResultFailure);
    EXPECT_FALSE(qvx::make_directory_at(m_root.get(), "a/e", &result));
    EXPECT_FALSE(exists(m_dir / "dest/a/e"));
}

TEST_P(Beneath, HostFileCreatesOnlyNewFilesAndUnlinksLinksAsLinks) {
    qvxtest::LogCapture log;
    UniqueFd a(open("a", O_PATH | O_DIRECTORY));
    ASSERT_TRUE(a);
    qvx::CHostFile file;
    uint32_t result = 0;
    ASSERT_TRUE(file.open_at(a.get(), "new", false, false, false, &result));
    EXPECT_EQ(file.write_(const_cast<char*>("xy"), 2), 2);
    file.close();
    // Creating never truncates what is already there, nor writes through a link.
    EXPECT_FALSE(file.open_at(a.get(), "new", false, false, false, &result));
    EXPECT_EQ(result, qvx::kResultFailure);
    EXPECT_EQ(qvxtest::read_file(m_dir / "dest/a/new"), "xy");
    EXPECT_FALSE(file.open_at(a.get(), "L", true, false, false, &result));
    EXPECT_TRUE(log.contains("CHostFile::open(L) failed: "));
    EXPECT_TRUE(file.open_at(a.get(), "new", true, true, false));

    EXPECT_TRUE(qvx::CHostFile::unlink_at(a.get(), "L"));
    EXPECT_TRUE(exists(m_dir / "out/secret"));
    EXPECT_FALSE(qvx::CHostFile::unlink_at(a.get(), "b"));
    EXPECT_TRUE(log.contains("CHostFile::unlink(b) failed: "));
}

INSTANTIATE_TEST_SUITE_P(Kernel, Beneath, ::testing::Values(false, true),
                         [](const auto& info) { return info.param ? "Walk" : "Openat2"; });

TEST(BeneathRetry, KeepsTryingWhileTheKernelAsksThenWalks) {
    TempDir dir;
    qvxtest::write_file(dir / "a/f", "f");
    UniqueFd root(::open(dir.path().c_str(), O_PATH | O_DIRECTORY));
    FaultScope faults;
    platform::fault_inject(Sys::openat2, 1, EAGAIN, true);
    UniqueFd fd(qvx::open_beneath(root.get(), "a/f", O_RDONLY));
    EXPECT_TRUE(fd);
    EXPECT_GT(platform::fault_calls(Sys::openat2), 1u);
    EXPECT_EQ(platform::fault_calls(Sys::openat), 2u) << "the walk: one folder, then the file";

    platform::fault_inject(Sys::openat2, 1, EACCES);
    errno = 0;
    EXPECT_EQ(qvx::open_beneath(root.get(), "a/f", O_RDONLY), -1);
    EXPECT_EQ(errno, EACCES) << "other failures are final";
    EXPECT_EQ(platform::fault_calls(Sys::openat), 0u);
}

}  // namespace
