// Growable byte buffer, and the writer and reader of tagged tool-service records.
#include "toolservice/service_buffer.h"

#include <cstdlib>
#include <cstring>

#include "common/byte_order.h"

namespace qvx {

namespace {

// Grows a non-fixed buffer so that `needed` more bytes fit at `position`.
int32_t ensure_room(ServiceWriter* state, uint64_t needed) {
    uint64_t want = static_cast<uint64_t>(state->position) + needed;
    if (want <= state->capacity) return kSbOk;
    if (state->fixed != 0 || want > UINT32_MAX) return kSbNoMemory;
    uint32_t capacity = next_power_of_two(state->capacity, static_cast<uint32_t>(want));
    if (capacity == 0) return kSbNoMemory;
    void* grown = std::realloc(state->data, capacity);
    if (grown == nullptr) return kSbNoMemory;
    state->data = static_cast<uint8_t*>(grown);
    state->capacity = capacity;
    return kSbOk;
}

void write_container_header(uint8_t* at) {
    le::put32(at, kHdrLength, 0);
    le::put32(at, kHdrTag, kContainerTag);
    le::put32(at, kHdrIndex, 0);
}

// Status of the element at `position`; every offset is checked before it is read.
int32_t element_status(const ServiceWriter* state) {
    if (state->data == nullptr ||
        static_cast<uint64_t>(state->headerOffset) + kContainerHeaderSize > state->capacity)
        return kSbBadHeader;
    uint64_t end = static_cast<uint64_t>(state->headerOffset) + kContainerHeaderSize +
                   le::get32(state->data, state->headerOffset + kHdrLength);
    if (end > state->capacity) return kSbBounds;
    uint64_t pos = state->position;
    if (pos == end) return kSbEnd;
    if (pos > end) return kSbWrap;
    if (pos + kElementHeaderSize > end) return kSbBounds;
    if (le::get32(state->data, pos + kHdrIndex) != state->count) return kSbSequence;
    if (pos + kElementHeaderSize + le::get32(state->data, pos + kHdrLength) > end) return kSbBounds;
    return kSbOk;
}

bool element_header_inside(const ServiceWriter* state) {
    return state->data != nullptr &&
           static_cast<uint64_t>(state->position) + kElementHeaderSize <= state->capacity;
}

}  // namespace

bool buffer_alloc(ServiceBuffer* buffer, uint32_t size) {
    if (size == 0) {
        buffer->data = nullptr;
        buffer->size = 0;
        return true;
    }
    void* data = std::malloc(size);
    if (data == nullptr) return false;
    buffer->data = static_cast<uint8_t*>(data);
    buffer->size = size;
    return true;
}

bool buffer_resize(ServiceBuffer* buffer, uint32_t size) {
    if (size == 0) {
        buffer_free(buffer);
        return true;
    }
    void* data = std::realloc(buffer->data, size);
    if (data == nullptr) return false;
    buffer->data = static_cast<uint8_t*>(data);
    buffer->size = size;
    return true;
}

void buffer_free(ServiceBuffer* buffer) {
    std::free(buffer->data);
    buffer->data = nullptr;
    buffer->size = 0;
}

int32_t writer_init(ServiceWriter* state, uint32_t prefixSize) {
    uint64_t minimum = static_cast<uint64_t>(prefixSize) + kContainerHeaderSize;
    if (minimum > UINT32_MAX) return kSbNoMemory;
    uint32_t capacity = next_power_of_two(2, static_cast<uint32_t>(minimum));
    if (capacity == 0) return kSbNoMemory;
    void* data = std::malloc(capacity);
    if (data == nullptr) return kSbNoMemory;
    // The caller's prefix is theirs to fill; zero it so nothing stale is ever sent.
    std::memset(data, 0, capacity);
    state->count = 0;
    state->headerOffset = prefixSize;
    state->position = static_cast<uint32_t>(minimum);
    state->data = static_cast<uint8_t*>(data);
    state->capacity = capacity;
    state->fixed = 0;
    write_container_header(state->data + prefixSize);
    return kSbOk;
}

int32_t writer_attach(ServiceWriter* state, uint32_t prefixSize, void* buffer, uint32_t capacity) {
    uint64_t minimum = static_cast<uint64_t>(prefixSize) + kContainerHeaderSize;
    if (buffer == nullptr || minimum > capacity) return kSbNoMemory;
    state->count = 0;
    state->headerOffset = prefixSize;
    state->position = static_cast<uint32_t>(minimum);
    state->data = static_cast<uint8_t*>(buffer);
    state->capacity = capacity;
    state->fixed = 1;
    write_container_header(state->data + prefixSize);
    return kSbOk;
}

uint8_t* writer_reset(ServiceWriter* state, uint32_t prefixSize) {
    uint64_t minimum = static_cast<uint64_t>(prefixSize) + kContainerHeaderSize;
    if (state->data == nullptr || minimum > state->capacity) return nullptr;
    state->count = 0;
    state->headerOffset = prefixSize;
    state->position = static_cast<uint32_t>(minimum);
    return state->data + prefixSize;
}

int32_t writer_put(ServiceWriter* state, const void* data, uint32_t length, uint32_t tag,
                   uint8_t** elementData) {
    uint64_t needed = static_cast<uint64_t>(length) + kElementHeaderSize;
    int32_t status = ensure_room(state, needed);
    if (status != kSbOk) return status;
    uint8_t* element = state->data + state->position;
    le::put32(element, kHdrLength, length);
    le::put32(element, kHdrTag, tag);
    le::put32(element, kHdrIndex, state->count);
    ++state->count;
    uint8_t* payload = element + kElementHeaderSize;
    if (length != 0) {
        if (data != nullptr)
            std::memcpy(payload, data, length);
        else
            std::memset(payload, 0, length);
    }
    if (elementData != nullptr) *elementData = payload;
    // ensure_room proved position + needed fits in the capacity, hence in 32 bits.
    state->position += static_cast<uint32_t>(needed);
    uint8_t* container = state->data + state->headerOffset;
    le::put32(container, kHdrLength,
              le::get32(container, kHdrLength) + static_cast<uint32_t>(needed));
    return kSbOk;
}

int32_t writer_reserve(ServiceWriter* state, uint32_t bytes) {
    return ensure_room(state, bytes);
}

void writer_free(ServiceWriter* state) {
    if (state->fixed != 0) return;
    std::free(state->data);
    state->data = nullptr;
    state->capacity = 0;
}

uint8_t* writer_data(const ServiceWriter* state) {
    return state->data;
}

uint32_t writer_total_size(const ServiceWriter* state) {
    if (state->data == nullptr) return 0;
    return state->headerOffset + kContainerHeaderSize +
           le::get32(state->data, state->headerOffset + kHdrLength);
}

uint32_t writer_position(const ServiceWriter* state) {
    return state->position;
}

uint8_t* writer_container(const ServiceWriter* state) {
    return state->data == nullptr ? nullptr : state->data + state->headerOffset;
}

int32_t reader_open(ServiceWriter* state, const void* buffer, uint32_t size,
                    uint32_t headerOffset) {
    uint64_t elementsStart = static_cast<uint64_t>(headerOffset) + kContainerHeaderSize;
    if (buffer == nullptr || size < elementsStart) return kSbBadHeader;
    state->count = 0;
    state->headerOffset = headerOffset;
    state->position = static_cast<uint32_t>(elementsStart);
    // The reader never writes; the pointer is only non-const because the state is shared
    // with the writer.
    state->data = static_cast<uint8_t*>(const_cast<void*>(buffer));
    state->capacity = size;
    state->fixed = 1;
    uint32_t tag = le::get32(state->data, headerOffset + kHdrTag);
    if (tag != kContainerTag && tag != kContainerTagAlt) return kSbBadHeader;
    uint64_t length = le::get32(state->data, headerOffset + kHdrLength);
    uint64_t end = elementsStart + length;
    if (end > UINT32_MAX) return kSbWrap;
    if (end > size) return kSbBounds;
    if (length == 0) return kSbEnd;
    return element_status(state);
}

int32_t reader_check(const ServiceWriter* state) {
    return element_status(state);
}

int32_t reader_next(ServiceWriter* state) {
    int32_t status = element_status(state);
    // Moving on needs the current element's length, which is only trusted once the
    // whole element has been checked; a broken element stops the walk where it is.
    if (status != kSbOk) return status;
    state->position += kElementHeaderSize + le::get32(state->data, state->position + kHdrLength);
    ++state->count;
    return element_status(state);
}

const uint8_t* reader_element(const ServiceWriter* state) {
    return element_header_inside(state) ? state->data + state->position : nullptr;
}

const uint8_t* reader_element_data(const ServiceWriter* state) {
    return element_header_inside(state) ? state->data + state->position + kElementHeaderSize
                                        : nullptr;
}

uint32_t reader_element_length(const ServiceWriter* state) {
    return element_header_inside(state) ? le::get32(state->data, state->position + kHdrLength) : 0;
}

uint32_t reader_element_tag(const ServiceWriter* state) {
    return element_header_inside(state) ? le::get32(state->data, state->position + kHdrTag) : 0;
}

uint32_t safe_strlen(const char* text) {
    if (text == nullptr) return 0;
    size_t length = std::strlen(text);
    return length > UINT32_MAX ? UINT32_MAX : static_cast<uint32_t>(length);
}

uint32_t next_power_of_two(uint32_t start, uint32_t minimum) {
    uint64_t value = start == 0 ? 1 : start;
    while (value < minimum) value *= 2;
    return value > UINT32_MAX ? 0 : static_cast<uint32_t>(value);
}

}  // namespace qvx
