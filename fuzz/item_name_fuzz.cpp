// Fuzzes the receiver's check of a host item name: whatever it lets be created is a
// relative path of plain components that cannot climb, and it lets nothing be created
// that a NUL could cut short.
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "channel/dnd_message.h"
#include "transfer/tree_receiver.h"

namespace {

void check(bool holds) {
    if (!holds) __builtin_trap();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::u16string units(size / 2, u'\0');
    for (size_t i = 0; i < units.size(); ++i)
        units[i] = static_cast<char16_t>(data[2 * i] | data[2 * i + 1] << 8);
    qvx::ItemName name;
    if (!qvx::parse_item_name(units, name) || name.refusal != 0) return 0;

    check(!units.empty() && units.size() <= qvx::dnd::kMaxTextUnits);
    check(units.find(u'\0') == std::u16string::npos);
    const std::string& rel = name.relative;
    check(!rel.empty() && rel.find('\0') == std::string::npos &&
          rel.find('\\') == std::string::npos);
    size_t at = 0;
    for (;;) {
        const size_t slash = rel.find('/', at);
        const std::string_view component =
            std::string_view(rel).substr(at, slash == std::string::npos ? slash : slash - at);
        check(!component.empty() && component != "." && component != ".." &&
              component.size() <= qvx::kMaxComponentBytes);
        if (slash == std::string::npos) break;
        at = slash + 1;
    }
    // The leaf is the last component and the folder everything before its separator.
    check(name.leafAt == at);
    check(std::string_view(name.leaf()) == std::string_view(rel).substr(at));
    check(at == 0 ? name.folder().empty()
                  : name.folder() == std::string_view(rel).substr(0, at - 1));
    return 0;
}
