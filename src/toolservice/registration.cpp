// Registration of a guest tool with the host's tool service, and its removal.
#include "toolservice/registration.h"

#include <cstring>

#include "build_info.h"
#include "common/byte_order.h"
#include "toolservice/service_buffer.h"
#include "toolservice/service_wire.h"
#include "toolservice/transport.h"

namespace qvx {

namespace {

using namespace qvx::service_wire;

static_assert(sizeof(ToolInfo::bytes) == kToolInfoSize);

constexpr int32_t kBadArgs = -1;
constexpr int32_t kNoBuffer = -2;
constexpr int32_t kPutFailed = -3;
constexpr int32_t kSendFailed = -4;
constexpr int32_t kNoHandle = -5;
constexpr int32_t kServiceRejected = -6;

int32_t start_request(ServiceWriter* writer) {
    if (writer_init(writer, kPrefixSize) != kSbOk) return kNoBuffer;
    for (uint32_t i = 0; i < 4; ++i) le::put32(writer_data(writer), i * 4, kPrefix[i]);
    uint8_t version[8];
    le::put32(version, 0, kFormatVersion[0]);
    le::put32(version, 4, kFormatVersion[1]);
    if (writer_put(writer, version, sizeof version, kTagVersion, nullptr) != kSbOk)
        return kPutFailed;
    return 0;
}

int32_t put_text(ServiceWriter* writer, const char* text, uint32_t tag) {
    return writer_put(writer, text, safe_strlen(text), tag, nullptr) == kSbOk ? 0 : kPutFailed;
}

int32_t send_request(ServiceHandle* handle, ServiceWriter* writer) {
    return service_send(handle, writer_data(writer), writer_total_size(writer), 0, nullptr);
}

int32_t build_and_send_registration(ServiceHandle* handle, const char* identifier,
                                    const char* displayName, const ToolInfo* info, const char* text,
                                    const void* data, uint32_t dataLength) {
    ServiceWriter writer{};
    int32_t result = start_request(&writer);
    if (result == kNoBuffer) return result;
    if (result == 0 && displayName != nullptr)
        result = put_text(&writer, displayName, kTagDisplayName);
    if (result == 0 && info != nullptr &&
        writer_put(&writer, info->bytes, sizeof info->bytes, kTagToolInfo, nullptr) != kSbOk)
        result = kPutFailed;
    if (result == 0 && text != nullptr) result = put_text(&writer, text, kTagText);
    if (result == 0 && data != nullptr &&
        writer_put(&writer, data, dataLength, kTagData, nullptr) != kSbOk)
        result = kPutFailed;
    if (result == 0) result = put_text(&writer, identifier, kTagIdentifier);
    if (result == 0 && send_request(handle, &writer) != kServiceOk) result = kSendFailed;
    writer_free(&writer);
    return result;
}

int32_t build_and_send_unregistration(ServiceHandle* handle, const char* identifier) {
    ServiceWriter writer{};
    int32_t result = start_request(&writer);
    if (result == kNoBuffer) return result;
    uint8_t operation[4];
    le::put32(operation, 0, kOperationUnregister);
    if (result == 0 &&
        writer_put(&writer, operation, sizeof operation, kTagOperation, nullptr) != kSbOk)
        result = kPutFailed;
    if (result == 0) result = put_text(&writer, identifier, kTagIdentifier);
    if (result == 0) {
        int32_t sent = send_request(handle, &writer);
        if (sent == kServiceFailed)
            result = kServiceRejected;
        else if (sent != kServiceOk)
            result = kSendFailed;
    }
    writer_free(&writer);
    return result;
}

}  // namespace

void make_tool_info(ToolInfo* info, uint32_t a, uint32_t b) {
    if (info == nullptr) return;
    std::memset(info->bytes, 0, sizeof info->bytes);
    le::put32(info->bytes, 0, 15);
    le::put32(info->bytes, 4, 0);
    le::put32(info->bytes, 8, QVX_BUILD_NUMBER);
    le::put32(info->bytes, 12, 0x80000000u);
    le::put32(info->bytes, 16, a);
    le::put32(info->bytes, 20, b);
    le::put32(info->bytes, 24,
              (static_cast<uint32_t>(QVX_VERSION_MAJOR) << 26) | (QVX_BUILD_NUMBER & 0xFFFFu));
    info->bytes[28] = 7;
}

int32_t register_tool(ServiceHandle* handle, const char* identifier, const char* displayName,
                      const ToolInfo* info, const char* text, const void* data,
                      uint32_t dataLength) {
    if (identifier == nullptr || (data == nullptr && dataLength != 0)) return kBadArgs;
    if (handle == nullptr) return kNoHandle;
    return build_and_send_registration(handle, identifier, displayName, info, text, data,
                                       dataLength);
}

int32_t unregister_tool(ServiceHandle* handle, const char* identifier) {
    if (identifier == nullptr) return kBadArgs;
    if (handle == nullptr) return kNoHandle;
    return build_and_send_unregistration(handle, identifier);
}

int32_t register_tool(const char* identifier, const char* displayName, const ToolInfo* info,
                      const char* text, const void* data, uint32_t dataLength) {
    if (identifier == nullptr || (data == nullptr && dataLength != 0)) return kBadArgs;
    ServiceHandle handle{};
    if (service_open(&handle, kServiceModeAuto) != kServiceOk) return kNoHandle;
    int32_t result =
        build_and_send_registration(&handle, identifier, displayName, info, text, data, dataLength);
    service_close(&handle);
    return result;
}

int32_t unregister_tool(const char* identifier) {
    if (identifier == nullptr) return kBadArgs;
    ServiceHandle handle{};
    if (service_open(&handle, kServiceModeAuto) != kServiceOk) return kNoHandle;
    int32_t result = build_and_send_unregistration(&handle, identifier);
    service_close(&handle);
    return result;
}

}  // namespace qvx
