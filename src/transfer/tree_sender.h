// The tree sender: copies listed guest files and folders to the host.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include <CoreServices/CoreServices.h>

#include "channel/dnd_message.h"
#include "channel/message_ops.h"

namespace qvx {

// Counts and announces the listed items, then sends each with everything below it.
// kTransferDone when all were sent (an item skipped at the host's request included),
// kTransferFailed when the host stopped it or an item failed.
uint32_t send_tree(const DnDContext& ctx, const std::vector<std::string>& paths);

// Sends one listed item (a full path) with everything below it: kTransferDone,
// kTransferFailed, or kSendSkipped when the host asked to skip it.
uint32_t send_top_item(const DnDContext& ctx, const std::string& path);

// Adds the items under `path` (itself included, links not followed) to `items`, and to
// `bytes` the data size of every item that is neither folder nor link plus 32 for every
// folder. False when an item cannot be examined or a folder listed, or a count would
// overflow.
bool count_tree(const std::string& path, uint32_t& items, uint64_t& bytes);

// Sends the item at `path` and everything below it; its name on the wire is the path from
// byte `nameOffset` on, and the names below it extend that one. `buffer` holds
// kTransferBufferSize bytes. kTransferDone, kTransferFailed or kSendSkipped (the host
// asked to skip this item; an item below it skipped fails it).
uint32_t send_item(const DnDContext& ctx, const std::string& path, size_t nameOffset,
                   uint8_t* buffer);

// Fills times, attributes, size and mode of `info` from the catalog, for `path` (which
// also goes to info.path) or for the item a reference names; a final link is not
// followed. False when the item cannot be examined.
bool read_item_info(ItemInfo& info, const std::string& path);
bool read_item_info(ItemInfo& info, const FSRef& ref);

// The target of the symbolic link at `path`, or of `name` inside the folder open as
// `dirFd`; empty when the item is no link or its target cannot be read.
std::string read_link_target(const std::string& path);
std::string read_link_target(int dirFd, const char* name);

}  // namespace qvx
