// Names opened beneath a folder descriptor, through openat2 and through the component
// walk that stands in for it on older kernels.
#include "fs/beneath.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <string>

#include "fs/host_file.h"
#include "support/fault_scope.h"
#include "support/temp_dir.h"

using platform::Sys;
using qvx::UniqueFd;
using qvxtest::FaultScope;
using qvxtest::TempDir;

namespace {

int error_of(int root, const char* name, int flags) {
    errno = 0;
    UniqueFd fd(qvx::open_beneath(root, name, flags, 0644));
    return fd ? 0 : errno;
}

// With `walk`, openat2 answers ENOSYS, so every resolution takes the component walk.
class Beneath : public ::testing::TestWithParam<bool> {};

TEST_P(Beneath, OpensInsideAndNeverFollowsALinkNorClimbsOut) {
    FaultScope faults;
    if (GetParam()) faults.force_component_walk();
    TempDir dir;
    qvxtest::write_file(dir / "out/secret", "secret");
    qvxtest::write_file(dir / "dest/a/b/f", "f");
    ASSERT_EQ(::symlink((dir / "out").c_str(), (dir / "dest/a/L").c_str()), 0);
    ASSERT_EQ(::symlink("b", (dir / "dest/a/R").c_str()), 0);  // inside, still not passed
    UniqueFd root(::open((dir / "dest").c_str(), O_PATH | O_DIRECTORY));
    const int r = root.get();
    platform::fault_reset_counts();

    EXPECT_EQ(error_of(r, "a/./b//f", O_RDONLY), 0);
    EXPECT_EQ(error_of(r, "a/b", O_PATH | O_DIRECTORY), 0);
    EXPECT_EQ(error_of(r, "a/b/new", O_RDWR | O_CREAT | O_EXCL), 0);
    EXPECT_EQ(platform::fault_calls(Sys::openat) > 0, GetParam()) << "the walk opens each folder";
    for (const char* name : {"a/L/secret", "a/R/f", "a/L", "a/R"}) {
        for (int flags : {O_RDONLY, O_PATH, O_PATH | O_DIRECTORY, O_RDWR | O_CREAT | O_TRUNC})
            EXPECT_EQ(error_of(r, name, flags), ELOOP) << name << " " << flags;
    }
    EXPECT_EQ(error_of(r, "a/L/new", O_RDWR | O_CREAT), ELOOP);
    for (const char* name : {"..", "../out/secret", "a/../../out", "a/b/../f", "/etc"})
        EXPECT_EQ(error_of(r, name, O_RDONLY), EXDEV) << name;
    EXPECT_EQ(error_of(r, "", O_RDONLY), ENOENT);
    EXPECT_EQ(error_of(r, "a/b/f/x", O_RDONLY), ENOTDIR);
    EXPECT_EQ(error_of(r, "a/missing/x", O_RDWR | O_CREAT), ENOENT);
    EXPECT_EQ(qvxtest::read_file(dir / "out/secret"), "secret");
    EXPECT_EQ(::access((dir / "out/new").c_str(), F_OK), -1);
}

INSTANTIATE_TEST_SUITE_P(Kernel, Beneath, ::testing::Values(false, true),
                         [](const auto& info) { return info.param ? "Walk" : "Openat2"; });

TEST(BeneathRetry, KeepsTryingWhileTheKernelAsksThenWalks) {
    TempDir dir;
    qvxtest::write_file(dir / "a/f", "f");
    UniqueFd root(::open(dir.path().c_str(), O_PATH | O_DIRECTORY));
    FaultScope faults;
    platform::fault_inject(Sys::openat2, 1, EAGAIN, true);
    EXPECT_EQ(error_of(root.get(), "a/f", O_RDONLY), 0);
    EXPECT_GT(platform::fault_calls(Sys::openat2), 1u);
    EXPECT_EQ(platform::fault_calls(Sys::openat), 2u) << "the walk: one folder, then the file";

    platform::fault_inject(Sys::openat2, 1, EACCES);
    EXPECT_EQ(error_of(root.get(), "a/f", O_RDONLY), EACCES) << "other failures are final";
    EXPECT_EQ(platform::fault_calls(Sys::openat), 0u);
}

TEST(HostFileAt, CreatesOnlyOnAFreeName) {
    TempDir dir;
    qvxtest::write_file(dir / "f", "old");
    UniqueFd folder(::open(dir.path().c_str(), O_PATH | O_DIRECTORY));
    qvx::CHostFile file;
    uint32_t result = 0;
    EXPECT_FALSE(file.open_at(folder.get(), "f", false, false, false, &result));
    EXPECT_EQ(result, qvx::kResultFailure);
    EXPECT_EQ(qvxtest::read_file(dir / "f"), "old") << "never truncated";
    EXPECT_TRUE(file.open_at(folder.get(), "g", false, false, false, &result));
}

}  // namespace
