// The process-wide log: which entries each level lets through, the form of an entry, and
// entries of several threads that stay whole.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <set>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <halden/sensor/Log.h>

namespace halden::sensor::test {
namespace {

// Every test leaves the level as it found it.
class LogTest : public testing::Test {
protected:
    void SetUp() override { mBefore = Log::getLogLevel(); }
    void TearDown() override { Log::setLogLevel(mBefore); }

    Log::LogLevel mBefore = Log::LOG_NONE;
};

template <typename Work>
std::string printed(Work work) {
    testing::internal::CaptureStdout();
    work();
    return testing::internal::GetCapturedStdout();
}

TEST_F(LogTest, EachLevelPrintsItsOwnAndMoreSevereEntries) {
    EXPECT_EQ(mBefore, Log::LOG_ERROR) << "the default level";
    // Levels outside the range are clamped to it.
    for (int level = Log::LOG_NONE - 1; level <= Log::LOG_DEBUG + 1; ++level) {
        Log::setLogLevel(static_cast<Log::LogLevel>(level));
        const int clamped = std::clamp(level, static_cast<int>(Log::LOG_NONE), static_cast<int>(Log::LOG_DEBUG));
        EXPECT_EQ(Log::getLogLevel(), clamped);
        const std::string output = printed([] {
            Log::e(LogTag{"Levels.cpp", 1}, "level %d", 1);
            Log::w(LogTag{"Levels.cpp", 2}, "level %d", 2);
            Log::i(LogTag{"Levels.cpp", 3}, "level %d", 3);
            Log::d(LogTag{"Levels.cpp", 4}, "level %d", 4);
        });
        std::string expected;
        for (int entry = 1; entry <= clamped; ++entry) {
            expected += std::string("\r") + "EWID"[entry - 1] + "/Levels.cpp:" + std::to_string(entry) + ": level " +
                        std::to_string(entry) + "\n";
        }
        EXPECT_EQ(output, expected) << "log level " << level;
    }
}

TEST_F(LogTest, EntryIsTaggedAndEveryLineStartsAtTheMargin) {
    Log::setLogLevel(Log::LOG_DEBUG);
    EXPECT_EQ(printed([] {
                  Log::e(LogTag{"FrameDumpSink", 120}, "wrote %d of %s", 7, "frames");
              }),
              "\rE/FrameDumpSink:120: wrote 7 of frames\n");
    // A final newline is not doubled; inner lines begin with a carriage return too.
    EXPECT_EQ(printed([] { Log::w(LogTag{"A.cpp", 5}, "done\n"); }), "\rW/A.cpp:5: done\n");
    EXPECT_EQ(printed([] {
                  Log::i(LogTag{"A.cpp", 6}, "first\nsecond\nthird");
              }),
              "\rI/A.cpp:6: first\n\rsecond\n\rthird\n");
    EXPECT_EQ(printed([] { Log::d(LogTag{"A.cpp", 7}, "%s", ""); }), "\rD/A.cpp:7: \n");

    const int line = __LINE__ + 1;
    const std::string tagged = printed([] { Log::e(LUMORA_LOG_TAG("LogTest.cpp"), "here"); });
    EXPECT_EQ(tagged, "\rE/LogTest.cpp:" + std::to_string(line) + ": here\n");

    // Text longer than an entry holds is cut, not overrun.
    const std::string longText(5000, 'x');
    const std::string cut = printed([&] { Log::e(LogTag{"A.cpp", 8}, "%s", longText.c_str()); });
    EXPECT_EQ(cut.rfind("\rE/A.cpp:8: xxx", 0), 0U);
    EXPECT_EQ(cut.find('\n'), cut.size() - 1);
    EXPECT_LT(cut.size(), longText.size());
}

TEST_F(LogTest, EntriesOfConcurrentThreadsStayWhole) {
    constexpr int kThreads = 4;
    constexpr int kEntries = 100;
    const std::string padding(300, '.');
    Log::setLogLevel(Log::LOG_ERROR);
    const std::string output = printed([&] {
        std::vector<std::thread> threads;
        threads.reserve(kThreads);
        for (int t = 0; t < kThreads; ++t) {
            threads.emplace_back([t, &padding] {
                for (int n = 0; n < kEntries; ++n) {
                    Log::e(LogTag{"Worker.cpp", t}, "thread %d entry %d %s\nsecond line %d", t, n, padding.c_str(), n);
                }
            });
        }
        for (auto& thread : threads)
            thread.join();
    });
    // Entries follow one another whole, each of them once.
    std::set<std::pair<int, int>> seen;
    for (std::size_t at = 0; at < output.size();) {
        int t = -1;
        int n = -1;
        const std::string head = output.substr(at, 64);
        ASSERT_EQ(std::sscanf(head.c_str(), "\rE/Worker.cpp:%*d: thread %d entry %d", &t, &n), 2) << head;
        const std::string whole = "\rE/Worker.cpp:" + std::to_string(t) + ": thread " + std::to_string(t) + " entry " +
                                  std::to_string(n) + " " + padding + "\n\rsecond line " + std::to_string(n) + "\n";
        ASSERT_EQ(output.compare(at, whole.size(), whole), 0) << output.substr(at, whole.size());
        EXPECT_TRUE(seen.insert({t, n}).second) << "printed twice: " << whole;
        at += whole.size();
    }
    EXPECT_EQ(seen.size(), static_cast<std::size_t>(kThreads * kEntries));
}

}  // namespace
}  // namespace halden::sensor::test
