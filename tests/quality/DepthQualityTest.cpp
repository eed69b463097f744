// The depth-quality figures against the truth of synthetic walls: a plane of known distance
// and tilt seen through a distorting lens, with seeded Gaussian noise, holes, outliers and
// amplitudes of a known distribution, as depth and as point clouds.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <random>
#include <vector>

#include <halden/sensor/sim/SimControl.h>

#include "quality/DepthQuality.h"
#include "quality/Report.h"

namespace lumora::quality {
namespace {

namespace hs = halden::sensor;

constexpr int kWidth = 640;
constexpr int kHeight = 480;
constexpr std::size_t kPixels = static_cast<std::size_t>(kWidth) * kHeight;
constexpr double kPi = 3.14159265358979323846;

Calibration lens() {
    Calibration c;
    c.intrinsics = {457.2, 458.1, 321.3, 238.7};
    c.distortion = {-0.12, 0.03, -0.004, 0.0005, -0.0003, 0.0};
    return c;
}

// The whole frame's rays, checked by RaysUndistortTheirPixels.
const RayTable& frame_rays() {
    static const RayTable rays(lens(), Roi{0, 0, kWidth, kHeight});
    return rays;
}

// A wall meeting the optical axis at `distance` mm, its normal tilted by `angle` degrees
// towards 30 degrees below the x axis; the depth of each list carries Gaussian noise of
// `sigma` mm. `holeEvery`: every such pixel is missing; `outliers` pixels per list lie
// 300 mm behind the wall.
struct Wall {
    double distance = 1500.0;
    double angle = 10.0;
    double sigma = 5.0;
    std::size_t holeEvery = 0;
    std::size_t outliers = 0;

    double nx() const { return std::sin(angle * kPi / 180) * std::cos(kPi / 6); }
    double ny() const { return std::sin(angle * kPi / 180) * std::sin(kPi / 6); }
    double nz() const { return std::cos(angle * kPi / 180); }
    double depth(std::size_t i) const {
        return distance * nz() / (nx() * frame_rays().x()[i] + ny() * frame_rays().y()[i] + nz());
    }

