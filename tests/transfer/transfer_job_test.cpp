// Tests of the transfer job's branches: how each ends, and the delete job on real files.
#include "transfer/transfer_job.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <new>
#include <string>
#include <vector>

#include "support/fault_scope.h"
#include "support/scripted_host.h"
#include "support/source_host.h"
#include "support/temp_dir.h"
#include "transfer/tree_receiver.h"

// Allocations on this thread still to succeed before one throws; -1: none throws. The
// replacements below pair malloc with free, which the compiler cannot see through.
thread_local long g_allocationsLeft = -1;
#ifndef __clang__
#pragma GCC diagnostic ignored "-Wmismatched-new-delete"
#endif

void* operator new(size_t size) {
    if (g_allocationsLeft >= 0 && g_allocationsLeft-- == 0) throw std::bad_alloc();
    if (void* block = std::malloc(size == 0 ? 1 : size)) return block;
    throw std::bad_alloc();
}
void* operator new[](size_t size) {
    return ::operator new(size);
}
void* operator new(size_t size, const std::nothrow_t&) noexcept {
    try {
        return ::operator new(size);
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
}
void* operator new[](size_t size, const std::nothrow_t& tag) noexcept {
    return ::operator new(size, tag);
}
// Every form of delete, so that no block of ours reaches the sanitizers' own.
void operator delete(void* block) noexcept {
    std::free(block);
}
void operator delete(void* block, size_t) noexcept {
    std::free(block);
}
void operator delete[](void* block) noexcept {
    std::free(block);
}
void operator delete[](void* block, size_t) noexcept {
    std::free(block);
}
void operator delete(void* block, const std::nothrow_t&) noexcept {
    std::free(block);
}
void operator delete[](void* block, const std::nothrow_t&) noexcept {
    std::free(block);
}

namespace {

using namespace qvx;
using qvxtest::ScriptedHost;
using qvxtest::TempDir;

using qvxtest::exists;

// A delete of the items the paths name now, as a drag read now would have them.
TransferJob delete_job(std::vector<std::string> paths) {
    TransferJob job;
    job.direction = kDirectionSend;
    job.action = kActionDelete;
    job.identities = identify_items(paths);
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

// Between the drag and the delete, a folder on the way to a dragged item is swapped for a
// link to another one, and another dragged item is replaced: nothing but what was dragged
// is removed, and the paths that no longer lead to it fail the job.
TEST(TransferJob, DeleteRemovesOnlyTheItemsDragged) {
    TempDir dir;
    for (const char* f : {"shared/sub/x", "shared/sub/y", "outside/sub/x", "outside/sub/y",
                          "other/swapped/f", "keep/sub/f", "keep/other"})
        qvxtest::write_file(dir / f, "data");
    TransferJob job = delete_job(
        {dir / "shared/sub/x", dir / "shared/sub", dir / "other/swapped", dir / "keep/sub/.."});
    ASSERT_EQ(::rename((dir / "shared").c_str(), (dir / "shared-away").c_str()), 0);
    ASSERT_EQ(::symlink((dir / "outside").c_str(), (dir / "shared").c_str()), 0);
    ASSERT_EQ(::rename((dir / "other/swapped").c_str(), (dir / "swapped-away").c_str()), 0);
    qvxtest::write_file(dir / "other/swapped/new", "new");

    ScriptedHost host;
    RunTransferJob(job, host.context());
    for (const char* f : {"outside/sub/x", "outside/sub/y", "shared-away/sub/x", "swapped-away/f",
                          "other/swapped/new", "keep/sub/f", "keep/other"})
        EXPECT_TRUE(exists(dir / f)) << f;
    ASSERT_EQ(host.commands(), (std::vector<uint32_t>{263, 260}));
    expect_notice(host.sent[0], 4, 12);

    // Without the swaps the same paths go, all but the one through "..".
    ASSERT_EQ(::unlink((dir / "shared").c_str()), 0);
    ASSERT_EQ(::rename((dir / "shared-away").c_str(), (dir / "shared").c_str()), 0);
    std::filesystem::remove_all(dir / "other/swapped");
    ASSERT_EQ(::rename((dir / "swapped-away").c_str(), (dir / "other/swapped").c_str()), 0);
    RunTransferJob(job, host.context());
    EXPECT_FALSE(exists(dir / "shared/sub"));
    EXPECT_FALSE(exists(dir / "other/swapped"));
    EXPECT_TRUE(exists(dir / "keep/sub/f"));
    EXPECT_TRUE(exists(dir / "keep/other"));
}

// The n-th allocation of a job fails, for every n until a job runs without a failure:
// each run still ends with its one 260 and leaves no partial file. The host's own
// allocations (recording what it was sent) do not count.
TEST(TransferJob, OutOfMemoryAnywhereStillEndsTheJobWithOne260) {
    TempDir dir;
    qvxtest::write_file(dir / "send/f", std::string(200000, 's'));
    qvxtest::make_dirs(dir / "send/d");
    const std::vector<hostsim::SourceItem> tree{
        qvxtest::folder(u"\\d"), qvxtest::file(u"\\d\\f", std::string(200000, 'r'), 2),
        qvxtest::end_of(2), qvxtest::link(u"\\l", u"d"), qvxtest::end_of(1)};
    for (const bool receive : {true, false}) {
        long failed = 0;
        for (long n = 0;; ++n) {
            std::filesystem::remove_all(dir / "dest");
            qvxtest::make_dirs(dir / "dest");
            qvxtest::SourceHost host(tree);
            const DnDContext inner = host.context();
            const DnDContext ctx{inner.workerId, nullptr,
                                 [&inner](CommonMacCommunicator* c, const void* out, uint32_t size,
                                          void* reply, uint32_t replySize) {
                                     const long left = std::exchange(g_allocationsLeft, -1);
                                     const bool ok = inner.send(c, out, size, reply, replySize);
                                     g_allocationsLeft = left;
                                     return ok;
                                 }};
            TransferJob job;
            job.direction = receive ? kDirectionReceive : kDirectionSend;
            job.destination = dir / "dest";
            job.paths = {dir / "send"};
            g_allocationsLeft = n;
            RunTransferJob(job, ctx);
            const bool fired = g_allocationsLeft == -1;
            g_allocationsLeft = -1;
            EXPECT_EQ(host.of(260).size(), 1u) << n;
            EXPECT_EQ(host.commands().back(), 260u) << n;
            if (receive && exists(dir / "dest/d/f")) {
                EXPECT_EQ(qvxtest::read_file(dir / "dest/d/f").size(), 200000u) << n;
            }
            if (!fired || HasFailure()) break;
            ++failed;
        }
        EXPECT_GT(failed, 5) << receive;
    }
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
