// The host's part of both drags: a drop of host items at a guest point, and a guest drag
// that reaches the host. The guest's pointer is driven, and its desktop watched, through
// the desktop's control socket.
//
//   hostsim::Host host(options);
//   hostsim::DragPlayer player(host, root);
//   hostsim::DropPlan drop;                  // host command 200 at once, at host pixels
//   drop.x = 200, drop.y = 400, drop.workerId = 7;
//   drop.transfer = [source](hostsim::Exchange& ex) { return source->answer(ex); };
//   player.drop(drop);
//   hostsim::GuestDragPlan out;              // 204 once a held drag reaches the edge
//   out.workerId = 8, out.newWorkerId = 9;
//   out.transfer = sink.endpoint(9);         // a TreeSink stores what the send job sends
//   player.guest_drag(out);
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <thread>

#include "hostsim/host.h"

namespace hostsim {

struct DropPlan {
    uint32_t x = 0;  // host pixels, as host command 200 carries them
    uint32_t y = 0;
    uint64_t workerId = 1;
    // Queue the 200 only once an on-screen window of the file manager lies under the point,
    // so that a script can open the window after starting the host.
    bool whenWindowThere = false;
    // Answers the operation's other messages, those of the receive job the drop starts
    // (e.g. a TreeSource's answer); none: status 0.
    Handler transfer;
};

struct GuestDragPlan {
    uint64_t workerId = 1;     // of the host command 204
    uint64_t newWorkerId = 2;  // the reply to 258 assigns it to the transfer
    uint32_t action = 0;       // 0 copy the files to the host, 4 delete them in the guest
    // Answers the new worker's other messages, those of the send job; none: status 0.
    Handler transfer;
};

// What it answers (replacing earlier command handlers for these commands):
//   278  with the prepare value (0 lets the drop go on)
//   275  turned into a "pointer" request: button state 0 releases, 1 and 2 hold
//   258  with the played guest drag's new worker id and action; outside a played drag
//        (a 204 queued by hand), the file-list fallback's answer
//   273  releases the guest's pointer where it is, which ends the guest's drag
// A planned drop's worker, and an armed guest drag's new worker, get a worker handler
// that answers these and passes the rest of the operation to the plan's `transfer`; of a
// drop's messages the drag handler's prepare notice stays with the drag (the transfer
// begins at the receive's 280) and of its two 280s only the first is passed on. Set no
// other worker handler for them. What it does with the desktop shows in the host's trace
// as "desktop ..." notes.
class DragPlayer {
  public:
    // `root` is the platform root whose desktop socket to use; empty: the process's root.
    DragPlayer(Host& host, const std::string& root = {});
    ~DragPlayer();
    DragPlayer(const DragPlayer&) = delete;
    DragPlayer& operator=(const DragPlayer&) = delete;

    void set_prepare_value(uint32_t value);
    // Answers a 258 that comes while the player plays no guest drag (e.g.
    // TreeSink::answer_file_list); none: workerId 2, action 0.
    void set_file_list_fallback(Handler handler);
    // Plays a drop: queues host command 200 (now, or once a window is there).
    void drop(const DropPlan& plan);
    // Arms a guest drag: once the guest's pointer is held at the edge of its screens
    // during a drag, queues host command 204. Plans are used one per drag, in order.
    void guest_drag(const GuestDragPlan& plan);
    // Plans not yet played.
    size_t pending() const;

  private:
    struct State;
    // The worker handler of one drag's operation: the drag's messages here, the rest to
    // the transfer.
    static Handler operation_handler(std::weak_ptr<State> weak, Handler transfer, bool drop);
    void watch();

    Host& m_host;
    std::shared_ptr<State> m_state;
    std::thread m_watcher;
};

}  // namespace hostsim
