// The tree receiver against the simulated host's tree source, in-process: what it creates,
// the messages it sends in which order, and that no host name or link leads it outside
// the destination, through openat2 and through the walk that stands in for it.
#include "transfer/tree_receiver.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <CoreServices/CoreServices.h>

#include <algorithm>
#include <cerrno>
#include <string>
#include <tuple>
#include <vector>

#include "support/fault_scope.h"
#include "support/source_host.h"
#include "support/temp_dir.h"
#include "text/encoding.h"
#include "transfer/transfer_job.h"

namespace {

using namespace qvx;
using hostsim::SourceItem;
using hostsim::SourcePolicy;
using platform::Sys;
using qvxtest::end_of;
using qvxtest::file_item;
using qvxtest::folder_item;
using qvxtest::link_item;
using qvxtest::Request;
using qvxtest::SourceHost;
using qvxtest::TempDir;
using Items = std::vector<SourceItem>;

bool exists(const std::string& path) {
    struct stat st {};
    return ::lstat(path.c_str(), &st) == 0;
}

std::tuple<uint32_t, uint32_t, std::u16string> notice_of(const Request& r) {
    std::u16string text;
    for (size_t at = 32; le::get16(r.bytes.data(), at) != 0; at += 2)
        text.push_back(static_cast<char16_t>(le::get16(r.bytes.data(), at)));
    return {le::get32(r.bytes.data(), 28), le::get32(r.bytes.data(), 2080), text};
}

// The notices sent, in order, without the per-item (1, 0) and progress (5, 0) ones.
std::vector<std::tuple<uint32_t, uint32_t, std::u16string>> questions(const SourceHost& host) {
    std::vector<std::tuple<uint32_t, uint32_t, std::u16string>> out;
    for (const Request* r : host.of(263)) {
        auto n = notice_of(*r);
        if (std::get<0>(n) != 1 && std::get<0>(n) != 5) out.push_back(n);
    }
    return out;
}

using Notices = std::vector<std::tuple<uint32_t, uint32_t, std::u16string>>;
const auto kFailed = std::make_tuple(4u, 12u, std::u16string());

// Each test runs with the kernel's openat2 and again with the component walk.
class Receiver : public ::testing::TestWithParam<bool> {
  protected:
    void SetUp() override {
        if (GetParam()) {
            m_faults.table().openat2 = [](int, const char*, struct open_how*, size_t) {
                errno = ENOSYS;
                return -1;
            };
            m_faults.install();
        }
        qvxtest::write_file(m_dir / "outside/keep", "keep");
        qvxtest::make_dirs(dest());
    }
    std::string dest() const { return m_dir / "dest"; }
    std::string at(const std::string& relative) const { return dest() + "/" + relative; }
    uint32_t receive(SourceHost& host) { return receive_tree(host.context(), dest()); }
    // Nothing beside the destination was created, changed or removed.
    void expect_outside_untouched() {
        EXPECT_EQ(qvxtest::read_file(m_dir / "outside/keep"), "keep");
        for (const char* n : {"x", "outside/x", "outside/d"}) {
            EXPECT_FALSE(exists(m_dir / n)) << n;
        }
    }

