// Tests of the tool service transports: the paravirtual send, the guarded detection and
// the driver path against the simulated host.
#include "toolservice/transport.h"

#include <gtest/gtest.h>
#include <signal.h>

#include <cstring>
#include <numeric>
#include <string>
#include <vector>

#include "hostsim/host.h"
#include "scripted_pv.h"
#include "support/virtual_clock.h"

namespace qvx {
namespace {

using platform::PvCallRegs;
using tstest::ScriptedPv;

constexpr uint32_t kOpenTransfer = 0x05F9E653;
constexpr uint32_t kTransfer = 0x05F9E654;
constexpr uint32_t kClose = 0x05F9E655;

ServiceHandle pv_handle(uint32_t maxTransfer) {
    return ServiceHandle{0, kServiceMagicParavirtual, maxTransfer};
}

// Finishes the exchange once every input byte has gone out; places no answer.
bool consume_input(PvCallRegs& regs, uint32_t total, uint32_t& taken) {
    if (regs.rax == kOpenTransfer) regs.rbx = 77;
    taken += static_cast<uint32_t>(regs.rsi);
    regs.rdx = 0;
    regs.rsi = 0;
    regs.rdi = taken == total ? 0 : 1;
    return true;
}

TEST(ParavirtualSend, SplitsInputSoTheLastCallIsFull) {
    ScriptedPv pv;
    uint32_t taken = 0;
    pv.answer = [&](PvCallRegs& r) { return consume_input(r, 10000, taken); };
    std::vector<uint8_t> buffer(10000);
    ServiceHandle h = pv_handle(4096);
    uint32_t answer = 99;
    ASSERT_EQ(service_send(&h, buffer.data(), 10000, 0, &answer), 0);
    ASSERT_EQ(pv.calls.size(), 3u);
    const uint32_t inputs[] = {4096, 1808, 4096};
    const uint64_t offsets[] = {0, 4096, 5904};
    for (size_t i = 0; i < 3; ++i) {
        EXPECT_EQ(pv.calls[i].rsi, inputs[i]);
        EXPECT_EQ(pv.calls[i].rdi, reinterpret_cast<uintptr_t>(buffer.data()) + offsets[i]);
        EXPECT_EQ(pv.calls[i].rdx, inputs[i]);  // output 0: the room is the input itself
    }
    EXPECT_EQ(pv.calls[0].function, kOpenTransfer);
    EXPECT_EQ(pv.calls[0].rbx, 10000u);
    EXPECT_EQ(pv.calls[1].function, kTransfer);
    EXPECT_EQ(pv.calls[2].rbx, 77u);  // the stream id the first call returned
    EXPECT_EQ(answer, 0u);
    EXPECT_EQ(h.state, 0);
}

TEST(ParavirtualSend, MovesOverlappingAnswerBytesDown) {
    // T = 4, six input bytes: the first call takes 2, the second 4 and answers "XYZ",
    // which lands at offset 2 and must end up at offset 0.
    ScriptedPv pv;
    std::string seen;
    pv.answer = [&](PvCallRegs& r) {
        auto* at = reinterpret_cast<uint8_t*>(r.rdi);
        seen.append(reinterpret_cast<char*>(at), r.rsi);
        const bool last = seen.size() == 6;
        if (last) std::memcpy(at, "XYZ", 3);
        r.rbx = 5;
        r.rdx = last ? 3 : 0;
        r.rsi = last ? 3 : 0;
        r.rdi = last ? 0 : 1;
        return true;
    };
    char buffer[8] = "abcdef";
    ServiceHandle h = pv_handle(4);
    uint32_t answer = 0;
    ASSERT_EQ(service_send(&h, buffer, 6, 6, &answer), 0);
    EXPECT_EQ(seen, "abcdef");
    EXPECT_EQ(answer, 3u);
    EXPECT_EQ(std::string(buffer, 3), "XYZ");
    EXPECT_EQ(pv.calls[0].rcx, 1u);  // answer bytes may come back
}

TEST(ParavirtualSend, AnswerTooBigClosesTheStreamOnlyOnStatusTwo) {
    for (uint32_t status : {2u, 1u}) {
        ScriptedPv pv;
        pv.answer = [&](PvCallRegs& r) {
            if (r.rax == kClose) return true;
            r.rbx = 9;
            r.rdx = 0;
            r.rsi = 65;  // more than the 64 bytes of room
            r.rdi = status;
            return true;
        };
        std::vector<uint8_t> buffer(64);
        ServiceHandle h = pv_handle(4096);
        EXPECT_EQ(service_send(&h, buffer.data(), 16, 64, nullptr), kServiceAnswerTooBig);
        EXPECT_EQ(h.state, static_cast<int32_t>(status));
        const bool closed = pv.calls.back().function == kClose;
        EXPECT_EQ(closed, status == 2) << status;
        if (closed) {
            EXPECT_EQ(pv.calls.back().rbx, 9u);
        }
    }
}

TEST(ParavirtualSend, RejectsBadArgumentsAndNegativeStatus) {
    ScriptedPv pv;
    pv.answer = [](PvCallRegs& r) {
        r.rdi = static_cast<uint32_t>(-3);
        return true;
    };
    uint8_t buffer[4] = {};
    ServiceHandle h = pv_handle(4096);
    EXPECT_EQ(service_send(&h, buffer, 0, 0, nullptr), kServiceBadArgs);
    EXPECT_EQ(service_send(nullptr, buffer, 4, 0, nullptr), kServiceBadArgs);
    EXPECT_EQ(service_send(&h, nullptr, 4, 0, nullptr), kServiceBadArgs);
    EXPECT_TRUE(pv.calls.empty());
    ServiceHandle noRoom = pv_handle(0);
    EXPECT_EQ(service_send(&noRoom, buffer, 4, 0, nullptr), kServiceBadArgs);
    ServiceHandle unknown{0, 0x1234, 0};
    EXPECT_EQ(service_send(&unknown, buffer, 4, 0, nullptr), kServiceBadMagic);
    EXPECT_TRUE(pv.calls.empty());
    EXPECT_EQ(service_send(&h, buffer, 4, 0, nullptr), kServiceFailed);
}

// --- detection -----------------------------------------------------------------------

void marker_handler(int) {}

struct SignalActionsKept {
    struct sigaction ill {
    }, segv{}, mine{};
    SignalActionsKept() {
        mine.sa_handler = marker_handler;
        sigemptyset(&mine.sa_mask);
        sigaction(SIGILL, &mine, &ill);
        sigaction(SIGSEGV, &mine, &segv);
    }
    ~SignalActionsKept() {
        sigaction(SIGILL, &ill, nullptr);
        sigaction(SIGSEGV, &segv, nullptr);
    }
    static bool ours(int sig) {
        struct sigaction now {};
        sigaction(sig, nullptr, &now);
        return now.sa_handler == marker_handler;
    }
    static bool blocked(int sig) {
        sigset_t mask;
        pthread_sigmask(SIG_BLOCK, nullptr, &mask);
        return sigismember(&mask, sig) == 1;
    }
};

TEST(ParavirtualDetection, AbsentOnThisMachineAndKeepsEarlierHandlers) {
    SignalActionsKept kept;
    uint32_t version = 0, maxTransfer = 0;
    EXPECT_EQ(service_detect_paravirtual(&version, &maxTransfer), kServiceNoTransport);
    EXPECT_TRUE(SignalActionsKept::ours(SIGILL));
    EXPECT_TRUE(SignalActionsKept::ours(SIGSEGV));
    EXPECT_FALSE(SignalActionsKept::blocked(SIGSEGV));
}

TEST(ParavirtualDetection, FaultVersionAndPresence) {
    SignalActionsKept kept;
    ScriptedPv pv;
    uint32_t version = 0, maxTransfer = 0;
    for (int sig : {SIGILL, SIGSEGV}) {
        pv.answer = [sig](PvCallRegs&) { return raise(sig) == 0; };
        EXPECT_EQ(service_detect_paravirtual(&version, &maxTransfer), kServiceNoTransport);
        EXPECT_FALSE(SignalActionsKept::blocked(sig));
    }
    EXPECT_TRUE(SignalActionsKept::ours(SIGILL));
    EXPECT_TRUE(SignalActionsKept::ours(SIGSEGV));

    pv.answer = [](PvCallRegs&) { return false; };  // a processor without the call
    EXPECT_EQ(service_detect_paravirtual(&version, &maxTransfer), kServiceNoTransport);
    pv.answer = [](PvCallRegs& r) { return ScriptedPv::detect_answer(r, 3, 4096); };
    EXPECT_EQ(service_detect_paravirtual(&version, &maxTransfer), kServiceRefused);
    pv.answer = [](PvCallRegs& r) { return ScriptedPv::detect_answer(r, 2, 4096); };
    EXPECT_EQ(service_detect_paravirtual(&version, &maxTransfer), 0);
    EXPECT_EQ(version, 2u);
    EXPECT_EQ(maxTransfer, 4096u);
    EXPECT_EQ(pv.calls.back().function, 0x05F9E652u);
    EXPECT_EQ(pv.calls.back().rbx, 0x05F9E652u);

    ServiceHandle h{};
    ASSERT_EQ(service_open(&h, kServiceModeParavirtual), 0);
    EXPECT_EQ(h.magic, kServiceMagicParavirtual);
    EXPECT_EQ(h.link, 4096u);
}

// --- driver --------------------------------------------------------------------------

class DriverTransport : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_TRUE(tstest::kRootSet);
        ASSERT_TRUE(host.start());
    }
    hostsim::Host host;
    qvxtest::VirtualClock clock;
    ScriptedPv pv;  // counts every paravirtual call the open might make
};

