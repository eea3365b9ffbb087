// The tree sender. Not written yet: every send ends as failed after the general notice,
// which the job closes with a plain 260.
#include "transfer/tree_sender.h"

#include "transfer/transfer_job.h"

namespace qvx {

uint32_t send_tree(const DnDContext& ctx, const std::vector<std::string>&) {
    SendDialog(ctx, notice::kFailed.dialogId, notice::kFailed.code, u"");
    return kTransferFailed;
}

}  // namespace qvx
