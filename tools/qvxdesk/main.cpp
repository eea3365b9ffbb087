// qvxdesk: plays the guest's user on the headless desktop through its control socket:
// opens folder windows, selects in them, presses, moves and releases the pointer, and
// prints the desktop's state.
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include "platform/sim/desktop_client.h"

namespace {

using nlohmann::json;
using namespace std::chrono_literals;

struct Desk {
    platform::DesktopClient client;

    // The reply of a request that must succeed; exits with the desktop's error otherwise.
    json ask(const json& request) {
        auto reply = client.Request(request);
        if (!reply) {
            std::fprintf(stderr, "qvxdesk: no reply from the desktop\n");
            std::exit(1);
        }
        if (!reply->value("ok", false)) {
            std::fprintf(stderr, "qvxdesk: %s\n", reply->value("error", "refused").c_str());
            std::exit(1);
        }
        return *reply;
    }
    json state() { return ask({{"op", "state"}}); }
    void pointer(double x, double y, unsigned buttons) {
        ask({{"op", "pointer"}, {"x", x}, {"y", y}, {"buttons", buttons}});
    }
};

// Pointer pixels of a point in window-system points, on the main screen of `state`.
std::pair<double, double> to_pixels(const json& state, double x, double y) {
    const auto& main = state["screens"].at(0);
    const double s = main.value("scale", 1.0);
    const auto& f = main["frame"];
    return {(x - f[0].get<double>()) * s, (f[1].get<double>() + f[3].get<double>() - y) * s};
}

}  // namespace

