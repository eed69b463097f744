// A replay camera beside a simulated one, in the same run: a recorded 30 fps VGA
// depth + amplitude dump with embedded lines, played back while the simulated camera
// streams all four frame types; the intervals between the lists each delivers, and the
// allocations its delivery thread makes per list once its pool is full; beside them, a bare
// 30 Hz timer's intervals over the same seconds.
//
// Threads: each camera's delivery thread calls its own ArrivalCounter, which notes the
// time and that thread's allocation count in storage reserved beforehand; the benchmark's
// thread waits for the arrivals, then destroys both cameras.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <new>
#include <string>
#include <vector>

#include <unistd.h>

#include <halden/sensor/Lumora.h>
#include <halden/sensor/sim/SimControl.h>

#include "Ticker.h"
#include "dump/DumpWriter.h"
#include "format/DumpFormat.h"

namespace {

// Allocations made by each thread of the program, the camera library's threads included.
thread_local std::uint64_t tAllocations = 0;

}  // namespace

void* operator new(std::size_t size) {
    ++tAllocations;
    if (void* block = std::malloc(size == 0 ? 1 : size)) return block;
    throw std::bad_alloc();
}
// g++ takes this free() for a mismatch with the new-expressions it sees; it pairs with the
// malloc() above.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wmismatched-new-delete"
void operator delete(void* block) noexcept { std::free(block); }
#pragma GCC diagnostic pop
void operator delete(void* block, std::size_t /*size*/) noexcept { ::operator delete(block); }

