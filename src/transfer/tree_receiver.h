// The tree receiver: copies the host's file tree into a guest folder, and the free-space
// check that comes before it.
#pragma once

#include <cstdint>
#include <string>

#include "channel/message_ops.h"

namespace qvx {

// Receives every item the host describes into `destination`. kTransferFailed when the
// receive stopped; anything else counts as done.
uint32_t receive_tree(const DnDContext& ctx, const std::string& destination);

// The free bytes of the file system that holds `folder`: every free block, those kept
// for the superuser included. False when the folder cannot be opened or measured.
bool get_free_space(const std::string& folder, uint64_t* freeBytes);

// True when the destination has strictly more free bytes than `needed`. Otherwise false,
// after the notice (4, 8, empty) - or (4, 11, empty) when the space cannot be measured -
// when `report` is 1; the notice's reply is not looked at.
bool check_free_space(const DnDContext& ctx, const std::string& destination, uint64_t needed,
                      uint8_t report);

}  // namespace qvx
