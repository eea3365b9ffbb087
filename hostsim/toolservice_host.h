// The host's tool service as the simulated host plays it: the probe, request decoding,
// the registry of guest tools, and the busy and refusal faults.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <vector>

namespace hostsim {

struct RegisteredTool {
    std::string identifier;
    std::string displayName;
    std::vector<uint8_t> toolInfo;  // the 40-byte ToolInfo block, when sent
};

class ToolServiceHost {
  public:
    // Toolgate request 0x8050 without buffers: the open probe. Returns the completion
    // status (0, or busy / a refusal when configured).
    uint32_t probe();
    // Toolgate request 0x8050 with its two buffers, as the guest sent them: the 32-byte
    // control block and the request buffer. The host may write into both; it sets how
    // many leading bytes of each it wrote. Returns the completion status.
    uint32_t send(std::vector<uint8_t>& control, std::vector<uint8_t>& request,
                  uint32_t& controlWritten, uint32_t& requestWritten);

    // Faults: the next `count` probes answer 0xF0000025; every probe answers `status`
    // (0 restores acceptance); the service result written for every send.
    void set_busy_probes(unsigned count);
    void set_probe_status(uint32_t status);
    void set_service_result(int32_t result);

    std::vector<RegisteredTool> registry() const;
    // One decoded line per request ("register quorvex.DragDropTool.guest.mac (DnD tool) ...").
    std::function<void(const std::string& line)> on_trace;

  private:
    mutable std::mutex m_mutex;
    unsigned m_busyProbes = 0;
    uint32_t m_probeStatus = 0;
    int32_t m_serviceResult = 0;
    std::map<std::string, RegisteredTool> m_registry;
};

}  // namespace hostsim
