// Fuzzes the reader of the host's link-target reply (769) on arbitrary bytes and sizes.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string>

#include "text/encoding.h"
#include "transfer/records.h"

namespace {

// Every buffer is allocated at exactly the size handed to the reader, so that any read
// past it is an overread that ASan reports.
void read_reply(const uint8_t* bytes, size_t size) {
    std::unique_ptr<uint8_t[]> reply(new uint8_t[size ? size : 1]);
    if (size) std::memcpy(reply.get(), bytes, size);
    std::u16string target;
    if (qvx::read_link_target(reply.get(), size, target) != qvx::ReplyRead::Ok) return;
    if (qvx::dnd::kOffData + target.size() * 2 > size) __builtin_trap();
    std::string converted;
    qvx::Utf16ToNormalizedUtf8(reply.get() + qvx::dnd::kOffData, target.size() * 2, converted);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    read_reply(data, size);
    // Random inputs rarely reach a whole record, so also place the input into one: the
    // first 4 bytes as dataLength, the rest as the data area behind the record.
    if (size < 4) return 0;
    const size_t total = qvx::dnd::kMessageSize + (size - 4);
    std::unique_ptr<uint8_t[]> record(new uint8_t[total]());
    std::memcpy(record.get() + qvx::dnd::kOffDataLength, data, 4);
    std::memcpy(record.get() + qvx::dnd::kOffData, data + 4, size - 4);
    read_reply(record.get(), total);
    return 0;
}
