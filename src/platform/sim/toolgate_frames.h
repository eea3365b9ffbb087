// The toolgate socket's frames: encoding, strict validation and an incremental reader,
// shared by the IOKit stand-in (guest side) and the simulated host.
//
// Request, guest to host: u32 length (bytes after it), u32 code, u32 count N (0..16),
// N x {u32 size, u32 flags}, then the contents of every buffer whose flags carry
// kFrameFlagContents, in order. Reply, host to guest: u32 length, u32 status,
// N x u32 written, then each buffer's first `written` bytes, in order.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include <sys/uio.h>

#include "common/toolgate_abi.h"

namespace toolgate {

inline constexpr uint32_t kMaxFrameLength = 16u << 20;
inline constexpr uint32_t kFrameFlagWritable = 1;  // the host may write the buffer
inline constexpr uint32_t kFrameFlagContents = 2;  // the buffer's contents follow

struct FrameBuffer {
    uint32_t size = 0;
    uint32_t flags = 0;  // kFrameFlagWritable | kFrameFlagContents
};

inline constexpr size_t kFrameLengthBytes = 4;

// Whole header sizes, length field included.
inline constexpr size_t request_header_bytes(uint32_t count) {
    return 12 + 8 * size_t{count};
}
inline constexpr size_t reply_header_bytes(uint32_t count) {
    return 8 + 4 * size_t{count};
}

// Checks what a request may describe: at most 16 buffers, only known flag bits, contents
// never for more than the buffer, and all buffers together within kMaxFrameLength (so
// neither side ever allocates more than a frame can carry). Returns the byte count of
// the contents that follow, or -1 when the request is not acceptable.
int64_t request_contents_bytes(const FrameBuffer* buffers, uint32_t count);

// Writes the request header (request_header_bytes(count) bytes) for buffers that passed
// request_contents_bytes.
void encode_request_header(uint8_t* out, uint32_t code, const FrameBuffer* buffers, uint32_t count,
                           uint32_t contentsBytes);

// Writes the reply header (reply_header_bytes(count) bytes).
void encode_reply_header(uint8_t* out, uint32_t status, const uint32_t* written, uint32_t count);

// Checks a reply header's written counts against the buffers the guest supplied: each
// at most its buffer's size, 0 for a buffer the host may not write, and `length` (the
// frame's length field) exactly 4 + 4N + their sum.
bool reply_header_valid(uint32_t length, const uint32_t* written, const FrameBuffer* buffers,
                        uint32_t count);

// A request frame body (everything after the length field), validated.
struct RequestView {
    uint32_t code = 0;
    uint32_t count = 0;
    FrameBuffer buffers[kMaxBuffers];
    const uint8_t* contents[kMaxBuffers] = {};  // null where no contents were sent
};
bool parse_request(const uint8_t* body, size_t size, RequestView& out);

// A reply frame body checked against the guest's buffers.
struct ReplyView {
    uint32_t status = 0;
    uint32_t written[kMaxBuffers] = {};
    const uint8_t* contents[kMaxBuffers] = {};
};
bool parse_reply(const uint8_t* body, size_t size, const FrameBuffer* buffers, uint32_t count,
                 ReplyView& out);

// Collects length-prefixed frames from a byte stream that may arrive in any pieces.
// Only the length is checked here (at most kMaxFrameLength); the body's structure is
// checked by parse_request / parse_reply.
class FrameReader {
  public:
    enum class Result { NeedMore, Frame, Malformed };

    // Takes bytes from `data` until a frame is complete or the data is used up;
    // `consumed` tells how many were taken. After Frame, body() holds the frame until
    // the next feed. After Malformed the stream cannot be resynchronised: close it.
    Result feed(const uint8_t* data, size_t size, size_t& consumed);
    const std::vector<uint8_t>& body() const { return m_body; }
    // True while a frame has begun but is not complete (a short frame at end of stream).
    bool partial() const { return !m_complete && m_have > 0; }

  private:
    uint8_t m_lengthBytes[kFrameLengthBytes] = {};
    size_t m_have = 0;      // length bytes collected
    uint32_t m_length = 0;  // body bytes expected
    bool m_inBody = false;
    bool m_complete = false;
    bool m_broken = false;
    std::vector<uint8_t> m_body;
};

// Drops the first `n` bytes of an iovec array after a partial readv or sendmsg,
// skipping the vectors it used up.
void advance_iovecs(iovec*& iov, int& iovcnt, size_t n);

}  // namespace toolgate
