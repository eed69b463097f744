// Virtual devices: what a device entry of LUMORA_SIM_DEVICES says, and each model's
// optics and defaults.
#pragma once

#include <optional>
#include <string>
#include <vector>

namespace halden::sensor::sim {

// One model's fixed characteristics.
struct ModelInfo {
    int width = 640;
    int height = 480;
    double fps = 30.0;
    double horizontalFov = 70.0;  // degrees
    int lensCount = 1;
    int rangeMin = 200;             // millimetres
    int rangeMax = 5000;            // millimetres
    double amplitudeGain = 1000.0;  // amplitude of a white target facing the camera at 1 m
};

// The characteristics of a known model, or generic ones for any other name.
ModelInfo model_info(const std::string& model);

struct DeviceConfig {
    std::string model;
    int width = 0;
    int height = 0;
    double fps = 0.0;
    // The dump file a replay device plays; empty for a device that renders its scene.
    std::string recording;
};

// Parses one entry "MODEL[:WxH][@FPS]" or "replay:PATH", blanks around it ignored. A model
// is 1 to 31 letters, digits, '-' or '_' other than "replay"; a size is 8 to 4096 a side and 4 megapixels at
// most; a rate is 1 to 120 frames a second. Missing parts take the model's defaults. A
// replay entry gives only the path (not empty); its file says the rest. Empty on a
// malformed entry.
std::optional<DeviceConfig> parse_device_entry(const std::string& entry);

// The device list of a LUMORA_SIM_DEVICES value: comma-separated entries; malformed ones
// are skipped and their text added to `rejected` when given. The caller handles the
// unset variable and the value "none".
std::vector<DeviceConfig> parse_device_list(const std::string& text, std::vector<std::string>* rejected = nullptr);

// The entry text of a device, "MODEL:WxH@FPS" or "replay:PATH".
std::string format_device(const DeviceConfig& device);

}  // namespace halden::sensor::sim
