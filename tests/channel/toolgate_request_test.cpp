// The toolgate request record as the driver reads it, every field at its offset, and the
// completion statuses the tool acts on, stated as numbers.
#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "channel/toolgate.h"
#include "common/byte_order.h"
#include "common/toolgate_abi.h"

namespace {

using namespace qvx;

TEST(ToolgateRequest, HeaderAndDescriptorsSitAtTheirOffsets) {
    uint8_t out[100], reply[2196];
    std::vector<uint8_t> request(64, 0xEE);
    init_toolgate_request(request.data(), 0x8304, 0xFFFFFFFF, 2);
    put_toolgate_buffer(request.data(), 0, out, sizeof out, false);
    put_toolgate_buffer(request.data(), 1, reply, sizeof reply, true);
    EXPECT_EQ(toolgate::request_size(2), 48u);
    const struct {
        size_t offset, size;
        uint64_t value;
    } fields[] = {
        {0, 4, 0x8304}, {4, 4, 0xFFFFFFFF}, {8, 2, 0},
        {10, 2, 2},     {12, 4, 0},         {16, 8, reinterpret_cast<uintptr_t>(out)},
        {24, 4, 100},   {28, 4, 0},         {32, 8, reinterpret_cast<uintptr_t>(reply)},
        {40, 4, 2196},  {44, 4, 1},
    };
    for (const auto& f : fields) {
        uint64_t got = 0;
        std::memcpy(&got, request.data() + f.offset, f.size);  // little-endian host
        EXPECT_EQ(got, f.value) << "at " << f.offset;
    }
    EXPECT_EQ(request[48], 0xEE) << "nothing past the second descriptor";
}

}  // namespace
