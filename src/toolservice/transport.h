// Transports of tool-service requests: the toolgate driver and the paravirtual calls.
#pragma once

#include <cstdint>

namespace qvx {

struct ServiceHandle {
    int32_t state;   // -11 closed, 0 open, otherwise the transport's last status
    uint32_t magic;  // which transport
    uint64_t link;   // driver: the connection; paravirtual: the maximum transfer size
};

inline constexpr uint32_t kServiceMagicDriver = 0x3F2E8A05;
inline constexpr uint32_t kServiceMagicParavirtual = 0x3F2E8A04;

inline constexpr uint32_t kServiceModeAuto = 0;
inline constexpr uint32_t kServiceModeParavirtual = 1;
inline constexpr uint32_t kServiceModeDriver = 2;

inline constexpr int32_t kServiceStateClosed = -11;
inline constexpr int32_t kServiceStateStarting = -777;  // a paravirtual exchange begins

// Results.
inline constexpr int32_t kServiceOk = 0;
inline constexpr int32_t kServiceBadArgs = -1;
inline constexpr int32_t kServiceNoTransport = -5;
inline constexpr int32_t kServiceRefused = -6;
inline constexpr int32_t kServiceAnswerTooBig = -7;
inline constexpr int32_t kServiceFailed = -8;  // the service reported a negative result
inline constexpr int32_t kServiceBadMagic = -9;
inline constexpr int32_t kServiceNotOpen = -10;
// A driver call of a send that could not be made (negative as an i32).
inline constexpr int32_t kServiceCallFailed = static_cast<int32_t>(0x80004005);

// Mode 0 falls back to the paravirtual calls only when the driver was reached and its
// host refused the probe. Detection installs process-wide signal handlers for a moment:
// never open paravirtually from two threads at once.
int32_t service_open(ServiceHandle* handle, uint32_t mode);
int32_t service_close(ServiceHandle* handle);
// Sends `inputSize` bytes of `buffer`; the answer comes back in the same buffer, which
// must hold the larger of the two sizes.
int32_t service_send(ServiceHandle* handle, void* buffer, uint32_t inputSize, uint32_t outputSize,
                     uint32_t* answerLength);

// The guarded detection of the paravirtual interface: 0 with its version and maximum
// transfer size, -5 when absent (or the call faults), -6 for another version.
int32_t service_detect_paravirtual(uint32_t* version, uint32_t* maxTransfer);

}  // namespace qvx
