// The control socket's client: connect with patience, one JSON line each way.
#include "platform/sim/desktop_client.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <thread>

namespace platform {

DesktopClient::~DesktopClient() {
    Close();
}

void DesktopClient::Close() {
    if (m_fd >= 0) ::close(m_fd);
    m_fd = -1;
    m_buffer.clear();
}

bool DesktopClient::Connect(const std::string& path, std::chrono::milliseconds patience) {
    Close();
    sockaddr_un addr{};
    if (path.empty() || path.size() >= sizeof addr.sun_path) return false;
    addr.sun_family = AF_UNIX;
    std::memcpy(addr.sun_path, path.c_str(), path.size() + 1);
    const auto end = std::chrono::steady_clock::now() + patience;
    for (;;) {
        const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        if (fd < 0) return false;
        if (::connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0) {
            m_fd = fd;
            return true;
        }
        ::close(fd);
        if (std::chrono::steady_clock::now() >= end) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
}

std::optional<nlohmann::json> DesktopClient::Request(const nlohmann::json& request,
                                                     std::chrono::milliseconds timeout) {
    if (m_fd < 0) return std::nullopt;
    const std::string line = request.dump() + "\n";
    size_t done = 0;
    while (done < line.size()) {
        const ssize_t n = ::send(m_fd, line.data() + done, line.size() - done, MSG_NOSIGNAL);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) {
            Close();
            return std::nullopt;
        }
        done += static_cast<size_t>(n);
    }
    const auto end = std::chrono::steady_clock::now() + timeout;
    size_t nl;
    while ((nl = m_buffer.find('\n')) == std::string::npos) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            end - std::chrono::steady_clock::now());
        pollfd p{m_fd, POLLIN, 0};
        const int ready = left.count() > 0 ? ::poll(&p, 1, static_cast<int>(left.count())) : 0;
        if (ready < 0 && errno == EINTR) continue;
        char chunk[4096];
        const ssize_t n = ready > 0 ? ::recv(m_fd, chunk, sizeof chunk, 0) : 0;
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) {
            Close();
            return std::nullopt;
        }
        m_buffer.append(chunk, static_cast<size_t>(n));
    }
    const std::string reply = m_buffer.substr(0, nl);
    m_buffer.erase(0, nl + 1);
    auto parsed = nlohmann::json::parse(reply, nullptr, /*allow_exceptions=*/false);
    if (parsed.is_discarded()) return std::nullopt;
    return parsed;
}

}  // namespace platform
