// Tests of the tree sender against a scripted host: the messages of each item kind, the
// chunks read in place, the host's conflict answers, clean-up after refusals, names too
// long for the wire, and a tree deeper than paths and descriptors allow.
#include "transfer/tree_sender.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <dirent.h>

#include <algorithm>
#include <cstdio>
#include <set>
#include <string>
#include <vector>

#include "support/scripted_host.h"
#include "support/temp_dir.h"
#include "text/encoding.h"
#include "transfer/transfer_job.h"

namespace {

using namespace qvx;
using qvxtest::Answer;
using qvxtest::Request;
using qvxtest::ScriptedHost;
using qvxtest::TempDir;

std::u16string text_at(const Request& r, size_t offset, size_t maxBytes) {
    std::u16string units;
    for (size_t at = offset; at + 1 < offset + maxBytes; at += 2) {
        const auto u = static_cast<char16_t>(le::get16(r.bytes.data(), at));
        if (u == 0) break;
        units += u;
    }
    return units;
}

// Names in these tests are ASCII but for one, which is compared in UTF-16.
std::string ascii(const std::u16string& units) {
    return std::string(units.begin(), units.end());
}

std::string name_of(const Request& r) {
    return ascii(text_at(r, dnd::kOffName, dnd::kNameBytes));
}

// One request as a short line: "notice 1 0 top/a", "262 94 4 1", "265 top 16", "266 top/a",
// "269 10", "267", "270 top/a", "271 top/a", "770 l ..\real".
std::string describe(const Request& r) {
    const uint8_t* b = r.bytes.data();
    const uint32_t cmd = r.command();
    std::string line;
    switch (cmd) {
        case 263: {
            line = "notice " + std::to_string(le::get32(b, 28)) + " " +
                   std::to_string(le::get32(b, 2080));
            const std::string text = ascii(text_at(r, 32, 2048));
            return text.empty() ? line : line + " " + text;
        }
        case 262:
            return "262 " + std::to_string(le::get64(b, 28)) + " " +
                   std::to_string(le::get32(b, 36)) + " " + std::to_string(le::get32(b, 2088));
        case 265:
            return "265 " + name_of(r) + " " + std::to_string(le::get32(b, 32));
        case 269:
            return "269 " + std::to_string(le::get32(b, 2128));
        case 267:
            return "267";
        case 770: {
            std::u16string target;
            for (uint32_t i = 0; i < le::get32(b, 2128) / 2; ++i)
                target += static_cast<char16_t>(le::get16(b, 2196 + 2 * i));
            return "770 " + name_of(r) + " " + ascii(target);
        }
        default:
            return std::to_string(cmd) + " " + name_of(r);
    }
}

using V = std::vector<std::string>;

std::vector<std::string> lines(const ScriptedHost& host) {
    std::vector<std::string> out;
    for (const Request& r : host.sent) out.push_back(describe(r));
    return out;
}

// The messages of a file item sent whole, for `chunks` chunk sizes.
std::vector<std::string> file_lines(const std::string& name, std::vector<uint32_t> chunks) {
    std::vector<std::string> out = {"notice 1 0 " + name, "265 " + name + " 0", "266 " + name};
    for (uint32_t n : chunks) {
        out.push_back("269 " + std::to_string(n));
        out.push_back("notice 5 0 " + name);
    }
    out.push_back("267");
    out.push_back("271 " + name);
    return out;
}

void append(std::vector<std::string>& to, const std::vector<std::string>& more) {
    to.insert(to.end(), more.begin(), more.end());
}

std::vector<std::string> readdir_order(const std::string& folder) {
    std::vector<std::string> names;
    DIR* d = ::opendir(folder.c_str());
    while (const dirent* e = ::readdir(d)) {
        const std::string n = e->d_name;
        if (n != "." && n != "..") names.push_back(n);
    }
    ::closedir(d);
    return names;
}

// Answers by a rule: the status for each request, 0 where the rule gives none.
void answer_by(ScriptedHost& host, std::function<uint32_t(const Request&)> rule) {
    host.fallback = [rule](const Request& r) { return Answer{true, rule(r), nullptr}; };
}

bool is_notice(const Request& r, uint32_t id) {
    return r.command() == 263 && le::get32(r.bytes.data(), 28) == id;
}

TEST(TreeSender, FolderCountsAndSendsItsEntriesInReaddirOrderThenItsAttributes) {
    TempDir dir;
    qvxtest::write_file(dir / "top/a.txt", std::string(10, 'a'));
    qvxtest::write_file(dir / "top/b.txt", std::string(20, 'b'));
    qvxtest::make_dirs(dir / "top/empty");

    uint32_t items = 0;
    uint64_t bytes = 0;
    ASSERT_TRUE(count_tree(dir / "top", items, bytes));
    EXPECT_EQ(items, 4u);
    EXPECT_EQ(bytes, 94u) << "32 for each folder and the 30 data bytes";

    ScriptedHost host;
    EXPECT_EQ(send_tree(host.context(), {dir / "top"}), kTransferDone);
    std::vector<std::string> expected = {"notice 0 0", "262 94 4 1", "notice 1 0 top",
                                         "265 top 16"};
    for (const std::string& entry : readdir_order(dir / "top")) {
        if (entry == "empty")
            append(expected, {"notice 1 0 top/empty", "265 top/empty 16", "271 top/empty"});
        else
            append(expected, file_lines("top/" + entry, {entry == "a.txt" ? 10u : 20u}));
    }
    expected.push_back("271 top");
    EXPECT_EQ(lines(host), expected);
    for (const Request& r : host.sent)
        EXPECT_EQ(le::get64(r.bytes.data(), 12), ScriptedHost::kWorker);
}

TEST(TreeSender, ChunksAreReadInPlaceAndEachIsConfirmedByANotice) {
    TempDir dir;
    std::string data(300000, '\0');
    for (size_t i = 0; i < data.size(); ++i) data[i] = static_cast<char>(i * 31 + (i >> 9));
    const struct {
        size_t size;
        std::vector<uint32_t> chunks;
    } cases[] = {
        {0, {}}, {131072, {131072}}, {131073, {131072, 1}}, {300000, {131072, 131072, 37856}}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.size);
        const std::string name = "f" + std::to_string(c.size);
        qvxtest::write_file(dir / name, data.substr(0, c.size));

        ScriptedHost host;
        std::string received;
        std::set<const void*> chunkAt;
        DnDContext ctx = host.context();
        ctx.send = [&](CommonMacCommunicator*, const void* out, uint32_t outSize, void* reply,
                       uint32_t replySize) {
            if (le::get32(static_cast<const uint8_t*>(out), 0) == 269) {
                chunkAt.insert(out);
                EXPECT_EQ(outSize, 2196 + le::get32(static_cast<const uint8_t*>(out), 2128));
                received.append(static_cast<const char*>(out) + 2196, outSize - 2196);
            }
            return host.serve(out, outSize, reply, replySize);
        };
        EXPECT_EQ(send_top_item(ctx, dir / name), kTransferDone);
        std::vector<std::string> expected = file_lines(name, c.chunks);
        EXPECT_EQ(lines(host), expected);
        EXPECT_EQ(received, data.substr(0, c.size));
        // Every chunk went out from the same place: the one buffer of the item.
        EXPECT_LE(chunkAt.size(), 1u);
    }
}

