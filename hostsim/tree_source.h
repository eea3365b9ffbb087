// The host's side of a host-to-guest transfer: a listing of items (read from a host
// folder, or written by hand) served to the guest's tree receiver, with a policy for the
// guest's questions.
//
//   std::vector<hostsim::SourceItem> items;
//   hostsim::list_folder("/srv/drop", items);            // or build items by hand
//   auto source = std::make_shared<hostsim::TreeSource>(std::move(items));
//   hostsim::serve_tree(host, 7, source);                // the transfer's workerId
//   ... the guest receives ...
//   source->notices(), source->ends()
//
// Every field of a listed item goes out as written, so a hand-made listing may carry names
// no folder holds (dots, NULs, lengths that lie); set_override() replaces any reply.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "hostsim/host.h"

namespace hostsim {

// One answer to the guest's next-item request (272), in the order they are given.
struct SourceItem {
    enum class Kind { File, Folder, Link, EndOfLevel };
    Kind kind = Kind::File;
    // The level the item is listed at (1: top). A folder's items follow it at depth + 1,
    // closed by an EndOfLevel at depth + 1; the listing ends with an EndOfLevel at 1.
    uint32_t depth = 1;
    std::u16string name;                 // as sent: backslashes, a leading one
    std::optional<uint32_t> nameLength;  // sent instead of name.size() when set
    uint32_t attributes = 0;             // 0x10 for a folder; anything else as given
    uint64_t creationTime = 0;           // 100-ns ticks since 1601
    uint64_t accessTime = 0;
    uint64_t modificationTime = 0;
    uint64_t size = 0;  // announced data bytes
    uint16_t modeValid = 1;
    uint16_t mode = 0;
    std::u16string linkTarget;  // a link's target as sent (backslashes)
    std::string sourcePath;     // a file's data is read from here when set ...
    std::string content;        // ... else served from here

    static SourceItem end_of_level(uint32_t depth);
};

// Lists `folder`'s contents as the host offers a drop of them: every item depth-first,
// names sorted bytewise, each level closed. Times, mode and size come from lstat, link
// targets from readlink; names and targets go out with backslashes. False when the folder
// or something in it cannot be read.
bool list_folder(const std::string& folder, std::vector<SourceItem>& out);

// Bytes the host announces for a listing (the 261 reply): the data of every file plus 32
// for every folder, as the guest's own totals count them; saturates rather than wraps.
uint64_t listing_bytes(const std::vector<SourceItem>& items);

// How the host answers the guest's questions.
struct SourcePolicy {
    uint32_t onExists = 101;  // to (2, 0, name): 101 replace, 102 skip, anything else stops
    uint32_t onFailure = 0;   // to a kind 3 notice: 102 skips the item, anything else stops
};

// A notice (263) as the host received it, with the answer it gave.
struct ReceivedNotice {
    uint32_t dialogId = 0;
    uint32_t code = 0;
    std::u16string text;
    uint32_t answer = 0;
};

class TreeSource {
  public:
    // Replaces the answer to any message: gets the exchange and the item last handed out
    // (null before the first), returns the reply's status or nullopt for the usual answer.
    using Override = std::function<std::optional<uint32_t>(Exchange&, const SourceItem*)>;

    explicit TreeSource(std::vector<SourceItem> items, SourcePolicy policy = {});
    ~TreeSource();
    TreeSource(const TreeSource&) = delete;
    TreeSource& operator=(const TreeSource&) = delete;

    // Answers one message of the transfer and gives the reply's status: 280, 261, 272,
    // 769, 266, 268, 267, 274, 263 and 260 as the listing says, anything else with 0.
    uint32_t answer(Exchange& exchange);

    void set_policy(SourcePolicy policy);
    void set_override(Override override);
    // The byte total the 261 reply announces (listing_bytes unless set).
    void set_total_bytes(uint64_t bytes);

    std::vector<ReceivedNotice> notices() const;
    uint32_t ends() const;          // 260s received
    uint64_t bytes_served() const;  // data bytes handed out by 268 replies
    uint64_t items_served() const;  // items handed out by 272 replies

  private:
    uint32_t next_item(Exchange& ex);
    uint32_t link_target(Exchange& ex);
    uint32_t data_begin();
    uint32_t data(Exchange& ex);
    uint32_t skip_folder();
    uint32_t notice(const Exchange& ex);
    void close_source();

    mutable std::mutex m_mutex;
    std::vector<SourceItem> m_items;
    SourcePolicy m_policy;
    Override m_override;
    uint64_t m_totalBytes;
    size_t m_next = 0;  // the listing's next answer to 272
    const SourceItem* m_current = nullptr;
    int m_sourceFd = -1;    // the current file's data, between 266 and 267
    uint64_t m_offset = 0;  // bytes of the current file handed out
    std::vector<ReceivedNotice> m_notices;
    uint32_t m_ends = 0;
    uint64_t m_bytesServed = 0;
    uint64_t m_itemsServed = 0;
};

// Makes `source` the worker handler of the transfer `workerId` on `host`.
void serve_tree(Host& host, uint64_t workerId, std::shared_ptr<TreeSource> source);

}  // namespace hostsim
