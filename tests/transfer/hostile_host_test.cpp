// Receives from a hostile host: every attack of the simulated host's catalogue, and a
// folder swapped for a link to the outside while a thousand items arrive. Whatever the
// host sends, nothing beside the destination is created, changed or removed, the job
// ends with one 260, and the next transfer of the same process arrives whole.
#include "hostsim/hostile.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <map>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "support/fault_scope.h"
#include "support/job_host.h"
#include "support/source_host.h"
#include "support/temp_dir.h"
#include "support/tree_snapshot.h"
#include "text/encoding.h"
#include "transfer/records.h"
#include "transfer/transfer_job.h"

namespace {

using namespace qvxtest;
using hostsim::SourceItem;

// What an attack must end with, beyond the outside being untouched: the codes of the
// (4, code) notices the guest sent, those of its (3, code) notices (an item it would not
// create, which the host skips), and an item the attack is allowed to leave, with its
// content ("" for a folder, "->" and a target for a link).
struct Outcome {
    std::vector<uint32_t> failures;
    std::vector<uint32_t> refusals;
    std::string leaves;
    std::string content;
};

const std::vector<uint32_t> kMalformed{12};
const std::vector<uint32_t> kNotCreated{3};

// The 1023-unit name, four folders of 254 letters deep.
const std::string kDeepName = std::string(254, 'a') + "/" + std::string(254, 'b') + "/" +
                              std::string(254, 'c') + "/" + std::string(254, 'd') + "/ok";

const std::map<std::string, Outcome>& outcomes() {
    static const std::map<std::string, Outcome> table = {
        {"dotdot-first", {{}, kNotCreated, "", ""}},
        {"dotdot-climb", {{}, kNotCreated, "a", ""}},
        {"dotdot-last", {{}, kNotCreated, "a", ""}},
        {"dotdot-unrooted", {{}, kNotCreated, "", ""}},
        {"dotdot-slashes", {{}, kNotCreated, "a", ""}},
        {"dot-first", {{}, kNotCreated, "", ""}},
        {"dot-last", {{}, kNotCreated, "a", ""}},
        {"empty-component", {{}, kNotCreated, "a", ""}},
        {"empty-leaf", {{}, kNotCreated, "a", ""}},
        {"separator-only", {{}, kNotCreated, "", ""}},
        {"no-leading-separator", {{}, {}, "x", "unrooted"}},
        {"nul-in-name", {{}, kNotCreated, "", ""}},
        {"name-length-1023", {{}, {}, kDeepName, "long"}},
        {"name-length-1024", {kMalformed, {}, "", ""}},
        {"name-length-max", {kMalformed, {}, "", ""}},
        {"name-length-past-units", {{}, kNotCreated, "", ""}},
        {"name-length-zero", {kMalformed, {}, "", ""}},
        {"replace-link-with-folder", {{}, {}, "L/x", "in the new folder"}},
        {"replace-link-with-file", {{}, {}, "L", "overwritten?"}},
        {"swap-folder-before-times", {{}, {}, "d-moved/x", "x"}},
        {"file-then-folder", {{6}, {}, "n", "x"}},
        {"folder-then-file", {{6}, {}, "n/x", "x"}},
        {"link-length-odd", {{}, kNotCreated, "", ""}},
        {"link-length-past-received", {{}, kNotCreated, "f", std::string(512, 'A')}},
        {"link-target-nul", {{}, kNotCreated, "", ""}},
        {"link-13-forever", {{}, kNotCreated, "", ""}},
        {"data-more-than-asked", {{}, {4}, "", ""}},
        {"file-size-max", {{}, kNotCreated, "after", "after"}},
        {"totals-max", {{8}, {}, "", ""}},
        {"levels-beyond-names", {{}, {2}, "l1", ""}},
        {"link-root-through", {{}, kNotCreated, "L", "->/"}},
        {"link-root-through-folder", {{}, kNotCreated, "L", "->/"}},
        {"link-up-through", {{}, kNotCreated, "L", "->../.."}},
        {"link-up-through-folder", {{}, kNotCreated, "L", "->../.."}},
        {"link-outside-through", {{}, kNotCreated, "L", "->outside"}},
        {"link-outside-through-folder", {{}, kNotCreated, "L", "->outside"}},
    };
    return table;
}

std::string content_of(const std::string& path) {
    struct stat st {};
    if (::lstat(path.c_str(), &st) != 0) return "<missing>";
    if (S_ISDIR(st.st_mode)) return "";
    if (S_ISLNK(st.st_mode)) {
        char target[4096];
        const ssize_t n = ::readlink(path.c_str(), target, sizeof target);
        return "->" + std::string(target, n > 0 ? static_cast<size_t>(n) : 0);
    }
    return read_file(path);
}

// A sentinel tree beside the destination: what an attack would climb into or aim at.
void make_sentinel(const TempDir& dir) {
    write_file(dir / "outside/victim", "victim");
    write_file(dir / "outside/x", "not to be replaced");
    write_file(dir / "outside/sub/deep.txt", "deep");
    // The folders the attacks' names go through, there to be written into by a guest that
    // follows a link to here.
    for (const char* folder : {"d", "s0", "s1", "s2"})
        make_dirs(dir / ("outside/" + std::string(folder)));
    ASSERT_EQ(::symlink("victim", (dir / "outside/to-victim").c_str()), 0);
    ASSERT_EQ(::chmod((dir / "outside").c_str(), 0755), 0);
    write_file(dir / "beside.txt", "beside");
    make_dirs(dir / "dest");
}

class HostileHost : public ::testing::TestWithParam<bool> {
  protected:
    static void SetUpTestSuite() { s_jobs = new JobHost; }
    static void TearDownTestSuite() {
        delete s_jobs;
        s_jobs = nullptr;
    }
    void SetUp() override {
        ASSERT_TRUE(s_jobs->ready());
        // The component walk stands in for openat2 where the kernel lacks it.
        if (GetParam()) m_faults.force_component_walk();
    }

