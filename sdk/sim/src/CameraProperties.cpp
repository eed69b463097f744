#include "CameraProperties.h"

#include <algorithm>
#include <cctype>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "SimProperty.h"

namespace halden::sensor::sim {

namespace {

// Where a key is reached: singly by its name, and in which named collections.
enum Reach : unsigned { kSingle = 1U, kSettings = 2U, kDeviceInfo = 4U, kFirmwareInfo = 8U };

// A value as read: a number, whatever the key's type, or a text.
struct Reading {
    Reading(double value) : number(value) {}
    Reading(std::string value) : text(std::move(value)) {}
    double number = 0.0;
    std::string text;
};

using Reader = Reading (*)(const CameraFacts& facts);
using Writer = Result (*)(const LumoraProperty& property, const DeviceConfig& device, SceneSettings& settings);

struct CameraKey {
    const char* key;
    DataType type;  // of the value read
    unsigned reach;
    Reader read;
    Writer write;  // null for a read-only key
};

Result write_flag(const LumoraProperty& property, bool& out) {
    if (property.dataType() == DATA_TYPE_STRING) {
        const std::string text = property.getString("");
        if (text == "on" || text == "true") {
            out = true;
        } else if (text == "off" || text == "false") {
            out = false;
        } else {
            return RESULT_INVALID_PARAMETER;
        }
        return RESULT_SUCCESS;
    }
    double value = 0.0;
    if (!numeric_value(&property, value)) return RESULT_INVALID_PARAMETER;
    if (value != 0.0 && value != 1.0) return RESULT_OUT_OF_RANGE;
    out = value == 1.0;
    return RESULT_SUCCESS;
}

Result write_data_type(const LumoraProperty& property, DataType& out) {
    int code = 0;
    const Result result = integer_value(property, 0, 13, code);
    if (result != RESULT_SUCCESS) return result;
    if (code != DATA_TYPE_UINT16 && code != DATA_TYPE_FLOAT32) return RESULT_OUT_OF_RANGE;
    out = static_cast<DataType>(code);
    return RESULT_SUCCESS;
}

Result write_framerate(const LumoraProperty& property, const DeviceConfig& device, SceneSettings& settings) {
    double fps = 0.0;
    if (property.dataType() == DATA_TYPE_BOOL || !numeric_value(&property, fps)) return RESULT_INVALID_PARAMETER;
    if (fps < 1.0 || fps > std::max(60.0, device.fps)) return RESULT_OUT_OF_RANGE;
    settings.fps = fps;
    return RESULT_SUCCESS;
}

// A decimal number such as "1500", "-12.5" or "+3.": a sign, digits, a point, digits.
bool parse_decimal(const std::string& text, double& out) {
    std::size_t i = text.empty() || (text[0] != '+' && text[0] != '-') ? 0 : 1;
    std::size_t digits = 0;
    bool point = false;
    for (; i < text.size(); ++i) {
        if (text[i] == '.' && !point) {
            point = true;
        } else if (std::isdigit(static_cast<unsigned char>(text[i])) != 0) {
            ++digits;
        } else {
            return false;
        }
    }
    if (digits == 0) return false;
    out = std::strtod(text.c_str(), nullptr);
    return true;
}

// "room", or "wall:DISTANCE_MM[:ANGLE_DEG]": the wall 100 mm to the model's range away,
// turned less than 80 degrees.
Result write_scene(const LumoraProperty& property, const DeviceConfig& device, SceneSettings& settings) {
    if (property.dataType() != DATA_TYPE_STRING) return RESULT_INVALID_PARAMETER;
    const std::string text = property.getString("");
    if (text.size() >= SceneChoice::kTextSize) return RESULT_INVALID_PARAMETER;
    SceneChoice choice;
    if (text != "room") {
        constexpr char kWall[] = "wall:";
        if (text.compare(0, sizeof kWall - 1, kWall) != 0) return RESULT_INVALID_PARAMETER;
        const std::string numbers = text.substr(sizeof kWall - 1);
        const auto colon = numbers.find(':');
        if (!parse_decimal(numbers.substr(0, colon), choice.distance) ||
            (colon != std::string::npos && !parse_decimal(numbers.substr(colon + 1), choice.angle))) {
            return RESULT_INVALID_PARAMETER;
        }
        if (choice.distance < 100.0 || choice.distance > model_info(device.model).rangeMax ||
            std::fabs(choice.angle) >= 80.0) {
            return RESULT_OUT_OF_RANGE;
        }
        choice.wall = true;
    }
    choice.text = {};
    std::memcpy(choice.text.data(), text.data(), text.size());
    settings.scene = choice;
    return RESULT_SUCCESS;
}

Result write_noise(const LumoraProperty& property, const DeviceConfig& /*device*/, SceneSettings& settings) {
    double sigma = 0.0;
    if (property.dataType() == DATA_TYPE_BOOL || !numeric_value(&property, sigma)) return RESULT_INVALID_PARAMETER;
    if (!(sigma >= 0.0 && sigma <= 1000.0)) return RESULT_OUT_OF_RANGE;  // NaN too
    settings.noise = sigma;
    return RESULT_SUCCESS;
}

// In the order the collections list them; the simulation's own keys are reached singly.
const CameraKey kCameraKeys[] = {
    {"amplitude_threshold", DATA_TYPE_INT32, kSingle | kSettings,
     [](const CameraFacts& f) -> Reading { return f.settings.amplitudeThreshold; },
     [](const LumoraProperty& p, const DeviceConfig&, SceneSettings& s) {
         return integer_value(p, 0, 65535, s.amplitudeThreshold);
     }},
    {"framerate", DATA_TYPE_FLOAT64, kSingle | kSettings,
     [](const CameraFacts& f) -> Reading { return f.settings.fps; }, write_framerate},
    {"depth_range_min", DATA_TYPE_INT32, kSingle | kSettings,
     [](const CameraFacts& f) -> Reading { return f.settings.rangeMin; },
     [](const LumoraProperty& p, const DeviceConfig&, SceneSettings& s) {
         return integer_value(p, 0, 65535, s.rangeMin);
     }},
    {"depth_range_max", DATA_TYPE_INT32, kSingle | kSettings,
     [](const CameraFacts& f) -> Reading { return f.settings.rangeMax; },
     [](const LumoraProperty& p, const DeviceConfig&, SceneSettings& s) {
         return integer_value(p, 0, 65535, s.rangeMax);
     }},
    {"illumination", DATA_TYPE_BOOL, kSingle | kSettings,
     [](const CameraFacts& f) -> Reading { return f.settings.illumination; },
     [](const LumoraProperty& p, const DeviceConfig&, SceneSettings& s) { return write_flag(p, s.illumination); }},
    {"embedded_data_line", DATA_TYPE_BOOL, kSingle | kSettings,
     [](const CameraFacts& f) -> Reading { return f.settings.embeddedDataLine; },
     [](const LumoraProperty& p, const DeviceConfig&, SceneSettings& s) { return write_flag(p, s.embeddedDataLine); }},
    {"depth_data_type", DATA_TYPE_INT32, kSingle | kSettings,
     [](const CameraFacts& f) -> Reading { return f.settings.basicDataType; },
     [](const LumoraProperty& p, const DeviceConfig&, SceneSettings& s) {
         return write_data_type(p, s.basicDataType);
     }},
    {"pointcloud_data_type", DATA_TYPE_INT32, kSingle | kSettings,
     [](const CameraFacts& f) -> Reading { return f.settings.pointCloudDataType; },
     [](const LumoraProperty& p, const DeviceConfig&, SceneSettings& s) {
         return write_data_type(p, s.pointCloudDataType);
     }},
    {"sim_scene", DATA_TYPE_STRING, kSingle,
     [](const CameraFacts& f) -> Reading { return std::string(f.settings.scene.text.data()); }, write_scene},
    {"sim_noise", DATA_TYPE_FLOAT64, kSingle, [](const CameraFacts& f) -> Reading { return f.settings.noise; },
     write_noise},
    {"sim_loop", DATA_TYPE_INT32, kSingle, [](const CameraFacts& f) -> Reading { return f.settings.loop; },
     [](const LumoraProperty& p, const DeviceConfig&, SceneSettings& s) { return integer_value(p, 0, 300, s.loop); }},
    {"model", DATA_TYPE_STRING, kSingle | kDeviceInfo, [](const CameraFacts& f) -> Reading { return f.device.model; },
     nullptr},
    {"serial_number", DATA_TYPE_STRING, kSingle | kDeviceInfo,
     [](const CameraFacts& f) -> Reading { return f.serialNumber; }, nullptr},
    {"width", DATA_TYPE_INT32, kSingle | kDeviceInfo, [](const CameraFacts& f) -> Reading { return f.device.width; },
     nullptr},
    {"height", DATA_TYPE_INT32, kSingle | kDeviceInfo, [](const CameraFacts& f) -> Reading { return f.device.height; },
     nullptr},
    {"temperature", DATA_TYPE_FLOAT32, kSingle | kDeviceInfo,
     [](const CameraFacts& f) -> Reading { return Scene::temperatureAt(f.secondsUp); }, nullptr},
    {"fw_version", DATA_TYPE_INT32, kSingle | kFirmwareInfo,
     [](const CameraFacts& f) -> Reading { return f.firmwareVersion; }, nullptr},
    {"fw_build_date", DATA_TYPE_STRING, kFirmwareInfo,
     [](const CameraFacts&) -> Reading { return std::string("2026-09-14"); }, nullptr},
    {"hw_revision", DATA_TYPE_STRING, kFirmwareInfo, [](const CameraFacts&) -> Reading { return std::string("B2"); },
     nullptr},
    {"sensor", DATA_TYPE_STRING, kFirmwareInfo,
     [](const CameraFacts& f) -> Reading {
         return "LMS" + std::to_string(f.device.width) + "x" + std::to_string(f.device.height);
     },
     nullptr},
};

const struct {
    const char* name;
    Reach reach;
} kCollections[] = {{"settings", kSettings}, {"device_info", kDeviceInfo}, {"fw_info", kFirmwareInfo}};

const CameraKey* single_key(const std::string& key) {
    for (const auto& entry : kCameraKeys) {
        if ((entry.reach & kSingle) != 0 && key == entry.key) return &entry;
    }
    return nullptr;
}

std::shared_ptr<LumoraProperty> read_key(const CameraKey& entry, const CameraFacts& facts) {
    const Reading value = entry.read(facts);
    const bool readOnly = entry.write == nullptr;
    switch (entry.type) {
        case DATA_TYPE_BOOL:
            return SimProperty::makeBool(entry.key, value.number != 0.0, readOnly);
        case DATA_TYPE_INT32:
            return SimProperty::makeInt32(entry.key, static_cast<std::int32_t>(value.number), readOnly);
        case DATA_TYPE_FLOAT32:
            return SimProperty::makeFloat32(entry.key, static_cast<float>(value.number), readOnly);
        case DATA_TYPE_FLOAT64:
            return SimProperty::makeFloat64(entry.key, value.number, readOnly);
        default:
            return SimProperty::makeString(entry.key, value.text, readOnly);
    }
}

}  // namespace

Result write_camera_property(const LumoraProperty& property, const DeviceConfig& device, SceneSettings& settings) {
    const CameraKey* entry = single_key(property.key());
    if (entry == nullptr) return RESULT_NOT_SUPPORTED;
    if (entry->write == nullptr) return RESULT_INVALID_OPERATION;
    return entry->write(property, device, settings);
}

Result check_camera_settings(const SceneSettings& settings) {
    return settings.rangeMin < settings.rangeMax ? RESULT_SUCCESS : RESULT_OUT_OF_RANGE;
}

std::shared_ptr<LumoraProperty> read_camera_property(const std::string& key, const CameraFacts& facts) {
    const CameraKey* entry = single_key(key);
    return entry == nullptr ? nullptr : read_key(*entry, facts);
}

std::shared_ptr<LumoraProperties> read_camera_collection(const std::string& name, const CameraFacts& facts) {
    for (const auto& collection : kCollections) {
        if (name != collection.name) continue;
        auto properties = std::make_shared<SimProperties>(name);
        for (const auto& entry : kCameraKeys) {
            if ((entry.reach & collection.reach) != 0) properties->add(read_key(entry, facts));
        }
        return properties;
    }
    return nullptr;
}

}  // namespace halden::sensor::sim
