// First cut of the host's tool service: accepts every probe and request.
#include "hostsim/toolservice_host.h"

namespace hostsim {

uint32_t ToolServiceHost::probe() {
    std::lock_guard lock(m_mutex);
    if (m_busyProbes > 0) {
        --m_busyProbes;
        return 0xF0000025;
    }
    return m_probeStatus;
}

uint32_t ToolServiceHost::send(std::vector<uint8_t>&, std::vector<uint8_t>&,
                               uint32_t& controlWritten, uint32_t& requestWritten) {
    controlWritten = 0;
    requestWritten = 0;
    return 0;
}

void ToolServiceHost::set_busy_probes(unsigned count) {
    std::lock_guard lock(m_mutex);
    m_busyProbes = count;
}
void ToolServiceHost::set_probe_status(uint32_t status) {
    std::lock_guard lock(m_mutex);
    m_probeStatus = status;
}
void ToolServiceHost::set_service_result(int32_t result) {
    std::lock_guard lock(m_mutex);
    m_serviceResult = result;
}
std::vector<RegisteredTool> ToolServiceHost::registry() const {
    std::lock_guard lock(m_mutex);
    std::vector<RegisteredTool> out;
    for (const auto& [id, tool] : m_registry) out.push_back(tool);
    return out;
}

}  // namespace hostsim
