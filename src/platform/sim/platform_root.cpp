// Reads the platform root and the simulated Mac's static facts.
#include "platform/sim/platform_root.h"

#include <cstdlib>
#include <fstream>

#include <nlohmann/json.hpp>

namespace platform {

const std::string& root() {
    static const std::string value = [] {
        const char* env = std::getenv("QVX_PLATFORM_ROOT");
        std::string r = (env && *env) ? env : "/";
        while (r.size() > 1 && r.back() == '/') r.pop_back();
        return r;
    }();
    return value;
}

std::string path(std::string_view relative) {
    const std::string& r = root();
    std::string out = r;
    if (out.back() != '/') out += '/';
    while (!relative.empty() && relative.front() == '/') relative.remove_prefix(1);
    out += relative;
    return out;
}

std::string iokit_service_path(std::string_view className) {
    return path("run/quorvex/iokit/" + std::string(className));
}

namespace {

PlatformConfig load_config() {
    PlatformConfig cfg;
    std::ifstream in(path("etc/quorvex/platform.json"));
    if (!in) return cfg;
    // A malformed file is treated as absent: the simulated Mac falls back to its defaults.
    nlohmann::json j = nlohmann::json::parse(in, nullptr, /*allow_exceptions=*/false);
    if (!j.is_object()) return cfg;
    if (auto it = j.find("os_version"); it != j.end() && it->is_string())
        cfg.osVersion = it->get<std::string>();
    if (auto it = j.find("process_info_version"); it != j.end() && it->is_boolean())
        cfg.processInfoVersion = it->get<bool>();
    if (auto it = j.find("screens"); it != j.end() && it->is_array()) {
        cfg.screens.clear();
        for (const auto& s : *it) {
            if (!s.is_object()) continue;
            ScreenInfo screen;
            screen.scale.reset();
            if (auto f = s.find("frame"); f != s.end() && f->is_array() && f->size() == 4) {
                bool numeric = true;
                for (const auto& v : *f) numeric = numeric && v.is_number();
                if (numeric) {
                    screen.x = (*f)[0].get<double>();
                    screen.y = (*f)[1].get<double>();
                    screen.width = (*f)[2].get<double>();
                    screen.height = (*f)[3].get<double>();
                }
            }
            if (auto sc = s.find("scale"); sc != s.end() && sc->is_number())
                screen.scale = sc->get<double>();
            cfg.screens.push_back(screen);
        }
    }
    return cfg;
}

}  // namespace

const PlatformConfig& config() {
    static const PlatformConfig cfg = load_config();
    return cfg;
}

}  // namespace platform