TEST(TreeSender, LinkToAFolderIsOneLinkMessageAndIsNeverWalked) {
    TempDir dir;
    qvxtest::write_file(dir / "real/inside.txt", "not sent");
    qvxtest::make_dirs(dir / "a");
    ASSERT_EQ(::symlink("../real", (dir / "a/l").c_str()), 0);

    uint32_t items = 0;
    uint64_t bytes = 0;
    ASSERT_TRUE(count_tree(dir / "a/l", items, bytes));
    EXPECT_EQ(items, 1u);
    EXPECT_EQ(bytes, 0u);

    ScriptedHost host;
    EXPECT_EQ(send_tree(host.context(), {dir / "a/l"}), kTransferDone);
    EXPECT_EQ(lines(host), (std::vector<std::string>{"notice 0 0", "262 0 1 1", "notice 1 0 l",
                                                     "770 l ..\\real", "271 l"}));
    EXPECT_EQ(host.sent[3].bytes.size(), 2196u + 14u);
}

// A pipe, a device: nothing to copy, and reading either might never end. Each gets the
// notice of an item that cannot be read, is neither counted nor announced, and the send
// goes on.
TEST(TreeSender, ItemsThatAreNeitherFileNorFolderNorLinkAreReportedAndPassedOver) {
    TempDir dir;
    qvxtest::write_file(dir / "top/a", "a");
    ASSERT_EQ(::mkfifo((dir / "top/pipe").c_str(), 0600), 0);
    uint32_t items = 0;
    uint64_t bytes = 0;
    ASSERT_TRUE(count_tree(dir / "top", items, bytes));
    EXPECT_EQ(std::tuple(items, bytes), std::tuple(2u, 33u));

    ScriptedHost host;
    EXPECT_EQ(send_tree(host.context(), {"/dev/zero", dir / "top"}), kTransferDone);
    std::vector<std::string> expected = {"notice 0 0", "262 33 2 2", "notice 4 3 zero",
                                         "notice 1 0 top", "265 top 16"};
    for (const std::string& entry : readdir_order(dir / "top"))
        append(expected, entry == "a" ? file_lines("top/a", {1}) : V{"notice 4 3 top/pipe"});
    expected.push_back("271 top");
    EXPECT_EQ(lines(host), expected);
}

