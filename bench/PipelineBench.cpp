// The frame pipeline's costs, each beside a bare queue measured in the same run (a mutex,
// two condition variables and a deque, capacity 4): the producer's push while the consumer
// waits, push on a full queue, and hand-over throughput. Then the colour-map rebuilds.
//
// Threads: the benchmark's own thread produces; each queue with a consumer has one consumer
// thread that pops until it takes the end marker (sequence number kEnd), and the producer
// joins it after pushing the marker.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

#include "imaging/ColorMaps.h"
#include "pipeline/Percentile.h"
#include "pipeline/Queue.h"

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;
using lumora::pipeline::percentile;
// A sequence number and a shared reference, like the frame queue's (source, list) items.
using Item = std::pair<std::uint64_t, std::shared_ptr<int>>;

constexpr std::uint64_t kEnd = ~std::uint64_t{0};
constexpr std::size_t kCapacity = 4;

// The baseline: the textbook bounded queue with nothing else.
class BareQueue {
public:
    bool push(Item item, Clock::duration timeout) {
        std::unique_lock<std::mutex> lock(mMutex);
        if (!mNotFull.wait_for(lock, timeout, [this] { return mItems.size() < kCapacity; })) return false;
        mItems.push_back(std::move(item));
        lock.unlock();
        mNotEmpty.notify_one();
        return true;
    }
    bool pop(Item& item, Clock::duration timeout) {
        std::unique_lock<std::mutex> lock(mMutex);
        if (!mNotEmpty.wait_for(lock, timeout, [this] { return !mItems.empty(); })) return false;
        item = std::move(mItems.front());
        mItems.pop_front();
        lock.unlock();
        mNotFull.notify_one();
        return true;
    }

private:
    std::mutex mMutex;
    std::condition_variable mNotFull;
    std::condition_variable mNotEmpty;
    std::deque<Item> mItems;
};

// The product's queue behind the baseline's interface.
class FrameQueue {
public:
    bool push(Item item, Clock::duration timeout) {
        return mQueue.push(std::move(item), timeout) == halden::sensor::RESULT_SUCCESS;
    }
    bool pop(Item& item, Clock::duration timeout) {
        auto [status, popped] = mQueue.pop(timeout);
        if (status != halden::sensor::RESULT_SUCCESS) return false;
        item = std::move(popped);
        return true;
    }

private:
    halden::sensor::Queue<Item> mQueue{kCapacity};
};

// Pops until the end marker, handing each sequence number to `take`.
template <typename Q, typename Take>
std::thread consume(Q& queue, Take take) {
    return std::thread([&queue, take] {
        Item item;
        for (;;) {
            if (!queue.pop(item, 10s)) continue;
            if (item.first == kEnd) return;
            take(item.first);
        }
    });
}

double median3(double a, double b, double c) { return std::max(std::min(a, b), std::min(std::max(a, b), c)); }

void spinFor(Clock::duration pause) {
    const auto until = Clock::now() + pause;
    while (Clock::now() < until) {
    }
}

// One queue with a consumer that keeps up, for timing single pushes.
template <typename Q>
class Lane {
public:
    Lane() : mConsumer(consume(mQueue, [this](std::uint64_t) { mTaken.fetch_add(1, std::memory_order_release); })) {}
    ~Lane() {
        mQueue.push({kEnd, nullptr}, 10s);
        mConsumer.join();
    }
    Lane(const Lane&) = delete;
    Lane& operator=(const Lane&) = delete;

    // Waits until the consumer has taken every earlier item and is back in its wait, then
    // times the push of item `seq`.
    void timedPush(std::uint64_t seq, const std::shared_ptr<int>& payload) {
        while (mTaken.load(std::memory_order_acquire) != seq) {
        }
        spinFor(30us);
        const auto begin = Clock::now();
        mQueue.push({seq, payload}, 1ms);
        micros.push_back(std::chrono::duration<double, std::micro>(Clock::now() - begin).count());
    }

    std::vector<double> micros;

private:
    Q mQueue;
    std::atomic<std::uint64_t> mTaken{0};
    std::thread mConsumer;  // last: starts once the queue and the count exist
};

// Each push finds the queue empty and the consumer asleep in pop, as a camera frame does.
// Pushes alternate between the baseline and the product so that both meet the same noise.
void BM_PushConsumerWaiting(benchmark::State& state) {
    constexpr std::uint64_t kPushes = 20000;
    Lane<BareQueue> bare;
    Lane<FrameQueue> product;
    const auto payload = std::make_shared<int>(0);
    for (auto _ : state) {
        for (std::uint64_t i = 0; i < kPushes; ++i) {
            bare.timedPush(i, payload);
            product.timedPush(i, payload);
        }
    }
    state.counters["bare_p50_us"] = percentile(bare.micros, 0.5);
    state.counters["bare_p99_us"] = percentile(bare.micros, 0.99);
    state.counters["bare_p999_us"] = percentile(bare.micros, 0.999);
    state.counters["p50_us"] = percentile(product.micros, 0.5);
    state.counters["p99_us"] = percentile(product.micros, 0.99);
    state.counters["p999_us"] = percentile(product.micros, 0.999);
}
BENCHMARK(BM_PushConsumerWaiting)->Iterations(1)->Unit(benchmark::kMillisecond);

