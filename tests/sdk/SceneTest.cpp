// The rendered sensor view: determinism, what a missing pixel is, point clouds that agree with
// depth and with the published lens model, both data types, and the embedded data line.
#include <algorithm>
#include <cmath>
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