namespace {

namespace hs = halden::sensor;
namespace dump = lumora::dump;
namespace format = lumora::format;
using Clock = std::chrono::steady_clock;

constexpr int kWidth = 640;
constexpr int kHeight = 480;
constexpr std::size_t kRecords = 60;
constexpr std::uint64_t kRecordedInterval = 33333;  // microseconds
constexpr std::size_t kLists = 301;
constexpr std::size_t kWarmUp = 20;  // lists before the pool of lists is full

// A mode-1 VGA dump with embedded lines, recorded at 30 fps.
bool write_recording(const std::string& path) {
    dump::DumpWriter writer(path);
    format::dump_header header{format::kSyncByte, 1, kRecords, format::DUMP_DEPTH_AMPLITUDE};
    format::source_descriptor source{format::kSourceDescriptorTag, {}};
    format::camera_descriptor camera{format::kCameraDescriptorTag, 0x0312, {}, {}, {}};
    format::fill_text_field(source.source_type, "sim");
    format::fill_text_field(camera.serial_number, "LM0000010000");
    format::fill_text_field(camera.camera_name, "QRX100A");
    if (writer.writeHead(header, source, camera) != hs::RESULT_SUCCESS) return false;
    std::vector<std::uint16_t> depth(std::size_t{kWidth} * kHeight), amplitude(depth.size());
    std::vector<std::uint8_t> line(kWidth);
    for (std::size_t r = 0; r < kRecords; ++r) {
        for (std::size_t i = 0; i < depth.size(); ++i) {
            depth[i] = static_cast<std::uint16_t>(500 + (i + r * 7) % 4000);
            amplitude[i] = static_cast<std::uint16_t>((i * 3 + r) % 2000);
        }
        line[0] = static_cast<std::uint8_t>(r);
        const format::frame_header frame{static_cast<std::uint8_t>(r), kWidth, kHeight, 2,
                                         1000000 + r * kRecordedInterval};
        if (writer.writeRecord(frame, {line.data(), line.size()},
                               {{depth.data(), depth.size() * 2}, {amplitude.data(), amplitude.size() * 2}}) !=
            hs::RESULT_SUCCESS)
            return false;
    }
    return true;
}

class ArrivalCounter : public hs::LumoraSink {
public:
    ArrivalCounter() {
        mTimes.reserve(kLists);
        mAllocations.reserve(kLists);
    }
    std::string name() const override { return "ArrivalCounter"; }
    void onLumoraCameraState(hs::LumoraSource*, hs::LumoraCamera::State) override {}
    void onLumoraCameraError(hs::LumoraSource*, hs::Result) override {}
    void onLumoraFrameList(hs::LumoraSource*, const std::shared_ptr<hs::LumoraFrameList>&) override {
        const auto now = Clock::now();
        const std::uint64_t allocations = tAllocations;
        std::lock_guard<std::mutex> lock(mMutex);
        if (mTimes.size() == kLists) return;
        mTimes.push_back(now);
        mAllocations.push_back(allocations);
        mArrived.notify_all();
    }
    bool wait() {
        std::unique_lock<std::mutex> lock(mMutex);
        return mArrived.wait_for(lock, std::chrono::seconds(60), [&] { return mTimes.size() == kLists; });
    }
    // Intervals in milliseconds, sorted.
    std::vector<double> intervals() const {
        std::vector<double> out;
        for (std::size_t i = 1; i < mTimes.size(); ++i)
            out.push_back(std::chrono::duration<double, std::milli>(mTimes[i] - mTimes[i - 1]).count());
        std::sort(out.begin(), out.end());
        return out;
    }
    double allocationsPerList() const {
        return static_cast<double>(mAllocations.back() - mAllocations[kWarmUp]) /
               static_cast<double>(mAllocations.size() - 1 - kWarmUp);
    }

private:
    std::mutex mMutex;
    std::condition_variable mArrived;
    std::vector<Clock::time_point> mTimes;
    std::vector<std::uint64_t> mAllocations;
};

void report(benchmark::State& state, const char* prefix, const ArrivalCounter& sink) {
    const auto intervals = sink.intervals();
    const std::string p(prefix);
    state.counters[p + "p50_ms"] = intervals[intervals.size() / 2];
    state.counters[p + "p99_ms"] = intervals[intervals.size() * 99 / 100];
    state.counters[p + "min_ms"] = intervals.front();
    state.counters[p + "max_ms"] = intervals.back();
    state.counters[p + "allocs_per_list"] = sink.allocationsPerList();
}

void BM_ReplayBesideSimulated(benchmark::State& state) {
    const std::string path = "/tmp/lumora-bench-replay-" + std::to_string(getpid()) + ".lmr";
    const char* before = std::getenv("LUMORA_SIM_DEVICES");  // NOLINT(concurrency-mt-unsafe)
    const std::string previous = before != nullptr ? before : "";
    for (auto _ : state) {
        if (!write_recording(path)) {
            state.SkipWithError("cannot write the recording");
            break;
        }
        const std::string devices = "QRX100A:640x480@30,replay:" + path;
        setenv("LUMORA_SIM_DEVICES", devices.c_str(), 1);  // NOLINT(concurrency-mt-unsafe)
        hs::sim::reset_devices();
        const auto sources = hs::search_camera_source();
        const auto simulated = sources ? hs::create_camera(sources->find("sim:0")) : nullptr;
        const auto replay = sources ? hs::create_camera(sources->find("replay:1")) : nullptr;
        if (!simulated || !replay) {
            state.SkipWithError("no camera on sim:0 or replay:1");
            break;
        }
        ArrivalCounter simulatedSink, replaySink;
        simulated->addSink(&simulatedSink);
        replay->addSink(&replaySink);
        simulated->prepare();
        replay->prepare();
        lumora::bench::Ticker ticker;
        simulated->run(2 | 4 | 8 | 16);
        replay->run(2 | 4);
        const bool complete = simulatedSink.wait() && replaySink.wait();
        ticker.stop();
        const auto ticks = ticker.intervals();
        if (!ticks.empty()) state.counters["ticker_p99_ms"] = ticks[ticks.size() * 99 / 100];
        hs::destroy_camera(simulated);
        hs::destroy_camera(replay);
        if (!complete) {
            state.SkipWithError("lists did not come");
            break;
        }
        report(state, "replay_", replaySink);
        report(state, "sim_", simulatedSink);
    }
    std::remove(path.c_str());
    if (before != nullptr) {
        setenv("LUMORA_SIM_DEVICES", previous.c_str(), 1);  // NOLINT(concurrency-mt-unsafe)
    } else {
        unsetenv("LUMORA_SIM_DEVICES");  // NOLINT(concurrency-mt-unsafe)
    }
    hs::sim::reset_devices();
}
BENCHMARK(BM_ReplayBesideSimulated)->Unit(benchmark::kSecond)->Iterations(1);

}  // namespace
