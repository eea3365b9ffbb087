// Starting the real programs from tests: qvxdragdrop and qvxhost in a private platform root,
// and waiting for them with a time-out so that a hang fails instead of stalling. Header-only:
// the programs' paths come from each test executable's QVX_DRAGDROP_BIN and QVX_HOST_BIN.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "support/temp_dir.h"

namespace qvxtest {

// Everything a child needs is built before fork: in the child of a threaded process only
// exec may run.
inline pid_t spawn_program(const char* program, std::vector<std::string> args,
                           std::vector<std::string> env, int stdoutFd = -1) {
    args.insert(args.begin(), program);
    std::vector<char*> argv;
    for (auto& a : args) argv.push_back(a.data());
    argv.push_back(nullptr);
    std::vector<char*> envp;
    for (auto& e : env) envp.push_back(e.data());
    envp.push_back(nullptr);
    const bool inherit = env.empty();
    const pid_t pid = ::fork();
    if (pid == 0) {
        if (stdoutFd >= 0) ::dup2(stdoutFd, 1);
        if (inherit) {
            ::execv(program, argv.data());
        } else {
            ::execve(program, argv.data(), envp.data());
        }
        ::_exit(127);
    }
    return pid;
}

#ifdef QVX_DRAGDROP_BIN
// The tool, with QVX_PLATFORM_ROOT and HOME (root/home) of its own; -1 when fork failed.
inline pid_t spawn_tool(const std::string& root) {
    return spawn_program(QVX_DRAGDROP_BIN, {},
                         {"QVX_PLATFORM_ROOT=" + root, "HOME=" + root + "/home"});
}
#endif

#ifdef QVX_HOST_BIN
// qvxhost --root root args..., its standard output into `outPath`; -1 on failure.
inline pid_t spawn_qvxhost(const std::string& root, std::vector<std::string> args,
                           const std::string& outPath) {
    args.insert(args.begin(), {"--root", root});
    const int out = ::open(outPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (out < 0) return -1;
    const pid_t pid = spawn_program(QVX_HOST_BIN, std::move(args), {}, out);
    ::close(out);
    return pid;
}
#endif

// The exit status (128 + the signal for a death by signal) when `pid` ends within
// `timeout`; `pid` becomes -1 then. Nothing when it is still running.
inline std::optional<int> wait_exit(pid_t& pid, std::chrono::milliseconds timeout) {
    const auto end = std::chrono::steady_clock::now() + timeout;
    while (std::chrono::steady_clock::now() < end) {
        int status = 0;
        if (::waitpid(pid, &status, WNOHANG) == pid) {
            pid = -1;
            return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return std::nullopt;
}

// Kills and reaps what a test left running.
inline void kill_and_reap(pid_t& pid) {
    if (pid <= 0) return;
    ::kill(pid, SIGKILL);
    ::waitpid(pid, nullptr, 0);
    pid = -1;
}

// Polls `done` every 10 ms until it holds or `timeout` passes.
inline bool eventually(const std::function<bool()>& done, std::chrono::milliseconds timeout) {
    for (const auto end = std::chrono::steady_clock::now() + timeout;
         std::chrono::steady_clock::now() < end;) {
        if (done()) return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return done();
}

// A private simulated Mac for the programs: a platform root with a log folder and a home of
// its own. Whatever a test leaves running is killed.
class ProgramRootTest : public ::testing::Test {
  protected:
    void SetUp() override {
        make_dirs(m_root / "Library/Logs");
        make_dirs(m_root / "home");
    }
    void TearDown() override {
        kill_and_reap(m_pid);
        kill_and_reap(m_hostPid);
    }

    TempDir m_root;
    pid_t m_pid = -1;
    pid_t m_hostPid = -1;
};

}  // namespace qvxtest
