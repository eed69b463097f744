// The library's timer: one-shot and periodic events on a thread of its own, and what stop
// and destroy promise about events in progress and events to come.
#include "SimTestSupport.h"

namespace halden::sensor::test {
namespace {

constexpr auto kQuietSpell = 60ms;  // long enough for several more events of the periods used here

// When each event began and which timer it came from; the hook runs inside the event.
struct EventLog : Timer::OnTimeEventListener, Recorded<std::pair<Clock::time_point, Timer*>> {
    std::function<void(Timer*)> hook;
    void onTimeEvent(Timer* timer) override {
        const auto now = Clock::now();
        if (hook) hook(timer);
        add({now, timer});
    }
};

TEST(Timer, AnswersItsCodesAndFiresNoMoreOnceDestroyed) {
    EXPECT_EQ(Timer::createTimer("nobody", nullptr), nullptr);
    EXPECT_EQ(Timer::destroyTimer(nullptr), RESULT_INVALID_PARAMETER);
    EventLog log;
    const auto timer = Timer::createTimer("heartbeat", &log);
    ASSERT_NE(timer, nullptr);
    EXPECT_EQ(timer->name(), "heartbeat");
    EXPECT_FALSE(timer->isRunning());
    EXPECT_EQ(timer->stop(), RESULT_INVALID_OPERATION);
    EXPECT_EQ(timer->start(0, true), RESULT_INVALID_PARAMETER);
    ASSERT_EQ(timer->start(1000, true), RESULT_SUCCESS);
    EXPECT_TRUE(timer->isRunning());
    EXPECT_EQ(timer->start(10, true), RESULT_ALREADY_RUNNING);
    EXPECT_EQ(timer->start(10, false), RESULT_ALREADY_RUNNING);
    ASSERT_EQ(timer->stop(), RESULT_SUCCESS);
    EXPECT_EQ(timer->stop(), RESULT_INVALID_OPERATION);
    EXPECT_EQ(log.size(), 0U);

    // Destroyed while it fires every 2 ms.
    ASSERT_EQ(timer->start(2, true), RESULT_SUCCESS);
    ASSERT_TRUE(log.waitFor(3));
    ASSERT_EQ(Timer::destroyTimer(timer), RESULT_SUCCESS);
    const std::size_t atDestroy = log.size();
    EXPECT_FALSE(timer->isRunning());
    EXPECT_EQ(timer->stop(), RESULT_INVALID_OPERATION);
    EXPECT_EQ(timer->start(10, true), RESULT_INVALID_OPERATION);
    EXPECT_EQ(timer->start(0, true), RESULT_INVALID_OPERATION);
    std::this_thread::sleep_for(kQuietSpell);
    EXPECT_EQ(log.size(), atDestroy);
}

TEST(Timer, OneShotFiresOnceAndAnEventMayRestartItsOwnTimer) {
    EventLog log;
    std::atomic<int> events{0};
    std::atomic<int> failures{0};
    // The fourth event turns the periodic timer into a one-shot one again.
    log.hook = [&](Timer* timer) {
        if (++events != 4) return;
        if (timer->stop() != RESULT_SUCCESS) ++failures;
        if (timer->start(5, false) != RESULT_SUCCESS) ++failures;
    };
    const auto timer = Timer::createTimer("once", &log);
    const auto begin = Clock::now();
    ASSERT_EQ(timer->start(15, false), RESULT_SUCCESS);
    ASSERT_TRUE(log.waitFor(1));
    std::this_thread::sleep_for(kQuietSpell);
    const auto first = log.all();
    ASSERT_EQ(first.size(), 1U);
    EXPECT_GE(first[0].first - begin, 15ms);
    EXPECT_EQ(first[0].second, timer.get());
    EXPECT_FALSE(timer->isRunning());

    // A spent one-shot timer can be started again.
    ASSERT_EQ(timer->start(5, true), RESULT_SUCCESS);
    ASSERT_TRUE(log.waitFor(5));
    std::this_thread::sleep_for(kQuietSpell);
    EXPECT_EQ(log.size(), 5U);
    EXPECT_EQ(failures.load(), 0);
    EXPECT_FALSE(timer->isRunning());
    EXPECT_EQ(Timer::destroyTimer(timer), RESULT_SUCCESS);
}

TEST(Timer, RepeatingTimerFiresEveryPeriodAndStopWaitsForAnEventInProgress) {
    EventLog log;
    std::atomic<int> entered{0};
    std::atomic<bool> finished{false};
    // The ninth event is slow, and stop() comes while it runs.
    log.hook = [&](Timer*) {
        if (++entered != 9) return;
        std::this_thread::sleep_for(50ms);
        finished = true;
    };
    const auto timer = Timer::createTimer("tick", &log);
    const auto period = 10ms;
    const auto begin = Clock::now();
    ASSERT_EQ(timer->start(10, true), RESULT_SUCCESS);
    while (entered.load() < 9 && Clock::now() < begin + kPatience)
        std::this_thread::sleep_for(1ms);
    EXPECT_TRUE(timer->isRunning());
    ASSERT_EQ(timer->stop(), RESULT_SUCCESS);
    EXPECT_TRUE(finished.load()) << "stop() returned while an event was still running";
    EXPECT_FALSE(timer->isRunning());
    const std::size_t atStop = log.size();
    std::this_thread::sleep_for(kQuietSpell);
    EXPECT_EQ(log.size(), atStop) << "events after stop() returned";

    // Event k is due k periods after the start and never comes early; events do not pile up.
    const auto events = log.all();
    ASSERT_GE(events.size(), 9U);
    for (std::size_t k = 0; k < events.size(); ++k) {
        EXPECT_GE(events[k].first - begin, period * static_cast<int>(k + 1)) << k;
        EXPECT_TRUE(k == 0 || events[k].first > events[k - 1].first) << k;
    }
    EXPECT_LT(events[7].first - begin, period * 8 + 2s);
    EXPECT_EQ(Timer::destroyTimer(timer), RESULT_SUCCESS);
}

}  // namespace
}  // namespace halden::sensor::test
