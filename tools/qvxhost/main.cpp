// qvxhost: runs the simulated host on a platform root until SIGINT or SIGTERM, playing the
// host's part of drops into the guest and of guest drags that reach the host.
#include <signal.h>

#include <chrono>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>

#include "hostsim/drag_player.h"
#include "hostsim/host.h"
#include "hostsim/hostile.h"
#include "hostsim/progress.h"
#include "hostsim/tree_sink.h"
#include "hostsim/tree_source.h"

namespace {

bool parse_u64(const std::string& text, uint64_t& out) {
    if (text.empty()) return false;
    char* end = nullptr;
    errno = 0;
    out = std::strtoull(text.c_str(), &end, 0);
    return errno == 0 && end && *end == '\0';
}

std::vector<std::string> split(const std::string& text) {
    std::vector<std::string> parts;
    size_t start = 0;
    for (;;) {
        const size_t colon = text.find(':', start);
        parts.push_back(text.substr(start, colon - start));
        if (colon == std::string::npos) return parts;
        start = colon + 1;
    }
}

// copy, move or a number: the transfer action the reply to 258 carries. A move is the
// host keeping the files and the guest deleting its own.
bool parse_action(const std::string& text, uint32_t& out) {
    uint64_t n = 0;
    if (text == "copy") {
        out = 0;
    } else if (text == "move") {
        out = 4;
    } else if (parse_u64(text, n) && n <= UINT32_MAX) {
        out = static_cast<uint32_t>(n);
    } else {
        return false;
    }
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    CLI::App app{"Simulated host for the Quorvex drag-and-drop tool"};
    const char* env = std::getenv("QVX_PLATFORM_ROOT");
    std::string root = (env && *env) ? env : "/";
    bool trace = false;
    bool suspend = false;
    std::vector<std::string> commands;
    std::vector<std::string> fails;
    int64_t pollHoldMs = 0;
    uint64_t closeAt = 0;
    unsigned busyProbes = 0;
    uint64_t probeStatus = 0;
    std::vector<std::string> trees;
    std::string onExists = "replace";
    std::string onFailure = "stop";
    std::string receiveInto;
    std::string onConflict = "stop";
    uint32_t fileListAction = 0;
    std::string progressStyle = "auto";
    std::vector<std::string> drops;
    std::vector<std::string> guestDrags;
    uint32_t prepareValue = 0;
    std::vector<std::string> hostile;
    hostsim::HostileSetting hostileSetting;
    bool listHostile = false;
    std::vector<std::string> transferFaults;
    app.add_option("--root", root, "Platform root (default: $QVX_PLATFORM_ROOT or /)");
    app.add_flag("--trace", trace, "Print each exchange as it happens");
    app.add_option("--command", commands, "Queue a host command CODE[:WORKER] (repeatable)");
    CLI::Option* pollHold =
        app.add_option("--poll-hold-ms", pollHoldMs,
                       "Answer an idle poll with host command 0 after this long (default: hold "
                       "it until a command is queued)")
            ->check(CLI::NonNegativeNumber);
    app.add_option("--fail", fails,
                   "Answer status STATUS to the N-th message of command CMD: CMD:N:STATUS, "
                   "or CMD:N:STATUS:completion for the toolgate status (repeatable)");
    app.add_flag("--suspend", suspend, "Report the toolgate suspended");
    app.add_option("--close-at", closeAt, "Close the connection at request N");
    app.add_option("--busy-probes", busyProbes, "Answer the first N tool service probes busy");
    app.add_option("--probe-status", probeStatus, "Status of every tool service probe");
    app.add_option("--serve-tree", trees,
                   "Serve the contents of FOLDER to the guest's receive with workerId WORKER: "
                   "WORKER:FOLDER (repeatable)");
    app.add_option("--on-exists", onExists, "Answer to an item the guest has already")
        ->check(CLI::IsMember({"replace", "skip", "stop"}));
    app.add_option("--on-failure", onFailure, "Answer to an item the guest could not create")
        ->check(CLI::IsMember({"skip", "stop"}));
    app.add_option("--receive-into", receiveInto,
                   "Store files dragged out of the guest in this folder (created if missing): "
                   "those a --guest-drag copies, and those of any other file list, which gets "
                   "a workerId of its own");
    app.add_option("--on-conflict", onConflict,
                   "When a dragged item exists in the folder: replace, skip or stop")
        ->check(CLI::IsMember({"replace", "skip", "stop"}));
    app.add_option("--file-list-action", fileListAction,
                   "Action answered to a file list: 0 send the files, 4 delete them in the guest");
    app.add_option("--progress", progressStyle,
                   "Transfer progress on stdout: auto (a bar on a terminal unless --trace, "
                   "else a line per item), bar, lines or off (summary lines only)")
        ->check(CLI::IsMember({"auto", "bar", "lines", "off"}));
    app.add_option("--drop", drops,
                   "Drop host items at host pixel X, Y once a file-manager window of the guest "
                   "lies there: X:Y[:WORKER] (repeatable)");
    app.add_option("--prepare-value", prepareValue, "The answer to 278 (0 lets drops go on)");
    app.add_option("--guest-drag", guestDrags,
                   "Take the next guest drag held at the edge of the guest's screens: "
                   "WORKER:NEWWORKER[:copy|move|ACTION] (repeatable, one per drag); a copy "
                   "sends its files under NEWWORKER, into --receive-into; a move has the "
                   "guest delete them");
    app.add_option("--hostile", hostile,
                   "Serve the named attack to the guest's receive with workerId WORKER, in "
                   "place of a tree: NAME:WORKER (repeatable; --list-hostile names them)");
    app.add_flag("--list-hostile", listHostile, "Print the attacks --hostile knows and exit");
    app.add_option("--hostile-outside", hostileSetting.outside,
                   "The folder outside the guest's destination the attacks' links name");
    app.add_option("--hostile-outside-file", hostileSetting.outsideFile,
                   "The file outside the guest's destination the attacks' links name");
    app.add_option("--hostile-guest", hostileSetting.guestFolder,
                   "The guest's destination, for the attacks that also change it behind the "
                   "guest's back");
    app.add_option("--fail-transfer", transferFaults,
                   "Answer status STATUS to the N-th message of the transfer WORKER, or close "
                   "its connection unanswered: WORKER:N:STATUS or WORKER:N:close (repeatable)");
    CLI11_PARSE(app, argc, argv);
    if (listHostile) {
        for (const std::string& name : hostsim::hostile_attack_names())
            std::printf("%-28s %s\n", name.c_str(),
                        hostsim::hostile_attack(name, hostileSetting)->summary.c_str());
        return 0;
    }

    // Block the stop signals before any thread starts, so only sigwait below sees them.
    sigset_t stopSignals;
    sigemptyset(&stopSignals);
    sigaddset(&stopSignals, SIGINT);
    sigaddset(&stopSignals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);

    hostsim::HostOptions options;
    options.root = root;
    if (pollHold->count() > 0) options.pollHold = std::chrono::milliseconds(pollHoldMs);
    // Nothing here queries the trace: --trace prints each entry as it comes and keeps none,
    // and without it no entry is made at all.
    options.trace = trace;
    options.traceCapacity = 0;
    hostsim::Host host(options);

    for (const auto& c : commands) {
        const auto parts = split(c);
        uint64_t code = 0, worker = 0;
        if (parts.size() > 2 || !parse_u64(parts[0], code) ||
            (parts.size() == 2 && !parse_u64(parts[1], worker))) {
            std::fprintf(stderr, "qvxhost: bad --command %s\n", c.c_str());
            return 2;
        }
        host.queue_command(static_cast<uint32_t>(code), worker);
    }
    for (const auto& f : fails) {
        const auto parts = split(f);
        uint64_t cmd = 0, nth = 0, status = 0;
        const bool completion = parts.size() == 4 && parts[3] == "completion";
        if ((parts.size() != 3 && !completion) || !parse_u64(parts[0], cmd) ||
            !parse_u64(parts[1], nth) || !parse_u64(parts[2], status)) {
            std::fprintf(stderr, "qvxhost: bad --fail %s\n", f.c_str());
            return 2;
        }
        host.fail_nth(static_cast<uint32_t>(cmd), nth, static_cast<uint32_t>(status),
                      completion ? hostsim::FaultLevel::Completion : hostsim::FaultLevel::Reply);
    }
    // Progress shares stdout with the trace; a bar would garble trace lines.
    hostsim::ProgressBoard::Style style = hostsim::ProgressBoard::Style::Quiet;
    if (progressStyle == "bar")
        style = hostsim::ProgressBoard::Style::Bar;
    else if (progressStyle == "lines")
        style = hostsim::ProgressBoard::Style::Lines;
    else if (progressStyle == "auto")
        style = trace ? hostsim::ProgressBoard::Style::Lines
                      : hostsim::ProgressBoard::style_for(stdout);
    hostsim::ProgressBoard progress(stdout, style);

    hostsim::SourcePolicy policy;
    std::map<uint64_t, std::shared_ptr<hostsim::TreeSource>> sources;
    policy.onExists = onExists == "replace" ? 101 : onExists == "skip" ? 102 : 9;
    policy.onFailure = onFailure == "skip" ? 102 : 9;
    for (const auto& t : trees) {
        const size_t colon = t.find(':');
        uint64_t worker = 0;
        std::vector<hostsim::SourceItem> items;
        if (colon == std::string::npos || !parse_u64(t.substr(0, colon), worker)) {
            std::fprintf(stderr, "qvxhost: bad --serve-tree %s\n", t.c_str());
            return 2;
        }
        if (!hostsim::list_folder(t.substr(colon + 1), items)) {
            std::fprintf(stderr, "qvxhost: cannot list %s\n", t.substr(colon + 1).c_str());
            return 1;
        }
        sources[worker] = std::make_shared<hostsim::TreeSource>(std::move(items), policy);
    }
    for (const auto& h : hostile) {
        const size_t colon = h.rfind(':');
        uint64_t worker = 0;
        std::optional<hostsim::HostileAttack> attack;
        if (colon == std::string::npos || !parse_u64(h.substr(colon + 1), worker) ||
            !(attack = hostsim::hostile_attack(h.substr(0, colon), hostileSetting))) {
            std::fprintf(stderr, "qvxhost: bad --hostile %s (--list-hostile names the attacks)\n",
                         h.c_str());
            return 2;
        }
        sources[worker] = hostsim::hostile_source(*attack);
    }
    for (const auto& f : transferFaults) {
        const auto parts = split(f);
        uint64_t worker = 0, nth = 0, status = 0;
        const bool close = parts.size() == 3 && parts[2] == "close";
        if (parts.size() != 3 || !parse_u64(parts[0], worker) || !parse_u64(parts[1], nth) ||
            (!close && !parse_u64(parts[2], status))) {
            std::fprintf(stderr, "qvxhost: bad --fail-transfer %s\n", f.c_str());
            return 2;
        }
        if (close)
            host.close_transfer_at(worker, nth);
        else
            host.fail_transfer_nth(worker, nth, static_cast<uint32_t>(status));
    }
    std::unique_ptr<hostsim::TreeSink> sink;
    if (!receiveInto.empty()) {
        hostsim::SinkOptions sinkOptions;
        sinkOptions.folder = receiveInto;
        hostsim::parse_conflict_policy(onConflict, sinkOptions.policy);
        sinkOptions.progress = &progress;
        sinkOptions.assignWorkerIds = true;
        sinkOptions.fileListAction = fileListAction;
        sink = std::make_unique<hostsim::TreeSink>(host, std::move(sinkOptions));
    }

    hostsim::DragPlayer player(host, root);
    player.set_prepare_value(prepareValue);
    // The player answers the file lists of the drags it plays, the sink any other.
    if (sink)
        player.set_file_list_fallback(
            [&sink](hostsim::Exchange& ex) { return sink->answer_file_list(ex); });
    for (const auto& d : drops) {
        const auto parts = split(d);
        uint64_t x = 0, y = 0, worker = 1;
        if (parts.size() < 2 || parts.size() > 3 || !parse_u64(parts[0], x) ||
            !parse_u64(parts[1], y) || (parts.size() == 3 && !parse_u64(parts[2], worker)) ||
            x > UINT32_MAX || y > UINT32_MAX) {
            std::fprintf(stderr, "qvxhost: bad --drop %s\n", d.c_str());
            return 2;
        }
        hostsim::DropPlan plan;
        plan.x = static_cast<uint32_t>(x);
        plan.y = static_cast<uint32_t>(y);
        plan.workerId = worker;
        plan.whenWindowThere = true;
        // The drop's operation is also the receive's: the player passes it the transfer.
        if (auto it = sources.find(worker); it != sources.end()) {
            plan.transfer = hostsim::observe_progress(
                progress, worker, hostsim::TransferDirection::HostToGuest,
                [source = it->second](hostsim::Exchange& ex) { return source->answer(ex); });
            sources.erase(it);
        }
        player.drop(plan);
    }
    for (auto& [worker, source] : sources) {
        host.set_worker_handler(
            worker, hostsim::observe_progress(
                        progress, worker, hostsim::TransferDirection::HostToGuest,
                        [source](hostsim::Exchange& ex) { return source->answer(ex); }));
    }
    for (const auto& g : guestDrags) {
        const auto parts = split(g);
        hostsim::GuestDragPlan plan;
        if (parts.size() < 2 || parts.size() > 3 || !parse_u64(parts[0], plan.workerId) ||
            !parse_u64(parts[1], plan.newWorkerId) ||
            (parts.size() == 3 && !parse_action(parts[2], plan.action))) {
            std::fprintf(stderr, "qvxhost: bad --guest-drag %s\n", g.c_str());
            return 2;
        }
        // A copy's send job stores into the sink's folder; a move's delete job sends no
        // files, the guest only removes its own.
        if (sink && plan.action == 0) plan.transfer = sink->endpoint(plan.newWorkerId);
        player.guest_drag(plan);
    }
    if (suspend) host.set_suspended(true);
    if (closeAt) host.close_at(closeAt);
    host.tool_service().set_busy_probes(busyProbes);
    host.tool_service().set_probe_status(static_cast<uint32_t>(probeStatus));
    if (trace) {
        host.trace().set_listener([](const hostsim::TraceEntry& entry) {
            std::fprintf(stdout, "%s\n", entry.line.c_str());
            std::fflush(stdout);
        });
    }

    if (!host.start()) {
        std::fprintf(stderr, "qvxhost: cannot serve %s\n", host.socket_path().c_str());
        return 1;
    }
    int signal = 0;
    while (sigwait(&stopSignals, &signal) != 0) {
    }
    host.stop();
    return 0;
}
