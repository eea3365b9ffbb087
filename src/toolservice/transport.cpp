// Transports of tool-service requests: the toolgate driver and the paravirtual calls.
#include "toolservice/transport.h"

#include <setjmp.h>
#include <signal.h>

#include <cstring>
#include <mutex>

#include <IOKit/IOKitLib.h>

#include "channel/toolgate.h"
#include "common/byte_order.h"
#include "common/toolgate_abi.h"
#include "platform/seams/clock.h"
#include "platform/seams/pvcall.h"
#include "toolservice/service_wire.h"

namespace qvx {

namespace {

using namespace qvx::service_wire;

// Outcomes of one driver call. Callers of a send only ever see kCallFailed; the open
// uses the difference to retry a call the host never completed.
constexpr uint32_t kCallOk = 0;
constexpr uint32_t kCallFailed = 0x80004005;
// The request never reached the host (the connection was gone before it went out); the
// next call opens a fresh one, so one more try is safe.
constexpr uint32_t kCallCancelled = 0x800704D5;
// The connection broke while the host had the request; the host may have acted on it.
constexpr uint32_t kCallAborted = 0x800703E3;

// A busy host is asked again after a short pause, but not forever: the control thread
// must get on with polling when the service never settles.
constexpr int kMaxBusyRetries = 50;
constexpr useconds_t kBusyPauseMicros = 20000;

// Paravirtual call functions and detection values.
constexpr uint32_t kPvDetect = 0x05F9E652;
constexpr uint32_t kPvOpenTransfer = 0x05F9E653;
constexpr uint32_t kPvTransfer = 0x05F9E654;
constexpr uint32_t kPvClose = 0x05F9E655;
constexpr uint32_t kPvPresent = 0x0B36AF47;
constexpr uint32_t kPvVersion = 2;
constexpr int32_t kPvStatusCloseOnOverflow = 2;
// A host that keeps asking for more calls without moving a byte would hold the control
// thread forever; this many such calls in a row end the exchange.
constexpr uint32_t kPvMaxIdleCalls = 100000;

constexpr int32_t kNoStream = -1;

uint32_t driver_call(io_connect_t connection, uint8_t* request) {
    uint64_t address = reinterpret_cast<uintptr_t>(request);
    kern_return_t kr =
        IOConnectCallStructMethod(connection, 0, &address, sizeof address, nullptr, nullptr);
    if (kr == kIOReturnSuccess) return kCallOk;
    if (kr == kIOReturnNotAttached) return kCallCancelled;
    if (kr == kIOReturnIOError || kr == kIOReturnAborted) return kCallAborted;
    return kCallFailed;
}

// Opens a connection of our own and asks the host whether its tool service listens.
int32_t driver_open(uint64_t* link) {
    io_connect_t connection = 0;
    if (find_toolgate(&connection).step != ToolgateStep::Done) return kServiceNoTransport;
    alignas(8) uint8_t probe[toolgate::kHeaderSize];
    int busyRetries = 0;
    bool retriedCancelled = false;
    for (;;) {
        init_toolgate_request(probe, toolgate::kRequestToolService, 0, 0);
        uint32_t call = driver_call(connection, probe);
        if (call == kCallCancelled && !retriedCancelled) {
            retriedCancelled = true;
            continue;
        }
        if (call != kCallOk) {
            IOServiceClose(connection);
            return kServiceNoTransport;
        }
        uint32_t status = le::get32(probe, toolgate::kOffStatus);
        if (status == toolgate::kStatusBusy && busyRetries < kMaxBusyRetries) {
            ++busyRetries;
            platform::clock_usleep(kBusyPauseMicros);
            continue;
        }
        if (status != toolgate::kStatusSuccess) {
            IOServiceClose(connection);
            return kServiceRefused;
        }
        *link = connection;
        return kServiceOk;
    }
}

int32_t driver_send(ServiceHandle* handle, uint8_t* buffer, uint32_t inputSize, uint32_t outputSize,
                    uint32_t* answerLength) {
    alignas(8) uint8_t control[kControlSize] = {};
    le::put32(control, kCtlSize, kControlSize);
    le::put32(control, kCtlInputSize, inputSize);
    le::put32(control, kCtlOutputSize, outputSize);
    alignas(8) uint8_t request[toolgate::request_size(2)];
    init_toolgate_request(request, toolgate::kRequestToolService, 0, 2);
    put_toolgate_buffer(request, 0, control, kControlSize, true);
    put_toolgate_buffer(request, 1, buffer, inputSize > outputSize ? inputSize : outputSize, true);
    if (answerLength != nullptr) *answerLength = 0;

    handle->state = kServiceNotOpen;
    if (handle->link == 0) return kServiceNotOpen;
    // A send is not retried even when cancelled: the host may have acted on it already.
    if (driver_call(static_cast<io_connect_t>(handle->link), request) != kCallOk)
        return kServiceCallFailed;
    if (le::get32(request, toolgate::kOffStatus) != toolgate::kStatusSuccess)
        return kServiceRefused;
    int32_t result = static_cast<int32_t>(le::get32(control, kCtlResult));
    handle->state = result;
    if (result < 0) return kServiceFailed;
    uint32_t placed = le::get32(control, kCtlOutputSize);
    if (le::get32(control, kCtlNeeded) > outputSize || placed > outputSize)
        return kServiceAnswerTooBig;
    if (answerLength != nullptr) *answerLength = placed;
    return kServiceOk;
}

void pv_close_stream(uint32_t stream) {
    platform::PvCallRegs regs{kPvClose, stream, 0, 0, 0, 0};
    platform::pv_call(&regs);
}

int32_t pv_send(ServiceHandle* handle, uint8_t* buffer, uint32_t inputSize, uint32_t outputSize,
                uint32_t* answerLength) {
    if (answerLength != nullptr) *answerLength = 0;
    handle->state = kServiceNotOpen;
    const uint32_t maxTransfer = static_cast<uint32_t>(handle->link);
    if (maxTransfer == 0) return kServiceBadArgs;

    int64_t stream = kNoStream;
    handle->state = kServiceStateStarting;
    uint32_t sent = 0, received = 0, idleCalls = 0;
    int32_t status;
    do {
        const uint32_t remaining = inputSize - sent;
        uint32_t callInput = remaining;
        if (remaining > maxTransfer) {
            // The last input call carries a full T when the input is longer than T.
            callInput =
                remaining - maxTransfer < maxTransfer ? remaining - maxTransfer : maxTransfer;
        }
        // Signed: a host that placed more than it was asked for must not make the
        // room of a later call wrap around.
        int64_t room;
        if (callInput > 0)
            room = outputSize <= inputSize ? callInput : int64_t{outputSize} - sent;
        else
            room = int64_t{outputSize} - received;
        if (room < 0) room = 0;
        if (room > maxTransfer) room = maxTransfer;
        uint8_t* at = buffer + (callInput > 0 ? sent : received);

        platform::PvCallRegs regs{};
        regs.rax = stream == kNoStream ? kPvOpenTransfer : kPvTransfer;
        regs.rbx = stream == kNoStream ? inputSize : static_cast<uint32_t>(stream);
        regs.rcx = room > 0 ? 1 : 0;
        regs.rdx = static_cast<uint64_t>(room > callInput ? room : callInput);
        regs.rsi = callInput;
        regs.rdi = reinterpret_cast<uintptr_t>(at);
        if (!platform::pv_call(&regs)) return kServiceNoTransport;
        if (stream == kNoStream) stream = static_cast<uint32_t>(regs.rbx);
        const uint32_t placed = static_cast<uint32_t>(regs.rdx);
        const uint32_t answerTotal = static_cast<uint32_t>(regs.rsi);
        status = static_cast<int32_t>(static_cast<uint32_t>(regs.rdi));
        if (status < 0) return kServiceFailed;

        handle->state = status;
        if (answerTotal > outputSize || placed > room) {
            if (status == kPvStatusCloseOnOverflow) pv_close_stream(static_cast<uint32_t>(stream));
            return kServiceAnswerTooBig;
        }
        if (callInput > 0 && placed > 0 && received < sent)
            std::memmove(buffer + received, buffer + sent, placed);  // downward: safe overlap
        sent += callInput;
        received += placed;

        idleCalls = (callInput == 0 && placed == 0) ? idleCalls + 1 : 0;
        if (status != 0 && idleCalls >= kPvMaxIdleCalls) {
            pv_close_stream(static_cast<uint32_t>(stream));
            return kServiceRefused;
        }
    } while (status != 0);

    if (answerLength != nullptr) *answerLength = received;
    handle->state = 0;
    return kServiceOk;
}

// --- protected detection -------------------------------------------------------------

std::mutex g_detectMutex;  // the handlers and their return slot are process-wide
sigjmp_buf g_detectReturn;
thread_local volatile sig_atomic_t t_detectArmed = 0;
struct sigaction g_previousIll;
struct sigaction g_previousSegv;

void forward_to_previous(int sig, siginfo_t* info, void* context) {
    const struct sigaction& previous = sig == SIGILL ? g_previousIll : g_previousSegv;
    if ((previous.sa_flags & SA_SIGINFO) != 0 && previous.sa_sigaction != nullptr) {
        previous.sa_sigaction(sig, info, context);
    } else if (previous.sa_handler != SIG_DFL && previous.sa_handler != SIG_IGN &&
               previous.sa_handler != nullptr) {
        previous.sa_handler(sig);
    } else {
        // Let the faulting instruction run again under the action it had before.
        sigaction(sig, &previous, nullptr);
    }
}

void detect_fault(int sig, siginfo_t* info, void* context) {
    // A fault on another thread while the guard is up is not ours to swallow.
    if (t_detectArmed == 0) {
        forward_to_previous(sig, info, context);
        return;
    }
    t_detectArmed = 0;
    siglongjmp(g_detectReturn, sig == 0 ? -1 : sig);
}

int32_t run_detect_call(uint32_t* version, uint32_t* maxTransfer) {
    platform::PvCallRegs regs{kPvDetect, kPvDetect, 0, 0, 0, 0};
    t_detectArmed = 1;
    bool executed = platform::pv_call(&regs);
    t_detectArmed = 0;
    if (!executed) return kServiceNoTransport;
    if (static_cast<uint32_t>(regs.rax) != kPvPresent || static_cast<uint32_t>(regs.rdx) != 0 ||
        static_cast<uint32_t>(regs.rsi) != 0 || static_cast<uint32_t>(regs.rdi) != 0)
        return kServiceNoTransport;
    if (static_cast<uint32_t>(regs.rbx) != kPvVersion) return kServiceRefused;
    *version = static_cast<uint32_t>(regs.rbx);
    *maxTransfer = static_cast<uint32_t>(regs.rcx);
    return kServiceOk;
}

}  // namespace

int32_t service_detect_paravirtual(uint32_t* version, uint32_t* maxTransfer) {
    std::lock_guard<std::mutex> lock(g_detectMutex);
    struct sigaction guard;
    std::memset(&guard, 0, sizeof guard);
    guard.sa_sigaction = detect_fault;
    guard.sa_flags = SA_SIGINFO;
    sigemptyset(&guard.sa_mask);
    const bool illInstalled = sigaction(SIGILL, &guard, &g_previousIll) == 0;
    const bool segvInstalled = sigaction(SIGSEGV, &guard, &g_previousSegv) == 0;

    uint32_t foundVersion = 0, foundMax = 0;
    volatile int32_t result = kServiceNoTransport;
    // Saving the signal mask lets the jump back also unblock the signal being handled.
    if (sigsetjmp(g_detectReturn, 1) == 0) result = run_detect_call(&foundVersion, &foundMax);

    if (segvInstalled) sigaction(SIGSEGV, &g_previousSegv, nullptr);
    if (illInstalled) sigaction(SIGILL, &g_previousIll, nullptr);
    if (result == kServiceOk) {
        if (version != nullptr) *version = foundVersion;
        if (maxTransfer != nullptr) *maxTransfer = foundMax;
    }
    return result;
}

int32_t service_open(ServiceHandle* handle, uint32_t mode) {
    if (handle == nullptr || mode > kServiceModeDriver) return kServiceBadArgs;
    handle->state = kServiceStateClosed;
    handle->link = 0;
    if (mode == kServiceModeAuto || mode == kServiceModeDriver) {
        handle->magic = kServiceMagicDriver;
        int32_t result = driver_open(&handle->link);
        if (result == kServiceOk) {
            handle->state = 0;
            return kServiceOk;
        }
        if (result == kServiceNoTransport || mode == kServiceModeDriver) return result;
    }
    handle->magic = kServiceMagicParavirtual;
    uint32_t version = 0, maxTransfer = 0;
    int32_t result = service_detect_paravirtual(&version, &maxTransfer);
    if (result != kServiceOk) return result;
    handle->link = maxTransfer;
    handle->state = 0;
    return kServiceOk;
}

int32_t service_close(ServiceHandle* handle) {
    if (handle == nullptr) return kServiceBadArgs;
    if (handle->magic == kServiceMagicDriver && handle->link != 0) {
        IOServiceClose(static_cast<io_connect_t>(handle->link));
        handle->link = 0;
    }
    handle->state = kServiceStateClosed;
    return kServiceOk;
}

int32_t service_send(ServiceHandle* handle, void* buffer, uint32_t inputSize, uint32_t outputSize,
                     uint32_t* answerLength) {
    if (handle == nullptr || buffer == nullptr || (inputSize == 0 && outputSize == 0))
        return kServiceBadArgs;
    uint8_t* bytes = static_cast<uint8_t*>(buffer);
    switch (handle->magic) {
        case kServiceMagicDriver:
            return driver_send(handle, bytes, inputSize, outputSize, answerLength);
        case kServiceMagicParavirtual:
            return pv_send(handle, bytes, inputSize, outputSize, answerLength);
        default:
            return kServiceBadMagic;
    }
}

}  // namespace qvx
