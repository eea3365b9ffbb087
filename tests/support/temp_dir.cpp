// Temporary folders and small file helpers for tests.
#include "support/temp_dir.h"

#include <dirent.h>
#include <linux/magic.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>

namespace qvxtest {

const char* memory_temp_parent() {
    struct statfs fs {};
    const bool memory = ::statfs("/dev/shm", &fs) == 0 && fs.f_type == TMPFS_MAGIC &&
                        ::access("/dev/shm", W_OK) == 0;
    return memory ? "/dev/shm" : "/tmp";
}

TempDir::TempDir(const std::string& parent) {
    std::string templ = parent + "/qvxtest.XXXXXX";
    const char* made = mkdtemp(templ.data());
    if (!made) {
        // Going on would write into, and at the end remove, whatever `parent` holds.
        std::perror("TempDir: mkdtemp");
        std::abort();
    }
    m_path = made;
}

TempDir::~TempDir() {
    std::error_code ec;
    // Tests may leave read-only folders behind; make them writable before removing.
    for (auto it = std::filesystem::recursive_directory_iterator(
             m_path, std::filesystem::directory_options::skip_permission_denied, ec);
         !ec && it != std::filesystem::recursive_directory_iterator(); it.increment(ec)) {
        if (it->is_directory(ec) && !it->is_symlink(ec))
            std::filesystem::permissions(it->path(), std::filesystem::perms::owner_all,
                                         std::filesystem::perm_options::add, ec);
    }
    std::filesystem::remove_all(m_path, ec);
}

void make_dirs(const std::string& path) {
    std::error_code ec;
    std::filesystem::create_directories(path, ec);
}

void write_file(const std::string& path, const std::string& contents) {
    make_dirs(std::filesystem::path(path).parent_path().string());
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << contents;
}

std::string read_file(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream s;
    s << in.rdbuf();
    return s.str();
}

bool exists(const std::string& path) {
    struct stat st {};
    return ::lstat(path.c_str(), &st) == 0;
}

int open_fd_count() {
    int count = 0;
    if (DIR* d = opendir("/proc/self/fd")) {
        while (dirent* e = readdir(d)) {
            if (e->d_name[0] != '.') ++count;
        }
        closedir(d);
        --count;  // the descriptor of the listing itself
    }
    return count;
}

}  // namespace qvxtest
