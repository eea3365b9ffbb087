// The record of one file transfer and the body that a job thread runs for it.
#pragma once

#include <pthread.h>

#include <cstdint>
#include <string>
#include <vector>

#include "channel/message_ops.h"
#include "fs/fs_helpers.h"

namespace qvx {

class DnDPool;

inline constexpr uint32_t kDirectionReceive = 0;  // host files into a guest folder
inline constexpr uint32_t kDirectionSend = 1;     // guest files to the host

inline constexpr uint32_t kActionSend = 0;    // send the listed paths to the host
inline constexpr uint32_t kActionDelete = 4;  // delete the listed paths in the guest

// Results of the tree sender and receiver and of their per-item steps.
inline constexpr uint32_t kTransferDone = 1;
inline constexpr uint32_t kTransferFailed = 2;  // failed or stopped: the transfer ends
inline constexpr uint32_t kReceiveSkipped = 4;  // the receiver skipped one item
inline constexpr uint32_t kSendSkipped = 6;     // the host asked the sender to skip one

// One transfer; on the heap, owned and freed by its job thread.
struct TransferJob {
    DnDPool* pool = nullptr;
    uint32_t direction = kDirectionReceive;
    pthread_t thread{};  // the job's own thread, written by its starter
    uint64_t workerId = 0;
    std::string destination;         // receive: the folder that takes the files
    std::vector<std::string> paths;  // send: the guest items to send or delete
    // send: what each path named when the drag was read (identify_items); a delete removes
    // only these items, whatever the names lead to by then.
    std::vector<FileIdentity> identities;
    uint32_t action = 0;  // send: 0 send, 4 delete the paths, other: nothing
};

// What each path names now, a final link itself rather than its target; an item that
// cannot be examined gets an identity that matches nothing.
std::vector<FileIdentity> identify_items(const std::vector<std::string>& paths);

// Runs the transfer that `job` describes and closes its operation with exactly one 260:
// checked (a refusal is reported) after success, plain after a failure that has already
// been reported or was the host's own stop.
//
// No exchange of a job has a time limit. The host answers a notice about an existing or a
// failed item only once its user has chosen, which may take any time; a limit short enough
// to matter would cut such a user off, and the toolgate's call cannot be abandoned once
// made anyway. A host that never answers holds this job's thread and buffers, nothing more:
// every other job has a thread of its own.
void RunTransferJob(const TransferJob& job, const DnDContext& context);

// Deletes the listed guest items (folders with everything in them, links as links),
// trying every one; false when any could not be removed. A path is removed only when it
// is plain (is_plain_path) and its last component still holds the item of the same
// index in `identities`: a folder on the way swapped for a link, or the item for
// another, leads nowhere else.
bool delete_items(const std::vector<std::string>& paths,
                  const std::vector<FileIdentity>& identities);

}  // namespace qvx
