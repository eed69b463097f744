// Device entries of LUMORA_SIM_DEVICES, and the device list the library enumerates from them.
#include <gtest/gtest.h>

#include <cstdlib>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include <halden/sensor/Lumora.h>
#include <halden/sensor/sim/SimControl.h>

#include "DeviceSpec.h"

namespace {

using namespace halden::sensor;
using sim::DeviceSpec;
using sim::parse_device_entry;
using sim::parse_device_list;

// Points LUMORA_SIM_DEVICES at `value` (unset for null) and makes the library read it again.
void use_devices(const char* value) {
    if (value == nullptr) {
        // NOLINTNEXTLINE(concurrency-mt-unsafe): no library thread reads the environment
        unsetenv("LUMORA_SIM_DEVICES");
    } else {
        // NOLINTNEXTLINE(concurrency-mt-unsafe): no library thread reads the environment
        setenv("LUMORA_SIM_DEVICES", value, 1);
    }
    ASSERT_EQ(sim::reset_devices(), RESULT_SUCCESS);
}

void expect_device(const std::optional<DeviceSpec>& spec, const std::string& model, int width, int height, double fps) {
    ASSERT_TRUE(spec.has_value());
    EXPECT_EQ(spec->model, model);
    EXPECT_EQ(spec->width, width);
    EXPECT_EQ(spec->height, height);
    EXPECT_DOUBLE_EQ(spec->fps, fps);
}

TEST(DeviceEntry, MissingPartsTakeTheModelDefaults) {
    expect_device(parse_device_entry("QRX100A"), "QRX100A", 640, 480, 30.0);
    expect_device(parse_device_entry("QRX200AP"), "QRX200AP", 320, 240, 30.0);
    expect_device(parse_device_entry("QRX200AP@15"), "QRX200AP", 320, 240, 15.0);
    expect_device(parse_device_entry("QRX100A:320x240"), "QRX100A", 320, 240, 30.0);
    expect_device(parse_device_entry(" \tT100K:64x48@7.5 \t"), "T100K", 64, 48, 7.5);
    // A model the library does not know still makes a device, with generic defaults.
    const sim::ModelInfo generic = sim::model_info("Bench_rig-2");
    expect_device(parse_device_entry("Bench_rig-2"), "Bench_rig-2", generic.width, generic.height, generic.fps);
    expect_device(parse_device_entry("X:8x8@1"), "X", 8, 8, 1.0);
}

TEST(DeviceEntry, SizeMustBeWithinBounds) {
    expect_device(parse_device_entry("M:8x8"), "M", 8, 8, 30.0);
    expect_device(parse_device_entry("M:4096x1024"), "M", 4096, 1024, 30.0);
    expect_device(parse_device_entry("M:1024x4096"), "M", 1024, 4096, 30.0);
    expect_device(parse_device_entry("M:2048x2048"), "M", 2048, 2048, 30.0);
    expect_device(parse_device_entry("M:00640x480"), "M", 640, 480, 30.0);
    for (const char* entry :
         {"M:7x8",         "M:8x7",      "M:0x0",      "M:4097x8",   "M:8x4097",      "M:4096x1025", "M:2048x2049",
          "M:99999x99999", "M:123456x8", "M:640x",     "M:x480",     "M:640",         "M:",          "M:640*480",
          "M:640x480x2",   "M:-640x480", "M:+640x480", "M:640 x480", "M:640x480 @30", "M:640X480",   "M:0x640"}) {
        EXPECT_FALSE(parse_device_entry(entry).has_value()) << entry;
    }
}

TEST(DeviceEntry, RateMustBeOneTo120) {
    expect_device(parse_device_entry("M@120"), "M", 640, 480, 120.0);
    expect_device(parse_device_entry("M@1"), "M", 640, 480, 1.0);
    expect_device(parse_device_entry("M@2.5"), "M", 640, 480, 2.5);
    expect_device(parse_device_entry("M:16x16@60."), "M", 16, 16, 60.0);
    for (const char* entry : {"M@0", "M@0.0", "M@.5", "M@0.99", "M@.", "M@", "M@120.5", "M@121", "M@-5", "M@abc",
                              "M@1.2.3", "M@1e2", "M@30@30", "M@ 30", "M@30fps", "M@0x1E"}) {
        EXPECT_FALSE(parse_device_entry(entry).has_value()) << entry;
    }
}

TEST(DeviceEntry, ModelIsOneTo31NameCharacters) {
    const std::string longest(31, 'Q');
    expect_device(parse_device_entry(longest), longest, 640, 480, 30.0);
    for (const std::string& entry :
         {std::string(32, 'Q'), std::string(), std::string("   "), std::string(":64x48"), std::string("@30"),
          std::string("QRX 100A"), std::string("QRX100A!"), std::string("QRX.100A"), std::string("QRX/100A"),
          std::string("Q\xC3\x9C"), std::string("QRX100A,QRX200AP")}) {
        EXPECT_FALSE(parse_device_entry(entry).has_value()) << '"' << entry << '"';
    }
}

TEST(DeviceList, SkipsAndReportsMalformedEntries) {
    std::vector<std::string> rejected;
    EXPECT_TRUE(parse_device_list("", &rejected).empty());
    EXPECT_TRUE(parse_device_list(" \t ", &rejected).empty());
    EXPECT_TRUE(rejected.empty());

    const auto devices = parse_device_list("QRX100A, bad entry ,QRX200AP:64x48@10,,T100K:1x1,T110K@7", &rejected);
    ASSERT_EQ(devices.size(), 3U);
    EXPECT_EQ(devices[0].model, "QRX100A");
    EXPECT_EQ(devices[1].model, "QRX200AP");
    EXPECT_EQ(devices[1].width, 64);
    EXPECT_DOUBLE_EQ(devices[1].fps, 10.0);
    EXPECT_EQ(devices[2].model, "T110K");
    EXPECT_EQ(rejected, (std::vector<std::string>{" bad entry ", "", "T100K:1x1"}));

    rejected.clear();
    EXPECT_EQ(parse_device_list("QRX100A,", &rejected).size(), 1U);
    EXPECT_EQ(rejected, std::vector<std::string>{""});
    EXPECT_EQ(parse_device_list("QRX100A,QRX100A,QRX100A").size(), 3U);  // the same model more than once
}

TEST(DeviceList, FormattedEntryParsesBackToTheSameDevice) {
    for (const DeviceSpec& device :
         {DeviceSpec{"QRX100A", 640, 480, 30.0}, DeviceSpec{"T100K", 8, 4096, 7.5},
          DeviceSpec{"a-b_c", 4096, 1024, 120.0}, DeviceSpec{"Z", 100, 80, 1.0}, DeviceSpec{"Y", 9, 9, 29.97}}) {
        const std::string text = sim::format_device(device);
        expect_device(parse_device_entry(text), device.model, device.width, device.height, device.fps);
    }
}

std::vector<std::shared_ptr<LumoraSource>> sources_of(const std::shared_ptr<LumoraSourceList>& list) {
    std::vector<std::shared_ptr<LumoraSource>> sources;
    for (std::size_t i = 0; list && i < list->size(); ++i)
        sources.push_back(list->at(i));
    return sources;
}

TEST(DeviceEnumeration, UnsetVariableGivesTwoDefaultDevices) {
    use_devices(nullptr);
    const auto list = search_camera_source();
    ASSERT_NE(list, nullptr);
    ASSERT_EQ(list->size(), 2U);
    EXPECT_FALSE(list->empty());
    EXPECT_EQ(list->front()->name(), "QRX100A");
    EXPECT_EQ(list->back()->name(), "QRX200AP");
    EXPECT_EQ(list->at(0)->uri(), "sim:0");
    EXPECT_EQ(list->at(1)->uri(), "sim:1");
    EXPECT_EQ(list->at(2), nullptr);
    EXPECT_EQ(list->find("sim:1"), list->at(1));
    EXPECT_EQ(list->find("sim:2"), nullptr);
    EXPECT_NE(list->at(0)->serialNumber(), list->at(1)->serialNumber());

    const auto [result, devices] = get_property("sim_devices");
    ASSERT_EQ(result, RESULT_SUCCESS);
    EXPECT_EQ(devices->getString(""), "QRX100A:640x480@30,QRX200AP:320x240@30");

    for (std::size_t i = 0; i < 2; ++i) {
        const auto camera = create_camera(list->at(i));
        ASSERT_NE(camera, nullptr);
        const int width = std::get<1>(camera->getProperty("width"))->getInt32();
        const int height = std::get<1>(camera->getProperty("height"))->getInt32();
        const double fps = std::get<1>(camera->getProperty("framerate"))->getDouble();
        EXPECT_EQ(width, i == 0 ? 640 : 320);
        EXPECT_EQ(height, i == 0 ? 480 : 240);
        EXPECT_DOUBLE_EQ(fps, 30.0);
        EXPECT_EQ(destroy_camera(camera), RESULT_SUCCESS);
    }
}

TEST(DeviceEnumeration, NoneMeansNoTransportAndEmptyMeansNoDevice) {
    use_devices("none");
    EXPECT_EQ(search_camera_source(), nullptr);
    EXPECT_EQ(std::get<1>(get_property("sim_devices"))->getString(""), "none");

    use_devices("");
    const auto list = search_camera_source();
    ASSERT_NE(list, nullptr);
    EXPECT_TRUE(list->empty());
    EXPECT_EQ(list->size(), 0U);
    EXPECT_EQ(list->front(), nullptr);
    EXPECT_EQ(list->back(), nullptr);
    EXPECT_EQ(list->at(0), nullptr);
    EXPECT_EQ(create_camera(nullptr), nullptr);
}

TEST(DeviceEnumeration, CustomListNumbersGoodEntriesAndLogsBadOnes) {
    testing::internal::CaptureStdout();
    use_devices("T100K:64x48@15, QRX100A:9x9x9 ,QRX200AP@60,garbage!");
    const std::string log = testing::internal::GetCapturedStdout();
    EXPECT_NE(log.find("\rE/"), std::string::npos) << log;
    EXPECT_NE(log.find("QRX100A:9x9x9"), std::string::npos) << log;
    EXPECT_NE(log.find("garbage!"), std::string::npos) << log;

    const auto sources = sources_of(search_camera_source());
    ASSERT_EQ(sources.size(), 2U);
    EXPECT_EQ(sources[0]->name(), "T100K");
    EXPECT_EQ(sources[0]->uri(), "sim:0");
    EXPECT_EQ(sources[1]->name(), "QRX200AP");
    EXPECT_EQ(sources[1]->uri(), "sim:1");

    const auto camera = create_camera(sources[1]);
    ASSERT_NE(camera, nullptr);
    EXPECT_DOUBLE_EQ(std::get<1>(camera->getProperty("framerate"))->getDouble(), 60.0);
    EXPECT_EQ(std::get<1>(camera->getProperty("width"))->getInt32(), 320);
    // The device list cannot be swapped under an open camera.
    EXPECT_EQ(sim::reset_devices(), RESULT_USING_RESOURCES);
    EXPECT_EQ(destroy_camera(camera), RESULT_SUCCESS);
    EXPECT_EQ(sim::reset_devices(), RESULT_SUCCESS);
}

TEST(DeviceEnumeration, SerialNumbersAreUniqueAndDependOnlyOnModelAndNumber) {
    use_devices("QRX100A,QRX100A,QRX200AP,T100K,QRX100A:64x48@5");
    const auto first = sources_of(search_camera_source());
    ASSERT_EQ(first.size(), 5U);
    std::set<std::string> serials;
    std::set<std::string> uris;
    for (const auto& source : first) {
        EXPECT_FALSE(source->serialNumber().empty());
        serials.insert(source->serialNumber());
        uris.insert(source->uri());
    }
    EXPECT_EQ(serials.size(), first.size());
    EXPECT_EQ(uris.size(), first.size());

    // Reading the list again, or a list that differs elsewhere, names each device the same.
    use_devices("QRX100A,QRX100A,T100K,T100K,QRX100A");
    const auto second = sources_of(search_camera_source());
    ASSERT_EQ(second.size(), 5U);
    EXPECT_NE(second[0], first[0]);
    for (const std::size_t i : {0U, 1U, 3U, 4U}) {
        EXPECT_EQ(second[i]->serialNumber(), first[i]->serialNumber()) << i;
    }
    EXPECT_NE(second[2]->serialNumber(), first[2]->serialNumber());

    const auto camera = create_camera(second[3]);
    ASSERT_NE(camera, nullptr);
    EXPECT_EQ(std::get<1>(camera->getProperty("serial_number"))->getString(""), second[3]->serialNumber());
    EXPECT_EQ(std::get<1>(camera->getProperty("model"))->getString(""), "T100K");
    EXPECT_EQ(destroy_camera(camera), RESULT_SUCCESS);
}

}  // namespace
