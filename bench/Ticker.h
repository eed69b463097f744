// A bare 30 Hz timer: the baseline that interval figures are read against. It shows what
// the machine's scheduler alone does to a thread that wakes every 33.33 ms at the same time.
//
// Design note: the constructor starts one thread that sleeps until each next tick and notes
// when it woke; nobody consumes until the destructor, which sets the stop flag and joins
// (at most one tick later). intervals() is for after destruction or from the owner's thread
// once stop() has returned.
#pragma once

#include <algorithm>
#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

namespace lumora::bench {

class Ticker {
public:
    Ticker() : mThread([this] { loop(); }) {}
    ~Ticker() { stop(); }
    Ticker(const Ticker&) = delete;
    Ticker& operator=(const Ticker&) = delete;

    void stop() {
        mStop.store(true, std::memory_order_relaxed);
        if (mThread.joinable()) mThread.join();
    }

    // Milliseconds between wake-ups, sorted. Only after stop().
    std::vector<double> intervals() const {
        std::vector<double> out;
        for (std::size_t i = 1; i < mWakes.size(); ++i)
            out.push_back(std::chrono::duration<double, std::milli>(mWakes[i] - mWakes[i - 1]).count());
        std::sort(out.begin(), out.end());
        return out;
    }

private:
    using Clock = std::chrono::steady_clock;

    void loop() {
        mWakes.reserve(4096);
        const auto period = std::chrono::duration_cast<Clock::duration>(std::chrono::microseconds(33333));
        auto next = Clock::now();
        while (!mStop.load(std::memory_order_relaxed) && mWakes.size() < mWakes.capacity()) {
            next += period;
            std::this_thread::sleep_until(next);
            mWakes.push_back(Clock::now());
        }
    }

    std::atomic<bool> mStop{false};
    std::vector<Clock::time_point> mWakes;
    std::thread mThread;
};

}  // namespace lumora::bench
