// Receives killed with SIGKILL at many points: inside a large file, between files, among many
// small files, while older items are replaced. At whatever moment the process died, every
// name the host sent holds its whole item, or the older item it was to replace, or nothing;
// anything else left is one of the receiver's hidden temporaries.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <map>
#include <string>
#include <vector>

#include "support/fault_scope.h"
#include "support/source_host.h"
#include "support/temp_dir.h"
#include "support/trees.h"
#include "text/encoding.h"
#include "transfer/transfer_job.h"

namespace {

namespace fs = std::filesystem;
using namespace qvxtest;
using Contents = TreeContents;

// The calls that change the destination, counted; the process dies at number g_dieAt.
uint64_t g_calls = 0;
uint64_t g_dieAt = 0;
void count_call() {
    if (++g_calls == g_dieAt) ::kill(::getpid(), SIGKILL);
}

void count_changes(platform::SyscallTable& t) {
    t.openat = [](int d, const char* n, int f, mode_t m) {
        count_call();
        return platform::real_syscalls()->openat(d, n, f, m);
    };
    t.write = [](int fd, const void* b, size_t n) {
        count_call();
        return platform::real_syscalls()->write(fd, b, n);
    };
    t.fdatasync = [](int fd) {
        count_call();
        return platform::real_syscalls()->fdatasync(fd);
    };
    t.rename_noreplace = [](int a, const char* f, int b, const char* to) {
        count_call();
        return platform::real_syscalls()->rename_noreplace(a, f, b, to);
    };
    t.rename_exchange = [](int a, const char* f, int b, const char* to) {
        count_call();
        return platform::real_syscalls()->rename_exchange(a, f, b, to);
    };
    t.unlinkat = [](int d, const char* n, int f) {
        count_call();
        return platform::real_syscalls()->unlinkat(d, n, f);
    };
    t.symlinkat = [](const char* target, int d, const char* n) {
        count_call();
        return platform::real_syscalls()->symlinkat(target, d, n);
    };
    t.mkdirat = [](int d, const char* n, mode_t m) {
        count_call();
        return platform::real_syscalls()->mkdirat(d, n, m);
    };
}

bool is_temporary(const std::string& name) {
    return name.rfind(".qvxdragdrop-", 0) == 0 && name.size() > 5 &&
           name.compare(name.size() - 5, 5, ".part") == 0;
}

// What the folder holds; the temporaries are counted instead, and nothing below them is
// looked at.
TreeContents contents_of(const std::string& root, int& temporaries) {
    return tree_contents(root, is_temporary, &temporaries);
}

TEST(ReceiveKilled, LeavesEveryNameWholeOrOlderOrAbsentAndOnlyTemporariesBeside) {
    TempDir dir(memory_temp_parent());
    const std::string dest = dir / "dest";
    std::string large(1 << 20, '\0');
    for (size_t i = 0; i < large.size(); ++i) large[i] = static_cast<char>(i * 13 + i / 4099);
    std::vector<hostsim::SourceItem> items{file(u"\\large", large), folder(u"\\many")};
    Contents sent{{"large", "f:" + large}, {"many", "d"}};
    for (int i = 0; i < 30; ++i) {
        const std::string name = "f" + std::to_string(i);
        const std::string content(100 + i, static_cast<char>('a' + i % 26));
        items.push_back(file(u"\\many\\" + qvx::Utf8ToUtf16(name), content, 2));
        sent["many/" + name] = "f:" + content;
    }
    items.push_back(end_of(2));
    items.push_back(link(u"\\link", u"many"));
    items.push_back(file(u"\\replaced", std::string(300000, 'n')));
    items.push_back(folder(u"\\folder"));
    items.push_back(file(u"\\folder\\inside", "new inside", 2));
    items.push_back(end_of(2));
    items.push_back(link(u"\\relinked", u"large"));
    items.push_back(end_of(1));
    sent["link"] = "l:many";
    sent["replaced"] = "f:" + std::string(300000, 'n');
    sent["folder"] = "d";
    sent["folder/inside"] = "f:new inside";
    sent["relinked"] = "l:large";
    const Contents older{{"replaced", "f:older"},
                         {"folder", "d"},
                         {"folder/older inside", "f:older"},
                         {"relinked", "l:older"}};
    const auto prepare = [&] {
        fs::remove_all(dest);
        make_dirs(dest);
        write_file(dest + "/replaced", "older");
        write_file(dest + "/folder/older inside", "older");
        ASSERT_EQ(::symlink("older", (dest + "/relinked").c_str()), 0);
    };
    const auto receive = [&](uint64_t dieAt) {
        FaultScope faults;
        count_changes(faults.table());
        faults.install();
        g_calls = 0;
        g_dieAt = dieAt;
        SourceHost host(items);
        qvx::TransferJob job;
        job.direction = qvx::kDirectionReceive;
        job.destination = dest;
        qvx::RunTransferJob(job, host.context());
    };

    prepare();
    receive(0);
    const uint64_t calls = g_calls;
    int temporaries = 0;
    ASSERT_EQ(contents_of(dest, temporaries), sent);
    ASSERT_EQ(temporaries, 0);
    ASSERT_GT(calls, 100u);

    // Every call near the start and the end, and every third in between: the large file's
    // writes, the small files one after another, each replace.
    int killed = 0, left = 0;
    for (uint64_t n = 1; n <= calls; n += (n < 20 || n + 20 > calls) ? 1 : 3) {
        prepare();
        const pid_t child = ::fork();
        ASSERT_NE(child, -1);
        if (child == 0) {
            receive(n);
            ::_exit(0);
        }
        int status = 0;
        ASSERT_EQ(::waitpid(child, &status, 0), child);
        ASSERT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL) << "call " << n;
        ++killed;
        int temps = 0;
        for (const auto& [name, what] : contents_of(dest, temps)) {
            const auto s = sent.find(name);
            const auto o = older.find(name);
            EXPECT_TRUE((s != sent.end() && s->second == what) ||
                        (o != older.end() && o->second == what))
                << "killed at call " << n << ": " << name << " holds " << what.substr(0, 40);
        }
        left += temps > 0;
        if (HasFailure()) break;
    }
    EXPECT_GT(killed, 50);
    EXPECT_GT(left, 10) << "most kills inside a file leave its temporary";
}

}  // namespace
