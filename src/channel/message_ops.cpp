// The message operations: one request record each, sent through the context, and the
// reply turned into a boolean or a status for the caller.
#include "channel/message_ops.h"

#include <cstring>

#include "log/log.h"
#include "text/encoding.h"

namespace qvx {

using namespace dnd;

namespace {

// A fixed record on the caller's stack.
struct Record {
    uint8_t bytes[kMessageSize];
    uint8_t* data() { return bytes; }
};

// The reply's fixed record is cleared first: a host that writes fewer bytes must not
// leave stack garbage to be read as a status or a length. The data area behind it is
// left alone; its length field decides how much of it counts.
bool exchange(const DnDContext& ctx, const uint8_t* out, size_t outSize, uint8_t* reply,
              size_t replySize) {
    std::memset(reply, 0, replySize < kMessageSize ? replySize : kMessageSize);
    if (!ctx.send) return false;
    return ctx.send(ctx.communicator, out, static_cast<uint32_t>(outSize), reply,
                    static_cast<uint32_t>(replySize));
}

bool exchange(const DnDContext& ctx, Record& out, Record& reply) {
    return exchange(ctx, out.data(), kMessageSize, reply.data(), kMessageSize);
}

void send_failure_notice(const DnDContext& ctx) {
    SendDialog(ctx, kDialogError, kDialogCodeFailed, {});
}

// The reporting pattern on an exchange already made.
bool reporting_result(const DnDContext& ctx, bool sent, const uint8_t* reply) {
    if (!sent) return false;
    const uint32_t st = status(reply);
    if (st == kStatusSuccess) return true;
    if (!is_quiet_stop(st)) send_failure_notice(ctx);
    return false;
}

bool quiet_result(bool sent, const uint8_t* reply) {
    return sent && status(reply) == kStatusSuccess;
}

uint32_t status_result(bool sent, const uint8_t* reply) {
    return sent ? status(reply) : kStatusStop;
}

bool send_reporting(const DnDContext& ctx, Record& out, Record& reply) {
    return reporting_result(ctx, exchange(ctx, out, reply), reply.data());
}

bool send_quiet(const DnDContext& ctx, Record& out, Record& reply) {
    return quiet_result(exchange(ctx, out, reply), reply.data());
}

uint32_t send_status(const DnDContext& ctx, Record& out) {
    Record reply;
    return status_result(exchange(ctx, out, reply), reply.data());
}

}  // namespace

bool SendStateNotice(const DnDContext& ctx, bool active) {
    Record out, reply;
    init_message(out.data(), kMessageSize, active ? kCmdToolActive : kCmdToolStops, 0);
    return send_quiet(ctx, out, reply);
}

bool SendChecked(const DnDContext& ctx, uint32_t cmd) {
    Record out, reply;
    init_message(out.data(), kMessageSize, cmd, ctx.workerId);
    return send_reporting(ctx, out, reply);
}

bool SendPlain(const DnDContext& ctx, uint32_t cmd) {
    Record out, reply;
    init_message(out.data(), kMessageSize, cmd, ctx.workerId);
    return send_quiet(ctx, out, reply);
}

uint32_t SendDialog(const DnDContext& ctx, uint32_t dialogId, uint32_t dialogCode,
                    std::u16string_view text) {
    Record out, reply;
    init_message(out.data(), kMessageSize, kCmdDialog, ctx.workerId);
    le::put32(out.data(), kOffDialogId, dialogId);
    put_dialog_text(out.data(), text);
    le::put32(out.data(), kOffDialogCode, dialogCode);
    if (!exchange(ctx, out, reply)) return 0xFFFFFFFF;
    return status(reply.data());
}

bool QueryPrepare(const DnDContext& ctx, uint32_t* value) {
    Record out, reply;
    init_message(out.data(), kMessageSize, kCmdQueryPrepare, ctx.workerId);
    if (!send_reporting(ctx, out, reply)) return false;
    if (value) *value = le::get32(reply.data(), kOffPrepareValue);
    return true;
}

bool QueryTransferTotals(const DnDContext& ctx, uint64_t* totalBytes, uint32_t* second) {
    Record out, reply;
    init_message(out.data(), kMessageSize, kCmdQueryTotals, ctx.workerId);
    if (!send_reporting(ctx, out, reply)) return false;
    const TotalsReply totals = read_totals_reply(reply.data());
    if (totalBytes) *totalBytes = totals.totalBytes;
    if (second) *second = totals.second;
    return true;
}

bool SendTransferTotals(const DnDContext& ctx, uint64_t totalBytes, uint32_t items,
                        uint32_t topLevel) {
    Record out, reply;
    build_send_totals(out.data(), ctx.workerId, totalBytes, items, topLevel);
    return send_reporting(ctx, out, reply);
}

bool RequestWorkerId(const DnDContext& ctx, uint64_t* workerId) {
    Record out, reply;
    init_message(out.data(), kMessageSize, kCmdNewWorkerId, 0);
    if (!send_quiet(ctx, out, reply)) return false;
    if (workerId) *workerId = worker_id(reply.data());
    return true;
}

bool sendMoveMouse(const DnDContext& ctx, uint32_t x, uint32_t y, uint32_t state) {
    Record out, reply;
    init_message(out.data(), kMessageSize, kCmdMoveMouse, ctx.workerId);
    le::put32(out.data(), kOffPointerX, x);
    le::put32(out.data(), kOffPointerY, y);
    le::put32(out.data(), kOffPointerButtons, state);
    if (!exchange(ctx, out, reply)) {
        if (log_verbosity() > 0) log_message("", "CopyFiles", 1, "sendMoveMouse toolgate failed");
        return false;
    }
    const uint32_t st = status(reply.data());
    if (st == kStatusSuccess) return true;
    // Unlike the reporting pattern, a refused pointer move is shown even for 9 and 100:
    // the drag on the guest desktop is left in a state the user has to know about.
    if (log_verbosity() > 0) {
        log_message("", "CopyFiles", 1, "sendMoveMouse failed iResult = %u", st);
    }
    send_failure_notice(ctx);
    return false;
}

bool SendFileList(const DnDContext& ctx, bool variant, const std::vector<std::string>& paths,
                  uint64_t* workerId, uint32_t* action) {
    std::vector<std::u16string> names;
    names.reserve(paths.size());
    uint64_t namesSize = 0;
    for (const std::string& path : paths) {
        // A path that is no valid UTF-8 converts to an empty name and goes out as one, so
        // the list keeps one name per path.
        names.push_back(Utf8ToUtf16(path));
        namesSize += names.back().size() * 2 + 2;
        if (namesSize > kMaxFileListBytes) return false;
    }

    // 258 and 768 always carry workerId 0: the host assigns the id in its reply.
    std::vector<uint8_t> out(kMessageSize + namesSize, 0);
    init_message(out.data(), out.size(), variant ? kCmdFileListVariant : kCmdFileList, 0);
    le::put32(out.data(), kOffListCount, static_cast<uint32_t>(names.size()));
    le::put32(out.data(), kOffListSize, static_cast<uint32_t>(namesSize));
    size_t at = kOffListNames;
    for (const std::u16string& name : names) {
        for (char16_t unit : name) {
            le::put16(out.data(), at, unit);
            at += 2;
        }
        at += 2;  // the NUL, already zero
    }

    Record reply;
    if (!exchange(ctx, out.data(), out.size(), reply.data(), kMessageSize)) return false;
    const uint32_t st = status(reply.data());
    if (st != kStatusSuccess && st != kStatusAccepted) return false;
    if (workerId) *workerId = worker_id(reply.data());
    if (action) *action = le::get32(reply.data(), kOffReplyAction);
    return true;
}

// Operations that carry an item name refuse a name over 1023 code units without
// sending anything: a cut name would name a different item on the other side.

bool SendEntry(const DnDContext& ctx, const ItemInfo& entry, bool* refusedLocally) {
    Record out, reply;
    const bool built = build_file_entry(out.data(), ctx.workerId, entry);
    if (refusedLocally) *refusedLocally = !built;
    if (!built) return false;
    return send_reporting(ctx, out, reply);
}

bool SendEntryName(const DnDContext& ctx, const ItemInfo& entry, bool report,
                   bool* refusedLocally) {
    Record out, reply;
    const bool built = build_remove_item(out.data(), ctx.workerId, entry);
    if (refusedLocally) *refusedLocally = !built;
    if (!built) return false;
    if (!exchange(ctx, out, reply)) return false;
    const uint32_t st = status(reply.data());
    if (st == kStatusSuccess) return true;
    if (!is_quiet_stop(st) && report) {
        SendDialog(ctx, kDialogError, kDialogCodeEntryFailed, entry.name);
    }
    return false;
}

uint32_t SendLinkTarget(const DnDContext& ctx, const ItemInfo& entry, const std::string& target) {
    // A target that is no UTF-8 converts to empty and goes out as an empty target.
    const std::u16string units = Utf8ToUtf16(target);
    std::vector<uint8_t> out;
    if (!build_symlink(out, ctx.workerId, entry, units)) return kStatusRefusedLocally;
    Record reply;
    return status_result(exchange(ctx, out.data(), out.size(), reply.data(), kMessageSize),
                         reply.data());
}

uint32_t SendEntryWithValue(const DnDContext& ctx, const ItemInfo& entry, uint32_t value) {
    Record out;
    if (!build_data_begin(out.data(), ctx.workerId, entry, value)) return kStatusRefusedLocally;
    return send_status(ctx, out);
}

uint32_t SendEntryWithAttribute(const DnDContext& ctx, const ItemInfo& entry) {
    Record out;
    if (!build_item_header(out.data(), ctx.workerId, entry)) return kStatusRefusedLocally;
    return send_status(ctx, out);
}

// A request for more than one chunk is refused without sending: the host serves at
// most kMaxChunk bytes per message, and the buffer size must stay within a u32.

uint32_t ReadData(const DnDContext& ctx, uint8_t* buffer, uint32_t n) {
    if (n > kMaxChunk) return kStatusRefusedLocally;
    Record out;
    init_message(out.data(), kMessageSize, kCmdReadData, ctx.workerId);
    le::put32(out.data(), kOffDataLength, n);
    return status_result(exchange(ctx, out.data(), kMessageSize, buffer, kMessageSize + n), buffer);
}

uint32_t WriteData(const DnDContext& ctx, uint8_t* buffer, uint32_t n) {
    if (n > kMaxChunk) return kStatusRefusedLocally;
    build_data_chunk_header(buffer, ctx.workerId, n);
    Record reply;
    return status_result(exchange(ctx, buffer, kMessageSize + n, reply.data(), kMessageSize),
                         reply.data());
}

}  // namespace qvx
