// The host's part of both drags: pointer injection for 275, the answers to 278 and 258,
// the release at 273, and a watcher of the guest's desktop that queues 200 and 204.
#include "hostsim/drag_player.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cinttypes>
#include <condition_variable>
#include <deque>
#include <filesystem>
#include <mutex>
#include <optional>
#include <thread>

#include "channel/dnd_message.h"
#include "common/byte_order.h"
#include "platform/sim/desktop_client.h"
#include "platform/sim/platform_root.h"

namespace hostsim {

namespace dnd = qvx::dnd;
namespace le = qvx::le;
using nlohmann::json;

namespace {

constexpr auto kWatchInterval = std::chrono::milliseconds(20);
constexpr auto kConnectPatience = std::chrono::milliseconds(200);
constexpr auto kStateTimeout = std::chrono::milliseconds(2000);

// The screens' bounding box in pointer pixels (origin at the upper left of the main
// screen), as the desktop clamps the pointer to it.
struct Box {
    double left = 0, top = 0, right = 0, bottom = 0;
};

std::optional<Box> screen_box(const json& state) {
    const auto& screens = state["screens"];
    if (!screens.is_array() || screens.empty()) return std::nullopt;
    const auto& main = screens[0]["frame"];
    const double s = screens[0].value("scale", 1.0);
    Box box;
    bool first = true;
    for (const auto& sc : screens) {
        const auto& f = sc["frame"];
        const double l = (f[0].get<double>() - main[0].get<double>()) * s;
        const double r = (f[0].get<double>() + f[2].get<double>() - main[0].get<double>()) * s;
        const double t = (main[1].get<double>() + main[3].get<double>() -
                          (f[1].get<double>() + f[3].get<double>())) *
                         s;
        const double b = (main[1].get<double>() + main[3].get<double>() - f[1].get<double>()) * s;
        box.left = first ? l : std::min(box.left, l);
        box.right = first ? r : std::max(box.right, r);
        box.top = first ? t : std::min(box.top, t);
        box.bottom = first ? b : std::max(box.bottom, b);
        first = false;
    }
    return box;
}

// Whether a window of the file manager lies under host pixel (x, y).
bool window_at(const json& state, uint32_t x, uint32_t y) {
    const auto& screens = state["screens"];
    if (!screens.is_array() || screens.empty()) return false;
    const auto& main = screens[0]["frame"];
    const double s = screens[0].value("scale", 1.0);
    const double px = main[0].get<double>() + x / s;
    const double py = main[1].get<double>() + main[3].get<double>() - y / s;
    for (const auto& w : state["windows"]) {
        if (w.value("owner", "") != "desktop" || !w.value("onscreen", false)) continue;
        const auto& f = w["frame"];
        if (px >= f[0].get<double>() && px < f[0].get<double>() + f[2].get<double>() &&
            py >= f[1].get<double>() && py < f[1].get<double>() + f[3].get<double>())
            return true;
    }
    return false;
}

}  // namespace

// Shared with the handlers, which may still run after the player is gone.
struct DragPlayer::State {
    std::string socket;
    Trace* trace = nullptr;

    std::mutex mutex;  // guards everything below
    std::condition_variable changed;
    platform::DesktopClient client;  // for the handlers' requests
    uint32_t prepareValue = 0;
    Handler fileListFallback;
    std::deque<DropPlan> drops;            // waiting for a window
    std::deque<GuestDragPlan> guests;      // waiting for a drag at the edge
    std::optional<GuestDragPlan> current;  // the guest drag the host is playing
    // The drag was at the edge at the watcher's last look. The release at 273 ends it there
    // (the watcher may not look again before the next drag is at the edge), and makes a
    // look taken before it stale.
    bool atEdge = false;
    uint64_t releases = 0;
    bool stopping = false;

    // Sends one request to the desktop, connecting first if need be.
    std::optional<json> request(const json& req) {
        std::lock_guard lock(mutex);
        if (!client.connected() && !client.Connect(socket, kConnectPatience)) return std::nullopt;
        auto reply = client.Request(req);
        if (!reply) client.Close();
        return reply;
    }

