// File-system helpers beside CHostFile: folder creation and removal, open-file and disk sizes.
#pragma once

#include <cstdint>

#include "log/log.h"  // result_from_errno, kResultFailure, kResultAccessDenied

namespace qvx {

// mkdir with mode 0777 (the umask applies); on failure `result` is set as
// result_from_errno does. Logs nothing.
bool make_directory(const char* path, uint32_t* result = nullptr);
// As make_directory, for `name` (one component) in the folder `dirFd`.
bool make_directory_at(int dirFd, const char* name, uint32_t* result = nullptr);

// Removes a folder and everything below it, depth first, stopping at the first failure
// (what was removed stays removed). Works through descriptors of the folders it has open and
// never follows a symbolic link: a link inside the tree is unlinked, and a link given as
// `path` is unlinked itself. A path that is neither a folder nor a link gives false and is
// left alone. Holds a bounded number of folders open whatever the depth of the tree, and
// builds no path below `path`. Logs nothing.
bool remove_tree(const char* path);
// As remove_tree, for `name` (one component) in the folder `dirFd`: a folder goes with
// everything in it, a link as a link; nothing else is touched.
bool remove_tree_at(int dirFd, const char* name);

// Bytes in an open file; for a block or character device the disk's block count times block
// size. All-ones when unknown.
uint64_t get_open_file_size(int fd);

// The disk's block size and total bytes; false (both 0) when the driver can't tell.
bool get_device_geometry(int fd, uint64_t* totalBytes, uint64_t* blockSize);

}  // namespace qvx