TEST(TreeSender, SkippedListedItemLowersTheTotalsAndTheSendGoesOn) {
    TempDir dir;
    qvxtest::write_file(dir / "one", std::string(10, '1'));
    qvxtest::write_file(dir / "two/x", std::string(5, 'x'));
    qvxtest::write_file(dir / "three", std::string(3, '3'));
    ScriptedHost host;
    answer_by(host, [](const Request& r) -> uint32_t {
        if (r.command() == 265 && name_of(r) == "two") return 1;
        if (is_notice(r, 2)) return 102;
        return 0;
    });
    EXPECT_EQ(send_tree(host.context(), {dir / "one", dir / "two", dir / "three"}), kTransferDone);

    std::vector<std::string> expected = {"notice 0 0", "262 50 4 3"};
    append(expected, file_lines("one", {10}));
    // The skip: the tallies of "two" (a folder of 32 bytes and a 5-byte file) come off.
    append(expected, {"notice 1 0 two", "265 two 16", "notice 2 0 two", "262 13 2 3"});
    append(expected, file_lines("three", {3}));
    EXPECT_EQ(lines(host), expected);
}

TEST(TreeSender, ExistingItemInsideAFolderIsReplacedOrFailsTheSendWhenSkipped) {
    TempDir dir;
    qvxtest::write_file(dir / "top/f", "abc");

    // Replace: 270 asks the host to remove its item, then the header goes out again.
    ScriptedHost replacing;
    int headers = 0;
    answer_by(replacing, [&](const Request& r) -> uint32_t {
        if (r.command() == 265 && name_of(r) == "top/f" && headers++ == 0) return 1;
        if (is_notice(r, 2)) return 101;
        return 0;
    });
    EXPECT_EQ(send_top_item(replacing.context(), dir / "top"), kTransferDone);
    std::vector<std::string> expected = {"notice 1 0 top", "265 top 16",       "notice 1 0 top/f",
                                         "265 top/f 0",    "notice 2 0 top/f", "270 top/f"};
    std::vector<std::string> file = file_lines("top/f", {3});
    expected.insert(expected.end(), file.begin() + 1, file.end());
    expected.push_back("271 top");
    EXPECT_EQ(lines(replacing), expected);

    // A skip below a listed item: the host would hold an incomplete folder.
    ScriptedHost skipping;
    answer_by(skipping, [](const Request& r) -> uint32_t {
        if (r.command() == 265 && name_of(r) == "top/f") return 1;
        if (is_notice(r, 2)) return 102;
        return 0;
    });
    EXPECT_EQ(send_tree(skipping.context(), {dir / "top"}), kTransferFailed);
    EXPECT_EQ(lines(skipping).back(), "notice 2 0 top/f");

    // The header again after the removal: even a quiet stop there is reported as refused.
    ScriptedHost refusedAgain;
    headers = 0;
    answer_by(refusedAgain, [&](const Request& r) -> uint32_t {
        return r.command() == 265 ? (headers++ == 0 ? 1 : 9) : is_notice(r, 2) ? 101 : 0;
    });
    EXPECT_EQ(send_top_item(refusedAgain.context(), dir / "top/f"), kTransferFailed);
    EXPECT_EQ(lines(refusedAgain).back(), "notice 4 2 f");
}

