// The handlers of the two drag commands, run on the control thread.
#pragma once

#include <optional>

#include "channel/message_ops.h"

namespace qvx {

// Host command 200: files dragged on the host were dropped at (x, y), points with the
// origin at the upper left of the main screen. True when the guest took the drop over;
// false makes the control loop end the operation with 260. Every wait of both handlers
// ends, as its time-out would, once the tool begins to stop.
bool HandleHostToGuestDrag(DnDContext context, int x, int y);

// Where the overlay waits to be pressed for a drop at x and yc (window-system points):
// the main screen's centre, or 220 points left of it when the drop lies within 110 points
// of the centre on both axes. Nothing without a screen.
struct ParkedAt {
    int x;
    int y;
};
std::optional<ParkedAt> ParkPoint(int x, int yc);

// The guest-side drag of the host drop `operation` (open_drop): the host presses the
// pointer on the overlay parked at (px, py), moves it to the drop point (x, y) and releases
// it there; true once the destination accepted the promised files and their receive job
// started.
bool SimulateDrop(const DnDContext& context, uint64_t operation, int x, int y, int px, int py);

// Host command 204: a guest drag has reached the host. The control loop sends 260 when
// this returns.
void HandleGuestToHostDrag(DnDContext context);

}  // namespace qvx
