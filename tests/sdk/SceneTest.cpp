// The rendered sensor view: determinism, what a missing pixel is, point clouds that agree with
// depth and with the published lens model, both data types, and the embedded data line; the
// wall against its geometry, and the drawn depth noise against its deviation and independence.
#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>
#include <memory>

#include "DeviceConfig.h"
#include "Scene.h"
#include "SimTestSupport.h"

namespace halden::sensor::test {
namespace {

using sim::Scene;
using sim::SceneSettings;
using sim::SimFrame;
using sim::SimFrameList;

constexpr double kDegreesPerRadian = 180.0 / 3.14159265358979323846;

sim::DeviceConfig device(const std::string& model, int width, int height) { return {model, width, height, 30.0, {}}; }

std::unique_ptr<Scene> make_scene(const sim::DeviceConfig& dev) {
    return std::make_unique<Scene>(dev, sim::model_info(dev.model));
}

// The settings a fresh camera of this model starts with.
SceneSettings defaults_for(const std::string& model) {
    const sim::ModelInfo info = sim::model_info(model);
    SceneSettings settings;
    settings.fps = info.fps;
    settings.rangeMin = info.rangeMin;
    settings.rangeMax = info.rangeMax;
    return settings;
}

std::shared_ptr<SimFrameList> render(Scene& scene, const SceneSettings& settings, std::uint32_t frameNumber,
                                     std::uint64_t timestamp = 0, std::uint32_t mask = kAllTypes) {
    auto list = std::make_shared<SimFrameList>();
    for (const auto type : {LumoraFrame::FRAME_DEPTH, LumoraFrame::FRAME_AMPLITUDE, LumoraFrame::FRAME_POINTCLOUD,
                            LumoraFrame::FRAME_INTENSITY_POINTCLOUD}) {
        if ((mask & type) == 0) continue;
        const bool basic = type <= LumoraFrame::FRAME_AMPLITUDE;
        list->add(std::make_shared<SimFrame>(type, basic ? settings.basicDataType : settings.pointCloudDataType,
                                             scene.width(), scene.height()));
    }
    scene.render(frameNumber, timestamp, settings, *list);
    return list;
}

bool same_content(const SimFrameList& a, const SimFrameList& b) {
    return std::equal(a.frames().begin(), a.frames().end(), b.frames().begin(), b.frames().end(),
                      [](const auto& x, const auto& y) { return same_frame(*x, *y); });
}

// Values of a depth or amplitude frame of either data type.
std::vector<float> values(const std::shared_ptr<LumoraFrameList>& list, LumoraFrame::FrameType type) {
    const auto frame = find_frame(list, type);
    if (const auto narrow = frame_cast_basic16u(frame)) return {narrow.data(), narrow.data() + narrow.size()};
    if (const auto wide = frame_cast_basic32f(frame)) return {wide.data(), wide.data() + wide.size()};
    return {};
}

std::size_t missing_count(const std::vector<float>& depth) {
    return static_cast<std::size_t>(std::count(depth.begin(), depth.end(), 0.0F));
}

std::uint64_t read_le(const std::vector<std::uint8_t>& bytes, std::size_t offset, std::size_t size) {
    std::uint64_t value = 0;
    for (std::size_t i = 0; i < size; ++i)
        value |= static_cast<std::uint64_t>(bytes[offset + i]) << (8 * i);
    return value;
}

TEST(SceneRender, SameFrameAndSettingsGiveIdenticalBytesStampedWithOneInstant) {
    const auto dev = device("QRX100A", 96, 72);
    for (const DataType basic : {DATA_TYPE_UINT16, DATA_TYPE_FLOAT32}) {
        for (const DataType cloud : {DATA_TYPE_UINT16, DATA_TYPE_FLOAT32}) {
            SCOPED_TRACE(testing::Message() << "data types " << basic << "/" << cloud);
            SceneSettings settings = defaults_for(dev.model);
            settings.basicDataType = basic;
            settings.pointCloudDataType = cloud;
            settings.embeddedDataLine = true;
            const auto scene = make_scene(dev);
            const auto first = render(*scene, settings, 17, 566661);
            EXPECT_TRUE(same_content(*first, *render(*scene, settings, 17, 566661)));
            EXPECT_NE(values(first, LumoraFrame::FRAME_DEPTH),
                      values(render(*scene, settings, 18, 599994), LumoraFrame::FRAME_DEPTH));
            // A scene of its own, for the same device, renders the same frame.
            EXPECT_TRUE(same_content(*first, *render(*make_scene(dev), settings, 17, 566661)));
            EXPECT_EQ(first->frameNumber(), 17U);
            EXPECT_EQ(first->timestamp(), 566661U);
            ASSERT_EQ(first->size(), 4U);
            for (const auto& frame : first->frames()) {
                EXPECT_EQ(frame->frameNumber(), 17U);
                EXPECT_EQ(frame->timestamp(), 566661U);
            }
        }
    }
}

TEST(SceneRender, DepthIsWithinRangeOrMissing) {
    for (const auto& dev : {device("QRX100A", 96, 72), device("QRX200AP", 80, 60), device("T100K", 64, 48)}) {
        SCOPED_TRACE(dev.model);
        const auto scene = make_scene(dev);
        SceneSettings settings = defaults_for(dev.model);
        for (const DataType basic : {DATA_TYPE_UINT16, DATA_TYPE_FLOAT32}) {
            settings.basicDataType = basic;
            for (std::uint32_t frame = 0; frame < 60; frame += 7) {
                const auto depth = values(render(*scene, settings, frame), LumoraFrame::FRAME_DEPTH);
                ASSERT_EQ(depth.size(), static_cast<std::size_t>(dev.width * dev.height));
                for (const float value : depth) {
                    if (value == 0.0F) continue;
                    ASSERT_GE(value, settings.rangeMin);
                    ASSERT_LE(value, settings.rangeMax);
                }
                // The room stands well inside the range: most of it is seen.
                EXPECT_LT(missing_count(depth), depth.size() / 4) << "frame " << frame;
            }
        }
        // A narrower range loses everything outside it.
        const auto wide = values(render(*scene, settings, 3), LumoraFrame::FRAME_DEPTH);
        settings.rangeMin = 1500;
        settings.rangeMax = 2500;
        const auto narrow = values(render(*scene, settings, 3), LumoraFrame::FRAME_DEPTH);
        EXPECT_GT(missing_count(narrow), missing_count(wide));
        for (std::size_t i = 0; i < narrow.size(); ++i) {
            if (narrow[i] == 0.0F) continue;
            EXPECT_GE(narrow[i], 1500.0F);
            EXPECT_LE(narrow[i], 2500.0F);
            EXPECT_EQ(narrow[i], wide[i]) << i;
        }
    }
}

TEST(SceneRender, MissingPixelsFollowTheAmplitudeThresholdAndIllumination) {
    const auto scene = make_scene(device("QRX100A", 96, 72));
    SceneSettings settings = defaults_for("QRX100A");
    settings.basicDataType = DATA_TYPE_FLOAT32;  // amplitudes unrounded, to compare with the threshold exactly
    std::size_t previous = 0;
    for (const int threshold : {0, 10, 40, 150}) {
        settings.amplitudeThreshold = threshold;
        const auto list = render(*scene, settings, 42, 0, LumoraFrame::FRAME_DEPTH | LumoraFrame::FRAME_AMPLITUDE);
        const auto depth = values(list, LumoraFrame::FRAME_DEPTH);
        const auto amplitude = values(list, LumoraFrame::FRAME_AMPLITUDE);
        ASSERT_EQ(depth.size(), amplitude.size());
        for (std::size_t i = 0; i < depth.size(); ++i) {
            ASSERT_GE(amplitude[i], 0.0F);
            if (amplitude[i] < static_cast<float>(threshold)) {
                ASSERT_EQ(depth[i], 0.0F) << i;
            }
        }
        const std::size_t missing = missing_count(depth);
        if (threshold > 0) {
            EXPECT_GT(missing, previous) << "threshold " << threshold;
        }
        previous = missing;
    }
    // Without its own light the sensor sees almost nothing above the threshold.
    settings.amplitudeThreshold = 10;
    settings.illumination = false;
    const auto dark = values(render(*scene, settings, 42), LumoraFrame::FRAME_DEPTH);
    EXPECT_GE(missing_count(dark), dark.size() * 99 / 100);
}

TEST(SceneRender, PointCloudLiesOnTheDepthAndOnEachPixelsRay) {
    for (const std::string model : {"QRX100A", "QRX200AP", "QRX100AW9", "QRX500AAW"}) {
        SCOPED_TRACE(model);
        const auto scene = make_scene(device(model, 96, 72));
        SceneSettings settings = defaults_for(model);
        settings.basicDataType = DATA_TYPE_FLOAT32;
        const auto list = render(*scene, settings, 25);
        const auto amplitude = values(list, LumoraFrame::FRAME_AMPLITUDE);
        const auto cloud = frame_cast_pcl32f(find_frame(list, LumoraFrame::FRAME_POINTCLOUD));
        const auto lit = frame_cast_ipcl32f(find_frame(list, LumoraFrame::FRAME_INTENSITY_POINTCLOUD));
        ASSERT_TRUE(cloud && lit);
        const auto& lens = scene->lenses().front();
        expect_on_rays(values(list, LumoraFrame::FRAME_DEPTH), cloud, lens.distortion, lens.intrinsics);
        for (std::size_t i = 0; i < cloud.size(); ++i) {
            ASSERT_EQ(lit.intensity()[i], amplitude[i]) << i;
            ASSERT_EQ(lit.x()[i], cloud.x()[i]) << i;
            ASSERT_EQ(lit.z()[i], cloud.z()[i]) << i;
        }
    }
}

// The 16-bit frame is the 32-bit one in whole millimetres, with x and y signed.
TEST(SceneRender, BothDataTypesDescribeTheSameFrame) {
    const auto scene = make_scene(device("QRX200AP", 80, 60));
    SceneSettings narrow = defaults_for("QRX200AP");
    SceneSettings wide = narrow;
    narrow.pointCloudDataType = DATA_TYPE_UINT16;
    wide.basicDataType = DATA_TYPE_FLOAT32;
    const auto a = render(*scene, narrow, 31);
    const auto b = render(*scene, wide, 31);
    const auto depthA = values(a, LumoraFrame::FRAME_DEPTH);
    const auto depthB = values(b, LumoraFrame::FRAME_DEPTH);
    const auto amplitudeA = values(a, LumoraFrame::FRAME_AMPLITUDE);
    const auto amplitudeB = values(b, LumoraFrame::FRAME_AMPLITUDE);
    const auto cloudA = frame_cast_pcl16u(find_frame(a, LumoraFrame::FRAME_POINTCLOUD));
    const auto litA = frame_cast_ipcl16u(find_frame(a, LumoraFrame::FRAME_INTENSITY_POINTCLOUD));
    const auto cloudB = frame_cast_pcl32f(find_frame(b, LumoraFrame::FRAME_POINTCLOUD));
    ASSERT_TRUE(cloudA && litA && cloudB);
    std::size_t bothSeen = 0;
    bool negativeX = false;
    bool negativeY = false;
    for (std::size_t i = 0; i < depthA.size(); ++i) {
        const auto x = static_cast<std::int16_t>(cloudA.x()[i]);
        const auto y = static_cast<std::int16_t>(cloudA.y()[i]);
        EXPECT_NEAR(amplitudeA[i], amplitudeB[i], 0.5) << i;
        EXPECT_EQ(litA.x()[i], cloudA.x()[i]);
        EXPECT_EQ(litA.z()[i], cloudA.z()[i]);
        EXPECT_EQ(litA.intensity()[i], amplitudeA[i]);
        if (depthA[i] == 0.0F) {
            EXPECT_TRUE(x == 0 && y == 0 && cloudA.z()[i] == 0) << i;
            continue;
        }
        ASSERT_NEAR(cloudA.z()[i], depthA[i], 1.0) << i;
        if (depthB[i] == 0.0F) continue;
        ++bothSeen;
        negativeX = negativeX || x < 0;
        negativeY = negativeY || y < 0;
        EXPECT_NEAR(depthA[i], depthB[i], 0.5) << i;
        EXPECT_NEAR(cloudA.z()[i], cloudB.z()[i] * 1000.0, 1.0) << i;
        EXPECT_NEAR(x, cloudB.x()[i] * 1000.0, 1.0) << i;
        EXPECT_NEAR(y, cloudB.y()[i] * 1000.0, 1.0) << i;
    }
    EXPECT_GT(bothSeen, depthA.size() / 2);
    // Left of and above the optical centre the coordinates are negative.
    EXPECT_TRUE(negativeX && negativeY);
}

TEST(SceneRender, EmbeddedLineCarriesTheFrameRecord) {
    using Layout = sim::EmbeddedLineLayout;
    const auto scene = make_scene(device("QRX100A", 64, 48));
    SceneSettings settings = defaults_for("QRX100A");
    settings.embeddedDataLine = true;
    const std::uint32_t frameNumber = 90;
    const std::uint64_t timestamp = 0x0102030405060708ULL;
    const auto list = render(*scene, settings, frameNumber, timestamp);
    for (const auto& frame : list->frames()) {
        const auto [result, line] = frame->getProperty("embedded_data_line");
        ASSERT_EQ(result, RESULT_SUCCESS);
        EXPECT_EQ(line->dataType(), DATA_TYPE_BYTES);
        const auto bytes = line->getBytes();
        ASSERT_EQ(bytes.size(), 64U);
        EXPECT_EQ(bytes[Layout::kMagic], 'L');
        EXPECT_EQ(bytes[Layout::kMagic + 1], 'M');
        EXPECT_EQ(read_le(bytes, Layout::kFrameCounter, 4), frameNumber);
        EXPECT_EQ(read_le(bytes, Layout::kTimestamp, 8), timestamp);
        const auto centiDegrees = static_cast<std::int16_t>(read_le(bytes, Layout::kTemperature, 2));
        EXPECT_NEAR(centiDegrees / 100.0, Scene::temperatureAt(frameNumber / settings.fps), 0.006);
        EXPECT_GT(read_le(bytes, Layout::kIntegrationTime, 2), 0U);
        for (std::size_t i = Layout::kUsed; i < bytes.size(); ++i)
            EXPECT_EQ(bytes[i], 0) << i;
    }

    // Rendering into the same list again rewrites the record, and drops it once switched off.
    scene->render(frameNumber + 1, timestamp + 1, settings, *list);
    const auto next = std::get<1>(list->at(0)->getProperty("embedded_data_line"))->getBytes();
    EXPECT_EQ(read_le(next, Layout::kFrameCounter, 4), frameNumber + 1);
    EXPECT_EQ(read_le(next, Layout::kTimestamp, 8), timestamp + 1);
    settings.embeddedDataLine = false;
    scene->render(frameNumber + 2, timestamp + 2, settings, *list);
    for (const auto& frame : list->frames()) {
        EXPECT_EQ(std::get<0>(frame->getProperty("embedded_data_line")), RESULT_NOT_FOUND);
    }

    // A frame narrower than the record carries as much of it as fits.
    settings.embeddedDataLine = true;
    const auto thin = render(*make_scene(device("QRX100A", 8, 16)), settings, 3, 7, LumoraFrame::FRAME_DEPTH);
    const auto thinLine = std::get<1>(thin->at(0)->getProperty("embedded_data_line"))->getBytes();
    ASSERT_EQ(thinLine.size(), 8U);
    EXPECT_EQ(thinLine[0], 'L');
    EXPECT_EQ(read_le(thinLine, Layout::kFrameCounter, 4), 3U);
}

// A wall, and the settings that view it, for a fresh camera of this model.
SceneSettings wall_settings(const std::string& model, double distance, double angle, double noise) {
    SceneSettings settings = defaults_for(model);
    settings.scene.wall = true;
    settings.scene.distance = distance;
    settings.scene.angle = angle;
    settings.noise = noise;
    return settings;
}

// The distance (mm) along the wall's normal from the wall to a point given in metres.
double off_wall(const SceneSettings& settings, double x, double z) {
    const double a = settings.scene.angle / kDegreesPerRadian;
    return (std::sin(a) * x + std::cos(a) * z) * 1000.0 - settings.scene.distance * std::cos(a);
}

// With the sensor's own noise: each pixel's point, averaged over lists, lies on the wall, and
// every pixel is seen, for walls near and far, turned either way, inside each model's range.
TEST(SceneWall, EveryPixelSeesTheWallWhereItsRayMeetsIt) {
    constexpr int kLists = 16;
    const struct {
        const char* model;
        double distance, angle;
    } walls[] = {{"QRX100A", 300, 30},   {"QRX100A", 3000, -30}, {"QRX100AW6", 3000, 30},
                 {"QRX200AP", 3000, 20}, {"QRX200AP", 300, -30}, {"QRX500AAW", 1500, 0}};
    for (const auto& wall : walls) {
        SCOPED_TRACE(testing::Message() << wall.model << " wall:" << wall.distance << ":" << wall.angle);
        const auto scene = make_scene(device(wall.model, 96, 72));
        SceneSettings settings = wall_settings(wall.model, wall.distance, wall.angle, 0.0);
        settings.basicDataType = DATA_TYPE_FLOAT32;
        const std::size_t pixels = std::size_t{96} * 72;
        std::vector<double> sumX(pixels), sumZ(pixels), sumOff2(pixels);
        for (std::uint32_t n = 0; n < kLists; ++n) {
            const auto list = render(*scene, settings, n, 0, LumoraFrame::FRAME_DEPTH | LumoraFrame::FRAME_POINTCLOUD);
            const auto depth = values(list, LumoraFrame::FRAME_DEPTH);
            ASSERT_EQ(missing_count(depth), 0U) << "list " << n;
            const auto cloud = frame_cast_pcl32f(find_frame(list, LumoraFrame::FRAME_POINTCLOUD));
            const auto& lens = scene->lenses().front();
            if (n == 0) expect_on_rays(depth, cloud, lens.distortion, lens.intrinsics);
            for (std::size_t i = 0; i < pixels; ++i) {
                sumX[i] += cloud.x()[i];
                sumZ[i] += cloud.z()[i];
                sumOff2[i] += std::pow(off_wall(settings, cloud.x()[i], cloud.z()[i]), 2);
            }
        }
        // The mean point is off the wall by no more than its own uncertainty allows.
        double bias = 0.0;
        std::size_t wrong = 0;
        for (std::size_t i = 0; i < pixels; ++i) {
            const double off = off_wall(settings, sumX[i] / kLists, sumZ[i] / kLists);
            const double spread = std::sqrt(sumOff2[i] / kLists);
            wrong += std::fabs(off) > 2.0 * spread + 0.01;
            bias += off / pixels;
        }
        EXPECT_EQ(wrong, 0U) << "pixels whose mean point is off the wall";
        EXPECT_LT(std::fabs(bias), 0.3) << "mm, the wall's mean offset";
    }
}

// A least-squares plane z = p x + q y + c through points given in millimetres.
struct Plane {
    double p, q, c;
    double angle() const { return std::atan(std::hypot(p, q)) * kDegreesPerRadian; }
    double off(double x, double y, double z) const { return (z - p * x - q * y - c) / std::sqrt(1 + p * p + q * q); }
};

Plane fit_plane(const std::vector<std::array<double, 3>>& points) {
    double m[3][4] = {};
    for (const auto& [x, y, z] : points) {
        const double row[4] = {x, y, 1.0, z};
        for (int r = 0; r < 3; ++r)
            for (int k = 0; k < 4; ++k)
                m[r][k] += row[r] * row[k];
    }
    for (int pivot = 0; pivot < 3; ++pivot) {
        for (int r = 0; r < 3; ++r) {
            if (r == pivot) continue;
            const double factor = m[r][pivot] / m[pivot][pivot];
            for (int k = 0; k < 4; ++k)
                m[r][k] -= factor * m[pivot][k];
        }
    }
    return {m[0][3] / m[0][0], m[1][3] / m[1][1], m[2][3] / m[2][2]};
}

// The truth a depth-quality measurement is checked against: a VGA camera before a wall at
// 1500 mm turned by 10 degrees, with 5 mm of drawn noise in 16-bit depth.
TEST(SceneWall, DrawnNoiseHasItsDeviationAndIsIndependentPerPixelAndPerList) {
    constexpr int kWidth = 640;
    constexpr int kHeight = 480;
    constexpr std::size_t kPixels = std::size_t{kWidth} * kHeight;
    constexpr int kLists = 30;
    constexpr double kSigma = 5.0;
    const auto scene = make_scene(device("QRX100A", kWidth, kHeight));
    const SceneSettings settings = wall_settings("QRX100A", 1500.0, 10.0, kSigma);
    const double tangent = std::tan(10.0 / kDegreesPerRadian);
    std::vector<float> truth(kPixels);       // the depth where each ray meets the wall
    std::vector<std::vector<float>> errors;  // per list and pixel: depth minus truth
    for (std::uint32_t n = 0; n < kLists; ++n) {
        SCOPED_TRACE(testing::Message() << "list " << n);
        const auto list =
            render(*scene, settings, 1000 + n, 0, LumoraFrame::FRAME_DEPTH | LumoraFrame::FRAME_POINTCLOUD);
        const auto depth = values(list, LumoraFrame::FRAME_DEPTH);
        const auto cloud = frame_cast_pcl32f(find_frame(list, LumoraFrame::FRAME_POINTCLOUD));
        ASSERT_EQ(missing_count(depth), 0U);
        std::vector<std::array<double, 3>> centre;
        for (int v = kHeight * 3 / 10; v < kHeight * 7 / 10; ++v) {
            for (int u = kWidth * 3 / 10; u < kWidth * 7 / 10; ++u) {
                const std::size_t i = static_cast<std::size_t>(v) * kWidth + u;
                centre.push_back({cloud.x()[i] * 1000.0, cloud.y()[i] * 1000.0, cloud.z()[i] * 1000.0});
            }
        }
        const Plane plane = fit_plane(centre);
        EXPECT_NEAR(plane.c, 1500.0, 1.0);
        EXPECT_NEAR(plane.angle(), 10.0, 0.2);
        double square = 0.0;
        for (const auto& [x, y, z] : centre)
            square += std::pow(plane.off(x, y, z), 2);
        EXPECT_NEAR(std::sqrt(square / centre.size()), kSigma, kSigma / 10);
        auto& error = errors.emplace_back(kPixels);
        for (std::size_t i = 0; i < kPixels; ++i) {
            if (n == 0) truth[i] = static_cast<float>(1500.0 / (1.0 + tangent * cloud.x()[i] / cloud.z()[i]));
            error[i] = depth[i] - truth[i];
        }
    }
    // Over lists, pixel by pixel.
    double variance = 0.0;
    for (std::size_t i = 0; i < kPixels; ++i) {
        double sum = 0.0, square = 0.0;
        for (const auto& error : errors) {
            sum += error[i];
            square += double{error[i]} * error[i];
        }
        variance += (square - sum * sum / kLists) / (kLists - 1) / kPixels;
    }
    EXPECT_NEAR(std::sqrt(variance), kSigma, kSigma / 10);
    // Over everything: unbiased, and Gaussian in its fourth moment.
    double sum = 0.0, square = 0.0, fourth = 0.0;
    for (const auto& error : errors) {
        for (const float e : error) {
            sum += e;
            square += double{e} * e;
            fourth += double{e} * e * e * e;
        }
    }
    const double count = static_cast<double>(kLists) * kPixels;
    EXPECT_NEAR(sum / count, 0.0, 0.05);
    EXPECT_NEAR(fourth / count / std::pow(square / count, 2), 3.0, 0.05) << "kurtosis";
    // No correlation between neighbours, rows, pixels 65536 apart, nor between lists.
    const auto correlation = [&](const std::vector<float>& a, const std::vector<float>& b, std::size_t lag) {
        double product = 0.0;
        for (std::size_t i = 0; i + lag < kPixels; ++i)
            product += double{a[i]} * b[i + lag];
        return product / static_cast<double>(kPixels - lag) / (square / count);
    };
    for (const std::size_t lag : {std::size_t{1}, std::size_t{2}, std::size_t{kWidth}, std::size_t{1} << 16}) {
        double mean = 0.0;
        for (const auto& error : errors)
            mean += correlation(error, error, lag) / kLists;
        EXPECT_NEAR(mean, 0.0, 0.01) << "pixels " << lag << " apart";
    }
    for (int n = 1; n < kLists; ++n) {
        EXPECT_NEAR(correlation(errors[0], errors[n], 0), 0.0, 0.01) << "lists 0 and " << n;
        EXPECT_NEAR(correlation(errors[n - 1], errors[n], 0), 0.0, 0.01) << "lists " << n - 1 << " and " << n;
    }

    // Facing the camera, the wall is at its distance in every pixel.
    const auto facing =
        values(render(*scene, wall_settings("QRX100A", 1500.0, 0.0, kSigma), 7), LumoraFrame::FRAME_DEPTH);
    std::vector<float> sorted = facing;
    std::nth_element(sorted.begin(), sorted.begin() + sorted.size() / 2, sorted.end());
    EXPECT_NEAR(sorted[sorted.size() / 2], 1500.0, 2.0);
    // Made again, a list is the same.
    EXPECT_EQ(facing, values(render(*make_scene(device("QRX100A", kWidth, kHeight)),
                                    wall_settings("QRX100A", 1500.0, 0.0, kSigma), 7),
                             LumoraFrame::FRAME_DEPTH));
}

TEST(SceneCalibration, LensesFollowTheModelsFieldOfView) {
    for (const std::string model : {"QRX100A", "QRX200AP", "QRX100AW6", "QRX100AW9", "QRX500AAW", "T100K"}) {
        SCOPED_TRACE(model);
        const sim::ModelInfo info = sim::model_info(model);
        const auto scene = make_scene(device(model, 160, 120));
        ASSERT_EQ(scene->lenses().size(), static_cast<std::size_t>(info.lensCount));
        for (const auto& lens : scene->lenses()) {
            const auto& k = lens.intrinsics;
            EXPECT_DOUBLE_EQ(lens.fov.horizontal, info.horizontalFov);
            // A pinhole of that focal length sees the sensor's width under the horizontal angle.
            EXPECT_NEAR(2.0 * std::atan(80.0 / k.fx) * kDegreesPerRadian, info.horizontalFov, 0.01);
            EXPECT_NEAR(2.0 * std::atan(60.0 / k.fy) * kDegreesPerRadian, lens.fov.vertical, 0.01);
            EXPECT_NEAR(k.cx, 80.0, 4.0);
            EXPECT_NEAR(k.cy, 60.0, 4.0);
        }
    }
}

}  // namespace
}  // namespace halden::sensor::test
