// A scripted host whose unscripted answers come from a hostsim::TreeSource in-process:
// the receiver under test talks to the simulated host's transfer logic without a socket,
// and every request is recorded.
#pragma once

#include <memory>
#include <string>
#include <tuple>
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
                              ex.request = {r.bytes.data(), r.bytes.size()};
                              ex.reply = {reply, size};
                              qvx::le::put32(reply, qvx::dnd::kOffStatus, source->answer(ex));
                          }};
        };
    }
    std::vector<const Request*> of(uint32_t command) const {
        std::vector<const Request*> out;
        for (const auto& r : sent)
            if (r.command() == command) out.push_back(&r);
        return out;
    }
    // The notices that ask or report, in order: all but (1, 0) and (5, 0).
    std::vector<std::tuple<uint32_t, uint32_t, std::u16string>> questions() const {
        std::vector<std::tuple<uint32_t, uint32_t, std::u16string>> out;
        for (const auto& n : source->notices())
            if (n.dialogId != 1 && n.dialogId != 5) out.emplace_back(n.dialogId, n.code, n.text);
        return out;
    }
};

// Listed items, for hand-made listings.
inline hostsim::SourceItem listed(hostsim::SourceItem::Kind kind, std::u16string name,
                                  uint32_t depth) {
    hostsim::SourceItem i;
    i.kind = kind;
    i.depth = depth;
    i.name = std::move(name);
    i.attributes = kind == hostsim::SourceItem::Kind::Folder ? 0x10 : 0;
    return i;
}
inline hostsim::SourceItem file(std::u16string name, std::string content, uint32_t depth = 1) {
    auto i = listed(hostsim::SourceItem::Kind::File, std::move(name), depth);
    i.size = content.size();
    i.content = std::move(content);
    return i;
}
inline hostsim::SourceItem folder(std::u16string name, uint32_t depth = 1) {
    return listed(hostsim::SourceItem::Kind::Folder, std::move(name), depth);
}
inline hostsim::SourceItem link(std::u16string name, std::u16string target, uint32_t depth = 1) {
    auto i = listed(hostsim::SourceItem::Kind::Link, std::move(name), depth);
    i.linkTarget = std::move(target);
    return i;
}
inline hostsim::SourceItem end_of(uint32_t depth) {
    return hostsim::SourceItem::end_of_level(depth);
}

}  // namespace qvxtest
