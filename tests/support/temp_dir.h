// A private temporary folder for one test, removed with everything in it at the end.
#pragma once

#include <string>

namespace qvxtest {

// A folder in memory (/dev/shm) where the system has one, else /tmp. Tests that create
// and remove thousands of files use it: on a disk file system, allocating inodes just
// freed costs them most of their time.
const char* memory_temp_parent();

class TempDir {
  public:
    explicit TempDir(const std::string& parent = "/tmp");
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    const std::string& path() const { return m_path; }
    std::string operator/(const std::string& relative) const { return m_path + "/" + relative; }

  private:
    std::string m_path;
};

// Writes a whole file, creating missing parent folders.
void write_file(const std::string& path, const std::string& contents);
std::string read_file(const std::string& path);
void make_dirs(const std::string& path);
// Whether the item itself is there (a link whatever its target).
bool exists(const std::string& path);
// Number of open descriptors of this process.
int open_fd_count();

}  // namespace qvxtest
