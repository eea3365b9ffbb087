// A drop of a host tree received end to end: the transfer job through the real
// communicator and toolgate socket to an in-process simulated host that serves a folder.
#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "channel/communicator.h"
#include "hostsim/host.h"
#include "hostsim/tree_source.h"
#include "support/private_root.h"
#include "support/temp_dir.h"
#include "text/encoding.h"
#include "transfer/transfer_job.h"

namespace {

using qvxtest::TempDir;

constexpr uint64_t kWorker = 0x2A;

std::string pattern(size_t size, unsigned seed) {
    std::string data(size, '\0');
    uint32_t x = seed * 2654435761u + 1;
    for (char& c : data) {
        x = x * 1664525u + 1013904223u;
        c = static_cast<char>(x >> 24);
    }
    return data;
}

void set_times(const std::string& path, time_t mtime) {
    const struct timespec times[2] = {{mtime - 100, 0}, {mtime, 0}};
    ASSERT_EQ(::utimensat(AT_FDCWD, path.c_str(), times, AT_SYMLINK_NOFOLLOW), 0) << path;
}

// The name a host name gets in the guest: decomposed (form D).
std::string guest_name(const std::string& hostName) {
    const std::u16string units = qvx::Utf8ToUtf16(hostName);
    std::string out;
    qvx::Utf16ToNormalizedUtf8(units.data(), units.size() * 2, out);
    return out;
}

std::vector<std::string> entries(const std::string& folder) {
    std::vector<std::string> names;
    if (DIR* d = ::opendir(folder.c_str())) {
        while (const dirent* e = ::readdir(d)) {
            const std::string n = e->d_name;
            if (n != "." && n != "..") names.push_back(n);
        }
        ::closedir(d);
    }
    return names;
}

// Every item of `from` is in `to` under its decomposed name, of the same kind, with the
// same bytes, permissions, modification time or link target, and nothing else is there.
void expect_same_tree(const std::string& from, const std::string& to, int& items) {
    const auto names = entries(from);
    EXPECT_EQ(entries(to).size(), names.size()) << to;
    for (const std::string& name : names) {
        const std::string a = from + "/" + name;
        const std::string b = to + "/" + guest_name(name);
        struct stat sa {
        }, sb{};
        ASSERT_EQ(::lstat(a.c_str(), &sa), 0);
        ASSERT_EQ(::lstat(b.c_str(), &sb), 0) << b;
        ++items;
        EXPECT_EQ(sa.st_mode & S_IFMT, sb.st_mode & S_IFMT) << b;
        EXPECT_EQ(sa.st_mtim.tv_sec, sb.st_mtim.tv_sec) << b;
        if (S_ISLNK(sa.st_mode)) {
            char ta[4096] = {}, tb[4096] = {};
            ASSERT_GT(::readlink(a.c_str(), ta, sizeof ta - 1), 0);
            ASSERT_GT(::readlink(b.c_str(), tb, sizeof tb - 1), 0);
            EXPECT_STREQ(ta, tb) << b;
            continue;
        }
        EXPECT_EQ(sa.st_mode & 07777, sb.st_mode & 07777) << b;
        if (S_ISDIR(sa.st_mode)) {
            expect_same_tree(a, b, items);
        } else {
            EXPECT_EQ(qvxtest::read_file(a), qvxtest::read_file(b)) << b;
        }
    }
}

TEST(ReceiveEndToEnd, HostTreeArrivesWholeThroughTheToolgate) {
    qvxtest::private_platform_root();
    TempDir dir;
    const std::string src = dir / "host";
    const std::string dest = dir / "guest";
    qvxtest::make_dirs(dest);
    // Files of several sizes around the chunk, an empty file and folder, nested folders,
    // a link, names with accents and one from beyond the Basic Multilingual Plane.
    const std::map<std::string, size_t> files = {
        {"one", 1},
        {"chunk.bin", 131072},
        {"chunk+1.bin", 131073},
        {"big.bin", 300000},
        {"empty", 0},
        {"nested/inner/deep.txt", 5000},
        {"nested/caf\xc3\xa9.txt", 12},
        {"r\xc3\xa9sum\xc3\xa9s/\xf0\x9f\x98\x80.txt", 33},
    };
    unsigned seed = 0;
    for (const auto& [name, size] : files)
        qvxtest::write_file(src + "/" + name, pattern(size, ++seed));
    qvxtest::make_dirs(src + "/empty folder");
    ASSERT_EQ(::symlink("nested/inner/deep.txt", (src + "/link").c_str()), 0);
    ASSERT_EQ(::chmod((src + "/one").c_str(), 0600), 0);
    ASSERT_EQ(::chmod((src + "/big.bin").c_str(), 0755), 0);
    ASSERT_EQ(::chmod((src + "/nested/inner").c_str(), 0750), 0);
    time_t when = 1'400'000'000;
    for (const char* p :
         {"one", "chunk.bin", "chunk+1.bin", "big.bin", "empty", "link", "nested/inner/deep.txt",
          "nested/inner", "nested", "empty folder", "nested/caf\xc3\xa9.txt",
          "r\xc3\xa9sum\xc3\xa9s/\xf0\x9f\x98\x80.txt", "r\xc3\xa9sum\xc3\xa9s"}) {
        set_times(src + "/" + p, when += 86400);
    }

    std::vector<hostsim::SourceItem> items;
    ASSERT_TRUE(hostsim::list_folder(src, items));
    hostsim::Host host;
    ASSERT_TRUE(host.start());
    auto source = std::make_shared<hostsim::TreeSource>(std::move(items));
    hostsim::serve_tree(host, kWorker, source);

    qvx::CommonMacCommunicator communicator;
    ASSERT_NE(communicator.handle(), 0u);
    qvx::TransferJob job;
    job.direction = qvx::kDirectionReceive;
    job.workerId = kWorker;
    job.destination = dest;
    qvx::RunTransferJob(job, {kWorker, &communicator, qvx::SendDnDCommand});

    int received = 0;
    expect_same_tree(src, dest, received);
    EXPECT_EQ(received, 13);
    EXPECT_EQ(host.message_count(260), 1u);
    EXPECT_EQ(source->ends(), 1u);
    for (const auto& n : source->notices()) EXPECT_NE(n.dialogId, 4u) << "code " << n.code;
    EXPECT_EQ(source->bytes_served(), 131072u + 131073 + 300000 + 1 + 5000 + 12 + 33);
    host.stop();
}

}  // namespace
