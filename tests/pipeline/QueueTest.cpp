// The frame queue: dropping on a full queue, pop's time-out, stop and restart, destruction
// under a waiting consumer, and hand-over between two threads without loss or duplication.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <future>
#include <memory>
#include <thread>
#include <tuple>
#include <utility>
#include <vector>

#include "pipeline/Queue.h"

namespace halden::sensor {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

// Bounds waits so that a broken queue fails instead of hanging; generous for sanitizers.
constexpr auto kPatience = 10s;

// The shape of the frame queue's items: a tag and a shared reference to a payload.
using Item = std::tuple<int, std::shared_ptr<int>>;
using ItemQueue = Queue<Item>;

Item item(int tag) { return {tag, std::make_shared<int>(tag)}; }

TEST(Queue, FullQueueDropsAfterTheWaitAndEmptyQueueTimesOut) {
    ItemQueue queue(4);
    for (int tag = 0; tag < 4; ++tag)
        ASSERT_EQ(queue.push(item(tag), 1ms), RESULT_SUCCESS);

    auto fifth = std::make_shared<int>(4);
    const auto begin = Clock::now();
    EXPECT_EQ(queue.push({4, fifth}, 1ms), RESULT_TIMEOUT);
    const auto waited = Clock::now() - begin;
    EXPECT_GE(waited, 1ms);
    EXPECT_LT(waited, kPatience);
    EXPECT_EQ(fifth.use_count(), 1);

    // The four stay, oldest first, and nothing else: a pop then waits its time out.
    for (int tag = 0; tag < 4; ++tag) {
        auto [status, popped] = queue.pop(0ms);
        ASSERT_EQ(status, RESULT_SUCCESS);
        EXPECT_EQ(std::get<0>(popped), tag);
        EXPECT_EQ(std::get<1>(popped).use_count(), 1);
    }
    const auto popBegin = Clock::now();
    auto [status, popped] = queue.pop(50ms);
    EXPECT_EQ(status, RESULT_TIMEOUT);
    EXPECT_EQ(std::get<1>(popped), nullptr);
    EXPECT_GE(Clock::now() - popBegin, 50ms);

    // A producer waiting for room gets in as soon as a pop frees a slot.
    for (int tag = 0; tag < 4; ++tag)
        ASSERT_EQ(queue.push(item(tag), 1ms), RESULT_SUCCESS);
    auto waiting = std::async(std::launch::async, [&] { return queue.push(item(9), kPatience); });
    EXPECT_EQ(queue.pop(kPatience).first, RESULT_SUCCESS);
    EXPECT_EQ(waiting.get(), RESULT_SUCCESS);
    for (int tag : {1, 2, 3, 9})
        EXPECT_EQ(std::get<0>(queue.pop(0ms).second), tag);
}

TEST(Queue, StoppedQueueFailsAtOnceKeepsItsItemsAndRestarts) {
    ItemQueue queue(4);
    auto kept = std::make_shared<int>(1);
    ASSERT_EQ(queue.push({1, kept}, 1ms), RESULT_SUCCESS);
    ASSERT_EQ(queue.push(item(2), 1ms), RESULT_SUCCESS);

    // Restarting an open queue changes nothing.
    queue.restart();
    EXPECT_FALSE(queue.isStopped());

    queue.stop();
    EXPECT_TRUE(queue.isStopped());
    const auto begin = Clock::now();
    EXPECT_EQ(queue.pop(kPatience).first, RESULT_INVALID_OPERATION);
    auto dropped = std::make_shared<int>(3);
    EXPECT_EQ(queue.push({3, dropped}, kPatience), RESULT_INVALID_OPERATION);
    EXPECT_LT(Clock::now() - begin, kPatience / 2);
    EXPECT_EQ(dropped.use_count(), 1);
    EXPECT_EQ(kept.use_count(), 2);

    // After a restart the items queued before the stop come out in order.
    queue.restart();
    EXPECT_FALSE(queue.isStopped());
    EXPECT_EQ(std::get<0>(queue.pop(0ms).second), 1);
    EXPECT_EQ(kept.use_count(), 1);
    EXPECT_EQ(std::get<0>(queue.pop(0ms).second), 2);

    // A stop wakes a waiting consumer and a producer waiting for room.
    auto consumer = std::async(std::launch::async, [&] { return queue.pop(kPatience).first; });
    EXPECT_EQ(consumer.wait_for(20ms), std::future_status::timeout);
    queue.stop();
    EXPECT_EQ(consumer.get(), RESULT_INVALID_OPERATION);
    queue.restart();
    for (int tag = 0; tag < 4; ++tag)
        ASSERT_EQ(queue.push(item(tag), 1ms), RESULT_SUCCESS);
    auto producer = std::async(std::launch::async, [&] { return queue.push(item(4), kPatience); });
    EXPECT_EQ(producer.wait_for(20ms), std::future_status::timeout);
    queue.stop();
    EXPECT_EQ(producer.get(), RESULT_INVALID_OPERATION);
}

TEST(Queue, DestructionWakesAWaitingConsumerAndReleasesTheItems) {
    auto queue = std::make_unique<ItemQueue>(4);
    std::atomic<bool> entering{false};
    auto consumer = std::async(std::launch::async, [&entering, waited = queue.get()] {
        entering = true;
        return waited->pop(kPatience).first;
    });
    while (!entering)
        std::this_thread::yield();
    // Time for the consumer to reach its wait; the destructor also waits for it to leave.
    EXPECT_EQ(consumer.wait_for(100ms), std::future_status::timeout);
    const auto begin = Clock::now();
    queue.reset();
    EXPECT_EQ(consumer.get(), RESULT_INVALID_OPERATION);
    EXPECT_LT(Clock::now() - begin, kPatience / 2);

    auto held = std::make_shared<int>(0);
    queue = std::make_unique<ItemQueue>(10);
    for (int tag = 0; tag < 10; ++tag)
        ASSERT_EQ(queue->push({tag, held}, 1ms), RESULT_SUCCESS);
    EXPECT_EQ(held.use_count(), 11);
    queue.reset();
    EXPECT_EQ(held.use_count(), 1);
}

// Every item the producer queued arrives exactly once and in order; a dropped one never
// arrives. With a long wait nothing is dropped; with the producers' 1 ms wait whatever is
// dropped depends on the machine, and is accounted for.
TEST(Queue, HandOverLosesAndDuplicatesNothing) {
    constexpr int kItems = 5000;
    for (const auto wait : {std::chrono::steady_clock::duration(kPatience), std::chrono::steady_clock::duration(1ms)}) {
        ItemQueue queue(4);
        const auto payload = std::make_shared<int>(0);
        std::vector<int> queued;
        std::thread producer([&] {
            for (int tag = 0; tag < kItems; ++tag) {
                if (queue.push({tag, payload}, wait) == RESULT_SUCCESS) queued.push_back(tag);
            }
            queue.push({-1, nullptr}, kPatience);
        });
        std::vector<int> received;
        for (;;) {
            auto [status, popped] = queue.pop(kPatience);
            EXPECT_EQ(status, RESULT_SUCCESS);
            if (status != RESULT_SUCCESS || std::get<0>(popped) < 0) break;
            received.push_back(std::get<0>(popped));
        }
        producer.join();
        EXPECT_EQ(received, queued);
        if (wait == kPatience) {
            EXPECT_EQ(received.size(), std::size_t{kItems});
        }
        EXPECT_EQ(payload.use_count(), 1);
    }
}

}  // namespace
}  // namespace halden::sensor
