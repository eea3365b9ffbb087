// The capturing log writer.
#include "support/log_capture.h"

#include "log/log.h"

namespace qvxtest {
namespace {

std::mutex g_mutex;
std::vector<std::string> g_lines;

int capture_writer(const char* text, int32_t length) {
    std::lock_guard lock(g_mutex);
    g_lines.emplace_back(text, static_cast<size_t>(length));
    return length;
}

qvx::LogWriter g_previous = nullptr;

}  // namespace

LogCapture::LogCapture() {
    clear();
    g_previous = qvx::log_set_writer(capture_writer);
}
LogCapture::~LogCapture() { qvx::log_set_writer(g_previous); }

std::vector<std::string> LogCapture::lines() const {
    std::lock_guard lock(g_mutex);
    return g_lines;
}
size_t LogCapture::count(const std::string& text) const {
    std::lock_guard lock(g_mutex);
    size_t n = 0;
    for (const auto& l : g_lines) n += l.find(text) != std::string::npos;
    return n;
}
void LogCapture::clear() {
    std::lock_guard lock(g_mutex);
    g_lines.clear();
}

}  // namespace qvxtest
