// Descriptors that never reach a program the tool might start: the close-on-exec forms of
// dup2 and pipe, which Linux has as calls (dup3, pipe2) and macOS does not.
#pragma once

namespace platform {

// dup2 whose copy `to` is close-on-exec. On macOS the flag follows in a second call: a
// program started from another thread between the two would inherit `to`.
int dup_cloexec(int from, int to);
// pipe with both ends close-on-exec (the same window on macOS).
int pipe_cloexec(int fds[2]);

}  // namespace platform
