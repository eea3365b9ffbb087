// qvxdragdrop: the guest's drag-and-drop tool, a background program stopped by SIGINT or SIGTERM.
#include "app/startup.h"

int main() {
    return qvx::dragdrop_main();
}
