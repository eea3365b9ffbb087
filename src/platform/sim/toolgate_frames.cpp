// Encoding and strict validation of the toolgate socket's frames.
#include "platform/sim/toolgate_frames.h"

#include <algorithm>
#include <cstring>

#include "common/byte_order.h"

namespace toolgate {

namespace le = qvx::le;

namespace {
constexpr uint32_t kKnownFlags = kFrameFlagWritable | kFrameFlagContents;
}

int64_t request_contents_bytes(const FrameBuffer* buffers, uint32_t count) {
    if (count > kMaxBuffers) return -1;
    uint64_t total = 0;
    uint64_t contents = 0;
    for (uint32_t i = 0; i < count; ++i) {
        if (buffers[i].flags & ~kKnownFlags) return -1;
        total += buffers[i].size;
        if (buffers[i].flags & kFrameFlagContents) contents += buffers[i].size;
    }
    if (total > kMaxFrameLength) return -1;
    if (request_header_bytes(count) - kFrameLengthBytes + contents > kMaxFrameLength) return -1;
    return static_cast<int64_t>(contents);
}

void encode_request_header(uint8_t* out, uint32_t code, const FrameBuffer* buffers, uint32_t count,
                           uint32_t contentsBytes) {
    const size_t header = request_header_bytes(count);
    le::put32(out, 0, static_cast<uint32_t>(header - kFrameLengthBytes + contentsBytes));
    le::put32(out, 4, code);
    le::put32(out, 8, count);
    for (uint32_t i = 0; i < count; ++i) {
        le::put32(out, 12 + 8 * size_t{i}, buffers[i].size);
        le::put32(out, 16 + 8 * size_t{i}, buffers[i].flags);
    }
}

void encode_reply_header(uint8_t* out, uint32_t status, const uint32_t* written, uint32_t count) {
    uint64_t body = 4 + 4 * uint64_t{count};
    for (uint32_t i = 0; i < count; ++i) body += written[i];
    le::put32(out, 0, static_cast<uint32_t>(body));
    le::put32(out, 4, status);
    for (uint32_t i = 0; i < count; ++i) le::put32(out, 8 + 4 * size_t{i}, written[i]);
}

bool reply_header_valid(uint32_t length, const uint32_t* written, const FrameBuffer* buffers,
                        uint32_t count) {
    if (length > kMaxFrameLength || count > kMaxBuffers) return false;
    uint64_t expected = 4 + 4 * uint64_t{count};
    for (uint32_t i = 0; i < count; ++i) {
        if (written[i] > buffers[i].size) return false;
        if (written[i] != 0 && !(buffers[i].flags & kFrameFlagWritable)) return false;
        expected += written[i];
    }
    return expected == length;
}

bool parse_request(const uint8_t* body, size_t size, RequestView& out) {
    if (size < 8 || size > kMaxFrameLength) return false;
    out.code = le::get32(body, 0);
    out.count = le::get32(body, 4);
    if (out.count > kMaxBuffers) return false;
    const size_t header = request_header_bytes(out.count) - kFrameLengthBytes;
    if (size < header) return false;
    for (uint32_t i = 0; i < out.count; ++i) {
        out.buffers[i].size = le::get32(body, 8 + 8 * size_t{i});
        out.buffers[i].flags = le::get32(body, 12 + 8 * size_t{i});
    }
    const int64_t contents = request_contents_bytes(out.buffers, out.count);
    if (contents < 0 || static_cast<uint64_t>(contents) != size - header) return false;
    const uint8_t* at = body + header;
    for (uint32_t i = 0; i < out.count; ++i) {
        out.contents[i] = nullptr;
        if (out.buffers[i].flags & kFrameFlagContents) {
            out.contents[i] = at;
            at += out.buffers[i].size;
        }
    }
    return true;
}

bool parse_reply(const uint8_t* body, size_t size, const FrameBuffer* buffers, uint32_t count,
                 ReplyView& out) {
    if (count > kMaxBuffers) return false;
    const size_t header = reply_header_bytes(count) - kFrameLengthBytes;
    if (size < header || size > kMaxFrameLength) return false;
    out.status = le::get32(body, 0);
    for (uint32_t i = 0; i < count; ++i) out.written[i] = le::get32(body, 4 + 4 * size_t{i});
    if (!reply_header_valid(static_cast<uint32_t>(size), out.written, buffers, count)) return false;
    const uint8_t* at = body + header;
    for (uint32_t i = 0; i < count; ++i) {
        out.contents[i] = at;
        at += out.written[i];
    }
    return true;
}

FrameReader::Result FrameReader::feed(const uint8_t* data, size_t size, size_t& consumed) {
    consumed = 0;
    if (m_broken) return Result::Malformed;
    if (m_complete) {
        // The previous frame has been handed out; start the next one.
        m_complete = false;
        m_inBody = false;
        m_have = 0;
        m_body.clear();
    }
    while (consumed < size) {
        if (!m_inBody) {
            const size_t take = std::min(kFrameLengthBytes - m_have, size - consumed);
            std::memcpy(m_lengthBytes + m_have, data + consumed, take);
            m_have += take;
            consumed += take;
            if (m_have < kFrameLengthBytes) return Result::NeedMore;
            m_length = le::get32(m_lengthBytes);
            if (m_length > kMaxFrameLength) {
                m_broken = true;
                return Result::Malformed;
            }
            m_inBody = true;
            m_body.clear();
            m_body.reserve(m_length);
        }
        const size_t take = std::min<size_t>(m_length - m_body.size(), size - consumed);
        m_body.insert(m_body.end(), data + consumed, data + consumed + take);
        consumed += take;
        if (m_body.size() == m_length) {
            m_complete = true;
            return Result::Frame;
        }
    }
    return Result::NeedMore;
}

void advance_iovecs(iovec*& iov, int& iovcnt, size_t n) {
    while (iovcnt > 0 && n >= iov->iov_len) {
        n -= iov->iov_len;
        ++iov;
        --iovcnt;
    }
    if (iovcnt > 0) {
        iov->iov_base = static_cast<uint8_t*>(iov->iov_base) + n;
        iov->iov_len -= n;
    }
}

}  // namespace toolgate
