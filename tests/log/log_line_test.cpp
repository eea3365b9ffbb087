// Tests of the log line format, hex dump, writer swaps and the small helpers.
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <regex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "log/log.h"
#include "support/log_capture.h"

namespace {

using qvxtest::LogCapture;

std::string only_line(const LogCapture& capture) {
    auto lines = capture.lines();
    EXPECT_EQ(lines.size(), 1u);
    return lines.empty() ? std::string() : lines.front();
}

// The text after the "/component:pid:tid/ " part.
std::string after_prefix(const std::string& line) {
    size_t at = line.find("/ ", 19);
    return at == std::string::npos ? line : line.substr(at + 2);
}

TEST(LogLine, FullLineHasTimeLevelComponentPidThreadAndTag) {
    LogCapture capture;
    qvx::log_message("DNDTOOL", "qvxdragdrop", 1, "DnD command received [%d]", 200);
    char ids[64];
    std::snprintf(ids, sizeof ids, "%lld:%x", static_cast<long long>(getpid()),
                  qvx::log_thread_id());
    std::regex expected(std::string(R"(\d\d-\d\d \d\d:\d\d:\d\d\.\d{3} W /qvxdragdrop:)") + ids +
                        R"(/ \[DNDTOOL\] DnD command received \[200\]\n)");
    EXPECT_TRUE(std::regex_match(only_line(capture), expected)) << only_line(capture);
}

TEST(LogLine, LevelLetterFollowsRemainderModulo16) {
    const std::pair<int, const char*> cases[] = {
        {0, "F "},  {1, "W "},   {2, "I "},    {3, "D "},      {4, "T "},
        {17, "W "}, {-16, "F "}, {5, "O(5) "}, {-1, "O(-1) "}, {-20, "O(-4) "},
    };
    for (const auto& [level, letter] : cases) {
        LogCapture capture;
        qvx::log_message("", "c", level, "m");
        EXPECT_EQ(only_line(capture).substr(19, std::strlen(letter) + 3),
                  std::string(letter) + "/c:")
            << "level " << level;
    }
}

TEST(LogLine, TagIsBracketedAndSourcePositionShownOnlyWithFileAndFunction) {
    struct Case {
        const char* tag;
        const char* file;
        const char* function;
        const char* expected;
    } const cases[] = {
        {"x", nullptr, nullptr, "[x] m\n"},
        {"[x]", nullptr, nullptr, "[x] m\n"},
        {"", nullptr, nullptr, "m\n"},
        {"[open", nullptr, nullptr, "[open m\n"},
        {"t", "/src/fs/host_file.cpp", "CHostFile::read_", "[t] {read_ @ host_file.cpp:42} m\n"},
        {"t", "C:\\build\\src\\x.cpp", "run", "[t] {run @ x.cpp:42} m\n"},
        {"t", "dir/mixed\\name.cpp", "a::b", "[t] {b @ name.cpp:42} m\n"},
        {"t", "/src/x.cpp", nullptr, "[t] m\n"},
        {"t", nullptr, "run", "[t] m\n"},
    };
    for (const auto& c : cases) {
        LogCapture capture;
        if (c.file || c.function)
            qvx::log_message_at(c.file, 42, c.function, c.tag, "c", 0, "m");
        else
            qvx::log_message(c.tag, "c", 0, "m");
        EXPECT_EQ(after_prefix(only_line(capture)), c.expected) << "tag '" << c.tag << "'";
    }
}

TEST(LogLine, LongMessageIsCutTo4094BytesPlusNewline) {
    LogCapture capture;
    std::string longText(5000, 'x');
    qvx::log_message("t", "c", 0, "%s", longText.c_str());
    std::string line = only_line(capture);
    ASSERT_EQ(line.size(), 4095u);
    EXPECT_EQ(line.back(), '\n');
    EXPECT_EQ(line[4093], 'x');

    // A message with its own newline leaves an empty line behind it.
    capture.clear();
    qvx::log_message("", "c", 0, "done\n");
    EXPECT_EQ(after_prefix(only_line(capture)), "done\n\n");
}

TEST(LogLine, ErrnoSurvivesLoggingEvenWhenTheWriterChangesIt) {
    LogCapture capture;
    auto clobbering = [](const char*, int32_t) {
        errno = EIO;
        return 0;
    };
    qvx::LogWriter previous = qvx::log_set_writer(clobbering);
    errno = EACCES;
    qvx::log_message("", "c", 0, "a");
    EXPECT_EQ(errno, EACCES);
    errno = ENOENT;
    qvx::log_message_at("f.cpp", 1, "g", "", "c", 0, "b");
    EXPECT_EQ(errno, ENOENT);
    qvx::log_set_writer(previous);

    qvx::RateLimiter limiter{5, 0xFFFFFFFFu};
    errno = EPERM;
    qvx::log_rate_limiter_allow(&limiter);
    EXPECT_EQ(errno, EPERM);
}

TEST(LogHexdump, RowsOfSixteenTheLastPaddedWithZeros) {
    unsigned char data[20] = {'A', 'b', 0x00, 0x1F, 0x20, 0x7F, 0x80, 0xFF, '0',  '1',
                              '2', '3', '4',  '5',  '6',  '7',  0x10, 'x',  0x0A, 'y'};
    LogCapture capture;
    qvx::log_hexdump("t", "c", 3, data, sizeof data, "/a/dump.cpp", 9, "ns::dump");
    auto lines = capture.lines();
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[0].substr(19, 2), "D ");
    EXPECT_EQ(after_prefix(lines[0]),
              "[t] {dump @ dump.cpp:9} 00000000 41 62 00 1f 20 7f 80 ff | "
              "30 31 32 33 34 35 36 37 Ab.. \x7f\x80\xff"
              "01234567\n");
    EXPECT_EQ(after_prefix(lines[1]),
              "[t] {dump @ dump.cpp:9} 00000010 10 78 0a 79 00 00 00 00 | "
              "00 00 00 00 00 00 00 00 .x.y............\n");

