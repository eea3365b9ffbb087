// The handlers of the two drag commands, run on the control thread.
#pragma once

#include "channel/message_ops.h"

namespace qvx {

// Host command 200: files dragged on the host were dropped at (x, y), points with the
// origin at the upper left of the main screen. True when the guest took the drop over;
// false makes the control loop end the operation with 260.
bool HandleHostToGuestDrag(DnDContext context, int x, int y);

// Host command 204: a guest drag has reached the host. The control loop sends 260 when
// this returns.
void HandleGuestToHostDrag(DnDContext context);

}  // namespace qvx
