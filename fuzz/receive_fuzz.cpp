// Fuzzes every reader of host replies in a receive (280, 261 totals, 272 entries, 769
// targets, 268 data, and the statuses of all the others) by running a whole receive job
// against a reply stream taken from the input, in a temporary folder. Whatever the
// replies, nothing beside the destination changes, the job sends exactly one 260 and no
// descriptor is left open.
//
// Input: one record per exchange, in the order the guest asks:
//   u8 flags (bit 0: the exchange fails), u32 status, u8 patch count,
//   then per patch: u16 offset, u8 length, the bytes, written into the reply at offset.
// Bytes no patch names keep what the guest's buffer held, as a short reply leaves them.
// Once the input is used up, every exchange is answered with status 9 (stop).
#include <fcntl.h>
#include <stdlib.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <string>

#include "channel/dnd_message.h"
#include "common/byte_order.h"
#include "log/log.h"
#include "support/temp_dir.h"
#include "support/tree_snapshot.h"
#include "transfer/transfer_job.h"

namespace {

namespace dnd = qvx::dnd;
namespace le = qvx::le;

void check(bool holds, const char* what) {
    if (holds) return;
    std::fprintf(stderr, "receive_fuzz: %s\n", what);
    __builtin_trap();
}

// A folder with the destination and, beside it, a sentinel tree of the names attacks aim
// at: a file to overwrite, folders to write into, a link.
struct Place {
    std::string root;
    std::string dest;
    qvxtest::TreeSnapshot before;

    Place() {
        std::string templ = std::string(qvxtest::memory_temp_parent()) + "/qvx-receive-fuzz.XXXXXX";
        check(::mkdtemp(templ.data()) != nullptr, "no temporary folder");
        root = templ;
        dest = root + "/dest";
        qvxtest::write_file(root + "/outside/victim", "victim");
        qvxtest::write_file(root + "/outside/d/x", "x");
        qvxtest::make_dirs(root + "/outside/L");
        qvxtest::make_dirs(dest);
        check(::symlink("victim", (root + "/outside/link").c_str()) == 0, "no sentinel link");
        before = qvxtest::snapshot_tree(root, {"dest"});
    }
    ~Place() {
        std::error_code ec;
        std::filesystem::remove_all(root, ec);
    }
    void empty_dest() const {
        std::error_code ec;
        for (const auto& entry : std::filesystem::directory_iterator(dest, ec))
            std::filesystem::remove_all(entry.path(), ec);
    }
};

Place* g_place = nullptr;

class ReplyStream {
  public:
    ReplyStream(const uint8_t* data, size_t size) : m_data(data), m_left(size) {}

    bool serve(const void* out, uint32_t, void* replyBuffer, uint32_t replySize) {
        if (dnd::command(static_cast<const uint8_t*>(out)) == dnd::kCmdEnd) ++ends;
        auto* reply = static_cast<uint8_t*>(replyBuffer);
        uint8_t flags = 0;
        uint32_t status = dnd::kStatusStop;
        if (!take(&flags, 1) || !take_u32(status)) {
            le::put32(reply, dnd::kOffStatus, dnd::kStatusStop);
            return true;
        }
        if (flags & 1) return false;
        le::put32(reply, dnd::kOffStatus, status);
        uint8_t patches = 0;
        take(&patches, 1);
        for (uint8_t i = 0; i < patches; ++i) {
            uint8_t head[3];
            if (!take(head, 3)) break;
            const size_t offset = le::get16(head, 0);
            const size_t length = std::min<size_t>(head[2], m_left);
            if (offset < replySize)
                std::memcpy(reply + offset, m_data, std::min<size_t>(length, replySize - offset));
            m_data += length;
            m_left -= length;
        }
        return true;
    }

    int ends = 0;

  private:
    bool take(uint8_t* to, size_t n) {
        if (m_left < n) {
            m_left = 0;
            return false;
        }
        std::memcpy(to, m_data, n);
        m_data += n;
        m_left -= n;
        return true;
    }
    bool take_u32(uint32_t& value) {
        uint8_t bytes[4];
        if (!take(bytes, 4)) return false;
        value = le::get32(bytes, 0);
        return true;
    }

    const uint8_t* m_data;
    size_t m_left;
};

int discard(const char*, int32_t length) {
    return length;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    // Log lines of failed opens would grow a log file without end over millions of runs.
    qvx::log_set_writer(discard);
    static Place place;
    g_place = &place;
    ::setenv("QVX_PLATFORM_ROOT", place.root.c_str(), 1);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const int fds = qvxtest::open_fd_count();
    ReplyStream stream(data, size);
    qvx::TransferJob job;
    job.direction = qvx::kDirectionReceive;
    job.workerId = 0x5A;
    job.destination = g_place->dest;
    const qvx::DnDContext ctx{
        job.workerId, nullptr,
        [&stream](qvx::CommonMacCommunicator*, const void* out, uint32_t outSize, void* reply,
                  uint32_t replySize) { return stream.serve(out, outSize, reply, replySize); }};
    qvx::RunTransferJob(job, ctx);

    check(stream.ends == 1, "not exactly one 260");
    check(qvxtest::open_fd_count() == fds, "a descriptor was left open");
    check(qvxtest::tree_changes(g_place->before, qvxtest::snapshot_tree(g_place->root, {"dest"}))
              .empty(),
          "something beside the destination changed");
    g_place->empty_dest();
    return 0;
}
