// Properties and collections, the library's own keys and a camera's keys.
#include <cstring>

#include "SimTestSupport.h"

namespace halden::sensor::test {
namespace {

std::shared_ptr<LumoraProperty> read(const std::shared_ptr<LumoraCamera>& camera, const std::string& key) {
    auto [result, property] = camera->getProperty(key);
    EXPECT_EQ(result, RESULT_SUCCESS) << key;
    return property;
}

// Every writable setting as text, to see that a rejected change left all of them alone.
std::vector<std::string> settings_text(const std::shared_ptr<LumoraCamera>& camera) {
    auto [result, settings] = camera->getProperties("settings");
    EXPECT_EQ(result, RESULT_SUCCESS);
    std::vector<std::string> text;
    for (std::size_t i = 0; settings && i < settings->size(); ++i) {
        text.push_back(settings->at(i)->key() + "=" + settings->at(i)->toString());
    }
    return text;
}

// (Numbers and flags as a camera reads them back, and clones of byte blocks, are
// CameraProperties' and CopyFrameList's.)
TEST(PropertyValue, TextAndBytesHoldTheirValueAndOtherTypesGiveTheDefault) {
    EXPECT_DOUBLE_EQ(make_property_32s("count", -7)->getDouble(1.5), 1.5);
    EXPECT_EQ(make_property_bool("on", true)->getInt32(3), 3);
    const auto text = make_property_string("name", "hello");
    EXPECT_EQ(text->dataType(), DATA_TYPE_STRING);
    EXPECT_EQ(std::string(static_cast<const char*>(text->data()), text->size()), "hello");
    EXPECT_EQ(text->toString(), "hello");
    const std::vector<std::uint8_t> bytes = {0, 1, 2, 0xFF};
    const auto block = sim::make_property_bytes("block", bytes);
    EXPECT_EQ(block->dataType(), DATA_TYPE_BYTES);
    EXPECT_EQ(block->getBytes(), bytes);
    ASSERT_EQ(block->size(), bytes.size());
    EXPECT_EQ(std::memcmp(block->data(), bytes.data(), bytes.size()), 0);
    const auto copy = text->clone();
    EXPECT_NE(copy->data(), text->data());
    EXPECT_EQ(copy->getString(""), "hello");
}

TEST(PropertyCollection, KeepsDistinctKeysInOrder) {
    const auto collection = make_properties("bundle");
    EXPECT_EQ(collection->name(), "bundle");
    EXPECT_EQ(collection->at(0), nullptr);
    EXPECT_EQ(collection->add(nullptr), RESULT_INVALID_PARAMETER);
    const auto first = make_property_32s("a", 1);
    EXPECT_EQ(collection->add(first), RESULT_SUCCESS);
    EXPECT_EQ(collection->add(make_property_string("b", "two")), RESULT_SUCCESS);
    EXPECT_EQ(collection->add(make_property_32s("a", 3)), RESULT_ALREADY_EXISTS);
    ASSERT_EQ(collection->size(), 2U);
    EXPECT_EQ(collection->at(0), first);
    EXPECT_EQ(collection->at(1)->key(), "b");
    EXPECT_EQ(collection->at(2), nullptr);
    EXPECT_EQ(collection->find("a")->getInt32(), 1);
    EXPECT_EQ(collection->find("c"), nullptr);
}

TEST(LibraryProperties, LibraryKeysTakeOnlyValuesOfTheirType) {
    const Log::LogLevel before = Log::getLogLevel();
    for (int level = Log::LOG_NONE; level <= Log::LOG_DEBUG; ++level) {
        ASSERT_EQ(set_property(make_property_32s("log_level", level)), RESULT_SUCCESS) << level;
        EXPECT_EQ(std::get<1>(get_property("log_level"))->getInt32(), level);
        EXPECT_EQ(Log::getLogLevel(), level);
    }
    EXPECT_EQ(set_property(make_property_32s("log_level", 5)), RESULT_OUT_OF_RANGE);
    EXPECT_EQ(set_property(make_property_32s("log_level", -1)), RESULT_OUT_OF_RANGE);
    EXPECT_EQ(set_property(make_property_string("log_level", "2")), RESULT_INVALID_PARAMETER);
    EXPECT_EQ(set_property(make_property_64f("log_level", 2.5)), RESULT_INVALID_PARAMETER);
    EXPECT_EQ(set_property(make_property_bool("log_level", true)), RESULT_INVALID_PARAMETER);
    EXPECT_EQ(Log::getLogLevel(), Log::LOG_DEBUG);
    Log::setLogLevel(before);

    use_devices(nullptr);
    const auto devices = std::get<1>(get_property("sim_devices"));
    EXPECT_EQ(devices->dataType(), DATA_TYPE_STRING);
    EXPECT_TRUE(devices->isReadOnly());
    EXPECT_EQ(set_property(make_property_string("sim_devices", "QRX100A")), RESULT_INVALID_OPERATION);
    EXPECT_EQ(std::get<1>(get_property("sim_devices"))->toString(), devices->toString());
    EXPECT_EQ(std::get<0>(get_property("sim_attach")), RESULT_INVALID_OPERATION);
    EXPECT_EQ(std::get<0>(get_property("sim_detach")), RESULT_INVALID_OPERATION);
    EXPECT_EQ(set_property(nullptr), RESULT_INVALID_PARAMETER);
    EXPECT_EQ(set_property(make_property_64f("sim_detach", 1.5)), RESULT_INVALID_PARAMETER);
    EXPECT_EQ(set_property(make_property_string("sim_detach", "sim:1")), RESULT_INVALID_PARAMETER);
    EXPECT_EQ(set_property(make_property_32s("sim_attach", 1)), RESULT_INVALID_PARAMETER);
}

class CameraProperties : public SimTest {
protected:
    void SetUp() override { useDevices("QRX100A:64x48@30,QRX200AP:32x24@30", 2); }
};

TEST_F(CameraProperties, KeysRoundTripAndNamedCollectionsMirrorThem) {
    const auto camera = open(0);
    const struct {
        std::shared_ptr<LumoraProperty> set;
        DataType type;
        const char* reads;
    } cases[] = {
        {make_property_32s("amplitude_threshold", 123), DATA_TYPE_INT32, "123"},
        {make_property_64f("framerate", 12.5), DATA_TYPE_FLOAT64, "12.500000"},
        {make_property_32s("framerate", 60), DATA_TYPE_FLOAT64, "60.000000"},
        {make_property_32s("depth_range_max", 3000), DATA_TYPE_INT32, "3000"},
        {make_property_64f("depth_range_min", 300.0), DATA_TYPE_INT32, "300"},
        {make_property_bool("illumination", false), DATA_TYPE_BOOL, "0"},
        {make_property_string("illumination", "on"), DATA_TYPE_BOOL, "1"},
        {make_property_32s("embedded_data_line", 1), DATA_TYPE_BOOL, "1"},
        {make_property_string("embedded_data_line", "false"), DATA_TYPE_BOOL, "0"},
        {make_property_32s("depth_data_type", DATA_TYPE_FLOAT32), DATA_TYPE_INT32, "8"},
        {make_property_32s("pointcloud_data_type", DATA_TYPE_UINT16), DATA_TYPE_INT32, "5"},
        {make_property_32s("depth_data_type", DATA_TYPE_UINT16), DATA_TYPE_INT32, "5"},
        {make_property_32s("pointcloud_data_type", DATA_TYPE_FLOAT32), DATA_TYPE_INT32, "8"},
        {make_property_string("sim_scene", "wall:1500:10"), DATA_TYPE_STRING, "wall:1500:10"},
        {make_property_string("sim_scene", "wall:7000.0:-79.5"), DATA_TYPE_STRING, "wall:7000.0:-79.5"},
        {make_property_string("sim_scene", "room"), DATA_TYPE_STRING, "room"},
        {make_property_64f("sim_noise", 2.5), DATA_TYPE_FLOAT64, "2.500000"},
        {make_property_32s("sim_noise", 0), DATA_TYPE_FLOAT64, "0.000000"},
        {make_property_32s("sim_loop", 300), DATA_TYPE_INT32, "300"},
        {make_property_32s("sim_loop", 0), DATA_TYPE_INT32, "0"},
    };
    for (const auto& c : cases) {
        const std::string key = c.set->key();
        EXPECT_EQ(camera->setProperty(c.set), RESULT_SUCCESS) << key;
        const auto value = read(camera, key);
        EXPECT_EQ(value->dataType(), c.type) << key;
        EXPECT_EQ(value->toString(), c.reads) << key;
    }
    EXPECT_EQ(read(camera, "model")->getString(""), "QRX100A");
    EXPECT_EQ(read(camera, "serial_number")->getString(""), mSources->at(0)->serialNumber());
    EXPECT_EQ(read(camera, "width")->getInt32(), 64);
    EXPECT_EQ(read(camera, "height")->getInt32(), 48);
    const float temperature = read(camera, "temperature")->getFloat(-1000.0F);
    EXPECT_TRUE(temperature > 0.0F && temperature < 100.0F) << temperature;
    const auto firmware = std::get<1>(camera->getProperties("fw_info"));
    ASSERT_TRUE(firmware && firmware->find("fw_version"));
    EXPECT_EQ(firmware->name(), "fw_info");
    EXPECT_GT(firmware->find("fw_version")->getInt32(), 0);
    EXPECT_EQ(firmware->find("fw_version")->getInt32(), read(camera, "fw_version")->getInt32());
    EXPECT_TRUE(read(camera, "fw_version")->isReadOnly());
    // Settings are writable and device keys read-only; both collections mirror the single keys.
    for (const std::string name : {"settings", "device_info"}) {
        const auto [result, collection] = camera->getProperties(name);
        ASSERT_EQ(result, RESULT_SUCCESS) << name;
        EXPECT_EQ(collection->name(), name);
        EXPECT_GE(collection->size(), 5U);
        for (std::size_t i = 0; i < collection->size(); ++i) {
            const auto single = read(camera, collection->at(i)->key());
            EXPECT_EQ(single->isReadOnly(), name == "device_info") << single->key();
            if (single->key() == "temperature") continue;  // it drifts between two readings
            EXPECT_EQ(collection->at(i)->toString(), single->toString()) << single->key();
        }
    }
    EXPECT_EQ(camera->getProperties("no_such_collection"), std::make_tuple(RESULT_NOT_SUPPORTED, nullptr));
    EXPECT_EQ(destroy_camera(camera), RESULT_SUCCESS);
}

TEST_F(CameraProperties, RejectedValuesChangeNothingAndCollectionsAreSetAllOrNothing) {
    const auto camera = open(0);
    const auto before = settings_text(camera);
    ASSERT_EQ(before.size(), 8U);
    const int rangeMin = read(camera, "depth_range_min")->getInt32();
    const int rangeMax = read(camera, "depth_range_max")->getInt32();
    EXPECT_EQ(camera->setProperty(nullptr), RESULT_INVALID_PARAMETER);
    EXPECT_EQ(std::get<0>(camera->getProperty("no_such_key")), RESULT_NOT_SUPPORTED);

    const struct {
        std::shared_ptr<LumoraProperty> property;
        Result expected;
    } rejected[] = {
        {make_property_32s("no_such_key", 1), RESULT_NOT_SUPPORTED},
        {make_property_string("amplitude_threshold", "20"), RESULT_INVALID_PARAMETER},
        {make_property_bool("amplitude_threshold", true), RESULT_INVALID_PARAMETER},
        {make_property_64f("amplitude_threshold", 1.5), RESULT_INVALID_PARAMETER},
        {make_property_string("illumination", "maybe"), RESULT_INVALID_PARAMETER},
        {make_property_string("framerate", "30"), RESULT_INVALID_PARAMETER},
        {make_property_bool("framerate", true), RESULT_INVALID_PARAMETER},
        {make_property_string("depth_data_type", "5"), RESULT_INVALID_PARAMETER},
        {make_property_32s("amplitude_threshold", -1), RESULT_OUT_OF_RANGE},
        {make_property_32s("amplitude_threshold", 65536), RESULT_OUT_OF_RANGE},
        {make_property_32s("framerate", 0), RESULT_OUT_OF_RANGE},
        {make_property_64f("framerate", 0.5), RESULT_OUT_OF_RANGE},
        {make_property_64f("framerate", 60.5), RESULT_OUT_OF_RANGE},
        {make_property_32s("illumination", 2), RESULT_OUT_OF_RANGE},
        {make_property_32s("depth_data_type", DATA_TYPE_UINT32), RESULT_OUT_OF_RANGE},
        {make_property_32s("pointcloud_data_type", DATA_TYPE_FLOAT64), RESULT_OUT_OF_RANGE},
        {make_property_32s("depth_range_min", -1), RESULT_OUT_OF_RANGE},
        {make_property_32s("depth_range_min", rangeMax), RESULT_OUT_OF_RANGE},
        {make_property_32s("depth_range_max", rangeMin), RESULT_OUT_OF_RANGE},
        {make_property_32s("depth_range_max", rangeMin - 1), RESULT_OUT_OF_RANGE},
        {make_property_string("model", "QRX999"), RESULT_INVALID_OPERATION},
        {make_property_string("serial_number", "LM0"), RESULT_INVALID_OPERATION},
        {make_property_32s("width", 32), RESULT_INVALID_OPERATION},
        {make_property_32s("height", 32), RESULT_INVALID_OPERATION},
        {make_property_64f("temperature", 20.0), RESULT_INVALID_OPERATION},
        {make_property_32s("fw_version", 1), RESULT_INVALID_OPERATION},
        {make_property_32s("sim_scene", 1500), RESULT_INVALID_PARAMETER},
        {make_property_string("sim_scene", "wall"), RESULT_INVALID_PARAMETER},
        {make_property_string("sim_scene", "Wall:1500"), RESULT_INVALID_PARAMETER},
        {make_property_string("sim_scene", "wall:"), RESULT_INVALID_PARAMETER},
        {make_property_string("sim_scene", "wall: 1500"), RESULT_INVALID_PARAMETER},
        {make_property_string("sim_scene", "wall:1e3"), RESULT_INVALID_PARAMETER},
        {make_property_string("sim_scene", "wall:1500:"), RESULT_INVALID_PARAMETER},
        {make_property_string("sim_scene", "wall:1500:10:5"), RESULT_INVALID_PARAMETER},
        {make_property_string("sim_scene", "wall:1500:1." + std::string(30, '0')), RESULT_INVALID_PARAMETER},
        {make_property_string("sim_scene", "wall:99.5"), RESULT_OUT_OF_RANGE},
        {make_property_string("sim_scene", "wall:7000.5"), RESULT_OUT_OF_RANGE},
        {make_property_string("sim_scene", "wall:1500:80"), RESULT_OUT_OF_RANGE},
        {make_property_string("sim_scene", "wall:1500:-80"), RESULT_OUT_OF_RANGE},
        {make_property_string("sim_noise", "5"), RESULT_INVALID_PARAMETER},
        {make_property_bool("sim_noise", true), RESULT_INVALID_PARAMETER},
        {make_property_64f("sim_noise", -0.5), RESULT_OUT_OF_RANGE},
        {make_property_64f("sim_noise", 1000.5), RESULT_OUT_OF_RANGE},
        {make_property_64f("sim_loop", 1.5), RESULT_INVALID_PARAMETER},
        {make_property_32s("sim_loop", -1), RESULT_OUT_OF_RANGE},
        {make_property_32s("sim_loop", 301), RESULT_OUT_OF_RANGE},
    };
    for (const auto& entry : rejected) {
        EXPECT_EQ(camera->setProperty(entry.property), entry.expected)
            << entry.property->key() << " = " << entry.property->toString();
    }
    const auto batch = [](std::initializer_list<std::shared_ptr<LumoraProperty>> properties) {
        auto collection = make_properties("batch");
        for (const auto& property : properties)
            collection->add(property);
        return collection;
    };
    EXPECT_EQ(camera->setProperties(batch({make_property_32s("amplitude_threshold", 50),
                                           make_property_64f("framerate", 10.0), make_property_32s("width", 10)})),
              RESULT_INVALID_OPERATION);
    EXPECT_EQ(camera->setProperties(batch(
                  {make_property_32s("amplitude_threshold", 50), make_property_32s("depth_range_min", rangeMax)})),
              RESULT_OUT_OF_RANGE);
    EXPECT_EQ(
        camera->setProperties(batch({make_property_bool("illumination", false), make_property_32s("no_such_key", 1)})),
        RESULT_NOT_SUPPORTED);
    EXPECT_EQ(camera->setProperties(nullptr), RESULT_INVALID_PARAMETER);
    EXPECT_EQ(settings_text(camera), before);
    EXPECT_EQ(read(camera, "width")->getInt32(), 64);
    EXPECT_EQ(read(camera, "sim_scene")->toString(), "room");
    EXPECT_EQ(read(camera, "sim_noise")->getDouble(-1.0), 0.0);
    EXPECT_EQ(read(camera, "sim_loop")->getInt32(-1), 0);
    EXPECT_EQ(camera->setProperties(make_properties("empty")), RESULT_SUCCESS);

    // The range is checked as a whole: moving both bounds past the old maximum is one valid change,
    // although moving the minimum first would not be.
    EXPECT_EQ(camera->setProperties(batch({make_property_32s("depth_range_min", rangeMax + 1000),
                                           make_property_32s("depth_range_max", rangeMax + 2000),
                                           make_property_32s("amplitude_threshold", 50)})),
              RESULT_SUCCESS);
    EXPECT_EQ(read(camera, "depth_range_min")->getInt32(), rangeMax + 1000);
    EXPECT_EQ(read(camera, "depth_range_max")->getInt32(), rangeMax + 2000);
    EXPECT_EQ(read(camera, "amplitude_threshold")->getInt32(), 50);
    EXPECT_EQ(destroy_camera(camera), RESULT_SUCCESS);
}

TEST_F(CameraProperties, FreeFunctionsActOnTheLastCreatedOpenCamera) {
    const auto first = open(0);
    const auto second = open(1);
    const int threshold = read(first, "amplitude_threshold")->getInt32();
    EXPECT_EQ(set_property(make_property_32s("amplitude_threshold", threshold + 40)), RESULT_SUCCESS);
    EXPECT_EQ(read(second, "amplitude_threshold")->getInt32(), threshold + 40);
    EXPECT_EQ(read(first, "amplitude_threshold")->getInt32(), threshold);
    EXPECT_EQ(std::get<1>(get_property("model"))->getString(""), "QRX200AP");
    EXPECT_EQ(std::get<1>(get_property("amplitude_threshold"))->getInt32(), threshold + 40);
    // The camera's refusals come through unchanged (more of them through the shell's "set":
    // tests/e2e/commands.sh).
    EXPECT_EQ(set_property(make_property_32s("amplitude_threshold", 70000)), RESULT_OUT_OF_RANGE);

    EXPECT_EQ(destroy_camera(second), RESULT_SUCCESS);
    EXPECT_EQ(destroy_camera(first), RESULT_SUCCESS);
    // With no camera open, camera keys are nobody's.
    EXPECT_EQ(set_property(make_property_32s("amplitude_threshold", 30)), RESULT_NOT_SUPPORTED);
    EXPECT_EQ(get_property("model"), std::make_tuple(RESULT_NOT_SUPPORTED, nullptr));
}

}  // namespace
}  // namespace halden::sensor::test
