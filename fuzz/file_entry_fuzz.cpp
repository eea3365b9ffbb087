// Fuzzes the reader of the host's next-item reply (272) on arbitrary bytes and sizes.
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
    qvx::ItemInfo item;
    if (qvx::read_file_entry(reply.get(), size, item) != qvx::ReplyRead::Ok) return;
    if (item.name.size() > qvx::dnd::kMaxTextUnits) __builtin_trap();
    // The receiver converts the name where it stands in the reply; do the same.
    std::string name;
    qvx::Utf16ToNormalizedUtf8(reply.get() + qvx::dnd::kOffName, item.name.size() * 2, name);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    read_reply(data, size);
    // Random inputs rarely reach a whole record, so also place the input into one: the
    // first 4 bytes as nameLength, the rest over the name field and beyond.
    if (size < 4) return 0;
    const size_t tail = size - 4;
    const size_t total = qvx::dnd::kOffName + tail > qvx::dnd::kMessageSize
                             ? qvx::dnd::kOffName + tail
                             : qvx::dnd::kMessageSize;
    std::unique_ptr<uint8_t[]> record(new uint8_t[total]());
    std::memcpy(record.get() + qvx::dnd::kOffNameLength, data, 4);
    std::memcpy(record.get() + qvx::dnd::kOffName, data + 4, tail);
    read_reply(record.get(), total);
    return 0;
}
