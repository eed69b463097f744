// The module's sink.
//
// Design: the camera library's delivery thread produces. For each list it takes the sink's
// mutex, copies the list (copy_frame_list) when a frames() iteration has attached a channel,
// and pushes the copy into the channel's bounded queue, waiting at most 1 ms for room;
// otherwise the copy is dropped and counted at the channel. It never takes the GIL, so
// nothing in Python can hold the camera up. One Python thread consumes, popping with the GIL
// released in short slices (the binding checks for signals between them); lists leave in
// the order they came, each with its index and the drops before it. The mutex is taken on a
// Python thread only to attach, detach or close a channel, never while waiting for a list.
// Shutdown: closing a channel ends its pops at once; detaching it means the delivery thread
// no longer reaches it, after which the iteration destroys it. The camera's binding removes
// the sink (removeSink) and destroys the camera, which waits for the last callback, before
// the sink itself goes.
#include "FrameStream.h"

#include <time.h>

#include <algorithm>

namespace lumora::python {

namespace {

constexpr auto kPushWait = std::chrono::milliseconds(1);

// The calling thread's processor time: what the sink costs, apart from the time the thread
// waits for a processor on a busy machine.
std::uint64_t thread_nanoseconds() {
    timespec now{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return static_cast<std::uint64_t>(now.tv_sec) * 1000000000U + static_cast<std::uint64_t>(now.tv_nsec);
}

}  // namespace

FrameChannel::FrameChannel(std::size_t capacity) : mQueue(std::max<std::size_t>(capacity, 1)) {}

std::pair<hs::Result, DeliveredList> FrameChannel::pop(std::chrono::steady_clock::duration timeout) {
    auto popped = mQueue.pop(timeout);
    if (popped.first == hs::RESULT_SUCCESS) popped.second.dropped = mDropped.exchange(0, std::memory_order_relaxed);
    return popped;
}

void FrameStream::attach(FrameChannel* channel) {
    const std::lock_guard<std::mutex> lock(mMutex);
    if (mChannel != nullptr) mChannel->close();
    mChannel = channel;
}

void FrameStream::detach(const FrameChannel* channel) {
    const std::lock_guard<std::mutex> lock(mMutex);
    if (mChannel == channel) mChannel = nullptr;
}

void FrameStream::closeChannel() {
    const std::lock_guard<std::mutex> lock(mMutex);
    if (mChannel != nullptr) mChannel->close();
}

FrameStream::Cost FrameStream::cost() const {
    return {mLists.load(std::memory_order_relaxed), mNanoseconds.load(std::memory_order_relaxed)};
}

void FrameStream::onLumoraFrameList(hs::LumoraSource* /*source*/,
                                    const std::shared_ptr<hs::LumoraFrameList>& frameList) {
    const std::uint64_t start = thread_nanoseconds();
    const std::uint64_t index = mDelivered.fetch_add(1, std::memory_order_relaxed);
    {
        const std::lock_guard<std::mutex> lock(mMutex);
        if (mChannel == nullptr || !frameList) return;
        DeliveredList delivered{hs::copy_frame_list(frameList), index, 0};
        if (mChannel->mQueue.push(std::move(delivered), kPushWait) == hs::RESULT_TIMEOUT)
            mChannel->mDropped.fetch_add(1, std::memory_order_relaxed);
    }
    mLists.fetch_add(1, std::memory_order_relaxed);
    mNanoseconds.fetch_add(thread_nanoseconds() - start, std::memory_order_relaxed);
}

}  // namespace lumora::python
