// Registration of a guest tool with the host's tool service, and its removal.
#pragma once

#include <cstdint>

namespace qvx {

struct ServiceHandle;

// The 40-byte tool description the host keeps beside the identifier.
struct ToolInfo {
    uint8_t bytes[40];
};

// Fills `info` with this build's description and the two caller values.
void make_tool_info(ToolInfo* info, uint32_t a, uint32_t b);

// Results: 0 taken; -1 bad arguments; -2 no request buffer; -3 an element could not be
// added; -4 the send failed; -5 no handle could be opened; -6 (unregister) the service
// reported a negative result. A failure leaves no handle open and nothing allocated.
int32_t register_tool(const char* identifier, const char* displayName, const ToolInfo* info,
                      const char* text, const void* data, uint32_t dataLength);
int32_t unregister_tool(const char* identifier);

// The same requests on a handle the caller has opened and will close.
int32_t register_tool(ServiceHandle* handle, const char* identifier, const char* displayName,
                      const ToolInfo* info, const char* text, const void* data,
                      uint32_t dataLength);
int32_t unregister_tool(ServiceHandle* handle, const char* identifier);

}  // namespace qvx
