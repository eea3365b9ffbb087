// A hostile host: named attacks on the guest's tree receiver, each a listing that the tree
// source serves exactly as written and, where a listing cannot say it, replies of its own.
//
//   hostsim::HostileSetting setting;
//   setting.outside = "/home/u";                  // what the attacks' links aim at
//   auto attack = hostsim::hostile_attack("link-outside-through", setting);
//   hostsim::serve_tree(host, 7, hostsim::hostile_source(*attack));
//
// A guest that is safe against all of them creates, changes and removes nothing outside
// the folder it receives into, ends each with one 260 and goes on serving.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "hostsim/tree_source.h"

namespace hostsim {

struct HostileSetting {
    // A folder and a file outside the guest's destination, as absolute paths, that the
    // attacks' links name: whatever a careless guest would write through them.
    std::string outside = "/tmp";
    std::string outsideFile = "/tmp/victim";
    // The guest's destination as this process sees it. An attack that plays a local
    // accomplice (one swaps a folder for a link in the middle of the transfer) acts only
    // when it is set; without it the attack is a plain listing.
    std::string guestFolder;
};

struct HostileAttack {
    std::string name;
    std::string summary;
    std::vector<SourceItem> items;
    // Replace whatever exists and skip whatever fails, so that every item of the listing
    // gets its turn.
    SourcePolicy policy{101, 102};
    TreeSource::Override override;       // empty: the listing's own answers
    std::optional<uint64_t> totalBytes;  // the 261 reply, when not the listing's sum
};

// Every attack's name, in a fixed order.
std::vector<std::string> hostile_attack_names();
// The attack called `name`, aimed by `setting`; nullopt for a name no attack has.
std::optional<HostileAttack> hostile_attack(std::string_view name, const HostileSetting& setting);
// A tree source that serves the attack: its listing, policy, replies and total.
std::shared_ptr<TreeSource> hostile_source(const HostileAttack& attack);

}  // namespace hostsim
