// Folder creation and removal, open-file and disk sizes, on top of the system-call seam.
#include "fs/fs_helpers.h"

#include <fcntl.h>
#include <sys/disk.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "platform/seams/syscalls.h"

namespace qvx {
namespace {

constexpr int kDirFlags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;

bool is_dot_entry(const char* name) {
    return name[0] == '.' && (name[1] == '\0' || (name[1] == '.' && name[2] == '\0'));
}

// Empties the folder open as `dirFd` (taken over and closed). Every step names entries
// relative to that descriptor, so a folder renamed or swapped for a link while we work
// can't lead the walk outside the tree.
bool remove_contents(int dirFd) {
    DIR* dir = platform::sys_fdopendir(dirFd);
    if (!dir) {
        platform::sys_close(dirFd);
        return false;
    }
    bool ok = true;
    for (;;) {
        errno = 0;
        const dirent* entry = platform::sys_readdir(dir);
        if (!entry) {
            ok = errno == 0;
            break;
        }
        const char* name = entry->d_name;
        if (is_dot_entry(name)) continue;
        struct stat st {};
        if (platform::sys_fstatat(dirFd, name, &st, AT_SYMLINK_NOFOLLOW) != 0) {
            ok = false;
            break;
        }
        if (S_ISDIR(st.st_mode)) {
            // O_NOFOLLOW: if the folder was replaced by a link since fstatat, this fails
            // instead of descending through it.
            const int child = platform::sys_openat(dirFd, name, kDirFlags);
            ok = child != -1 && remove_contents(child) &&
                 platform::sys_unlinkat(dirFd, name, AT_REMOVEDIR) == 0;
        } else {
            ok = platform::sys_unlinkat(dirFd, name, 0) == 0;
        }
        if (!ok) break;
    }
    const int error = errno;
    platform::sys_closedir(dir);
    errno = error;
    return ok;
}

}  // namespace

bool make_directory(const char* path, uint32_t* result) {
    if (platform::sys_mkdir(path, 0777) == 0) return true;
    result_from_errno(result);
    return false;
}

bool remove_tree(const char* path) {
    // A trailing slash would make the kernel follow a final link despite O_NOFOLLOW.
    size_t length = strlen(path);
    while (length > 1 && path[length - 1] == '/') --length;
    char* own = strndup(path, length);
    if (!own) return false;
    bool removed = false;
    const int dirFd = platform::sys_open(own, kDirFlags);
    if (dirFd == -1) {
        // O_NOFOLLOW refuses a link; remove the link itself, never what it points to.
        const int error = errno;
        struct stat st {};
        if ((error == ELOOP || error == ENOTDIR) && platform::sys_lstat(own, &st) == 0 &&
            S_ISLNK(st.st_mode)) {
            removed = platform::sys_unlink(own) == 0;
        } else {
            errno = error;
        }
    } else {
        removed = remove_contents(dirFd) && platform::sys_rmdir(own) == 0;
    }
    const int error = errno;
    std::free(own);
    errno = error;
    return removed;
}

uint64_t get_open_file_size(int fd) {
    struct stat st {};
    if (platform::sys_fstat(fd, &st) != 0) return UINT64_MAX;
    if (S_ISBLK(st.st_mode) || S_ISCHR(st.st_mode)) {
        uint64_t count = 0;
        uint32_t size = 0;
        if (platform::sys_ioctl(fd, DKIOCGETBLOCKCOUNT, &count) != 0 ||
            platform::sys_ioctl(fd, DKIOCGETBLOCKSIZE, &size) != 0) {
            return UINT64_MAX;
        }
        return count * size;
    }
    return static_cast<uint64_t>(st.st_size);
}

bool get_device_geometry(int fd, uint64_t* totalBytes, uint64_t* blockSize) {
    *totalBytes = 0;
    *blockSize = 0;
    uint64_t count = 0;
    uint32_t size = 0;
    if (platform::sys_ioctl(fd, DKIOCGETBLOCKCOUNT, &count) != 0 ||
        platform::sys_ioctl(fd, DKIOCGETBLOCKSIZE, &size) != 0) {
        return false;
    }
    *blockSize = size;
    *totalBytes = count * size;
    return true;
}

}  // namespace qvx
