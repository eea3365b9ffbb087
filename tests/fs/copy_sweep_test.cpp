// A file copy through CHostFile with each system call failing in turn.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <string>
#include <vector>

#include "fs/host_file.h"
#include "support/fault_scope.h"
#include "support/log_capture.h"
#include "support/temp_dir.h"

using platform::Sys;
using qvx::CHostFile;

namespace {

// The copy the tree sender and receiver make between them: open, read all, create, write all.
bool copy_file(const std::string& from, const std::string& to, size_t size) {
    std::vector<uint8_t> buffer(size);
    CHostFile source;
    if (!source.open(from.c_str(), true, true, false)) return false;
    if (source.seek(0, SEEK_SET) != 0) return false;
    if (source.transfer_all(&CHostFile::read_, buffer.data(), size) != int64_t(size)) return false;
    CHostFile target;
    uint32_t result = 0;
    if (!target.open(to.c_str(), false, false, false, &result)) {
        return result == qvx::kResultFailure ? false
                                             : (ADD_FAILURE() << "result " << result, false);
    }
    if (target.seek(0, SEEK_SET) != 0) return false;
    return target.transfer_all(&CHostFile::write_, buffer.data(), size) == int64_t(size);
}

}  // namespace

struct SweepCase {
    Sys kind;
    int error;
};

class CopySweep : public ::testing::TestWithParam<SweepCase> {};

// An error fails the copy unless it hits a call whose result is not needed; an interrupted
// read or write is retried and never fails it.
TEST_P(CopySweep, FailedCallsFailTheCopyCleanly) {
    qvxtest::LogCapture log;
    qvxtest::TempDir dir;
    const std::string from = dir / "from", to = dir / "to";
    const std::string data(70000, 'q');
    qvxtest::write_file(from, data);
    qvxtest::FaultScope faults;
    const SweepCase param = GetParam();
    const int fds = qvxtest::open_fd_count();
    int failed = 0;

    const int runs = qvxtest::fault_sweep(param.kind, param.error, [&](int n) {
        ::unlink(to.c_str());
        log.clear();
        // Short calls make the copy take several reads and writes, so each gets its turn.
        platform::fault_short_io(30000);
        const bool copied = copy_file(from, to, data.size());
        EXPECT_EQ(qvxtest::open_fd_count(), fds) << "call " << n;
        if (copied) {
            EXPECT_EQ(qvxtest::read_file(to), data) << "call " << n;
        } else {
            ++failed;
            EXPECT_TRUE(platform::fault_fired()) << "call " << n;
            EXPECT_EQ(log.lines().size(), 1u) << "call " << n;
        }
    });
    if (param.error == EINTR) {
        EXPECT_EQ(runs, 3);
        EXPECT_EQ(failed, 0);
    } else {
        // open, seek and three reads each side; the cache advice (four calls) and the two
        // closes don't decide the outcome.
        EXPECT_EQ(runs, 16);
        EXPECT_EQ(failed, 10);
    }
}

INSTANTIATE_TEST_SUITE_P(Faults, CopySweep,
                         ::testing::Values(SweepCase{Sys::any, EIO}, SweepCase{Sys::read, EINTR},
                                           SweepCase{Sys::write, EINTR}));
