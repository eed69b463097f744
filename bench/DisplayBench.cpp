// The live display's conversion of one VGA list, each beside a baseline timed in the same
// rounds, call for call, so that a machine busy with other work slows both alike; the
// figures are the medians of the rounds.
// - Depth + amplitude: a memcpy of the bytes the pass touches (4 read, 4 written per pixel,
//   into a fresh colour and a fresh gray image, as the conversion writes), the 16-bit and
//   the float conversion, and OpenCV's convertTo + applyColorMap(JET) + amplitude
//   convertTo. Every call reads a different list from a pool larger than the last-level
//   cache, so no call finds its input in cache left there by an earlier one. Then the memcpy
//   and the 16-bit conversion once more, each after a pause, as at 30 lists a second.
// - Point cloud: the image from a VGA cloud, and a bare cv::projectPoints of the same points.
#include <benchmark/benchmark.h>

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <functional>
#include <memory>
#include <thread>
#include <vector>

#include <opencv2/calib3d.hpp>
#include <opencv2/imgproc.hpp>

#include <halden/sensor/sim/SimControl.h>

#include "imaging/ColorMaps.h"
#include "imaging/FrameConversion.h"

namespace {

namespace hs = halden::sensor;
namespace li = lumora::imaging;
using Clock = std::chrono::steady_clock;
using Frame = std::shared_ptr<hs::LumoraFrame>;

constexpr int kWidth = 640;
constexpr int kHeight = 480;
constexpr std::size_t kPixels = static_cast<std::size_t>(kWidth) * kHeight;

// A room-like depth ramp (0.5 to 7 m, rows further away towards the top) with a missing
// corner, and an amplitude falling with depth.
std::uint16_t depthAt(std::size_t i) {
    const std::size_t x = i % kWidth;
    const std::size_t y = i / kWidth;
    if (x < 40 && y < 40) return 0;
    return static_cast<std::uint16_t>(500 + (kHeight - y) * 13 + (x * 7) % 50);
}
std::uint16_t amplitudeAt(std::size_t i) { return static_cast<std::uint16_t>(60000000U / (depthAt(i) + 300U) / 100U); }

Frame basic(hs::LumoraFrame::FrameType type, hs::DataType dataType) {
    auto frame = hs::sim::make_frame(type, dataType, kWidth, kHeight, 1, 0);
    void* data = hs::sim::frame_data(frame);
    for (std::size_t i = 0; i < kPixels; ++i) {
        const std::uint16_t value = type == hs::LumoraFrame::FRAME_DEPTH ? depthAt(i) : amplitudeAt(i);
        if (dataType == hs::DATA_TYPE_UINT16)
            static_cast<std::uint16_t*>(data)[i] = value;
        else
            static_cast<float*>(data)[i] = value;
    }
    return frame;
}

std::size_t lastLevelCache() {
    const long reported = sysconf(_SC_LEVEL3_CACHE_SIZE);
    return reported > 0 ? static_cast<std::size_t>(reported) : std::size_t{64} << 20U;
}

// Depth + amplitude lists of one data type, together a quarter larger than the last-level
// cache; next() hands them out in turn.
class ListPool {
public:
    explicit ListPool(hs::DataType dataType) {
        const Frame depth = basic(hs::LumoraFrame::FRAME_DEPTH, dataType);
        const Frame amplitude = basic(hs::LumoraFrame::FRAME_AMPLITUDE, dataType);
        const std::size_t bytes = kPixels * (dataType == hs::DATA_TYPE_UINT16 ? 2 : 4);
        const std::size_t lists = std::max<std::size_t>(4, lastLevelCache() * 5 / 4 / (2 * bytes) + 1);
        for (std::size_t k = 0; k < lists; ++k)
            for (const Frame& model : {depth, amplitude}) {
                Frame copy = hs::sim::make_frame(model->frameType(), dataType, kWidth, kHeight, 1, 0);
                std::memcpy(hs::sim::frame_data(copy), hs::sim::frame_data(model), bytes);
                mFrames.push_back(copy);
            }
        mBytes = mFrames.size() * bytes;
    }
    std::pair<const Frame&, const Frame&> next() {
        const std::size_t k = mNext;
        mNext = (mNext + 2) % mFrames.size();
        return {mFrames[k], mFrames[k + 1]};
    }
    std::size_t bytes() const { return mBytes; }

private:
    std::vector<Frame> mFrames;
    std::size_t mNext = 0;
    std::size_t mBytes = 0;
};

double median(std::vector<double> samples) {
    const auto middle = samples.begin() + static_cast<std::ptrdiff_t>(samples.size() / 2);
    std::nth_element(samples.begin(), middle, samples.end());
    return *middle;
}

// Times `work` once into `samples`, in milliseconds.
void timeOnce(std::vector<double>& samples, const std::function<void()>& work) {
    const auto start = Clock::now();
    work();
    samples.push_back(std::chrono::duration<double, std::milli>(Clock::now() - start).count());
}

void setUp() {
    li::initColorMaps();
    li::setDepthRange({7000.0F, 0.0F});
    li::setGrayRange({230.0F, 0.0F});
}

void BM_DepthAmplitudeVga(benchmark::State& state) {
    setUp();
    ListPool u16(hs::DATA_TYPE_UINT16);
    ListPool f32(hs::DATA_TYPE_FLOAT32);
    const auto memcpyTouched = [&] {
        const auto [depth, amplitude] = u16.next();
        const auto* depthBytes = static_cast<const std::uint8_t*>(hs::sim::frame_data(depth));
        const auto* amplitudeBytes = static_cast<const std::uint8_t*>(hs::sim::frame_data(amplitude));
        cv::Mat colour(kHeight, kWidth, CV_8UC3);
        cv::Mat gray(kHeight, kWidth, CV_8UC1);
        // 2 + 2 bytes read and 3 + 1 written per pixel.
        std::memcpy(colour.data, depthBytes, 2 * kPixels);
        std::memcpy(colour.data + 2 * kPixels, amplitudeBytes, kPixels);
        std::memcpy(gray.data, amplitudeBytes + kPixels, kPixels);
        benchmark::DoNotOptimize(colour.data);
        benchmark::DoNotOptimize(gray.data);
        benchmark::ClobberMemory();
    };
    li::ConversionContext context;
    const auto convert = [&context](ListPool& pool) {
        const auto [depth, amplitude] = pool.next();
        li::WindowImage depthImage;
        li::WindowImage amplitudeImage;
        li::convertDepthAmplitude(context, depth, amplitude, {kWidth, kHeight}, {320, 240}, {320, 240}, depthImage,
                                  amplitudeImage);
        benchmark::DoNotOptimize(depthImage.image.data);
        benchmark::DoNotOptimize(amplitudeImage.image.data);
    };
    const auto openCvJet = [&] {
        const auto [depth, amplitude] = u16.next();
        const cv::Mat depthValues(kHeight, kWidth, CV_16UC1, hs::sim::frame_data(depth));
        const cv::Mat amplitudeValues(kHeight, kWidth, CV_16UC1, hs::sim::frame_data(amplitude));
        cv::Mat depth8;
        cv::Mat colour;
        cv::Mat gray;
        depthValues.convertTo(depth8, CV_8U, 255.0 / 7000.0);
        cv::applyColorMap(depth8, colour, cv::COLORMAP_JET);
        amplitudeValues.convertTo(gray, CV_8U, 255.0 / 230.0);
        benchmark::DoNotOptimize(colour.data);
        benchmark::DoNotOptimize(gray.data);
    };
    constexpr int kRounds = 500;
    std::vector<double> copied;
    std::vector<double> converted16;
    std::vector<double> converted32;
    std::vector<double> jet;
    // As the renderer meets them at 30 lists a second: each after a pause long enough for the
    // helper thread to have gone to sleep.
    constexpr int kIdleRounds = 100;
    constexpr auto kIdle = std::chrono::milliseconds(5);
    std::vector<double> copiedIdle;
    std::vector<double> convertedIdle;
    for (auto _ : state) {
        for (int round = 0; round < kRounds; ++round) {
            timeOnce(copied, memcpyTouched);
            timeOnce(converted16, [&] { convert(u16); });
            timeOnce(converted32, [&] { convert(f32); });
            timeOnce(jet, openCvJet);
        }
        for (int round = 0; round < kIdleRounds; ++round) {
            std::this_thread::sleep_for(kIdle);
            timeOnce(copiedIdle, memcpyTouched);
            std::this_thread::sleep_for(kIdle);
            timeOnce(convertedIdle, [&] { convert(u16); });
        }
    }
    state.counters["memcpy_ms"] = median(copied);
    state.counters["u16_ms"] = median(converted16);
    state.counters["f32_ms"] = median(converted32);
    state.counters["jet_ms"] = median(jet);
    state.counters["memcpy_idle_ms"] = median(copiedIdle);
    state.counters["u16_idle_ms"] = median(convertedIdle);
    state.counters["pool_MB"] = static_cast<double>(std::min(u16.bytes(), f32.bytes())) / 1e6;
    state.counters["llc_MB"] = static_cast<double>(lastLevelCache()) / 1e6;
}
BENCHMARK(BM_DepthAmplitudeVga)->Iterations(1)->Unit(benchmark::kMillisecond);

// A VGA cloud: every pixel's point on its ray through a 70 degree lens, at the ramp's depth.
struct Cloud {
    Frame frame;
    std::vector<cv::Point3f> points;
    li::Projection lens = li::defaultProjection({kWidth, kHeight});
};
Cloud makeCloud() {
    Cloud cloud;
    cloud.frame = hs::sim::make_frame(hs::LumoraFrame::FRAME_POINTCLOUD, hs::DATA_TYPE_FLOAT32, kWidth, kHeight, 1, 0);
    auto* planes = static_cast<float*>(hs::sim::frame_data(cloud.frame));
    const auto& in = cloud.lens.intrinsics;
    for (std::size_t i = 0; i < kPixels; ++i) {
        const float z = (depthAt(i) == 0 ? 500 : depthAt(i)) / 1000.0F;
        const float x = static_cast<float>((static_cast<double>(i % kWidth) - in.cx) / in.fx) * z;
        const std::size_t row = i / kWidth;
        const float y = static_cast<float>((static_cast<double>(row) - in.cy) / in.fy) * z;
        planes[i] = x;
        planes[kPixels + i] = y;
        planes[2 * kPixels + i] = z;
        cloud.points.emplace_back(x, y, z);
    }
    return cloud;
}

void BM_PointCloudVga(benchmark::State& state) {
    setUp();
    const Cloud cloud = makeCloud();
    const auto& in = cloud.lens.intrinsics;
    const cv::Matx33d camera(in.fx, 0, in.cx, 0, in.fy, in.cy, 0, 0, 1);
    const cv::Matx<double, 1, 5> distortion(0, 0, 0, 0, 0);
    std::vector<cv::Point2f> projected;
    const auto bare = [&] {
        cv::projectPoints(cloud.points, cv::Vec3d(0, 0, 0), cv::Vec3d(0, 0, 0), camera, distortion, projected,
                          cv::noArray(), 0.0);
        benchmark::DoNotOptimize(projected.data());
    };
    li::ConversionContext context;
    const auto image = [&] {
        li::WindowImage depthImage;
        li::convertPointCloud(context, cloud.frame, cloud.lens, {kWidth, kHeight}, {320, 240}, {320, 240}, depthImage,
                              nullptr);
        benchmark::DoNotOptimize(depthImage.image.data);
    };
    constexpr int kRounds = 60;
    std::vector<double> bareTimes;
    std::vector<double> imageTimes;
    for (auto _ : state)
        for (int round = 0; round < kRounds; ++round) {
            timeOnce(bareTimes, bare);
            timeOnce(imageTimes, image);
        }
    state.counters["bare_ms"] = median(bareTimes);
    state.counters["image_ms"] = median(imageTimes);
}
BENCHMARK(BM_PointCloudVga)->Iterations(1)->Unit(benchmark::kMillisecond);

}  // namespace
