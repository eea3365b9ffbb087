// The tree receiver against the simulated host's tree source, in-process: what it creates,
// the messages it sends in which order, and that no host name or link leads it outside
// the destination, through openat2 and through the walk that stands in for it.
#include "transfer/tree_receiver.h"

#include <CoreServices/CoreServices.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <string>
#include <vector>

#include "support/fault_scope.h"
#include "support/source_host.h"
#include "support/temp_dir.h"
#include "text/encoding.h"
#include "transfer/transfer_job.h"

namespace {

using namespace qvx;
using namespace qvxtest;
using hostsim::SourceItem;
using hostsim::SourcePolicy;
using platform::Sys;
using Notices = std::vector<std::tuple<uint32_t, uint32_t, std::u16string>>;

const Notices kFailedOnly{{4u, 12u, u""}};
const SourcePolicy kReplaceOrSkip{101, 102};
const SourcePolicy kSkipExisting{102, 0};

uint64_t ticks(time_t unixSeconds) {
    return kTicks1601To1970 + static_cast<uint64_t>(unixSeconds) * kTicksPerSecond;
}

std::vector<uint32_t> u32s_at(const std::vector<const Request*>& requests, size_t offset) {
    std::vector<uint32_t> out;
    for (const Request* r : requests) out.push_back(le::get32(r->bytes.data(), offset));
    return out;
}

// Each test runs with the kernel's openat2 and again with the component walk.
class Receiver : public ::testing::TestWithParam<bool> {
  protected:
    void SetUp() override {
        if (GetParam()) m_faults.force_component_walk();
        write_file(m_dir / "outside/keep", "keep");
        make_dirs(m_dir / "dest");
    }
    std::string at(const std::string& relative) const { return m_dir / ("dest/" + relative); }
    uint32_t receive(SourceHost& host) { return receive_tree(host.context(), m_dir / "dest"); }
    void expect_outside_untouched() {
        EXPECT_EQ(read_file(m_dir / "outside/keep"), "keep");
        for (const char* n : {"x", "d", "outside/x", "outside/d"}) EXPECT_FALSE(exists(m_dir / n));
    }