TEST_F(DriverTransport, BusyProbeIsAskedAgainUntilAccepted) {
    host.tool_service().set_busy_probes(2);
    ServiceHandle h{};
    ASSERT_EQ(service_open(&h, kServiceModeAuto), 0);
    EXPECT_EQ(h.magic, kServiceMagicDriver);
    EXPECT_NE(h.link, 0u);
    EXPECT_EQ(host.request_count(), 3u);
    EXPECT_EQ(clock.sleep_calls(), 2u);
    EXPECT_TRUE(pv.calls.empty());
    EXPECT_EQ(service_close(&h), 0);
    EXPECT_EQ(h.state, kServiceStateClosed);
    EXPECT_EQ(h.link, 0u);
}

TEST_F(DriverTransport, EndlessBusyGivesUp) {
    host.tool_service().set_busy_probes(1000);
    ServiceHandle h{};
    EXPECT_EQ(service_open(&h, kServiceModeDriver), kServiceRefused);
    EXPECT_EQ(host.request_count(), 51u);
}

TEST_F(DriverTransport, RefusedProbeFallsBackToParavirtualCalls) {
    host.tool_service().set_probe_status(0xC0000022);
    ServiceHandle h{};
    EXPECT_EQ(service_open(&h, kServiceModeDriver), kServiceRefused);
    EXPECT_TRUE(pv.calls.empty());

    pv.answer = [](PvCallRegs& r) { return ScriptedPv::detect_answer(r, 2, 8192); };
    ASSERT_EQ(service_open(&h, kServiceModeAuto), 0);
    EXPECT_EQ(h.magic, kServiceMagicParavirtual);
    EXPECT_EQ(h.link, 8192u);
    EXPECT_EQ(pv.calls.size(), 1u);
}

TEST_F(DriverTransport, SendCarriesSizesAndServiceResult) {
    ServiceHandle h{};
    ASSERT_EQ(service_open(&h, kServiceModeDriver), 0);
    uint8_t junk[32] = {};
    // Not a tool service record: the host's service reports a negative result.
    EXPECT_EQ(service_send(&h, junk, sizeof junk, 0, nullptr), kServiceFailed);
    EXPECT_LT(h.state, 0);
    service_close(&h);
    uint32_t answer = 1;
    EXPECT_EQ(service_send(&h, junk, sizeof junk, 0, &answer), kServiceNotOpen);
    EXPECT_EQ(answer, 0u);
}

TEST(DriverTransportAbsent, NoServiceMeansNoTransportAndNoParavirtualTry) {
    ASSERT_TRUE(tstest::kRootSet);
    ScriptedPv pv;
    pv.answer = [](PvCallRegs& r) { return ScriptedPv::detect_answer(r, 2, 4096); };
    ServiceHandle h{};
    EXPECT_EQ(service_open(&h, kServiceModeAuto), kServiceNoTransport);
    EXPECT_EQ(h.state, kServiceStateClosed);
    EXPECT_TRUE(pv.calls.empty());
}

}  // namespace
}  // namespace qvx
