// CHostFile: opening, whole-buffer transfers, mode queries, positioned and vectored I/O.
#include "fs/host_file.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

#include "fs/fs_helpers.h"
#include "support/fault_scope.h"
#include "support/log_capture.h"
#include "support/temp_dir.h"

using platform::Sys;
using qvx::CHostFile;
using qvxtest::FaultScope;
using qvxtest::LogCapture;
using qvxtest::TempDir;

namespace {

std::vector<uint8_t> pattern(size_t n, uint8_t seed = 1) {
    std::vector<uint8_t> v(n);
    for (size_t i = 0; i < n; ++i) v[i] = static_cast<uint8_t>(seed + i * 7 + (i >> 8));
    return v;
}

off_t size_of(const std::string& path) {
    struct stat st {};
    return ::stat(path.c_str(), &st) == 0 ? st.st_size : -1;
}

}  // namespace

TEST(HostFileOpen, TruncatesUnlessOpeningExistingAndLogsFailures) {
    LogCapture log;
    TempDir dir;
    const std::string path = dir / "f";
    qvxtest::write_file(path, "hello");

    CHostFile keep;
    ASSERT_TRUE(keep.open(path.c_str(), true, true, false));
    EXPECT_EQ(size_of(path), 5);
    EXPECT_TRUE(keep.read_only());

    CHostFile file;
    uint32_t result = 0;
    ASSERT_TRUE(file.open(path.c_str(), false, false, true, &result));
    EXPECT_EQ(size_of(path), 0);
    EXPECT_EQ(result, 0u);
    EXPECT_TRUE(file.uncached());
    file.close();
    EXPECT_FALSE(file.is_open());

    const std::string missing = dir / "no/such";
    EXPECT_FALSE(file.open(missing.c_str(), false, false, false, &result));
    EXPECT_EQ(result, qvx::kResultFailure);
    EXPECT_EQ(file.fd(), -1);
    ASSERT_EQ(log.lines().size(), 1u);
    EXPECT_NE(log.lines()[0].find(" F /HostFile:"), std::string::npos);
    EXPECT_TRUE(log.contains("CHostFile::open(" + missing + ") failed: No such file or directory"));
}

// Root ignores permission bits, so the denied cases run in a child that becomes nobody.
TEST(HostFileOpen, ReportsAccessDeniedForUnwritableFolder) {
    LogCapture log;
    TempDir dir;
    const std::string locked = dir / "locked";
    qvxtest::make_dirs(locked);
    ASSERT_EQ(::chmod(dir.path().c_str(), 0755), 0);
    ASSERT_EQ(::chmod(locked.c_str(), 0555), 0);

    const pid_t pid = ::fork();
    ASSERT_NE(pid, -1);
    if (pid == 0) {
        if (::setgid(65534) != 0 || ::setuid(65534) != 0) ::_exit(10);
        CHostFile file;
        uint32_t openResult = 0;
        uint32_t dirResult = 0;
        const bool opened = file.open((locked + "/f").c_str(), false, false, false, &openResult);
        const bool made = qvx::make_directory((locked + "/d").c_str(), &dirResult);
        ::_exit(!opened && openResult == qvx::kResultAccessDenied && !made &&
                        dirResult == qvx::kResultAccessDenied
                    ? 0
                    : 1);
    }
    int status = 0;
    ASSERT_EQ(::waitpid(pid, &status, 0), pid);
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0) << "10: could not drop privileges, 1: wrong result";
}

