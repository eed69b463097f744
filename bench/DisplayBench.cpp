// The live display's conversion of one VGA list, each beside a baseline of the same run: a
// memcpy of the bytes the depth + amplitude pass touches (4 read, 4 written per pixel),
// OpenCV's convertTo + applyColorMap(JET) + amplitude convertTo for the same two images,
// and a bare cv::projectPoints of the same point cloud.
#include <benchmark/benchmark.h>

#include <cmath>
#include <cstdint>
#include <cstring>
#include <memory>
#include <vector>

#include <opencv2/calib3d.hpp>
#include <opencv2/imgproc.hpp>

#include <halden/sensor/sim/SimControl.h>

#include "ColorMaps.h"
#include "FrameConversion.h"

namespace {

namespace hs = halden::sensor;
namespace ld = lumora::display;

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

std::shared_ptr<hs::LumoraFrame> basic(hs::LumoraFrame::FrameType type, hs::DataType dataType) {
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

void setUp() {
    ld::initColorMaps();
    ld::setDepthRange({7000.0F, 0.0F});
    ld::setGrayRange({230.0F, 0.0F});
}

void BM_TouchedBytesMemcpy(benchmark::State& state) {
    std::vector<std::uint8_t> from(4 * kPixels, 1);
    std::vector<std::uint8_t> to(4 * kPixels);
    for (auto _ : state) {
        std::memcpy(to.data(), from.data(), from.size());
        benchmark::DoNotOptimize(to.data());
        benchmark::ClobberMemory();
    }
}
BENCHMARK(BM_TouchedBytesMemcpy)->MinTime(1.0);

void convertBench(benchmark::State& state, hs::DataType dataType) {
    setUp();
    const auto depth = basic(hs::LumoraFrame::FRAME_DEPTH, dataType);
    const auto amplitude = basic(hs::LumoraFrame::FRAME_AMPLITUDE, dataType);
    for (auto _ : state) {
        ld::WindowImage depthImage;
        ld::WindowImage amplitudeImage;
        ld::convertDepthAmplitude(depth, amplitude, {kWidth, kHeight}, {320, 240}, {320, 240}, depthImage,
                                  amplitudeImage);
        benchmark::DoNotOptimize(depthImage.image.data);
        benchmark::DoNotOptimize(amplitudeImage.image.data);
    }
}
void BM_DepthAmplitude16(benchmark::State& state) { convertBench(state, hs::DATA_TYPE_UINT16); }
void BM_DepthAmplitude32f(benchmark::State& state) { convertBench(state, hs::DATA_TYPE_FLOAT32); }
BENCHMARK(BM_DepthAmplitude16)->MinTime(1.0);
BENCHMARK(BM_DepthAmplitude32f)->MinTime(1.0);

void BM_OpenCvJetPath(benchmark::State& state) {
    const auto depth = basic(hs::LumoraFrame::FRAME_DEPTH, hs::DATA_TYPE_UINT16);
    const auto amplitude = basic(hs::LumoraFrame::FRAME_AMPLITUDE, hs::DATA_TYPE_UINT16);
    const cv::Mat depthValues(kHeight, kWidth, CV_16UC1, hs::sim::frame_data(depth));
    const cv::Mat amplitudeValues(kHeight, kWidth, CV_16UC1, hs::sim::frame_data(amplitude));
    for (auto _ : state) {
        cv::Mat depth8;
        cv::Mat colour;
        cv::Mat gray;
        depthValues.convertTo(depth8, CV_8U, 255.0 / 7000.0);
        cv::applyColorMap(depth8, colour, cv::COLORMAP_JET);
        amplitudeValues.convertTo(gray, CV_8U, 255.0 / 230.0);
        benchmark::DoNotOptimize(colour.data);
        benchmark::DoNotOptimize(gray.data);
    }
}
BENCHMARK(BM_OpenCvJetPath)->MinTime(1.0);

// A VGA cloud: every pixel's point on its ray through a 70 degree lens, at the ramp's depth.
struct Cloud {
    std::shared_ptr<hs::LumoraFrame> frame;
    std::vector<cv::Point3f> points;
    ld::Projection lens = ld::defaultProjection({kWidth, kHeight});
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

void BM_ProjectPointsBare(benchmark::State& state) {
    const Cloud cloud = makeCloud();
    const auto& in = cloud.lens.intrinsics;
    const cv::Matx33d camera(in.fx, 0, in.cx, 0, in.fy, in.cy, 0, 0, 1);
    const cv::Matx<double, 1, 5> distortion(0, 0, 0, 0, 0);
    std::vector<cv::Point2f> projected;
    for (auto _ : state) {
        cv::projectPoints(cloud.points, cv::Vec3d(0, 0, 0), cv::Vec3d(0, 0, 0), camera, distortion, projected,
                          cv::noArray(), 0.0);
        benchmark::DoNotOptimize(projected.data());
    }
}
BENCHMARK(BM_ProjectPointsBare)->MinTime(1.0)->UseRealTime();

void BM_PointCloudImage(benchmark::State& state) {
    setUp();
    const Cloud cloud = makeCloud();
    for (auto _ : state) {
        ld::WindowImage image;
        ld::convertPointCloud(cloud.frame, cloud.lens, {kWidth, kHeight}, {320, 240}, {320, 240}, image, nullptr);
        benchmark::DoNotOptimize(image.image.data);
    }
}
BENCHMARK(BM_PointCloudImage)->MinTime(1.0)->UseRealTime();

}  // namespace
