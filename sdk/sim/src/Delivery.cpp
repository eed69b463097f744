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
//   (sim_fault) spoil the lists at hand-over, or hold delivery back before it. A loop
//   (sim_loop) is the delivery thread's alone: it renders the loop's lists once and hands
//   them over again, restamped in place while no sink holds them.
// - Events (mEvents): state and error callbacks in the order the life cycle produced them,
//   one at a time. Posting never waits, so sinks may block in their state callbacks
//   (joining threads of their own) while the camera's operations go on. close() drains the
//   queue, so no sink hears of the camera after destroy_camera().
#include "SimCamera.h"

#include <cstring>
#include <utility>

#include <halden/sensor/Log.h>
#include <pthread.h>

namespace halden::sensor::sim {

namespace {

constexpr std::size_t kPoolLimit = 8;
// A loop holds at most this much; a longer one loops as many lists as fit.
constexpr std::size_t kLoopBytes = std::size_t{1} << 30;

std::size_t bytes_per_list(std::uint32_t mask, const SceneSettings& settings, int width, int height) {
    std::size_t bytes = 0;
    for (const auto type : {LumoraFrame::FRAME_DEPTH, LumoraFrame::FRAME_AMPLITUDE, LumoraFrame::FRAME_POINTCLOUD,
                            LumoraFrame::FRAME_INTENSITY_POINTCLOUD}) {
        if ((mask & type) == 0) continue;
        const std::size_t element = settings.dataTypeOf(type) == DATA_TYPE_UINT16 ? 2 : 4;
        bytes += SimFrame::planesOf(type) * element * static_cast<std::size_t>(width) * height;
    }
    return bytes;
}

// True when no sink holds the list or any part of it, so that it may be rewritten.
bool reusable(const std::shared_ptr<SimFrameList>& list) {
    if (!list->unshared(list)) return false;
#ifndef __SANITIZE_THREAD__
    // The count is read relaxed; the fence orders the sinks' last reads of the list
    // (published by their releasing decrement) before our rewriting of it.
    // ThreadSanitizer does not model fences and g++ refuses them under it.
    std::atomic_thread_fence(std::memory_order_acquire);
#endif
    return true;
}

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
            aheadDue = microsecondsSinceOpen(deadline);
            ahead = nextList(frameNumber, aheadDue, mask, settings);
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
    mLoop.lists.clear();  // a stopped camera holds no loop
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

std::shared_ptr<SimFrameList> SimCamera::nextList(std::uint32_t frameNumber, std::uint64_t due, std::uint32_t mask,
                                                  const SceneSettings& settings) {
    if (settings.loop > 0) return loopedList(frameNumber, due, mask, settings);
    mLoop.lists.clear();
    auto list = acquireList(mask, settings);
    mFrames->fill(frameNumber, due, settings, *list);
    return list;
}

// The loop starts afresh with a new mask or a change of settings other than the line: its
// first turn renders each of its lists, as the frame at hand (into the lists of the loop
// before when their frames fit and no sink holds them); the turns after that only stamp a
// list and write its line, in place, or into a pooled copy while a sink still holds it.
std::shared_ptr<SimFrameList> SimCamera::loopedList(std::uint32_t frameNumber, std::uint64_t due, std::uint32_t mask,
                                                    const SceneSettings& settings) {
    const int width = mSource->device().width;
    const int height = mSource->device().height;
    if (mLoop.lists.empty() || mLoop.mask != mask || !mLoop.settings.sameButLine(settings)) {
        const std::size_t wanted = static_cast<std::size_t>(settings.loop);
        const std::size_t fits = std::max<std::size_t>(1, kLoopBytes / bytes_per_list(mask, settings, width, height));
        if (fits < wanted) {
            Log::w(LUMORA_LOG_TAG("Delivery"), "%s: a loop of %zu lists would hold more than %zu MiB; looping %zu\n",
                   mSource->uri().c_str(), wanted, kLoopBytes >> 20, fits);
        }
        if (mLoop.mask != mask || mLoop.settings.basicDataType != settings.basicDataType ||
            mLoop.settings.pointCloudDataType != settings.pointCloudDataType) {
            mLoop.lists.clear();
        }
        mLoop.lists.resize(std::min(wanted, fits));
        mLoop.turns = 0;
        mLoop.mask = mask;
        mLoop.settings = settings;
    }
    auto& own = mLoop.lists[mLoop.turns % mLoop.lists.size()];
    if (mLoop.turns++ < mLoop.lists.size()) {
        if (!own || !reusable(own)) own = Scene::makeList(mask, settings, width, height);
        mFrames->fill(frameNumber, due, settings, *own);
        return own;
    }
    std::shared_ptr<SimFrameList> list;
    if (reusable(own)) {
        list = own;
    } else {
        list = acquireList(mask, settings);
        for (std::size_t i = 0; i < own->frames().size(); ++i) {
            const SimFrame& frame = *own->frames()[i];
            std::memcpy(list->frames()[i]->mutableData(), frame.data(), frame.byteSize());
        }
    }
    list->stamp(frameNumber, due);
    mFrames->writeLines(frameNumber, due, settings, *list);
    return list;
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
        if (reusable(list)) return list;
    }
    auto list = Scene::makeList(mask, settings, mSource->device().width, mSource->device().height);
    if (mPool.size() < kPoolLimit) mPool.push_back(list);
    return list;
}
}  // namespace halden::sensor::sim
