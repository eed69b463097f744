// The depth-quality measurement of one VGA list over the default ROI, as a live sink makes
// it for every list, beside a memcpy of the ROI's bytes in the same rounds, call for call,
// so that a machine busy with other work slows both alike. The lists are the simulated
// camera's depth and amplitude, eight of them in turn; the figures are the medians of the
// rounds.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <vector>

#include "DeviceConfig.h"
#include "Scene.h"
#include "quality/DepthQuality.h"

namespace {

namespace hs = halden::sensor;
namespace lq = lumora::quality;
using Clock = std::chrono::steady_clock;

double median_of(std::vector<double> samples) {
    const auto middle = samples.begin() + static_cast<std::ptrdiff_t>(samples.size() / 2);
    std::nth_element(samples.begin(), middle, samples.end());
    return *middle;
}

double since(Clock::time_point start) {
    return std::chrono::duration<double, std::milli>(Clock::now() - start).count();
}

void BM_QualityVgaList(benchmark::State& state) {
    const hs::sim::DeviceConfig vga{"QRX100A", 640, 480, 30.0, {}};
    const hs::sim::ModelInfo model = hs::sim::model_info(vga.model);
    hs::sim::Scene scene(vga, model);
    const hs::sim::SceneSettings settings;
    std::vector<std::shared_ptr<hs::sim::SimFrameList>> lists;
    for (std::uint32_t k = 0; k < 8; ++k) {
        lists.push_back(scene.makeList(2 | 4, settings));
        scene.render(k, k * 33333ULL, settings, *lists.back());
    }
    const hs::sim::LensCalibration lens = hs::sim::Scene::lensesOf(vga, model).front();
    lq::Settings measured;
    measured.calibration = lq::Calibration{lens.intrinsics, lens.distortion};
    lq::DepthQualityMeter meter;
    meter.configure(measured);
    const lq::Roi roi = lq::resolve_roi(measured.roi, vga.width, vga.height);
    std::vector<std::uint16_t> source(static_cast<std::size_t>(roi.width) * roi.height, 1500);
    std::vector<std::uint16_t> copy(source.size());

    std::vector<double> measuring, copying;
    std::size_t next = 0;
    for (auto _ : state) {
        lq::ListView view;
        lq::view_of(*lists[next++ % lists.size()], view);
        auto start = Clock::now();
        const lq::Status added = meter.add(view);
        measuring.push_back(since(start));
        start = Clock::now();
        std::memcpy(copy.data(), source.data(), source.size() * sizeof(std::uint16_t));
        benchmark::ClobberMemory();
        copying.push_back(since(start));
        if (added != lq::Status::kOk) state.SkipWithError("the list was not measured");
    }
    state.counters["measure_ms"] = median_of(measuring);
    state.counters["memcpy_us"] = 1e3 * median_of(copying);
}
BENCHMARK(BM_QualityVgaList)->Unit(benchmark::kMillisecond)->MinTime(2.0);

}  // namespace