    for (auto [length, rows] :
         {std::pair<size_t, size_t>{0, 0}, {1, 1}, {16, 1}, {17, 2}, {33, 3}}) {
        const unsigned char zeros[33] = {};
        capture.clear();
        qvx::log_hexdump("", "c", 0, zeros, length, nullptr, 0, nullptr);
        EXPECT_EQ(capture.lines().size(), rows) << "length " << length;
    }
}

// Writers for the swap test: each records the lines it saw, and the old one counts
// every call that begins after the swap has returned.
std::mutex g_seenMutex;
std::set<std::string> g_seenByOld;
std::set<std::string> g_seenByNew;
std::atomic<bool> g_oldRetired{false};
std::atomic<int> g_oldCallsAfterSwap{0};
std::atomic<int> g_oldInFlight{0};

std::string message_of(const char* text, int32_t length) {
    std::string line(text, static_cast<size_t>(length));
    return line.substr(line.find("/ ", 19) + 2);
}

int old_writer(const char* text, int32_t length) {
    g_oldInFlight.fetch_add(1);
    if (g_oldRetired.load()) g_oldCallsAfterSwap.fetch_add(1);
    {
        std::lock_guard lock(g_seenMutex);
        g_seenByOld.insert(message_of(text, length));
    }
    std::this_thread::yield();  // widen the window in which a swap can overlap a call
    g_oldInFlight.fetch_sub(1);
    return length;
}

int new_writer(const char* text, int32_t length) {
    std::lock_guard lock(g_seenMutex);
    g_seenByNew.insert(message_of(text, length));
    return length;
}

TEST(LogWriter, SwapWhileEightThreadsLogLosesNoLineAndRetiresOldWriter) {
    constexpr int kThreads = 8;
    constexpr int kLines = 1500;
    qvx::LogWriter original = qvx::log_set_writer(old_writer);
    std::atomic<int> started{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([t, &started] {
            started.fetch_add(1);
            for (int i = 0; i < kLines; ++i) qvx::log_message("", "c", 0, "t%d-%d", t, i);
        });
    }
    while (started.load() < kThreads) std::this_thread::yield();
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
    qvx::LogWriter replaced = qvx::log_set_writer(new_writer);
    EXPECT_EQ(g_oldInFlight.load(), 0);
    g_oldRetired.store(true);
    for (auto& thread : threads) thread.join();
    qvx::log_set_writer(original);

    EXPECT_EQ(replaced, &old_writer);
    EXPECT_EQ(g_oldCallsAfterSwap.load(), 0);
    std::lock_guard lock(g_seenMutex);
    EXPECT_FALSE(g_seenByNew.empty());
    int lost = 0;
    for (int t = 0; t < kThreads; ++t) {
        for (int i = 0; i < kLines; ++i) {
            std::string message = "t" + std::to_string(t) + "-" + std::to_string(i) + "\n";
            lost += g_seenByOld.count(message) == 0 && g_seenByNew.count(message) == 0;
        }
    }
    EXPECT_EQ(lost, 0);
}

TEST(LogHelpers, RateLimiterLetsALineThroughOnlyAfterMoreThanTheInterval) {
    qvx::RateLimiter limiter{5, 0xFFFFFFFFu};
    EXPECT_TRUE(qvx::log_rate_limiter_allow(&limiter));
    EXPECT_FALSE(qvx::log_rate_limiter_allow(&limiter));
    // Retry when the second turns between reading the clock and the call.
    for (int attempt = 0; attempt < 3; ++attempt) {
        uint32_t now = static_cast<uint32_t>(qvx::monotonic_ms() / 1000);
        limiter.last = now - 5;
        bool atFive = qvx::log_rate_limiter_allow(&limiter);
        limiter.last = now - 6;
        bool atSix = qvx::log_rate_limiter_allow(&limiter);
        if (static_cast<uint32_t>(qvx::monotonic_ms() / 1000) != now) continue;
        EXPECT_FALSE(atFive);
        EXPECT_TRUE(atSix);
        EXPECT_EQ(limiter.last, now);
        break;
    }
}

}  // namespace