int main(int argc, char** argv) {
    CLI::App app{"Plays the guest's user on the Quorvex headless desktop"};
    app.require_subcommand(1);
    const char* env = std::getenv("QVX_PLATFORM_ROOT");
    std::string root = (env && *env) ? env : "/";
    app.add_option("--root", root, "Platform root (default: $QVX_PLATFORM_ROOT or /)");
    double patience = 5;
    app.add_option("--patience", patience, "Seconds to wait for the desktop to appear");

    auto* state = app.add_subcommand("state", "Print the desktop's state as JSON");
    std::string part;
    state->add_option("part", part, "Only this member (pointer, windows, drag, last_drop, ...)");

    auto* open = app.add_subcommand("open", "Open a file-manager window; prints its number");
    std::string folder;
    std::vector<double> frame{100, 100, 480, 320};
    bool noDrops = false;
    open->add_option("folder", folder, "The folder it shows")->required();
    open->add_option("--frame", frame, "x,y,w,h in points, origin at the lower left")
        ->delimiter(',')
        ->expected(4);
    open->add_flag("--no-drops", noDrops, "The window refuses drops");

    auto* select = app.add_subcommand("select", "What a drag from a window carries");
    int64_t window = 0;
    std::vector<std::string> paths;
    std::optional<std::string> text;
    bool color = false;
    select->add_option("window", window, "Window number")->required();
    select->add_option("paths", paths, "Files and folders (none: clear the selection)");
    select->add_option("--text", text, "Plain text instead of files");
    select->add_flag("--color", color, "A colour instead of files");

    auto* close = app.add_subcommand("close", "Close a file-manager window");
    close->add_option("window", window, "Window number")->required();

    // Pointer positions are command 275's: pixels, origin at the upper left of the main
    // screen.
    auto* press = app.add_subcommand("press", "Press the left button at X Y (pixels)");
    std::vector<double> at;
    std::optional<int64_t> onWindow;
    press->add_option("at", at, "X Y")->expected(2);
    press->add_option("--window", onWindow, "Press at the centre of this window instead");

    auto* move = app.add_subcommand("move", "Move the pointer, holding what is held");
    std::string edge;
    move->add_option("at", at, "X Y")->expected(2);
    move->add_option("--edge", edge, "Move to this edge of the screens instead")
        ->check(CLI::IsMember({"left", "right", "top", "bottom"}));

    auto* release = app.add_subcommand("release", "Release the buttons (at X Y if given)");
    release->add_option("at", at, "X Y")->expected(2);

    auto* wait = app.add_subcommand("wait", "Wait for the desktop to reach a state");
    std::string what;
    uint64_t drops = 1;
    double timeout = 10;
    wait->add_option("what", what, "drag, no-drag or drops")
        ->required()
        ->check(CLI::IsMember({"drag", "no-drag", "drops"}));
    wait->add_option("--count", drops, "With drops: how many drops the desktop has seen");
    wait->add_option("--timeout", timeout, "Seconds");

    CLI11_PARSE(app, argc, argv);

    Desk desk;
    const std::string socket = (root == "/" ? "" : root) + "/run/quorvex/desktop";
    if (!desk.client.Connect(socket,
                             std::chrono::milliseconds(static_cast<int64_t>(patience * 1000)))) {
        std::fprintf(stderr, "qvxdesk: no desktop at %s\n", socket.c_str());
        return 1;
    }

    if (state->parsed()) {
        const json s = desk.state();
        if (part.empty()) {
            std::printf("%s\n", s.dump(2).c_str());
        } else if (s.contains(part)) {
            std::printf("%s\n", s[part].dump().c_str());
        } else {
            std::fprintf(stderr, "qvxdesk: the state has no %s\n", part.c_str());
            return 1;
        }
    } else if (open->parsed()) {
        const json reply = desk.ask({{"op", "open_folder"},
                                     {"folder", folder},
                                     {"frame", frame},
                                     {"accepts_drops", !noDrops}});
        std::printf("%lld\n", static_cast<long long>(reply["window"].get<int64_t>()));
    } else if (select->parsed()) {
        json req{{"op", "select"}, {"window", window}};
        if (text)
            req["text"] = *text;
        else if (color)
            req["color"] = true;
        else
            req["paths"] = paths;
        desk.ask(req);
    } else if (close->parsed()) {
        desk.ask({{"op", "close"}, {"window", window}});
    } else if (press->parsed()) {
        double x = 0, y = 0;
        if (onWindow) {
            const json s = desk.state();
            bool found = false;
            for (const auto& w : s["windows"]) {
                if (w["number"] != *onWindow) continue;
                const auto& f = w["frame"];
                std::tie(x, y) = to_pixels(s, f[0].get<double>() + f[2].get<double>() / 2,
                                           f[1].get<double>() + f[3].get<double>() / 2);
                found = true;
            }
            if (!found) {
                std::fprintf(stderr, "qvxdesk: no window %lld\n",
                             static_cast<long long>(*onWindow));
                return 1;
            }
        } else if (at.size() == 2) {
            x = at[0];
            y = at[1];
        } else {
            std::fprintf(stderr, "qvxdesk: press needs X Y or --window\n");
            return 2;
        }
        desk.pointer(x, y, 1);
    } else if (move->parsed()) {
        const json s = desk.state();
        double x = s["pointer"][0], y = s["pointer"][1];
        if (!edge.empty()) {
            // Far beyond the screens: the desktop keeps the pointer on their edge.
            constexpr double kFar = 1e7;
            if (edge == "left") x = -kFar;
            if (edge == "right") x = kFar;
            if (edge == "top") y = -kFar;
            if (edge == "bottom") y = kFar;
        } else if (at.size() == 2) {
            x = at[0];
            y = at[1];
        } else {
            std::fprintf(stderr, "qvxdesk: move needs X Y or --edge\n");
            return 2;
        }
        desk.pointer(x, y, s["buttons"].get<unsigned>());
    } else if (release->parsed()) {
        const json s = desk.state();
        const double x = at.size() == 2 ? at[0] : s["pointer"][0].get<double>();
        const double y = at.size() == 2 ? at[1] : s["pointer"][1].get<double>();
        desk.pointer(x, y, 0);
    } else if (wait->parsed()) {
        const auto end = std::chrono::steady_clock::now() +
                         std::chrono::milliseconds(static_cast<int64_t>(timeout * 1000));
        for (;;) {
            const json s = desk.state();
            const bool done = what == "drag"      ? !s["drag"].is_null()
                              : what == "no-drag" ? s["drag"].is_null()
                                                  : s["drops"].get<uint64_t>() >= drops;
            if (done) break;
            if (std::chrono::steady_clock::now() >= end) {
                std::fprintf(stderr, "qvxdesk: timed out waiting for %s\n", what.c_str());
                return 1;
            }
            std::this_thread::sleep_for(20ms);
        }
    }
    return 0;
}
