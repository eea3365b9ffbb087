// Little-endian accessors: the only way wire records are read and written.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

namespace qvx::le {

// Each accessor copies byte by byte, so fields may sit at any alignment (the DnD
// message keeps a u64 at offset 12) and the host's byte order never matters.
inline uint16_t get16(const uint8_t* p) {
    return static_cast<uint16_t>(p[0] | (p[1] << 8));
}
inline uint32_t get32(const uint8_t* p) {
    return static_cast<uint32_t>(p[0]) | (static_cast<uint32_t>(p[1]) << 8) |
           (static_cast<uint32_t>(p[2]) << 16) | (static_cast<uint32_t>(p[3]) << 24);
}
inline uint64_t get64(const uint8_t* p) {
    return static_cast<uint64_t>(get32(p)) | (static_cast<uint64_t>(get32(p + 4)) << 32);
}
inline void put16(uint8_t* p, uint16_t v) {
    p[0] = static_cast<uint8_t>(v);
    p[1] = static_cast<uint8_t>(v >> 8);
}
inline void put32(uint8_t* p, uint32_t v) {
    for (int i = 0; i < 4; ++i) p[i] = static_cast<uint8_t>(v >> (8 * i));
}
inline void put64(uint8_t* p, uint64_t v) {
    for (int i = 0; i < 8; ++i) p[i] = static_cast<uint8_t>(v >> (8 * i));
}

// Offset-based forms for records held as byte arrays.
inline uint16_t get16(const void* base, size_t off) {
    return get16(static_cast<const uint8_t*>(base) + off);
}
inline uint32_t get32(const void* base, size_t off) {
    return get32(static_cast<const uint8_t*>(base) + off);
}
inline uint64_t get64(const void* base, size_t off) {
    return get64(static_cast<const uint8_t*>(base) + off);
}
inline void put16(void* base, size_t off, uint16_t v) { put16(static_cast<uint8_t*>(base) + off, v); }
inline void put32(void* base, size_t off, uint32_t v) { put32(static_cast<uint8_t*>(base) + off, v); }
inline void put64(void* base, size_t off, uint64_t v) { put64(static_cast<uint8_t*>(base) + off, v); }

}  // namespace qvx::le
