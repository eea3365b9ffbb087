// A scripted paravirtual interface for the tool service tests, installed through the
// pv_call seam, and the platform root every test of this binary shares.
#pragma once

#include <stdlib.h>

#include <cstdint>
#include <functional>
#include <vector>

#include "platform/seams/pvcall.h"
#include "support/temp_dir.h"

namespace tstest {

// platform::root() is read once per process, so the variable is set before main.
inline qvxtest::TempDir& platform_root() {
    static qvxtest::TempDir dir;
    return dir;
}
inline const bool kRootSet = (setenv("QVX_PLATFORM_ROOT", platform_root().path().c_str(), 1), true);

struct PvCall {
    uint32_t function, rbx, rcx;
    uint64_t rdx;
    uint32_t rsi;
    uint64_t rdi;
};

class ScriptedPv {
  public:
    // Answers one call in place; the default leaves the registers as they were.
    std::function<bool(platform::PvCallRegs& regs)> answer;
    std::vector<PvCall> calls;

    ScriptedPv() { platform::set_pv_call_hook(&ScriptedPv::hook, this); }
    ~ScriptedPv() { platform::set_pv_call_hook(nullptr, nullptr); }
    ScriptedPv(const ScriptedPv&) = delete;
    ScriptedPv& operator=(const ScriptedPv&) = delete;

    // Detection answers "present, version `version`, maximum transfer `maxTransfer`".
    static bool detect_answer(platform::PvCallRegs& regs, uint32_t version, uint32_t maxTransfer) {
        regs.rax = 0x0B36AF47;
        regs.rbx = version;
        regs.rcx = maxTransfer;
        regs.rdx = regs.rsi = regs.rdi = 0;
        return true;
    }

  private:
    static bool hook(platform::PvCallRegs* regs, void* context) {
        auto* self = static_cast<ScriptedPv*>(context);
        self->calls.push_back({static_cast<uint32_t>(regs->rax), static_cast<uint32_t>(regs->rbx),
                               static_cast<uint32_t>(regs->rcx), regs->rdx,
                               static_cast<uint32_t>(regs->rsi), regs->rdi});
        return self->answer ? self->answer(*regs) : true;
    }
};

}  // namespace tstest
