// The transfer job: the body of one job thread, from the host's first message of the
// transfer to its one closing 260.
#include "transfer/transfer_job.h"

#include "channel/dnd_message.h"
#include "fs/fs_helpers.h"
#include "fs/host_file.h"
#include "transfer/tree_receiver.h"
#include "transfer/tree_sender.h"

namespace qvx {
namespace {

// Receiving: announce the job, learn the size, check the room, receive. Each step runs only
// after the one before it succeeded, and each failing step has reported itself.
bool receive_into(const DnDContext& ctx, const std::string& destination) {
    if (!SendChecked(ctx, dnd::kCmdTransferStart)) return false;
    uint64_t totalBytes = 0;
    if (!QueryTransferTotals(ctx, &totalBytes, nullptr)) return false;
    if (!check_free_space(ctx, destination, totalBytes, 1)) return false;
    return receive_tree(ctx, destination) != kTransferFailed;
}

}  // namespace

bool delete_items(const std::vector<std::string>& paths) {
    bool ok = true;
    for (const std::string& path : paths) {
        uint32_t mode = 0;
        // Following links here only decides between the two removals: remove_tree unlinks
        // a link it is given instead of descending through it.
        const bool removed =
            CHostFile::get_mode(path.c_str(), &mode, true) && CHostFile::is_dir(mode)
                ? remove_tree(path.c_str())
                : CHostFile::unlink(path.c_str());
        if (!removed) ok = false;
    }
    return ok;
}

void RunTransferJob(const TransferJob& job, const DnDContext& ctx) {
    bool ok = true;
    if (job.direction == kDirectionSend && job.action == kActionDelete) {
        ok = delete_items(job.paths);
        // All failures of the job go to the user as one notice.
        if (!ok) SendDialog(ctx, notice::kFailed.dialogId, notice::kFailed.code, u"");
    } else if (job.direction == kDirectionSend && job.action == kActionSend) {
        ok = send_tree(ctx, job.paths) != kTransferFailed;
    } else if (job.direction == kDirectionReceive) {
        ok = receive_into(ctx, job.destination);
    }
    // Any other direction or action has nothing to do and ends as done.
    if (ok) {
        SendChecked(ctx, dnd::kCmdEnd);
    } else {
        SendPlain(ctx, dnd::kCmdEnd);
    }
}

}  // namespace qvx
