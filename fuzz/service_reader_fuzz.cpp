// Fuzzes the tool service reader: arbitrary bytes and header offsets must never lead it
// outside the buffer it was given.
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "toolservice/service_buffer.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 2) return 0;
    // The first two bytes choose the header offset; the rest is the record, copied into
    // an allocation of exactly its size so any overread is caught.
    const uint32_t offset = static_cast<uint32_t>(data[0] | (data[1] << 8)) % 64;
    const size_t length = size - 2;
    auto* buffer = static_cast<uint8_t*>(std::malloc(length == 0 ? 1 : length));
    if (length != 0) std::memcpy(buffer, data + 2, length);
    qvx::ServiceWriter reader{};
    int32_t status = qvx::reader_open(&reader, buffer, static_cast<uint32_t>(length), offset);
    volatile uint32_t sink = 0;
    for (int steps = 0; steps < 100000 && status == 0; ++steps) {
        if (qvx::reader_check(&reader) != 0) std::abort();
        const uint8_t* element = qvx::reader_element_data(&reader);
        const uint32_t elementLength = qvx::reader_element_length(&reader);
        sink = sink + qvx::reader_element_tag(&reader);
        for (uint32_t i = 0; i < elementLength; ++i) sink = sink + element[i];
        status = qvx::reader_next(&reader);
    }
    (void)sink;
    std::free(buffer);
    return 0;
}
