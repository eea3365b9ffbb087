// The tree receiver: copies the host's file tree into a guest folder, and the free-space
// check that comes before it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "channel/message_ops.h"

namespace qvx {

// The receive's transfer buffer (kTransferBufferSize) holds the reply record of every data
// request, and also the growing reply of the link target query.
// The link target query's reply starts with room for 256 bytes of target and doubles on
// status 13 up to 64 KiB of target, far beyond any path; a host asking for more is given
// up on. The last step is cut to the limit rather than overshoot it.
inline constexpr size_t kLinkReplyInitial = dnd::kMessageSize + 256;
inline constexpr size_t kLinkReplyLimit = dnd::kMessageSize + 65536;
static_assert(kLinkReplyLimit <= kTransferBufferSize);
// A component longer than this is no file name on any file system the guest has.
inline constexpr size_t kMaxComponentBytes = 255;
// Levels a received tree may have. A folder at level n has at least n components in its
// name, each with its separator, so no name that fits 1023 code units lies deeper: a
// folder at this level is not created (the host skips its items), and the receive never
// goes deeper.
inline constexpr uint32_t kMaxLevels = (dnd::kMaxTextUnits + 1) / 2;

// A received item name, checked and split: the components joined by '/', relative to the
// destination folder ("dir/a.txt").
struct ItemName {
    std::string relative;
    size_t leafAt = 0;  // where the last component starts in `relative`
    // Why no item of this name can be made beneath the destination (a "." or ".."
    // component, an empty one, a NUL, a component too long for any file system), as the
    // errno its creation fails with; 0 when it can.
    int refusal = 0;

    // The folders before the last component ("dir"; empty for a top-level item).
    std::string_view folder() const {
        return std::string_view(relative).substr(0, leafAt == 0 ? 0 : leafAt - 1);
    }
    const char* leaf() const { return relative.c_str() + leafAt; }
};

// Checks a name as the host sends it (UTF-16 code units, backslashes or slashes between
// components, one leading separator expected and tolerated when missing) and splits it.
// The name is converted to UTF-8 in normalization form D. False for a name that cannot be
// read at all: empty, more than 1023 units, or no text; a name that reads but names
// nothing we may create is split as far as it goes, with its refusal set.
bool parse_item_name(std::u16string_view units, ItemName& out);

// Receives every item the host describes into `destination`, the folder open as `root`
// (-1: it could not be opened). kTransferFailed when the receive stopped; anything else
// counts as done. Every item is created, written, changed and removed beneath that folder:
// no host name or link leads outside it. A file or link is made under a hidden temporary
// name and takes its own only once whole (a file's data flushed first), so that a name the
// host sent never holds a partial item, whenever the process stops. Files get no more data
// in all than `announced` bytes, what the host said it would send: a file that would go
// past it is not created.
uint32_t receive_tree(const DnDContext& ctx, const std::string& destination, int root,
                      uint64_t announced);
// As above, opening the destination itself (a final link is not followed), with no limit
// on the data.
uint32_t receive_tree(const DnDContext& ctx, const std::string& destination);

// The free bytes of the file system that holds `folder` (or the folder open as `folderFd`):
// every free block, those kept for the superuser included. False when the folder cannot be
// opened or measured.
bool get_free_space(const std::string& folder, uint64_t* freeBytes);
bool get_free_space_at(int folderFd, uint64_t* freeBytes);

// True when the destination (or the folder open as `folderFd`, -1 when it could not be
// opened) has strictly more free bytes than `needed`. Otherwise false, after the notice
// (4, 8, empty) - or (4, 11, empty) when the space cannot be measured - when `report` is 1;
// the notice's reply is not looked at.
bool check_free_space(const DnDContext& ctx, const std::string& destination, uint64_t needed,
                      uint8_t report);
bool check_free_space_at(const DnDContext& ctx, int folderFd, uint64_t needed, uint8_t report);

}  // namespace qvx
