// Fuzzes the toolgate frame codec: a byte stream cut into arbitrary pieces, each frame
// parsed as a request and as a reply against buffers the input itself describes.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <vector>

#include "common/byte_order.h"
#include "platform/sim/toolgate_frames.h"

namespace {

// Checks that whatever the parsers accept lies inside the body they were given.
void check_frame(const std::vector<uint8_t>& frame, const uint8_t* script, size_t scriptSize) {
    // Exactly the frame's size, so a read past it is an overread that ASan reports.
    const size_t size = frame.size();
    std::unique_ptr<uint8_t[]> body(new uint8_t[size ? size : 1]);
    if (size) std::memcpy(body.get(), frame.data(), size);
    const uint8_t* end = body.get() + size;

    toolgate::RequestView request;
    if (toolgate::parse_request(body.get(), size, request)) {
        if (request.count > toolgate::kMaxBuffers) __builtin_trap();
        for (uint32_t i = 0; i < request.count; ++i) {
            if (request.contents[i] && (request.contents[i] < body.get() ||
                                        request.contents[i] + request.buffers[i].size > end))
                __builtin_trap();
        }
    }

    // The guest's buffers for the reply come from the fuzz input too: up to 16 of
    // {size, flags} taken from the script bytes.
    toolgate::FrameBuffer buffers[toolgate::kMaxBuffers];
    uint32_t count = 0;
    for (size_t off = 0; off + 5 <= scriptSize && count < toolgate::kMaxBuffers; off += 5) {
        buffers[count].size = qvx::le::get32(script + off) & 0xFFFFF;
        buffers[count].flags = script[off + 4] & 3;
        ++count;
    }
    toolgate::ReplyView reply;
    if (toolgate::parse_reply(body.get(), size, buffers, count, reply)) {
        for (uint32_t i = 0; i < count; ++i) {
            if (reply.written[i] > buffers[i].size) __builtin_trap();
            if (reply.contents[i] &&
                (reply.contents[i] < body.get() || reply.contents[i] + reply.written[i] > end))
                __builtin_trap();
        }
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 2) return 0;
    // First byte: the piece size the stream arrives in; second: how many bytes of the
    // input also describe the reply's buffers.
    const size_t piece = (data[0] % 16) + 1;
    const size_t scriptSize = std::min<size_t>(data[1], size - 2);
    const uint8_t* script = data + 2;
    const uint8_t* stream = data + 2;
    const size_t streamSize = size - 2;

    toolgate::FrameReader reader;
    size_t offset = 0;
    while (offset < streamSize) {
        const size_t chunk = std::min(piece, streamSize - offset);
        size_t used = 0;
        const auto result = reader.feed(stream + offset, chunk, used);
        if (used > chunk) __builtin_trap();
        offset += used;
        if (result == toolgate::FrameReader::Result::Malformed) break;
        if (result == toolgate::FrameReader::Result::Frame)
            check_frame(reader.body(), script, scriptSize);
        else if (used == 0)
            break;
    }
    return 0;
}
