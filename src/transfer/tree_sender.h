// The tree sender: copies listed guest files and folders to the host.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "channel/message_ops.h"

namespace qvx {

// Counts and announces the listed items, then sends each with everything below it.
// kTransferDone when all were sent (an item skipped at the host's request included),
// kTransferFailed when the host stopped it or an item failed.
uint32_t send_tree(const DnDContext& ctx, const std::vector<std::string>& paths);

}  // namespace qvx
