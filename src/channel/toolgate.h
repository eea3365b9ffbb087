// The toolgate driver as every guest-side user reaches it: finding and opening its
// "QvxPCIToolGate" service, and building the request record handed to the driver.
#pragma once

#include <cstdint>

#include <IOKit/IOKitLib.h>

namespace qvx {

// Where finding (and opening) the service stopped. Callers keep their own log texts for
// each step, so the step and the failed call's result are handed back, not logged here.
enum class ToolgateStep : uint8_t {
    Done,        // found, and opened when a connection was asked for
    MasterPort,  // IOMasterPort failed
    Matching,    // IOServiceMatching gave no dictionary
    Lookup,      // IOServiceGetMatchingServices failed
    NoService,   // no such service: the driver is not loaded
    Open,        // IOServiceOpen failed
};

struct ToolgateLookup {
    ToolgateStep step = ToolgateStep::Done;
    kern_return_t result = KERN_SUCCESS;  // of the failed call, where it returns one
};

// Finds the first "QvxPCIToolGate" service and, when `connection` is given, opens a
// user-client connection (type 0, own task) into it. Every object taken is released.
ToolgateLookup find_toolgate(io_connect_t* connection = nullptr);

// Clears a request with `buffers` descriptors and writes its header: the request code,
// the preset status, and the buffer count.
void init_toolgate_request(uint8_t* request, uint32_t code, uint32_t status, uint16_t buffers);
// Writes descriptor `index`: the buffer's address and size, and whether the host writes it.
void put_toolgate_buffer(uint8_t* request, uint32_t index, const void* address, uint32_t size,
                         bool writable);

}  // namespace qvx
