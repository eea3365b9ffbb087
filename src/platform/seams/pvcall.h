// The paravirtual call of the host's tool service: one rdpmc with magic register values.
#pragma once

#include <cstdint>

namespace platform {

// Registers in and out of one call; only the low 32 bits carry meaning, except RDX and
// RDI which may hold a buffer room and a buffer address.
struct PvCallRegs {
    uint64_t rax;
    uint64_t rbx;
    uint64_t rcx;
    uint64_t rdx;
    uint64_t rsi;
    uint64_t rdi;
};

// Executes the call in place. False, with nothing executed, where the processor has no
// such call. Without the host's interface the instruction faults (SIGSEGV or SIGILL), so
// callers run it under a guard.
bool pv_call(PvCallRegs* regs);

// Replaces the instruction with a scripted interface (nullptr restores it). The hook
// returns what pv_call returns and may raise a signal to play a faulting processor.
using PvCallHook = bool (*)(PvCallRegs* regs, void* context);
void set_pv_call_hook(PvCallHook hook, void* context);

}  // namespace platform
