// The toolgate user-client connection and the exchange of one DnD message over it.
#include "channel/communicator.h"

#include <cstring>

#include <mach/mach.h>

#include "common/byte_order.h"
#include "common/toolgate_abi.h"
#include "log/log.h"

namespace qvx {

namespace {
constexpr const char* kComponent = "qvxdragdrop";
constexpr const char* kTagCom = "COMMON_COM";
constexpr const char* kTagTool = "DNDTOOL";
constexpr const char* kServiceClass = "QvxPCIToolGate";
constexpr kern_return_t kNotConnected = static_cast<kern_return_t>(0xFFFFFFFB);
}  // namespace

CommonMacCommunicator::CommonMacCommunicator() {
    m_connection = 0;
    mach_port_t masterPort = 0;
    kern_return_t kr = IOMasterPort(MACH_PORT_NULL, &masterPort);
    if (kr != KERN_SUCCESS) {
        log_message(kTagCom, kComponent, 0, "IOMasterPort returned %d\n", kr);
        return;
    }
    CFMutableDictionaryRef matching = IOServiceMatching(kServiceClass);
    if (!matching) {
        log_message(kTagCom, kComponent, 0, "IOServiceMatching returned a NULL dictionary.");
        return;
    }
    io_iterator_t iterator = 0;
    kr = IOServiceGetMatchingServices(masterPort, matching, &iterator);
    if (kr != KERN_SUCCESS) {
        log_message(kTagCom, kComponent, 0, "IOServiceGetMatchingServices returned 0x%08x",
                    static_cast<unsigned>(kr));
        return;
    }
    io_service_t service = IOIteratorNext(iterator);
    IOObjectRelease(iterator);
    if (!service) {
        log_message(kTagCom, kComponent, 0, "qvx_tg driver is not loaded.");
        return;
    }
    io_connect_t connection = 0;
    kr = IOServiceOpen(service, mach_task_self(), 0, &connection);
    IOObjectRelease(service);
    if (kr != KERN_SUCCESS) {
        log_message(kTagCom, kComponent, 0, "IOServiceOpen returned 0x%08x",
                    static_cast<unsigned>(kr));
        return;
    }
    m_connection = connection;
}

CommonMacCommunicator::~CommonMacCommunicator() {
    Close();
}

void CommonMacCommunicator::Close() {
    if (m_connection == 0) return;
    const kern_return_t kr = IOServiceClose(m_connection);
    if (kr != KERN_SUCCESS)
        log_message(kTagCom, kComponent, 0, "IOServiceClose returned 0x%08x",
                    static_cast<unsigned>(kr));
    m_connection = 0;
}

kern_return_t CommonMacCommunicator::Call(void* request) {
    if (m_connection == 0) return kNotConnected;
    uint8_t input[8];
    le::put64(input, 0, static_cast<uint64_t>(reinterpret_cast<uintptr_t>(request)));
    size_t outSize = 0;
    const kern_return_t kr =
        IOConnectCallStructMethod(m_connection, 0, input, sizeof(input), nullptr, &outSize);
    if (outSize != 0)
        log_message(kTagCom, kComponent, 0, "IOConnectCallStructMethod outSize = %lu\n",
                    static_cast<unsigned long>(outSize));
    return kr;
}

bool SendDnDCommand(CommonMacCommunicator* communicator, const void* out, uint32_t outSize,
                    void* reply, uint32_t replySize) {
    uint8_t request[toolgate::request_size(2)];
    std::memset(request, 0, sizeof(request));
    le::put32(request, toolgate::kOffCode, toolgate::kRequestDnD);
    le::put32(request, toolgate::kOffStatus, toolgate::kStatusUnset);
    le::put16(request, toolgate::kOffBufferCount, 2);
    uint8_t* desc = request + toolgate::kHeaderSize;
    le::put64(desc, toolgate::kDescAddress, reinterpret_cast<uintptr_t>(out));
    le::put32(desc, toolgate::kDescSize, outSize);
    le::put32(desc, toolgate::kDescWritable, 0);
    desc += toolgate::kDescriptorSize;
    le::put64(desc, toolgate::kDescAddress, reinterpret_cast<uintptr_t>(reply));
    le::put32(desc, toolgate::kDescSize, replySize);
    le::put32(desc, toolgate::kDescWritable, 1);

    const int command = static_cast<int>(le::get32(out, 0));
    const kern_return_t kr = communicator->Call(request);
    if (kr < 0) {
        // A call ended by a signal is the stop sequence ending a held poll, not a toolgate
        // that cannot be reached: an error line there would be written at every stop.
        if (kr != kIOReturnAborted)
            log_message(kTagTool, kComponent, 0, "Can't send DnD command [%d] to toolgate",
                        command);
        return false;
    }
    const uint32_t status = le::get32(request, toolgate::kOffStatus);
    if (status == toolgate::kStatusSuccess) return true;
    if (log_verbosity() > 0) {
        if (status == toolgate::kStatusSuspended)
            log_message(kTagTool, kComponent, 1, "DnD command [%d] finished with status suspended",
                        command);
        else
            log_message(kTagTool, kComponent, 1, "DnD command [%d] finished with status [%d]",
                        command, static_cast<int>(status));
    }
    return false;
}

}  // namespace qvx
