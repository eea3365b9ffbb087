// The message operations: the vocabulary every flow talks to the host with. Each builds
// one DnD message, sends it through the context's send function and turns the reply
// into a result, reporting unexpected statuses to the user with dialog 4.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "channel/communicator.h"
#include "transfer/records.h"

namespace qvx {

struct DnDContext {
    uint64_t workerId = 0;
    CommonMacCommunicator* communicator = nullptr;
    SendFunction send;  // SendDnDCommand, or a test's scripted host
};

// Reply patterns: "reporting" operations give false for a failed exchange and for
// statuses 9 and 100, and send dialog 4 (code 12, empty text) before giving false for
// any other non-zero status; "quiet" ones never send a dialog; "status" ones give the
// reply's status, or 9 when the exchange failed.
//
// Local refusals. An operation that cannot build its record (an item name over 1023 code
// units, a data request over one chunk) sends nothing and says so apart from the host's
// answers, because the caller owes the user a notice for it while a host status 9 or 100
// means the host has already stopped:
// - the status-pattern operations return kStatusRefusedLocally;
// - SendEntry and SendEntryName return false and set `*refusedLocally` (when given) to
//   true; it is set to false whenever something was sent.
// A text that cannot be converted is no refusal: it goes out as an empty name or target.
inline constexpr uint32_t kStatusRefusedLocally = 0xFFFFFFFE;

bool SendStateNotice(const DnDContext& ctx, bool active);   // 256 / 257, quiet
bool SendChecked(const DnDContext& ctx, uint32_t command);  // reporting
bool SendPlain(const DnDContext& ctx, uint32_t command);    // quiet
// The reply's status, or 0xFFFFFFFF when the exchange failed; never a further dialog.
uint32_t SendDialog(const DnDContext& ctx, uint32_t dialogId, uint32_t dialogCode,
                    std::u16string_view text);
bool QueryPrepare(const DnDContext& ctx, uint32_t* value);  // 278, reporting
bool QueryTransferTotals(const DnDContext& ctx, uint64_t* totalBytes,
                         uint32_t* second);  // 261, reporting
bool SendTransferTotals(const DnDContext& ctx, uint64_t totalBytes, uint32_t items,
                        uint32_t topLevel);                       // 262, reporting
bool RequestWorkerId(const DnDContext& ctx, uint64_t* workerId);  // 276, quiet
bool sendMoveMouse(const DnDContext& ctx, uint32_t x, uint32_t y, uint32_t state);  // 275
// 258 (or 768 with `variant`); refused before sending when the names need more than
// 131072 bytes. A path that is no UTF-8 goes out as an empty name (2 bytes). On success
// gives the new workerId and the transfer action if asked.
bool SendFileList(const DnDContext& ctx, bool variant, const std::vector<std::string>& paths,
                  uint64_t* workerId, uint32_t* action);
bool SendEntry(const DnDContext& ctx, const ItemInfo& entry,
               bool* refusedLocally = nullptr);  // 271, reporting
bool SendEntryName(const DnDContext& ctx, const ItemInfo& entry, bool report,
                   bool* refusedLocally = nullptr);  // 270
// 770, status; a target that is no UTF-8 goes out empty.
uint32_t SendLinkTarget(const DnDContext& ctx, const ItemInfo& entry, const std::string& target);
uint32_t SendEntryWithValue(const DnDContext& ctx, const ItemInfo& entry,
                            uint32_t value);                                    // 266, status
uint32_t SendEntryWithAttribute(const DnDContext& ctx, const ItemInfo& entry);  // 265, status
// `buffer` holds kMessageSize + n bytes: the reply record with the data behind it.
uint32_t ReadData(const DnDContext& ctx, uint8_t* buffer, uint32_t n);  // 268, status
// `buffer` holds kMessageSize + n bytes, the n data bytes already at kOffData.
uint32_t WriteData(const DnDContext& ctx, uint8_t* buffer, uint32_t n);  // 269, status

}  // namespace qvx
