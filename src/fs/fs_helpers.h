// File-system helpers beside CHostFile: folder creation and removal, open-file and disk sizes.
#pragma once

#include <sys/stat.h>

#include <cstdint>
#include <string_view>

#include "log/log.h"  // result_from_errno, kResultFailure, kResultAccessDenied

namespace qvx {

// mkdir with mode 0777 (the umask applies); on failure `result` is set as
// result_from_errno does. Logs nothing.
bool make_directory(const char* path, uint32_t* result = nullptr);
// As make_directory, for `name` (one component) in the folder `dirFd`.
bool make_directory_at(int dirFd, const char* name, uint32_t* result = nullptr);

// Which item a name held when it was looked at: a later look that finds another device or
// node finds another item.
struct FileIdentity {
    dev_t dev = 0;
    ino_t ino = 0;
    bool known = false;  // false: the item could not be examined; it matches nothing
    bool operator==(const FileIdentity&) const = default;
};
FileIdentity identity_of(const struct stat& st);

// True for an absolute path that names its item directly: no "." or ".." component, so
// that the item it names is the last component in the folder the rest names.
bool is_plain_path(std::string_view path);

// Removes a folder and everything below it, depth first, stopping at the first failure
// (what was removed stays removed). Works through descriptors of the folders it has open and
// never follows a symbolic link: a link inside the tree is unlinked, and a link given as
// `path` is unlinked itself. A path that is neither a folder nor a link gives false and is
// left alone, and so does a last component "." or "..". Stays on the folder's own file
// system: a folder inside it on another one (a mount point) stops the walk (EXDEV), since
// nobody removing a folder means to empty the volumes mounted in it. Holds a bounded number
// of folders open whatever the depth of the tree, and builds no path below `path`. Logs
// nothing.
bool remove_tree(const char* path);
// As remove_tree, for `name` (one component, neither "." nor "..") in the folder `dirFd`: a
// folder goes with everything in it, a link as a link; nothing else is touched. With
// `expected`, only the item of that identity goes; another one there fails (ESTALE).
bool remove_tree_at(int dirFd, const char* name, const FileIdentity* expected = nullptr);
// Removes the item `path` names (a folder with everything in it, anything else by unlink,
// a link as a link) when its last component still holds `expected`; false (ESTALE) when it
// holds another item or `expected` is not known.
bool remove_item(const char* path, const FileIdentity& expected);

// Bytes in an open file; for a block or character device the disk's block count times block
// size. All-ones when unknown.
uint64_t get_open_file_size(int fd);

// The disk's block size and total bytes; false (both 0) when the driver can't tell.
bool get_device_geometry(int fd, uint64_t* totalBytes, uint64_t* blockSize);

}  // namespace qvx
