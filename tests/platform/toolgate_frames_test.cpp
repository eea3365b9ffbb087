// Tests of the toolgate frame codec: round trips, piecewise reading and strict validation.
#include "platform/sim/toolgate_frames.h"

#include <gtest/gtest.h>

#include <vector>

#include "common/byte_order.h"

namespace {

using toolgate::FrameBuffer;
using toolgate::FrameReader;

std::vector<uint8_t> request_frame(uint32_t code, std::vector<FrameBuffer> buffers,
                                   const std::vector<std::vector<uint8_t>>& contents) {
    const int64_t bytes =
        toolgate::request_contents_bytes(buffers.data(), static_cast<uint32_t>(buffers.size()));
    EXPECT_GE(bytes, 0);
    std::vector<uint8_t> out(toolgate::request_header_bytes(static_cast<uint32_t>(buffers.size())));
    toolgate::encode_request_header(out.data(), code, buffers.data(),
                                    static_cast<uint32_t>(buffers.size()),
                                    static_cast<uint32_t>(bytes));
    for (const auto& c : contents) out.insert(out.end(), c.begin(), c.end());
    return out;
}

// Feeds `stream` in pieces of `piece` bytes and returns every frame body completed.
std::vector<std::vector<uint8_t>> read_frames(const std::vector<uint8_t>& stream, size_t piece,
                                              bool& malformed) {
    FrameReader reader;
    std::vector<std::vector<uint8_t>> frames;
    malformed = false;
    for (size_t at = 0; at < stream.size() && !malformed;) {
        const size_t n = std::min(piece, stream.size() - at);
        size_t offset = 0;
        while (offset < n) {
            size_t used = 0;
            const auto r = reader.feed(stream.data() + at + offset, n - offset, used);
            offset += used;
            if (r == FrameReader::Result::Malformed) {
                malformed = true;
                break;
            }
            if (r == FrameReader::Result::Frame) frames.push_back(reader.body());
            if (r == FrameReader::Result::NeedMore) break;
        }
        at += n;
    }
    return frames;
}

TEST(ToolgateFrames, ReaderGivesTheSameFramesWhetherDataArrivesWholeOrInPieces) {
    std::vector<uint8_t> record(2196), data(5000);
    for (size_t i = 0; i < record.size(); ++i) record[i] = static_cast<uint8_t>(i * 7);
    for (size_t i = 0; i < data.size(); ++i) data[i] = static_cast<uint8_t>(i * 13);
    std::vector<uint8_t> stream = request_frame(0x8304, {{2196, 2}, {2196, 1}}, {record});
    const auto probe = request_frame(0x8050, {}, {});
    stream.insert(stream.end(), probe.begin(), probe.end());
    const auto exact =
        request_frame(0x8050, {{32, 3}, {5000, 3}},
                      {std::vector<uint8_t>(record.begin(), record.begin() + 32), data});
    stream.insert(stream.end(), exact.begin(), exact.end());

    bool malformed = false;
    const auto whole = read_frames(stream, stream.size(), malformed);
    ASSERT_FALSE(malformed);
    ASSERT_EQ(whole.size(), 3u);
    for (size_t piece : {1u, 3u, 4u, 7u, 4096u}) {
        EXPECT_EQ(read_frames(stream, piece, malformed), whole) << "piece " << piece;
        EXPECT_FALSE(malformed);
    }

    toolgate::RequestView view;
    ASSERT_TRUE(toolgate::parse_request(whole[0].data(), whole[0].size(), view));
    EXPECT_EQ(view.code, 0x8304u);
    ASSERT_EQ(view.count, 2u);
    EXPECT_EQ(std::vector<uint8_t>(view.contents[0], view.contents[0] + 2196), record);
    EXPECT_EQ(view.contents[1], nullptr);  // the reply buffer travels empty
    ASSERT_TRUE(toolgate::parse_request(whole[1].data(), whole[1].size(), view));
    EXPECT_EQ(view.count, 0u);
    ASSERT_TRUE(toolgate::parse_request(whole[2].data(), whole[2].size(), view));
    EXPECT_EQ(std::vector<uint8_t>(view.contents[1], view.contents[1] + 5000), data);
}

TEST(ToolgateFrames, ReaderRejectsALengthOver16MiBBeforeReadingTheBody) {
    uint8_t header[4];
    qvx::le::put32(header, (16u << 20) + 1);
    FrameReader reader;
    size_t used = 0;
    EXPECT_EQ(reader.feed(header, 3, used), FrameReader::Result::NeedMore);
    EXPECT_TRUE(reader.partial());
    EXPECT_EQ(reader.feed(header + 3, 1, used), FrameReader::Result::Malformed);
    EXPECT_EQ(reader.feed(header, 4, used), FrameReader::Result::Malformed);  // stays broken
}

TEST(ToolgateFrames, RequestParserRejectsInconsistentBodies) {
    const std::vector<uint8_t> record(100, 0xAB);
    auto good = request_frame(0x8304, {{100, 2}, {50, 1}}, {record});
    toolgate::RequestView view;
    ASSERT_TRUE(toolgate::parse_request(good.data() + 4, good.size() - 4, view));

    auto shorter = good;
    shorter.pop_back();
    EXPECT_FALSE(toolgate::parse_request(shorter.data() + 4, shorter.size() - 4, view));
    auto longer = good;
    longer.push_back(0);
    EXPECT_FALSE(toolgate::parse_request(longer.data() + 4, longer.size() - 4, view));
    auto count17 = good;
    qvx::le::put32(count17.data(), 8, 17);
    EXPECT_FALSE(toolgate::parse_request(count17.data() + 4, count17.size() - 4, view));
    auto badFlags = good;
    qvx::le::put32(badFlags.data(), 16, 6);
    EXPECT_FALSE(toolgate::parse_request(badFlags.data() + 4, badFlags.size() - 4, view));
    // An output-only buffer claiming 4 GiB would make the host allocate it.
    auto huge = good;
    qvx::le::put32(huge.data(), 20, 0xFFFFFFFF);
    EXPECT_FALSE(toolgate::parse_request(huge.data() + 4, huge.size() - 4, view));
    EXPECT_FALSE(toolgate::parse_request(good.data() + 4, 6, view));
}

TEST(ToolgateFrames, ReplyWrittenCountsAreCheckedAgainstTheGuestBuffers) {
    const FrameBuffer buffers[2] = {{100, 2}, {50, 1}};
    uint32_t written[2] = {0, 50};
    EXPECT_TRUE(toolgate::reply_header_valid(4 + 8 + 50, written, buffers, 2));
    EXPECT_FALSE(toolgate::reply_header_valid(4 + 8 + 49, written, buffers, 2));
    written[1] = 51;  // more than the buffer holds
    EXPECT_FALSE(toolgate::reply_header_valid(4 + 8 + 51, written, buffers, 2));
    written[0] = 1;  // the host may not write a read-only buffer
    written[1] = 0;
    EXPECT_FALSE(toolgate::reply_header_valid(4 + 8 + 1, written, buffers, 2));

    std::vector<uint8_t> frame(toolgate::reply_header_bytes(2));
    const uint32_t ok[2] = {0, 3};
    toolgate::encode_reply_header(frame.data(), 0xF0000020, ok, 2);
    frame.insert(frame.end(), {1, 2, 3});
    toolgate::ReplyView reply;
    ASSERT_TRUE(toolgate::parse_reply(frame.data() + 4, frame.size() - 4, buffers, 2, reply));
    EXPECT_EQ(reply.status, 0xF0000020u);
    EXPECT_EQ(reply.written[1], 3u);
    EXPECT_EQ(reply.contents[1][2], 3);
}

}  // namespace
