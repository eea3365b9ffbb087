// The paravirtual call of the host's tool service: one rdpmc with magic register values.
#include "platform/seams/pvcall.h"

#include <atomic>

namespace platform {

namespace {

std::atomic<PvCallHook> g_hook{nullptr};
std::atomic<void*> g_hookContext{nullptr};

#if defined(__x86_64__)
// Not inlined, so that a fault lands in one small frame the guard can jump out of.
__attribute__((noinline)) void execute_rdpmc(PvCallRegs* regs) {
    uint64_t a = regs->rax, b = regs->rbx, c = regs->rcx, d = regs->rdx, s = regs->rsi,
             di = regs->rdi;
    // The host traps the instruction and may rewrite every register and the buffer
    // at RDI, hence all of them in and out and the memory clobber.
    asm volatile("rdpmc" : "+a"(a), "+b"(b), "+c"(c), "+d"(d), "+S"(s), "+D"(di) : : "memory");
    regs->rax = a;
    regs->rbx = b;
    regs->rcx = c;
    regs->rdx = d;
    regs->rsi = s;
    regs->rdi = di;
}
#endif

}  // namespace

bool pv_call(PvCallRegs* regs) {
    if (PvCallHook hook = g_hook.load(std::memory_order_acquire))
        return hook(regs, g_hookContext.load(std::memory_order_acquire));
#if defined(__x86_64__)
    execute_rdpmc(regs);
    return true;
#else
    (void)regs;
    return false;
#endif
}

void set_pv_call_hook(PvCallHook hook, void* context) {
    g_hookContext.store(context, std::memory_order_release);
    g_hook.store(hook, std::memory_order_release);
}

}  // namespace platform