TEST(TreeSender, FailedFileItemsAreClosedAndRemovedOnTheHost) {
    TempDir dir;
    qvxtest::write_file(dir / "f", std::string(300000, 'z'));
    const std::string opening[] = {"notice 1 0 f", "265 f 0", "266 f"};
    auto run = [&](std::function<uint32_t(const Request&)> rule, bool ok = true) {
        ScriptedHost host;
        answer_by(host, rule);
        if (!ok)
            host.fallback = [rule](const Request& r) {
                return Answer{r.command() != 269, rule(r), nullptr};
            };
        EXPECT_EQ(send_top_item(host.context(), dir / "f"), kTransferFailed);
        std::vector<std::string> got = lines(host);
        EXPECT_TRUE(std::equal(std::begin(opening), std::end(opening), got.begin()));
        return std::vector<std::string>(got.begin() + 3, got.end());
    };
    // A refused chunk: its notice, then 267 and 270, always in that order.
    EXPECT_EQ(run([](const Request& r) { return r.command() == 269 ? 5u : 0u; }),
              (V{"269 131072", "notice 4 5 f", "267", "270 f"}));
    // The host stopping, or the channel failing, brings no notice but the same clean-up.
    EXPECT_EQ(run([](const Request& r) { return r.command() == 269 ? 9u : 0u; }),
              (V{"269 131072", "267", "270 f"}));
    EXPECT_EQ(run([](const Request&) { return 0u; }, false), (V{"269 131072", "267", "270 f"}));
    // A refused data start: nothing to end, only the removal.
    EXPECT_EQ(run([](const Request& r) { return r.command() == 266 ? 5u : 0u; }),
              (V{"notice 4 3 f", "270 f"}));
    // A refused data end: the general notice, then the removal.
    EXPECT_EQ(run([](const Request& r) { return r.command() == 267 ? 5u : 0u; }),
              (V{"269 131072", "notice 5 0 f", "269 131072", "notice 5 0 f", "269 37856",
                 "notice 5 0 f", "267", "notice 4 12", "270 f"}));
}

TEST(TreeSender, FileThatShrinksWhileSentFailsWithShortRead) {
    TempDir dir;
    const std::string path = dir / "f";
    qvxtest::write_file(path, std::string(300000, 's'));
    ScriptedHost host;
    answer_by(host, [&](const Request& r) -> uint32_t {
        if (r.command() == 269 && ::truncate(path.c_str(), 200000) != 0) ADD_FAILURE();
        return 0;
    });
    EXPECT_EQ(send_tree(host.context(), {path}), kTransferFailed);
    EXPECT_EQ(lines(host), (std::vector<std::string>{
                               "notice 0 0", "262 300000 1 1", "notice 1 0 f", "265 f 0", "266 f",
                               "269 131072", "notice 5 0 f", "notice 4 4 f", "267", "270 f"}));
}

TEST(TreeSender, NameLongerThanTheFieldIsRefusedWithTheNameCut) {
    TempDir dir;
    // 4 x 250 + 3 slashes = 1003 units, then "/" and ten characters outside the BMP
    // (20 units): 1024 units, one too many.
    std::string path = dir.path();
    for (char c : std::string("abcd")) path += "/" + std::string(250, c);
    std::string leaf;
    for (int i = 0; i < 10; ++i) leaf += "\xF0\x9D\x84\x9E";  // U+1D11E
    qvxtest::write_file(path + "/" + leaf, "x");
    const size_t topAt = dir.path().size() + 1;

    ScriptedHost host;
    EXPECT_EQ(send_top_item(host.context(), path.substr(0, topAt + 250)), kTransferFailed);
    const Request& last = host.sent.back();
    ASSERT_TRUE(is_notice(last, 4));
    EXPECT_EQ(le::get32(last.bytes.data(), 2080), 2u);
    // Cut at 1023 units would split the last surrogate pair: the text keeps 1022.
    const std::u16string shown = text_at(last, 32, 2048);
    EXPECT_EQ(shown.size(), 1022u);
    EXPECT_EQ(shown, Utf8ToUtf16(path.substr(topAt) + "/" + leaf.substr(0, 36)));
    // Only the four folders were announced; nothing about the file but its notices.
    size_t headers = 0;
    for (const Request& r : host.sent) headers += r.command() == 265;
    EXPECT_EQ(headers, 4u);
    EXPECT_TRUE(is_notice(host.sent[host.sent.size() - 2], 1));
}

