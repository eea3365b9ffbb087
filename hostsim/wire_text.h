// The wire's UTF-16 text as the host reads it: a strict conversion for names it stores, and
// a forgiving one for what it shows.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace hostsim {

// UTF-16 to UTF-8, false on an unpaired surrogate. No normalization: the host keeps
// exactly the name the guest sent.
bool utf16_to_utf8(std::u16string_view in, std::string& out);

// Little-endian UTF-16 of at most `bytes` bytes, up to its NUL, as UTF-8; an unpaired
// surrogate shows as U+FFFD, so that any record, however damaged, prints. `consumed`
// receives the bytes read, the NUL included.
std::string wire_text(const uint8_t* p, size_t bytes, size_t* consumed = nullptr);

}  // namespace hostsim
