// The headless desktop: screens, the pointer and the control socket through which the
// simulated host and tests drive and inspect the guest's screen.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "platform/sim/platform_root.h"

namespace platform {

// The screens NSScreen reports: platform.json's until a "screens" request replaces them.
std::vector<ScreenInfo> current_screens();
void set_screens(std::vector<ScreenInfo> screens);

// The pointer in the units of command 275: pixels, origin at the upper left of the main
// screen. Buttons: bit 0 left.
struct PointerState {
    double x = 0;
    double y = 0;
    uint32_t buttons = 0;
};
PointerState pointer_state();
// Moves the pointer, clamped to the screens.
void set_pointer(double x, double y, uint32_t buttons);

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

    // The reply (without newline) to one request line.
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
