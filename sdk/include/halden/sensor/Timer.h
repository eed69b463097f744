// A periodic timer whose events run on a thread of its own.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "LumoraResult.h"

namespace halden::sensor {

class Timer {
public:
    class OnTimeEventListener {
    public:
        // Runs on the timer's thread, one event at a time.
        virtual void onTimeEvent(Timer* timer) = 0;
        virtual ~OnTimeEventListener() = default;
    };

    // A stopped timer; null for a null listener. The listener is not owned and must outlive
    // the timer.
    static std::shared_ptr<Timer> createTimer(const std::string& name, OnTimeEventListener* listener);
    // Stops the timer and ends its thread; no event runs after this returns. Called from the
    // timer's own event, that event still finishes, so the timer's last reference must not
    // be dropped there.
    static Result destroyTimer(const std::shared_ptr<Timer>& timer);

    // Events fire every periodMs after start, at start + k x period, so that they do not
    // drift; repeat false fires once. RESULT_ALREADY_RUNNING when running,
    // RESULT_INVALID_PARAMETER for a period of 0, RESULT_INVALID_OPERATION once destroyed.
    virtual Result start(std::uint32_t periodMs, bool repeat) = 0;
    // No event starts after this returns, and an event in progress on another thread has
    // finished. RESULT_INVALID_OPERATION when not running.
    virtual Result stop() = 0;
    virtual bool isRunning() const = 0;
    virtual std::string name() const = 0;
    virtual ~Timer() = default;
};

}  // namespace halden::sensor
