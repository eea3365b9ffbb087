// Tests of the log file: default folders, fallback, reopening after removal and banner.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <functional>
#include <regex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "build_info.h"
#include "log/log.h"
#include "support/temp_dir.h"

extern char** environ;

namespace {

using qvxtest::TempDir;

constexpr const char kChildScenario[] = "QVX_LOG_TEST_SCENARIO";

// The platform root is read once per process, so it must point into a private folder
// before the first line; a default folder left unset would reach the real machine.
TempDir& sandbox() {
    static TempDir dir;
    return dir;
}

const bool g_sandboxReady = [] {
    if (std::getenv(kChildScenario) != nullptr) return true;  // the parent chose them
    setenv("QVX_PLATFORM_ROOT", (sandbox() / "root").c_str(), 1);
    setenv("HOME", (sandbox() / "home").c_str(), 1);
    return true;
}();

using qvxtest::exists;

mode_t permissions(const std::string& path) {
    struct stat info {};
    return stat(path.c_str(), &info) == 0 ? (info.st_mode & 07777) : 0;
}

void wait_for_next_second() {
    time_t start = time(nullptr);
    while (time(nullptr) == start) std::this_thread::sleep_for(std::chrono::milliseconds(10));
}

// Runs one LogScenario test in a fresh process, whose log state and platform root are
// its own; returns its exit status. This process read its root long ago, so changing
// the environment here only affects the child.
int run_scenario(const std::string& name, const std::string& root, const std::string& home) {
    std::string filter = "--gtest_filter=LogScenario." + name;
    std::string self = "/proc/self/exe";
    char* argv[] = {self.data(), filter.data(), nullptr};
    std::string savedRoot = std::getenv("QVX_PLATFORM_ROOT");
    std::string savedHome = std::getenv("HOME");
    setenv(kChildScenario, name.c_str(), 1);
    setenv("QVX_PLATFORM_ROOT", root.c_str(), 1);
    setenv("HOME", home.c_str(), 1);
    pid_t pid = 0;
    int spawned = posix_spawn(&pid, self.c_str(), nullptr, nullptr, argv, environ);
    unsetenv(kChildScenario);
    setenv("QVX_PLATFORM_ROOT", savedRoot.c_str(), 1);
    setenv("HOME", savedHome.c_str(), 1);
    int status = 0;
    if (spawned != 0 || waitpid(pid, &status, 0) != pid) return -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

bool in_scenario(const char* name) {
    const char* scenario = std::getenv(kChildScenario);
    return scenario != nullptr && std::string(scenario) == name;
}

// Scenario bodies run only inside the process that run_scenario starts.
TEST(LogScenario, MachineWideFolder) {
    if (!in_scenario("MachineWideFolder")) GTEST_SKIP() << "runs in its own process";
    std::string logs = std::string(std::getenv("QVX_PLATFORM_ROOT")) + "/Library/Logs";
    umask(077);
    qvx::log_message("DNDTOOL", "qvxdragdrop", 0, "first line");
    EXPECT_EQ(std::string(qvx::log_directory()), logs);
    EXPECT_EQ(std::string(qvx::log_file_path()), logs + "/quorvex.log");
    EXPECT_EQ(permissions(logs + "/quorvex.log"), 0666u);
    EXPECT_NE(qvxtest::read_file(logs + "/quorvex.log").find("first line"), std::string::npos);
    EXPECT_FALSE(exists(std::string(std::getenv("HOME")) + "/Library"));
}

TEST(LogScenario, FallbackToUserFolder) {
    if (!in_scenario("FallbackToUserFolder")) GTEST_SKIP() << "runs in its own process";
    std::string machineLogs = std::string(std::getenv("QVX_PLATFORM_ROOT")) + "/Library/Logs";
    std::string userLog = std::string(std::getenv("HOME")) + "/Library/Logs/quorvex.log";
    qvx::log_message("", "c", 0, "to the user folder");
    EXPECT_EQ(std::string(qvx::log_file_path()), userLog);
    EXPECT_NE(qvxtest::read_file(userLog).find("to the user folder"), std::string::npos);

    // Once the machine-wide folder works again, the log still does not go back to it.
    ASSERT_EQ(unlink(machineLogs.c_str()), 0);
    ASSERT_EQ(mkdir(machineLogs.c_str(), 0777), 0);
    ASSERT_EQ(unlink(userLog.c_str()), 0);
    wait_for_next_second();
    qvx::log_message("", "c", 0, "still the user folder");
    EXPECT_NE(qvxtest::read_file(userLog).find("still the user folder"), std::string::npos);
    EXPECT_FALSE(exists(machineLogs + "/quorvex.log"));
}

TEST(LogFile, DefaultIsTheMachineWideLibraryLogsFolder) {
    TempDir dir;
    qvxtest::make_dirs(dir / "root/Library/Logs");
    ASSERT_EQ(run_scenario("MachineWideFolder", dir / "root", dir / "home"), 0);
}

TEST(LogFile, UnwritableMachineWideFolderSendsLinesToTheUserFolderForGood) {
    TempDir dir;
    // A file where the folder should be makes every open under it fail, even for root.
    qvxtest::write_file(dir / "root/Library/Logs", "not a folder");
    ASSERT_EQ(run_scenario("FallbackToUserFolder", dir / "root", dir / "home"), 0);
    EXPECT_TRUE(exists(dir / "home/Library/Logs/quorvex.log"));
}

TEST(LogFile, RemovedFileIsRecreatedWithinASecondWithSharedMode) {
    TempDir dir;
    qvx::log_set_directory(dir.path().c_str(), "quorvex.log");
    std::string path = dir / "quorvex.log";
    mode_t savedMask = umask(077);
    // The second line makes this second's check, so the removal is noticed only in the next.
    qvx::log_message("", "c", 0, "before removal");
    qvx::log_message("", "c", 0, "before removal");
    ASSERT_EQ(permissions(path), 0666u);
    ASSERT_EQ(unlink(path.c_str()), 0);

    auto removedAt = std::chrono::steady_clock::now();
    int line = 0;
    while (!exists(path) &&
           std::chrono::steady_clock::now() - removedAt < std::chrono::seconds(3)) {
        qvx::log_message("", "c", 0, "after removal %d", line++);
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    umask(savedMask);
    ASSERT_TRUE(exists(path));
    EXPECT_LT(std::chrono::steady_clock::now() - removedAt, std::chrono::milliseconds(1500));
    EXPECT_EQ(permissions(path), 0666u);
    EXPECT_NE(qvxtest::read_file(path).find("after removal"), std::string::npos);
}

// A writer that does what the file writer does, taking the descriptor and then writing,
// but stops in between for the line "held line" until released.
std::atomic<bool> g_held{false};
std::atomic<bool> g_release{false};

int holding_writer(const char* text, int32_t length) {
    const int fd = qvx::log_open();
    if (fd < 0) return -1;
    if (std::strstr(text, "held line") != nullptr) {
        g_held = true;
        while (!g_release) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return static_cast<int>(::write(fd, text, static_cast<size_t>(length)));
}

// Holds one line between its two steps, runs `replace` (which makes the log let go of its
// file), then opens files the way any other part of the process would, and lets the line
// go. Returns the contents of those files.
std::vector<std::string> late_line_targets(const TempDir& dir,
                                           const std::function<void()>& replace) {
    g_held = false;
    g_release = false;
    qvx::LogWriter previous = qvx::log_set_writer(holding_writer);
    std::thread writer([] { qvx::log_message("", "c", 0, "held line"); });
    while (!g_held) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    replace();
    std::vector<int> fds;
    for (int i = 0; i < 16; ++i) {
        fds.push_back(::open((dir / "other" + std::to_string(i)).c_str(),
                             O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
    }
    g_release = true;
    writer.join();
    qvx::log_set_writer(previous);
    std::vector<std::string> contents;
    for (size_t i = 0; i < fds.size(); ++i) {
        if (fds[i] >= 0) ::close(fds[i]);
        contents.push_back(qvxtest::read_file(dir / "other" + std::to_string(i)));
    }
    return contents;
}

// Whether the log let go of its file by reopening it or by changing folder.
TEST(LogFile, LateLineNeverReachesAFileOpenedAfterTheLogLetGoOfItsFile) {
    for (const bool reopen : {true, false}) {
        SCOPED_TRACE(reopen ? "reopened" : "folder changed");
        TempDir dir;
        qvx::log_set_directory(dir.path().c_str(), "quorvex.log");
        qvx::log_message("", "c", 0, "first");
        const std::string path = dir / "quorvex.log";
        qvxtest::make_dirs(dir / "elsewhere");
        const auto others = late_line_targets(dir, [&] {
            if (!reopen) return qvx::log_set_directory((dir / "elsewhere").c_str(), "quorvex.log");
            EXPECT_EQ(::unlink(path.c_str()), 0);
            wait_for_next_second();
            qvx::log_message("", "c", 0, "reopens the file");
            EXPECT_TRUE(exists(path));
        });
        for (const std::string& text : others) EXPECT_EQ(text, "");
        // Reopened, the number the writer held names the new file, so the line is not even
        // lost; moved, the old file was let go before the call returned.
        EXPECT_EQ(qvxtest::read_file(path).find("held line") != std::string::npos, reopen);
    }
}

TEST(LogFile, HeaderBanner) {
    TempDir dir;
    qvx::log_set_directory(dir.path().c_str(), "quorvex.log");
    qvx::log_write_header();
    std::istringstream in(qvxtest::read_file(dir / "quorvex.log"));
    std::vector<std::string> lines;
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    const std::string stars = "* * * * * * * * * * * * * * * * * * * * * * * * * * * * * * * * * *";
    std::vector<std::string> expected = {
        stars,
        "* Quorvex Virtualization System Log File",
        "*",
        "* Product information Quorvex",
        std::string("* Build information ") + QVX_VERSION_STRING + " " + QVX_BUILD_DATE,
        "*",
        "",  // time, checked below
        "*",
        "* Operating System macOS",
        stars,
        ""};
    ASSERT_EQ(lines.size(), expected.size());
    for (size_t i = 0; i < lines.size(); ++i) {
        if (i == 6) {
            EXPECT_TRUE(
                std::regex_match(lines[i], std::regex(R"(\d\d-\d\d \d\d:\d\d:\d\d\.\d{3} )")))
                << lines[i];
        } else {
            EXPECT_EQ(lines[i], expected[i]) << "line " << i;
        }
    }
}

}  // namespace
