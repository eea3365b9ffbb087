// One simulated host and one real communicator shared by the tests of a process, and
// transfer jobs run through them as the pool would run them, with the 260s counted.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "channel/communicator.h"
#include "hostsim/host.h"
#include "hostsim/tree_source.h"
#include "support/private_root.h"
#include "support/temp_dir.h"
#include "support/tree_snapshot.h"
#include "transfer/transfer_job.h"

namespace qvxtest {

class JobHost {
  public:
    // Call from SetUpTestSuite.
    JobHost() : m_host(options()) {
        m_started = m_host.start();
        m_communicator = std::make_unique<qvx::CommonMacCommunicator>();
    }
    bool ready() const { return m_started && m_communicator->handle() != 0; }
    hostsim::Host& host() { return m_host; }

    // A workerId no earlier job of the process used.
    uint64_t new_worker() { return ++m_lastWorker; }

    // Runs a job the way its thread would, with the context's send function counting the
    // 260s the guest sends. Returns that count. Nothing follows the 260 but, when the host
    // refused a checked 260, the one notice that reports it.
    int run(qvx::TransferJob job) {
        int ends = 0;
        std::vector<uint32_t> after;
        qvx::CommonMacCommunicator* communicator = m_communicator.get();
        const qvx::DnDContext ctx{
            job.workerId, communicator,
            [&ends, &after](qvx::CommonMacCommunicator* c, const void* out, uint32_t outSize,
                            void* reply, uint32_t replySize) {
                const uint32_t command = qvx::dnd::command(static_cast<const uint8_t*>(out));
                if (ends > 0) after.push_back(command);
                if (command == qvx::dnd::kCmdEnd) ++ends;
                return qvx::SendDnDCommand(c, out, outSize, reply, replySize);
            }};
        qvx::RunTransferJob(job, ctx);
        EXPECT_TRUE(after.empty() || after == std::vector<uint32_t>{qvx::dnd::kCmdDialog})
            << after.size() << " messages after the 260";
        return ends;
    }

    // A receive into `destination` served by `source` under `worker`.
    int receive(const std::shared_ptr<hostsim::TreeSource>& source, const std::string& destination,
                uint64_t worker) {
        hostsim::serve_tree(m_host, worker, source);
        qvx::TransferJob job;
        job.direction = qvx::kDirectionReceive;
        job.workerId = worker;
        job.destination = destination;
        const int ends = run(std::move(job));
        m_host.clear_worker_handler(worker);
        return ends;
    }

    // A send of `paths` under `worker`, to whatever endpoint the host has for it.
    int send(std::vector<std::string> paths, uint64_t worker) {
        qvx::TransferJob job;
        job.direction = qvx::kDirectionSend;
        job.action = qvx::kActionSend;
        job.workerId = worker;
        job.paths = std::move(paths);
        return run(std::move(job));
    }

  private:
    static hostsim::HostOptions options() {
        // Before the host exists: it takes its socket's path from the platform root, which
        // the process reads once. Later, every test process would share the machine's.
        private_platform_root();
        hostsim::HostOptions o;
        o.trace = false;  // thousands of exchanges; nothing here reads the trace
        return o;
    }

    hostsim::Host m_host;
    bool m_started = false;
    std::unique_ptr<qvx::CommonMacCommunicator> m_communicator;
    uint64_t m_lastWorker = 0x7000;
};

// Descriptors and threads of the process. The host's connection threads end and close
// their sockets a moment after the guest lets go of them, so a count is waited for.
struct ProcessCounts {
    int fds = 0;
    int threads = 0;

    static ProcessCounts now() { return {open_fd_count(), thread_count()}; }
    // True once both counts are back to `baseline`, false when they stay off for 5 s.
    static bool settle_to(const ProcessCounts& baseline, ProcessCounts& seen) {
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
        for (;;) {
            seen = now();
            if (seen.fds == baseline.fds && seen.threads == baseline.threads) return true;
            if (std::chrono::steady_clock::now() > deadline) return false;
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    }
};

}  // namespace qvxtest
