// The simulated library's costs: rendering a frame list, copying one, the pacing of
// delivery, and the delivery thread's processor time per list with and without a loop.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <ctime>
#include <mutex>
#include <vector>

#include <halden/sensor/Lumora.h>
#include <halden/sensor/sim/SimControl.h>

#include "DeviceConfig.h"
#include "Scene.h"
#include "Ticker.h"

namespace {

using namespace halden::sensor;

const sim::DeviceConfig kVga{"QRX100A", 640, 480, 30.0, {}};

void render(benchmark::State& state, std::uint32_t mask) {
    sim::Scene scene(kVga, sim::model_info(kVga.model));
    const sim::SceneSettings settings;
    auto list = scene.makeList(mask, settings);
    std::uint32_t frame = 0;
    for (auto _ : state) {
        scene.render(frame, frame * 33333ULL, settings, *list);
        ++frame;
        benchmark::ClobberMemory();
    }
}

void BM_RenderVgaAllTypes(benchmark::State& state) { render(state, 2 | 4 | 8 | 16); }
BENCHMARK(BM_RenderVgaAllTypes)->Unit(benchmark::kMillisecond)->MinTime(1.0);

void BM_RenderVgaDepthAmplitude(benchmark::State& state) { render(state, 2 | 4); }
BENCHMARK(BM_RenderVgaDepthAmplitude)->Unit(benchmark::kMillisecond)->MinTime(1.0);

// The baseline of the copy: the same bytes with memcpy into buffers that already exist.
void BM_MemcpyVgaDepthAmplitude(benchmark::State& state) {
    const std::size_t bytes = std::size_t{640} * 480 * 2;
    std::vector<std::uint8_t> depth(bytes, 1), amplitude(bytes, 2), outDepth(bytes), outAmplitude(bytes);
    for (auto _ : state) {
        std::memcpy(outDepth.data(), depth.data(), bytes);
        std::memcpy(outAmplitude.data(), amplitude.data(), bytes);
        benchmark::ClobberMemory();
    }
}
BENCHMARK(BM_MemcpyVgaDepthAmplitude)->Unit(benchmark::kMicrosecond)->MinTime(1.0);

void BM_CopyFrameListVgaDepthAmplitude(benchmark::State& state) {
    const sim::Scene scene(kVga, sim::model_info(kVga.model));
    std::shared_ptr<LumoraFrameList> list = scene.makeList(2 | 4, sim::SceneSettings());
    for (auto _ : state) {
        auto copy = copy_frame_list(list);
        benchmark::DoNotOptimize(copy);
    }
}
BENCHMARK(BM_CopyFrameListVgaDepthAmplitude)->Unit(benchmark::kMicrosecond)->MinTime(1.0);

// Records when each list arrives.
class ArrivalSink : public LumoraSink {
public:
    std::string name() const override { return "ArrivalSink"; }
    void onLumoraCameraState(LumoraSource*, LumoraCamera::State) override {}
    void onLumoraCameraError(LumoraSource*, Result) override {}
    void onLumoraFrameList(LumoraSource*, const std::shared_ptr<LumoraFrameList>&) override {
        const auto now = std::chrono::steady_clock::now();
        std::lock_guard<std::mutex> lock(mMutex);
        mArrivals.push_back(now);
        mArrived.notify_all();
    }
    std::vector<std::chrono::steady_clock::time_point> wait(std::size_t count) {
        std::unique_lock<std::mutex> lock(mMutex);
        mArrived.wait_for(lock, std::chrono::seconds(30), [&] { return mArrivals.size() >= count; });
        return mArrivals;
    }

private:
    std::mutex mMutex;
    std::condition_variable mArrived;
    std::vector<std::chrono::steady_clock::time_point> mArrivals;
};

// Intervals between lists of a 30 fps VGA camera delivering all four frame types, over
// about ten seconds; reported as the median and the 99th percentile in milliseconds, with
// the 99th percentile of a bare 30 Hz timer's intervals over the same seconds.
void BM_DeliveryInterval30fps(benchmark::State& state) {
    for (auto _ : state) {
        auto sources = search_camera_source();
        auto camera = sources ? create_camera(sources->find("sim:0")) : nullptr;
        if (!camera) {
            state.SkipWithError("no camera on sim:0");
            return;
        }
        ArrivalSink sink;
        camera->addSink(&sink);
        camera->prepare();
        lumora::bench::Ticker ticker;
        camera->run(2 | 4 | 8 | 16);
        const auto arrivals = sink.wait(301);
        ticker.stop();
        destroy_camera(camera);
        const auto ticks = ticker.intervals();
        if (!ticks.empty()) state.counters["ticker_p99_ms"] = ticks[ticks.size() * 99 / 100];
        std::vector<double> intervals;
        for (std::size_t i = 1; i < arrivals.size(); ++i) {
            intervals.push_back(std::chrono::duration<double, std::milli>(arrivals[i] - arrivals[i - 1]).count());
        }
        std::sort(intervals.begin(), intervals.end());
        state.counters["p50_ms"] = intervals[intervals.size() / 2];
        state.counters["p99_ms"] = intervals[intervals.size() * 99 / 100];
        state.counters["min_ms"] = intervals.front();
        state.counters["max_ms"] = intervals.back();
    }
}
BENCHMARK(BM_DeliveryInterval30fps)->Unit(benchmark::kSecond)->Iterations(1);

// At each list, the processor time of the thread that calls it (the camera's delivery
// thread) and the lists rendered so far, in storage reserved beforehand.
class ProcessorTimeSink : public LumoraSink {
public:
    struct Note {
        double seconds;
        std::uint64_t rendered;
    };
    explicit ProcessorTimeSink(std::size_t lists) : mLists(lists) { mNotes.reserve(lists); }
    std::string name() const override { return "ProcessorTimeSink"; }
    void onLumoraCameraState(LumoraSource*, LumoraCamera::State) override {}
    void onLumoraCameraError(LumoraSource*, Result) override {}
    void onLumoraFrameList(LumoraSource*, const std::shared_ptr<LumoraFrameList>&) override {
        timespec now{};
        clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
        const std::uint64_t rendered = sim::Scene::renderedLists();
        std::lock_guard<std::mutex> lock(mMutex);
        if (mNotes.size() == mLists) return;
        mNotes.push_back({static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9, rendered});
        if (mNotes.size() == mLists) mDone.notify_all();
    }
    // The notes of every list; empty when they did not all come.
    std::vector<Note> wait() {
        std::unique_lock<std::mutex> lock(mMutex);
        if (!mDone.wait_for(lock, std::chrono::seconds(60), [&] { return mNotes.size() == mLists; })) return {};
        return mNotes;
    }

private:
    const std::size_t mLists;
    std::mutex mMutex;
    std::condition_variable mDone;
    std::vector<Note> mNotes;
};

// The delivery thread's processor time per list of the VGA camera delivering all four frame
// types at 60 fps, rendering every list (sim_loop 0) or looping 30 (sim_loop 30), counted
// from list 40, when a loop is rendered and the pool of lists full: the difference is the
// rendering's share. renders_per_list over the same lists shows what the loop renders.
void BM_DeliveryThreadVgaAllTypes(benchmark::State& state) {
    constexpr std::size_t kFrom = 40;
    constexpr std::size_t kLists = 160;
    for (auto _ : state) {
        auto sources = search_camera_source();
        auto camera = sources ? create_camera(sources->find("sim:0")) : nullptr;
        if (!camera) {
            state.SkipWithError("no camera on sim:0");
            return;
        }
        ProcessorTimeSink sink(kLists);
        camera->addSink(&sink);
        camera->setProperty(make_property_64f("framerate", 60.0));
        camera->setProperty(make_property_32s("sim_loop", static_cast<std::int32_t>(state.range(0))));
        camera->prepare();
        camera->run(2 | 4 | 8 | 16);
        const auto notes = sink.wait();
        destroy_camera(camera);
        if (notes.empty()) {
            state.SkipWithError("lists did not come");
            return;
        }
        const auto lists = static_cast<double>(kLists - 1 - kFrom);
        state.counters["cpu_ms_per_list"] = (notes.back().seconds - notes[kFrom].seconds) * 1e3 / lists;
        state.counters["renders_per_list"] = static_cast<double>(notes.back().rendered - notes[kFrom].rendered) / lists;
    }
}
BENCHMARK(BM_DeliveryThreadVgaAllTypes)->Arg(0)->Arg(30)->Unit(benchmark::kSecond)->Iterations(1);

}  // namespace
