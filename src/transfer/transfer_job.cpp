// The transfer job body. The tree sender and receiver are not here yet, so every job only
// closes its operation, which tells the host that nothing was transferred.
#include "transfer/transfer_job.h"

#include "channel/dnd_message.h"

namespace qvx {

void RunTransferJob(const TransferJob&, const DnDContext& context) {
    SendChecked(context, dnd::kCmdEnd);
}

}  // namespace qvx