TEST(TreeSender, PathsAndListsThatCannotBeSent) {
    TempDir dir;
    // An empty list announces zeros.
    ScriptedHost empty;
    EXPECT_EQ(send_tree(empty.context(), {}), kTransferDone);
    EXPECT_EQ(lines(empty), (std::vector<std::string>{"notice 0 0", "262 0 0 0"}));

    // A path without a slash fails before anything about it is sent.
    ScriptedHost noSlash;
    EXPECT_EQ(send_top_item(noSlash.context(), "relative"), kTransferFailed);
    EXPECT_EQ(lines(noSlash), (std::vector<std::string>{"notice 4 12"}));

    // A path that cannot be counted, or that names its item through "..": no totals.
    qvxtest::write_file(dir / "d/sub/f", "f");
    for (const std::string& path : {dir / "missing", dir / "d/sub/.."}) {
        ScriptedHost refused;
        EXPECT_EQ(send_tree(refused.context(), {path}), kTransferFailed);
        EXPECT_EQ(lines(refused), (std::vector<std::string>{"notice 0 0", "notice 4 12"}));
    }

    // The host stopping at a header ends the send without a notice.
    qvxtest::write_file(dir / "f", "f");
    ScriptedHost stopping;
    answer_by(stopping, [](const Request& r) { return r.command() == 265 ? 100u : 0u; });
    EXPECT_EQ(send_tree(stopping.context(), {dir / "f"}), kTransferFailed);
    EXPECT_EQ(lines(stopping).back(), "265 f 0");
}

// Creates `depth` nested folders named `name` under `root` without ever using a path
// longer than one name, and removes them the same way.
void make_chain(const std::string& root, const char* name, int depth) {
    int fd = ::open(root.c_str(), O_RDONLY | O_DIRECTORY);
    for (int i = 0; i < depth; ++i) {
        ASSERT_EQ(::mkdirat(fd, name, 0755), 0);
        const int next = ::openat(fd, name, O_RDONLY | O_DIRECTORY);
        ::close(fd);
        fd = next;
    }
    ::close(fd);
}

void remove_chain(const std::string& root, const char* name, int depth) {
    int fd = ::open(root.c_str(), O_RDONLY | O_DIRECTORY);
    for (int i = 0; i < depth - 1; ++i) {
        const int next = ::openat(fd, name, O_RDONLY | O_DIRECTORY);
        ::close(fd);
        fd = next;
    }
    for (int i = 0; i < depth; ++i) {
        EXPECT_EQ(::unlinkat(fd, name, AT_REMOVEDIR), 0);
        const int up = ::openat(fd, "..", O_RDONLY | O_DIRECTORY);
        ::close(fd);
        fd = up;
    }
    ::close(fd);
}

TEST(TreeSender, FoldersBelowTheHeldOnesAreReopenedOnTheWayBack) {
    // 30 levels, each with a file of its depth in bytes beside the next folder: deeper than
    // the walk keeps open, so it returns through folders it reopens by "..".
    TempDir dir;
    std::string path = dir / "dd";
    for (int depth = 1; depth <= 30; ++depth, path += "/dd")
        qvxtest::write_file(path + "/f", std::string(static_cast<size_t>(depth), 'f'));
    const int fdsBefore = qvxtest::open_fd_count();
    ScriptedHost host;
    EXPECT_EQ(send_tree(host.context(), {dir / "dd"}), kTransferDone);
    EXPECT_EQ(qvxtest::open_fd_count(), fdsBefore);
    // Each file's data comes from the file of its own level; each folder's 271 comes once.
    const std::vector<std::string> got = lines(host);
    size_t files = 0, folders = 0;
    for (size_t i = 0; i < got.size(); ++i) {
        if (got[i].rfind("266 ", 0) == 0) {
            ++files;
            const size_t depth = (got[i].size() - 4) / 3;  // "dd/" per level, then "f"
            ASSERT_LT(i + 1, got.size());
            EXPECT_EQ(got[i + 1], "269 " + std::to_string(depth)) << got[i];
        }
        folders += got[i].rfind("271 dd", 0) == 0 && got[i].back() == 'd';
    }
    EXPECT_EQ(files, 30u);
    EXPECT_EQ(folders, 30u);
}

