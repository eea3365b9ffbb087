// The drag handlers. Until the overlay window exists the tool declines host drops and
// lets guest drags pass; the control loop then ends each operation with 260.
#include "ui/drag_handlers.h"

namespace qvx {

bool HandleHostToGuestDrag(DnDContext, int, int) {
    return false;
}

void HandleGuestToHostDrag(DnDContext) {}

}  // namespace qvx
