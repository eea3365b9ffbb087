// The control loop: the tool's only listener, polling the host with 259 and dispatching.
#include "app/control_loop.h"

#include <climits>
#include <cmath>
#include <cstring>

#include "channel/dnd_message.h"
#include "common/signal_block.h"
#include "log/log.h"
#include "platform/seams/clock.h"
#include "ui/drag_handlers.h"
#include "ui/overlay.h"

namespace qvx {

ControlLoopHooks default_control_loop_hooks() {
    // The registration calls are overloaded; the casts pick the forms the loop uses.
    using RegisterTool =
        int32_t (*)(const char*, const char*, const ToolInfo*, const char*, const void*, uint32_t);
    using UnregisterTool = int32_t (*)(const char*);
    return ControlLoopHooks{HandleHostToGuestDrag, HandleGuestToHostDrag, backing_scale_factor,
                            static_cast<RegisterTool>(register_tool),
                            static_cast<UnregisterTool>(unregister_tool)};
}

int host_pixels_to_points(uint32_t pixels, double scale) {
    const double points = std::trunc(static_cast<double>(pixels) / scale);
    // A zero or absurd scale gives infinities or NaN; converting those to int is undefined.
    if (std::isnan(points)) return 0;
    if (points >= static_cast<double>(INT_MAX)) return INT_MAX;
    if (points <= static_cast<double>(INT_MIN)) return INT_MIN;
    return static_cast<int>(points);
}

void RunControlLoop(CommonMacCommunicator* communicator, const SendFunction& send,
                    const ControlLoopHooks& hooks) {
    DnDContext context{0, communicator, send};

    ToolInfo info;
    make_tool_info(&info, 1, 0);
    // Registration is a courtesy to the host's tool service; the loop runs either way.
    hooks.registerTool(kToolIdentifier, kToolDisplayName, &info, nullptr, nullptr, 0);

    uint8_t poll[dnd::kMessageSize];
    uint8_t reply[dnd::kMessageSize];
    while (!stop_requested()) {
        // The poll asks for the next command of any operation, so it carries worker 0
        // even after a reply has named one.
        dnd::init_message(poll, sizeof poll, dnd::kCmdPoll, 0);
        std::memset(reply, 0, sizeof reply);
        if (!send(communicator, poll, sizeof poll, reply, sizeof reply)) {
            if (stop_requested()) break;
            platform::clock_sleep(1);
            continue;
        }
        context.workerId = dnd::worker_id(reply);
        const uint32_t hostCommand = dnd::status(reply);
        if (log_verbosity() > 0)
            log_message("DNDTOOL", "qvxdragdrop", 1, "DnD command received [%d]",
                        static_cast<int>(hostCommand));

        // Only a held poll and the sleep after a failed one are for the stop's SIGINT to
        // end. An exchange that it cut short could be one the host had already acted on (a
        // 258 given a new worker, a 275 that pressed the pointer), leaving an operation the
        // guest no longer follows; the handlers' waits notice the stop flag themselves.
        const ScopedSignalBlock dispatching({SIGINT});
        switch (hostCommand) {
            case dnd::kHostCmdGuestToHost:
                hooks.guestToHostDrag(context);
                SendPlain(context, dnd::kCmdEnd);
                break;
            case dnd::kHostCmdHostToGuest: {
                const double scale = hooks.scaleFactor();
                const int x = host_pixels_to_points(le::get32(reply, dnd::kOffPointerX), scale);
                const int y = host_pixels_to_points(le::get32(reply, dnd::kOffPointerY), scale);
                if (!hooks.hostToGuestDrag(context, x, y)) SendPlain(context, dnd::kCmdEnd);
                break;
            }
            case dnd::kHostCmd10:
                SendStateNotice(DnDContext{0, communicator, send}, true);
                break;
            default:
                SendPlain(context, dnd::kCmdEnd);
                break;
        }
    }

    {
        // The stop sequence repeats its SIGINT until this thread has ended; the goodbye
        // must not be cut short by one.
        const ScopedSignalBlock block({SIGINT});
        SendStateNotice(DnDContext{0, communicator, send}, false);
        hooks.unregisterTool(kToolIdentifier);
    }
    if (log_verbosity() > 0) log_message("DNDTOOL", "qvxdragdrop", 1, "Control Thread stopped");
}

void* ControlThread(void* arg) {
    RunControlLoop(static_cast<CommonMacCommunicator*>(arg), SendDnDCommand,
                   default_control_loop_hooks());
    return nullptr;
}

}  // namespace qvx
