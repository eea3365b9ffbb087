// Whole file trees for transfer tests: making one with every kind of item, comparing copies.
#include "support/trees.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unicode/normalizer2.h>
#include <unicode/unistr.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <map>

#include "support/temp_dir.h"

namespace qvxtest {
namespace {

namespace fs = std::filesystem;

struct Item {
    char kind = '?';  // f, d, l, or ? for anything else
    mode_t mode = 0;
    int64_t mtime = 0;
    std::string target;   // a link's
    std::string content;  // a file's
};

std::string nfd(const std::string& utf8) {
    UErrorCode error = U_ZERO_ERROR;
    const icu::Normalizer2* form = icu::Normalizer2::getNFDInstance(error);
    if (U_FAILURE(error)) return utf8;
    const icu::UnicodeString out = form->normalize(icu::UnicodeString::fromUTF8(utf8), error);
    std::string text;
    return U_FAILURE(error) ? utf8 : out.toUTF8String(text);
}

// Items below `root` by their names relative to it.
std::map<std::string, Item> list(std::string root, bool decomposed) {
    while (root.size() > 1 && root.back() == '/') root.pop_back();
    std::map<std::string, Item> items;
    std::error_code ec;
    for (fs::recursive_directory_iterator it(root, ec), end; !ec && it != end; it.increment(ec)) {
        const std::string path = it->path().string();
        struct stat st {};
        if (::lstat(path.c_str(), &st) != 0) continue;
        Item item;
        item.mode = st.st_mode & 07777;
        item.mtime = st.st_mtim.tv_sec;
        if (S_ISREG(st.st_mode)) {
            item.kind = 'f';
            item.content = read_file(path);
        } else if (S_ISDIR(st.st_mode)) {
            item.kind = 'd';
        } else if (S_ISLNK(st.st_mode)) {
            item.kind = 'l';
            item.target = fs::read_symlink(it->path(), ec).string();
        }
        // Not fs::relative: it resolves links, and would name a link after its target.
        std::string name = path.substr(root.size() + 1);
        if (decomposed) {
            name = nfd(name);
            item.target = nfd(item.target);
        }
        items[name] = std::move(item);
    }
    return items;
}

std::string octal(mode_t mode) {
    char text[16];
    std::snprintf(text, sizeof text, "%04o", static_cast<unsigned>(mode));
    return text;
}

void set_mtime(const std::string& path, int64_t seconds) {
    const timespec times[2] = {{static_cast<time_t>(seconds), 0},
                               {static_cast<time_t>(seconds), 0}};
    ::utimensat(AT_FDCWD, path.c_str(), times, AT_SYMLINK_NOFOLLOW);
}

}  // namespace

void make_every_kind_tree(const std::string& folder, size_t bigBytes, int64_t firstTime) {
    std::string big(bigBytes, '\0');
    for (size_t i = 0; i < big.size(); ++i)
        big[i] = static_cast<char>((i * 7919 + i / 4093) & 0xFF);
    write_file(folder + "/big.bin", big);
    write_file(folder + "/small.txt", "minutes of the meeting\n");
    write_file(folder + "/run.sh", "#!/bin/sh\necho hello\n");
    write_file(folder + "/empty.txt", "");
    make_dirs(folder + "/empty folder");
    write_file(folder + "/nested/note.txt", "a note\n");
    write_file(folder + "/nested/deeper/deepest/leaf.txt", "the leaf\n");
    write_file(folder + "/caf\u00e9 cr\u00e8me.txt", "accents\n");
    write_file(folder + "/\u00dcn\u00efc\u00f6d\u00e9/\U0001D11E clef.txt", "outside the BMP\n");
    ::symlink("nested/deeper/deepest/leaf.txt", (folder + "/link to leaf").c_str());
    ::symlink("nested", (folder + "/link to folder").c_str());
    ::chmod((folder + "/run.sh").c_str(), 0755);
    ::chmod((folder + "/nested/note.txt").c_str(), 0600);
    ::chmod((folder + "/nested/deeper").c_str(), 0750);

    // Deepest first: creating or stamping an item changes its folder's time.
    std::vector<std::string> paths;
    for (const auto& e : fs::recursive_directory_iterator(folder)) paths.push_back(e.path());
    std::sort(paths.begin(), paths.end(), [](const std::string& a, const std::string& b) {
        return std::count(a.begin(), a.end(), '/') > std::count(b.begin(), b.end(), '/') ||
               (std::count(a.begin(), a.end(), '/') == std::count(b.begin(), b.end(), '/') &&
                a < b);
    });
    int64_t t = firstTime;
    for (const std::string& p : paths) {
        set_mtime(p, t);
        t += 86400 + 37;
    }
}

std::vector<std::string> tree_differences(const std::string& source, const std::string& copy,
                                          bool decomposedNames) {
    const auto want = list(source, decomposedNames);
    const auto have = list(copy, false);
    std::vector<std::string> out;
    for (const auto& [name, w] : want) {
        const auto it = have.find(name);
        if (it == have.end()) {
            out.push_back(name + ": missing");
            continue;
        }
        const Item& h = it->second;
        if (h.kind != w.kind) {
            out.push_back(name + ": kind " + h.kind + ", not " + w.kind);
            continue;
        }
        if (w.kind != 'l' && h.mode != w.mode)
            out.push_back(name + ": mode " + octal(h.mode) + ", not " + octal(w.mode));
        if (h.mtime != w.mtime)
            out.push_back(name + ": modified at " + std::to_string(h.mtime) + ", not " +
                          std::to_string(w.mtime));
        if (h.target != w.target)
            out.push_back(name + ": links to " + h.target + ", not " + w.target);
        if (h.content != w.content)
            out.push_back(name + ": " + std::to_string(h.content.size()) +
                          " bytes differ from the source's " + std::to_string(w.content.size()));
    }
    for (const auto& [name, h] : have)
        if (!want.count(name)) out.push_back(name + ": extra");
    return out;
}

size_t tree_size(const std::string& folder) {
    return list(folder, false).size();
}

TreeContents tree_contents(const std::string& root, bool (*skip)(const std::string&),
                           int* skipped) {
    TreeContents out;
    for (auto it = fs::recursive_directory_iterator(root); it != fs::recursive_directory_iterator();
         ++it) {
        if (skip && skip(it->path().filename().string())) {
            if (skipped) ++*skipped;
            if (it->is_directory() && !it->is_symlink()) it.disable_recursion_pending();
            continue;
        }
        const std::string rel = it->path().lexically_relative(root).string();
        if (it->is_symlink())
            out[rel] = "l:" + fs::read_symlink(it->path()).string();
        else if (it->is_directory())
            out[rel] = "d";
        else
            out[rel] = "f:" + read_file(it->path());
    }
    return out;
}

}  // namespace qvxtest
