// Guest-to-host transfers end to end: the transfer job through the real communicator to
// an in-process simulated host that stores the items, and the copy compared with the
// source item by item.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <dirent.h>

#include <algorithm>
#include <string>
#include <vector>

#include "channel/communicator.h"
#include "hostsim/host.h"
#include "hostsim/progress.h"
#include "hostsim/tree_sink.h"
#include "support/private_root.h"
#include "support/temp_dir.h"
#include "transfer/transfer_job.h"

namespace {

using namespace qvx;
using qvxtest::TempDir;

constexpr uint64_t kWorker = 0x5E4D;

void set_mtime(int dirFd, const std::string& name, time_t seconds) {
    const timespec times[2] = {{seconds, 0}, {seconds, 0}};
    ASSERT_EQ(::utimensat(dirFd, name.c_str(), times, AT_SYMLINK_NOFOLLOW), 0) << name;
}

void set_mtime(const std::string& path, time_t seconds) {
    set_mtime(AT_FDCWD, path, seconds);
}

std::vector<std::string> entries_of(int dirFd) {
    std::vector<std::string> names;
    DIR* d = ::fdopendir(::openat(dirFd, ".", O_RDONLY | O_DIRECTORY));
    while (const dirent* e = ::readdir(d)) {
        const std::string n = e->d_name;
        if (n != "." && n != "..") names.push_back(n);
    }
    ::closedir(d);
    std::sort(names.begin(), names.end());
    return names;
}

std::string contents_at(int dirFd, const std::string& name) {
    std::string data;
    const int fd = ::openat(dirFd, name.c_str(), O_RDONLY);
    char buffer[65536];
    for (ssize_t n; (n = ::read(fd, buffer, sizeof buffer)) > 0;) data.append(buffer, n);
    ::close(fd);
    return data;
}

std::string link_at(int dirFd, const std::string& name) {
    char buffer[4096];
    const ssize_t n = ::readlinkat(dirFd, name.c_str(), buffer, sizeof buffer);
    return n < 0 ? "" : std::string(buffer, n);
}

// Compares the item `name` of two folders and everything below it: names, kinds,
// contents, link targets, modes and modification times. Relative to descriptors, so
// trees deeper than a path can hold compare too. Returns the number of items compared.
int compare_items(int srcDir, int dstDir, const std::string& name, const std::string& shown) {
    struct stat src {
    }, dst{};
    if (::fstatat(srcDir, name.c_str(), &src, AT_SYMLINK_NOFOLLOW) != 0) {
        ADD_FAILURE() << shown << ": missing in the source";
        return 0;
    }
    if (::fstatat(dstDir, name.c_str(), &dst, AT_SYMLINK_NOFOLLOW) != 0) {
        ADD_FAILURE() << shown << ": missing on the host";
        return 0;
    }
    EXPECT_EQ(src.st_mode & S_IFMT, dst.st_mode & S_IFMT) << shown;
    EXPECT_EQ(src.st_mtim.tv_sec, dst.st_mtim.tv_sec) << shown;
    if (S_ISLNK(src.st_mode)) {
        EXPECT_EQ(link_at(srcDir, name), link_at(dstDir, name)) << shown;
        return 1;
    }
    EXPECT_EQ(src.st_mode & 07777, dst.st_mode & 07777) << shown;
    if (!S_ISDIR(src.st_mode)) {
        EXPECT_TRUE(contents_at(srcDir, name) == contents_at(dstDir, name)) << shown;
        return 1;
    }
    const int s = ::openat(srcDir, name.c_str(), O_RDONLY | O_DIRECTORY);
    const int d = ::openat(dstDir, name.c_str(), O_RDONLY | O_DIRECTORY);
    const std::vector<std::string> names = entries_of(s);
    EXPECT_EQ(names, entries_of(d)) << shown;
    int count = 1;
    for (const std::string& n : names) count += compare_items(s, d, n, shown + "/" + n);
    ::close(s);
    ::close(d);
    return count;
}

int compare_trees(const std::string& srcFolder, const std::string& dstFolder,
                  const std::string& name) {
    const int s = ::open(srcFolder.c_str(), O_RDONLY | O_DIRECTORY);
    const int d = ::open(dstFolder.c_str(), O_RDONLY | O_DIRECTORY);
    const int count = compare_items(s, d, name, name);
    ::close(s);
    ::close(d);
    return count;
}

class SendEndToEnd : public ::testing::Test {
  protected:
    static void SetUpTestSuite() { qvxtest::private_platform_root(); }
    void SetUp() override {
        ASSERT_TRUE(host.start());
        communicator = std::make_unique<CommonMacCommunicator>();
        ASSERT_NE(communicator->handle(), 0u);
    }

    // Runs a send job for `paths` under kWorker, as the pool would.
    void run_send(std::vector<std::string> paths) {
        TransferJob job;
        job.direction = kDirectionSend;
        job.action = kActionSend;
        job.workerId = kWorker;
        job.paths = std::move(paths);
        const DnDContext ctx{kWorker, communicator.get(), SendDnDCommand};
        RunTransferJob(job, ctx);
    }

