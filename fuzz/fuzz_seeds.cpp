// Writes the fuzzers' seed inputs taken from the hostile host's attacks: each attack's
// replies, recorded while a receive job runs against it, as a receive_fuzz input, and each
// name it lists as an item_name_fuzz input.
//
//   fuzz_seeds OUT     writes OUT/receive_fuzz/<attack> and OUT/item_name_fuzz/<attack>-<n>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "channel/dnd_message.h"
#include "common/byte_order.h"
#include "hostsim/hostile.h"
#include "log/log.h"
#include "support/temp_dir.h"
#include "transfer/transfer_job.h"

namespace {

namespace dnd = qvx::dnd;
namespace le = qvx::le;

// Bytes the receive_fuzz format can place: offsets are 16 bits wide.
constexpr size_t kReachable = 65536;
// Zero bytes inside a run of the reply that do not split it into two patches.
constexpr size_t kJoinGap = 8;

void put_u16(std::vector<uint8_t>& out, uint16_t v) {
    out.push_back(static_cast<uint8_t>(v));
    out.push_back(static_cast<uint8_t>(v >> 8));
}

void put_u32(std::vector<uint8_t>& out, uint32_t v) {
    for (int i = 0; i < 4; ++i) out.push_back(static_cast<uint8_t>(v >> (8 * i)));
}

// One reply in the receive_fuzz format: its status and the written bytes that are not
// zero, as patches of at most 255 bytes (the header before the status is left out).
void record(std::vector<uint8_t>& out, uint32_t status, const uint8_t* reply, size_t written) {
    out.push_back(0);
    put_u32(out, status);
    std::vector<std::pair<size_t, size_t>> runs;
    const size_t end = std::min(written, kReachable);
    for (size_t i = dnd::kOffWorkerId + 8; i < end;) {
        if (reply[i] == 0) {
            ++i;
            continue;
        }
        size_t j = i;
        size_t last = i;
        while (j < end && j - last <= kJoinGap && j - i < 255) {
            if (reply[j] != 0) last = j;
            ++j;
        }
        runs.emplace_back(i, last + 1 - i);
        i = last + 1;
    }
    const size_t count = std::min<size_t>(runs.size(), 255);
    out.push_back(static_cast<uint8_t>(count));
    for (size_t r = 0; r < count; ++r) {
        put_u16(out, static_cast<uint16_t>(runs[r].first));
        out.push_back(static_cast<uint8_t>(runs[r].second));
        out.insert(out.end(), reply + runs[r].first, reply + runs[r].first + runs[r].second);
    }
}

void write_seed(const std::filesystem::path& path, const std::vector<uint8_t>& bytes) {
    std::ofstream file(path, std::ios::binary | std::ios::trunc);
    file.write(reinterpret_cast<const char*>(bytes.data()),
               static_cast<std::streamsize>(bytes.size()));
}

int discard(const char*, int32_t length) {
    return length;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: fuzz_seeds OUT\n");
        return 2;
    }
    qvx::log_set_writer(discard);
    const std::filesystem::path out = argv[1];
    std::filesystem::create_directories(out / "receive_fuzz");
    std::filesystem::create_directories(out / "item_name_fuzz");

    for (const std::string& name : hostsim::hostile_attack_names()) {
        qvxtest::TempDir dir;
        qvxtest::write_file(dir / "outside/victim", "victim");
        qvxtest::make_dirs(dir / "dest");
        // Relative to the destination, so that the seeds aim at the fuzzer's own sentinel
        // tree wherever its temporary folder lies.
        hostsim::HostileSetting setting;
        setting.outside = "../outside";
        setting.outsideFile = "../outside/victim";
        setting.guestFolder = dir / "dest";
        const auto attack = hostsim::hostile_attack(name, setting);
        const auto source = hostsim::hostile_source(*attack);

        std::vector<uint8_t> seed;
        qvx::TransferJob job;
        job.direction = qvx::kDirectionReceive;
        job.workerId = 0x5A;
        job.destination = dir / "dest";
        const qvx::DnDContext ctx{
            job.workerId, nullptr,
            [&](qvx::CommonMacCommunicator*, const void* request, uint32_t requestSize,
                void* replyBuffer, uint32_t replySize) {
                std::vector<uint8_t> reply(replySize);
                hostsim::Exchange ex;
                ex.command = dnd::command(static_cast<const uint8_t*>(request));
                ex.workerId = job.workerId;
                ex.request = {static_cast<const uint8_t*>(request), requestSize};
                ex.reply = reply;
                ex.replyWritten = dnd::kMessageSize;
                dnd::init_message(reply.data(), dnd::kMessageSize, ex.command, ex.workerId);
                const uint32_t status = source->answer(ex);
                le::put32(reply.data(), dnd::kOffStatus, status);
                const size_t written = std::min<size_t>(ex.replyWritten, replySize);
                std::memcpy(replyBuffer, reply.data(), written);
                record(seed, status, reply.data(), written);
                return true;
            }};
        qvx::RunTransferJob(job, ctx);
        write_seed(out / "receive_fuzz" / name, seed);

        int n = 0;
        for (const hostsim::SourceItem& item : attack->items) {
            if (item.kind == hostsim::SourceItem::Kind::EndOfLevel || n == 16) continue;
            std::vector<uint8_t> units;
            for (char16_t u : item.name) put_u16(units, static_cast<uint16_t>(u));
            write_seed(out / "item_name_fuzz" / (name + "-" + std::to_string(n++)), units);
        }
    }
    return 0;
}
