// The host's side of a guest-to-host transfer: stores the items the guest's tree sender
// sends into a host folder, answers name conflicts by a policy and checks what arrived
// against the announced totals. One transfer per workerId; several may run at once.
//
//   hostsim::SinkOptions options;
//   options.folder = "/tmp/in";
//   options.policy = hostsim::ConflictPolicy::Skip;
//   hostsim::TreeSink sink(host, options);
//   ... the guest sends ...
//   auto r = sink.result(workerId);   // r->state == SinkResult::State::Done, r->totals_match()
//
// Where something else owns the worker's messages (a DragPlayer answers the drag's own
// and passes the rest on), give it endpoint(workerId) as the transfer's handler instead.
//
// Names from the guest are trusted for nothing: a name with an empty, "." or ".."
// component, a NUL, or text that is no UTF-16 is refused, and every name is resolved one
// component at a time beneath the folder without following any symbolic link, so neither
// a crafted name nor a link created earlier in the transfer leads a write outside it.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "hostsim/host.h"

namespace hostsim {

class ProgressBoard;
struct SinkShared;

enum class ConflictPolicy { Replace, Skip, Stop };

// "replace", "skip" or "stop".
bool parse_conflict_policy(std::string_view text, ConflictPolicy& out);

// Status the host answers when it cannot or will not do what a message asks; the guest
// then sends the notice that fits and stops.
inline constexpr uint32_t kSinkRefused = 5;

struct SinkOptions {
    std::string folder;  // where the items go; created when missing
    ConflictPolicy policy = ConflictPolicy::Stop;
    // The answer to the notice (2, 0, name) for one name, in place of the policy's:
    // 101 replace, 102 skip, 9 stop, or any other status.
    std::function<uint32_t(const std::string& name)> onConflict;
    ProgressBoard* progress = nullptr;  // may be null
    // Answer 258 and 768 with a workerId of the sink's own (0x1000 and up) and this
    // action, so that drags out of the guest are told apart. Off: they are left alone.
    bool assignWorkerIds = false;
    uint32_t fileListAction = 0;
};

struct SinkResult {
    enum class State { Running, Done, Failed, Stopped };
    uint64_t workerId = 0;
    State state = State::Running;
    // As last announced (a skipped top-level item lowers them).
    uint64_t announcedBytes = 0;
    uint32_t announcedItems = 0;
    uint32_t topLevel = 0;
    uint32_t totalsMessages = 0;         // 262s received
    uint64_t items = 0;                  // items completed: their 271 applied
    uint64_t bytes = 0;                  // data bytes stored, plus 32 for each folder completed
    uint32_t replaced = 0;               // conflicts answered 101
    uint32_t skipped = 0;                // conflicts answered 102
    std::vector<uint32_t> failureCodes;  // codes of the notices (4, code, text) received
    std::string refusal;                 // the first refusal of the host and its reason

    bool totals_match() const { return items == announcedItems && bytes == announcedBytes; }
};

const char* state_name(SinkResult::State state);

class TreeSink {
  public:
    // Installs itself on `host` (a handler for 262, and for 258 and 768 when asked):
    // takes over every transfer whose 262 arrives for a workerId without a worker handler.
    TreeSink(Host& host, SinkOptions options);
    // Uninstalls; transfers still running stop being answered by it.
    ~TreeSink();
    TreeSink(const TreeSink&) = delete;
    TreeSink& operator=(const TreeSink&) = delete;

    // Takes the transfer of `workerId` before its 262 arrives.
    void accept(uint64_t workerId);
    // The handler of `workerId`'s transfers for whoever routes that worker's messages
    // (installs nothing on the host): a transfer begins at the first message it is given
    // and is finished at its 260, after which the next message begins another.
    Handler endpoint(uint64_t workerId);
    // Answers a file list (258 or 768) as `assignWorkerIds` does: a workerId of the sink's
    // own and the file-list action. For a handler that answers some lists itself.
    uint32_t answer_file_list(Exchange& exchange);
    // The transfer's result: the running one, else the last that finished.
    std::optional<SinkResult> result(uint64_t workerId) const;
    // Finished transfers (their 260 received), in the order they finished.
    std::vector<SinkResult> finished() const;

  private:
    Host& m_host;
    std::shared_ptr<SinkShared> m_shared;
};

}  // namespace hostsim
