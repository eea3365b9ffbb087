// The control thread: registers the tool, polls the host for commands and dispatches them.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>

#include "channel/message_ops.h"
#include "common/stop_flag.h"
#include "toolservice/registration.h"

namespace qvx {

inline constexpr const char* kToolIdentifier = "quorvex.DragDropTool.guest.mac";
inline constexpr const char* kToolDisplayName = "DnD tool";

// What the loop calls beyond the message operations; a test replaces them the way it
// replaces the send function, with callables that may hold their own state.
struct ControlLoopHooks {
    std::function<bool(DnDContext context, int x, int y)> hostToGuestDrag;
    std::function<void(DnDContext context)> guestToHostDrag;
    std::function<double()> scaleFactor;
    std::function<int32_t(const char* identifier, const char* displayName, const ToolInfo* info,
                          const char* text, const void* data, uint32_t dataLength)>
        registerTool;
    std::function<int32_t(const char* identifier)> unregisterTool;
};
// The real drag handlers, backing_scale_factor and the tool service registration.
ControlLoopHooks default_control_loop_hooks();

// The loop itself: runs until it sees the stop flag, then sends 257 and unregisters.
void RunControlLoop(CommonMacCommunicator* communicator, const SendFunction& send,
                    const ControlLoopHooks& hooks);

// Thread entry: `arg` is the communicator; talks to the host through SendDnDCommand.
void* ControlThread(void* arg);

// The drop point of host command 200: host pixels divided by the scale factor, truncated
// toward zero and kept within int (the host's values are not trusted).
int host_pixels_to_points(uint32_t pixels, double scale);

}  // namespace qvx
