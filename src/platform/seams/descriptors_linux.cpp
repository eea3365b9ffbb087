// The close-on-exec descriptor calls on Linux, in one call each.
#include "platform/seams/descriptors.h"

#include <fcntl.h>
#include <unistd.h>

namespace platform {

int dup_cloexec(int from, int to) {
    return ::dup3(from, to, O_CLOEXEC);
}

int pipe_cloexec(int fds[2]) {
    return ::pipe2(fds, O_CLOEXEC);
}

}  // namespace platform
