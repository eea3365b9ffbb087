// Where the stand-ins find the simulated Mac: QVX_PLATFORM_ROOT (default "/") and the
// static facts of <root>/etc/quorvex/platform.json.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace platform {

struct ScreenInfo {
    double x = 0, y = 0, width = 1440, height = 900;  // points, origin lower left
    std::optional<double> scale = 2.0;                // absent: no backingScaleFactor
};

struct PlatformConfig {
    std::string osVersion = "14.0.0";
    bool processInfoVersion = true;
    std::vector<ScreenInfo> screens{ScreenInfo{}};
};

// The root folder, read from the environment once per process (no trailing slash
// except for "/" itself).
const std::string& root();
// root joined with a relative path such as "run/quorvex/desktop".
std::string path(std::string_view relative);
// The folder of IOKit service sockets and the socket of one service class.
std::string iokit_service_path(std::string_view className);
// platform.json, read on first use; defaults for a missing or unreadable file.
const PlatformConfig& config();

}  // namespace platform
