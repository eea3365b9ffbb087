// The tool service's wire facts shared by the client and the simulated host: the control
// block of a driver send, the request prefix, and the element tags of a request.
#pragma once

#include <cstddef>
#include <cstdint>

namespace qvx::service_wire {

// Control block of a driver send (buffer 0 of request 0x8050).
inline constexpr size_t kControlSize = 32;
inline constexpr size_t kCtlSize = 0;
inline constexpr size_t kCtlInputSize = 8;
inline constexpr size_t kCtlOutputSize = 12;  // in: room for the answer; out: bytes placed
inline constexpr size_t kCtlNeeded = 16;
inline constexpr size_t kCtlResult = 20;

// The caller's prefix in front of the container of every request.
inline constexpr uint32_t kPrefixSize = 16;
inline constexpr uint32_t kPrefix[4] = {14, 0, 1, 0};

// Element tags.
inline constexpr uint32_t kTagVersion = 0x2001;
inline constexpr uint32_t kTagDisplayName = 0x20CA;
inline constexpr uint32_t kTagToolInfo = 0x20CB;
inline constexpr uint32_t kTagText = 0x20CC;
inline constexpr uint32_t kTagData = 0x20CD;
inline constexpr uint32_t kTagOperation = 0x20CF;
inline constexpr uint32_t kTagIdentifier = 0x2191;

inline constexpr uint32_t kFormatVersion[2] = {1, 3};
inline constexpr uint32_t kToolInfoSize = 40;
inline constexpr uint32_t kOperationUnregister = 2;

}  // namespace qvx::service_wire
