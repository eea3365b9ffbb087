// An lstat picture of a folder tree, to show that nothing in it was created, changed or
// removed, and the process's descriptor and thread counts, to show that nothing leaked.
#pragma once

#include <sys/types.h>

#include <ctime>
#include <map>
#include <set>
#include <string>

namespace qvxtest {

struct NodeState {
    mode_t mode = 0;  // type and permissions
    off_t size = 0;
    nlink_t links = 0;
    timespec mtime{};
    timespec ctime{};    // moves with any change of the node: mode, owner, links, content
    std::string target;  // a link's target
};

// Relative path ("" for the root itself) to what lstat said of it.
using TreeSnapshot = std::map<std::string, NodeState>;

// Every item under `root` and the root itself, never following a link. Below a relative
// path of `opaque` nothing is recorded, and of the path itself only its type.
TreeSnapshot snapshot_tree(const std::string& root, const std::set<std::string>& opaque = {});

// The items created, removed or changed between two snapshots, one line each; empty when
// they are the same.
std::string tree_changes(const TreeSnapshot& before, const TreeSnapshot& after);

// Threads of this process.
int thread_count();

}  // namespace qvxtest
