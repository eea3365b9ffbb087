// Registration of a guest tool with the host's tool service (not yet connected).
#include "toolservice/registration.h"

#include <cstring>

namespace qvx {

void make_tool_info(ToolInfo* info, uint32_t, uint32_t) {
    if (info != nullptr) std::memset(info->bytes, 0, sizeof info->bytes);
}

int32_t register_tool(const char*, const char*, const ToolInfo*, const char*, const void*,
                      uint32_t) {
    return -5;
}

int32_t unregister_tool(const char*) {
    return -5;
}

int32_t register_tool(ServiceHandle*, const char*, const char*, const ToolInfo*, const char*,
                      const void*, uint32_t) {
    return -5;
}

int32_t unregister_tool(ServiceHandle*, const char*) {
    return -5;
}

}  // namespace qvx
