// Builders shared by every DnD message: the header and the fixed UTF-16 text fields.
#include "channel/dnd_message.h"

#include <cstring>

namespace qvx::dnd {

void init_message(void* msg, size_t size, uint32_t cmd, uint64_t workerId) {
    std::memset(msg, 0, size);
    le::put32(msg, kOffCommand, cmd);
    le::put32(msg, kOffVersion, kVersion);
    le::put64(msg, kOffWorkerId, workerId);
}

bool put_text_field(void* msg, size_t offset, size_t fieldBytes, std::u16string_view text) {
    auto* base = static_cast<uint8_t*>(msg) + offset;
    const size_t room = fieldBytes / 2 - 1;  // code units before the NUL
    size_t units = text.size();
    const bool fits = units <= room;
    if (!fits) {
        units = room;
        // Never leave the high half of a surrogate pair without its partner.
        if (units > 0 && text[units - 1] >= 0xD800 && text[units - 1] <= 0xDBFF) --units;
    }
    for (size_t i = 0; i < units; ++i) le::put16(base + 2 * i, text[i]);
    le::put16(base + 2 * units, 0);
    return fits;
}

bool put_name(void* msg, std::u16string_view name) {
    if (name.size() > kMaxTextUnits) return false;
    le::put32(msg, kOffNameLength, static_cast<uint32_t>(name.size()));
    return put_text_field(msg, kOffName, kNameBytes, name);
}

void put_dialog_text(void* msg, std::u16string_view text) {
    put_text_field(msg, kOffDialogText, kDialogTextBytes, text);
}

}  // namespace qvx::dnd