// No consumer: every push waits its 1 ms for room and drops its item. Alternating again,
// with a plain 1 ms sleep as a third lane: the platform's own wake-up tail, which no timed
// wait can beat.
void BM_PushFull(benchmark::State& state) {
    constexpr std::uint64_t kPushes = 5000;
    BareQueue bare;
    FrameQueue product;
    const auto payload = std::make_shared<int>(0);
    for (std::uint64_t i = 0; i < kCapacity; ++i) {
        bare.push({i, payload}, 1ms);
        product.push({i, payload}, 1ms);
    }
    std::vector<double> bareMillis;
    std::vector<double> millis;
    std::vector<double> sleepMillis;
    const auto timed = [](std::vector<double>& samples, auto&& wait) {
        const auto begin = Clock::now();
        wait();
        samples.push_back(std::chrono::duration<double, std::milli>(Clock::now() - begin).count());
    };
    for (auto _ : state) {
        for (std::uint64_t i = 0; i < kPushes; ++i) {
            timed(bareMillis, [&] { bare.push({i, payload}, 1ms); });
            timed(millis, [&] { product.push({i, payload}, 1ms); });
            timed(sleepMillis, [] { std::this_thread::sleep_for(1ms); });
        }
    }
    state.counters["bare_p50_ms"] = percentile(bareMillis, 0.5);
    state.counters["bare_p999_ms"] = percentile(bareMillis, 0.999);
    state.counters["p50_ms"] = percentile(millis, 0.5);
    state.counters["p999_ms"] = percentile(millis, 0.999);
    state.counters["sleep_p999_ms"] = percentile(sleepMillis, 0.999);
}
BENCHMARK(BM_PushFull)->Iterations(1)->Unit(benchmark::kMillisecond);

struct HandOverFigures {
    double itemsPerSecond;
    std::uint64_t lostOrDuplicated;
};

// Flat out, one producer and one consumer; the producer waits as long as it takes, so every
// item must arrive once, in order.
template <typename Q>
HandOverFigures handOver(std::uint64_t items) {
    Q queue;
    std::uint64_t next = 0;
    std::uint64_t lost = 0;
    std::uint64_t duplicated = 0;
    const auto payload = std::make_shared<int>(0);
    const auto begin = Clock::now();
    std::thread consumer = consume(queue, [&](std::uint64_t seq) {
        if (seq < next) {
            ++duplicated;
            return;
        }
        lost += seq - next;
        next = seq + 1;
    });
    for (std::uint64_t i = 0; i < items; ++i)
        queue.push({i, payload}, 10s);
    queue.push({kEnd, nullptr}, 10s);
    consumer.join();
    const double seconds = std::chrono::duration<double>(Clock::now() - begin).count();
    return {static_cast<double>(items) / seconds, lost + (items - next) + duplicated};
}

// Three runs of each, alternating; the median rate of each.
void BM_HandOver(benchmark::State& state) {
    constexpr std::uint64_t kItems = 30000;
    HandOverFigures bare[3];
    HandOverFigures product[3];
    for (auto _ : state) {
        for (int run = 0; run < 3; ++run) {
            bare[run] = handOver<BareQueue>(kItems);
            product[run] = handOver<FrameQueue>(kItems);
        }
    }
    state.counters["bare_items_per_s"] =
        median3(bare[0].itemsPerSecond, bare[1].itemsPerSecond, bare[2].itemsPerSecond);
    state.counters["items_per_s"] =
        median3(product[0].itemsPerSecond, product[1].itemsPerSecond, product[2].itemsPerSecond);
    state.counters["lost_or_dup"] =
        static_cast<double>(product[0].lostOrDuplicated + product[1].lostOrDuplicated + product[2].lostOrDuplicated);
}
BENCHMARK(BM_HandOver)->Iterations(1)->Unit(benchmark::kMillisecond);

// The longest rebuilds: ranges that reach nearly the top of the table.
void BM_DepthTableRebuild(benchmark::State& state) {
    lumora::imaging::initColorMaps();
    bool flip = false;
    for (auto _ : state) {
        lumora::imaging::setDepthRange(flip ? lumora::imaging::Range{65534.0F, 0.0F}
                                            : lumora::imaging::Range{65000.0F, 1.0F});
        flip = !flip;
        benchmark::ClobberMemory();
    }
}
BENCHMARK(BM_DepthTableRebuild)->Unit(benchmark::kMicrosecond)->MinTime(0.5);

void BM_GrayTableRebuild(benchmark::State& state) {
    lumora::imaging::initColorMaps();
    bool flip = false;
    for (auto _ : state) {
        lumora::imaging::setGrayRange(flip ? lumora::imaging::Range{65534.0F, 0.0F}
                                           : lumora::imaging::Range{65000.0F, 1.0F});
        flip = !flip;
        benchmark::ClobberMemory();
    }
}
BENCHMARK(BM_GrayTableRebuild)->Unit(benchmark::kMicrosecond)->MinTime(0.5);

}  // namespace
