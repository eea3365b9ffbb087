// Collects the log lines written while it lives, instead of the log file.
#pragma once

#include <mutex>
#include <string>
#include <vector>

namespace qvxtest {

class LogCapture {
public:
    LogCapture();
    ~LogCapture();
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    std::vector<std::string> lines() const;
    // Lines that contain `text`.
    size_t count(const std::string& text) const;
    bool contains(const std::string& text) const { return count(text) > 0; }
    void clear();
};

}  // namespace qvxtest
