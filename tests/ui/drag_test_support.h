// What the drag tests share: a host played from a script through the send function, whose
// pointer messages move the desktop's pointer, and a pool whose job starts are recorded.
#pragma once

#include <gtest/gtest.h>
#include <pthread.h>

#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "app/dnd_pool.h"
#include "channel/dnd_message.h"
#include "common/byte_order.h"
#include "platform/sim/desktop.h"
#include "platform/sim/run_loop.h"
#include "support/private_root.h"
#include "text/encoding.h"
#include "ui/overlay.h"

namespace qvxtest {

// One record the tool sent, decoded.
struct SentRecord {
    uint32_t command = 0;
    uint64_t workerId = 0;
    uint32_t x = 0, y = 0, state = 0;       // 275
    uint32_t dialogId = 0, dialogCode = 0;  // 263
    std::vector<std::string> names;         // 258
    std::string text() const {
        std::string t = std::to_string(command);
        if (command == qvx::dnd::kCmdMoveMouse)
            t += " " + std::to_string(x) + "," + std::to_string(y) + "," + std::to_string(state);
        if (command == qvx::dnd::kCmdDialog)
            t += " " + std::to_string(dialogId) + "/" + std::to_string(dialogCode);
        return t;
    }
};

// The host's side of the drag messages. Every 275 becomes a pointer event of the desktop,
// as the simulated host turns them into "pointer" requests; 273 releases the pointer
// where it is. Thread-safe: the control thread and job threads send through it.
class ScriptedHost {
  public:
    // Reply status per command, or for the n-th record (from 1) of a command (0 when not
    // set), and the values the replies carry. A 275 answered with a failure moves nothing.
    std::map<uint32_t, uint32_t> status;
    std::map<std::pair<uint32_t, unsigned>, uint32_t> nthStatus;
    uint32_t prepareValue = 0;
    uint64_t newWorker = 77;
    uint32_t action = 0;
    bool releaseOnHandOver = true;
    // Called on the sending thread with every record, before it is answered.
    std::function<void(const SentRecord&)> onSend;
    // Called on the sending thread after a 275 was turned into a pointer event.
    std::function<void(const SentRecord&)> afterMove;
    // Called on the sending thread when a 273 arrives, before the release.
    std::function<void()> onHandOver;

    qvx::SendFunction send() {
        return [this](qvx::CommonMacCommunicator*, const void* out, uint32_t outSize, void* reply,
                      uint32_t replySize) {
            return answer(static_cast<const uint8_t*>(out), outSize, static_cast<uint8_t*>(reply),
                          replySize);
        };
    }
    std::vector<SentRecord> sent() {
        std::lock_guard lock(m_mutex);
        return m_sent;
    }
    // The commands sent, as "275 1440,900,1", "263 4/12", "258", ...
    std::vector<std::string> texts() {
        std::vector<std::string> out;
        for (const auto& r : sent()) out.push_back(r.text());
        return out;
    }

