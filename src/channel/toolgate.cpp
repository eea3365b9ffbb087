// The toolgate driver's service lookup and request record.
#include "channel/toolgate.h"

#include <cstring>

#include "common/byte_order.h"
#include "common/toolgate_abi.h"

namespace qvx {

ToolgateLookup find_toolgate(io_connect_t* connection) {
    mach_port_t masterPort = 0;
    kern_return_t kr = IOMasterPort(MACH_PORT_NULL, &masterPort);
    if (kr != KERN_SUCCESS) return {ToolgateStep::MasterPort, kr};
    CFMutableDictionaryRef matching = IOServiceMatching("QvxPCIToolGate");
    if (!matching) return {ToolgateStep::Matching, KERN_SUCCESS};
    io_iterator_t iterator = 0;
    // Consumes the dictionary whatever the result.
    kr = IOServiceGetMatchingServices(masterPort, matching, &iterator);
    if (kr != KERN_SUCCESS) return {ToolgateStep::Lookup, kr};
    const io_service_t service = IOIteratorNext(iterator);
    IOObjectRelease(iterator);
    if (!service) return {ToolgateStep::NoService, KERN_SUCCESS};
    kr = connection ? IOServiceOpen(service, mach_task_self(), 0, connection) : KERN_SUCCESS;
    IOObjectRelease(service);
    if (kr != KERN_SUCCESS) return {ToolgateStep::Open, kr};
    return {};
}

void init_toolgate_request(uint8_t* request, uint32_t code, uint32_t status, uint16_t buffers) {
    std::memset(request, 0, toolgate::request_size(buffers));
    le::put32(request, toolgate::kOffCode, code);
    le::put32(request, toolgate::kOffStatus, status);
    le::put16(request, toolgate::kOffBufferCount, buffers);
}

void put_toolgate_buffer(uint8_t* request, uint32_t index, const void* address, uint32_t size,
                         bool writable) {
    uint8_t* desc = request + toolgate::kHeaderSize + index * toolgate::kDescriptorSize;
    le::put64(desc, toolgate::kDescAddress, reinterpret_cast<uintptr_t>(address));
    le::put32(desc, toolgate::kDescSize, size);
    le::put32(desc, toolgate::kDescWritable, writable ? 1 : 0);
}

}  // namespace qvx
