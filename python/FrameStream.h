// The module's sink on a camera, and the bounded channel through which it hands each list
// to one frames() iteration on a Python thread. No Python here: the delivery thread runs
// this code and must never wait for the interpreter.
#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <utility>

#include <halden/sensor/LumoraSink.h>

#include "pipeline/Queue.h"

namespace lumora::python {

namespace hs = halden::sensor;

// One list handed over: a copy that nobody else holds.
struct DeliveredList {
    std::shared_ptr<hs::LumoraFrameList> list;
    // Lists the camera delivered since the last restart() before this one (0 for the first).
    std::uint64_t index = 0;
    // Lists dropped at the channel since the list handed over before this one.
    std::uint64_t dropped = 0;
};

// A bounded queue of copied lists for one consumer. Made and destroyed on a Python thread.
class FrameChannel {
public:
    // Holds at most `capacity` lists (at least 1).
    explicit FrameChannel(std::size_t capacity);

    // Consumer (called with the GIL released): the oldest list, waiting up to `timeout` for
    // one. RESULT_TIMEOUT when none came, RESULT_INVALID_OPERATION at once once closed.
    std::pair<hs::Result, DeliveredList> pop(std::chrono::steady_clock::duration timeout);

    // Any thread: ends the channel; pop() fails at once from then on, lists offered are not
    // taken.
    void close() { mQueue.stop(); }

private:
    friend class FrameStream;
    hs::Queue<DeliveredList> mQueue;
    std::atomic<std::uint64_t> mDropped{0};
};

// Registered with one camera from open to close. Every list the camera delivers is counted;
// while a channel is attached, the list is copied and offered to it with a 1 ms wait for
// room, and dropped (counted at the channel) when none comes.
class FrameStream final : public hs::LumoraSink {
public:
    // The delivery thread's cost: lists copied, and the processor time it spent on them in
    // onLumoraFrameList (taken with the clock of the calling thread).
    struct Cost {
        std::uint64_t lists = 0;
        std::uint64_t nanoseconds = 0;
    };

    // Python thread. Offers the lists from now on to `channel` (not owned; it stays until
    // detach()), and closes the channel attached before, if any.
    void attach(FrameChannel* channel);
    // Python thread. Stops offering lists to `channel` when it is the attached one; once this
    // returns the delivery thread no longer touches it. Waits at most for one copy and push.
    void detach(const FrameChannel* channel);
    // Python thread. Closes the attached channel, if any, so that its iteration ends.
    void closeChannel();
    // Python thread, before the camera's run(): list indices count from 0 again.
    void restart() { mDelivered.store(0, std::memory_order_relaxed); }
    Cost cost() const;

    std::string name() const override { return "lumora.python"; }
    void onLumoraCameraState(hs::LumoraSource* /*source*/, hs::LumoraCamera::State /*state*/) override {}
    void onLumoraCameraError(hs::LumoraSource* /*source*/, hs::Result /*error*/) override {}
    // The camera's delivery thread.
    void onLumoraFrameList(hs::LumoraSource* source, const std::shared_ptr<hs::LumoraFrameList>& frameList) override;

private:
    // Guards mChannel; the delivery thread holds it for one copy and one push.
    std::mutex mMutex;
    FrameChannel* mChannel = nullptr;
    // Plain counters.
    std::atomic<std::uint64_t> mDelivered{0};
    std::atomic<std::uint64_t> mLists{0};
    std::atomic<std::uint64_t> mNanoseconds{0};
};

}  // namespace lumora::python
