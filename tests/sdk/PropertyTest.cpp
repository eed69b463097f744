// Properties and collections, the library's own keys and a camera's keys.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include <halden/sensor/Lumora.h>
#include <halden/sensor/sim/SimControl.h>

namespace {

using namespace halden::sensor;

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

TEST(PropertyValue, MadePropertiesHoldTheirTypedValue) {
    const auto number = make_property_32s("count", -7);
    EXPECT_EQ(number->key(), "count");
    EXPECT_EQ(number->dataType(), DATA_TYPE_INT32);
    EXPECT_EQ(number->size(), sizeof(std::int32_t));
    std::int32_t raw = 0;
    std::memcpy(&raw, number->data(), sizeof raw);
    EXPECT_EQ(raw, -7);
    EXPECT_EQ(number->getInt32(), -7);
    EXPECT_EQ(number->toString(), "-7");
    EXPECT_FALSE(number->isReadOnly());
    // Getters of another type give the caller's default.
    EXPECT_DOUBLE_EQ(number->getDouble(1.5), 1.5);
    EXPECT_EQ(number->getString("none"), "none");
    EXPECT_TRUE(number->getBool(true));
    EXPECT_EQ(number->getUInt32(9U), 9U);
    EXPECT_TRUE(number->getBytes().empty());

    const auto real = make_property_64f("rate", 2.5);
    EXPECT_EQ(real->dataType(), DATA_TYPE_FLOAT64);
    EXPECT_EQ(real->size(), sizeof(double));
    EXPECT_DOUBLE_EQ(real->getDouble(), 2.5);
    EXPECT_DOUBLE_EQ(std::strtod(real->toString().c_str(), nullptr), 2.5);
    EXPECT_EQ(real->getInt32(3), 3);

    const auto flag = make_property_bool("on", true);
    EXPECT_EQ(flag->dataType(), DATA_TYPE_BOOL);
    EXPECT_TRUE(flag->getBool());
    EXPECT_EQ(flag->toString(), "1");
    EXPECT_EQ(make_property_bool("off", false)->toString(), "0");

    const auto text = make_property_string("name", "hello");
    EXPECT_EQ(text->dataType(), DATA_TYPE_STRING);
    EXPECT_EQ(text->size(), 5U);
    EXPECT_EQ(std::string(static_cast<const char*>(text->data()), text->size()), "hello");
    EXPECT_EQ(text->toString(), "hello");
    EXPECT_EQ(text->getInt32(4), 4);
    EXPECT_EQ(make_property_string("empty", "")->size(), 0U);

    const std::vector<std::uint8_t> bytes = {0, 1, 2, 0xFF};
    const auto block = sim::make_property_bytes("block", bytes);
    EXPECT_EQ(block->dataType(), DATA_TYPE_BYTES);
    EXPECT_EQ(block->size(), bytes.size());
    EXPECT_EQ(block->getBytes(), bytes);
    EXPECT_EQ(std::memcmp(block->data(), bytes.data(), bytes.size()), 0);
    EXPECT_TRUE(sim::make_property_bytes("nothing", {})->getBytes().empty());

    for (const auto& original : {number, real, flag, text, block}) {
        const auto copy = original->clone();
        ASSERT_NE(copy, nullptr);
        EXPECT_NE(copy.get(), original.get());
        EXPECT_EQ(copy->key(), original->key());
        EXPECT_EQ(copy->dataType(), original->dataType());
        EXPECT_EQ(copy->isReadOnly(), original->isReadOnly());
        ASSERT_EQ(copy->size(), original->size());
        EXPECT_NE(copy->data(), original->data());
        EXPECT_EQ(std::memcmp(copy->data(), original->data(), copy->size()), 0) << original->key();
    }
}

TEST(PropertyCollection, KeepsDistinctKeysInOrder) {
    const auto collection = make_properties("bundle");
    EXPECT_EQ(collection->name(), "bundle");
    EXPECT_EQ(collection->size(), 0U);
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
    EXPECT_EQ(collection->find("b")->getString(""), "two");
    EXPECT_EQ(collection->find("c"), nullptr);
}

TEST(LibraryProperties, LogLevelRoundTripsWithinItsRange) {
    const Log::LogLevel before = Log::getLogLevel();
    for (int level = Log::LOG_NONE; level <= Log::LOG_DEBUG; ++level) {
        ASSERT_EQ(set_property(make_property_32s("log_level", level)), RESULT_SUCCESS) << level;
        const auto [result, property] = get_property("log_level");
        ASSERT_EQ(result, RESULT_SUCCESS);
        EXPECT_EQ(property->getInt32(), level);
        EXPECT_EQ(Log::getLogLevel(), level);
    }
    EXPECT_EQ(set_property(make_property_32s("log_level", 5)), RESULT_OUT_OF_RANGE);
    EXPECT_EQ(set_property(make_property_32s("log_level", -1)), RESULT_OUT_OF_RANGE);
    EXPECT_EQ(set_property(make_property_string("log_level", "2")), RESULT_INVALID_PARAMETER);
    EXPECT_EQ(set_property(make_property_64f("log_level", 2.5)), RESULT_INVALID_PARAMETER);
    EXPECT_EQ(set_property(make_property_bool("log_level", true)), RESULT_INVALID_PARAMETER);
    EXPECT_EQ(Log::getLogLevel(), Log::LOG_DEBUG);
    Log::setLogLevel(before);
}

TEST(LibraryProperties, SimulationKeysAndUnknownKeys) {
    // NOLINTNEXTLINE(concurrency-mt-unsafe): no library thread reads the environment
    unsetenv("LUMORA_SIM_DEVICES");
    ASSERT_EQ(sim::reset_devices(), RESULT_SUCCESS);
    const auto [result, devices] = get_property("sim_devices");
    ASSERT_EQ(result, RESULT_SUCCESS);
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

    // With no camera open, camera keys are nobody's.
    EXPECT_EQ(set_property(make_property_32s("no_such_key", 1)), RESULT_NOT_SUPPORTED);
    EXPECT_EQ(set_property(make_property_32s("amplitude_threshold", 20)), RESULT_NOT_SUPPORTED);
    const auto [unknown, nothing] = get_property("amplitude_threshold");
    EXPECT_EQ(unknown, RESULT_NOT_SUPPORTED);
    EXPECT_EQ(nothing, nullptr);
}

class CameraProperties : public testing::Test {
protected:
    void SetUp() override {
        // NOLINTNEXTLINE(concurrency-mt-unsafe): no library thread reads the environment
        setenv("LUMORA_SIM_DEVICES", "QRX100A:64x48@30,QRX200AP:32x24@30", 1);
        ASSERT_EQ(sim::reset_devices(), RESULT_SUCCESS);
        mSources = search_camera_source();
        ASSERT_NE(mSources, nullptr);
        ASSERT_EQ(mSources->size(), 2U);
    }
    void TearDown() override { EXPECT_EQ(sim::reset_devices(), RESULT_SUCCESS) << "a camera was left open"; }

