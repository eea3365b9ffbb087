// The desktop's control socket: one JSON object a line each way, through which the
// simulated host, tests and qvxdesk drive and inspect the guest's screen.
#pragma once

#include <string>
#include <string_view>
#include <thread>

namespace platform {

// Serves one JSON object a line each way on a Unix socket; every request line gets one
// reply line, a malformed one {"ok": false, "error": ...} with the connection kept open.
class Desktop {
  public:
    explicit Desktop(std::string socketPath);
    ~Desktop();
    Desktop(const Desktop&) = delete;
    Desktop& operator=(const Desktop&) = delete;

    // Creates the socket (and its folder) and starts serving; false when it cannot.
    bool Start();
    // Stops serving, closes every connection and removes the socket. Idempotent.
    void Stop();
    const std::string& socket_path() const { return m_path; }

    // The reply (without newline) to one request line. Never calls a view: what needs
    // the main thread is posted to its run loop.
    static std::string HandleRequest(std::string_view line);

  private:
    void Serve();

    std::string m_path;
    int m_listenFd = -1;
    int m_wakePipe[2] = {-1, -1};
    std::thread m_thread;
};

// The desktop of the shared application, serving <root>/run/quorvex/desktop; created by
// NSApplication's sharedApplication and stopped by its terminate.
Desktop* shared_desktop();
void stop_shared_desktop();

}  // namespace platform
