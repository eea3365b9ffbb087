// The file transfer's records inside the DnD message: items, names, times, attribute
// bits, notices, and the builders and readers of each transfer message.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "channel/dnd_message.h"

namespace qvx {

// One file-system item as the transfer sees it.
struct ItemInfo {
    uint64_t creationTime = 0;  // 100-ns ticks since 1601-01-01 UTC
    uint64_t accessTime = 0;
    uint64_t modificationTime = 0;
    uint16_t modeValid = 0;
    uint16_t mode = 0;
    std::string path;  // full guest path, UTF-8
    uint32_t attributes = 0;
    uint64_t size = 0;
    std::u16string name;  // item name relative to the transferred tree
};

// The one transfer buffer of a send (per listed item) or a receive: a data record with a
// whole chunk behind it.
inline constexpr size_t kTransferBufferSize = dnd::kMessageSize + dnd::kMaxChunk;

// Attribute bits.
inline constexpr uint32_t kAttrLocked = 0x1;
inline constexpr uint32_t kAttrInvisible = 0x2;
inline constexpr uint32_t kAttrDirectory = 0x10;
inline constexpr uint32_t kAttrDoNotCreate = 0x20000;

// Time conversions.
inline constexpr uint64_t kTicksPerSecond = 10'000'000;
inline constexpr uint64_t kTicks1601To1904 = 95'616'288'000'000'000ull;
inline constexpr uint64_t kSeconds1601To1904 = 9'561'628'800ull;
inline constexpr uint64_t kTicks1601To1970 = 116'444'736'000'000'000ull;

// Catalog seconds since 1904 (only their low 32 bits count) to ticks.
uint64_t catalog_seconds_to_ticks(uint64_t seconds1904);
// Ticks to catalog seconds since 1904 (unsigned arithmetic, as the receiver does).
uint64_t ticks_to_catalog_seconds(uint64_t ticks);
// Ticks to Unix seconds, a signed division truncated toward zero (before 1970 negative).
int64_t ticks_to_unix_seconds(uint64_t ticks);

// The notices (dialog records 263) of the file transfer: dialogId, dialogCode, and
// whether the item's name goes into the text (otherwise the text is empty).
struct Notice {
    uint32_t dialogId;
    uint32_t code;
    bool withName;
};
namespace notice {
inline constexpr Notice kPrepare{0, 0, false};
inline constexpr Notice kItemBegins{1, 0, true};
inline constexpr Notice kItemExists{2, 0, true};
inline constexpr Notice kFolderNotCreated{3, 2, true};
inline constexpr Notice kItemNotCreated{3, 3, true};
inline constexpr Notice kDataRequestRefused{3, 4, true};
inline constexpr Notice kChunkNotWritten{3, 5, true};
inline constexpr Notice kHeaderRefused{4, 2, true};
inline constexpr Notice kCannotOpen{4, 3, true};
inline constexpr Notice kShortRead{4, 4, true};
inline constexpr Notice kChunkRefused{4, 5, true};
inline constexpr Notice kCannotRemove{4, 6, true};
inline constexpr Notice kNoSpace{4, 8, false};
inline constexpr Notice kSpaceUnknown{4, 11, false};
inline constexpr Notice kAccessDenied{4, 11, true};
inline constexpr Notice kFailed{4, 12, false};
inline constexpr Notice kProgress{5, 0, true};
}  // namespace notice

// Builders. Each clears the record (kMessageSize bytes, or the size it states), writes
// the header with `workerId` and its own fields. Those that write the item name give
// false, leaving nothing sendable, when the name does not fit its field.
void build_notice(uint8_t* msg, uint64_t workerId, const Notice& n, std::u16string_view name);
void build_send_totals(uint8_t* msg, uint64_t workerId, uint64_t totalBytes, uint32_t items,
                       uint32_t topLevel);                                      // 262
bool build_item_header(uint8_t* msg, uint64_t workerId, const ItemInfo& item);  // 265
bool build_data_begin(uint8_t* msg, uint64_t workerId, const ItemInfo& item,
                      uint32_t value);  // 266
// 269: only the header; the n data bytes are written in place behind it, at kOffData.
void build_data_chunk_header(uint8_t* msg, uint64_t workerId, uint32_t n);
void build_data_end(uint8_t* msg, uint64_t workerId);                           // 267
bool build_remove_item(uint8_t* msg, uint64_t workerId, const ItemInfo& item);  // 270
bool build_file_entry(uint8_t* msg, uint64_t workerId, const ItemInfo& item);   // 271
// 770: the whole message of kMessageSize + 2 x target units; every '/' of the target
// goes out as a backslash.
bool build_symlink(std::vector<uint8_t>& out, uint64_t workerId, const ItemInfo& item,
                   std::u16string_view target);

// Readers of the host's replies. None touches a byte beyond the size it is given.
enum class ReplyRead { Ok, Malformed };
struct TotalsReply {
    uint64_t totalBytes;
    uint32_t second;
};
TotalsReply read_totals_reply(const uint8_t* reply);  // 261, a full record
// 272: fills times, attributes, size, mode and the raw UTF-16 name (path untouched).
// Malformed: nameLength over 1023, or no zero code unit where the length says.
ReplyRead read_file_entry(const uint8_t* reply, size_t size, ItemInfo& item);
// 769: the target's raw UTF-16 code units. Malformed: dataLength odd or beyond `size`.
ReplyRead read_link_target(const uint8_t* reply, size_t size, std::u16string& target);

}  // namespace qvx
