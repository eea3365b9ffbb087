// A host played from a script through the DnDContext's send function: it records every
// request and answers each with a status (and whatever else the script writes).
#pragma once

#include <cstdint>
#include <cstring>
#include <deque>
#include <functional>
#include <initializer_list>
#include <vector>

#include "channel/dnd_message.h"
#include "channel/message_ops.h"

namespace qvxtest {

// One answer: whether the exchange succeeds, the reply status, and anything else to write
// into the reply buffer.
struct Answer {
    bool ok = true;
    uint32_t status = 0;
    std::function<void(uint8_t* reply, size_t size)> fill;
};

struct Request {
    std::vector<uint8_t> bytes;
    size_t replySize;
    uint32_t command() const { return qvx::le::get32(bytes.data(), qvx::dnd::kOffCommand); }
};

// Answers from the script, then with status 0 once it is used up (or with `fallback`).
struct ScriptedHost {
    static constexpr uint64_t kWorker = 0x1122334455667788;

    std::deque<Answer> script;
    std::vector<Request> sent;
    std::function<Answer(const Request&)> fallback;

    bool serve(const void* out, uint32_t outSize, void* reply, uint32_t replySize) {
        const auto* o = static_cast<const uint8_t*>(out);
        sent.push_back({{o, o + outSize}, replySize});
        Answer a;
        if (!script.empty()) {
            a = std::move(script.front());
            script.pop_front();
        } else if (fallback) {
            a = fallback(sent.back());
        }
        qvx::le::put32(static_cast<uint8_t*>(reply), qvx::dnd::kOffStatus, a.status);
        if (a.fill) a.fill(static_cast<uint8_t*>(reply), replySize);
        return a.ok;
    }
    qvx::DnDContext context(uint64_t workerId = kWorker) {
        return {workerId, nullptr,
                [this](qvx::CommonMacCommunicator*, const void* out, uint32_t outSize, void* reply,
                       uint32_t replySize) { return serve(out, outSize, reply, replySize); }};
    }
    void answer(std::initializer_list<uint32_t> statuses) {
        for (uint32_t s : statuses) script.push_back({true, s, nullptr});
    }
    void fail() { script.push_back({false, 0, nullptr}); }
    std::vector<uint32_t> commands() const {
        std::vector<uint32_t> out;
        for (const auto& r : sent) out.push_back(r.command());
        return out;
    }
};

}  // namespace qvxtest
