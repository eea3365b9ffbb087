// Growable byte buffer, and the writer and reader of tagged tool-service records.
#pragma once

#include <cstdint>

namespace qvx {

struct ServiceBuffer {
    uint8_t* data;
    uint32_t size;
};

// Writing: `count` elements written, `position` where the next one goes.
// Reading: `count` is the current element's index, `position` its offset.
struct ServiceWriter {
    uint32_t count;
    uint32_t headerOffset;  // the bytes before it belong to the caller
    uint32_t position;
    uint8_t* data;
    uint32_t capacity;
    uint32_t fixed;  // 1: the caller's buffer, never grown or freed
};

// Record layout: caller's prefix, container header, then elements; every field a LE u32.
inline constexpr uint32_t kContainerHeaderSize = 12;
inline constexpr uint32_t kElementHeaderSize = 12;
inline constexpr uint32_t kHdrLength = 0;
inline constexpr uint32_t kHdrTag = 4;
inline constexpr uint32_t kHdrIndex = 8;
inline constexpr uint32_t kContainerTag = 0x1000;
inline constexpr uint32_t kContainerTagAlt = 0xACDCBABA;  // accepted when reading

// Status values of the writer and the reader.
inline constexpr int32_t kSbOk = 0;
inline constexpr int32_t kSbNoMemory = -2;   // or a fixed buffer is full
inline constexpr int32_t kSbBadHeader = -3;  // container header missing or wrong tag
inline constexpr int32_t kSbBounds = -4;     // element or container runs past its bounds
inline constexpr int32_t kSbSequence = -5;   // element index out of sequence
inline constexpr int32_t kSbEnd = -7;        // no (more) elements
inline constexpr int32_t kSbWrap = -8;       // offsets wrap around

bool buffer_alloc(ServiceBuffer* buffer, uint32_t size);
bool buffer_resize(ServiceBuffer* buffer, uint32_t size);
void buffer_free(ServiceBuffer* buffer);

// Writers leave the state untouched when they fail; a failed grow keeps the old buffer.
int32_t writer_init(ServiceWriter* state, uint32_t prefixSize);
// Writes into the caller's buffer, which must hold prefix + 12 bytes (-2 otherwise).
int32_t writer_attach(ServiceWriter* state, uint32_t prefixSize, void* buffer, uint32_t capacity);
// Restarts the element list; the header's bytes stay as they are. Null when the buffer
// cannot hold the header at that offset.
uint8_t* writer_reset(ServiceWriter* state, uint32_t prefixSize);
// Absent data with a non-zero length leaves zeroed room, reachable through `elementData`.
int32_t writer_put(ServiceWriter* state, const void* data, uint32_t length, uint32_t tag,
                   uint8_t** elementData);
int32_t writer_reserve(ServiceWriter* state, uint32_t bytes);
void writer_free(ServiceWriter* state);
uint8_t* writer_data(const ServiceWriter* state);
uint32_t writer_total_size(const ServiceWriter* state);
uint32_t writer_position(const ServiceWriter* state);
uint8_t* writer_container(const ServiceWriter* state);

// The reader keeps `buffer` (not copied, never written) and tests every bound against
// `size` before it reads the bytes.
int32_t reader_open(ServiceWriter* state, const void* buffer, uint32_t size, uint32_t headerOffset);
int32_t reader_check(const ServiceWriter* state);
int32_t reader_next(ServiceWriter* state);
// Null / 0 when the current element's header is not inside the buffer.
const uint8_t* reader_element(const ServiceWriter* state);
const uint8_t* reader_element_data(const ServiceWriter* state);
uint32_t reader_element_length(const ServiceWriter* state);
uint32_t reader_element_tag(const ServiceWriter* state);

uint32_t safe_strlen(const char* text);
// `start` doubled until it is at least `minimum`; 0 when that does not fit in 32 bits.
uint32_t next_power_of_two(uint32_t start, uint32_t minimum);

}  // namespace qvx