  private:
    bool answer(const uint8_t* out, uint32_t outSize, uint8_t* reply, uint32_t replySize) {
        namespace dnd = qvx::dnd;
        namespace le = qvx::le;
        EXPECT_GE(outSize, dnd::kMessageSize);
        EXPECT_GE(replySize, dnd::kMessageSize);
        SentRecord r;
        r.command = dnd::command(out);
        r.workerId = dnd::worker_id(out);
        if (r.command == dnd::kCmdMoveMouse) {
            r.x = le::get32(out, dnd::kOffPointerX);
            r.y = le::get32(out, dnd::kOffPointerY);
            r.state = le::get32(out, dnd::kOffPointerButtons);
        } else if (r.command == dnd::kCmdDialog) {
            r.dialogId = le::get32(out, dnd::kOffDialogId);
            r.dialogCode = le::get32(out, dnd::kOffDialogCode);
        } else if (r.command == dnd::kCmdFileList) {
            const uint32_t count = le::get32(out, dnd::kOffListCount);
            size_t at = dnd::kOffListNames;
            for (uint32_t i = 0; i < count && at + 2 <= outSize; ++i) {
                size_t end = at;
                while (end + 2 <= outSize && le::get16(out, end) != 0) end += 2;
                std::string name;
                qvx::Utf16ToNormalizedUtf8(out + at, end - at, name);
                r.names.push_back(name);
                at = end + 2;
            }
        }
        if (onSend) onSend(r);
        uint32_t st = 0;
        {
            std::lock_guard lock(m_mutex);
            m_sent.push_back(r);
            const unsigned nth = ++m_counts[r.command];
            if (auto it = status.find(r.command); it != status.end()) st = it->second;
            if (auto it = nthStatus.find({r.command, nth}); it != nthStatus.end()) st = it->second;
        }
        dnd::init_message(reply, dnd::kMessageSize, r.command, r.workerId);
        le::put32(reply, dnd::kOffStatus, st);
        if (r.command == dnd::kCmdQueryPrepare)
            le::put32(reply, dnd::kOffPrepareValue, prepareValue);
        if (r.command == dnd::kCmdFileList) {
            le::put64(reply, dnd::kOffWorkerId, newWorker);
            le::put32(reply, dnd::kOffReplyAction, action);
        }
        if (r.command == dnd::kCmdMoveMouse && st == 0) {
            platform::post_pointer_event(r.x, r.y, r.state == 0 ? 0 : 1);
            if (afterMove) afterMove(r);
        }
        if (r.command == dnd::kCmd273) {
            if (onHandOver) onHandOver();
            if (releaseOnHandOver) {
                const auto p = platform::pointer_state();
                platform::post_pointer_event(p.x, p.y, 0);
            }
        }
        return true;
    }

    std::mutex m_mutex;
    std::vector<SentRecord> m_sent;
    std::map<uint32_t, unsigned> m_counts;
};

// A job the pool started, as its record described it.
struct StartedJob {
    uint32_t direction = 0;
    uint64_t workerId = 0;
    std::string destination;
    std::vector<std::string> paths;
    uint32_t action = 0;
};

// Records every job start and runs, in place of the transfer, a thread that does nothing:
// the drags' tests end where the transfer begins (and a send job with action 4 would
// delete the paths it was given). The records, which the job threads would have freed,
// are kept until release().
class JobRecorder {
  public:
    static void install(qvx::DnDPool& pool) {
        release();
        pool.SetCreateThread(create);
    }
    static std::vector<StartedJob> started() {
        std::lock_guard lock(mutex());
        return jobs();
    }
    // After the pool's Stop: forgets the starts and frees their records.
    static void release() {
        std::lock_guard lock(mutex());
        jobs().clear();
        for (qvx::TransferJob* job : held()) delete job;
        held().clear();
    }

  private:
    static int create(pthread_t* thread, const pthread_attr_t* attr, void* (*)(void*), void* arg) {
        auto* job = static_cast<qvx::TransferJob*>(arg);
        {
            std::lock_guard lock(mutex());
            jobs().push_back(
                {job->direction, job->workerId, job->destination, job->paths, job->action});
            held().push_back(job);
        }
        // Stays listed, since it never removes itself; the pool's Stop joins it.
        return pthread_create(
            thread, attr, [](void*) -> void* { return nullptr; }, nullptr);
    }
    static std::mutex& mutex() {
        static std::mutex m;
        return m;
    }
    static std::vector<StartedJob>& jobs() {
        static std::vector<StartedJob> j;
        return j;
    }
    static std::vector<qvx::TransferJob*>& held() {
        static std::vector<qvx::TransferJob*> h;
        return h;
    }
};

// Pointer units of a window-system point on the current screens.
inline std::pair<double, double> pixels_of(double x, double y) {
    double px = 0, py = 0;
    platform::points_to_pointer(NSMakePoint(x, y), px, py);
    return {px, py};
}

// A private platform root for the process; each test starts on a fresh desktop with no
// dragged paths, and leaves the main run loop empty.
class DesktopFixture : public ::testing::Test {
  protected:
    static void SetUpTestSuite() {
        private_platform_root();
        qvx::init_global_mutex();
    }
    void SetUp() override {
        platform::desktop_reset();
        qvx::clear_dragged_paths();
    }
    void TearDown() override {
        platform::run_loop_reset(CFRunLoopGetMain());
        platform::desktop_reset();
    }
};

}  // namespace qvxtest
