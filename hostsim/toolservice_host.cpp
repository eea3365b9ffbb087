// The host's tool service as the simulated host plays it: the probe, request decoding,
// the registry of guest tools, and the busy and refusal faults.
#include "hostsim/toolservice_host.h"

#include <optional>

#include "common/byte_order.h"
#include "common/toolgate_abi.h"
#include "toolservice/service_buffer.h"
#include "toolservice/service_wire.h"

namespace hostsim {

namespace {

using namespace qvx::service_wire;

namespace le = qvx::le;

// A malformed control block is a driver-level failure, not a service answer.
constexpr uint32_t kStatusBadRequest = 0xC0000001;
// Service results for requests the service cannot make sense of.
constexpr int32_t kResultMalformed = -1;

struct Request {
    std::optional<std::string> identifier;
    std::optional<std::string> displayName;
    std::vector<uint8_t> toolInfo;
    uint32_t operation = 0;
    bool versioned = false;
};

std::string text_of(const qvx::ServiceWriter& reader) {
    const uint8_t* data = qvx::reader_element_data(&reader);
    return std::string(reinterpret_cast<const char*>(data), qvx::reader_element_length(&reader));
}

// Walks the request with the guest's own reader, so every bound is checked the same way.
std::optional<Request> decode(const std::vector<uint8_t>& buffer, uint32_t inputSize,
                              std::string& why) {
    if (inputSize > buffer.size() || inputSize < kPrefixSize) {
        why = "short request";
        return std::nullopt;
    }
    for (uint32_t i = 0; i < 4; ++i) {
        if (le::get32(buffer.data(), i * 4) != kPrefix[i]) {
            why = "bad prefix";
            return std::nullopt;
        }
    }
    qvx::ServiceWriter reader{};
    int32_t status = qvx::reader_open(&reader, buffer.data(), inputSize, kPrefixSize);
    Request request;
    for (; status == qvx::kSbOk; status = qvx::reader_next(&reader)) {
        const uint32_t length = qvx::reader_element_length(&reader);
        switch (qvx::reader_element_tag(&reader)) {
            case kTagVersion:
                request.versioned = true;
                break;
            case kTagDisplayName:
                request.displayName = text_of(reader);
                break;
            case kTagToolInfo:
                if (length == kToolInfoSize) {
                    const uint8_t* data = qvx::reader_element_data(&reader);
                    request.toolInfo.assign(data, data + length);
                }
                break;
            case kTagOperation:
                if (length == 4)
                    request.operation = le::get32(qvx::reader_element_data(&reader), size_t{0});
                break;
            case kTagIdentifier:
                request.identifier = text_of(reader);
                break;
            default:
                break;  // further text and caller data: accepted, not kept
        }
    }
    if (status != qvx::kSbEnd) {
        why = "reader status " + std::to_string(status);
        return std::nullopt;
    }
    if (!request.versioned || !request.identifier || request.identifier->empty()) {
        why = "missing version or identifier";
        return std::nullopt;
    }
    return request;
}

}  // namespace

uint32_t ToolServiceHost::probe() {
    std::lock_guard<std::mutex> lock(m_mutex);
    if (m_busyProbes > 0) {
        --m_busyProbes;
        return toolgate::kStatusBusy;
    }
    return m_probeStatus;
}

uint32_t ToolServiceHost::send(std::vector<uint8_t>& control, std::vector<uint8_t>& request,
                               uint32_t& controlWritten, uint32_t& requestWritten) {
    controlWritten = 0;
    requestWritten = 0;
    if (control.size() < kControlSize || le::get32(control.data(), size_t{0}) != kControlSize)
        return kStatusBadRequest;
    const uint32_t inputSize = le::get32(control.data(), kCtlInputSize);

    std::string line;
    int32_t result;
    std::string why;
    std::optional<Request> decoded = decode(request, inputSize, why);
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        result = m_serviceResult;
        if (!decoded) {
            result = kResultMalformed;
            line = "malformed tool service request (" + why + ")";
        } else if (decoded->operation == kOperationUnregister) {
            line = "unregister " + *decoded->identifier;
            if (result >= 0) m_registry.erase(*decoded->identifier);
        } else {
            line = "register " + *decoded->identifier;
            if (decoded->displayName) line += " (" + *decoded->displayName + ")";
            if (!decoded->toolInfo.empty())
                line += " build " + std::to_string(le::get32(decoded->toolInfo.data(), 8));
            if (result >= 0) {
                RegisteredTool& tool = m_registry[*decoded->identifier];
                tool.identifier = *decoded->identifier;
                tool.displayName = decoded->displayName.value_or("");
                tool.toolInfo = decoded->toolInfo;
            }
        }
    }
    if (result < 0 && decoded) line += " refused " + std::to_string(result);

    // The service never answers these requests: nothing placed, nothing needed.
    le::put32(control.data(), kCtlOutputSize, 0);
    le::put32(control.data(), kCtlNeeded, 0);
    le::put32(control.data(), kCtlResult, static_cast<uint32_t>(result));
    controlWritten = kControlSize;

    std::function<void(const std::string&)> trace;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        trace = on_trace;
    }
    if (trace) trace(line);
    return toolgate::kStatusSuccess;
}

void ToolServiceHost::set_busy_probes(unsigned count) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_busyProbes = count;
}

void ToolServiceHost::set_probe_status(uint32_t status) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_probeStatus = status;
}

void ToolServiceHost::set_service_result(int32_t result) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_serviceResult = result;
}

std::vector<RegisteredTool> ToolServiceHost::registry() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    std::vector<RegisteredTool> tools;
    for (const auto& [identifier, tool] : m_registry) tools.push_back(tool);
    return tools;
}

}  // namespace hostsim
