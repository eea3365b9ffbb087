// Cost of a log line written to the log file, against a bare append of the same line.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <string>

#include "log/log.h"

namespace {

// A private folder for both files, so that the numbers do not depend on the machine's log.
const std::string& scratch() {
    static const std::string path = [] {
        char templ[] = "/tmp/qvxlogbench.XXXXXX";
        const char* made = mkdtemp(templ);
        return std::string(made != nullptr ? made : "/tmp");
    }();
    return path;
}

// The line the log writes for the message below, so that both sides write as many bytes.
std::string sample_line() {
    static std::string line;
    auto keep = [](const char* text, int32_t length) {
        line.assign(text, static_cast<size_t>(length));
        return length;
    };
    qvx::LogWriter previous = qvx::log_set_writer(keep);
    qvx::log_message("DNDTOOL", "qvxdragdrop", 1, "DnD command received [%d]", 200);
    qvx::log_set_writer(previous);
    return line;
}

void BM_LogMessage(benchmark::State& state) {
    qvx::log_set_directory(scratch().c_str(), "quorvex.log");
    for (auto _ : state) {
        qvx::log_message("DNDTOOL", "qvxdragdrop", 1, "DnD command received [%d]", 200);
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_LogMessage);

void BM_BareWrite(benchmark::State& state) {
    std::string line = sample_line();
    std::string path = scratch() + "/bare.log";
    int fd = open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT, 0666);
    if (fd < 0) {
        state.SkipWithError("cannot open the comparison file");
        return;
    }
    for (auto _ : state) {
        benchmark::DoNotOptimize(write(fd, line.data(), line.size()));
    }
    close(fd);
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_BareWrite);

// Prints the usual table, then how many times slower a log line is than a bare write.
class RatioReporter : public benchmark::ConsoleReporter {
  public:
    void ReportRuns(const std::vector<Run>& runs) override {
        for (const auto& run : runs) {
            if (run.run_type == Run::RT_Iteration)
                m_nsPerLine[run.benchmark_name()] = run.GetAdjustedRealTime();
        }
        ConsoleReporter::ReportRuns(runs);
    }
    void Finalize() override {
        ConsoleReporter::Finalize();
        auto log = m_nsPerLine.find("BM_LogMessage");
        auto bare = m_nsPerLine.find("BM_BareWrite");
        if (log != m_nsPerLine.end() && bare != m_nsPerLine.end() && bare->second > 0) {
            std::printf("log line / bare write time ratio: %.2f (%.0f vs %.0f lines/s)\n",
                        log->second / bare->second, 1e9 / log->second, 1e9 / bare->second);
        }
    }

  private:
    std::map<std::string, double> m_nsPerLine;
};

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    RatioReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    benchmark::Shutdown();
    std::error_code ignored;
    std::filesystem::remove_all(scratch(), ignored);
    return 0;
}
