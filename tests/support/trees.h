// Whole file trees for transfer tests: one with every kind of item, and the ways a copy
// differs from its source.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace qvxtest {

// Fills `folder` (created when missing) with every kind of item a transfer meets: a file of
// `bigBytes`, small files, an empty file, an empty folder, folders three deep, a link to a
// file and one to a folder, names with accents (composed) and one from outside the Basic
// Multilingual Plane, modes other than the default, and a modification time in the past,
// whole seconds from `firstTime` on, different for every item.
void make_every_kind_tree(const std::string& folder, size_t bigBytes,
                          int64_t firstTime = 1500000000);

// Every way `copy` differs from `source`, one line each: an item missing or extra, its kind,
// mode (not for links), modification time (whole seconds), link target or contents. Empty
// when the copy is faithful. With `decomposedNames`, the copy's names and link targets are
// to be the source's in Unicode normalization form D, as the guest stores them.
std::vector<std::string> tree_differences(const std::string& source, const std::string& copy,
                                          bool decomposedNames = false);

// Items below `folder`, all depths.
size_t tree_size(const std::string& folder);

// What a folder holds: relative path to "d" (folder), "l:" and a target, or "f:" and the
// bytes. Entries whose name `skip` accepts are left out with everything below them, and
// counted in `skipped`.
using TreeContents = std::map<std::string, std::string>;
TreeContents tree_contents(const std::string& root, bool (*skip)(const std::string&) = nullptr,
                           int* skipped = nullptr);

}  // namespace qvxtest