    std::vector<float> list(std::mt19937& random) const {
        std::normal_distribution<double> noise(0.0, sigma);
        std::vector<float> depth(kPixels);
        for (std::size_t i = 0; i < kPixels; ++i)
            depth[i] = holeEvery != 0 && i % holeEvery == 0 ? 0.0F : static_cast<float>(this->depth(i) + noise(random));
        std::uniform_int_distribution<std::size_t> pixel(0, kPixels - 1);
        for (std::size_t k = 0; k < outliers; ++k)
            if (float& d = depth[pixel(random)]; d > 0.0F) d += 300.0F;
        return depth;
    }
};

ListView depth_view(const std::vector<float>& depth) {
    ListView view;
    view.width = kWidth;
    view.height = kHeight;
    view.depth = depth.data();
    view.depthType = Sample::kFloat32;
    return view;
}

Quality measure(const Wall& wall, std::size_t lists, Settings settings = {}) {
    settings.calibration = lens();
    DepthQualityMeter meter;
    EXPECT_EQ(meter.configure(settings), Status::kOk);
    std::mt19937 random(7);
    for (std::size_t k = 0; k < lists; ++k)
        EXPECT_EQ(meter.add(depth_view(wall.list(random))), Status::kOk);
    return meter.result();
}

// Trimming 0.5% off each side of a Gaussian leaves sigma times this.
constexpr double kTrimmedGaussian = 0.96163;

TEST(DepthQuality, RaysUndistortTheirPixels) {
    const Calibration c = lens();
    const auto& k = c.intrinsics;
    const auto& d = c.distortion;
    for (std::size_t i = 0; i < kPixels; i += 997) {
        const double x = frame_rays().x()[i];
        const double y = frame_rays().y()[i];
        const double r2 = x * x + y * y;
        const double radial = 1 + d.k1 * r2 + d.k2 * r2 * r2 + d.k3 * r2 * r2 * r2;
        const double u = k.fx * (x * radial + 2 * d.p1 * x * y + d.p2 * (r2 + 2 * x * x)) + k.cx;
        const double v = k.fy * (y * radial + d.p1 * (r2 + 2 * y * y) + 2 * d.p2 * x * y) + k.cy;
        const std::size_t row = i / kWidth;
        EXPECT_NEAR(u, static_cast<double>(i % kWidth), 1e-3) << i;
        EXPECT_NEAR(v, static_cast<double>(row), 1e-3) << i;
    }
}

TEST(DepthQuality, RoiIsParsedCentredAndClipped) {
    EXPECT_EQ(resolve_roi(RoiRequest{}, kWidth, kHeight).x, 192);
    const auto centred = parse_roi("40");
    ASSERT_TRUE(centred);
    const Roi r = resolve_roi(*centred, kWidth, kHeight);
    EXPECT_EQ(std::vector<int>({r.x, r.y, r.width, r.height}), std::vector<int>({192, 144, 256, 192}));
    const Roi whole = resolve_roi(*parse_roi("100"), 33, 25);
    EXPECT_EQ(std::vector<int>({whole.x, whole.y, whole.width, whole.height}), std::vector<int>({0, 0, 33, 25}));
    const Roi clipped = resolve_roi(*parse_roi("600,400,100,100"), kWidth, kHeight);
    EXPECT_EQ(std::vector<int>({clipped.x, clipped.y, clipped.width, clipped.height}),
              std::vector<int>({600, 400, 40, 80}));
    EXPECT_TRUE(resolve_roi(*parse_roi("640,0,10,10"), kWidth, kHeight).empty());
    for (const char* bad : {"", "0", "101", "40%", "1,2,3", "1,2,3,0", "-1,0,5,5", "1,2,3,4,5", "a"})
        EXPECT_FALSE(parse_roi(bad)) << bad;
}

TEST(DepthQuality, TiltedNoisyWallGivesItsDistanceAngleAndNoise) {
    const Wall wall;
    const Quality q = measure(wall, 30);
    EXPECT_EQ(q.lists, 30U);
    EXPECT_DOUBLE_EQ(*q.fillRatePct.value, 100.0);
    EXPECT_NEAR(*q.distanceMm.value, wall.distance, 0.3);
    EXPECT_NEAR(*q.planeAngleDeg.value, wall.angle, 0.05);
    // Noise along z is seen across the plane scaled by the ray's cosine to the normal.
    double across = 0.0;
    const Roi roi = q.roi;
    for (int row = roi.y; row < roi.y + roi.height; ++row)
        for (int column = roi.x; column < roi.x + roi.width; ++column) {
            const double scale =
                wall.distance * wall.nz() / wall.depth(static_cast<std::size_t>(row) * kWidth + column);
            across += scale * scale;
        }
    across = wall.sigma * std::sqrt(across / (roi.width * roi.height));
    EXPECT_NEAR(*q.planeFitRmsMm.value, kTrimmedGaussian * across, 0.02 * across);
    // The median of a sample deviation of 30 (Wilson-Hilferty for chi with 29 degrees).
    EXPECT_NEAR(*q.temporalNoiseMm.value, wall.sigma * std::pow(1 - 2.0 / (9 * 29), 1.5), 0.01 * wall.sigma);
    EXPECT_EQ(q.zErrorMm.missing, Missing::kNoTruth);
    EXPECT_EQ(q.amplitudeP5.missing, Missing::kNoAmplitude);
}

TEST(DepthQuality, HolesOutliersTruthAndAmplitude) {
    Wall wall;
    wall.distance = 1503.0;
    wall.angle = 0.0;
    wall.sigma = 2.0;
    wall.holeEvery = 7;
    wall.outliers = 40 * kPixels / 49152;  // about 40 in the ROI: under 0.5% of its pixels
    Settings settings;
    settings.truthMm = 1500.0;
    settings.calibration = lens();
    DepthQualityMeter meter;
    ASSERT_EQ(meter.configure(settings), Status::kOk);
    std::mt19937 random(11);
    std::uniform_int_distribution<std::uint16_t> brightness(100, 1099);
    std::vector<std::uint16_t> amplitude(kPixels);
    for (int k = 0; k < 10; ++k) {
        for (auto& a : amplitude)
            a = brightness(random);
        const std::vector<float> depth = wall.list(random);
        ListView view = depth_view(depth);
        view.amplitude = amplitude.data();
        ASSERT_EQ(meter.add(view), Status::kOk);
    }
    const Quality q = meter.result();
    std::size_t holes = 0;
    for (int row = q.roi.y; row < q.roi.y + q.roi.height; ++row)
        for (int column = q.roi.x; column < q.roi.x + q.roi.width; ++column)
            holes += (static_cast<std::size_t>(row) * kWidth + column) % 7 == 0 ? 1 : 0;
    EXPECT_NEAR(*q.fillRatePct.value, 100.0 * (1.0 - double(holes) / (q.roi.width * q.roi.height)), 1e-9);
    EXPECT_NEAR(*q.planeFitRmsMm.value, kTrimmedGaussian * wall.sigma, 0.03 * wall.sigma);
    EXPECT_NEAR(*q.zErrorMm.value, 3.0, 0.05);
    EXPECT_NEAR(*q.zErrorPct.value, 0.2, 0.004);
    EXPECT_NEAR(*q.amplitudeMean.value, 599.5, 1.0);
    EXPECT_NEAR(*q.amplitudeP5.value, 150.0, 1.5);
    // The holes are missing from every list and left out; the few pixels an outlier hit
    // lie at the top.
    EXPECT_NEAR(*q.temporalNoiseMm.value, wall.sigma * std::pow(1 - 2.0 / (9 * 9), 1.5), 0.02 * wall.sigma);
}

// A list of the wall's depth and amplitude, and of its points (float metres and 16-bit
// millimetres) with the amplitude as intensity, made as the camera library makes them.
TEST(DepthQuality, PointCloudsAgreeWithDepth) {
    const Wall wall;
    std::mt19937 random(3);
    Settings settings;
    settings.calibration = lens();
    DepthQualityMeter fromDepth, fromMetres, fromMillimetres;
    for (auto* meter : {&fromDepth, &fromMetres, &fromMillimetres})
        ASSERT_EQ(meter->configure(settings), Status::kOk);
    for (int k = 0; k < 5; ++k) {
        const std::vector<float> depth = wall.list(random);
        const auto frame = [](hs::LumoraFrame::FrameType type, hs::DataType data) {
            return hs::sim::make_frame(type, data, kWidth, kHeight, 1, 0);
        };
        const auto depthFrame = frame(hs::LumoraFrame::FRAME_DEPTH, hs::DATA_TYPE_FLOAT32);
        const auto amplitude = frame(hs::LumoraFrame::FRAME_AMPLITUDE, hs::DATA_TYPE_UINT16);
        const auto metres = frame(hs::LumoraFrame::FRAME_POINTCLOUD, hs::DATA_TYPE_FLOAT32);
        const auto millimetres = frame(hs::LumoraFrame::FRAME_INTENSITY_POINTCLOUD, hs::DATA_TYPE_UINT16);
        auto* d = static_cast<float*>(hs::sim::frame_data(depthFrame));
        auto* a = static_cast<std::uint16_t*>(hs::sim::frame_data(amplitude));
        auto* m = static_cast<float*>(hs::sim::frame_data(metres));
        auto* mm = static_cast<std::uint16_t*>(hs::sim::frame_data(millimetres));
        for (std::size_t i = 0; i < kPixels; ++i) {
            const float point[3] = {frame_rays().x()[i] * depth[i], frame_rays().y()[i] * depth[i], depth[i]};
            d[i] = depth[i];
            a[i] = mm[3 * kPixels + i] = static_cast<std::uint16_t>(500 + i % 100);
            for (std::size_t c = 0; c < 3; ++c) {
                m[c * kPixels + i] = point[c] / 1000.0F;
                mm[c * kPixels + i] = static_cast<std::uint16_t>(static_cast<std::int16_t>(std::lround(point[c])));
            }
        }
        ListView view;
        ASSERT_TRUE(view_of(*hs::sim::make_frame_list({amplitude, metres, depthFrame}), view));
        EXPECT_EQ(view.depth, d);
        ASSERT_EQ(fromDepth.add(view), Status::kOk);
        ASSERT_TRUE(view_of(*hs::sim::make_frame_list({metres, amplitude}), view));
        ASSERT_EQ(fromMetres.add(view), Status::kOk);
        ASSERT_TRUE(view_of(*hs::sim::make_frame_list({millimetres}), view));
        EXPECT_EQ(view.amplitude, mm + 3 * kPixels);
        ASSERT_EQ(fromMillimetres.add(view), Status::kOk);
    }
    const Quality depth = fromDepth.result();
    EXPECT_NEAR(*depth.distanceMm.value, wall.distance, 0.5);
    EXPECT_NEAR(*depth.amplitudeMean.value, 549.5, 2.0);
    for (const Quality& q : {fromMetres.result(), fromMillimetres.result()}) {
        EXPECT_NEAR(*q.distanceMm.value, *depth.distanceMm.value, 0.05);
        EXPECT_NEAR(*q.planeAngleDeg.value, *depth.planeAngleDeg.value, 0.005);
        // Rounding to whole millimetres adds its own spread (1/12 mm squared).
        EXPECT_NEAR(*q.planeFitRmsMm.value, *depth.planeFitRmsMm.value, 0.02);
        EXPECT_NEAR(*q.temporalNoiseMm.value, *depth.temporalNoiseMm.value, 0.05);
        EXPECT_DOUBLE_EQ(*q.amplitudeMean.value, *depth.amplitudeMean.value);
    }
}

TEST(DepthQuality, SaysWhyAFigureCannotBeHad) {
    DepthQualityMeter meter;
    EXPECT_EQ(meter.result().distanceMm.missing, Missing::kNoLists);
    std::vector<float> depth(kPixels, 0.0F);
    EXPECT_EQ(meter.add(depth_view(depth)), Status::kNoRays);
    EXPECT_EQ(meter.add(ListView{}), Status::kBadList);
    for (const std::size_t lists : {std::size_t{0}, kMaxLists + 1}) {
        Settings bad;
        bad.lists = lists;
        EXPECT_EQ(meter.configure(bad), Status::kBadSettings);
    }
    Settings settings;
    settings.truthMm = -5.0;
    EXPECT_EQ(meter.configure(settings), Status::kBadSettings);
    settings.truthMm = 1000.0;
    settings.calibration = lens();
    settings.lists = 3;
    settings.roi = *parse_roi("700,0,10,10");
    ASSERT_EQ(meter.configure(settings), Status::kOk);
    EXPECT_EQ(meter.add(depth_view(depth)), Status::kEmptyRoi);
    settings.roi = RoiRequest{};
    ASSERT_EQ(meter.configure(settings), Status::kOk);
    ListView signedDepth = depth_view(depth);
    signedDepth.depthType = Sample::kInt16;
    EXPECT_EQ(meter.add(signedDepth), Status::kBadList);

    ASSERT_EQ(meter.add(depth_view(depth)), Status::kOk);
    Quality q = meter.result();
    EXPECT_EQ(*q.fillRatePct.value, 0.0);
    EXPECT_EQ(q.distanceMm.missing, Missing::kNoValidPixels);
    EXPECT_EQ(q.temporalNoiseMm.missing, Missing::kTooFewLists);
    EXPECT_EQ(q.zErrorPct.missing, Missing::kNoValidPixels);
    const std::size_t centre = static_cast<std::size_t>(240) * kWidth + 320;
    depth[centre] = depth[centre + 1] = 1000.0F;
    ASSERT_EQ(meter.add(depth_view(depth)), Status::kOk);
    q = meter.result();
    EXPECT_EQ(q.planeFitRmsMm.missing, Missing::kTooFewPoints);
    EXPECT_EQ(q.temporalNoiseMm.missing, Missing::kNoSteadyPixel);
    EXPECT_EQ(*q.zErrorMm.value, 0.0);

    // The window keeps the last 3 lists; a list of another size starts afresh.
    std::mt19937 random(5);
    Wall near;
    near.distance = 900.0;
    for (int k = 0; k < 3; ++k)
        ASSERT_EQ(meter.add(depth_view(near.list(random))), Status::kOk);
    q = meter.result();
    EXPECT_EQ(q.lists, 3U);
    EXPECT_DOUBLE_EQ(*q.fillRatePct.value, 100.0);
    std::vector<float> small(std::size_t{64} * 48, 1000.0F);
    ListView view = depth_view(small);
    view.width = 64;
    view.height = 48;
    ASSERT_EQ(meter.add(view), Status::kOk);
    q = meter.result();
    EXPECT_EQ(q.lists, 1U);
    EXPECT_EQ(std::vector<int>({q.roi.x, q.roi.y, q.roi.width, q.roi.height}), std::vector<int>({19, 14, 26, 19}));
}

TEST(DepthQuality, PrintsTextAndJson) {
    Quality q;
    q.lists = 30;
    q.roi = {192, 144, 256, 192};
    q.fillRatePct = {100.0, Missing::kNone};
    q.distanceMm = {1500.34, Missing::kNone};
    q.planeAngleDeg = {10.012, Missing::kNone};
    q.planeFitRmsMm = {5.021, Missing::kNone};
    q.temporalNoiseMm = {4.98, Missing::kNone};
    q.zErrorMm = {0.3, Missing::kNone};
    q.zErrorPct = {0.02, Missing::kNone};
    q.amplitudeMean = {812.4, Missing::kNone};
    q.amplitudeP5 = {790.2, Missing::kNone};
    EXPECT_EQ(format_text(q, "QRX100A LM0536240000"),
              "depth quality of QRX100A LM0536240000: 30 lists, ROI 192,144 256x192\n"
              "  fill rate          100.00 %\n"
              "  distance           1500.3 mm\n"
              "  plane angle        10.01 deg\n"
              "  plane-fit RMS      5.02 mm\n"
              "  temporal noise     4.98 mm\n"
              "  Z accuracy         +0.3 mm (+0.02 %)\n"
              "  amplitude          mean 812.4, 5th percentile 790\n");
    q.zErrorMm = q.zErrorPct = {std::nullopt, Missing::kNoTruth};
    EXPECT_NE(format_text(q, "x").find("\n  Z accuracy         no true distance given\n"), std::string::npos);
    EXPECT_EQ(
        format_json(q),
        "{\"fill_rate_pct\": 100, \"distance_mm\": 1500.34, \"plane_angle_deg\": 10.012, "
        "\"plane_fit_rms_mm\": 5.021, \"temporal_noise_mm\": 4.98, \"z_error_mm\": null, \"z_error_pct\": null, "
        "\"amplitude_mean\": 812.4, \"amplitude_p5\": 790.2, \"lists\": 30, \"roi\": [192, 144, 256, 192], "
        "\"reasons\": {\"z_error_mm\": \"no true distance given\", \"z_error_pct\": \"no true distance given\"}}");
}

}  // namespace
}  // namespace lumora::quality
