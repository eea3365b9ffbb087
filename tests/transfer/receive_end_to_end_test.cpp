// A drop of a host tree received end to end: the transfer job through the real
// communicator and toolgate socket to an in-process simulated host that serves a folder.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
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

namespace fs = std::filesystem;
constexpr uint64_t kWorker = 0x2A;

// The path a host path gets in the guest: every name decomposed (form D).
std::string guest_path(const fs::path& relative) {
    std::string out;
    for (const auto& part : relative) {
        const std::u16string units = qvx::Utf8ToUtf16(part.string());
        std::string name;
        qvx::Utf16ToNormalizedUtf8(units.data(), units.size() * 2, name);
        out += "/" + name;
    }
    return out;
}

// Every host item is in the guest under its decomposed name, with the same type and
// permissions, modification time, bytes or link target; and nothing else is there.
size_t expect_same_tree(const fs::path& from, const fs::path& to) {
    size_t items = 0;
    for (const auto& entry : fs::recursive_directory_iterator(from)) {
        const std::string a = entry.path(),
                          b = to.string() + guest_path(entry.path().lexically_relative(from));
        struct stat sa {
        }, sb{};
        EXPECT_EQ(::lstat(a.c_str(), &sa), 0);
        EXPECT_EQ(::lstat(b.c_str(), &sb), 0) << b;
        EXPECT_EQ(sa.st_mode, sb.st_mode) << b;
        EXPECT_EQ(sa.st_mtim.tv_sec, sb.st_mtim.tv_sec) << b;
        if (S_ISLNK(sa.st_mode)) {
            EXPECT_EQ(fs::read_symlink(a), fs::read_symlink(b)) << b;
        } else if (S_ISREG(sa.st_mode)) {
            EXPECT_EQ(qvxtest::read_file(a), qvxtest::read_file(b)) << b;
        }
        ++items;
    }
    EXPECT_EQ(std::distance(fs::recursive_directory_iterator(to), {}), static_cast<long>(items));
    return items;
}

TEST(ReceiveEndToEnd, HostTreeArrivesWholeThroughTheToolgate) {
    qvxtest::private_platform_root();
    qvxtest::TempDir dir;
    const std::string src = dir / "host", dest = dir / "guest";
    qvxtest::make_dirs(dest);
    // Sizes around the chunk, an empty file and folder, nested folders, a link, names
    // with accents and one from beyond the Basic Multilingual Plane.
    const std::vector<std::pair<std::string, size_t>> files = {
        {"one", 1},
        {"chunk", 131072},
        {"chunk+1", 131073},
        {"big", 300000},
        {"empty", 0},
        {"nested/inner/deep.txt", 5000},
        {"nested/caf\xc3\xa9", 12},
        {"r\xc3\xa9sum\xc3\xa9s/\xf0\x9f\x98\x80", 33}};
    uint64_t served = 0;
    for (const auto& [name, size] : files) {
        std::string data(size, '\0');
        for (size_t i = 0; i < size; ++i) data[i] = static_cast<char>((i * 131 + size) >> 3);
        qvxtest::write_file(src + "/" + name, data);
        served += size;
    }
    qvxtest::make_dirs(src + "/empty folder");
    ASSERT_EQ(::symlink("nested/inner/deep.txt", (src + "/link").c_str()), 0);
    fs::permissions(src + "/one", fs::perms(0600));
    fs::permissions(src + "/big", fs::perms(0755));
    fs::permissions(src + "/nested/inner", fs::perms(0750));
    // Deepest first, so that setting an item's times leaves its folder's alone.
    std::vector<fs::path> all(fs::recursive_directory_iterator(src), {});
    time_t when = 1'400'000'000;
    for (auto it = all.rbegin(); it != all.rend(); ++it) {
        const struct timespec times[2] = {{when, 0}, {when += 86400, 0}};
        ASSERT_EQ(::utimensat(AT_FDCWD, it->c_str(), times, AT_SYMLINK_NOFOLLOW), 0);
    }

    std::vector<hostsim::SourceItem> items;
    ASSERT_TRUE(hostsim::list_folder(src, items));
    hostsim::Host host;
    ASSERT_TRUE(host.start());
    auto source = std::make_shared<hostsim::TreeSource>(std::move(items));
    hostsim::serve_tree(host, kWorker, source);
    qvx::CommonMacCommunicator communicator;
    qvx::TransferJob job;
    job.direction = qvx::kDirectionReceive;
    job.workerId = kWorker;
    job.destination = dest;
    qvx::RunTransferJob(job, {kWorker, &communicator, qvx::SendDnDCommand});

    EXPECT_EQ(expect_same_tree(src, dest), 13u);
    EXPECT_EQ(host.message_count(260), 1u);
    EXPECT_EQ(source->ends(), 1u);
    for (const auto& n : source->notices()) EXPECT_NE(n.dialogId, 4u) << "code " << n.code;
    EXPECT_EQ(source->bytes_served(), served);
}

}  // namespace
