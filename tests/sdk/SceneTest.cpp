// The rendered sensor view: determinism, what a missing pixel is, point clouds that agree with
// depth and with the published lens model, both data types, and the embedded data line.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <memory>
#include <string>

#include <halden/sensor/Lumora.h>

#include "DeviceSpec.h"
#include "Scene.h"

namespace {

using namespace halden::sensor;
using sim::Scene;
using sim::SceneSettings;
using sim::SimFrame;
using sim::SimFrameList;

constexpr double kDegreesPerRadian = 180.0 / 3.14159265358979323846;
constexpr std::uint32_t kAllTypes = LumoraFrame::FRAME_DEPTH | LumoraFrame::FRAME_AMPLITUDE |
                                    LumoraFrame::FRAME_POINTCLOUD | LumoraFrame::FRAME_INTENSITY_POINTCLOUD;

sim::DeviceSpec device(const std::string& model, int width, int height) { return {model, width, height, 30.0}; }

std::unique_ptr<Scene> make_scene(const sim::DeviceSpec& spec) {
    return std::make_unique<Scene>(spec, sim::model_info(spec.model));
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

std::shared_ptr<SimFrameList> make_list(const Scene& scene, const SceneSettings& settings,
                                        std::uint32_t mask = kAllTypes) {
    auto list = std::make_shared<SimFrameList>();
    for (const auto type : {LumoraFrame::FRAME_DEPTH, LumoraFrame::FRAME_AMPLITUDE, LumoraFrame::FRAME_POINTCLOUD,
                            LumoraFrame::FRAME_INTENSITY_POINTCLOUD}) {
        if ((mask & type) == 0) continue;
        const bool basic = type == LumoraFrame::FRAME_DEPTH || type == LumoraFrame::FRAME_AMPLITUDE;
        list->add(std::make_shared<SimFrame>(type, basic ? settings.basicDataType : settings.pointCloudDataType,
                                             scene.width(), scene.height()));
    }
    return list;
}

std::shared_ptr<LumoraFrameList> render(Scene& scene, const SceneSettings& settings, std::uint32_t frameNumber,
                                        std::uint64_t timestamp = 0, std::uint32_t mask = kAllTypes) {
    auto list = make_list(scene, settings, mask);
    scene.render(frameNumber, timestamp, settings, *list);
    return list;
}

bool same_content(const std::shared_ptr<LumoraFrameList>& a, const std::shared_ptr<LumoraFrameList>& b) {
    if (a->size() != b->size()) return false;
    for (std::size_t i = 0; i < a->size(); ++i) {
        const auto& fa = *std::static_pointer_cast<SimFrame>(a->at(i));
        const auto& fb = *std::static_pointer_cast<SimFrame>(b->at(i));
        if (fa.byteSize() != fb.byteSize() || std::memcmp(fa.data(), fb.data(), fa.byteSize()) != 0) return false;
        const auto lineA = std::get<1>(fa.getProperty("embedded_data_line"));
        const auto lineB = std::get<1>(fb.getProperty("embedded_data_line"));
        if ((lineA == nullptr) != (lineB == nullptr)) return false;
        if (lineA && lineA->getBytes() != lineB->getBytes()) return false;
    }
    return true;
}

// Depth values of a basic frame of either data type.
std::vector<float> depth_values(const std::shared_ptr<LumoraFrameList>& list, LumoraFrame::FrameType type) {
    const auto frame = find_frame(list, type);
    std::vector<float> values;
    if (const auto narrow = frame_cast_basic16u(frame)) {
        values.assign(narrow.data(), narrow.data() + narrow.size());
    } else if (const auto wide = frame_cast_basic32f(frame)) {
        values.assign(wide.data(), wide.data() + wide.size());
    }
    return values;
}

std::size_t missing_count(const std::vector<float>& depth) {
    return static_cast<std::size_t>(std::count(depth.begin(), depth.end(), 0.0F));
}

// Where a camera-space point lands on the sensor, through the published lens model.
void project(const sim::LensCalibration& lens, double x, double y, double z, double& u, double& v) {
    const auto& d = lens.distortion;
    const auto& k = lens.intrinsics;
    const double a = x / z;
    const double b = y / z;
    const double r2 = a * a + b * b;
    const double radial = 1.0 + r2 * (d.k1 + r2 * (d.k2 + r2 * d.k3));
    const double xd = a * radial + 2.0 * d.p1 * a * b + d.p2 * (r2 + 2.0 * a * a);
    const double yd = b * radial + d.p1 * (r2 + 2.0 * b * b) + 2.0 * d.p2 * a * b;
    u = k.fx * (xd + d.skew * yd) + k.cx;
    v = k.fy * yd + k.cy;
}

std::uint64_t read_le(const std::vector<std::uint8_t>& bytes, std::size_t offset, std::size_t size) {
    std::uint64_t value = 0;
    for (std::size_t i = 0; i < size; ++i)
        value |= static_cast<std::uint64_t>(bytes[offset + i]) << (8 * i);
    return value;
}

TEST(SceneRender, SameFrameAndSettingsGiveIdenticalBytes) {
    const auto spec = device("QRX100A", 96, 72);
    for (const DataType basic : {DATA_TYPE_UINT16, DATA_TYPE_FLOAT32}) {
        for (const DataType cloud : {DATA_TYPE_UINT16, DATA_TYPE_FLOAT32}) {
            SCOPED_TRACE(testing::Message() << "data types " << basic << "/" << cloud);
            SceneSettings settings = defaults_for(spec.model);
            settings.basicDataType = basic;
            settings.pointCloudDataType = cloud;
            settings.embeddedDataLine = true;
            const auto scene = make_scene(spec);
            const auto first = render(*scene, settings, 17, 566661);
            const auto other = render(*scene, settings, 18, 599994);
            const auto again = render(*scene, settings, 17, 566661);
            EXPECT_TRUE(same_content(first, again));
            EXPECT_FALSE(same_content(first, other));
            // A scene of its own, for the same device, renders the same frame.
            const auto fresh = make_scene(spec);
            EXPECT_TRUE(same_content(first, render(*fresh, settings, 17, 566661)));
        }
    }
}

TEST(SceneRender, ListIsStampedWithOneInstant) {
    const auto spec = device("QRX200AP", 40, 30);
    const auto scene = make_scene(spec);
    const auto list = render(*scene, defaults_for(spec.model), 1234, 987654321);
    EXPECT_EQ(list->frameNumber(), 1234U);
    EXPECT_EQ(list->timestamp(), 987654321U);
    ASSERT_EQ(list->size(), 4U);
    for (std::size_t i = 0; i < list->size(); ++i) {
        EXPECT_EQ(list->at(i)->frameNumber(), 1234U);
        EXPECT_EQ(list->at(i)->timestamp(), 987654321U);
        EXPECT_EQ(list->at(i)->width(), 40);
        EXPECT_EQ(list->at(i)->height(), 30);
    }
}

TEST(SceneRender, DepthIsWithinRangeOrMissing) {
    for (const auto& spec : {device("QRX100A", 96, 72), device("QRX200AP", 80, 60), device("T100K", 64, 48)}) {
        SCOPED_TRACE(spec.model);
        const auto scene = make_scene(spec);
        SceneSettings settings = defaults_for(spec.model);
        for (const DataType basic : {DATA_TYPE_UINT16, DATA_TYPE_FLOAT32}) {
            settings.basicDataType = basic;
            for (std::uint32_t frame = 0; frame < 60; frame += 7) {
                const auto depth = depth_values(render(*scene, settings, frame), LumoraFrame::FRAME_DEPTH);
                ASSERT_EQ(depth.size(), static_cast<std::size_t>(spec.width * spec.height));
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
        settings.basicDataType = DATA_TYPE_FLOAT32;
        const auto wide = depth_values(render(*scene, settings, 3), LumoraFrame::FRAME_DEPTH);
        settings.rangeMin = 1500;
        settings.rangeMax = 2500;
        const auto narrow = depth_values(render(*scene, settings, 3), LumoraFrame::FRAME_DEPTH);
        EXPECT_GT(missing_count(narrow), missing_count(wide));
        for (std::size_t i = 0; i < narrow.size(); ++i) {
            if (narrow[i] == 0.0F) continue;
            EXPECT_GE(narrow[i], 1500.0F);
            EXPECT_LE(narrow[i], 2500.0F);
            EXPECT_EQ(narrow[i], wide[i]) << i;
        }
    }
}

TEST(SceneRender, MissingPixelsFollowTheAmplitudeThreshold) {
    const auto spec = device("QRX100A", 96, 72);
    const auto scene = make_scene(spec);
    SceneSettings settings = defaults_for(spec.model);
    settings.basicDataType = DATA_TYPE_FLOAT32;  // amplitudes unrounded, to compare with the threshold exactly
    std::size_t previous = 0;
    for (const int threshold : {0, 10, 40, 150}) {
        settings.amplitudeThreshold = threshold;
        const auto list = render(*scene, settings, 42, 0, LumoraFrame::FRAME_DEPTH | LumoraFrame::FRAME_AMPLITUDE);
        const auto depth = depth_values(list, LumoraFrame::FRAME_DEPTH);
        const auto amplitude = depth_values(list, LumoraFrame::FRAME_AMPLITUDE);
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
    const auto dark = depth_values(render(*scene, settings, 42), LumoraFrame::FRAME_DEPTH);
    EXPECT_GE(missing_count(dark), dark.size() * 99 / 100);
}

TEST(SceneRender, PointCloudLiesOnTheDepthAndOnEachPixelsRay) {
    for (const std::string model : {"QRX100A", "QRX200AP", "QRX100AW9", "QRX500AAW"}) {
        const auto spec = device(model, 96, 72);
        const auto scene = make_scene(spec);
        const auto& lens = scene->lenses().front();
        SceneSettings settings = defaults_for(model);
        settings.basicDataType = DATA_TYPE_FLOAT32;
        settings.pointCloudDataType = DATA_TYPE_FLOAT32;
        const auto list = render(*scene, settings, 25);
        const auto depth = depth_values(list, LumoraFrame::FRAME_DEPTH);
        const auto amplitude = depth_values(list, LumoraFrame::FRAME_AMPLITUDE);
        const auto cloud = frame_cast_pcl32f(find_frame(list, LumoraFrame::FRAME_POINTCLOUD));
        const auto lit = frame_cast_ipcl32f(find_frame(list, LumoraFrame::FRAME_INTENSITY_POINTCLOUD));
        ASSERT_TRUE(cloud);
        ASSERT_TRUE(lit);
        double worst = 0.0;
        for (int v = 0; v < spec.height; ++v) {
            for (int u = 0; u < spec.width; ++u) {
                const std::size_t i = static_cast<std::size_t>(v) * spec.width + u;
                SCOPED_TRACE(testing::Message() << model << " pixel " << u << "," << v);
                EXPECT_EQ(lit.intensity()[i], amplitude[i]);
                EXPECT_EQ(lit.z()[i], cloud.z()[i]);
                if (depth[i] == 0.0F) {
                    EXPECT_EQ(cloud.x()[i], 0.0F);
                    EXPECT_EQ(cloud.y()[i], 0.0F);
                    EXPECT_EQ(cloud.z()[i], 0.0F);
                    continue;
                }
                ASSERT_NEAR(cloud.z()[i] * 1000.0, depth[i], 0.01);
                double pu = 0.0;
                double pv = 0.0;
                project(lens, cloud.x()[i], cloud.y()[i], cloud.z()[i], pu, pv);
                worst = std::max({worst, std::fabs(pu - u), std::fabs(pv - v)});
            }
        }
        EXPECT_LT(worst, 0.05) << model << ": a point projects this far (pixels) from its own pixel";
    }
}

TEST(SceneRender, SixteenBitCloudsAreSignedMillimetres) {
    const auto spec = device("QRX100A", 96, 72);
    const auto scene = make_scene(spec);
    const auto& lens = scene->lenses().front();
    SceneSettings settings = defaults_for(spec.model);
    settings.pointCloudDataType = DATA_TYPE_UINT16;
    const auto list = render(*scene, settings, 8);
    const auto depth = depth_values(list, LumoraFrame::FRAME_DEPTH);
    const auto cloud = frame_cast_pcl16u(find_frame(list, LumoraFrame::FRAME_POINTCLOUD));
    const auto lit = frame_cast_ipcl16u(find_frame(list, LumoraFrame::FRAME_INTENSITY_POINTCLOUD));
    ASSERT_TRUE(cloud);
    ASSERT_TRUE(lit);
    EXPECT_FALSE(frame_cast_pcl32f(find_frame(list, LumoraFrame::FRAME_POINTCLOUD)));
    bool negativeX = false;
    bool negativeY = false;
    for (int v = 0; v < spec.height; ++v) {
        for (int u = 0; u < spec.width; ++u) {
            const std::size_t i = static_cast<std::size_t>(v) * spec.width + u;
            SCOPED_TRACE(testing::Message() << "pixel " << u << "," << v);
            const auto x = static_cast<std::int16_t>(cloud.x()[i]);
            const auto y = static_cast<std::int16_t>(cloud.y()[i]);
            const double z = cloud.z()[i];
            if (depth[i] == 0.0F) {
                EXPECT_EQ(x, 0);
                EXPECT_EQ(y, 0);
                EXPECT_EQ(z, 0.0);
                continue;
            }
            ASSERT_NEAR(z, depth[i], 1.0);
            negativeX = negativeX || x < 0;
            negativeY = negativeY || y < 0;
            double pu = 0.0;
            double pv = 0.0;
            project(lens, x, y, z, pu, pv);
            // Rounding x and y to whole millimetres moves the point by up to half a millimetre.
            const double tolerance = 0.75 * lens.intrinsics.fx / z + 0.05;
            EXPECT_NEAR(pu, u, tolerance);
            EXPECT_NEAR(pv, v, tolerance);
            EXPECT_EQ(lit.x()[i], cloud.x()[i]);
            EXPECT_EQ(lit.z()[i], cloud.z()[i]);
        }
    }
    // Left of and above the optical centre the coordinates are negative.
    EXPECT_TRUE(negativeX);
    EXPECT_TRUE(negativeY);
}

TEST(SceneRender, BothDataTypesDescribeTheSameFrame) {
    const auto spec = device("QRX200AP", 80, 60);
    const auto scene = make_scene(spec);
    SceneSettings narrow = defaults_for(spec.model);
    SceneSettings wide = narrow;
    narrow.pointCloudDataType = DATA_TYPE_UINT16;
    wide.basicDataType = DATA_TYPE_FLOAT32;
    const auto a = render(*scene, narrow, 31);
    const auto b = render(*scene, wide, 31);
    ASSERT_TRUE(frame_cast_basic16u(find_frame(a, LumoraFrame::FRAME_DEPTH)));
    ASSERT_TRUE(frame_cast_basic32f(find_frame(b, LumoraFrame::FRAME_DEPTH)));
    const auto depthA = depth_values(a, LumoraFrame::FRAME_DEPTH);
    const auto depthB = depth_values(b, LumoraFrame::FRAME_DEPTH);
    const auto amplitudeA = depth_values(a, LumoraFrame::FRAME_AMPLITUDE);
    const auto amplitudeB = depth_values(b, LumoraFrame::FRAME_AMPLITUDE);
    const auto cloudA = frame_cast_pcl16u(find_frame(a, LumoraFrame::FRAME_POINTCLOUD));
    const auto cloudB = frame_cast_pcl32f(find_frame(b, LumoraFrame::FRAME_POINTCLOUD));
    ASSERT_TRUE(cloudA);
    ASSERT_TRUE(cloudB);
    std::size_t bothSeen = 0;
    for (std::size_t i = 0; i < depthA.size(); ++i) {
        EXPECT_NEAR(amplitudeA[i], amplitudeB[i], 0.5) << i;
        if (depthA[i] == 0.0F || depthB[i] == 0.0F) continue;
        ++bothSeen;
        EXPECT_NEAR(depthA[i], depthB[i], 0.5) << i;
        EXPECT_NEAR(cloudA.z()[i], cloudB.z()[i] * 1000.0, 1.0) << i;
        EXPECT_NEAR(static_cast<std::int16_t>(cloudA.x()[i]), cloudB.x()[i] * 1000.0, 1.0) << i;
        EXPECT_NEAR(static_cast<std::int16_t>(cloudA.y()[i]), cloudB.y()[i] * 1000.0, 1.0) << i;
    }
    EXPECT_GT(bothSeen, depthA.size() / 2);
}

TEST(SceneRender, EmbeddedLineCarriesTheFrameRecord) {
    using Layout = sim::EmbeddedLineLayout;
    const auto spec = device("QRX100A", 64, 48);
    const auto scene = make_scene(spec);
    SceneSettings settings = defaults_for(spec.model);
    settings.embeddedDataLine = true;
    const std::uint32_t frameNumber = 90;
    const std::uint64_t timestamp = 0x0102030405060708ULL;
    auto list = make_list(*scene, settings);
    scene->render(frameNumber, timestamp, settings, *list);
    for (std::size_t f = 0; f < list->size(); ++f) {
        const auto [result, line] = list->at(f)->getProperty("embedded_data_line");
        ASSERT_EQ(result, RESULT_SUCCESS);
        EXPECT_EQ(line->dataType(), DATA_TYPE_BYTES);
        const auto bytes = line->getBytes();
        ASSERT_EQ(bytes.size(), static_cast<std::size_t>(spec.width));
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
    for (std::size_t f = 0; f < list->size(); ++f) {
        EXPECT_EQ(std::get<0>(list->at(f)->getProperty("embedded_data_line")), RESULT_NOT_FOUND);
    }

    // A frame narrower than the record carries as much of it as fits.
    const auto thin = make_scene(device("QRX100A", 8, 16));
    settings.embeddedDataLine = true;
    const auto thinList = render(*thin, settings, 3, 7, LumoraFrame::FRAME_DEPTH);
    const auto thinLine = std::get<1>(thinList->at(0)->getProperty("embedded_data_line"))->getBytes();
    ASSERT_EQ(thinLine.size(), 8U);
    EXPECT_EQ(thinLine[0], 'L');
    EXPECT_EQ(read_le(thinLine, Layout::kFrameCounter, 4), 3U);
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
            EXPECT_DOUBLE_EQ(lens.extrinsics.rotation[0][0], 1.0);
        }
    }
}

}  // namespace
