// One 2196-byte DnD exchange through SendDnDCommand and the socket stand-in, against a
// raw socketpair ping-pong of the same frame sizes; prints the ratio of the two.
#include <stdlib.h>
#include <sys/socket.h>
#include <unistd.h>

#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstring>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "channel/communicator.h"
#include "channel/dnd_message.h"
#include "hostsim/host.h"
#include "platform/sim/toolgate_frames.h"

namespace {

namespace dnd = qvx::dnd;

// Frame sizes of one DnD exchange: request header + record, reply header + record.
constexpr size_t kRequestBytes = toolgate::request_header_bytes(2) + dnd::kMessageSize;
constexpr size_t kReplyBytes = toolgate::reply_header_bytes(2) + dnd::kMessageSize;

double g_toolgateNs = 0;
double g_rawNs = 0;

bool read_exact(int fd, uint8_t* p, size_t n) {
    while (n) {
        const ssize_t r = read(fd, p, n);
        if (r <= 0) return false;
        p += r;
        n -= static_cast<size_t>(r);
    }
    return true;
}

void BM_SendDnDCommand(benchmark::State& state) {
    hostsim::HostOptions options;
    options.trace = false;
    hostsim::Host host(options);
    if (!host.start()) {
        state.SkipWithError("host did not start");
        return;
    }
    qvx::CommonMacCommunicator comm;
    std::vector<uint8_t> out(dnd::kMessageSize), reply(dnd::kMessageSize);
    dnd::init_message(out.data(), out.size(), dnd::kCmdMoveMouse, 0);
    for (auto _ : state) {
        if (!qvx::SendDnDCommand(&comm, out.data(), dnd::kMessageSize, reply.data(),
                                 dnd::kMessageSize)) {
            state.SkipWithError("exchange failed");
            break;
        }
    }
}

void BM_RawSocketPair(benchmark::State& state) {
    int sv[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sv) != 0) {
        state.SkipWithError("socketpair");
        return;
    }
    std::thread echo([fd = sv[1]] {
        std::vector<uint8_t> in(kRequestBytes), out(kReplyBytes, 1);
        while (read_exact(fd, in.data(), in.size()))
            if (write(fd, out.data(), out.size()) < 0) break;
    });
    std::vector<uint8_t> request(kRequestBytes, 2), reply(kReplyBytes);
    for (auto _ : state) {
        if (write(sv[0], request.data(), request.size()) < 0 ||
            !read_exact(sv[0], reply.data(), reply.size())) {
            state.SkipWithError("ping-pong failed");
            break;
        }
    }
    shutdown(sv[0], SHUT_RDWR);
    echo.join();
    close(sv[0]);
    close(sv[1]);
}

// Keeps the per-iteration real time of each benchmark so main can print the ratio.
class RatioReporter : public benchmark::ConsoleReporter {
  public:
    void ReportRuns(const std::vector<Run>& runs) override {
        for (const auto& run : runs) {
            if (run.run_type != Run::RT_Iteration || run.iterations == 0) continue;
            const double ns = run.GetAdjustedRealTime();
            const std::string name = run.benchmark_name();
            if (name.find("BM_SendDnDCommand") == 0) g_toolgateNs = ns;
            if (name.find("BM_RawSocketPair") == 0) g_rawNs = ns;
        }
        ConsoleReporter::ReportRuns(runs);
    }
};

}  // namespace

BENCHMARK(BM_SendDnDCommand)->UseRealTime();
BENCHMARK(BM_RawSocketPair)->UseRealTime();

int main(int argc, char** argv) {
    // The simulated host and the stand-in meet under a private platform root.
    char root[] = "/tmp/qvxbench.XXXXXX";
    if (!mkdtemp(root)) return 1;
    setenv("QVX_PLATFORM_ROOT", root, 1);
    benchmark::Initialize(&argc, argv);
    RatioReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    benchmark::Shutdown();
    if (g_toolgateNs > 0 && g_rawNs > 0)
        std::printf("toolgate exchange / raw socketpair ping-pong: %.2fx (target <= 1.5x)\n",
                    g_toolgateNs / g_rawNs);
    std::error_code ec;
    std::filesystem::remove_all(root, ec);
    return 0;
}
