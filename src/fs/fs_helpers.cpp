// Folder creation and removal, open-file and disk sizes, on top of the system-call seam.
#include "fs/fs_helpers.h"

#include <fcntl.h>
#include <sys/disk.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <new>
#include <string>
#include <utility>
#include <vector>

#include "platform/seams/syscalls.h"

namespace qvx {
namespace {

constexpr int kDirFlags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;

bool is_dot_entry(const char* name) {
    return name[0] == '.' && (name[1] == '\0' || (name[1] == '.' && name[2] == '\0'));
}

// Folders held open at once while a tree is removed. Deeper levels are reached through
// the ones held; a level let go of is opened again, through ".." of the level below it,
// when the walk comes back up to it.
constexpr size_t kOpenLevels = 8;

// One folder on the way down: its stream while held, its identity, and its name in the
// folder above it. Owns the stream, so that no way out of a walk leaks a descriptor.
struct Level {
    DIR* dir = nullptr;
    dev_t dev = 0;
    ino_t ino = 0;
    std::string name;

    Level() = default;
    Level(Level&& other) noexcept
        : dir(std::exchange(other.dir, nullptr)),
          dev(other.dev),
          ino(other.ino),
          name(std::move(other.name)) {}
    Level& operator=(Level&&) = delete;
    ~Level() { let_go(); }

    void let_go() {
        if (!dir) return;
        const int error = errno;
        platform::sys_closedir(dir);
        dir = nullptr;
        errno = error;
    }
    int fd() const { return dirfd(dir); }
};

// Makes the folder open as `fd` (taken over) the level's stream and notes its identity.
bool hold(Level& level, int fd) {
    struct stat st {};
    if (platform::sys_fstat(fd, &st) != 0 || !(level.dir = platform::sys_fdopendir(fd))) {
        const int error = errno;
        platform::sys_close(fd);
        errno = error;
        return false;
    }
    level.dev = st.st_dev;
    level.ino = st.st_ino;
    return true;
}

// Opens the folder `name` of `dirFd`. O_NOFOLLOW: a folder replaced by a link since it
// was looked at fails instead of being descended.
bool open_level(int dirFd, const char* name, Level& level) {
    const int fd = platform::sys_openat(dirFd, name, kDirFlags);
    return fd != -1 && hold(level, fd);
}

// Empties a folder tree level by level. Every step names entries relative to a folder
// descriptor, so a folder renamed or swapped for a link while we work can't lead the walk
// outside the tree, and no path grows with the depth. At most kOpenLevels streams are held.
class TreeWalk {
  public:
    // Takes over `rootFd`, the folder to empty; the folder itself stays. With `expected`,
    // a folder of another identity is left alone.
    bool empty(int rootFd, const FileIdentity* expected) {
        Level root;
        if (!hold(root, rootFd)) return false;
        if (expected && !(*expected == FileIdentity{root.dev, root.ino, true})) {
            errno = ESTALE;
            return false;
        }
        m_levels.push_back(std::move(root));
        for (;;) {
            const int topFd = m_levels.back().fd();
            errno = 0;
            const dirent* entry = platform::sys_readdir(m_levels.back().dir);
            if (!entry) {
                if (errno != 0) return false;
                if (m_levels.size() == 1) return true;
                if (!leave_level()) return false;
                continue;
            }
            const char* name = entry->d_name;
            if (is_dot_entry(name)) continue;
            struct stat child {};
            if (platform::sys_fstatat(topFd, name, &child, AT_SYMLINK_NOFOLLOW) != 0) return false;
            if (!S_ISDIR(child.st_mode)) {
                if (platform::sys_unlinkat(topFd, name, 0) != 0) return false;
                continue;
            }
            if (child.st_dev != m_levels.front().dev) {
                errno = EXDEV;
                return false;
            }
            Level next;
            next.name = name;  // `entry` lives only until the next readdir
            if (!open_level(topFd, name, next)) return false;
            m_levels.push_back(std::move(next));
            if (m_levels.size() - m_firstHeld > kOpenLevels) m_levels[m_firstHeld++].let_go();
        }
    }

  private:
    // The emptied top level is removed from the one above it, which is opened again first
    // if it was let go of. ".." is no link to follow, and the identity check makes sure it
    // is still the folder we came down through.
    bool leave_level() {
        Level& done = m_levels.back();
        Level& parent = m_levels[m_levels.size() - 2];
        if (!parent.dir) {
            Level again;
            if (!open_level(done.fd(), "..", again)) return false;
            if (again.dev != parent.dev || again.ino != parent.ino) {
                errno = ESTALE;
                return false;
            }
            parent.dir = std::exchange(again.dir, nullptr);
            m_firstHeld = m_levels.size() - 2;
        }
        done.let_go();
        if (platform::sys_unlinkat(parent.fd(), done.name.c_str(), AT_REMOVEDIR) != 0) return false;
        m_levels.pop_back();
        return true;
    }