    TempDir guest;
    TempDir hostFolder;
    hostsim::Host host;
    std::unique_ptr<CommonMacCommunicator> communicator;
};

TEST_F(SendEndToEnd, EveryItemKindArrivesAsItIs) {
    const std::string top = guest / "Tree";
    std::string big(3 * 131072 + 4321, '\0');
    for (size_t i = 0; i < big.size(); ++i) big[i] = static_cast<char>(i * 7 + (i >> 11));
    qvxtest::write_file(top + "/big.bin", big);
    qvxtest::write_file(top + "/chunk.bin", big.substr(0, 131072));
    qvxtest::write_file(top + "/small.txt", "ten bytes!");
    qvxtest::write_file(top + "/empty", "");
    qvxtest::write_file(top + "/nested/deeper/leaf.txt", "leaf");
    qvxtest::make_dirs(top + "/empty folder");
    qvxtest::write_file(top + "/caf\xC3\xA9 cr\xC3\xA8me.txt", "accents");       // precomposed
    qvxtest::write_file(top + "/\xF0\x9D\x84\x9E clef.txt", "outside the BMP");  // U+1D11E
    ASSERT_EQ(::symlink("nested/deeper", (top + "/to deeper").c_str()), 0);
    ASSERT_EQ(::symlink("../../missing target", (top + "/nested/dangling").c_str()), 0);
    ASSERT_EQ(::chmod((top + "/small.txt").c_str(), 0640), 0);
    ASSERT_EQ(::chmod((top + "/big.bin").c_str(), 0755), 0);
    ASSERT_EQ(::chmod((top + "/nested").c_str(), 0750), 0);
    qvxtest::write_file(guest / "single.dat", big.substr(100, 5000));
    // Folders last: writing inside a folder moves its time.
    time_t when = 1'000'000'000;
    for (const char* item :
         {"/big.bin", "/chunk.bin", "/small.txt", "/empty", "/nested/deeper/leaf.txt",
          "/caf\xC3\xA9 cr\xC3\xA8me.txt", "/\xF0\x9D\x84\x9E clef.txt", "/to deeper",
          "/nested/dangling", "/empty folder", "/nested/deeper", "/nested", ""})
        set_mtime(top + item, when += 86'400);
    set_mtime(guest / "single.dat", when += 60);

    hostsim::ProgressBoard progress;
    hostsim::SinkOptions options;
    options.folder = hostFolder.path();
    options.progress = &progress;
    hostsim::TreeSink sink(host, options);
    run_send({top, guest / "single.dat"});

    EXPECT_EQ(compare_trees(guest.path(), hostFolder.path(), "Tree"), 13);
    EXPECT_EQ(compare_trees(guest.path(), hostFolder.path(), "single.dat"), 1);
    EXPECT_EQ(host.message_count(260), 1u);
    const auto result = sink.result(kWorker);
    ASSERT_TRUE(result);
    EXPECT_EQ(result->state, hostsim::SinkResult::State::Done) << result->refusal;
    EXPECT_EQ(result->items, 14u);
    EXPECT_TRUE(result->totals_match()) << result->bytes << " of " << result->announcedBytes;

    // The progress the host showed reached the announced totals.
    const auto shown = progress.finished();
    ASSERT_EQ(shown.size(), 1u);
    EXPECT_EQ(shown[0].items, 14u);
    EXPECT_EQ(shown[0].bytes, result->announcedBytes);
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
    std::vector<int> chain = {level};
    for (int i = 0; i < 30; ++i) {
        const std::string file = "file" + std::to_string(i);
        const int out = ::openat(level, file.c_str(), O_WRONLY | O_CREAT, 0644);
        ASSERT_EQ(::write(out, file.data(), file.size()), static_cast<ssize_t>(file.size()));
        ::close(out);
        ASSERT_EQ(::mkdirat(level, "level", 0755), 0);
        level = ::openat(level, "level", O_RDONLY | O_DIRECTORY);
        chain.push_back(level);
    }
    // Times from the deepest up, so that no later write moves them.
    for (size_t i = chain.size() - 1; i > 0; --i) {
        set_mtime(chain[i - 1], "file" + std::to_string(i - 1), 1'200'000'000 + i);
        set_mtime(chain[i - 1], "level", 1'300'000'000 + i);
    }
    set_mtime(fd, "t", 1'400'000'000);
    for (int c : chain) ::close(c);

    hostsim::SinkOptions options;
    options.folder = hostFolder.path();
    hostsim::TreeSink sink(host, options);
    run_send({prefix + "/t"});

    const int hostFd = ::open(hostFolder.path().c_str(), O_RDONLY | O_DIRECTORY);
    EXPECT_EQ(compare_items(fd, hostFd, "t", "t"), 61);
    ::close(hostFd);
    const auto result = sink.result(kWorker);
    ASSERT_TRUE(result);
    EXPECT_EQ(result->state, hostsim::SinkResult::State::Done) << result->refusal;
    EXPECT_TRUE(result->totals_match());
    EXPECT_EQ(host.message_count(260), 1u);

    // Move the tree up, where the temporary folder's removal reaches it by path.
    const int guestFd = ::open(guest.path().c_str(), O_RDONLY | O_DIRECTORY);
    EXPECT_EQ(::renameat(fd, "t", guestFd, "t"), 0);
    ::close(guestFd);
    ::close(fd);
}

}  // namespace
