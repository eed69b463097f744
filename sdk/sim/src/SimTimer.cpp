// Each timer owns one worker thread for its whole life. start() arms it, the worker sleeps
// to each absolute deadline (start + k x period, so events never drift) and calls the
// listener without holding the lock; stop() disarms it and waits for an event in progress
// unless called from that event; destroyTimer() (or the last reference) ends and joins
// the worker.
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>

#include <pthread.h>

#include <halden/sensor/Timer.h>

namespace halden::sensor {

namespace {

class SimTimer final : public Timer {
public:
    SimTimer(std::string name, OnTimeEventListener* listener)
        : mName(std::move(name)), mListener(listener), mWorker([this] { work(); }) {}

    ~SimTimer() override { shutdown(); }

    Result start(std::uint32_t periodMs, bool repeat) override {
        {
            std::lock_guard<std::mutex> lock(mMutex);
            if (mShutdown) return RESULT_INVALID_OPERATION;
            if (periodMs == 0) return RESULT_INVALID_PARAMETER;
            if (mArmed) return RESULT_ALREADY_RUNNING;
            mArmed = true;
            mRepeat = repeat;
            mPeriod = std::chrono::milliseconds(periodMs);
            mStart = std::chrono::steady_clock::now();
            ++mGeneration;
        }
        mWake.notify_all();
        return RESULT_SUCCESS;
    }

    Result stop() override {
        std::unique_lock<std::mutex> lock(mMutex);
        if (!mArmed) return RESULT_INVALID_OPERATION;
        mArmed = false;
        ++mGeneration;
        mWake.notify_all();
        if (std::this_thread::get_id() != mWorker.get_id()) {
            mWake.wait(lock, [this] { return !mFiring; });
        }
        return RESULT_SUCCESS;
    }

    bool isRunning() const override {
        std::lock_guard<std::mutex> lock(mMutex);
        return mArmed;
    }

    std::string name() const override { return mName; }

    void shutdown() {
        {
            std::lock_guard<std::mutex> lock(mMutex);
            if (mShutdown) return;
            mShutdown = true;
            mArmed = false;
        }
        mWake.notify_all();
        if (std::this_thread::get_id() == mWorker.get_id()) {
            mWorker.detach();  // destroyed from its own event: the worker leaves once the event returns
        } else {
            mWorker.join();
        }
    }

private:
    void work() {
        pthread_setname_np(pthread_self(), "lumora-timer");
        std::unique_lock<std::mutex> lock(mMutex);
        while (!mShutdown) {
            if (!mArmed) {
                mWake.wait(lock, [this] { return mShutdown || mArmed; });
                continue;
            }
            const auto generation = mGeneration;
            const auto start = mStart;
            const auto period = mPeriod;
            for (std::uint64_t tick = 1; mArmed && generation == mGeneration && !mShutdown; ++tick) {
                if (mWake.wait_until(lock, start + tick * period,
                                     [&] { return mShutdown || generation != mGeneration; })) {
                    break;
                }
                mFiring = true;
                if (!mRepeat) mArmed = false;
                lock.unlock();
                mListener->onTimeEvent(this);
                lock.lock();
                mFiring = false;
                mWake.notify_all();
                // An event that overran its period skips the deadlines it missed.
                const auto now = std::chrono::steady_clock::now();
                if (now > start + (tick + 1) * period) tick = static_cast<std::uint64_t>((now - start) / period);
            }
        }
    }

    const std::string mName;
    OnTimeEventListener* const mListener;
    mutable std::mutex mMutex;
    std::condition_variable mWake;
    bool mArmed = false;
    bool mRepeat = false;
    bool mFiring = false;
    bool mShutdown = false;
    std::uint64_t mGeneration = 0;
    std::chrono::steady_clock::duration mPeriod{};
    std::chrono::steady_clock::time_point mStart;
    std::thread mWorker;  // last: starts once the state above exists
};

}  // namespace

std::shared_ptr<Timer> Timer::createTimer(const std::string& name, OnTimeEventListener* listener) {
    if (listener == nullptr) return nullptr;
    return std::make_shared<SimTimer>(name, listener);
}

Result Timer::destroyTimer(const std::shared_ptr<Timer>& timer) {
    auto simTimer = std::dynamic_pointer_cast<SimTimer>(timer);
    if (!simTimer) return RESULT_INVALID_PARAMETER;
    simTimer->shutdown();
    return RESULT_SUCCESS;
}

}  // namespace halden::sensor
