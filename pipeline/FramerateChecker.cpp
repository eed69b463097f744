// Design: the drawing thread produces frame counts (countFrame), the library's timer
// thread consumes them once a second (onTimeEvent); both take mMutex, so a sample never
// loses or splits a count. The shell thread changes the band and the check flag through
// atomics, without the lock. Shutdown: stop() returns only once an event in progress has
// finished, and the destructor destroys the timer before any member goes.
#include "pipeline/FramerateChecker.h"

namespace lumora::pipeline {

using halden::sensor::Timer;

namespace {
constexpr std::uint32_t kPeriodMs = 1000;  // the count of one period is the rate per second
}  // namespace

FramerateChecker::FramerateChecker() : mTimer(Timer::createTimer("FramerateCheckTimer", this)) {}

FramerateChecker::~FramerateChecker() {
    if (mTimer) Timer::destroyTimer(mTimer);
    mTimer.reset();
}

void FramerateChecker::onTimeEvent(Timer* /*timer*/) {
    const std::lock_guard<std::mutex> lock(mMutex);
    mFrameRate = static_cast<float>(mFrameCount);
    if (mErrorCheck.load() && (mFrameRate < mMinimum.load() || mFrameRate > mMaximum.load())) {
        mErrorRate = mFrameRate;
        ++mErrorCount;
    }
    mFrameCount = 0;
}

bool FramerateChecker::isRunning() const { return mTimer && mTimer->isRunning(); }

void FramerateChecker::start() {
    if (!mTimer || mTimer->isRunning()) return;
    const std::lock_guard<std::mutex> lock(mMutex);
    mFrameCount = 0;
    mErrorCount = 0;
    mFrameRate = 0.0F;
    mErrorRate = 0.0F;
    mTimer->start(kPeriodMs, true);
}

void FramerateChecker::stop() {
    // Not under mMutex: the timer's stop waits for an event in progress, which takes it.
    if (isRunning()) mTimer->stop();
}

FramerateStatus FramerateChecker::countFrame() {
    if (!isRunning()) return {};
    const std::lock_guard<std::mutex> lock(mMutex);
    ++mFrameCount;
    return {mErrorRate, mErrorCount, mFrameRate};
}

void FramerateChecker::setErrorCheck(bool on) {
    if (on == mErrorCheck.load()) return;
    if (on) {
        const std::lock_guard<std::mutex> lock(mMutex);
        mErrorCount = 0;
        mErrorRate = 0.0F;
    }
    mErrorCheck.store(on);
}

}  // namespace lumora::pipeline