    FaultScope m_faults;
    TempDir m_dir;
};

TEST_P(Receiver, FilesAndFoldersArriveWithEveryMessageInOrder) {
    SourceItem empty = file(u"\\empty", "");
    empty.modificationTime = ticks(1'000'000'000) + 1234;
    std::string big(300000, '\0');
    for (size_t i = 0; i < big.size(); ++i) big[i] = static_cast<char>(i * 7 + i / 1000);
    SourceHost host({folder(u"\\dir"), file(u"\\dir\\a.txt", "hello", 2), end_of(2), empty,
                     file(u"\\big", big), end_of(1)});
    EXPECT_EQ(receive(host), kTransferDone);
    EXPECT_EQ(read_file(at("dir/a.txt")), "hello");
    EXPECT_EQ(read_file(at("big")), big);
    const std::vector<uint32_t> big_file{272, 263, 769, 266, 268, 263, 268, 263, 268, 263, 267};
    std::vector<uint32_t> expected{272, 263, 769,                      // \dir
                                   272, 263, 769, 266, 268, 263, 267,  // \dir\a.txt
                                   272,                                // end of \dir
                                   272, 263, 769, 266, 267};           // \empty: no 268
    expected.insert(expected.end(), big_file.begin(), big_file.end());
    expected.push_back(272);
    EXPECT_EQ(host.commands(), expected);
    // Whole chunks, each received into a buffer of exactly its size, each followed by progress.
    EXPECT_EQ(u32s_at(host.of(268), 2128), (std::vector<uint32_t>{5, 131072, 131072, 37856}));
    EXPECT_EQ(host.of(268).back()->replySize, dnd::kMessageSize + 37856);
    const hostsim::ReceivedNotice progress = host.source->notices()[2];
    EXPECT_EQ(std::tuple(progress.dialogId, progress.code, progress.text),
              std::tuple(5u, 0u, std::u16string(u"\\dir\\a.txt")));
    EXPECT_EQ(u32s_at(host.of(266), 28), (std::vector<uint32_t>{0, 0, 0}));
    struct stat st {};
    ASSERT_EQ(::lstat(at("empty").c_str(), &st), 0);
    EXPECT_EQ(st.st_mtim.tv_sec, 1'000'000'000) << "an empty file gets its times too";
}

TEST_P(Receiver, LinkTargetBufferDoublesAndStopsAtItsLimit) {
    std::u16string target;
    for (int i = 0; i < 1000; ++i) target += u"ab\\";  // 6000 bytes: two 13s
    SourceHost host({link(u"\\L", target), end_of(1)});
    EXPECT_EQ(receive(host), kTransferDone);
    std::vector<size_t> sizes;
    for (const Request* r : host.of(769)) sizes.push_back(r->replySize);
    EXPECT_EQ(sizes, (std::vector<size_t>{2452, 4904, 9808}));
    char stored[4096] = {};
    ASSERT_EQ(::readlink(at("L").c_str(), stored, sizeof stored), 3000);
    EXPECT_EQ(std::string(stored, 6), "ab/ab/");

    SourceHost greedy({link(u"\\M", u"t"), end_of(1)});
    greedy.source->set_override([](hostsim::Exchange& ex, const SourceItem*) {
        return ex.command == 769 ? std::optional<uint32_t>(13) : std::nullopt;
    });
    EXPECT_EQ(receive(greedy), kTransferFailed);
    sizes.clear();
    for (const Request* r : greedy.of(769)) sizes.push_back(r->replySize);
    EXPECT_EQ(sizes, (std::vector<size_t>{2452, 4904, 9808, 19616, 39232, 67732}));
    EXPECT_EQ(greedy.questions(), (Notices{{3u, 3u, u"\\M"}}));
    EXPECT_FALSE(exists(at("M")));
}

TEST_P(Receiver, ExistingItemsAreKeptReplacedOrBlockTheReceive) {
    write_file(at("f"), "old");
    write_file(at("d/old.txt"), "old");
    ASSERT_EQ(::symlink((m_dir / "outside").c_str(), at("d/out").c_str()), 0);
    const std::vector<SourceItem> listing{
        file(u"\\f", "new"),       folder(u"\\d"), file(u"\\d\\new.txt", "new", 2), end_of(2),
        file(u"\\after", "after"), end_of(1)};
    SourceHost keep(listing, kSkipExisting);
    EXPECT_EQ(receive(keep), kTransferDone);
    EXPECT_EQ(read_file(at("f")), "old");
    EXPECT_TRUE(exists(at("d/old.txt")));
    EXPECT_FALSE(exists(at("d/new.txt"))) << "the host left out the skipped folder's items";
    EXPECT_EQ(read_file(at("after")), "after");
    EXPECT_EQ(keep.of(266).size(), 1u);
    EXPECT_EQ(keep.of(274).size(), 1u);
    EXPECT_EQ(keep.questions(), (Notices{{2u, 0u, u"\\f"}, {2u, 0u, u"\\d"}}));

    // Any answer but replace or skip stops the receive, and nothing is removed.
    SourceHost refused(listing, SourcePolicy{5, 0});
    EXPECT_EQ(receive(refused), kTransferFailed);
    EXPECT_EQ(read_file(at("f")), "old");
    EXPECT_EQ(refused.questions(), (Notices{{2u, 0u, u"\\f"}}));
    EXPECT_TRUE(refused.of(266).empty());

    SourceHost replace(listing, kReplaceOrSkip);
    EXPECT_EQ(receive(replace), kTransferDone);
    EXPECT_EQ(read_file(at("f")), "new");
    EXPECT_FALSE(exists(at("d/old.txt")));
    EXPECT_FALSE(exists(at("d/out"))) << "the link in the old folder went as a link";
    EXPECT_EQ(read_file(at("d/new.txt")), "new");
    expect_outside_untouched();

    // A folder cannot be unlinked as a file, nor a file removed as a folder.
    for (SourceItem blocker : {file(u"\\d", "x"), folder(u"\\f")}) {
        SourceHost blocked({blocker, end_of(2), end_of(1)}, kReplaceOrSkip);
        EXPECT_EQ(receive(blocked), kTransferFailed);
        EXPECT_EQ(blocked.questions(), (Notices{{2u, 0u, blocker.name}, {4u, 6u, blocker.name}}));
    }
    EXPECT_TRUE(exists(at("d/new.txt")));
}

TEST_P(Receiver, FolderMarkedNotToBeCreatedIsNeverCreated) {
    SourceItem marked = folder(u"\\m");
    marked.attributes |= 0x20000;
    // The host's answer to the 274 that skips it: 0 goes on, a stop ends the receive
    // without a notice of ours.
    for (const uint32_t skipAnswer : {0u, 9u, 100u}) {
        for (const SourcePolicy& policy : {kReplaceOrSkip, SourcePolicy{}}) {
            SourceHost host({marked, file(u"\\m\\x", "x", 2), end_of(2), end_of(1)}, policy);
            if (skipAnswer != 0) {
                host.source->set_override([skipAnswer](hostsim::Exchange& ex, const SourceItem*) {
                    return ex.command == 274 ? std::optional<uint32_t>(skipAnswer) : std::nullopt;
                });
            }
            const bool skipped = policy.onFailure == 102;
            EXPECT_EQ(receive(host), skipped && skipAnswer == 0 ? kTransferDone : kTransferFailed);
            EXPECT_EQ(host.questions(), (Notices{{3u, 3u, u"\\m"}})) << skipAnswer;
            EXPECT_EQ(host.of(274).size(), skipped ? 1u : 0u);
            EXPECT_FALSE(exists(at("m")));
        }
    }
}

TEST_P(Receiver, ItemsGetTimesModeAndLockTheLockLastAndNeverThroughALink) {
    SourceItem locked = file(u"\\locked", "l");
    locked.attributes = kAttrLocked;
    locked.mode = 0106604;  // set-user-ID and set-group-ID never arrive
    locked.creationTime = ticks(1'500'000'000);
    locked.modificationTime = ticks(1'600'000'000);
    SourceItem dir = folder(u"\\d");
    dir.mode = 042711;
    dir.modificationTime = ticks(1'500'000'000);
    SourceItem outward = link(u"\\L", Utf8ToUtf16(m_dir / "outside/keep"));
    outward.modificationTime = ticks(1'500'000'000);
    struct stat keep {};
    ASSERT_EQ(::stat((m_dir / "outside/keep").c_str(), &keep), 0);
    // The lock is the last metadata call: nothing may try to change a locked item.
    static std::string g_last;
    m_faults.table().utimensat = [](int d, const char* n, const struct timespec t[2], int f) {
        g_last = "times";
        return platform::real_syscalls()->utimensat(d, n, t, f);
    };
    m_faults.table().setxattr = [](const char* p, const char* n, const void* v, size_t s, int f) {
        g_last = n;
        return platform::real_syscalls()->setxattr(p, n, v, s, f);
    };
    m_faults.table().fsetxattr = [](int fd, const char* n, const void* v, size_t s, int f) {
        g_last = n;
        return platform::real_syscalls()->fsetxattr(fd, n, v, s, f);
    };
    m_faults.install();
    SourceHost host({outward, dir, end_of(2), locked, end_of(1)});
    EXPECT_EQ(receive(host), kTransferDone);
    EXPECT_EQ(g_last, "user.quorvex.nodeflags");

    struct stat st {};
    ASSERT_EQ(::lstat(at("locked").c_str(), &st), 0);
    EXPECT_EQ(std::tuple(st.st_mode & 07777, st.st_mtim.tv_sec), std::tuple(0604u, 1'600'000'000));
    ASSERT_EQ(::lstat(at("d").c_str(), &st), 0);
    EXPECT_EQ(std::tuple(st.st_mode & 07777, st.st_mtim.tv_sec), std::tuple(0711u, 1'500'000'000));
    ASSERT_EQ(::lstat(at("L").c_str(), &st), 0);
    EXPECT_EQ(st.st_mtim.tv_sec, 1'500'000'000) << "the link itself has the times";
    ASSERT_EQ(::stat((m_dir / "outside/keep").c_str(), &st), 0);
    EXPECT_EQ(st.st_mtim.tv_sec, keep.st_mtim.tv_sec) << "not what it names";
    FSRef ref;
    FSCatalogInfo info{};
    ASSERT_EQ(FSPathMakeRefWithOptions(reinterpret_cast<const UInt8*>(at("locked").c_str()), 0,
                                       &ref, nullptr),
              noErr);
    ASSERT_EQ(FSGetCatalogInfo(&ref, kFSCatInfoNodeFlags | kFSCatInfoCreateDate, &info, nullptr,
                               nullptr, nullptr),
              noErr);
    EXPECT_EQ(info.nodeFlags & kFSNodeLockedMask, kFSNodeLockedMask);
    const UInt32 created = info.createDate.lowSeconds;  // a packed field: copied, not bound
    EXPECT_EQ(created, ticks_to_catalog_seconds(locked.creationTime));
}

// A local process swaps a received file for a hard link to a file outside, once when its
// data is in and once right after the catalog has set its times and mode. Neither swap
// lets the rest of the item's information reach the outside file.
TEST_P(Receiver, ItemSwappedForAHardLinkBeforeOrAmidItsInformationLeavesTheOutsideAlone) {
    static std::string g_item, g_outside;
    g_item = at("f");
    g_outside = m_dir / "outside/keep";
    ASSERT_EQ(::chmod(g_outside.c_str(), 0640), 0);
    struct stat before {};
    ASSERT_EQ(::stat(g_outside.c_str(), &before), 0);
    static const auto swap = [] {
        if (g_item.empty()) return;
        EXPECT_EQ(::rename(g_item.c_str(), (g_item + "-moved").c_str()), 0);
        EXPECT_EQ(::link(g_outside.c_str(), g_item.c_str()), 0);
        g_item.clear();
    };
    SourceItem item = file(u"\\f", "new");
    item.mode = 0100604;
    item.modificationTime = item.accessTime = ticks(1'500'000'000);
    for (const bool amid : {false, true}) {
        g_item = at("f");
        SourceHost host({item, end_of(1)});
        if (amid) {
            // The mode is the catalog's last change to the item.
            m_faults.table().fchmodat = [](int d, const char* n, mode_t m, int f) {
                const int rc = platform::real_syscalls()->fchmodat(d, n, m, f);
                swap();
                return rc;
            };
            m_faults.install();
        } else {
            host.source->set_override([](hostsim::Exchange& ex, const SourceItem*) {
                if (ex.command == 267) swap();
                return std::optional<uint32_t>();
            });
        }
        EXPECT_EQ(receive(host), kTransferDone);
        EXPECT_TRUE(g_item.empty()) << "the swap was made";
        struct stat after {};
        ASSERT_EQ(::stat(g_outside.c_str(), &after), 0);
        EXPECT_EQ(after.st_mode & 07777, 0640u) << amid;
        EXPECT_EQ(after.st_mtim.tv_sec, before.st_mtim.tv_sec) << amid;
        EXPECT_EQ(read_file(g_outside), "keep");
        ASSERT_EQ(::unlink(at("f").c_str()), 0);
        ASSERT_EQ(::unlink(at("f-moved").c_str()), 0);
    }
}

TEST_P(Receiver, FailedCreationsAndWritesAreReportedAndLeaveNoPartialFile) {
    const SourceItem big = file(u"\\big", std::string(300000, 'x'));
    SourceHost skipped({big, file(u"\\next", "n"), end_of(1)}, kReplaceOrSkip);
    platform::fault_inject(Sys::write, 2, ENOSPC);
    EXPECT_EQ(receive(skipped), kTransferDone);
    EXPECT_FALSE(exists(at("big")));
    EXPECT_EQ(read_file(at("next")), "n");
    EXPECT_EQ(skipped.questions(), (Notices{{3u, 5u, u"\\big"}}));
    EXPECT_EQ(skipped.of(267).size(), 2u);

    SourceHost stopped({big, end_of(1)});
    platform::fault_inject(Sys::write, 2, EIO);
    EXPECT_EQ(receive(stopped), kTransferFailed);
    EXPECT_FALSE(exists(at("big")));
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(at("")),
                            std::filesystem::directory_iterator()),
              1)
        << "only the earlier file: no temporary is left";

    // The temporary that cannot be removed either is all that stays, under its hidden name.
    m_faults.table().unlinkat = [](int, const char*, int) {
        errno = EIO;
        return -1;
    };
    m_faults.install();
    SourceHost unremovable({big, end_of(1)}, kReplaceOrSkip);
    platform::fault_inject(Sys::write, 2, ENOSPC);
    EXPECT_EQ(receive(unremovable), kTransferDone);
    m_faults.table().unlinkat = platform::real_syscalls()->unlinkat;
    std::vector<std::string> left;
    for (const auto& entry : std::filesystem::directory_iterator(at("")))
        left.push_back(entry.path().filename().string());
    ASSERT_EQ(left.size(), 2u);
    const std::string temporary = left[0] == "next" ? left[1] : left[0];
    EXPECT_EQ(temporary.rfind(".qvxdragdrop-", 0), 0u) << temporary;
    ASSERT_EQ(::unlink(at(temporary).c_str()), 0);
    EXPECT_FALSE(exists(at("big")));

    // Lack of access ends the receive without asking the host; other failures ask.
    platform::fault_inject(Sys::mkdirat, 1, EACCES);
    SourceHost denied({folder(u"\\d"), end_of(2), end_of(1)}, kReplaceOrSkip);
    EXPECT_EQ(receive(denied), kTransferFailed);
    EXPECT_EQ(denied.questions(), (Notices{{4u, 11u, u"\\d"}}));
    platform::fault_inject(Sys::mkdirat, 1, EIO);
    SourceHost asked({folder(u"\\d"), end_of(2), end_of(1)}, kReplaceOrSkip);
    EXPECT_EQ(receive(asked), kTransferDone);
    EXPECT_EQ(asked.questions(), (Notices{{3u, 2u, u"\\d"}}));
    EXPECT_FALSE(exists(at("d")));
    m_faults.table().openat = [](int dirFd, const char* name, int flags, mode_t mode) {
        if (!(flags & O_CREAT)) return platform::real_syscalls()->openat(dirFd, name, flags, mode);
        errno = EACCES;
        return -1;
    };
    m_faults.install();
    SourceHost deniedFile({file(u"\\f", "x"), end_of(1)}, kReplaceOrSkip);
    EXPECT_EQ(receive(deniedFile), kTransferFailed);
    EXPECT_EQ(deniedFile.questions(), (Notices{{4u, 11u, u"\\f"}}));
    EXPECT_EQ(deniedFile.commands().back(), 267u);
}

// The hostile host's attacks aim names and links out, up and at the root, through both
// ways of resolving names; a link to the destination itself is no less a link to pass.
TEST_P(Receiver, NoLinkIsPassedEvenOneToTheDestination) {
    make_dirs(at("d"));
    for (const char16_t* through : {u"\\L\\x", u"\\L\\d\\x"}) {
        SourceHost host({link(u"\\L", u"."), file(through, "x"), end_of(1)}, kReplaceOrSkip);
        EXPECT_EQ(receive(host), kTransferDone) << std::u16string(through).size();
        EXPECT_EQ(host.questions(), (Notices{{3u, 3u, through}}));
        EXPECT_FALSE(exists(at("x")));
        EXPECT_FALSE(exists(at("d/x")));
        ASSERT_EQ(::remove(at("L").c_str()), 0);
    }
}

INSTANTIATE_TEST_SUITE_P(Kernel, Receiver, ::testing::Values(false, true),
                         [](const auto& info) { return info.param ? "Walk" : "Openat2"; });

// Replies the record readers reject end the receive with one notice; the host's own stop
// statuses end it without one. How names are resolved plays no part, so these run once.
TEST(ReceiverReplies, MalformedOnesEndTheReceiveWithOneNotice) {
    TempDir dir;
    const auto run = [&](SourceHost& host) { return receive_tree(host.context(), dir.path()); };
    for (uint32_t length : {1024u, 0xFFFFFFFFu, 2u}) {
        SourceItem bad = file(u"\\abc", "x");
        bad.nameLength = length;  // past the field, or short of the NUL
        SourceHost host({bad, end_of(1)});
        EXPECT_EQ(run(host), kTransferFailed) << length;
        EXPECT_EQ(host.commands(), (std::vector<uint32_t>{272, 263})) << length;
    }
    // A target that is no text (an unpaired surrogate) means "no link": the item arrives as
    // the file its attributes describe.
    {
        SourceHost host({file(u"\\L", "x"), end_of(1)});
        host.source->set_override([](hostsim::Exchange& ex, const SourceItem*) {
            if (ex.command != 769) return std::optional<uint32_t>();
            le::put32(ex.reply.data(), 2128, 4);
            le::put16(ex.reply.data(), 2196, u'a');
            le::put16(ex.reply.data(), 2198, 0xD800);
            ex.replyWritten = 2200;
            return std::optional<uint32_t>(0);
        });
        EXPECT_EQ(run(host), kTransferDone);
        struct stat st {};
        ASSERT_EQ(::lstat((dir / "L").c_str(), &st), 0);
        EXPECT_TRUE(S_ISREG(st.st_mode));
    }
    for (uint32_t status : {5u, 9u, 100u}) {
        SourceHost host({file(u"\\f", "x"), end_of(1)});
        host.source->set_override([status](hostsim::Exchange& ex, const SourceItem*) {
            return ex.command == 272 ? std::optional<uint32_t>(status) : std::nullopt;
        });
        EXPECT_EQ(run(host), kTransferFailed);
        EXPECT_EQ(host.questions(), status == 5 ? kFailedOnly : Notices{}) << status;
    }
}

TEST(ReceiverReplies, FoldersDeeperThanAnyNameCanDescribeAreNotCreated) {
    // Names are relative to the destination, so levels can nest while names do not. The
    // folder at the last level is refused, and the host leaves out what it holds.
    TempDir dir;
    std::vector<SourceItem> listing;
    for (uint32_t depth = 1; depth <= kMaxLevels + 10; ++depth)
        listing.push_back(folder(u"\\" + Utf8ToUtf16(std::to_string(depth)), depth));
    SourceHost host(std::move(listing), kReplaceOrSkip);
    EXPECT_EQ(receive_tree(host.context(), dir.path()), kTransferDone);
    const std::u16string last = u"\\" + Utf8ToUtf16(std::to_string(kMaxLevels));
    EXPECT_EQ(host.questions(), (Notices{{3u, 2u, last}}));
    EXPECT_EQ(host.of(274).size(), 1u);
    EXPECT_TRUE(exists(dir / std::to_string(kMaxLevels - 1)));
    EXPECT_FALSE(exists(dir / std::to_string(kMaxLevels)));
}

// Every receive holds a few descriptors whatever the depth: a tree of 300 levels, with a
// file and a link at each, arrives under a limit of 16 descriptors beyond those open.
TEST(ReceiverReplies, DeepTreeUnderASmallDescriptorLimit) {
    TempDir dir;
    std::vector<SourceItem> listing;
    std::u16string name;
    constexpr uint32_t kDepth = 300;
    for (uint32_t depth = 1; depth <= kDepth; ++depth) {
        name += u"\\d";
        listing.push_back(folder(name, depth));
        listing.push_back(file(name + u"\\f", "f", depth + 1));
        listing.push_back(link(name + u"\\l", u"f", depth + 1));
    }
    for (uint32_t depth = kDepth + 1; depth >= 1; --depth) listing.push_back(end_of(depth));
    SourceHost host(std::move(listing));
    rlimit old{};
    ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &old), 0);
    rlimit low = old;
    low.rlim_cur = static_cast<rlim_t>(open_fd_count() + 16);
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &low), 0);
    const uint32_t result = receive_tree(host.context(), dir.path());
    ::setrlimit(RLIMIT_NOFILE, &old);
    EXPECT_EQ(result, kTransferDone);
    EXPECT_EQ(host.questions(), Notices{});
    EXPECT_EQ(host.source->items_served(), 3 * kDepth);
}

TEST(ItemNames, SplitIntoCheckedComponents) {
    ItemName n;
    ASSERT_TRUE(parse_item_name(u"\\dir\\a.txt", n));
    EXPECT_EQ(std::tuple(n.relative, std::string(n.folder()), std::string(n.leaf())),
              std::tuple(std::string("dir/a.txt"), std::string("dir"), std::string("a.txt")));
    ASSERT_TRUE(parse_item_name(u"top", n)) << "a missing leading separator is tolerated";
    EXPECT_EQ(std::tuple(n.relative, n.leafAt), std::tuple(std::string("top"), size_t{0}));
    ASSERT_TRUE(parse_item_name(u"/a/b\\c\u00e9", n));
    EXPECT_EQ(n.relative, "a/b/ce\xcc\x81") << "form D on arrival";
    EXPECT_TRUE(parse_item_name(u"\\..a\\b..\\...\\" + std::u16string(255, u'x'), n));
    EXPECT_EQ(n.refusal, 0);

    // Names that read but name nothing we may create: the item is refused, not the receive.
    const std::pair<std::u16string, int> refused[] = {
        {u"\\", EINVAL},
        {u"\\\\a", EINVAL},
        {u"\\a\\", EINVAL},
        {u"\\.", EINVAL},
        {u"\\a\\.\\b", EINVAL},
        {u"..\\a", EINVAL},
        {u"\\a\\..", EINVAL},
        {std::u16string(u"\\a\0b", 4), EINVAL},
        {u"\\" + std::u16string(256, u'x'), ENAMETOOLONG},
        {u"\\" + std::u16string(86, u'\u00e9'), ENAMETOOLONG},  // 258 bytes once decomposed
    };
    for (const auto& [name, refusal] : refused) {
        EXPECT_TRUE(parse_item_name(name, n)) << name.size();
        EXPECT_EQ(n.refusal, refusal) << name.size();
    }
    // Names that cannot be read at all.
    for (const auto& name :
         {std::u16string(), std::u16string(1, u'\xd800'), u"\\" + std::u16string(1023, u'x')})
        EXPECT_FALSE(parse_item_name(name, n)) << name.size();
}

}  // namespace
