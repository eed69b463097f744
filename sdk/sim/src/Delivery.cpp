// Threads of a camera:
// - Delivery: started by run(), ended and joined by stop() (or by unplug and close). It
//   takes each list from the camera's frame source (the scene it renders, or the file it
//   plays) into a pooled list ahead of time, sleeps to the list's absolute deadline, which
//   the source's pace sets, and hands the list to every sink in turn. It reads settings and
//   sinks under mMutex, never holds a lock while calling a sink or filling a list, and is
//   only ever joined with mControl held, so a sink that sets a property from its frame
//   callback cannot deadlock a concurrent stop(). A change of settings from another thread
//   waits for a hand-over under way, so the next list handed over shows it; the line of a
//   list filled ahead is rewritten at hand-over when the switch changed meanwhile. Faults
//   (sim_fault) spoil the lists at hand-over, or hold delivery back before it.
// - Events (mEvents): state and error callbacks in the order the life cycle produced them,
//   one at a time. Posting never waits, so sinks may block in their state callbacks
//   (joining threads of their own) while the camera's operations go on. close() drains the
//   queue, so no sink hears of the camera after destroy_camera().
#include "SimCamera.h"

#include <utility>

#include <pthread.h>

namespace halden::sensor::sim {

namespace {

constexpr std::size_t kPoolLimit = 8;

}  // namespace

void SimCamera::startDelivery() {
    {
        std::lock_guard<std::mutex> lock(mMutex);
        mStopDelivery = false;
    }
    mDelivery = std::thread([this] {
        pthread_setname_np(pthread_self(), "lumora-delivery");
        deliver();
    });
}

void SimCamera::endDelivery() {
    {
        std::lock_guard<std::mutex> lock(mMutex);
        mStopDelivery = true;
    }
    mWake.notify_all();
    if (mDelivery.joinable()) mDelivery.join();
    mDeliveryId = std::thread::id();
}

// Each list is filled ahead, right after the one before was handed over, so that the sinks
// receive it at its deadline whatever the filling costs. A deadline is the sum of the paces
// since an anchor, so that a frame rate's grid does not drift.
void SimCamera::deliver() {
    using Clock = std::chrono::steady_clock;
    using Seconds = std::chrono::duration<double>;
    mDeliveryId = std::this_thread::get_id();
    std::unique_lock<std::mutex> lock(mMutex);
    Clock::time_point anchor = Clock::now();
    Seconds sinceAnchor{0.0};  // to the last deadline
    std::uint32_t frameNumber = mNextFrameNumber;
    std::shared_ptr<SimFrameList> ahead;
    Seconds aheadInterval{0.0};  // the interval the list ahead was stamped for
    std::uint64_t aheadDue = 0;
    bool aheadLines = false;  // whether the list ahead was filled with embedded lines
    while (!mStopDelivery) {
        const Pace pace = mFrames->paceBefore(frameNumber, mSettings);
        if (pace.interval != aheadInterval) ahead.reset();  // a new rate moves its deadline and stamp
        const auto deadline = anchor + std::chrono::duration_cast<Clock::duration>(sinceAnchor + pace.interval);
        if (!ahead) {
            const SceneSettings settings = mSettings;
            const std::uint32_t mask = mWanted;
            lock.unlock();
            auto pooled = acquireList(mask, settings);
            aheadDue = microsecondsSinceOpen(deadline);
            mFrames->fill(frameNumber, aheadDue, settings, *pooled);
            ahead = std::move(pooled);
            aheadInterval = pace.interval;
            aheadLines = settings.embeddedDataLine;
            lock.lock();
            continue;  // the rate may have changed meanwhile
        }
        const auto changed = [&] {
            return mStopDelivery || mFrames->paceBefore(frameNumber, mSettings).interval != pace.interval;
        };
        if (mWake.wait_until(lock, deadline, changed)) continue;
        if (waitOutStall(lock)) continue;
        sinceAnchor += pace.interval;
        // The line follows a switch made since the list was filled.
        if (mSettings.embeddedDataLine != aheadLines) mFrames->writeLines(frameNumber, aheadDue, mSettings, *ahead);
        mNextFrameNumber = ++frameNumber;
        handOver(std::exchange(ahead, nullptr), lock);

        const Clock::time_point now = Clock::now();
        if (now - deadline <= pace.slack) continue;
        if (pace.dropLate) {
            // A sensor that was not read out in time has dropped the frames in between.
            const auto dropped = static_cast<std::uint64_t>((now - deadline) / pace.interval);
            frameNumber += static_cast<std::uint32_t>(dropped);
            sinceAnchor += pace.interval * static_cast<double>(dropped);
        } else {
            // A player that fell behind goes on from now rather than rushing through the records.
            anchor = now;
            sinceAnchor = Seconds(0.0);
        }
    }
}

void SimCamera::handOver(std::shared_ptr<SimFrameList> own, std::unique_lock<std::mutex>& lock) {
    mDeliverySinks = mSinks;
    std::shared_ptr<LumoraFrameList> list;
    if (!mInjected.empty()) {
        list = std::move(mInjected.front());
        mInjected.pop_front();
    } else {
        list = withFault(own);
    }
    own.reset();
    mHandingOver = true;
    lock.unlock();
    for (auto* sink : mDeliverySinks)
        sink->onLumoraFrameList(mSource.get(), list);
    list.reset();
    lock.lock();
    mHandingOver = false;
    mHandedOver.notify_all();
}

std::uint64_t SimCamera::microsecondsSinceOpen(std::chrono::steady_clock::time_point when) const {
    return static_cast<std::uint64_t>(std::chrono::duration_cast<std::chrono::microseconds>(when - mOpened).count());
}

// A pooled list that no sink still holds, so steady delivery allocates nothing. The pool
// is rebuilt when the wanted types or data types change.
std::shared_ptr<SimFrameList> SimCamera::acquireList(std::uint32_t mask, const SceneSettings& settings) {
    auto matches = [&](const SimFrameList& list) {
        std::uint32_t types = 0;
        for (const auto& frame : list.frames()) {
            if (frame->dataType() != settings.dataTypeOf(frame->frameType())) return false;
            types |= frame->frameType();
        }
        return types == mask;
    };
    if (!mPool.empty() && !matches(*mPool.front())) mPool.clear();
    for (const auto& list : mPool) {
        if (list->unshared(list)) {
            // The count is read relaxed; the fence orders the sinks' last reads of the
            // list (published by their releasing decrement) before our rewriting of it.
            // ThreadSanitizer does not model fences and g++ refuses them under it.
#ifndef __SANITIZE_THREAD__
            std::atomic_thread_fence(std::memory_order_acquire);
#endif
            return list;
        }
    }
    auto list = Scene::makeList(mask, settings, mSource->device().width, mSource->device().height);
    if (mPool.size() < kPoolLimit) mPool.push_back(list);
    return list;
}
}  // namespace halden::sensor::sim
