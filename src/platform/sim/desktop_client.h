// A client of the desktop's control socket, for the simulated host, tests and qvxdesk.
#pragma once

#include <chrono>
#include <optional>
#include <string>

#include <nlohmann/json.hpp>

namespace platform {

// One request line out, one reply line back. Not for concurrent use: callers that share
// a client serialise their requests.
class DesktopClient {
  public:
    DesktopClient() = default;
    ~DesktopClient();
    DesktopClient(const DesktopClient&) = delete;
    DesktopClient& operator=(const DesktopClient&) = delete;

    // Connects to the socket at `path`, trying again until `patience` has passed (the
    // socket appears once the tool's application runs).
    bool Connect(const std::string& path,
                 std::chrono::milliseconds patience = std::chrono::milliseconds(0));
    bool connected() const { return m_fd >= 0; }
    void Close();

    // The reply object, or nothing when the connection failed or no reply came within
    // `timeout` (the connection is closed then).
    std::optional<nlohmann::json> Request(
        const nlohmann::json& request,
        std::chrono::milliseconds timeout = std::chrono::milliseconds(10000));

  private:
    int m_fd = -1;
    std::string m_buffer;
};

}  // namespace platform
