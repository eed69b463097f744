// Device entries of LUMORA_SIM_DEVICES, and the device list the library enumerates from them.
#include <optional>
#include <set>

#include "DeviceConfig.h"
#include "SimTestSupport.h"

namespace halden::sensor::test {
namespace {

using sim::DeviceConfig;
using sim::parse_device_entry;

std::string text_of(const std::optional<DeviceConfig>& parsed) {
    if (!parsed) return "(rejected)";
    if (!parsed->recording.empty()) return "replay of " + parsed->recording;
    return parsed->model + " " + std::to_string(parsed->width) + "x" + std::to_string(parsed->height) + " @" +
           std::to_string(parsed->fps);
}

TEST(DeviceEntry, MissingPartsTakeTheModelDefaultsAndFormattedEntriesParseBack) {
    const sim::ModelInfo generic = sim::model_info("Bench_rig-2");
    const std::string longest(31, 'Q');
    const struct {
        std::string entry;
        DeviceConfig device;
    } cases[] = {
        {"QRX100A", {"QRX100A", 640, 480, 30.0, {}}},
        {"QRX200AP@15", {"QRX200AP", 320, 240, 15.0, {}}},
        {"QRX100A:320x240", {"QRX100A", 320, 240, 30.0, {}}},
        {" \tT100K:64x48@7.5 \t", {"T100K", 64, 48, 7.5, {}}},
        // A model the library does not know still makes a device, with generic defaults.
        {"Bench_rig-2", {"Bench_rig-2", generic.width, generic.height, generic.fps, {}}},
        {longest, {longest, 640, 480, 30.0, {}}},
        {"X:8x8@1", {"X", 8, 8, 1.0, {}}},
        {"M:4096x1024", {"M", 4096, 1024, 30.0, {}}},
        {"M:1024x4096", {"M", 1024, 4096, 30.0, {}}},
        {"M:2048x2048", {"M", 2048, 2048, 30.0, {}}},
        {"M:00640x480", {"M", 640, 480, 30.0, {}}},
        {"M@120", {"M", 640, 480, 120.0, {}}},
        {"M:16x16@60.", {"M", 16, 16, 60.0, {}}},
        {"Y:9x9@29.97", {"Y", 9, 9, 29.97, {}}},
        // A replay entry is a path, whatever it looks like; its file says the rest.
        {" replay:dumps/a b.lmr\t", {"", 0, 0, 0.0, "dumps/a b.lmr"}},
        {"replay:8x8@30", {"", 0, 0, 0.0, "8x8@30"}},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(text_of(parse_device_entry(c.entry)), text_of(c.device)) << '"' << c.entry << '"';
        EXPECT_EQ(text_of(parse_device_entry(sim::format_device(c.device))), text_of(c.device))
            << sim::format_device(c.device);
    }
}

TEST(DeviceEntry, MalformedEntriesAreRejected) {
    const char* const entries[] = {
        // Sizes are 8 to 4096 a side and 4 megapixels at most.
        "M:7x8", "M:8x7", "M:0x0", "M:4097x8", "M:8x4097", "M:4096x1025", "M:2048x2049", "M:99999x99999", "M:123456x8",
        "M:640x", "M:x480", "M:640", "M:", "M:640*480", "M:640x480x2", "M:-640x480", "M:+640x480", "M:640 x480",
        "M:640x480 @30", "M:640X480", "M:0x640",
        // Rates are 1 to 120 frames a second, in plain decimals.
        "M@0", "M@0.0", "M@.5", "M@0.99", "M@.", "M@", "M@120.5", "M@121", "M@-5", "M@abc", "M@1.2.3", "M@1e2",
        "M@30@30", "M@ 30", "M@30fps", "M@0x1E",
        // Models are 1 to 31 letters, digits, '-' or '_'.
        "", "   ", ":64x48", "@30", "QRX 100A", "QRX100A!", "QRX.100A", "QRX/100A", "Q\xC3\x9C", "QRX100A,QRX200AP",
        "replay:", " replay: ", "replay", "replay@30"};
    for (const char* entry : entries) {
        EXPECT_FALSE(parse_device_entry(entry).has_value()) << '"' << entry << '"';
    }
    EXPECT_FALSE(parse_device_entry(std::string(32, 'Q')).has_value());
}

TEST(DeviceList, SkipsAndReportsMalformedEntries) {
    std::vector<std::string> rejected;
    EXPECT_TRUE(sim::parse_device_list("", &rejected).empty());
    EXPECT_TRUE(sim::parse_device_list(" \t ", &rejected).empty());
    EXPECT_TRUE(rejected.empty());
    const auto devices = sim::parse_device_list("QRX100A, bad entry ,QRX200AP:64x48@10,,T100K:1x1,T110K@7", &rejected);
    ASSERT_EQ(devices.size(), 3U);
    EXPECT_EQ(devices[0].model, "QRX100A");
    EXPECT_EQ(text_of(devices[1]), text_of(DeviceConfig{"QRX200AP", 64, 48, 10.0, {}}));
    EXPECT_EQ(devices[2].model, "T110K");
    EXPECT_EQ(rejected, (std::vector<std::string>{" bad entry ", "", "T100K:1x1"}));
    rejected.clear();
    EXPECT_EQ(sim::parse_device_list("QRX100A,", &rejected).size(), 1U);
    EXPECT_EQ(rejected, std::vector<std::string>{""});
    EXPECT_EQ(sim::parse_device_list("QRX100A,QRX100A,QRX100A").size(), 3U);  // the same model more than once
}

using DeviceEnumeration = SimTest;

TEST_F(DeviceEnumeration, UnsetVariableGivesTwoDefaultDevices) {
    useDevices(nullptr, 2);
    EXPECT_EQ(mSources->front()->name(), "QRX100A");
    EXPECT_EQ(mSources->back()->name(), "QRX200AP");
    EXPECT_EQ(mSources->at(2), nullptr);
    EXPECT_EQ(mSources->find("sim:1"), mSources->at(1));
    EXPECT_EQ(mSources->find("sim:2"), nullptr);
    EXPECT_EQ(std::get<1>(get_property("sim_devices"))->getString(""), "QRX100A:640x480@30,QRX200AP:320x240@30");
}

TEST_F(DeviceEnumeration, NoneMeansNoTransportAndEmptyMeansNoDevice) {
    EXPECT_EQ(use_devices("none"), nullptr);
    EXPECT_EQ(std::get<1>(get_property("sim_devices"))->getString(""), "none");
    useDevices("", 0);
    EXPECT_TRUE(mSources->empty());
    EXPECT_EQ(mSources->front(), nullptr);
    EXPECT_EQ(mSources->back(), nullptr);
    EXPECT_EQ(create_camera(nullptr), nullptr);
}

TEST_F(DeviceEnumeration, CustomListNumbersGoodEntriesAndLogsBadOnes) {
    testing::internal::CaptureStdout();
    mSources = use_devices("T100K:64x48@15, QRX100A:9x9x9 ,QRX200AP@60,garbage!");
    const std::string log = testing::internal::GetCapturedStdout();
    EXPECT_NE(log.find("\rE/"), std::string::npos) << log;
    EXPECT_NE(log.find("QRX100A:9x9x9"), std::string::npos) << log;
    ASSERT_EQ(mSources->size(), 2U);
    EXPECT_EQ(mSources->at(0)->name(), "T100K");
    EXPECT_EQ(mSources->at(1)->name(), "QRX200AP");
    EXPECT_EQ(mSources->at(1)->uri(), "sim:1");

    const auto camera = open(1);
    EXPECT_DOUBLE_EQ(std::get<1>(camera->getProperty("framerate"))->getDouble(), 60.0);
    EXPECT_EQ(std::get<1>(camera->getProperty("width"))->getInt32(), 320);
    // The device list cannot be swapped under an open camera.
    EXPECT_EQ(sim::reset_devices(), RESULT_USING_RESOURCES);
    EXPECT_EQ(destroy_camera(camera), RESULT_SUCCESS);
}

TEST_F(DeviceEnumeration, SerialNumbersAreUniqueAndDependOnlyOnModelAndNumber) {
    useDevices("QRX100A,QRX100A,QRX200AP,T100K,QRX100A:64x48@5", 5);
    const auto first = mSources;
    std::set<std::string> serials;
    for (std::size_t i = 0; i < first->size(); ++i)
        serials.insert(first->at(i)->serialNumber());
    EXPECT_EQ(serials.size(), 5U);
    EXPECT_EQ(serials.count(""), 0U);

    // Reading the list again, or a list that differs elsewhere, names each device the same.
    useDevices("QRX100A,QRX100A,T100K,T100K,QRX100A", 5);
    EXPECT_NE(mSources->at(0), first->at(0));
    for (const std::size_t i : {0U, 1U, 3U, 4U}) {
        EXPECT_EQ(mSources->at(i)->serialNumber(), first->at(i)->serialNumber()) << i;
    }
    EXPECT_NE(mSources->at(2)->serialNumber(), first->at(2)->serialNumber());
    const auto camera = open(3);
    EXPECT_EQ(std::get<1>(camera->getProperty("serial_number"))->getString(""), mSources->at(3)->serialNumber());
    EXPECT_EQ(std::get<1>(camera->getProperty("model"))->getString(""), "T100K");
    EXPECT_EQ(destroy_camera(camera), RESULT_SUCCESS);
}

}  // namespace
}  // namespace halden::sensor::test
