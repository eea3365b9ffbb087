// The DnD message: the fixed 2196-byte record of every exchange with the host, its
// field offsets, command codes and reply statuses, named once here.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "common/byte_order.h"

namespace qvx::dnd {

inline constexpr size_t kMessageSize = 2196;
inline constexpr uint32_t kVersion = 2;

// Common header.
inline constexpr size_t kOffCommand = 0;
inline constexpr size_t kOffVersion = 4;
inline constexpr size_t kOffStatus = 8;
inline constexpr size_t kOffWorkerId = 12;
inline constexpr size_t kOffPayload = 28;

// Dialog (263).
inline constexpr size_t kOffDialogId = 28;
inline constexpr size_t kOffDialogText = 32;
inline constexpr size_t kDialogTextBytes = 2048;  // ends at +2079
inline constexpr size_t kOffDialogCode = 2080;

// Named entry (265, 266, 270, 271, 272, 769, 770).
inline constexpr size_t kOffNameLength = 76;
inline constexpr size_t kOffName = 80;
inline constexpr size_t kNameBytes = 2048;     // ends at +2127
inline constexpr size_t kMaxTextUnits = 1023;  // either text field: 1023 code units + NUL

// File entry record (271 and the reply to 272).
inline constexpr size_t kOffAttributes = 32;
inline constexpr size_t kOffCreationTime = 44;
inline constexpr size_t kOffAccessTime = 52;
inline constexpr size_t kOffModificationTime = 60;
inline constexpr size_t kOffSize = 68;
inline constexpr size_t kOffModeValid = 2132;
inline constexpr size_t kOffMode = 2134;

// Data area (268, 269, 769, 770): dataLength, then the data behind the fixed record.
inline constexpr size_t kOffDataLength = 2128;
inline constexpr size_t kOffData = kMessageSize;
inline constexpr uint32_t kMaxChunk = 131072;

// Pointer position (275, and host command 200 in the poll reply).
inline constexpr size_t kOffPointerX = 28;
inline constexpr size_t kOffPointerY = 32;
inline constexpr size_t kOffPointerButtons = 36;

// File list (258, 768).
inline constexpr size_t kOffListCount = 28;
inline constexpr size_t kOffListSize = 32;
inline constexpr size_t kOffListNames = 36;
inline constexpr uint32_t kMaxFileListBytes = 0x20000;

// Reply fields.
inline constexpr size_t kOffReplyAction = 2092;    // reply to 258 / 768
inline constexpr size_t kOffTotalBytes = 28;       // 261 reply, 262 request
inline constexpr size_t kOffTotalsSecond = 2088;   // 261 reply
inline constexpr size_t kOffItemCount = 36;        // 262
inline constexpr size_t kOffTopLevelCount = 2088;  // 262
inline constexpr size_t kOffPrepareValue = 28;     // 278 reply
inline constexpr size_t kOffEntryValue = 28;       // 266 value, 272 argument

static_assert(kOffDialogText + kDialogTextBytes == kOffDialogCode);
static_assert(kOffName + kNameBytes == kOffDataLength);
static_assert(kOffMode + 2 <= kMessageSize);
static_assert(kOffReplyAction + 4 <= kMessageSize);

// Host commands, read from the status field of the poll reply. Commands are known by
// their codes; a name says only what the protocol says of the command, and where it says
// nothing but the code, the name is the code.
inline constexpr uint32_t kHostCmdNone = 0;  // the simulated host's answer to an idle poll
inline constexpr uint32_t kHostCmd10 = 10;   // answered with 256 and nothing else
inline constexpr uint32_t kHostCmdHostToGuest = 200;
inline constexpr uint32_t kHostCmdGuestToHost = 204;

// Request codes.
inline constexpr uint32_t kCmdToolActive = 256;
inline constexpr uint32_t kCmdToolStops = 257;
inline constexpr uint32_t kCmdFileList = 258;
inline constexpr uint32_t kCmdPoll = 259;
inline constexpr uint32_t kCmdEnd = 260;
inline constexpr uint32_t kCmdQueryTotals = 261;
inline constexpr uint32_t kCmdSendTotals = 262;
inline constexpr uint32_t kCmdDialog = 263;
inline constexpr uint32_t kCmdItemHeader = 265;
inline constexpr uint32_t kCmdDataBegin = 266;
inline constexpr uint32_t kCmdDataEnd = 267;
inline constexpr uint32_t kCmdReadData = 268;
inline constexpr uint32_t kCmdWriteData = 269;
inline constexpr uint32_t kCmdRemoveItem = 270;
inline constexpr uint32_t kCmdItemAttributes = 271;
inline constexpr uint32_t kCmdNextItem = 272;
inline constexpr uint32_t kCmd273 = 273;  // sent by the guest-to-host drag; no payload
inline constexpr uint32_t kCmd274 = 274;  // sent by the tree receiver
inline constexpr uint32_t kCmdMoveMouse = 275;
inline constexpr uint32_t kCmdNewWorkerId = 276;
inline constexpr uint32_t kCmdQueryPrepare = 278;
inline constexpr uint32_t kCmd279 = 279;  // sent by the host-to-guest drag; no payload
inline constexpr uint32_t kCmdTransferStart = 280;
inline constexpr uint32_t kCmdFileListVariant = 768;
inline constexpr uint32_t kCmdLinkTarget = 769;
inline constexpr uint32_t kCmdSymlink = 770;

// Reply statuses.
inline constexpr uint32_t kStatusSuccess = 0;
inline constexpr uint32_t kStatusExists = 1;
inline constexpr uint32_t kStatusNoMoreItems = 7;
inline constexpr uint32_t kStatusStop = 9;
inline constexpr uint32_t kStatusBufferTooSmall = 13;
inline constexpr uint32_t kStatusStopAlso = 100;
inline constexpr uint32_t kStatusReplace = 101;
inline constexpr uint32_t kStatusSkip = 102;
inline constexpr uint32_t kStatusAccepted = 200;

// Dialogs.
inline constexpr uint32_t kDialogPrepare = 0;  // DD_DIALOG_ID_PREPARE
inline constexpr uint32_t kDialogError = 4;
inline constexpr uint32_t kDialogCodeFailed = 12;
inline constexpr uint32_t kDialogCodeEntryFailed = 6;

inline bool is_quiet_stop(uint32_t status) {
    return status == kStatusStop || status == kStatusStopAlso;
}

// Header accessors.
inline uint32_t command(const void* msg) {
    return le::get32(msg, kOffCommand);
}
inline uint32_t status(const void* msg) {
    return le::get32(msg, kOffStatus);
}
inline uint64_t worker_id(const void* msg) {
    return le::get64(msg, kOffWorkerId);
}

// Clears `size` bytes of the record and writes command, version 2 and workerId.
void init_message(void* msg, size_t size, uint32_t command, uint64_t workerId);

// Writes UTF-16 text and its NUL terminator into a fixed text field of `fieldBytes`
// bytes. A text that does not fit is cut at the last whole code point that leaves
// room for the NUL, and false is returned; nothing is ever written past the field.
bool put_text_field(void* msg, size_t offset, size_t fieldBytes, std::u16string_view text);

// The item name field: nameLength at +76, the name and its NUL at +80. Names are
// refused rather than cut, because a cut name would create a different item on the
// other side: a name of more than 1023 code units leaves the record untouched and
// gives false.
bool put_name(void* msg, std::u16string_view name);

// The dialog text field: a longer text is cut (it is only shown to the user).
void put_dialog_text(void* msg, std::u16string_view text);

}  // namespace qvx::dnd
