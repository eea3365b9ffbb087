// The toolgate driver's request record: what the guest hands to the driver with
// IOConnectCallStructMethod (selector 0, the record's address as input structure).
#pragma once

#include <cstddef>
#include <cstdint>

namespace toolgate {

inline constexpr uint32_t kRequestDnD = 0x8304;          // one DnD message exchange
inline constexpr uint32_t kRequestToolService = 0x8050;  // one tool service request

// The u16 inline size at +8 (unused by DnD) and the u32 at +12 stay zero.
inline constexpr size_t kOffCode = 0;
inline constexpr size_t kOffStatus = 4;
inline constexpr size_t kOffBufferCount = 10;  // u16
inline constexpr size_t kHeaderSize = 16;

// Buffer descriptor i starts at kHeaderSize + i * kDescriptorSize.
inline constexpr size_t kDescriptorSize = 16;
inline constexpr size_t kDescAddress = 0;    // u64 user-space address
inline constexpr size_t kDescSize = 8;       // u32
inline constexpr size_t kDescWritable = 12;  // u32, 1: the host writes the buffer
inline constexpr uint32_t kMaxBuffers = 16;

inline constexpr size_t request_size(uint32_t buffers) {
    return kHeaderSize + buffers * kDescriptorSize;
}

// Completion statuses written by the host into the status field.
inline constexpr uint32_t kStatusSuccess = 0;
inline constexpr uint32_t kStatusSuspended = 0xF0000020;
inline constexpr uint32_t kStatusBusy = 0xF0000025;
inline constexpr uint32_t kStatusUnset = 0xFFFFFFFF;

}  // namespace toolgate