    void note(const std::string& line) {
        if (trace) trace->note(line);
    }

    void pointer(uint32_t x, uint32_t y, uint32_t buttons) {
        const auto reply = request({{"op", "pointer"}, {"x", x}, {"y", y}, {"buttons", buttons}});
        if (reply && reply->value("ok", false))
            note(format("desktop pointer x=%u y=%u buttons=%u", x, y, buttons));
        else
            note("desktop unreachable: pointer not moved");
    }

    // The drag's own messages; nothing for the others.
    std::optional<uint32_t> answer_drag(Exchange& ex) {
        switch (ex.command) {
            case dnd::kCmdQueryPrepare: {
                std::lock_guard lock(mutex);
                le::put32(ex.reply.data(), dnd::kOffPrepareValue, prepareValue);
                return 0u;
            }
            case dnd::kCmd279:
                return 0u;
            case dnd::kCmdMoveMouse: {
                const uint32_t x = le::get32(ex.request.data(), dnd::kOffPointerX);
                const uint32_t y = le::get32(ex.request.data(), dnd::kOffPointerY);
                const uint32_t state = le::get32(ex.request.data(), dnd::kOffPointerButtons);
                pointer(x, y, state == 0 ? 0 : 1);
                return 0u;
            }
            case dnd::kCmd273: {
                // The host has the drag now: the guest's button goes up where the pointer is.
                const auto state = request({{"op", "state"}});
                if (state && state->value("ok", false)) {
                    const auto& p = (*state)["pointer"];
                    pointer(static_cast<uint32_t>(p[0].get<double>()),
                            static_cast<uint32_t>(p[1].get<double>()), 0);
                } else {
                    note("desktop unreachable: pointer not released");
                }
                std::lock_guard lock(mutex);
                current.reset();
                atEdge = false;
                ++releases;
                return 0u;
            }
            default:
                return std::nullopt;
        }
    }
};

Handler DragPlayer::operation_handler(std::weak_ptr<State> weak, Handler transfer, bool drop) {
    // A drop's operation sees 280 twice, from the drag handler and from the receive job,
    // in either order; the transfer is shown only the first, which always comes before
    // the receive's other messages. The drag handler's prepare notice comes before both:
    // the receive's transfer has not begun yet.
    auto seen280 = std::make_shared<std::atomic<bool>>(false);
    return [weak, transfer = std::move(transfer), seen280, drop](Exchange& ex) -> uint32_t {
        if (auto s = weak.lock())
            if (auto status = s->answer_drag(ex)) return *status;
        if (ex.command == dnd::kCmdTransferStart && seen280->exchange(true)) return 0u;
        if (drop && ex.command == dnd::kCmdDialog && !seen280->load() &&
            le::get32(ex.request.data(), dnd::kOffDialogId) == dnd::kDialogPrepare)
            return 0u;
        return transfer ? transfer(ex) : 0u;
    };
}

DragPlayer::DragPlayer(Host& host, const std::string& root)
    : m_host(host), m_state(std::make_shared<State>()) {
    m_state->socket = root.empty() ? platform::path("run/quorvex/desktop")
                                   : (std::filesystem::path(root) / "run/quorvex/desktop").string();
    m_state->trace = &host.trace();
    m_watcher = std::thread([this] { watch(); });
    std::weak_ptr<State> weak = m_state;

    for (uint32_t command : {dnd::kCmdQueryPrepare, dnd::kCmdMoveMouse, dnd::kCmd273})
        host.set_handler(command, [weak](Exchange& ex) {
            auto s = weak.lock();
            return s ? s->answer_drag(ex).value_or(0u) : 0u;
        });
    host.set_handler(dnd::kCmdFileList, [weak](Exchange& ex) {
        GuestDragPlan plan;
        if (auto s = weak.lock()) {
            Handler fallback;
            {
                std::lock_guard lock(s->mutex);
                if (s->current)
                    plan = *s->current;
                else
                    fallback = s->fileListFallback;
            }
            if (fallback) return fallback(ex);
        }
        le::put64(ex.reply.data(), dnd::kOffWorkerId, plan.newWorkerId);
        le::put32(ex.reply.data(), dnd::kOffReplyAction, plan.action);
        return 0u;
    });
}

DragPlayer::~DragPlayer() {
    {
        std::lock_guard lock(m_state->mutex);
        m_state->stopping = true;
    }
    m_state->changed.notify_all();
    m_watcher.join();
}

void DragPlayer::set_prepare_value(uint32_t value) {
    std::lock_guard lock(m_state->mutex);
    m_state->prepareValue = value;
}

void DragPlayer::set_file_list_fallback(Handler handler) {
    std::lock_guard lock(m_state->mutex);
    m_state->fileListFallback = std::move(handler);
}

void DragPlayer::drop(const DropPlan& plan) {
    m_host.set_worker_handler(plan.workerId, operation_handler(m_state, plan.transfer, true));
    if (!plan.whenWindowThere) {
        m_host.queue_command(HostCommand::drop(plan.x, plan.y, plan.workerId));
        return;
    }
    {
        std::lock_guard lock(m_state->mutex);
        m_state->drops.push_back(plan);
    }
    m_state->changed.notify_all();
}

void DragPlayer::guest_drag(const GuestDragPlan& plan) {
    m_host.set_worker_handler(plan.newWorkerId, operation_handler(m_state, plan.transfer, false));
    {
        std::lock_guard lock(m_state->mutex);
        m_state->guests.push_back(plan);
    }
    m_state->changed.notify_all();
}

size_t DragPlayer::pending() const {
    std::lock_guard lock(m_state->mutex);
    return m_state->drops.size() + m_state->guests.size();
}

// Looks at the desktop while something waits for it: a window under a planned drop, or a
// held drag at the edge of the screens for an armed guest drag.
void DragPlayer::watch() {
    State& s = *m_state;
    platform::DesktopClient watcher;
    uint64_t releases = 0;  // as the look began
    for (;;) {
        {
            std::unique_lock lock(s.mutex);
            // Unwatched until a plan comes: a drag already held at the edge then is one
            // that has just arrived.
            if (s.drops.empty() && s.guests.empty()) s.atEdge = false;
            s.changed.wait(lock,
                           [&] { return s.stopping || !s.drops.empty() || !s.guests.empty(); });
            if (s.stopping) return;
            releases = s.releases;
        }
        if (!watcher.connected()) watcher.Connect(s.socket, kConnectPatience);
        const auto state = watcher.connected() ? watcher.Request({{"op", "state"}}, kStateTimeout)
                                               : std::optional<json>();
        std::unique_lock lock(s.mutex);
        if (s.stopping) return;
        if (state && state->value("ok", false) && s.releases == releases) {
            while (!s.drops.empty() && window_at(*state, s.drops.front().x, s.drops.front().y)) {
                const DropPlan plan = s.drops.front();
                s.drops.pop_front();
                s.note(format("desktop has a window at x=%u y=%u: drop queued", plan.x, plan.y));
                m_host.queue_command(HostCommand::drop(plan.x, plan.y, plan.workerId));
            }
            const auto box = screen_box(*state);
            const auto& p = (*state)["pointer"];
            const bool held = state->value("buttons", 0u) & 1u;
            const bool dragging = !(*state)["drag"].is_null();
            bool edge = false;
            if (box && held && dragging) {
                const double x = p[0].get<double>(), y = p[1].get<double>();
                edge =
                    x <= box->left || x >= box->right - 1 || y <= box->top || y >= box->bottom - 1;
            }
            // One 204 per arrival at the edge, and none while the host plays a drag.
            if (edge && !s.atEdge && !s.guests.empty() && !s.current) {
                s.current = s.guests.front();
                s.guests.pop_front();
                s.note(format("desktop drag reached the host at x=%.0f y=%.0f: 204 queued",
                              p[0].get<double>(), p[1].get<double>()));
                m_host.queue_command(dnd::kHostCmdGuestToHost, s.current->workerId);
            }
            s.atEdge = edge;
        } else if (!state || !state->value("ok", false)) {
            watcher.Close();
        }
        s.changed.wait_for(lock, kWatchInterval, [&] { return s.stopping; });
    }
}

}  // namespace hostsim
