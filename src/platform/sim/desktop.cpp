// The headless desktop: screen and pointer state and the JSON-lines control socket.
#include "platform/sim/desktop.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>
#include <mutex>
#include <optional>

#include <nlohmann/json.hpp>

#include "common/signal_block.h"

namespace platform {
namespace {

using nlohmann::json;

// A client that sends this much without a newline is answered with an error and the rest
// of its line is dropped, so one peer cannot make the desktop hold unbounded memory.
constexpr size_t kMaxLine = 1 << 20;

std::mutex g_stateMutex;
std::optional<std::vector<ScreenInfo>> g_screens;  // unset: platform.json's
PointerState g_pointer;

const std::vector<ScreenInfo>& screens_locked() {
    if (!g_screens) g_screens = config().screens;
    return *g_screens;
}

// Keeps the pointer on the screens: the bounding box of all of them, in the pixels of the
// main screen with the origin at its upper left.
void clamp_locked(double& x, double& y) {
    const auto& screens = screens_locked();
    if (screens.empty()) return;
    const ScreenInfo& main = screens.front();
    const double s = main.scale.value_or(1.0) > 0 ? main.scale.value_or(1.0) : 1.0;
    double left = 0, right = 0, top = 0, bottom = 0;
    bool first = true;
    for (const auto& sc : screens) {
        const double l = (sc.x - main.x) * s;
        const double r = (sc.x + sc.width - main.x) * s;
        const double t = (main.y + main.height - (sc.y + sc.height)) * s;
        const double b = (main.y + main.height - sc.y) * s;
        left = first ? l : std::min(left, l);
        right = first ? r : std::max(right, r);
        top = first ? t : std::min(top, t);
        bottom = first ? b : std::max(bottom, b);
        first = false;
    }
    x = std::clamp(x, left, std::max(left, right - 1));
    y = std::clamp(y, top, std::max(top, bottom - 1));
}

json error_reply(const char* text) {
    return json{{"ok", false}, {"error", text}};
}

bool read_frame(const json& j, ScreenInfo& out) {
    if (!j.is_array() || j.size() != 4) return false;
    for (const auto& v : j)
        if (!v.is_number()) return false;
    out.x = j[0].get<double>();
    out.y = j[1].get<double>();
    out.width = j[2].get<double>();
    out.height = j[3].get<double>();
    return out.width >= 0 && out.height >= 0;
}

json handle_pointer(const json& req) {
    auto x = req.find("x");
    auto y = req.find("y");
    if (x == req.end() || y == req.end() || !x->is_number() || !y->is_number())
        return error_reply("pointer needs numeric x and y");
    uint32_t buttons = 0;
    if (auto b = req.find("buttons"); b != req.end()) {
        if (!b->is_number_unsigned()) return error_reply("buttons must be a non-negative integer");
        buttons = static_cast<uint32_t>(b->get<uint64_t>());
    }
    set_pointer(x->get<double>(), y->get<double>(), buttons);
    return json{{"ok", true}};
}

json handle_screens(const json& req) {
    auto list = req.find("screens");
    if (list == req.end() || !list->is_array()) return error_reply("screens needs an array");
    std::vector<ScreenInfo> screens;
    for (const auto& s : *list) {
        ScreenInfo info;
        info.scale.reset();
        if (!s.is_object()) return error_reply("a screen must be an object");
        auto frame = s.find("frame");
        if (frame == s.end() || !read_frame(*frame, info))
            return error_reply("a screen needs a frame [x, y, w, h]");
        if (auto sc = s.find("scale"); sc != s.end()) {
            if (!sc->is_number() || sc->get<double>() <= 0)
                return error_reply("scale must be a positive number");
            info.scale = sc->get<double>();
        }
        screens.push_back(info);
    }
    set_screens(std::move(screens));
    return json{{"ok", true}};
}

json handle_state() {
    const PointerState p = pointer_state();
    return json{{"ok", true},
                {"pointer", {p.x, p.y}},
                {"buttons", p.buttons},
                {"windows", json::array()},
                {"drag", nullptr}};
}

void close_fd(int& fd) {
    if (fd >= 0) ::close(fd);
    fd = -1;
}

bool send_all(int fd, const std::string& text) {
    size_t done = 0;
    while (done < text.size()) {
        ssize_t n = ::send(fd, text.data() + done, text.size() - done, MSG_NOSIGNAL);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        done += static_cast<size_t>(n);
    }
    return true;
}

void make_parent_dirs(const std::string& path) {
    for (size_t pos = path.find('/', 1); pos != std::string::npos; pos = path.find('/', pos + 1))
        ::mkdir(path.substr(0, pos).c_str(), 0755);
}

std::mutex g_sharedMutex;
std::unique_ptr<Desktop> g_shared;

}  // namespace

std::vector<ScreenInfo> current_screens() {
    std::lock_guard lock(g_stateMutex);
    return screens_locked();
}

void set_screens(std::vector<ScreenInfo> screens) {
    std::lock_guard lock(g_stateMutex);
    g_screens = std::move(screens);
    clamp_locked(g_pointer.x, g_pointer.y);
}

PointerState pointer_state() {
    std::lock_guard lock(g_stateMutex);
    return g_pointer;
}

void set_pointer(double x, double y, uint32_t buttons) {
    std::lock_guard lock(g_stateMutex);
    clamp_locked(x, y);
    g_pointer = PointerState{x, y, buttons};
}

Desktop::Desktop(std::string socketPath) : m_path(std::move(socketPath)) {}

Desktop::~Desktop() {
    Stop();
}

bool Desktop::Start() {
    if (m_thread.joinable()) return true;
    sockaddr_un addr{};
    if (m_path.empty() || m_path.size() >= sizeof addr.sun_path) return false;
    make_parent_dirs(m_path);
    // A socket left behind by a process that did not stop cleanly would block the bind.
    ::unlink(m_path.c_str());
    m_listenFd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (m_listenFd < 0) return false;
    addr.sun_family = AF_UNIX;
    std::memcpy(addr.sun_path, m_path.c_str(), m_path.size() + 1);
    if (::bind(m_listenFd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 ||
        ::listen(m_listenFd, 16) != 0 || ::pipe2(m_wakePipe, O_CLOEXEC) != 0) {
        close_fd(m_listenFd);
        ::unlink(m_path.c_str());
        return false;
    }
    {
        // The desktop stands for the window server, another process on a Mac: its thread
        // never takes the tool's stop signals.
        const qvx::ScopedSignalBlock block({SIGINT, SIGTERM});
        m_thread = std::thread([this] { Serve(); });
    }
    return true;
}

void Desktop::Stop() {
    if (m_thread.joinable()) {
        const char byte = 0;
        while (::write(m_wakePipe[1], &byte, 1) < 0 && errno == EINTR) {
        }
        m_thread.join();
    }
    if (m_listenFd >= 0) {
        close_fd(m_listenFd);
        ::unlink(m_path.c_str());
    }
    close_fd(m_wakePipe[0]);
    close_fd(m_wakePipe[1]);
}

std::string Desktop::HandleRequest(std::string_view line) {
    json reply;
    try {
        const json req = json::parse(line, nullptr, /*allow_exceptions=*/false);
        if (req.is_discarded() || !req.is_object()) {
            reply = error_reply("malformed request");
        } else if (auto op = req.find("op"); op == req.end() || !op->is_string()) {
            reply = error_reply("request needs an op");
        } else {
            const std::string name = op->get<std::string>();
            if (name == "state") {
                reply = handle_state();
            } else if (name == "pointer") {
                reply = handle_pointer(req);
            } else if (name == "screens") {
                reply = handle_screens(req);
            } else {
                reply = error_reply("unsupported");
            }
        }
    } catch (...) {
        // The library throws on a few inputs (e.g. invalid UTF-8 on output); a peer must
        // never bring the desktop down.
        reply = error_reply("malformed request");
    }
    return reply.dump(-1, ' ', false, json::error_handler_t::replace);
}

void Desktop::Serve() {
    struct Client {
        int fd;
        std::string buffer;
        bool discarding;  // inside an over-long line, dropping bytes up to its newline
    };
    std::vector<Client> clients;
    for (;;) {
        std::vector<pollfd> fds;
        fds.push_back({m_wakePipe[0], POLLIN, 0});
        fds.push_back({m_listenFd, POLLIN, 0});
        for (const auto& c : clients) fds.push_back({c.fd, POLLIN, 0});
        if (::poll(fds.data(), fds.size(), -1) < 0) {
            if (errno == EINTR) continue;
            break;
        }
        if (fds[0].revents != 0) break;
        if (fds[1].revents & POLLIN) {
            int fd = ::accept4(m_listenFd, nullptr, nullptr, SOCK_CLOEXEC);
            if (fd >= 0) clients.push_back({fd, {}, false});
        }
        for (size_t i = 2; i < fds.size(); ++i) {
            if (fds[i].revents == 0) continue;
            Client& c = clients[i - 2];
            char chunk[4096];
            ssize_t n = ::recv(c.fd, chunk, sizeof chunk, 0);
            if (n < 0 && errno == EINTR) continue;
            bool alive = n > 0;
            if (alive) c.buffer.append(chunk, static_cast<size_t>(n));
            size_t nl;
            while (alive && (nl = c.buffer.find('\n')) != std::string::npos) {
                std::string line = c.buffer.substr(0, nl);
                c.buffer.erase(0, nl + 1);
                if (c.discarding) {
                    c.discarding = false;
                    continue;
                }
                if (!line.empty() && line.back() == '\r') line.pop_back();
                alive = send_all(c.fd, HandleRequest(line) + "\n");
            }
            if (alive && c.buffer.size() > kMaxLine) {
                if (!c.discarding)
                    alive = send_all(c.fd, error_reply("line too long").dump() + "\n");
                c.buffer.clear();
                c.discarding = true;
            }
            if (!alive) {
                ::close(c.fd);
                c.fd = -1;
            }
        }
        std::erase_if(clients, [](const Client& c) { return c.fd < 0; });
    }
    for (auto& c : clients) ::close(c.fd);
}

Desktop* shared_desktop() {
    std::lock_guard lock(g_sharedMutex);
    if (!g_shared) {
        g_shared = std::make_unique<Desktop>(path("run/quorvex/desktop"));
        // Without its socket the desktop still holds the screens and the pointer; the tool
        // itself never needs the socket.
        g_shared->Start();
    }
    return g_shared.get();
}

void stop_shared_desktop() {
    std::lock_guard lock(g_sharedMutex);
    if (g_shared) g_shared->Stop();
}

}  // namespace platform
