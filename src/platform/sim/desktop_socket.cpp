// The desktop's control socket: requests to open, select in and close folder windows,
// move the pointer, replace the screens and report the whole state.
#include "platform/sim/desktop_socket.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <mutex>
#include <vector>

#include <nlohmann/json.hpp>

#include "common/signal_block.h"
#include "platform/sim/desktop.h"

namespace platform {
namespace {

using nlohmann::json;

// A client that sends this much without a newline is answered with an error and the rest
// of its line is dropped, so one peer cannot make the desktop hold unbounded memory.
constexpr size_t kMaxLine = 1 << 20;

json error_reply(const char* text) {
    return json{{"ok", false}, {"error", text}};
}

bool read_frame(const json& j, double& x, double& y, double& w, double& h) {
    if (!j.is_array() || j.size() != 4) return false;
    for (const auto& v : j)
        if (!v.is_number()) return false;
    x = j[0].get<double>();
    y = j[1].get<double>();
    w = j[2].get<double>();
    h = j[3].get<double>();
    return w >= 0 && h >= 0;
}

json frame_json(const NSRect& r) {
    return json::array({r.origin.x, r.origin.y, r.size.width, r.size.height});
}

bool read_window(const json& req, NSInteger& number) {
    auto it = req.find("window");
    if (it == req.end() || !it->is_number_integer()) return false;
    number = it->get<NSInteger>();
    return true;
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
    post_pointer_event(x->get<double>(), y->get<double>(), buttons);
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
        if (frame == s.end() || !read_frame(*frame, info.x, info.y, info.width, info.height))
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

json handle_open_folder(const json& req) {
    auto folder = req.find("folder");
    if (folder == req.end() || !folder->is_string() || folder->get<std::string>().empty())
        return error_reply("open_folder needs a folder");
    // Where a window opens when the request does not say.
    NSRect frame = NSMakeRect(100, 100, 480, 320);
    if (auto f = req.find("frame"); f != req.end()) {
        if (!read_frame(*f, frame.origin.x, frame.origin.y, frame.size.width, frame.size.height))
            return error_reply("frame must be [x, y, w, h]");
    }
    bool accepts = true;
    if (auto a = req.find("accepts_drops"); a != req.end()) {
        if (!a->is_boolean()) return error_reply("accepts_drops must be true or false");
        accepts = a->get<bool>();
    }
    const NSInteger number = open_folder_window(folder->get<std::string>(), frame, accepts);
    return json{{"ok", true}, {"window", number}};
}

json handle_select(const json& req) {
    NSInteger number = 0;
    if (!read_window(req, number)) return error_reply("select needs a window number");
    Selection selection;
    const auto paths = req.find("paths");
    const auto text = req.find("text");
    const auto color = req.find("color");
    const int given = (paths != req.end()) + (text != req.end()) + (color != req.end());
    if (given != 1) return error_reply("select needs one of paths, text or color");
    if (paths != req.end()) {
        if (!paths->is_array()) return error_reply("paths must be an array of strings");
        for (const auto& p : *paths) {
            if (!p.is_string()) return error_reply("paths must be an array of strings");
            selection.paths.push_back(p.get<std::string>());
        }
        selection.kind = selection.paths.empty() ? Selection::Kind::None : Selection::Kind::Paths;
    } else if (text != req.end()) {
        if (!text->is_string()) return error_reply("text must be a string");
        selection.kind = Selection::Kind::Text;
        selection.text = text->get<std::string>();
    } else {
        selection.kind = Selection::Kind::Color;
    }
    if (!select_in_window(number, std::move(selection)))
        return error_reply("no such folder window");
    return json{{"ok", true}};
}

json handle_close(const json& req) {
    NSInteger number = 0;
    if (!read_window(req, number)) return error_reply("close needs a window number");
    if (!close_folder_window(number)) return error_reply("no such folder window");
    return json{{"ok", true}};
}

json property_json(const PropertyValue& v) {
    if (auto* i = std::get_if<int64_t>(&v)) return *i;
    if (auto* d = std::get_if<double>(&v)) return *d;
    return std::get<std::string>(v);
}

json window_json(const WindowSnapshot& w) {
    const WindowAttributes& a = w.attributes;
    json j{{"number", w.number},
           {"owner", w.owner == WindowOwner::Tool ? "tool" : "desktop"},
           {"frame", frame_json(a.frame)},
           {"level", a.level},
           {"alpha", a.alpha},
           {"onscreen", w.onscreen},
           {"shadow", a.hasShadow},
           {"takes_pointer", a.takesPointer},
           {"types", a.draggedTypes}};
    json properties = json::object();
    for (const auto& [key, value] : w.properties) properties[key] = property_json(value);
    j["properties"] = properties;
    if (w.owner == WindowOwner::Tool) {
        j["style_mask"] = a.styleMask;
        j["backing"] = a.backing;
    } else {
        j["folder"] = w.folder;
        j["accepts_drops"] = w.acceptsDrops;
        switch (w.selection.kind) {
            case Selection::Kind::None:
                j["selection"] = nullptr;
                break;
            case Selection::Kind::Paths:
                j["selection"] = json{{"paths", w.selection.paths}};
                break;
            case Selection::Kind::Text:
                j["selection"] = json{{"text", w.selection.text}};
                break;
            case Selection::Kind::Color:
                j["selection"] = json{{"color", true}};
                break;
        }
    }
    return j;
}

json handle_state() {
    const PointerState p = pointer_state();
    json screens = json::array();
    for (const auto& s : current_screens()) {
        json screen{{"frame", json::array({s.x, s.y, s.width, s.height})}};
        if (s.scale) screen["scale"] = *s.scale;
        screens.push_back(screen);
    }
    json windowList = json::array();
    for (const auto& w : windows()) windowList.push_back(window_json(w));
    json drag = nullptr;
    if (auto d = current_drag()) {
        drag = json{{"source", d->source},
                    {"owner", d->ownedByTool ? "tool" : "desktop"},
                    {"types", d->types},
                    {"paths", d->paths},
                    {"over", d->over != 0 ? json(d->over) : json(nullptr)},
                    {"operation", d->operation},
                    {"image", json::array({d->image.width, d->image.height})}};
    }
    json lastDrop = nullptr;
    if (auto d = last_drop()) {
        lastDrop = json{{"window", d->window}, {"source", d->source}, {"folder", d->folder},
                        {"types", d->types},   {"paths", d->paths},   {"operation", d->operation}};
    }
    return json{{"ok", true},
                {"pointer", {p.x, p.y}},
                {"buttons", p.buttons},
                {"screens", screens},
                {"windows", windowList},
                {"drag", drag},
                {"drops", drop_count()},
                {"last_drop", lastDrop}};
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
            } else if (name == "open_folder") {
                reply = handle_open_folder(req);
            } else if (name == "select") {
                reply = handle_select(req);
            } else if (name == "close") {
                reply = handle_close(req);
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
