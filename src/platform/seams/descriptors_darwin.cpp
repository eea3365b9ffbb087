// The close-on-exec descriptor calls on macOS, which has neither dup3 nor pipe2.
#include "platform/seams/descriptors.h"

#include <fcntl.h>
#include <unistd.h>

namespace platform {

int dup_cloexec(int from, int to) {
    if (::dup2(from, to) == -1) return -1;
    return ::fcntl(to, F_SETFD, FD_CLOEXEC) == -1 ? -1 : to;
}

int pipe_cloexec(int fds[2]) {
    if (::pipe(fds) == -1) return -1;
    if (::fcntl(fds[0], F_SETFD, FD_CLOEXEC) == -1 || ::fcntl(fds[1], F_SETFD, FD_CLOEXEC) == -1) {
        ::close(fds[0]);
        ::close(fds[1]);
        return -1;
    }
    return 0;
}

}  // namespace platform
