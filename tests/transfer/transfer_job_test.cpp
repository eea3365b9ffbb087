// Tests of the transfer job's branches: how each ends, and the delete job on real files.
#include "transfer/transfer_job.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <cerrno>
#include <string>
#include <vector>

#include "support/fault_scope.h"
#include "support/scripted_host.h"
#include "support/temp_dir.h"
#include "transfer/tree_receiver.h"

namespace {

using namespace qvx;
using qvxtest::ScriptedHost;
using qvxtest::TempDir;

using qvxtest::exists;

TransferJob delete_job(std::vector<std::string> paths) {
    TransferJob job;
    job.direction = kDirectionSend;
    job.action = kActionDelete;
    job.paths = std::move(paths);
    return job;
}

void expect_notice(const qvxtest::Request& r, uint32_t id, uint32_t code) {
    ASSERT_EQ(r.command(), 263u);
    EXPECT_EQ(le::get32(r.bytes.data(), 28), id);
    EXPECT_EQ(le::get32(r.bytes.data(), 2080), code);
    EXPECT_EQ(le::get16(r.bytes.data(), 32), 0u) << "the text is empty";
}

// A file system with 10 free blocks of 4 KiB, whatever the disk really has.
int small_disk(int, struct statvfs* st) {
    *st = {};
    st->f_bsize = 4096;
    st->f_bfree = 10;
    return 0;
}

TEST(TransferJob, DeleteRemovesFoldersFilesAndLinksAsLinks) {
    TempDir dir;
    qvxtest::write_file(dir / "outside/keep.txt", "keep");
    qvxtest::write_file(dir / "tree/a/b.txt", "b");
    qvxtest::write_file(dir / "file.txt", "f");
    // A link to a folder is removed as a link: its target stays.
    ASSERT_EQ(::symlink((dir / "outside").c_str(), (dir / "link").c_str()), 0);

    ScriptedHost host;
    RunTransferJob(delete_job({dir / "tree", dir / "file.txt", dir / "link"}), host.context());

    EXPECT_FALSE(exists(dir / "tree"));
    EXPECT_FALSE(exists(dir / "file.txt"));
    EXPECT_FALSE(exists(dir / "link"));
    EXPECT_TRUE(exists(dir / "outside/keep.txt"));
    ASSERT_EQ(host.commands(), std::vector<uint32_t>{260});
    EXPECT_EQ(le::get64(host.sent[0].bytes.data(), 12), ScriptedHost::kWorker);
}

TEST(TransferJob, EmptyDeleteAndOtherActionsOnlyClose) {
    TransferJob other;
    other.direction = kDirectionSend;
    other.action = 3;
    TransferJob unknownDirection;
    unknownDirection.direction = 7;
    for (const TransferJob& job : {delete_job({}), other, unknownDirection}) {
        ScriptedHost host;
        // A checked close reports a refusal; a plain one would not.
        host.answer({5});
        RunTransferJob(job, host.context());
        ASSERT_EQ(host.commands(), (std::vector<uint32_t>{260, 263}));
        expect_notice(host.sent[1], 4, 12);
    }
}

TEST(TransferJob, DeleteTriesEveryPathAndReportsFailuresOnce) {
    TempDir dir;
    qvxtest::write_file(dir / "one.txt", "1");
    qvxtest::write_file(dir / "three.txt", "3");
    ScriptedHost host;
    // The second path does not exist: its unlink fails, the third is still removed.
    RunTransferJob(delete_job({dir / "one.txt", dir / "missing", dir / "three.txt"}),
                   host.context());
    EXPECT_FALSE(exists(dir / "one.txt"));
    EXPECT_FALSE(exists(dir / "three.txt"));
    ASSERT_EQ(host.commands(), (std::vector<uint32_t>{263, 260}));
    expect_notice(host.sent[0], 4, 12);

    // The close after a failure is plain: a refusal of it brings no further notice.
    ScriptedHost refusing;
    refusing.answer({0, 5});
    RunTransferJob(delete_job({dir / "missing"}), refusing.context());
    EXPECT_EQ(refusing.commands(), (std::vector<uint32_t>{263, 260}));
}

TEST(TransferJob, ReceiveStopsAtTheFirstFailingStep) {
    TempDir dir;
    TransferJob job;
    job.direction = kDirectionReceive;
    job.destination = dir.path();

    // 280 answered 9: no notice, plain close.
    ScriptedHost quiet;
    quiet.answer({9, 5});
    RunTransferJob(job, quiet.context());
    EXPECT_EQ(quiet.commands(), (std::vector<uint32_t>{280, 260}));

    // 261 answered 5: its notice, then a plain close.
    ScriptedHost refused;
    refused.answer({0, 5, 0, 5});
    RunTransferJob(job, refused.context());
    EXPECT_EQ(refused.commands(), (std::vector<uint32_t>{280, 261, 263, 260}));

    // As many bytes announced as the destination has free: (4, 8, empty).
    qvxtest::FaultScope faults;
    faults.table().fstatvfs = small_disk;
    faults.install();
    ScriptedHost tooBig;
    tooBig.script.push_back({true, 0, nullptr});
    tooBig.script.push_back({true, 0, [](uint8_t* reply, size_t) { le::put64(reply, 28, 40960); }});
    RunTransferJob(job, tooBig.context());
    ASSERT_EQ(tooBig.commands(), (std::vector<uint32_t>{280, 261, 263, 260}));
    expect_notice(tooBig.sent[2], 4, 8);
}

TEST(FreeSpace, EqualIsNotEnoughAndUnmeasurableIsReported) {
    TempDir dir;
    qvxtest::FaultScope faults;
    faults.table().fstatvfs = small_disk;
    faults.install();
    uint64_t freeBytes = 0;
    ASSERT_TRUE(get_free_space(dir.path(), &freeBytes));
    EXPECT_EQ(freeBytes, 40960u);

    ScriptedHost host;
    EXPECT_TRUE(check_free_space(host.context(), dir.path(), 40959, 1));
    EXPECT_TRUE(host.sent.empty());
    EXPECT_FALSE(check_free_space(host.context(), dir.path(), 40960, 1));
    ASSERT_EQ(host.sent.size(), 1u);
    expect_notice(host.sent[0], 4, 8);
    EXPECT_FALSE(check_free_space(host.context(), dir.path(), UINT64_MAX, 1)) << "no wrap at 2^64";
    ASSERT_EQ(host.sent.size(), 2u);
    expect_notice(host.sent[1], 4, 8);

    EXPECT_FALSE(check_free_space(host.context(), dir / "missing", 0, 1));
    ASSERT_EQ(host.sent.size(), 3u);
    expect_notice(host.sent[2], 4, 11);
    platform::fault_inject(platform::Sys::fstatvfs, 1, EIO);
    EXPECT_FALSE(check_free_space(host.context(), dir.path(), 0, 1));
    ASSERT_EQ(host.sent.size(), 4u);
    expect_notice(host.sent[3], 4, 11);

    EXPECT_FALSE(check_free_space(host.context(), dir.path(), 40960, 0));
    EXPECT_EQ(host.sent.size(), 4u) << "report 0 sends nothing";
}

}  // namespace
