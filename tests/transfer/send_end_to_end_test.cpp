// Guest-to-host transfers end to end: the transfer job through the real communicator to
// an in-process simulated host that stores the items, and the copy compared with the
// source item by item.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "hostsim/progress.h"
#include "hostsim/tree_sink.h"
#include "support/job_host.h"
#include "support/temp_dir.h"
#include "support/trees.h"

namespace {

using qvxtest::TempDir;
using Strings = std::vector<std::string>;

class SendEndToEnd : public ::testing::Test {
  protected:
    static void SetUpTestSuite() { s_jobs = new qvxtest::JobHost; }
    static void TearDownTestSuite() {
        delete s_jobs;
        s_jobs = nullptr;
    }
    void SetUp() override { ASSERT_TRUE(s_jobs->ready()); }

    // Sends `paths` under a new worker into a sink over hostFolder; the sink's result.
    hostsim::SinkResult send(const Strings& paths, hostsim::ProgressBoard* progress = nullptr) {
        hostsim::SinkOptions options;
        options.folder = hostFolder.path();
        options.progress = progress;
        hostsim::TreeSink sink(s_jobs->host(), options);
        const uint64_t worker = s_jobs->new_worker();
        EXPECT_EQ(s_jobs->send(paths, worker), 1);
        const auto result = sink.result(worker);
        EXPECT_TRUE(result);
        return result.value_or(hostsim::SinkResult{});
    }

    static qvxtest::JobHost* s_jobs;
    TempDir guest;
    TempDir hostFolder;
};

qvxtest::JobHost* SendEndToEnd::s_jobs = nullptr;

TEST_F(SendEndToEnd, EveryItemKindArrivesAsItIsAndTheProgressReachesTheTotals) {
    qvxtest::make_every_kind_tree(guest / "Tree", 3 * 131072 + 4321);
    qvxtest::write_file(guest / "chunk.dat", std::string(131072, 'c'));  // exactly one chunk

    hostsim::ProgressBoard progress;
    const hostsim::SinkResult result = send({guest / "Tree", guest / "chunk.dat"}, &progress);
    EXPECT_EQ(qvxtest::tree_differences(guest.path(), hostFolder.path()), Strings{});
    EXPECT_EQ(result.state, hostsim::SinkResult::State::Done) << result.refusal;
    EXPECT_EQ(result.items, qvxtest::tree_size(guest.path()));
    EXPECT_TRUE(result.totals_match()) << result.bytes << " of " << result.announcedBytes;

    const auto shown = progress.finished();
    ASSERT_EQ(shown.size(), 1u);
    EXPECT_EQ(shown[0].items, result.items);
    EXPECT_EQ(shown[0].bytes, result.announcedBytes);
    EXPECT_EQ(shown[0].result, "done");
}

TEST_F(SendEndToEnd, ItemsBeyondAPathAndBelowTheHeldFoldersArriveWhole) {
    // The listed folder sits under 4,016 bytes of path, and 30 levels below it every
    // folder holds a file and the next folder: the deeper items cannot be reached by
    // path, and the walk returns through folders it did not keep open.
    int fd = ::open(guest.path().c_str(), O_RDONLY | O_DIRECTORY);
    std::string prefix = guest.path();
    for (int i = 0; i < 16; ++i) {
        const std::string part(250, static_cast<char>('a' + i));
        ASSERT_EQ(::mkdirat(fd, part.c_str(), 0755), 0);
        const int next = ::openat(fd, part.c_str(), O_RDONLY | O_DIRECTORY);
        ::close(fd);
        fd = next;
        prefix += "/" + part;
    }
    ASSERT_EQ(::mkdirat(fd, "t", 0755), 0);
    int level = ::openat(fd, "t", O_RDONLY | O_DIRECTORY);
    for (int i = 0; i < 30; ++i) {
        const std::string file = "file" + std::to_string(i);
        const int out = ::openat(level, file.c_str(), O_WRONLY | O_CREAT, 0644);
        ASSERT_EQ(::write(out, file.data(), file.size()), static_cast<ssize_t>(file.size()));
        ::close(out);
        ASSERT_EQ(::mkdirat(level, "level", 0755), 0);
        const int next = ::openat(level, "level", O_RDONLY | O_DIRECTORY);
        ::close(level);
        level = next;
    }
    ::close(level);

    const hostsim::SinkResult result = send({prefix + "/t"});
    EXPECT_EQ(result.state, hostsim::SinkResult::State::Done) << result.refusal;
    EXPECT_TRUE(result.totals_match());
    EXPECT_EQ(result.items, 61u);

    // Moved up, the tree is within reach of paths again and can be compared by them.
    const int guestFd = ::open(guest.path().c_str(), O_RDONLY | O_DIRECTORY);
    ASSERT_EQ(::renameat(fd, "t", guestFd, "t"), 0);
    ::close(guestFd);
    ::close(fd);
    EXPECT_EQ(qvxtest::tree_differences(guest / "t", hostFolder / "t"), Strings{});
}

}  // namespace
