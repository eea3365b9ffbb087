// The tool's one connection to the toolgate driver and the exchange of one DnD message.
#pragma once

#include <cstdint>
#include <functional>

#include <IOKit/IOKitLib.h>

namespace qvx {

class CommonMacCommunicator {
  public:
    // Opens the user-client connection to the "QvxPCIToolGate" service. A failure is
    // logged and leaves the handle 0: the object exists and every call fails with -5.
    CommonMacCommunicator();
    ~CommonMacCommunicator();
    CommonMacCommunicator(const CommonMacCommunicator&) = delete;
    CommonMacCommunicator& operator=(const CommonMacCommunicator&) = delete;

    // Closes the connection; harmless when already closed.
    void Close();
    // Sends one toolgate request (common/toolgate_abi.h) and returns the driver's
    // result; the request's status field then holds the host's completion status.
    kern_return_t Call(void* request);
    io_connect_t handle() const { return m_connection; }

  private:
    io_connect_t m_connection = 0;
};

// The exchange of one record and its reply; the signature of SendDnDCommand, and the
// seam through which tests play the host.
using SendFunction = std::function<bool(CommonMacCommunicator* communicator, const void* out,
                                        uint32_t outSize, void* reply, uint32_t replySize)>;

// True only when the call succeeded and the host completed the request with status 0.
bool SendDnDCommand(CommonMacCommunicator* communicator, const void* out, uint32_t outSize,
                    void* reply, uint32_t replySize);

}  // namespace qvx
