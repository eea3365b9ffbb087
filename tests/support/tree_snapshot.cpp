// Snapshots of folder trees by lstat, compared item by item, and the thread count.
#include "support/tree_snapshot.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <vector>

namespace qvxtest {
namespace {

void walk(int dirFd, const std::string& relative, const std::set<std::string>& opaque,
          TreeSnapshot& out) {
    const int listFd = ::openat(dirFd, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    DIR* dir = listFd < 0 ? nullptr : ::fdopendir(listFd);
    if (!dir) {
        if (listFd >= 0) ::close(listFd);
        out[relative + "/<unreadable>"] = {};
        return;
    }
    std::vector<std::string> names;
    while (const dirent* e = ::readdir(dir)) {
        const std::string name = e->d_name;
        if (name != "." && name != "..") names.push_back(name);
    }
    ::closedir(dir);
    for (const std::string& name : names) {
        const std::string path = relative.empty() ? name : relative + "/" + name;
        struct stat st {};
        if (::fstatat(dirFd, name.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0) continue;
        NodeState& node = out[path];
        if (opaque.count(path)) {
            node.mode = st.st_mode & S_IFMT;
            continue;
        }
        node = {st.st_mode, st.st_size, st.st_nlink, st.st_mtim, st.st_ctim, {}};
        if (S_ISLNK(st.st_mode)) {
            char target[4096];
            const ssize_t n = ::readlinkat(dirFd, name.c_str(), target, sizeof target);
            if (n > 0) node.target.assign(target, static_cast<size_t>(n));
        } else if (S_ISDIR(st.st_mode)) {
            const int child =
                ::openat(dirFd, name.c_str(), O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
            if (child >= 0) {
                walk(child, path, opaque, out);
                ::close(child);
            }
        }
    }
}

bool same(const timespec& a, const timespec& b) {
    return a.tv_sec == b.tv_sec && a.tv_nsec == b.tv_nsec;
}

std::string describe(const NodeState& n) {
    char line[160];
    std::snprintf(line, sizeof line,
                  "mode %o size %lld links %lu mtime %lld.%09ld ctime %lld.%09ld",
                  static_cast<unsigned>(n.mode), static_cast<long long>(n.size),
                  static_cast<unsigned long>(n.links), static_cast<long long>(n.mtime.tv_sec),
                  n.mtime.tv_nsec, static_cast<long long>(n.ctime.tv_sec), n.ctime.tv_nsec);
    return n.target.empty() ? line : std::string(line) + " -> " + n.target;
}

}  // namespace

TreeSnapshot snapshot_tree(const std::string& root, const std::set<std::string>& opaque) {
    TreeSnapshot out;
    struct stat st {};
    const int fd = ::open(root.c_str(), O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    if (fd < 0 || ::fstat(fd, &st) != 0) {
        if (fd >= 0) ::close(fd);
        out["<missing>"] = {};
        return out;
    }
    out[""] = {st.st_mode, st.st_size, st.st_nlink, st.st_mtim, st.st_ctim, {}};
    walk(fd, "", opaque, out);
    ::close(fd);
    return out;
}

std::string tree_changes(const TreeSnapshot& before, const TreeSnapshot& after) {
    std::string changes;
    for (const auto& [path, was] : before) {
        auto it = after.find(path);
        if (it == after.end()) {
            changes += "removed /" + path + "\n";
            continue;
        }
        const NodeState& now = it->second;
        if (was.mode != now.mode || was.size != now.size || was.links != now.links ||
            !same(was.mtime, now.mtime) || !same(was.ctime, now.ctime) || was.target != now.target)
            changes += "changed /" + path + ": " + describe(was) + " => " + describe(now) + "\n";
    }
    for (const auto& [path, now] : after)
        if (!before.count(path)) changes += "created /" + path + ": " + describe(now) + "\n";
    return changes;
}

int thread_count() {
    int count = 0;
    if (DIR* d = ::opendir("/proc/self/task")) {
        while (const dirent* e = ::readdir(d))
            if (e->d_name[0] != '.') ++count;
        ::closedir(d);
    }
    return count;
}

}  // namespace qvxtest
