// Tests of the registration requests: their bytes, their results, and the host's view.
#include "toolservice/registration.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <mutex>

#include <string>
#include <vector>

#include "common/byte_order.h"
#include "hostsim/host.h"
#include "scripted_pv.h"
#include "support/virtual_clock.h"
#include "toolservice/service_buffer.h"
#include "toolservice/transport.h"

namespace qvx {
namespace {

using le::get32;
using platform::PvCallRegs;
using tstest::ScriptedPv;

constexpr const char* kId = "quorvex.DragDropTool.guest.mac";

// Sends through a scripted paravirtual handle and keeps the bytes that went out.
std::vector<uint8_t> capture(const std::function<int32_t(ServiceHandle*)>& request,
                             int32_t* result = nullptr) {
    ScriptedPv pv;
    std::vector<uint8_t> sent;
    pv.answer = [&](PvCallRegs& r) {
        auto* at = reinterpret_cast<uint8_t*>(r.rdi);
        sent.insert(sent.end(), at, at + r.rsi);
        r.rdx = r.rsi = r.rdi = 0;
        return true;
    };
    ServiceHandle h{0, kServiceMagicParavirtual, 4096};
    int32_t got = request(&h);
    if (result) *result = got;
    return sent;
}

struct Element {
    uint32_t tag, index;
    std::string data;
};

std::vector<Element> elements_of(const std::vector<uint8_t>& record) {
    std::vector<Element> out;
    ServiceWriter r{};
    for (int32_t s = reader_open(&r, record.data(), static_cast<uint32_t>(record.size()), 16);
         s == 0; s = reader_next(&r)) {
        const char* data = reinterpret_cast<const char*>(reader_element_data(&r));
        out.push_back({reader_element_tag(&r), get32(reader_element(&r), size_t{8}),
                       std::string(data, reader_element_length(&r))});
    }
    return out;
}

TEST(Registration, RecordOfThisTool) {
    ToolInfo info;
    make_tool_info(&info, 1, 0);
    int32_t result = -99;
    auto record = capture(
        [&](ServiceHandle* h) {
            return register_tool(h, kId, "DnD tool", &info, nullptr, nullptr, 0);
        },
        &result);
    ASSERT_EQ(result, 0);
    ASSERT_EQ(record.size(), 162u);
    EXPECT_EQ(get32(record.data(), size_t{0}), 14u);
    EXPECT_EQ(get32(record.data(), size_t{8}), 1u);
    EXPECT_EQ(get32(record.data(), size_t{16}), 134u);
    auto elements = elements_of(record);
    ASSERT_EQ(elements.size(), 4u);
    const uint32_t tags[] = {0x2001, 0x20CA, 0x20CB, 0x2191};
    for (uint32_t i = 0; i < 4; ++i) {
        EXPECT_EQ(elements[i].tag, tags[i]);
        EXPECT_EQ(elements[i].index, i);
    }
    EXPECT_EQ(get32(elements[0].data.data(), size_t{4}), 3u);
    EXPECT_EQ(elements[1].data, "DnD tool");
    EXPECT_EQ(elements[3].data, kId);

    const auto* block = reinterpret_cast<const uint8_t*>(elements[2].data.data());
    ASSERT_EQ(elements[2].data.size(), 40u);
    EXPECT_EQ(get32(block, size_t{0}), 15u);
    EXPECT_EQ(get32(block, size_t{8}), 1042u);
    EXPECT_EQ(get32(block, size_t{12}), 0x80000000u);
    EXPECT_EQ(get32(block, size_t{16}), 1u);
    // Version 1.0.0.1042: major 1 in the top six bits, build 1042 in the low sixteen.
    EXPECT_EQ(get32(block, size_t{24}), 0x04000412u);
    EXPECT_EQ(block[28], 7u);
    EXPECT_EQ(block[39], 0u);
}

TEST(Registration, OptionalElementsAndUnregistration) {
    const uint8_t blob[3] = {9, 8, 7};
    auto full = elements_of(capture([&](ServiceHandle* h) {
        return register_tool(h, "x", nullptr, nullptr, "more", blob, 3);
    }));
    ASSERT_EQ(full.size(), 4u);
    EXPECT_EQ(full[1].tag, 0x20CCu);
    EXPECT_EQ(full[1].data, "more");
    EXPECT_EQ(full[2].tag, 0x20CDu);
    EXPECT_EQ(full[2].data, std::string("\x09\x08\x07", 3));

    auto gone = elements_of(capture([](ServiceHandle* h) { return unregister_tool(h, kId); }));
    ASSERT_EQ(gone.size(), 3u);
    EXPECT_EQ(gone[0].tag, 0x2001u);
    EXPECT_EQ(gone[1].tag, 0x20CFu);
    EXPECT_EQ(get32(gone[1].data.data(), size_t{0}), 2u);
    EXPECT_EQ(gone[2].tag, 0x2191u);
    EXPECT_EQ(gone[2].index, 2u);
}

TEST(Registration, BadArgumentsOpenNothing) {
    ASSERT_TRUE(tstest::kRootSet);
    ScriptedPv pv;
    const int fds = qvxtest::open_fd_count();
    EXPECT_EQ(register_tool(nullptr, "DnD tool", nullptr, nullptr, nullptr, 0), -1);
    EXPECT_EQ(register_tool(kId, nullptr, nullptr, nullptr, nullptr, 4), -1);
    EXPECT_EQ(unregister_tool(nullptr), -1);
    EXPECT_TRUE(pv.calls.empty());
    EXPECT_EQ(qvxtest::open_fd_count(), fds);
}

class RegistrationWithHost : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_TRUE(tstest::kRootSet);
        host.tool_service().on_trace = [this](const std::string& line) {
            std::lock_guard<std::mutex> lock(m_mutex);
            lines.push_back(line);
        };
        ASSERT_TRUE(host.start());
    }
    std::vector<std::string> trace() {
        std::lock_guard<std::mutex> lock(m_mutex);
        return lines;
    }
    hostsim::Host host;
    qvxtest::VirtualClock clock;
    std::mutex m_mutex;
    std::vector<std::string> lines;
};

TEST_F(RegistrationWithHost, FailuresLeaveNothingOpen) {
    const int fds = qvxtest::open_fd_count();
    host.tool_service().set_service_result(-3);
    EXPECT_EQ(register_tool(kId, "DnD tool", nullptr, nullptr, nullptr, 0), -4);
    EXPECT_EQ(unregister_tool(kId), -6);

    // Refused probe and no paravirtual interface: no handle.
    ScriptedPv pv;
    pv.answer = [](PvCallRegs&) { return false; };
    host.tool_service().set_probe_status(0xC0000022);
    EXPECT_EQ(register_tool(kId, "DnD tool", nullptr, nullptr, nullptr, 0), -5);
    EXPECT_EQ(pv.calls.size(), 1u);
    // The host closes its ends of the connections on its own threads.
    for (int i = 0; i < 200 && qvxtest::open_fd_count() != fds; ++i) usleep(10000);
    EXPECT_EQ(qvxtest::open_fd_count(), fds);
}

}  // namespace
}  // namespace qvx
