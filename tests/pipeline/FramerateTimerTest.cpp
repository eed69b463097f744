// The frame-rate checker on the library's own timer: a sample arrives about a second after
// start and holds the frames counted in that second.
#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <mutex>

#include "pipeline/FramerateChecker.h"

namespace lumora::pipeline {
namespace {

using namespace std::chrono_literals;

// Tells the test when the library's timer has delivered an event, and from which timer.
class ObservedChecker : public FramerateChecker {
public:
    void onTimeEvent(halden::sensor::Timer* timer) override {
        FramerateChecker::onTimeEvent(timer);
        const std::lock_guard<std::mutex> lock(mMutex);
        ++mEvents;
        mFromTimer = mFromTimer && timer != nullptr;
        mEvent.notify_all();
    }
    bool waitForEvent() {
        std::unique_lock<std::mutex> lock(mMutex);
        return mEvent.wait_for(lock, 10s, [this] { return mEvents > 0; });
    }
    bool fromTimer() {
        const std::lock_guard<std::mutex> lock(mMutex);
        return mFromTimer;
    }

private:
    std::mutex mMutex;
    std::condition_variable mEvent;
    int mEvents = 0;
    bool mFromTimer = true;
};

TEST(FramerateCheckerTimer, SamplesTheFramesOfOneSecond) {
    ObservedChecker checker;
    checker.setErrorCheck(true);
    checker.start();
    for (int i = 0; i < 12; ++i)
        checker.countFrame();
    ASSERT_TRUE(checker.waitForEvent());
    const FramerateStatus status = checker.countFrame();
    // Stopped before the override's members go.
    checker.stop();
    EXPECT_TRUE(checker.fromTimer());
    EXPECT_EQ(status.frameRate, 12.0F);
    EXPECT_EQ(status.errorCount, 1);
    EXPECT_EQ(status.errorRate, 12.0F);
}

}  // namespace
}  // namespace lumora::pipeline
