// Builders and readers of the file transfer's records, and the time conversions.
#include "transfer/records.h"

#include <cstring>

namespace qvx {

using namespace dnd;

uint64_t catalog_seconds_to_ticks(uint64_t seconds1904) {
    // Only the low 32 bits of a catalog date are carried; the product then stays far
    // below 2^64.
    return (seconds1904 & 0xFFFFFFFFull) * kTicksPerSecond + kTicks1601To1904;
}

uint64_t ticks_to_catalog_seconds(uint64_t ticks) {
    // Unsigned on purpose: a tick count before 1904 wraps, as the catalog writer expects.
    return ticks / kTicksPerSecond - kSeconds1601To1904;
}

int64_t ticks_to_unix_seconds(uint64_t ticks) {
    // Divide the magnitude so that both directions truncate toward zero and no
    // intermediate value overflows a signed 64-bit integer.
    if (ticks >= kTicks1601To1970) {
        return static_cast<int64_t>((ticks - kTicks1601To1970) / kTicksPerSecond);
    }
    return -static_cast<int64_t>((kTicks1601To1970 - ticks) / kTicksPerSecond);
}

namespace {

// Starts a named-entry record. A name that does not fit leaves an all-zero record
// (command 0), so a caller that ignores the result cannot send half a message.
bool start_named(uint8_t* msg, uint32_t cmd, uint64_t workerId, const ItemInfo& item) {
    init_message(msg, kMessageSize, cmd, workerId);
    if (put_name(msg, item.name)) return true;
    std::memset(msg, 0, kMessageSize);
    return false;
}

}  // namespace

void build_notice(uint8_t* msg, uint64_t workerId, const Notice& n, std::u16string_view name) {
    init_message(msg, kMessageSize, kCmdDialog, workerId);
    le::put32(msg, kOffDialogId, n.dialogId);
    // Notice text is only shown to the user, so an overlong name is cut, not refused.
    put_dialog_text(msg, n.withName ? name : std::u16string_view{});
    le::put32(msg, kOffDialogCode, n.code);
}

void build_send_totals(uint8_t* msg, uint64_t workerId, uint64_t totalBytes, uint32_t items,
                       uint32_t topLevel) {
    init_message(msg, kMessageSize, kCmdSendTotals, workerId);
    le::put64(msg, kOffTotalBytes, totalBytes);
    le::put32(msg, kOffItemCount, items);
    le::put32(msg, kOffTopLevelCount, topLevel);
}

bool build_item_header(uint8_t* msg, uint64_t workerId, const ItemInfo& item) {
    if (!start_named(msg, kCmdItemHeader, workerId, item)) return false;
    le::put32(msg, kOffAttributes, item.attributes);
    return true;
}

bool build_data_begin(uint8_t* msg, uint64_t workerId, const ItemInfo& item, uint32_t value) {
    if (!start_named(msg, kCmdDataBegin, workerId, item)) return false;
    le::put32(msg, kOffEntryValue, value);
    return true;
}

void build_data_chunk_header(uint8_t* msg, uint64_t workerId, uint32_t n) {
    init_message(msg, kMessageSize, kCmdWriteData, workerId);
    le::put32(msg, kOffDataLength, n);
}

void build_data_end(uint8_t* msg, uint64_t workerId) {
    init_message(msg, kMessageSize, kCmdDataEnd, workerId);
}

bool build_remove_item(uint8_t* msg, uint64_t workerId, const ItemInfo& item) {
    return start_named(msg, kCmdRemoveItem, workerId, item);
}

bool build_file_entry(uint8_t* msg, uint64_t workerId, const ItemInfo& item) {
    if (!start_named(msg, kCmdItemAttributes, workerId, item)) return false;
    le::put32(msg, kOffAttributes, item.attributes);
    // +36..+43 stay zero.
    le::put64(msg, kOffCreationTime, item.creationTime);
    le::put64(msg, kOffAccessTime, item.accessTime);
    le::put64(msg, kOffModificationTime, item.modificationTime);
    // The size field is always 0 in a 271: the host learnt the size from the data it
    // received, and the sender may keep item.size for its own accounting.
    le::put64(msg, kOffSize, 0);
    le::put16(msg, kOffModeValid, item.modeValid);
    le::put16(msg, kOffMode, item.mode);
    return true;
}

bool build_symlink(std::vector<uint8_t>& out, uint64_t workerId, const ItemInfo& item,
                   std::u16string_view target) {
    const size_t dataBytes = target.size() * 2;
    if (item.name.size() > kMaxTextUnits || dataBytes > UINT32_MAX - kMessageSize) {
        out.clear();
        return false;
    }
    out.assign(kMessageSize + dataBytes, 0);
    uint8_t* msg = out.data();
    init_message(msg, kMessageSize, kCmdSymlink, workerId);
    put_name(msg, item.name);
    le::put32(msg, kOffDataLength, static_cast<uint32_t>(dataBytes));
    for (size_t i = 0; i < target.size(); ++i) {
        const char16_t unit = target[i] == u'/' ? u'\\' : target[i];
        le::put16(msg + kOffData + 2 * i, unit);
    }
    return true;
}

TotalsReply read_totals_reply(const uint8_t* reply) {
    return TotalsReply{le::get64(reply, kOffTotalBytes), le::get32(reply, kOffTotalsSecond)};
}

ReplyRead read_file_entry(const uint8_t* reply, size_t size, ItemInfo& item) {
    if (size < kMessageSize) return ReplyRead::Malformed;
    const uint32_t units = le::get32(reply, kOffNameLength);
    // Checked before the terminator is read: a larger length would point past the field.
    if (units > kMaxTextUnits) return ReplyRead::Malformed;
    if (le::get16(reply, kOffName + 2 * size_t{units}) != 0) return ReplyRead::Malformed;

    item.attributes = le::get32(reply, kOffAttributes);
    item.creationTime = le::get64(reply, kOffCreationTime);
    item.accessTime = le::get64(reply, kOffAccessTime);
    item.modificationTime = le::get64(reply, kOffModificationTime);
    item.size = le::get64(reply, kOffSize);
    item.modeValid = le::get16(reply, kOffModeValid);
    item.mode = le::get16(reply, kOffMode);
    item.name.resize(units);
    for (uint32_t i = 0; i < units; ++i) {
        item.name[i] = static_cast<char16_t>(le::get16(reply, kOffName + 2 * size_t{i}));
    }
    return ReplyRead::Ok;
}

ReplyRead read_link_target(const uint8_t* reply, size_t size, std::u16string& target) {
    if (size < kMessageSize) return ReplyRead::Malformed;
    const uint32_t bytes = le::get32(reply, kOffDataLength);
    if (bytes % 2 != 0 || bytes > size - kMessageSize) return ReplyRead::Malformed;
    target.resize(bytes / 2);
    for (size_t i = 0; i < target.size(); ++i) {
        target[i] = static_cast<char16_t>(le::get16(reply, kOffData + 2 * i));
    }
    return ReplyRead::Ok;
}

}  // namespace qvx