TEST(HostFileOpen, WorldWritableAppliesOnlyToNewFiles) {
    LogCapture log;
    TempDir dir;
    const std::string path = dir / "w";
    const mode_t oldMask = ::umask(022);
    FaultScope faults;

    CHostFile file;
    ASSERT_TRUE(file.open(path.c_str(), false, false, false, nullptr, true));
    EXPECT_EQ(platform::fault_calls(Sys::fchmod), 1u);
    struct stat st {};
    ASSERT_EQ(::stat(path.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0666u);

    platform::fault_reset_counts();
    ASSERT_TRUE(file.open(path.c_str(), true, false, false, nullptr, true));
    EXPECT_EQ(platform::fault_calls(Sys::fchmod), 0u);

    // A failed fchmod closes what it opened, leaves the result alone and keeps the file.
    file.close();
    const int fds = qvxtest::open_fd_count();
    const std::string other = dir / "x";
    uint32_t result = 7;
    platform::fault_inject(Sys::fchmod, 1, EPERM);
    EXPECT_FALSE(file.open(other.c_str(), false, false, false, &result, true));
    EXPECT_EQ(result, 7u);
    EXPECT_FALSE(file.is_open());
    EXPECT_EQ(qvxtest::open_fd_count(), fds);
    EXPECT_EQ(size_of(other), 0);
    EXPECT_TRUE(log.contains("CHostFile::open(" + other +
                             ") failed to set the world-writable permission: Operation not "
                             "permitted"));
    ::umask(oldMask);
}

TEST(HostFileOpen, AtFolderNeverFollowsALinkNorWaitsForAPipe) {
    LogCapture log;
    TempDir dir;
    qvxtest::write_file(dir / "f", "data");
    ASSERT_EQ(::symlink("f", (dir / "l").c_str()), 0);
    ASSERT_EQ(::mkfifo((dir / "p").c_str(), 0600), 0);
    const int dirFd = ::open(dir.path().c_str(), O_RDONLY | O_DIRECTORY);
    ASSERT_GE(dirFd, 0);

    CHostFile file;
    ASSERT_TRUE(file.open_at(dirFd, "f", true, true, false));
    char buffer[8] = {};
    EXPECT_EQ(file.transfer_all(&CHostFile::read_, buffer, sizeof buffer), 4);

    uint32_t result = 0;
    EXPECT_FALSE(file.open_at(dirFd, "l", true, true, false, &result));
    EXPECT_EQ(result, qvx::kResultFailure);
    EXPECT_TRUE(log.contains("CHostFile::open(l) failed: Too many levels of symbolic links"));

    // Opening a pipe without a writer would otherwise hang the transfer.
    ASSERT_TRUE(file.open_at(dirFd, "p", true, true, false));
    EXPECT_EQ(file.transfer_all(&CHostFile::read_, buffer, sizeof buffer), 0);
    file.close();
    ::close(dirFd);
}

namespace {
std::vector<size_t> g_readLengths;
ssize_t recording_read(int fd, void* buffer, size_t length) {
    g_readLengths.push_back(length);
    return ::read(fd, buffer, length);
}
}  // namespace

TEST(HostFileTransferAll, SlicesAtThirtyTwoMegabytes) {
    LogCapture log;
    TempDir dir;
    const std::string path = dir / "big";
    constexpr uint64_t kSize = 40ull << 20;
    {
        const int fd = ::open(path.c_str(), O_CREAT | O_WRONLY, 0644);
        ASSERT_EQ(::ftruncate(fd, static_cast<off_t>(kSize)), 0);  // sparse: reads as zeros
        ::close(fd);
    }
    FaultScope faults;
    faults.table().read = recording_read;
    faults.install();
    g_readLengths.clear();

    CHostFile file;
    ASSERT_TRUE(file.open(path.c_str(), true, true, false));
    std::vector<uint8_t> buffer(kSize + 100, 0xAB);
    EXPECT_EQ(file.transfer_all(&CHostFile::read_, buffer.data(), kSize), int64_t(kSize));
    // The kernel may hand back less than asked; the first request is what must be sliced.
    ASSERT_GE(g_readLengths.size(), 2u);
    EXPECT_EQ(g_readLengths[0], 32u << 20);
    if (g_readLengths.size() == 2) {
        EXPECT_EQ(g_readLengths[1], 8u << 20);
    }
    EXPECT_EQ(buffer[kSize - 1], 0);
    EXPECT_EQ(buffer[kSize], 0xAB);

    // Size 0 calls nothing; a request past the end returns the short total.
    g_readLengths.clear();
    EXPECT_EQ(file.transfer_all(&CHostFile::read_, buffer.data(), 0), 0);
    EXPECT_TRUE(g_readLengths.empty());
    ASSERT_EQ(file.seek(kSize - 10, SEEK_SET), kSize - 10);
    EXPECT_EQ(file.transfer_all(&CHostFile::read_, buffer.data(), 1000), 10);
    EXPECT_TRUE(log.lines().empty());
}

TEST(HostFileTransferAll, RetriesInterruptedAndContinuesShortCalls) {
    LogCapture log;
    TempDir dir;
    const std::string path = dir / "f";
    const auto data = pattern(10000);
    FaultScope faults;

    CHostFile file;
    ASSERT_TRUE(file.open(path.c_str(), false, false, false));
    platform::fault_inject(Sys::write, 2, EINTR);
    platform::fault_short_io(1000);
    auto* bytes = const_cast<uint8_t*>(data.data());
    EXPECT_EQ(file.transfer_all(&CHostFile::write_, bytes, data.size()), 10000);
    EXPECT_EQ(platform::fault_calls(Sys::write), 11u);  // ten slices and the interrupted one
    EXPECT_EQ(log.count("CHostFile::write_("), 1u);
    EXPECT_TRUE(log.contains(", 9000) failed: Interrupted system call"));

    platform::fault_clear();
    ASSERT_EQ(file.seek(0, SEEK_SET), 0u);
    std::vector<uint8_t> back(data.size());
    platform::fault_inject(Sys::read, 1, EIO);
    EXPECT_EQ(file.transfer_all(&CHostFile::read_, back.data(), back.size()), -1);
    platform::fault_inject(Sys::read, 1, EINTR);  // retried like a write
    EXPECT_EQ(file.transfer_all(&CHostFile::read_, back.data(), back.size()), 10000);
    EXPECT_EQ(platform::fault_calls(Sys::read), 2u);
    EXPECT_EQ(back, data);
}

TEST(HostFileStatic, FailuresReturnSentinelsAndLogOneLineEach) {
    LogCapture log;
    TempDir dir;
    const std::string missing = dir / "gone";
    CHostFile closed;
    EXPECT_EQ(closed.seek(5, SEEK_SET), UINT64_MAX);
    EXPECT_FALSE(closed.resize(9));
    EXPECT_FALSE(closed.flush());
    EXPECT_FALSE(CHostFile::unlink(missing.c_str()));
    EXPECT_FALSE(CHostFile::rename(missing.c_str(), (dir / "b").c_str()));
    EXPECT_EQ(CHostFile::get_file_size(missing.c_str()), UINT64_MAX);
    const std::vector<std::string> expected = {
        "CHostFile::seek(5) failed: Bad file descriptor",
        "CHostFile::resize(9) failed: Bad file descriptor",
        "CHostFile::unlink(" + missing + ") failed: No such file or directory",
        "CHostFile::rename(" + missing + " -> " + dir.path() +
            "/b) failed: No such file or directory",
        "CHostFile::get_file_size(" + missing + ") failed: No such file or directory",
    };
    const auto lines = log.lines();
    ASSERT_EQ(lines.size(), expected.size());  // flush logs nothing
    for (size_t i = 0; i < expected.size(); ++i) {
        EXPECT_NE(lines[i].find(expected[i] + "\n"), std::string::npos) << lines[i];
    }
}

TEST(HostFileGetMode, SilentForMissingPathsAndRateLimitedOtherwise) {
    LogCapture log;
    TempDir dir;
    qvxtest::write_file(dir / "file", "x");
    ASSERT_EQ(::symlink("loop", (dir / "loop").c_str()), 0);
    uint32_t mode = 0;
    bool usable = false;

    EXPECT_FALSE(CHostFile::get_mode((dir / "none").c_str(), &mode, true, &usable));
    EXPECT_TRUE(usable);
    EXPECT_FALSE(CHostFile::get_mode((dir / "file/below").c_str(), &mode, false, &usable));
    EXPECT_FALSE(usable);
    EXPECT_TRUE(log.lines().empty());

    qvx::RateLimiter& limiter = qvx::host_file_rate_limiter();
    limiter.last = 0xFFFFFFFF;
    const std::string loop = dir / "loop";
    const bool found = CHostFile::get_mode(loop.c_str(), &mode, true, &usable);
    const int error = errno;
    EXPECT_FALSE(found);
    EXPECT_TRUE(usable);
    EXPECT_EQ(error, ELOOP);
    {
        FaultScope faults;
        platform::fault_inject(Sys::lstat, 1, EIO, true);
        EXPECT_FALSE(CHostFile::get_mode(loop.c_str(), &mode, false, &usable));
        ASSERT_EQ(log.lines().size(), 1u);  // within the window: suppressed
        // Pretend the last line is six seconds old rather than waiting for it.
        limiter.last = static_cast<uint32_t>(qvx::monotonic_ms() / 1000) - 6;
        EXPECT_FALSE(CHostFile::get_mode(loop.c_str(), &mode, false, &usable));
    }
    const auto lines = log.lines();
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_NE(lines[0].find("CHostFile::get_mode(" + loop +
                            ") stat failed: Too many levels of symbolic links"),
              std::string::npos);
    EXPECT_NE(lines[1].find("CHostFile::get_mode(" + loop + ") lstat failed: Input/output error"),
              std::string::npos);
}

namespace {
ssize_t accepts_nothing(int, const void*, size_t, off_t) {
    return 0;
}
}  // namespace

TEST(HostFilePositioned, ReportsFullDeviceStalledWritesAndPartialProgress) {
    LogCapture log;
    const auto data = pattern(10000);
    const int full = ::open("/dev/full", O_WRONLY);
    if (full == -1) GTEST_SKIP() << "no /dev/full";
    EXPECT_EQ(CHostFile::pwrite_all(full, data.data(), data.size(), 0), qvx::kIoNoSpace);
    ::close(full);

    TempDir dir;
    const int fd = ::open((dir / "f").c_str(), O_CREAT | O_RDWR, 0644);
    ASSERT_NE(fd, -1);
    {
        FaultScope faults;
        faults.table().pwrite = accepts_nothing;
        faults.install();
        EXPECT_EQ(CHostFile::pwrite_all(fd, data.data(), data.size(), 0), qvx::kIoFailed);
    }
    FaultScope faults;
    platform::fault_short_io(4096);
    EXPECT_EQ(CHostFile::pwrite_all(fd, data.data(), data.size(), 0), 10000);
    EXPECT_TRUE(log.lines().empty());  // partial lines need verbosity 3

    qvx::log_set_verbosity(3);
    std::vector<uint8_t> back(data.size() + 10);
    EXPECT_EQ(CHostFile::pread_all(fd, back.data(), back.size(), 0), 10000);
    qvx::log_set_verbosity(-1);
    back.resize(data.size());
    EXPECT_EQ(back, data);
    const auto lines = log.lines();
    ASSERT_EQ(lines.size(), 3u);  // 4096, 4096, 1808, then end of file
    EXPECT_NE(lines[2].find("offs 2000, size a, res 710"), std::string::npos);
    EXPECT_NE(lines[0].find(" D /HostFile:"), std::string::npos);
    EXPECT_NE(lines[0].find("recovered partial read: fd " + std::to_string(fd) +
                            ", offs 0, size 171a, res 1000"),
              std::string::npos);
    EXPECT_NE(lines[1].find("offs 1000, size 71a, res 1000"), std::string::npos);

    platform::fault_inject(Sys::pread, 1, EBADF);
    EXPECT_EQ(CHostFile::pread_all(fd, back.data(), back.size(), 0), qvx::kIoFailed);
    ::close(fd);
}

TEST(HostFileVectored, BouncesOnlyForSeveralSegmentsAndNeverOverrunsOne) {
    LogCapture log;
    TempDir dir;
    const int fd = ::open((dir / "f").c_str(), O_CREAT | O_RDWR, 0644);
    ASSERT_NE(fd, -1);
    FaultScope faults;
    uint32_t bounces = 0;

    auto a = pattern(3, 10), b = pattern(5000, 20), c = pattern(7, 30);
    const qvx::IoSegment out[] = {{a.data(), 3}, {b.data(), 5000}, {c.data(), 7}};
    EXPECT_EQ(CHostFile::write_vectored(fd, out, 3, 100, 5010, &bounces), 5010);
    EXPECT_EQ(bounces, 1u);

    std::vector<uint8_t> ra(3), rb(5000), rc(7);
    const qvx::IoSegment in[] = {{ra.data(), 3}, {rb.data(), 5000}, {rc.data(), 7}};
    EXPECT_EQ(CHostFile::read_vectored(fd, in, 3, 100, 5010, &bounces), 5010);
    EXPECT_EQ(bounces, 2u);
    EXPECT_EQ(ra, a);
    EXPECT_EQ(rb, b);
    EXPECT_EQ(rc, c);

    platform::fault_reset_counts();
    std::vector<uint8_t> one(5000);
    const qvx::IoSegment single[] = {{one.data(), 5000}};
    EXPECT_EQ(CHostFile::read_vectored(fd, single, 1, 103, 1, &bounces), 5000);
    EXPECT_EQ(one, b);
    EXPECT_EQ(bounces, 2u);
    EXPECT_EQ(platform::fault_calls(Sys::valloc), 0u);

    // Totals that disagree with the segments: a read cut short by the end of the file fills
    // segments only that far, a total above the segments' sum pads the write with zeros.
    std::vector<uint8_t> x(3, 0xEE), y(5000, 0xEE);
    const qvx::IoSegment partial[] = {{x.data(), 3}, {y.data(), 5000}};
    EXPECT_EQ(CHostFile::read_vectored(fd, partial, 2, 5100, 5003, &bounces), 10);  // EOF
    EXPECT_EQ(x[0], b[4997]);
    EXPECT_EQ(y[6], c[6]);
    EXPECT_EQ(y[7], 0xEE);  // past the bytes read: untouched

    const qvx::IoSegment shortOut[] = {{a.data(), 3}, {c.data(), 7}};
    EXPECT_EQ(CHostFile::write_vectored(fd, shortOut, 2, 0, 20, &bounces), 20);
    std::vector<uint8_t> tail(10, 0xEE);
    ASSERT_EQ(::pread(fd, tail.data(), 10, 10), 10);
    EXPECT_EQ(tail, std::vector<uint8_t>(10, 0));

    platform::fault_inject(Sys::valloc, 1, ENOMEM);
    errno = 0;
    EXPECT_EQ(CHostFile::read_vectored(fd, in, 3, 0, 5010, &bounces), qvx::kIoNoMemory);
    EXPECT_EQ(errno, ENOMEM);
    EXPECT_EQ(bounces, 4u);
    EXPECT_TRUE(log.lines().empty());
    ::close(fd);

    CHostFile::warn_verification_unavailable();
    EXPECT_TRUE(
        log.contains("WARNING: file read/write verification can be enabled in debug build only"));
}