// A local process moves folders while they are sent: one swapped for a link to a folder
// outside right after its header, one moved elsewhere while the walk is deeper than it
// keeps open, so that ".." on the way back leads elsewhere. Nothing outside is sent.
TEST(TreeSender, FoldersSwappedOrMovedWhileSentLeadNowhereElse) {
    TempDir dir;
    qvxtest::write_file(dir / "outside/f", "secret");
    qvxtest::write_file(dir / "top/sub/f", "f");
    ScriptedHost swapped;
    answer_by(swapped, [&](const Request& r) -> uint32_t {
        if (r.command() == 265 && name_of(r) == "top/sub") {
            EXPECT_EQ(::rename((dir / "top/sub").c_str(), (dir / "sub-away").c_str()), 0);
            EXPECT_EQ(::symlink((dir / "outside").c_str(), (dir / "top/sub").c_str()), 0);
        }
        return 0;
    });
    EXPECT_EQ(send_tree(swapped.context(), {dir / "top"}), kTransferFailed);
    const auto data_of = [](const ScriptedHost& host) {
        std::string data;
        for (const Request& r : host.sent)
            if (r.command() == 269) data.append(r.bytes.begin() + 2196, r.bytes.end());
        return data;
    };
    EXPECT_EQ(data_of(swapped), "");

    // 20 levels; beside the 20th folder, at level 19, files that come after it in readdir
    // order, and files of the same names in the folder the 20th is moved to.
    std::string level19 = dir / "deep";
    for (int i = 1; i < 19; ++i) level19 += "/d";
    for (int i = 0; i < 20; ++i) {
        const std::string name = "n" + std::to_string(i);
        qvxtest::write_file(level19 + "/" + name, "inside");
        qvxtest::write_file(dir / ("elsewhere/" + name), "outside");
    }
    qvxtest::write_file(level19 + "/sub/f", "f");
    const std::vector<std::string> order = readdir_order(level19);
    ASSERT_NE(std::find(order.begin(), order.end(), "sub"), order.end() - 1)
        << "an entry of level 19 comes after the folder moved";
    ScriptedHost moved;
    answer_by(moved, [&](const Request& r) -> uint32_t {
        if (r.command() == 266 && name_of(r).size() > 40 && name_of(r).back() == 'f') {
            EXPECT_EQ(::rename((level19 + "/sub").c_str(), (dir / "elsewhere/sub").c_str()), 0);
        }
        return 0;
    });
    EXPECT_EQ(send_tree(moved.context(), {dir / "deep"}), kTransferFailed);
    EXPECT_EQ(data_of(moved).find("outside"), std::string::npos);
}

TEST(TreeSender, TwoThousandLevelsUnderASmallDescriptorLimit) {
    TempDir dir;
    constexpr int kDepth = 2000;
    // Six thousand bytes of path: nothing here can be reached by a path string.
    make_chain(dir.path(), "dd", kDepth);
    const int fdsBefore = qvxtest::open_fd_count();

    rlimit old{};
    ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &old), 0);
    rlimit low = old;
    low.rlim_cur = 64;
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &low), 0);

    uint32_t items = 0;
    uint64_t bytes = 0;
    const bool counted = count_tree(dir / "dd", items, bytes);
    ScriptedHost host;
    const uint32_t result = send_tree(host.context(), {dir / "dd"});
    ::setrlimit(RLIMIT_NOFILE, &old);

    EXPECT_TRUE(counted);
    EXPECT_EQ(items, 2000u);
    EXPECT_EQ(bytes, 64000u);
    // Level 341 is the deepest whose name ("dd/" x 340 + "dd", 1022 units) fits; the
    // next is refused with its name cut to the field.
    EXPECT_EQ(result, kTransferFailed);
    std::string name = "dd";
    for (int level = 2; level <= 342; ++level) name += "/dd";
    const std::vector<std::string> got = lines(host);
    ASSERT_GE(got.size(), 4u);
    EXPECT_EQ(got[got.size() - 3], "265 " + name.substr(0, 1022) + " 16");
    EXPECT_EQ(got[got.size() - 2], "notice 1 0 " + name.substr(0, 1023));
    EXPECT_EQ(got.back(), "notice 4 2 " + name.substr(0, 1023));
    EXPECT_EQ(host.sent.size(), 2u + 341 * 2 + 2);
    EXPECT_EQ(qvxtest::open_fd_count(), fdsBefore);

    remove_chain(dir.path(), "dd", kDepth);
}

}  // namespace
