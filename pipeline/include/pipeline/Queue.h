// Bounded blocking hand-over between one producer and one consumer thread.
//
// Design: the producer is a camera library callback thread and must never be held up, so
// a push on a full queue waits only its short timeout for room and then drops the item.
// The consumer is a sink's worker thread; it waits in pop with a long timeout. Items leave
// in the order they came. All access to the items is under one mutex; the stop flag is
// atomic because restart reads it without the lock. Every wake-up is a broadcast, and each
// pass of a wait loop takes a fresh deadline, so an early wake-up starts a full timeout.
// Shutdown: stop() wakes every waiter and makes push and pop fail at once; restart()
// reopens. The destructor stops, lets woken threads leave push and pop, then frees the
// items still queued.
#pragma once

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <mutex>
#include <optional>
#include <thread>
#include <utility>

#include <halden/sensor/LumoraResult.h>

namespace halden::sensor {

template <typename T>
class Queue {
public:
    using Timeout = std::chrono::steady_clock::duration;

    // An open, empty queue that holds at most `capacity` items.
    explicit Queue(std::uint64_t capacity) : mCapacity(capacity) {}

    // Stops the queue, waits until every thread woken in push or pop has left them, then
    // releases the queued items. No thread may call push or pop once this has begun.
    virtual ~Queue() {
        if (!mStopped.load()) {
            stop();
            std::this_thread::sleep_for(kSettle);
        }
        for (;;) {
            if (mMutex.try_lock()) {
                if (mInside.load(std::memory_order_acquire) == 0) break;
                mMutex.unlock();
            }
            std::this_thread::sleep_for(kSettle);
        }
        mItems.clear();
        mMutex.unlock();
    }

    Queue(const Queue&) = delete;
    Queue& operator=(const Queue&) = delete;

    // Producer side. Moves `item` in when there is room, waiting up to `timeout` for it;
    // otherwise drops it (released by the time the call completes). Returns
    // RESULT_SUCCESS when queued, RESULT_INVALID_OPERATION when dropped because the queue
    // is stopped, RESULT_TIMEOUT when dropped because no room came in time.
    Result push(T item, Timeout timeout) {
        const Inside inside(mInside);
        std::unique_lock<std::mutex> lock(mMutex);
        for (;;) {
            if (const auto offered = offer(item, lock)) return *offered;
            const auto deadline = std::chrono::steady_clock::now() + timeout;
            if (mNotFull.wait_until(lock, deadline - std::min<Timeout>(timeout, kHeldStretch)) ==
                std::cv_status::timeout)
                return holdUntil(deadline, item, lock);
            if (std::chrono::steady_clock::now() >= deadline) return RESULT_TIMEOUT;
        }
    }

    // Consumer side. Moves the oldest item out, waiting up to `timeout` for one. The status
    // is RESULT_SUCCESS with the item, RESULT_INVALID_OPERATION at once when the queue is
    // stopped (even with items queued), or RESULT_TIMEOUT; the item is default-constructed
    // unless the status is RESULT_SUCCESS.
    std::pair<Result, T> pop(Timeout timeout) {
        const Inside inside(mInside);
        std::unique_lock<std::mutex> lock(mMutex);
        for (;;) {
            if (mStopped.load()) return {RESULT_INVALID_OPERATION, T()};
            if (!mItems.empty()) break;
            const auto deadline = std::chrono::steady_clock::now() + timeout;
            mNotEmpty.wait_until(lock, deadline);
            if (std::chrono::steady_clock::now() >= deadline) return {RESULT_TIMEOUT, T()};
        }
        std::pair<Result, T> result{RESULT_SUCCESS, std::move(mItems.front())};
        mItems.pop_front();
        lock.unlock();
        mNotFull.notify_all();
        return result;
    }

    // Any thread. Marks the queue stopped and wakes every waiter; queued items stay until
    // the destructor (or until popped after a restart).
    void stop() {
        {
            // Under the lock, so that a thread between its check of the flag and its wait
            // cannot miss the wake-up.
            const std::lock_guard<std::mutex> lock(mMutex);
            if (mStopped.exchange(true)) return;
        }
        wakeAll();
    }

    // Any thread. Reopens a stopped queue and wakes every waiter; an open queue is left alone.
    void restart() {
        if (!mStopped.load()) return;
        {
            const std::lock_guard<std::mutex> lock(mMutex);
            mStopped.store(false);
        }
        wakeAll();
    }

    bool isStopped() const { return mStopped.load(); }

private:
    static constexpr auto kSettle = std::chrono::milliseconds(10);
    // A thread sleeping on a virtual machine now and then wakes a millisecond late; the
    // camera's thread must not be held past its timeout by that. So push sleeps through all
    // but this last stretch of its wait and keeps the processor for the rest.
    static constexpr auto kHeldStretch = std::chrono::microseconds(300);
    static constexpr auto kPollInterval = std::chrono::microseconds(10);

    // Appends the item when the queue is open and has room, and wakes the consumer; nothing
    // when the queue is full.
    std::optional<Result> offer(T& item, std::unique_lock<std::mutex>& lock) {
        if (mStopped.load()) return RESULT_INVALID_OPERATION;
        if (mItems.size() >= mCapacity) return std::nullopt;
        mItems.push_back(std::move(item));
        lock.unlock();
        mNotEmpty.notify_all();
        return RESULT_SUCCESS;
    }

    // The last stretch of a push's wait: looks for room, with the lock released between
    // looks, until the deadline.
    Result holdUntil(std::chrono::steady_clock::time_point deadline, T& item, std::unique_lock<std::mutex>& lock) {
        for (;;) {
            if (const auto offered = offer(item, lock)) return *offered;
            auto now = std::chrono::steady_clock::now();
            if (now >= deadline) return RESULT_TIMEOUT;
            lock.unlock();
            const auto look = std::min(deadline, now + kPollInterval);
            while (now < look)
                now = std::chrono::steady_clock::now();
            lock.lock();
        }
    }

    // Counts a thread in push or pop. The count drops only after the thread's last touch
    // of the queue (its wake-up call), so the destructor can tell when it may free it.
    class Inside {
    public:
        explicit Inside(std::atomic<int>& count) : mCount(count) { mCount.fetch_add(1, std::memory_order_relaxed); }
        ~Inside() { mCount.fetch_sub(1, std::memory_order_release); }
        Inside(const Inside&) = delete;
        Inside& operator=(const Inside&) = delete;

    private:
        std::atomic<int>& mCount;
    };

    void wakeAll() {
        mNotFull.notify_all();
        mNotEmpty.notify_all();
    }

    const std::uint64_t mCapacity;
    std::atomic<bool> mStopped{false};
    std::mutex mMutex;
    std::condition_variable mNotFull;
    std::condition_variable mNotEmpty;
    std::deque<T> mItems;
    std::atomic<int> mInside{0};
};

}  // namespace halden::sensor