    std::vector<Level> m_levels;  // from the root down to the folder being emptied
    size_t m_firstHeld = 0;       // levels from here on are held open
};

}  // namespace

bool make_directory(const char* path, uint32_t* result) {
    if (platform::sys_mkdir(path, 0777) == 0) return true;
    result_from_errno(result);
    return false;
}

bool make_directory_at(int dirFd, const char* name, uint32_t* result) {
    if (std::strchr(name, '/')) {
        errno = EINVAL;
    } else if (platform::sys_mkdirat(dirFd, name, 0777) == 0) {
        return true;
    }
    result_from_errno(result);
    return false;
}

FileIdentity identity_of(const struct stat& st) {
    return FileIdentity{st.st_dev, st.st_ino, true};
}

bool is_plain_path(std::string_view path) {
    if (path.empty() || path.front() != '/') return false;
    size_t start = 1;
    for (;;) {
        const size_t slash = path.find('/', start);
        const std::string_view component = path.substr(start, slash - start);
        if (component == "." || component == "..") return false;
        if (slash == std::string_view::npos) return true;
        start = slash + 1;
    }
}

bool remove_tree_at(int dirFd, const char* name, const FileIdentity* expected) {
    // "." and ".." name the folder itself or the one above it: emptying them through this
    // name would remove what lies beside the item.
    if (std::strchr(name, '/') || is_dot_entry(name) || name[0] == '\0') {
        errno = EINVAL;
        return false;
    }
    const int childFd = platform::sys_openat(dirFd, name, kDirFlags);
    if (childFd == -1) {
        // O_NOFOLLOW refuses a link; remove the link itself, never what it points to.
        const int error = errno;
        struct stat st {};
        if ((error == ELOOP || error == ENOTDIR) &&
            platform::sys_fstatat(dirFd, name, &st, AT_SYMLINK_NOFOLLOW) == 0 &&
            S_ISLNK(st.st_mode)) {
            if (expected && !(*expected == identity_of(st))) {
                errno = ESTALE;
                return false;
            }
            return platform::sys_unlinkat(dirFd, name, 0) == 0;
        }
        errno = error;
        return false;
    }
    bool emptied = false;
    try {
        TreeWalk walk;
        emptied = walk.empty(childFd, expected);
    } catch (const std::bad_alloc&) {
        errno = ENOMEM;
    }
    return emptied && platform::sys_unlinkat(dirFd, name, AT_REMOVEDIR) == 0;
}

namespace {

// Opens the folder that holds the last component of `path` and sets `leaf` to that
// component; -1 when the folder cannot be opened. Trailing slashes are dropped: they would
// make the kernel follow a final link despite O_NOFOLLOW. The folders above the last
// component are the caller's to trust, links included.
int open_parent_of(const char* path, std::string& leaf) {
    std::string own(path);
    while (own.size() > 1 && own.back() == '/') own.pop_back();
    const size_t slash = own.rfind('/');
    if (slash == std::string::npos) {
        leaf = own;
        return platform::sys_open(".", platform::kOpenPath | O_DIRECTORY | O_CLOEXEC);
    }
    leaf = own.substr(slash + 1);
    const std::string parent = slash == 0 ? "/" : own.substr(0, slash);
    return platform::sys_open(parent.c_str(), platform::kOpenPath | O_DIRECTORY | O_CLOEXEC);
}

void close_keeping_errno(int fd) {
    const int error = errno;
    platform::sys_close(fd);
    errno = error;
}

}  // namespace

bool remove_tree(const char* path) {
    std::string leaf;
    const int parentFd = open_parent_of(path, leaf);
    if (parentFd == -1) return false;
    const bool removed = remove_tree_at(parentFd, leaf.c_str());
    close_keeping_errno(parentFd);
    return removed;
}

bool remove_item(const char* path, const FileIdentity& expected) {
    std::string leaf;
    if (!expected.known) {
        errno = ESTALE;
        return false;
    }
    const int parentFd = open_parent_of(path, leaf);
    if (parentFd == -1) return false;
    struct stat st {};
    bool removed = false;
    if (leaf.empty() || is_dot_entry(leaf.c_str())) {
        errno = EINVAL;
    } else if (platform::sys_fstatat(parentFd, leaf.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0) {
    } else if (!(identity_of(st) == expected)) {
        errno = ESTALE;
    } else if (S_ISDIR(st.st_mode)) {
        removed = remove_tree_at(parentFd, leaf.c_str(), &expected);
    } else {
        // The name was checked a moment ago in a folder held open: a swap in between can
        // only lead to another name of that same folder.
        removed = platform::sys_unlinkat(parentFd, leaf.c_str(), 0) == 0;
    }
    close_keeping_errno(parentFd);
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
