// Tests of transfer progress: the observer that follows a transfer's messages in either
// direction, and the bars drawn on a terminal.
#include "hostsim/progress.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <vector>

#include "channel/dnd_message.h"
#include "common/byte_order.h"
#include "transfer/records.h"

namespace {

namespace dnd = qvx::dnd;
namespace le = qvx::le;
using hostsim::TransferDirection;

std::string slurp(std::FILE* f) {
    std::fflush(f);
    std::rewind(f);
    std::string out;
    char buffer[4096];
    for (size_t n; (n = std::fread(buffer, 1, sizeof buffer, f)) > 0;) out.append(buffer, n);
    std::fclose(f);
    return out;
}

// Passes one message through `handler` as the host would: `status` and `replyFields`
// ({offset, u32}) are what the endpoint answers; a 263 carries (id, code, text).
struct Feeder {
    hostsim::Handler handler;
    uint32_t pass(uint32_t command, uint32_t status = 0,
                  std::vector<std::pair<size_t, uint32_t>> replyFields = {}, uint32_t id = 0,
                  uint32_t code = 0, std::u16string text = u"", size_t dataBytes = 0) {
        std::vector<uint8_t> request(dnd::kMessageSize), reply(dnd::kMessageSize + dataBytes);
        dnd::init_message(request.data(), request.size(), command, 9);
        le::put32(request.data(), dnd::kOffDialogId, id);
        le::put32(request.data(), dnd::kOffDialogCode, code);
        for (size_t i = 0; i < text.size(); ++i)
            le::put16(request.data(), dnd::kOffDialogText + 2 * i, text[i]);
        hostsim::Exchange ex;
        ex.command = command;
        ex.workerId = 9;
        ex.request = request;
        ex.reply = reply;
        ex.replyWritten = reply.size();
        next = {status, replyFields};
        return handler(ex);
    }
    struct {
        uint32_t status;
        std::vector<std::pair<size_t, uint32_t>> fields;
    } next;
};

TEST(Progress, ObserverFollowsAHostToGuestTransferFromItsMessages) {
    std::FILE* out = std::tmpfile();
    hostsim::ProgressBoard board(out, hostsim::ProgressBoard::Style::Lines);
    Feeder f;
    f.handler = hostsim::observe_progress(board, 9, TransferDirection::HostToGuest,
                                          [&f](hostsim::Exchange& ex) {
                                              for (auto [at, v] : f.next.fields)
                                                  le::put32(ex.reply.data(), at, v);
                                              return f.next.status;
                                          });
    f.pass(280);
    f.pass(261, 0, {{dnd::kOffTotalBytes, 1032}});
    f.pass(272, 0, {{dnd::kOffAttributes, qvx::kAttrDirectory}});
    f.pass(263, 0, {}, 1, 0, u"d");
    f.pass(272);
    f.pass(263, 0, {}, 1, 0, u"d/\u00e9");
    f.pass(266);
    f.pass(268, 0, {{dnd::kOffDataLength, 1000}}, 0, 0, u"", 1000);
    ASSERT_TRUE(board.running(9));
    EXPECT_EQ(board.running(9)->bytes, 32u) << "a chunk counts once the guest confirms it";
    f.pass(263, 0, {}, 5, 0, u"d/\u00e9");
    f.pass(267);
    f.pass(272, dnd::kStatusNoMoreItems);
    f.pass(260);

    // The same worker again: a kind 3 notice answered with a stop fails it.
    f.pass(272);
    f.pass(263, 0, {}, 1, 0, u"x");
    f.pass(263, 9, {}, 3, 3, u"x");
    f.pass(260);

    const auto done = board.finished();
    ASSERT_EQ(done.size(), 2u);
    EXPECT_EQ(done[0].direction, TransferDirection::HostToGuest);
    EXPECT_EQ(done[0].items, 2u);
    EXPECT_EQ(done[0].bytes, 1032u);
    EXPECT_EQ(done[0].result, "done");
    EXPECT_EQ(done[1].items, 1u);
    EXPECT_EQ(done[1].result, "failed");
    const std::string text = slurp(out);
    EXPECT_NE(text.find("worker=9 host->guest item 2 d/\xC3\xA9\n"), std::string::npos) << text;
    EXPECT_NE(text.find("transfer worker=9 host->guest: 2 items, 1032 bytes, "), std::string::npos);
}

TEST(Progress, BarsAreRedrawnInPlaceAndClearedForEachSummary) {
    std::FILE* tty = std::tmpfile();
    {
        hostsim::ProgressBoard bars(tty, hostsim::ProgressBoard::Style::Bar);
        bars.begin(7, TransferDirection::HostToGuest);
        bars.set_totals(7, 2'000'000, 4);
        bars.begin(8, TransferDirection::GuestToHost);
        bars.finish(7, "failed");
    }
    const std::string drawn = slurp(tty);
    EXPECT_NE(drawn.find("7 host->guest [........................]   0% 0/4 items 0.0/2.0 MB"),
              std::string::npos)
        << drawn;
    EXPECT_NE(drawn.find("\x1b[2A\r\x1b[Jtransfer worker=7 host->guest: 0 items, 0 bytes, "),
              std::string::npos)
        << drawn;
    EXPECT_EQ(drawn.substr(drawn.rfind('\n', drawn.size() - 2) + 1, 16), "8 guest->host [.");
}

}  // namespace
