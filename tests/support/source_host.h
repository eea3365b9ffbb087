// A scripted host whose unscripted answers come from a hostsim::TreeSource in-process:
// the receiver under test talks to the simulated host's transfer logic without a socket,
// and every request is recorded.
#pragma once

#include <memory>
#include <utility>
#include <vector>

#include "hostsim/tree_source.h"
#include "support/scripted_host.h"

namespace qvxtest {

struct SourceHost : ScriptedHost {
    std::shared_ptr<hostsim::TreeSource> source;

    explicit SourceHost(std::vector<hostsim::SourceItem> items, hostsim::SourcePolicy policy = {})
        : source(std::make_shared<hostsim::TreeSource>(std::move(items), policy)) {
        fallback = [this](const Request&) {
            return Answer{true, 0, [this](uint8_t* reply, size_t size) {
                              const Request& r = sent.back();
                              hostsim::Exchange ex;
                              ex.command = r.command();
                              ex.workerId = qvx::le::get64(r.bytes.data(), qvx::dnd::kOffWorkerId);
                              ex.request = {r.bytes.data(), r.bytes.size()};
                              ex.reply = {reply, size};
                              ex.replyWritten = qvx::dnd::kMessageSize;
                              const auto status = source->answer(ex);
                              qvx::le::put32(reply, qvx::dnd::kOffStatus, status);
                          }};
        };
    }

    // Requests of one command, in order.
    std::vector<const Request*> of(uint32_t command) const {
        std::vector<const Request*> out;
        for (const auto& r : sent)
            if (r.command() == command) out.push_back(&r);
        return out;
    }
};

// Builders for hand-made listings.
inline hostsim::SourceItem file_item(std::u16string name, std::string content, uint32_t depth = 1) {
    hostsim::SourceItem item;
    item.kind = hostsim::SourceItem::Kind::File;
    item.depth = depth;
    item.name = std::move(name);
    item.size = content.size();
    item.content = std::move(content);
    item.mode = 0100640;
    return item;
}

inline hostsim::SourceItem folder_item(std::u16string name, uint32_t depth = 1) {
    hostsim::SourceItem item;
    item.kind = hostsim::SourceItem::Kind::Folder;
    item.depth = depth;
    item.name = std::move(name);
    item.attributes = 0x10;
    item.mode = 040750;
    return item;
}

inline hostsim::SourceItem link_item(std::u16string name, std::u16string target,
                                     uint32_t depth = 1) {
    hostsim::SourceItem item;
    item.kind = hostsim::SourceItem::Kind::Link;
    item.depth = depth;
    item.name = std::move(name);
    item.linkTarget = std::move(target);
    item.mode = 0120777;
    return item;
}

inline hostsim::SourceItem end_of(uint32_t depth) {
    return hostsim::SourceItem::end_of_level(depth);
}

}  // namespace qvxtest
