// The record of one file transfer and the body that a job thread runs for it.
#pragma once

#include <pthread.h>

#include <cstdint>
#include <string>
#include <vector>

#include "channel/message_ops.h"

namespace qvx {

class DnDPool;

inline constexpr uint32_t kDirectionReceive = 0;  // host files into a guest folder
inline constexpr uint32_t kDirectionSend = 1;     // guest files to the host

// One transfer; on the heap, owned and freed by its job thread.
struct TransferJob {
    DnDPool* pool = nullptr;
    uint32_t direction = kDirectionReceive;
    pthread_t thread{};  // the job's own thread, written by its starter
    uint64_t workerId = 0;
    std::string destination;         // receive: the folder that takes the files
    std::vector<std::string> paths;  // send: the guest items to send or delete
    uint32_t action = 0;             // send: 0 send, 4 delete the paths, other: nothing
};

// Runs the transfer that `job` describes and closes its operation with exactly one 260.
void RunTransferJob(const TransferJob& job, const DnDContext& context);

}  // namespace qvx
