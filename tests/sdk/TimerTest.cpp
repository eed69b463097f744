// The library's timer: one-shot and periodic events on a thread of its own, and what stop
// and destroy promise about events in progress and events to come.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

#include <halden/sensor/Timer.h>

namespace {

using namespace halden::sensor;
using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

constexpr auto kPatience = 10s;     // generous, for the sanitizer builds
constexpr auto kQuietSpell = 60ms;  // long enough for several more events of the periods used here

class EventLog : public Timer::OnTimeEventListener {
public:
    // Runs at the start of each event; set before the timer starts.
    std::function<void(Timer*)> hook;

    void onTimeEvent(Timer* timer) override {
        const auto now = Clock::now();
        if (hook) hook(timer);
        std::lock_guard<std::mutex> lock(mMutex);
        mTimes.push_back(now);
        mTimers.push_back(timer);
        mChanged.notify_all();
    }

    bool waitFor(std::size_t count) {
        std::unique_lock<std::mutex> lock(mMutex);
        return mChanged.wait_for(lock, kPatience, [&] { return mTimes.size() >= count; });
    }
    std::size_t count() {
        std::lock_guard<std::mutex> lock(mMutex);
        return mTimes.size();
    }
    std::vector<Clock::time_point> times() {
        std::lock_guard<std::mutex> lock(mMutex);
        return mTimes;
    }
    std::vector<Timer*> timers() {
        std::lock_guard<std::mutex> lock(mMutex);
        return mTimers;
    }

private:
    std::mutex mMutex;
    std::condition_variable mChanged;
    std::vector<Clock::time_point> mTimes;
    std::vector<Timer*> mTimers;
};

TEST(Timer, CreateStartAndDestroyAnswerTheirCodes) {
    EXPECT_EQ(Timer::createTimer("nobody", nullptr), nullptr);
    EXPECT_EQ(Timer::destroyTimer(nullptr), RESULT_INVALID_PARAMETER);
    EventLog log;
    const auto timer = Timer::createTimer("heartbeat", &log);
    ASSERT_NE(timer, nullptr);
    EXPECT_EQ(timer->name(), "heartbeat");
    EXPECT_FALSE(timer->isRunning());
    EXPECT_EQ(timer->stop(), RESULT_INVALID_OPERATION);
    EXPECT_EQ(timer->start(0, true), RESULT_INVALID_PARAMETER);
    EXPECT_FALSE(timer->isRunning());
    ASSERT_EQ(timer->start(1000, true), RESULT_SUCCESS);
    EXPECT_TRUE(timer->isRunning());
    EXPECT_EQ(timer->start(10, true), RESULT_ALREADY_RUNNING);
    EXPECT_EQ(timer->start(10, false), RESULT_ALREADY_RUNNING);
    ASSERT_EQ(timer->stop(), RESULT_SUCCESS);
    EXPECT_EQ(timer->stop(), RESULT_INVALID_OPERATION);
    EXPECT_EQ(Timer::destroyTimer(timer), RESULT_SUCCESS);
    EXPECT_EQ(timer->start(10, true), RESULT_INVALID_OPERATION);
    EXPECT_EQ(timer->start(0, true), RESULT_INVALID_OPERATION);
    EXPECT_FALSE(timer->isRunning());
    EXPECT_EQ(log.count(), 0U);
}

TEST(Timer, OneShotFiresOnceAfterItsPeriod) {
    EventLog log;
    const auto timer = Timer::createTimer("once", &log);
    const auto begin = Clock::now();
    ASSERT_EQ(timer->start(15, false), RESULT_SUCCESS);
    ASSERT_TRUE(log.waitFor(1));
    EXPECT_GE(log.times()[0] - begin, 15ms);
    EXPECT_EQ(log.timers()[0], timer.get());
    std::this_thread::sleep_for(kQuietSpell);
    EXPECT_EQ(log.count(), 1U);
    EXPECT_FALSE(timer->isRunning());

    // A spent one-shot timer can be started again.
    ASSERT_EQ(timer->start(5, false), RESULT_SUCCESS);
    ASSERT_TRUE(log.waitFor(2));
    std::this_thread::sleep_for(kQuietSpell);
    EXPECT_EQ(log.count(), 2U);
    EXPECT_EQ(Timer::destroyTimer(timer), RESULT_SUCCESS);
}

TEST(Timer, RepeatingTimerFiresEveryPeriodUntilStopped) {
    EventLog log;
    const auto timer = Timer::createTimer("tick", &log);
    const auto period = 10ms;
    const auto begin = Clock::now();
    ASSERT_EQ(timer->start(10, true), RESULT_SUCCESS);
    ASSERT_TRUE(log.waitFor(8));
    EXPECT_TRUE(timer->isRunning());
    ASSERT_EQ(timer->stop(), RESULT_SUCCESS);
    EXPECT_FALSE(timer->isRunning());
    const std::size_t atStop = log.count();
    std::this_thread::sleep_for(kQuietSpell);
    EXPECT_EQ(log.count(), atStop) << "events after stop() returned";

    // Event k is due k periods after the start and never comes early; events do not pile up.
    const auto times = log.times();
    for (std::size_t k = 0; k < times.size(); ++k) {
        EXPECT_GE(times[k] - begin, period * static_cast<int>(k + 1)) << k;
        if (k > 0) {
            EXPECT_GT(times[k], times[k - 1]);
        }
    }
    EXPECT_LT(times[7] - begin, period * 8 + 2s);
    EXPECT_EQ(Timer::destroyTimer(timer), RESULT_SUCCESS);
}

TEST(Timer, StopWaitsForAnEventInProgress) {
    EventLog log;
    std::mutex mutex;
    std::condition_variable entered;
    bool inside = false;
    std::atomic<bool> finished{false};
    log.hook = [&](Timer*) {
        {
            std::lock_guard<std::mutex> lock(mutex);
            if (inside) return;
            inside = true;
        }
        entered.notify_all();
        std::this_thread::sleep_for(50ms);
        finished = true;
    };
    const auto timer = Timer::createTimer("slow", &log);
    ASSERT_EQ(timer->start(5, true), RESULT_SUCCESS);
    {
        std::unique_lock<std::mutex> lock(mutex);
        ASSERT_TRUE(entered.wait_for(lock, kPatience, [&] { return inside; }));
    }
    ASSERT_EQ(timer->stop(), RESULT_SUCCESS);
    EXPECT_TRUE(finished.load()) << "stop() returned while an event was still running";
    const std::size_t atStop = log.count();
    EXPECT_EQ(atStop, 1U);
    std::this_thread::sleep_for(kQuietSpell);
    EXPECT_EQ(log.count(), atStop);
    EXPECT_EQ(Timer::destroyTimer(timer), RESULT_SUCCESS);
}

TEST(Timer, EventMayStopAndRestartItsOwnTimer) {
    EventLog log;
    std::atomic<int> events{0};
    std::atomic<int> failures{0};
    // The third event turns the periodic timer into a one-shot one.
    log.hook = [&](Timer* timer) {
        if (++events != 3) return;
        if (timer->stop() != RESULT_SUCCESS) ++failures;
        if (timer->start(5, false) != RESULT_SUCCESS) ++failures;
    };
    const auto timer = Timer::createTimer("self", &log);
    ASSERT_EQ(timer->start(5, true), RESULT_SUCCESS);
    ASSERT_TRUE(log.waitFor(4));
    std::this_thread::sleep_for(kQuietSpell);
    EXPECT_EQ(log.count(), 4U);
    EXPECT_EQ(failures.load(), 0);
    EXPECT_FALSE(timer->isRunning());
    EXPECT_EQ(Timer::destroyTimer(timer), RESULT_SUCCESS);
}

TEST(Timer, NoEventAfterDestroy) {
    EventLog log;
    const auto timer = Timer::createTimer("doomed", &log);
    ASSERT_EQ(timer->start(2, true), RESULT_SUCCESS);
    ASSERT_TRUE(log.waitFor(3));
    ASSERT_EQ(Timer::destroyTimer(timer), RESULT_SUCCESS);
    const std::size_t atDestroy = log.count();
    EXPECT_FALSE(timer->isRunning());
    EXPECT_EQ(timer->stop(), RESULT_INVALID_OPERATION);
    std::this_thread::sleep_for(kQuietSpell);
    EXPECT_EQ(log.count(), atDestroy);
}

}  // namespace