    // A plain transfer right after an attack arrives whole: the tool still serves.
    void expect_still_serving() {
        TempDir dir;
        make_dirs(dir / "dest");
        auto source = std::make_shared<hostsim::TreeSource>(
            std::vector<SourceItem>{folder(u"\\d"), file(u"\\d\\f", "after the attack", 2),
                                    end_of(2), link(u"\\l", u"d\\f"), end_of(1)});
        EXPECT_EQ(s_jobs->receive(source, dir / "dest", s_jobs->new_worker()), 1);
        EXPECT_EQ(read_file(dir / "dest/d/f"), "after the attack");
        EXPECT_EQ(read_file(dir / "dest/l"), "after the attack");
        EXPECT_EQ(source->ends(), 1u);
    }

    static JobHost* s_jobs;
    FaultScope m_faults;
};

JobHost* HostileHost::s_jobs = nullptr;

TEST_P(HostileHost, EveryAttackLeavesTheOutsideAloneAndEndsWithOne260) {
    const std::vector<std::string> names = hostsim::hostile_attack_names();
    ASSERT_EQ(names.size(), outcomes().size()) << "every attack has its outcome here";
    for (const std::string& name : names) {
        SCOPED_TRACE(name);
        TempDir dir;
        make_sentinel(dir);
        hostsim::HostileSetting setting;
        setting.outside = dir / "outside";
        setting.outsideFile = dir / "outside/victim";
        setting.guestFolder = dir / "dest";
        const auto attack = hostsim::hostile_attack(name, setting);
        ASSERT_TRUE(attack);
        const Outcome& expected = outcomes().at(name);
        const TreeSnapshot before = snapshot_tree(dir.path(), {"dest"});

        const auto source = hostsim::hostile_source(*attack);
        EXPECT_EQ(s_jobs->receive(source, dir / "dest", s_jobs->new_worker()), 1);
        EXPECT_EQ(source->ends(), 1u);

        EXPECT_EQ(tree_changes(before, snapshot_tree(dir.path(), {"dest"})), "");
        std::vector<uint32_t> failures, refusals;
        for (const auto& n : source->notices()) {
            if (n.dialogId == 4) failures.push_back(n.code);
            if (n.dialogId == 3) refusals.push_back(n.code);
        }
        EXPECT_EQ(failures, expected.failures);
        EXPECT_EQ(refusals, expected.refusals);

        if (!expected.leaves.empty()) {
            std::string content = expected.content;
            if (content == "->outside") content = "->" + setting.outside;
            EXPECT_EQ(content_of(dir / ("dest/" + expected.leaves)), content);
        }
        expect_still_serving();
    }
}

// While a thousand items arrive, a thread swaps the folder they go into for a link to the
// outside and back, as fast as it can. The receive may stop at a link it meets or skip an
// item whose folder is away, and starts again until a thousand items were handed out;
// nothing ever lands outside.
TEST_P(HostileHost, FolderSwappedForALinkOverAndOverLeadsNothingOutside) {
    TempDir dir;
    make_sentinel(dir);
    const std::string dest = dir / "dest";
    // The swapped folder is the last component of some items' folders and passes on the
    // way to others'.
    std::vector<SourceItem> items{folder(u"\\d")};
    for (int s = 0; s < 3; ++s) {
        const std::u16string sub = u"\\d\\s" + qvx::Utf8ToUtf16(std::to_string(s));
        items.push_back(folder(sub, 2));
        for (int i = 0; i < 200; ++i)
            items.push_back(file(sub + u"\\f" + qvx::Utf8ToUtf16(std::to_string(i)), "x", 3));
        items.push_back(end_of(3));
        for (int i = 0; i < 132; ++i)
            items.push_back(
                file(u"\\d\\g" + qvx::Utf8ToUtf16(std::to_string(s * 1000 + i)), "x", 2));
    }
    items.push_back(end_of(2));
    items.push_back(end_of(1));
    ASSERT_EQ(items.size() - 5, 1000u);  // and 5 ends of levels

    const TreeSnapshot before = snapshot_tree(dir.path(), {"dest"});
    std::atomic<bool> stop{false};
    std::atomic<uint64_t> swaps{0};
    const int destFd = ::open(dest.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
    ASSERT_GE(destFd, 0);
    std::thread swapper([&] {
        const std::string outside = dir / "outside";
        while (!stop.load(std::memory_order_relaxed)) {
            if (::renameat(destFd, "d", destFd, "d-away") != 0) {
                std::this_thread::yield();
                continue;
            }
            if (::symlinkat(outside.c_str(), destFd, "d") == 0) {
                swaps.fetch_add(1, std::memory_order_relaxed);
                std::this_thread::yield();
                struct stat st {};
                if (::fstatat(destFd, "d", &st, AT_SYMLINK_NOFOLLOW) == 0 && S_ISLNK(st.st_mode))
                    ::unlinkat(destFd, "d", 0);
            }
            // Back where it was, unless the receiver made a new one meanwhile.
            if (::renameat2(destFd, "d-away", destFd, "d", RENAME_NOREPLACE) != 0) {
                struct stat st {};
                if (::fstatat(destFd, "d-away", &st, AT_SYMLINK_NOFOLLOW) == 0)
                    ::renameat(destFd, "d-away", destFd,
                               ("old-" + std::to_string(swaps.load())).c_str());
            }
            std::this_thread::yield();
        }
    });

    uint64_t served = 0;
    int receives = 0;
    // Until a thousand items were handed out and the swapper has swapped a hundred times
    // meanwhile, whatever the scheduler gives it.
    while ((served < 1000 || swaps.load() < 100) && receives < 5000) {
        SourceHost host(items, {101, 102});
        qvx::TransferJob job;
        job.direction = qvx::kDirectionReceive;
        job.destination = dest;
        qvx::RunTransferJob(job, host.context());
        ++receives;
        served += host.source->items_served();
        size_t ends = 0;
        for (uint32_t c : host.commands()) ends += c == qvx::dnd::kCmdEnd;
        EXPECT_EQ(ends, 1u);
    }
    stop = true;
    swapper.join();
    ::close(destFd);
    EXPECT_GE(served, 1000u);
    EXPECT_GE(swaps.load(), 100u) << "the swapper hardly ran: no race was run";
    EXPECT_EQ(tree_changes(before, snapshot_tree(dir.path(), {"dest"})), "");
    expect_still_serving();
}

INSTANTIATE_TEST_SUITE_P(Kernel, HostileHost, ::testing::Values(false, true),
                         [](const auto& info) { return info.param ? "Walk" : "Openat2"; });

}  // namespace
