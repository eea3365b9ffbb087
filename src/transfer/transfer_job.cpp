// The transfer job: the body of one job thread, from the host's first message of the
// transfer to its one closing 260.
#include "transfer/transfer_job.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <new>

#include "channel/dnd_message.h"
#include "fs/beneath.h"
#include "fs/fs_helpers.h"
#include "platform/seams/syscalls.h"
#include "transfer/tree_receiver.h"
#include "transfer/tree_sender.h"

namespace qvx {
namespace {

// Receiving: announce the job, learn the size, check the room, receive. Each step runs only
// after the one before it succeeded, and each failing step has reported itself. The
// destination is opened once, so that the folder checked for room is the one received
// into, and a final link is not followed: the drop named a folder, not a link to one.
bool receive_into(const DnDContext& ctx, const std::string& destination) {
    if (!SendChecked(ctx, dnd::kCmdTransferStart)) return false;
    uint64_t totalBytes = 0;
    if (!QueryTransferTotals(ctx, &totalBytes, nullptr)) return false;
    const UniqueFd root(platform::sys_open(
        destination.c_str(), platform::kOpenPath | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (!check_free_space_at(ctx, root.get(), totalBytes, 1)) return false;
    return receive_tree(ctx, destination, root.get(), totalBytes) != kTransferFailed;
}

void send_failed(const DnDContext& ctx) {
    SendDialog(ctx, notice::kFailed.dialogId, notice::kFailed.code, u"");
}

}  // namespace

std::vector<FileIdentity> identify_items(const std::vector<std::string>& paths) {
    std::vector<FileIdentity> identities;
    identities.reserve(paths.size());
    for (const std::string& path : paths) {
        struct stat st {};
        identities.push_back(platform::sys_lstat(path.c_str(), &st) == 0 ? identity_of(st)
                                                                         : FileIdentity{});
    }
    return identities;
}

bool delete_items(const std::vector<std::string>& paths,
                  const std::vector<FileIdentity>& identities) {
    bool ok = true;
    for (size_t i = 0; i < paths.size(); ++i) {
        if (i >= identities.size() || !is_plain_path(paths[i]) ||
            !remove_item(paths[i].c_str(), identities[i]))
            ok = false;
    }
    return ok;
}

void RunTransferJob(const TransferJob& job, const DnDContext& ctx) {
    bool ok = true;
    // Out of memory anywhere in the job fails it like any other local failure: the host
    // still learns of the end with its 260, and the process goes on serving.
    try {
        if (job.direction == kDirectionSend && job.action == kActionDelete) {
            ok = delete_items(job.paths, job.identities);
            // All failures of the job go to the user as one notice.
            if (!ok) send_failed(ctx);
        } else if (job.direction == kDirectionSend && job.action == kActionSend) {
            ok = send_tree(ctx, job.paths) != kTransferFailed;
        } else if (job.direction == kDirectionReceive) {
            ok = receive_into(ctx, job.destination);
        }
    } catch (const std::bad_alloc&) {
        send_failed(ctx);
        ok = false;
    }
    // Any other direction or action has nothing to do and ends as done.
    if (ok) {
        SendChecked(ctx, dnd::kCmdEnd);
    } else {
        SendPlain(ctx, dnd::kCmdEnd);
    }
}

}  // namespace qvx
