// The toolgate user-client connection and the exchange of one DnD message over it.
#include "channel/communicator.h"

#include <mach/mach.h>

#include "channel/toolgate.h"
#include "common/byte_order.h"
#include "common/toolgate_abi.h"
#include "log/log.h"

namespace qvx {

namespace {
constexpr const char* kComponent = "qvxdragdrop";
constexpr const char* kTagCom = "COMMON_COM";
constexpr const char* kTagTool = "DNDTOOL";
constexpr kern_return_t kNotConnected = static_cast<kern_return_t>(0xFFFFFFFB);
}  // namespace

CommonMacCommunicator::CommonMacCommunicator() {
    m_connection = 0;
    io_connect_t connection = 0;
    const ToolgateLookup found = find_toolgate(&connection);
    const auto code = static_cast<unsigned>(found.result);
    switch (found.step) {
        case ToolgateStep::Done:
            m_connection = connection;
            break;
        case ToolgateStep::MasterPort:
            log_message(kTagCom, kComponent, 0, "IOMasterPort returned %d\n", found.result);
            break;
        case ToolgateStep::Matching:
            log_message(kTagCom, kComponent, 0, "IOServiceMatching returned a NULL dictionary.");
            break;
        case ToolgateStep::Lookup:
            log_message(kTagCom, kComponent, 0, "IOServiceGetMatchingServices returned 0x%08x",
                        code);
            break;
        case ToolgateStep::NoService:
            log_message(kTagCom, kComponent, 0, "qvx_tg driver is not loaded.");
            break;
        case ToolgateStep::Open:
            log_message(kTagCom, kComponent, 0, "IOServiceOpen returned 0x%08x", code);
            break;
    }
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
    init_toolgate_request(request, toolgate::kRequestDnD, toolgate::kStatusUnset, 2);
    put_toolgate_buffer(request, 0, out, outSize, false);
    put_toolgate_buffer(request, 1, reply, replySize, true);

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