    std::shared_ptr<LumoraSourceList> mSources;
};

TEST_F(CameraProperties, WritableKeysRoundTrip) {
    const auto camera = create_camera(mSources->at(0));
    ASSERT_NE(camera, nullptr);

    EXPECT_EQ(camera->setProperty(make_property_32s("amplitude_threshold", 123)), RESULT_SUCCESS);
    EXPECT_EQ(read(camera, "amplitude_threshold")->getInt32(), 123);
    EXPECT_EQ(camera->setProperty(make_property_64f("framerate", 12.5)), RESULT_SUCCESS);
    EXPECT_DOUBLE_EQ(read(camera, "framerate")->getDouble(), 12.5);
    EXPECT_EQ(camera->setProperty(make_property_32s("framerate", 60)), RESULT_SUCCESS);
    EXPECT_DOUBLE_EQ(read(camera, "framerate")->getDouble(), 60.0);
    EXPECT_EQ(camera->setProperty(make_property_32s("depth_range_max", 3000)), RESULT_SUCCESS);
    EXPECT_EQ(camera->setProperty(make_property_64f("depth_range_min", 300.0)), RESULT_SUCCESS);
    EXPECT_EQ(read(camera, "depth_range_min")->getInt32(), 300);
    EXPECT_EQ(read(camera, "depth_range_max")->getInt32(), 3000);
    EXPECT_EQ(camera->setProperty(make_property_bool("illumination", false)), RESULT_SUCCESS);
    EXPECT_FALSE(read(camera, "illumination")->getBool(true));
    EXPECT_EQ(camera->setProperty(make_property_string("illumination", "on")), RESULT_SUCCESS);
    EXPECT_TRUE(read(camera, "illumination")->getBool(false));
    EXPECT_EQ(camera->setProperty(make_property_32s("embedded_data_line", 1)), RESULT_SUCCESS);
    EXPECT_TRUE(read(camera, "embedded_data_line")->getBool(false));
    EXPECT_EQ(camera->setProperty(make_property_string("embedded_data_line", "false")), RESULT_SUCCESS);
    EXPECT_FALSE(read(camera, "embedded_data_line")->getBool(true));
    for (const int type : {DATA_TYPE_FLOAT32, DATA_TYPE_UINT16}) {
        EXPECT_EQ(camera->setProperty(make_property_32s("depth_data_type", type)), RESULT_SUCCESS);
        EXPECT_EQ(read(camera, "depth_data_type")->getInt32(), type);
        EXPECT_EQ(camera->setProperty(make_property_32s("pointcloud_data_type", type)), RESULT_SUCCESS);
        EXPECT_EQ(read(camera, "pointcloud_data_type")->getInt32(), type);
    }
    for (const char* key : {"amplitude_threshold", "framerate", "depth_range_min", "depth_range_max", "illumination",
                            "embedded_data_line", "depth_data_type", "pointcloud_data_type"}) {
        EXPECT_FALSE(read(camera, key)->isReadOnly()) << key;
    }

    EXPECT_EQ(read(camera, "model")->getString(""), "QRX100A");
    EXPECT_EQ(read(camera, "serial_number")->getString(""), mSources->at(0)->serialNumber());
    EXPECT_EQ(read(camera, "width")->getInt32(), 64);
    EXPECT_EQ(read(camera, "height")->getInt32(), 48);
    const float temperature = read(camera, "temperature")->getFloat(-1000.0F);
    EXPECT_GT(temperature, 0.0F);
    EXPECT_LT(temperature, 100.0F);
    EXPECT_GT(read(camera, "fw_version")->getInt32(), 0);
    for (const char* key : {"model", "serial_number", "width", "height", "temperature", "fw_version"}) {
        EXPECT_TRUE(read(camera, key)->isReadOnly()) << key;
    }
    EXPECT_EQ(destroy_camera(camera), RESULT_SUCCESS);
}

TEST_F(CameraProperties, RejectedValuesChangeNothing) {
    const auto camera = create_camera(mSources->at(0));
    ASSERT_NE(camera, nullptr);
    const auto before = settings_text(camera);
    ASSERT_EQ(before.size(), 8U);
    const int rangeMin = read(camera, "depth_range_min")->getInt32();
    const int rangeMax = read(camera, "depth_range_max")->getInt32();

    EXPECT_EQ(camera->setProperty(nullptr), RESULT_INVALID_PARAMETER);
    EXPECT_EQ(camera->setProperty(make_property_32s("no_such_key", 1)), RESULT_NOT_SUPPORTED);
    EXPECT_EQ(std::get<0>(camera->getProperty("no_such_key")), RESULT_NOT_SUPPORTED);

    const struct {
        std::shared_ptr<LumoraProperty> property;
        Result expected;
    } rejected[] = {
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
    };
    for (const auto& entry : rejected) {
        EXPECT_EQ(camera->setProperty(entry.property), entry.expected)
            << entry.property->key() << " = " << entry.property->toString();
    }
    EXPECT_EQ(settings_text(camera), before);
    EXPECT_EQ(read(camera, "width")->getInt32(), 64);
    EXPECT_EQ(destroy_camera(camera), RESULT_SUCCESS);
}

TEST_F(CameraProperties, SetPropertiesIsAllOrNothing) {
    const auto camera = create_camera(mSources->at(0));
    ASSERT_NE(camera, nullptr);
    const auto before = settings_text(camera);
    const int rangeMax = read(camera, "depth_range_max")->getInt32();

    const auto withReadOnly = make_properties("batch");
    withReadOnly->add(make_property_32s("amplitude_threshold", 50));
    withReadOnly->add(make_property_64f("framerate", 10.0));
    withReadOnly->add(make_property_32s("width", 10));
    EXPECT_EQ(camera->setProperties(withReadOnly), RESULT_INVALID_OPERATION);

    const auto crossedRange = make_properties("batch");
    crossedRange->add(make_property_32s("amplitude_threshold", 50));
    crossedRange->add(make_property_32s("depth_range_min", rangeMax));
    EXPECT_EQ(camera->setProperties(crossedRange), RESULT_OUT_OF_RANGE);

    const auto unknownLast = make_properties("batch");
    unknownLast->add(make_property_bool("illumination", false));
    unknownLast->add(make_property_32s("no_such_key", 1));
    EXPECT_EQ(camera->setProperties(unknownLast), RESULT_NOT_SUPPORTED);

    EXPECT_EQ(camera->setProperties(nullptr), RESULT_INVALID_PARAMETER);
    EXPECT_EQ(settings_text(camera), before);
    EXPECT_EQ(camera->setProperties(make_properties("empty")), RESULT_SUCCESS);

    // The range is checked as a whole: moving both bounds past the old maximum is one valid change,
    // although moving the minimum first would not be.
    const auto moveRange = make_properties("batch");
    moveRange->add(make_property_32s("depth_range_min", rangeMax + 1000));
    moveRange->add(make_property_32s("depth_range_max", rangeMax + 2000));
    moveRange->add(make_property_32s("amplitude_threshold", 50));
    EXPECT_EQ(camera->setProperties(moveRange), RESULT_SUCCESS);
    EXPECT_EQ(read(camera, "depth_range_min")->getInt32(), rangeMax + 1000);
    EXPECT_EQ(read(camera, "depth_range_max")->getInt32(), rangeMax + 2000);
    EXPECT_EQ(read(camera, "amplitude_threshold")->getInt32(), 50);
    EXPECT_EQ(destroy_camera(camera), RESULT_SUCCESS);
}

TEST_F(CameraProperties, NamedCollectionsMirrorSingleKeys) {
    const auto camera = create_camera(mSources->at(1));
    ASSERT_NE(camera, nullptr);

    const auto [fwResult, firmware] = camera->getProperties("fw_info");
    ASSERT_EQ(fwResult, RESULT_SUCCESS);
    EXPECT_EQ(firmware->name(), "fw_info");
    const auto version = firmware->find("fw_version");
    ASSERT_NE(version, nullptr);
    EXPECT_EQ(version->dataType(), DATA_TYPE_INT32);
    EXPECT_EQ(version->getInt32(), read(camera, "fw_version")->getInt32());

    for (const char* name : {"settings", "device_info"}) {
        const auto [result, collection] = camera->getProperties(name);
        ASSERT_EQ(result, RESULT_SUCCESS) << name;
        EXPECT_EQ(collection->name(), name);
        EXPECT_GE(collection->size(), 4U);
        for (std::size_t i = 0; i < collection->size(); ++i) {
            const auto item = collection->at(i);
            ASSERT_NE(item, nullptr);
            if (item->key() == "temperature") continue;  // it drifts between two readings
            EXPECT_EQ(item->toString(), read(camera, item->key())->toString()) << item->key();
        }
    }
    EXPECT_EQ(std::get<1>(camera->getProperties("device_info"))->find("model")->getString(""), "QRX200AP");
    const auto [unknown, nothing] = camera->getProperties("no_such_collection");
    EXPECT_EQ(unknown, RESULT_NOT_SUPPORTED);
    EXPECT_EQ(nothing, nullptr);
    EXPECT_EQ(destroy_camera(camera), RESULT_SUCCESS);
}

TEST_F(CameraProperties, FreeFunctionsActOnTheLastCreatedOpenCamera) {
    const auto first = create_camera(mSources->at(0));
    ASSERT_NE(first, nullptr);
    const int firstThreshold = read(first, "amplitude_threshold")->getInt32();
    EXPECT_EQ(set_property(make_property_32s("amplitude_threshold", firstThreshold + 5)), RESULT_SUCCESS);
    EXPECT_EQ(read(first, "amplitude_threshold")->getInt32(), firstThreshold + 5);

    const auto second = create_camera(mSources->at(1));
    ASSERT_NE(second, nullptr);
    const int secondThreshold = read(second, "amplitude_threshold")->getInt32();
    EXPECT_EQ(set_property(make_property_32s("amplitude_threshold", secondThreshold + 40)), RESULT_SUCCESS);
    EXPECT_EQ(read(second, "amplitude_threshold")->getInt32(), secondThreshold + 40);
    EXPECT_EQ(read(first, "amplitude_threshold")->getInt32(), firstThreshold + 5);
    const auto [result, model] = get_property("model");
    ASSERT_EQ(result, RESULT_SUCCESS);
    EXPECT_EQ(model->getString(""), "QRX200AP");
    EXPECT_EQ(std::get<1>(get_property("amplitude_threshold"))->getInt32(), secondThreshold + 40);

    EXPECT_EQ(set_property(make_property_32s("width", 10)), RESULT_INVALID_OPERATION);
    EXPECT_EQ(set_property(make_property_string("amplitude_threshold", "x")), RESULT_INVALID_PARAMETER);
    EXPECT_EQ(set_property(make_property_32s("amplitude_threshold", 70000)), RESULT_OUT_OF_RANGE);
    EXPECT_EQ(set_property(make_property_32s("no_such_key", 1)), RESULT_NOT_SUPPORTED);
    EXPECT_EQ(std::get<0>(get_property("no_such_key")), RESULT_NOT_SUPPORTED);

    EXPECT_EQ(destroy_camera(second), RESULT_SUCCESS);
    EXPECT_EQ(destroy_camera(first), RESULT_SUCCESS);
    EXPECT_EQ(set_property(make_property_32s("amplitude_threshold", 30)), RESULT_NOT_SUPPORTED);
    EXPECT_EQ(std::get<0>(get_property("model")), RESULT_NOT_SUPPORTED);
}

}  // namespace