    qvxtest::FaultScope m_faults;
    TempDir m_dir;
};

TEST_P(Receiver, NestedFileLandsInItsFolderWithEveryMessageInOrder) {
    SourceHost host(
        {folder_item(u"\\dir"), file_item(u"\\dir\\a.txt", "hello", 2), end_of(2), end_of(1)});
    EXPECT_EQ(receive(host), kTransferDone);
    EXPECT_EQ(qvxtest::read_file(at("dir/a.txt")), "hello");
    EXPECT_EQ(host.commands(), (std::vector<uint32_t>{272, 263, 769,                      // \dir
                                                      272, 263, 769, 266, 268, 263, 267,  // a.txt
                                                      272, 272}));
    for (const Request& r : host.sent) {
        EXPECT_EQ(r.bytes.size(), dnd::kMessageSize);
        EXPECT_EQ(le::get64(r.bytes.data(), 12), qvxtest::ScriptedHost::kWorker);
    }
    EXPECT_EQ(notice_of(host.sent[1]), std::make_tuple(1u, 0u, std::u16string(u"\\dir")));
    EXPECT_EQ(le::get32(host.sent[6].bytes.data(), 28), 0u) << "the receiver's 266 carries 0";
    EXPECT_EQ(le::get32(host.sent[7].bytes.data(), 2128), 5u);
    EXPECT_EQ(host.sent[7].replySize, dnd::kMessageSize + 5);
    EXPECT_EQ(notice_of(host.sent[8]), std::make_tuple(5u, 0u, std::u16string(u"\\dir\\a.txt")));
}

TEST_P(Receiver, EmptyFileHasNoDataRequestAndGetsItsTimes) {
    SourceItem empty = file_item(u"\\empty", "");
    empty.modificationTime = kTicks1601To1970 + 1'000'000'000ull * kTicksPerSecond + 1234;
    empty.accessTime = kTicks1601To1970 + 999'999'999ull * kTicksPerSecond;
    SourceHost host({empty, end_of(1)});
    EXPECT_EQ(receive(host), kTransferDone);
    EXPECT_EQ(host.commands(), (std::vector<uint32_t>{272, 263, 769, 266, 267, 272}));
    struct stat st {};
    ASSERT_EQ(::lstat(at("empty").c_str(), &st), 0);
    EXPECT_EQ(st.st_size, 0);
    EXPECT_EQ(st.st_mtim.tv_sec, 1'000'000'000);
    EXPECT_EQ(st.st_atim.tv_sec, 999'999'999);
}

TEST_P(Receiver, LargeFileComesInWholeChunksEachFollowedByProgress) {
    std::string data(300000, '\0');
    for (size_t i = 0; i < data.size(); ++i) data[i] = static_cast<char>(i * 7 + i / 1000);
    SourceHost host({file_item(u"\\big", data), end_of(1)});
    EXPECT_EQ(receive(host), kTransferDone);
    EXPECT_EQ(qvxtest::read_file(at("big")), data);
    std::vector<uint32_t> chunks;
    for (size_t i = 0; i < host.sent.size(); ++i) {
        if (host.sent[i].command() != 268) continue;
        chunks.push_back(le::get32(host.sent[i].bytes.data(), 2128));
        ASSERT_LT(i + 1, host.sent.size());
        EXPECT_EQ(notice_of(host.sent[i + 1]), std::make_tuple(5u, 0u, std::u16string(u"\\big")));
    }
    EXPECT_EQ(chunks, (std::vector<uint32_t>{131072, 131072, 37856}));
}

TEST_P(Receiver, LinkTargetBufferDoublesAndStopsAtItsLimit) {
    std::u16string target;
    for (int i = 0; i < 1000; ++i) target += u"ab\\";  // 3000 units: 6000 bytes
    SourceHost host({link_item(u"\\L", target), end_of(1)});
    EXPECT_EQ(receive(host), kTransferDone);
    std::vector<size_t> sizes;
    for (const Request* r : host.of(769)) sizes.push_back(r->replySize);
    EXPECT_EQ(sizes, (std::vector<size_t>{2452, 4904, 9808}));
    char stored[8192] = {};
    ASSERT_EQ(::readlink(at("L").c_str(), stored, sizeof stored - 1), 3000);
    EXPECT_EQ(std::string(stored, 6), "ab/ab/");

    // A host that never has enough room is given up on at 64 KiB of target.
    SourceHost greedy({link_item(u"\\M", u"t"), end_of(1)});
    greedy.source->set_override([](hostsim::Exchange& ex, const SourceItem*) {
        return ex.command == 769 ? std::optional<uint32_t>(13) : std::nullopt;
    });
    EXPECT_EQ(receive(greedy), kTransferFailed);
    sizes.clear();
    for (const Request* r : greedy.of(769)) sizes.push_back(r->replySize);
    EXPECT_EQ(sizes, (std::vector<size_t>{2452, 4904, 9808, 19616, 39232, 67732}));
    EXPECT_EQ(questions(greedy), Notices{kFailed});
    EXPECT_FALSE(exists(at("M")));
}

TEST_P(Receiver, ExistingFileIsKeptOrReplacedAsTheHostAnswers) {
    qvxtest::write_file(at("f"), "old");
    SourceHost skip({file_item(u"\\f", "new"), end_of(1)}, SourcePolicy{102, 0});
    EXPECT_EQ(receive(skip), kTransferDone);
    EXPECT_EQ(qvxtest::read_file(at("f")), "old");
    EXPECT_TRUE(skip.of(266).empty());
    EXPECT_EQ(questions(skip), (Notices{{2u, 0u, u"\\f"}}));

    SourceHost replace({file_item(u"\\f", "new"), end_of(1)}, SourcePolicy{101, 0});
    EXPECT_EQ(receive(replace), kTransferDone);
    EXPECT_EQ(qvxtest::read_file(at("f")), "new");

    // A folder in the way of a file cannot be unlinked: the receive ends.
    qvxtest::make_dirs(at("d/inner"));
    SourceHost blocked({file_item(u"\\d", "x"), end_of(1)}, SourcePolicy{101, 0});
    EXPECT_EQ(receive(blocked), kTransferFailed);
    EXPECT_EQ(questions(blocked), (Notices{{2u, 0u, u"\\d"}, {4u, 6u, u"\\d"}}));
    EXPECT_TRUE(exists(at("d/inner")));
}

TEST_P(Receiver, ExistingFolderIsReplacedWholeOrSkippedWithItsItems) {
    qvxtest::write_file(at("d/old.txt"), "old");
    ASSERT_EQ(::symlink((m_dir / "outside").c_str(), at("d/out").c_str()), 0);
    const Items listing{folder_item(u"\\d"), file_item(u"\\d\\new.txt", "new", 2), end_of(2),
                        file_item(u"\\after", "after"), end_of(1)};

    SourceHost skip(listing, SourcePolicy{102, 0});
    EXPECT_EQ(receive(skip), kTransferDone);
    EXPECT_EQ(skip.of(274).size(), 1u);
    EXPECT_TRUE(exists(at("d/old.txt")));
    EXPECT_FALSE(exists(at("d/new.txt")));
    EXPECT_EQ(qvxtest::read_file(at("after")), "after") << "the level goes on after the skip";

    SourceHost replace(listing, SourcePolicy{101, 0});
    EXPECT_EQ(receive(replace), kTransferDone);
    EXPECT_FALSE(exists(at("d/old.txt")));
    EXPECT_FALSE(exists(at("d/out")));
    EXPECT_EQ(qvxtest::read_file(at("d/new.txt")), "new");
    expect_outside_untouched();

    // A regular file in the way of a folder cannot be removed as a folder.
    qvxtest::write_file(at("plain"), "p");
    SourceHost blocked({folder_item(u"\\plain"), end_of(2), end_of(1)}, SourcePolicy{101, 0});
    EXPECT_EQ(receive(blocked), kTransferFailed);
    EXPECT_EQ(questions(blocked), (Notices{{2u, 0u, u"\\plain"}, {4u, 6u, u"\\plain"}}));
}

TEST_P(Receiver, FolderMarkedNotToBeCreatedIsSkippedOrStops) {
    SourceItem marked = folder_item(u"\\m");
    marked.attributes |= 0x20000;
    const Items listing{marked, file_item(u"\\m\\x", "x", 2), end_of(2), end_of(1)};
    SourceHost skip(listing, SourcePolicy{101, 102});
    EXPECT_EQ(receive(skip), kTransferDone);
    EXPECT_FALSE(exists(at("m")));
    EXPECT_EQ(questions(skip), (Notices{{3u, 3u, u"\\m"}}));
    EXPECT_EQ(skip.of(274).size(), 1u);

    SourceHost stop(listing, SourcePolicy{101, 0});
    EXPECT_EQ(receive(stop), kTransferFailed);
    EXPECT_FALSE(exists(at("m")));
    EXPECT_TRUE(stop.of(274).empty());
}

// The catalog calls the receiver makes, in order, as the system calls they come down to.
std::vector<std::string> g_metadataCalls;

TEST_P(Receiver, ItemsGetTheirTimesModeAndLockTheLockLast) {
    const uint64_t t1 = kTicks1601To1970 + 1'500'000'000ull * kTicksPerSecond;
    const uint64_t t2 = kTicks1601To1970 + 1'600'000'000ull * kTicksPerSecond;
    SourceItem locked = file_item(u"\\locked", "l");
    locked.attributes = kAttrLocked;
    locked.mode = 0100604;
    locked.creationTime = t1;
    locked.modificationTime = t2;
    SourceItem folder = folder_item(u"\\d");
    folder.mode = 040711;
    folder.modificationTime = t1;
    SourceItem link = link_item(u"\\L", qvx::Utf8ToUtf16(m_dir / "outside/keep"));
    link.modificationTime = t1;
    struct stat before {};
    ASSERT_EQ(::stat((m_dir / "outside/keep").c_str(), &before), 0);

    m_faults.table().utimensat = [](int d, const char* n, const struct timespec t[2], int f) {
        g_metadataCalls.push_back("times");
        return platform::real_syscalls()->utimensat(d, n, t, f);
    };
    m_faults.table().fchmodat = [](int d, const char* n, mode_t m, int f) {
        g_metadataCalls.push_back("mode");
        return platform::real_syscalls()->fchmodat(d, n, m, f);
    };
    m_faults.table().setxattr = [](const char* p, const char* n, const void* v, size_t s, int f) {
        g_metadataCalls.push_back(n);
        return platform::real_syscalls()->setxattr(p, n, v, s, f);
    };
    m_faults.install();
    g_metadataCalls.clear();
    SourceHost host({link, folder, end_of(2), locked, end_of(1)});
    EXPECT_EQ(receive(host), kTransferDone);

    struct stat st {};
    ASSERT_EQ(::lstat(at("locked").c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0604u);
    EXPECT_EQ(st.st_mtim.tv_sec, 1'600'000'000);
    ASSERT_EQ(::lstat(at("d").c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0711u);
    EXPECT_EQ(st.st_mtim.tv_sec, 1'500'000'000);
    ASSERT_EQ(::lstat(at("L").c_str(), &st), 0);
    EXPECT_TRUE(S_ISLNK(st.st_mode));
    EXPECT_EQ(st.st_mtim.tv_sec, 1'500'000'000) << "the link itself has the times";
    ASSERT_EQ(::stat((m_dir / "outside/keep").c_str(), &st), 0);
    EXPECT_EQ(st.st_mtim.tv_sec, before.st_mtim.tv_sec) << "not what it points to";

    FSRef ref;
    FSCatalogInfo info{};
    ASSERT_EQ(FSPathMakeRefWithOptions(reinterpret_cast<const UInt8*>(at("locked").c_str()),
                                       kFSPathMakeRefDoNotFollowLeafSymlink, &ref, nullptr),
              noErr);
    ASSERT_EQ(FSGetCatalogInfo(&ref, kFSCatInfoNodeFlags | kFSCatInfoCreateDate, &info, nullptr,
                               nullptr, nullptr),
              noErr);
    EXPECT_EQ(info.nodeFlags & kFSNodeLockedMask, kFSNodeLockedMask);
    EXPECT_EQ(info.createDate.lowSeconds, ticks_to_catalog_seconds(t1));
    ASSERT_FALSE(g_metadataCalls.empty());
    EXPECT_EQ(g_metadataCalls.back(), "user.quorvex.nodeflags");
    const auto lock = std::find(g_metadataCalls.begin(), g_metadataCalls.end(),
                                std::string("user.quorvex.nodeflags"));
    EXPECT_EQ(lock + 1, g_metadataCalls.end()) << "set once, after everything else";
}

TEST_P(Receiver, FailedWriteRemovesThePartialFile) {
    SourceHost host(
        {file_item(u"\\big", std::string(300000, 'x')), file_item(u"\\next", "n"), end_of(1)},
        SourcePolicy{101, 102});
    platform::fault_inject(Sys::write, 2, ENOSPC);
    EXPECT_EQ(receive(host), kTransferDone) << "the host skipped the file";
    EXPECT_FALSE(exists(at("big")));
    EXPECT_EQ(qvxtest::read_file(at("next")), "n");
    EXPECT_EQ(questions(host), (Notices{{3u, 5u, u"\\big"}}));
    EXPECT_EQ(host.of(268).size(), 3u) << "two for the big file, one for the next";
    EXPECT_EQ(host.of(267).size(), 2u);

    // A host that stops on the failure ends the receive; the partial file goes all the same.
    SourceHost stops({file_item(u"\\big", std::string(300000, 'x')), end_of(1)});
    platform::fault_inject(Sys::write, 2, EIO);
    EXPECT_EQ(receive(stops), kTransferFailed);
    EXPECT_FALSE(exists(at("big")));
}

TEST_P(Receiver, AccessDeniedEndsTheReceiveWithoutAskingTheHost) {
    SourceHost file({file_item(u"\\f", "x"), end_of(1)}, SourcePolicy{101, 102});
    // Only creating is refused: the folders on the way stay open to us.
    m_faults.table().openat = [](int dirFd, const char* name, int flags, mode_t mode) {
        if (flags & O_CREAT) {
            errno = EACCES;
            return -1;
        }
        return platform::real_syscalls()->openat(dirFd, name, flags, mode);
    };
    m_faults.install();
    EXPECT_EQ(receive(file), kTransferFailed);
    EXPECT_EQ(questions(file), (Notices{{4u, 11u, u"\\f"}}));
    EXPECT_EQ(file.commands().back(), 267u);

    m_faults.table().openat = platform::real_syscalls()->openat;
    m_faults.install();
    SourceHost folder({folder_item(u"\\d"), end_of(2), end_of(1)}, SourcePolicy{101, 102});
    platform::fault_inject(Sys::mkdirat, 1, EACCES);
    EXPECT_EQ(receive(folder), kTransferFailed);
    EXPECT_EQ(questions(folder), (Notices{{4u, 11u, u"\\d"}}));
    EXPECT_FALSE(exists(at("d")));

    // Any other failure asks the host, which may skip the folder.
    platform::fault_inject(Sys::mkdirat, 1, EIO);
    SourceHost other({folder_item(u"\\d"), end_of(2), end_of(1)}, SourcePolicy{101, 102});
    EXPECT_EQ(receive(other), kTransferDone);
    EXPECT_EQ(questions(other), (Notices{{3u, 2u, u"\\d"}}));
    EXPECT_EQ(other.of(274).size(), 1u);
}

TEST_P(Receiver, NamesThatClimbOutEndTheReceiveBeforeAnythingIsCreated) {
    for (const std::u16string& name :
         {std::u16string(u"\\..\\x"), std::u16string(u"\\a\\..\\..\\x"), std::u16string(u"\\a\\.."),
          std::u16string(u"\\.\\x"), std::u16string(u"\\a\\\\x"), std::u16string(u"\\")}) {
        SourceHost host({folder_item(u"\\a"), file_item(name, "x", 2), end_of(2), end_of(1)});
        EXPECT_EQ(receive(host), kTransferFailed);
        EXPECT_EQ(questions(host), Notices{kFailed});
        EXPECT_TRUE(host.of(266).empty());
        expect_outside_untouched();
        ASSERT_EQ(::rmdir(at("a").c_str()), 0) << "only the folder before it was created";
    }
}

TEST_P(Receiver, NoItemPassesThroughALinkAnEarlierItemCreated) {
    const std::u16string outside = qvx::Utf8ToUtf16(m_dir / "outside");
    for (const std::u16string& target :
         {outside, std::u16string(u"..\\outside"), std::u16string(u"\\")}) {
        for (const SourceItem& through :
             {file_item(u"\\L\\x", "x"), folder_item(u"\\L\\d"), file_item(u"\\L\\d\\x", "x")}) {
            SourceHost host({link_item(u"\\L", target), through, end_of(2), end_of(1)});
            EXPECT_EQ(receive(host), kTransferFailed);
            EXPECT_EQ(questions(host), Notices{kFailed});
            EXPECT_TRUE(host.of(266).empty());
            expect_outside_untouched();
            ASSERT_EQ(::unlink(at("L").c_str()), 0) << "the link is stored as it came";
        }
    }
}

TEST_P(Receiver, DataRepliesClaimingAnotherLengthAreRefused) {
    SourceHost host({file_item(u"\\f", std::string(1000, 'd')), end_of(1)});
    host.source->set_override(
        [](hostsim::Exchange& ex, const SourceItem*) -> std::optional<uint32_t> {
            if (ex.command != 268) return std::nullopt;
            le::put32(ex.reply.data(), 2128, 1001);
            return 0u;
        });
    EXPECT_EQ(receive(host), kTransferFailed);
    EXPECT_EQ(questions(host), Notices{kFailed});
    EXPECT_FALSE(exists(at("f")));
}

INSTANTIATE_TEST_SUITE_P(Kernel, Receiver, ::testing::Values(false, true),
                         [](const auto& info) { return info.param ? "Walk" : "Openat2"; });

// Replies the record readers reject end the receive with one notice; the host's own stop
// statuses end it without one. Resolution plays no part, so these run once.
TEST(ReceiverReplies, MalformedOnesEndTheReceiveWithOneNotice) {
    TempDir dir;
    const auto run = [&](SourceHost& host) { return receive_tree(host.context(), dir.path()); };
    for (uint32_t length : {1024u, 0xFFFFFFFFu, 5u, 2u}) {
        SourceItem item = file_item(u"\\abc", "x");
        item.nameLength = length;  // past the field, past the units, or short of the NUL
        SourceHost host({item, end_of(1)});
        EXPECT_EQ(run(host), kTransferFailed) << length;
        EXPECT_EQ(questions(host), Notices{kFailed}) << length;
        EXPECT_EQ(host.commands(), (std::vector<uint32_t>{272, 263})) << length;
    }
    for (uint32_t dataLength : {3u, 258u, 0xFFFFFFFEu}) {
        SourceHost host({link_item(u"\\L", u"t"), end_of(1)});
        host.source->set_override([dataLength](hostsim::Exchange& ex, const SourceItem*) {
            if (ex.command != 769) return std::optional<uint32_t>();
            le::put32(ex.reply.data(), 2128, dataLength);
            return std::optional<uint32_t>(0);
        });
        EXPECT_EQ(run(host), kTransferFailed) << dataLength;
        EXPECT_EQ(questions(host), Notices{kFailed}) << dataLength;
    }
    for (uint32_t status : {5u, 9u, 100u}) {
        SourceHost host({file_item(u"\\f", "x"), end_of(1)});
        host.source->set_override([status](hostsim::Exchange& ex, const SourceItem*) {
            return ex.command == 272 ? std::optional<uint32_t>(status) : std::nullopt;
        });
        EXPECT_EQ(run(host), kTransferFailed);
        EXPECT_EQ(questions(host), status == 5 ? Notices{kFailed} : Notices{}) << status;
    }
    // The longest name that fits is taken; its folders are missing, so the host is asked.
    std::u16string longest;
    for (int i = 0; i < 4; ++i) longest += u"\\" + std::u16string(254, u'a' + i);
    longest += u"\\ab";
    ASSERT_EQ(longest.size(), 1023u);
    SourceHost host({file_item(longest, "x"), end_of(1)}, SourcePolicy{101, 102});
    EXPECT_EQ(run(host), kTransferDone);
    EXPECT_EQ(questions(host), (Notices{{3u, 3u, longest}}));
}

// How names are resolved plays no part here, so this runs once.
TEST(ReceiverLevels, TreesDeeperThanAnyNameCanDescribeAreRefused) {
    TempDir dir;
    // Names are relative to the destination, so a host can nest levels with names that
    // do not nest; only the level count can end it.
    Items listing;
    for (uint32_t depth = 1; depth <= kMaxLevels + 10; ++depth)
        listing.push_back(folder_item(u"\\" + qvx::Utf8ToUtf16(std::to_string(depth)), depth));
    SourceHost host(std::move(listing), SourcePolicy{101, 0});
    EXPECT_EQ(receive_tree(host.context(), dir.path()), kTransferFailed);
    EXPECT_EQ(host.of(272).size(), kMaxLevels + 1);
    EXPECT_EQ(questions(host).back(), kFailed);
}

TEST(ItemNames, SplitIntoCheckedComponents) {
    ItemName n;
    ASSERT_TRUE(parse_item_name(u"\\dir\\a.txt", n));
    EXPECT_EQ(std::tuple(n.relative, std::string(n.folder()), std::string(n.leaf())),
              std::tuple(std::string("dir/a.txt"), std::string("dir"), std::string("a.txt")));
    ASSERT_TRUE(parse_item_name(u"top", n)) << "a missing leading separator is tolerated";
    EXPECT_EQ(std::tuple(n.relative, std::string(n.folder())),
              std::tuple(std::string("top"), std::string()));
    ASSERT_TRUE(parse_item_name(u"/a/b\\c\u00e9", n));
    EXPECT_EQ(n.relative, "a/b/ce\xcc\x81") << "form D on arrival";
    ASSERT_TRUE(parse_item_name(u"\\..a\\b..\\...", n));
    EXPECT_EQ(n.relative, "..a/b../...");
    ASSERT_TRUE(parse_item_name(u"\\" + std::u16string(255, u'x'), n));

    const std::u16string bad[] = {
        u"",
        u"\\",
        u"\\\\a",
        u"\\a\\",
        u"\\a\\\\b",
        u"\\.",
        u"\\a\\.\\b",
        u"\\..",
        u"..\\a",
        u"\\a\\..",
        std::u16string(u"\\a\0b", 4),
        u"\\" + std::u16string(256, u'x'),
        u"\\" + std::u16string(86, u'\u00e9'),  // 258 bytes once decomposed
        std::u16string(1, u'\xd800'),           // no text
        u"\\" + std::u16string(1023, u'x'),
    };
    for (const auto& name : bad) EXPECT_FALSE(parse_item_name(name, n)) << name.size();
}

TEST(FreeSpace, TotalNearTwoToTheSixtyFourNeverPasses) {
    TempDir dir;
    qvxtest::ScriptedHost host;
    EXPECT_FALSE(check_free_space(host.context(), dir.path(), UINT64_MAX, 1));
    ASSERT_EQ(host.sent.size(), 1u);
    EXPECT_EQ(le::get32(host.sent[0].bytes.data(), 28), 4u);
    EXPECT_EQ(le::get32(host.sent[0].bytes.data(), 2080), 8u);
}

}  // namespace
