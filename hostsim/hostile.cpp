// The hostile host's attacks: names that climb, links that lead out, lengths that lie,
// replies that never end, and a folder swapped for a link behind the guest's back.
#include "hostsim/hostile.h"

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <functional>
#include <utility>

#include "channel/dnd_message.h"
#include "common/byte_order.h"
#include "text/encoding.h"

namespace hostsim {

namespace dnd = qvx::dnd;
namespace le = qvx::le;

namespace {

constexpr uint32_t kAttrDirectory = 0x10;
// Deeper than any tree whose names fit the name field: each level adds at least two units.
constexpr uint32_t kDeepLevels = (dnd::kMaxTextUnits + 1) / 2 + 88;

SourceItem file(std::u16string name, std::string content = "x", uint32_t depth = 1) {
    SourceItem i;
    i.kind = SourceItem::Kind::File;
    i.name = std::move(name);
    i.depth = depth;
    i.size = content.size();
    i.content = std::move(content);
    i.mode = 0100644;
    return i;
}

SourceItem folder(std::u16string name, uint32_t depth = 1) {
    SourceItem i;
    i.kind = SourceItem::Kind::Folder;
    i.name = std::move(name);
    i.depth = depth;
    i.attributes = kAttrDirectory;
    i.mode = 040755;
    return i;
}

SourceItem link(std::u16string name, std::u16string target, uint32_t depth = 1) {
    SourceItem i;
    i.kind = SourceItem::Kind::Link;
    i.name = std::move(name);
    i.depth = depth;
    i.linkTarget = std::move(target);
    i.mode = 0120777;
    return i;
}

SourceItem end(uint32_t depth) {
    return SourceItem::end_of_level(depth);
}

// A guest path as the host writes it.
std::u16string backslashed(const std::string& path) {
    std::u16string units = qvx::Utf8ToUtf16(path);
    std::replace(units.begin(), units.end(), u'/', u'\\');
    return units;
}

using Override = TreeSource::Override;

// Answers every `command` with `status`.
Override always(uint32_t command, uint32_t status) {
    return [command, status](Exchange& ex, const SourceItem*) -> std::optional<uint32_t> {
        if (ex.command != command) return std::nullopt;
        return status;
    };
}

// A link-target reply whose length field says `claim` bytes while `units` of the target
// are sent, the rest of the reply left as the guest's buffer holds it.
Override link_reply(uint32_t claim, size_t units) {
    return [claim, units](Exchange& ex, const SourceItem* item) -> std::optional<uint32_t> {
        if (ex.command != dnd::kCmdLinkTarget || !item || item->kind != SourceItem::Kind::Link)
            return std::nullopt;
        const size_t sent =
            std::min({units, item->linkTarget.size(), (ex.reply.size() - dnd::kMessageSize) / 2});
        le::put32(ex.reply.data(), dnd::kOffDataLength, claim);
        for (size_t i = 0; i < sent; ++i)
            le::put16(ex.reply.data(), dnd::kOffData + 2 * i, item->linkTarget[i]);
        ex.replyWritten = dnd::kMessageSize + 2 * sent;
        return dnd::kStatusSuccess;
    };
}

struct Entry {
    std::string name;
    std::string summary;
    std::function<void(HostileAttack&, const HostileSetting&)> build;
};

// Each climbing or malformed name comes after a harmless folder `\a`, so that a guest
// which lets the name through would meet it with a real folder to climb out of.
std::vector<SourceItem> after_folder_a(std::u16string name) {
    return {folder(u"\\a"), file(std::move(name), "x", 2), end(2), end(1)};
}

std::vector<Entry> catalog() {
    std::vector<Entry> all = {
        {"dotdot-first", "a file named \\..\\x",
         [](HostileAttack& a, const HostileSetting&) {
             a.items = {file(u"\\..\\x"), end(1)};
         }},
        {"dotdot-climb", "a file named \\a\\..\\..\\x inside a real folder \\a",
         [](HostileAttack& a, const HostileSetting&) {
             a.items = after_folder_a(u"\\a\\..\\..\\x");
         }},
        {"dotdot-last", "an item named \\a\\..",
         [](HostileAttack& a, const HostileSetting&) { a.items = after_folder_a(u"\\a\\.."); }},
        {"dotdot-unrooted", "a file named ..\\x, without a leading separator",
         [](HostileAttack& a, const HostileSetting&) {
             a.items = {file(u"..\\x"), end(1)};
         }},
        {"dotdot-slashes", "a file named /a/../../x with forward slashes",
         [](HostileAttack& a, const HostileSetting&) { a.items = after_folder_a(u"/a/../../x"); }},
        {"dot-first", "a file named \\.\\x",
         [](HostileAttack& a, const HostileSetting&) {
             a.items = {file(u"\\.\\x"), end(1)};
         }},
        {"dot-last", "an item named \\a\\.",
         [](HostileAttack& a, const HostileSetting&) { a.items = after_folder_a(u"\\a\\."); }},
        {"empty-component", "a file named \\a\\\\x",
         [](HostileAttack& a, const HostileSetting&) { a.items = after_folder_a(u"\\a\\\\x"); }},
        {"empty-leaf", "an item named \\a\\",
         [](HostileAttack& a, const HostileSetting&) { a.items = after_folder_a(u"\\a\\"); }},
        {"separator-only", "an item named \\",
         [](HostileAttack& a, const HostileSetting&) {
             a.items = {file(u"\\"), end(1)};
         }},
        {"no-leading-separator", "a file named x: tolerated, it lands in the destination",
         [](HostileAttack& a, const HostileSetting&) {
             a.items = {file(u"x", "unrooted"), end(1)};
         }},
        {"nul-in-name", "a NUL inside the counted name \\a<NUL>b",
         [](HostileAttack& a, const HostileSetting&) {
             a.items = {file(std::u16string(u"\\a\0b", 4)), end(1)};
         }},
        {"name-length-1023",
         "a file whose name has 1023 units, the most there is, four folders deep: received",
         [](HostileAttack& a, const HostileSetting&) {
             std::u16string name;
             uint32_t depth = 1;
             for (char16_t c : {u'a', u'b', u'c', u'd'}) {
                 name += u"\\" + std::u16string(254, c);
                 a.items.push_back(folder(name, depth++));
             }
             a.items.push_back(file(name + u"\\ok", "long", depth));
             while (depth > 0) a.items.push_back(end(depth--));
         }},
        {"name-length-1024", "a name of 1024 units, leaving no room for the terminator",
         [](HostileAttack& a, const HostileSetting&) {
             a.items = {file(u"\\" + std::u16string(1023, u'x')), end(1)};
         }},
        {"name-length-max", "name length 0xFFFFFFFF over the name \\abc",
         [](HostileAttack& a, const HostileSetting&) {
             SourceItem f = file(u"\\abc");
             f.nameLength = 0xFFFFFFFFu;
             a.items = {f, end(1)};
         }},
        {"name-length-past-units", "name length 40 over the 4 units of \\abc",
         [](HostileAttack& a, const HostileSetting&) {
             SourceItem f = file(u"\\abc");
             f.nameLength = 40;
             a.items = {f, end(1)};
         }},
        {"name-length-zero", "name length 0",
         [](HostileAttack& a, const HostileSetting&) {
             SourceItem f = file(u"\\abc");
             f.nameLength = 0;
             a.items = {f, end(1)};
         }},
        {"replace-link-with-folder",
         "a link \\L to the outside folder, then a folder \\L (replace) and a file \\L\\x in it",
         [](HostileAttack& a, const HostileSetting& s) {
             a.items = {link(u"\\L", backslashed(s.outside)), folder(u"\\L"),
                        file(u"\\L\\x", "in the new folder", 2), end(2), end(1)};
         }},
        {"replace-link-with-file",
         "a link \\L to the outside file, then a file \\L (replace) with new content",
         [](HostileAttack& a, const HostileSetting& s) {
             a.items = {link(u"\\L", backslashed(s.outsideFile)), file(u"\\L", "overwritten?"),
                        end(1)};
         }},
        {"swap-folder-before-times",
         "a folder \\d (mode 0700, times of 1990) swapped for a link to the outside folder "
         "after its items, before its times are applied",
         [](HostileAttack& a, const HostileSetting& s) {
             SourceItem d = folder(u"\\d");
             d.mode = 040700;
             d.modificationTime = d.accessTime = d.creationTime =
                 (631'152'000ull + 11'644'473'600ull) * 10'000'000ull;
             a.items = {d, file(u"\\d\\x", "x", 2), end(2), end(1)};
             if (s.guestFolder.empty()) return;
             a.override = [guest = s.guestFolder, outside = s.outside](
                              Exchange& ex, const SourceItem* item) -> std::optional<uint32_t> {
                 // The 272 after the folder's last item: the guest has yet to apply the
                 // folder's times and mode.
                 if (ex.command == dnd::kCmdNextItem && item && item->name == u"\\d\\x") {
                     const std::string d = guest + "/d";
                     if (::rename(d.c_str(), (d + "-moved").c_str()) == 0 &&
                         ::symlink(outside.c_str(), d.c_str()) != 0) {
                         std::perror("hostile: symlink");
                     }
                 }
                 return std::nullopt;
             };
         }},
        {"file-then-folder", "a file \\n, then a folder \\n (replace) with a file in it",
         [](HostileAttack& a, const HostileSetting&) {
             a.items = {file(u"\\n"), folder(u"\\n"), file(u"\\n\\x", "x", 2), end(2), end(1)};
         }},
        {"folder-then-file", "a folder \\n with a file in it, then a file \\n (replace)",
         [](HostileAttack& a, const HostileSetting&) {
             a.items = {folder(u"\\n"), file(u"\\n\\x", "x", 2), end(2), file(u"\\n"), end(1)};
         }},
        {"link-length-odd", "a link target reply of 3 bytes",
         [](HostileAttack& a, const HostileSetting&) {
             a.items = {link(u"\\L", u"target"), end(1)};
             a.override = link_reply(3, 6);
         }},
        {"link-length-past-received",
         "a link target reply whose length says 200 bytes where 4 were sent, after a file "
         "whose data filled the guest's buffer",
         [](HostileAttack& a, const HostileSetting&) {
             a.items = {file(u"\\f", std::string(512, 'A')), link(u"\\L", u"ab"), end(1)};
             a.override = link_reply(200, 2);
         }},
        {"link-target-nul", "a link target with a NUL inside",
         [](HostileAttack& a, const HostileSetting&) {
             a.items = {link(u"\\L", std::u16string(u"a\0b", 3)), end(1)};
         }},
        {"link-13-forever", "every link target query answered 13, buffer too small",
         [](HostileAttack& a, const HostileSetting&) {
             a.items = {link(u"\\L", u"t"), end(1)};
             a.override = always(dnd::kCmdLinkTarget, dnd::kStatusBufferTooSmall);
         }},
        {"data-more-than-asked", "a data reply claiming two bytes more than were asked for",
         [](HostileAttack& a, const HostileSetting&) {
             a.items = {file(u"\\f", "abc"), end(1)};
             a.override = [](Exchange& ex, const SourceItem*) -> std::optional<uint32_t> {
                 if (ex.command != dnd::kCmdReadData) return std::nullopt;
                 const uint32_t wanted = le::get32(ex.request.data(), dnd::kOffDataLength);
                 le::put32(ex.reply.data(), dnd::kOffDataLength, wanted + 2);
                 ex.replyWritten = ex.reply.size();
                 return dnd::kStatusSuccess;
             };
         }},
        {"file-size-max",
         "a file of 2^64 - 1 bytes in a transfer announced as small; the second data "
         "request is refused",
         [](HostileAttack& a, const HostileSetting&) {
             SourceItem f = file(u"\\huge", "");
             f.size = UINT64_MAX;
             a.items = {f, file(u"\\after", "after"), end(1)};
             a.totalBytes = 1000;
             a.override = [requests = 0](
                              Exchange& ex,
                              const SourceItem* item) mutable -> std::optional<uint32_t> {
                 if (ex.command != dnd::kCmdReadData || !item || item->size != UINT64_MAX ||
                     ++requests < 2)
                     return std::nullopt;
                 return 5u;
             };
         }},
        {"totals-max", "a total of 2^64 - 1 bytes announced",
         [](HostileAttack& a, const HostileSetting&) {
             a.items = {file(u"\\f"), end(1)};
             a.totalBytes = UINT64_MAX;
         }},
        {"levels-beyond-names", "folders nested deeper than any name that fits could describe",
         [](HostileAttack& a, const HostileSetting&) {
             for (uint32_t depth = 1; depth <= kDeepLevels; ++depth)
                 a.items.push_back(folder(u"\\l" + qvx::Utf8ToUtf16(std::to_string(depth)), depth));
         }},
    };
    // A link whose target is the root, two levels up or the outside folder, and then an
    // item named through it, directly or one folder further.
    for (const char* tag : {"root", "up", "outside"}) {
        for (const bool deeper : {false, true}) {
            const std::u16string through = deeper ? u"\\L\\d\\x" : u"\\L\\x";
            all.push_back({std::string("link-") + tag + (deeper ? "-through-folder" : "-through"),
                           std::string("a link \\L to ") +
                               (tag[0] == 'r'   ? "\\"
                                : tag[0] == 'u' ? "..\\.."
                                                : "the outside folder") +
                               ", then a file named " + (deeper ? "\\L\\d\\x" : "\\L\\x"),
                           [tag, through](HostileAttack& a, const HostileSetting& s) {
                               const std::u16string target = tag[0] == 'r' ? u"\\"
                                                             : tag[0] == 'u'
                                                                 ? u"..\\.."
                                                                 : backslashed(s.outside);
                               a.items = {link(u"\\L", target), file(through), end(1)};
                           }});
        }
    }
    return all;
}

}  // namespace

std::vector<std::string> hostile_attack_names() {
    std::vector<std::string> names;
    for (const Entry& e : catalog()) names.push_back(e.name);
    return names;
}

std::optional<HostileAttack> hostile_attack(std::string_view name, const HostileSetting& setting) {
    for (const Entry& e : catalog()) {
        if (e.name != name) continue;
        HostileAttack attack;
        attack.name = e.name;
        attack.summary = e.summary;
        e.build(attack, setting);
        return attack;
    }
    return std::nullopt;
}

std::shared_ptr<TreeSource> hostile_source(const HostileAttack& attack) {
    auto source = std::make_shared<TreeSource>(attack.items, attack.policy);
    if (attack.override) source->set_override(attack.override);
    if (attack.totalBytes) source->set_total_bytes(*attack.totalBytes);
    return source;
}

}  // namespace hostsim
