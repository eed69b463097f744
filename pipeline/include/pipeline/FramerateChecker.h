// Frame-rate sampling once a second, and a count of the seconds outside an allowed band.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <utility>

#include <halden/sensor/Timer.h>

namespace lumora::pipeline {

// What the display shows: the last sample outside the band, how many samples fell outside
// it, and the last sample, in frames per second.
struct FramerateStatus {
    float errorRate = 0.0F;
    std::int32_t errorCount = 0;
    float frameRate = 0.0F;
};

// Threads: the drawing thread calls countFrame, the library's timer thread calls
// onTimeEvent, the shell thread calls the setters and getters; start and stop come from
// the thread that follows the camera's run state. Frame counting and the timer event share
// one lock; the error check flag and the band edges are atomics read without it.
class FramerateChecker : public halden::sensor::Timer::OnTimeEventListener {
public:
    // Creates the library timer "FramerateCheckTimer", stopped, with this as its listener.
    // If the library gives no timer, the checker never runs.
    FramerateChecker();
    // Destroys the timer: no event runs once this has begun.
    ~FramerateChecker() override;

    FramerateChecker(const FramerateChecker&) = delete;
    FramerateChecker& operator=(const FramerateChecker&) = delete;

    // Timer thread, once a second: takes the frames counted since the last event as the
    // sample and, when checking is on, counts it as an error if it lies outside the band.
    void onTimeEvent(halden::sensor::Timer* timer) override;

    bool isRunning() const;
    // Zeroes the counters and starts sampling every 1000 ms; a running checker keeps its
    // counters.
    void start();
    // Stops sampling; the counters keep their values.
    void stop();

    // Counts one frame and returns the status of the last sample; while stopped, counts
    // nothing and returns zeros.
    FramerateStatus countFrame();

    bool isErrorCheck() const { return mErrorCheck.load(); }
    // Switching on (from off) clears the error count and error rate; switching off keeps them.
    void setErrorCheck(bool on);
    // The band edges are taken as given: a minimum above the maximum makes every sample an
    // error.
    void setMinimum(float minimum) { mMinimum.store(minimum); }
    void setMaximum(float maximum) { mMaximum.store(maximum); }
    // (maximum, minimum).
    std::pair<float, float> getRange() const { return {mMaximum.load(), mMinimum.load()}; }

private:
    std::atomic<bool> mErrorCheck{false};
    std::atomic<float> mMinimum{29.0F};
    std::atomic<float> mMaximum{31.0F};
    std::uint32_t mFrameCount = 0;
    std::int32_t mErrorCount = 0;
    float mFrameRate = 0.0F;
    float mErrorRate = 0.0F;
    std::shared_ptr<halden::sensor::Timer> mTimer;
    std::mutex mMutex;
};

}  // namespace lumora::pipeline
