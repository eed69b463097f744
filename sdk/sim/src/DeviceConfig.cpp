#include "DeviceConfig.h"

#include <cctype>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>

namespace halden::sensor::sim {

namespace {

constexpr std::string_view kReplayPrefix = "replay:";

std::string trim(const std::string& text) {
    const auto first = text.find_first_not_of(" \t");
    if (first == std::string::npos) return {};
    const auto last = text.find_last_not_of(" \t");
    return text.substr(first, last - first + 1);
}

// A whole decimal number of 1 to 5 digits.
bool parse_side(const std::string& text, int& out) {
    if (text.empty() || text.size() > 5) return false;
    for (const char c : text) {
        if (std::isdigit(static_cast<unsigned char>(c)) == 0) return false;
    }
    out = std::atoi(text.c_str());
    return true;
}

// Digits with at most one decimal point, such as "30" or "7.5".
bool parse_rate(const std::string& text, double& out) {
    if (text.empty() || text.size() > 12) return false;
    int points = 0;
    int digits = 0;
    for (const char c : text) {
        if (c == '.') {
            ++points;
        } else if (std::isdigit(static_cast<unsigned char>(c)) != 0) {
            ++digits;
        } else {
            return false;
        }
    }
    if (points > 1 || digits == 0) return false;
    out = std::strtod(text.c_str(), nullptr);
    return true;
}

}  // namespace

ModelInfo model_info(const std::string& model) {
    ModelInfo info;
    if (model == "QRX100A" || model == "QRX100AW6" || model == "QRX100AW9" || model == "QRX500AAW") {
        info.rangeMax = 7000;
        info.horizontalFov = model == "QRX100AW6" ? 60.0 : model == "QRX100AW9" ? 90.0 : 70.0;
        if (model == "QRX500AAW") {
            info.horizontalFov = 100.0;
            info.lensCount = 2;
        }
    } else if (model == "QRX200AP") {
        info.width = 320;
        info.height = 240;
        info.horizontalFov = 60.0;
        info.rangeMin = 100;
        info.rangeMax = 4000;
        info.amplitudeGain = 2400.0;
    } else if (model == "T100K" || model == "T110K") {
        info.width = 320;
        info.height = 240;
        info.rangeMax = 7000;
    }
    return info;
}

std::optional<DeviceConfig> parse_device_entry(const std::string& entry) {
    const std::string text = trim(entry);
    if (text.compare(0, kReplayPrefix.size(), kReplayPrefix) == 0) {
        if (text.size() == kReplayPrefix.size()) return std::nullopt;
        DeviceConfig device;
        device.recording = text.substr(kReplayPrefix.size());
        return device;
    }
    const auto at = text.find('@');
    const std::string head = text.substr(0, at);
    const auto colon = head.find(':');
    DeviceConfig device;
    device.model = head.substr(0, colon);
    // "replay" names replay entries, whose text a model of that name would share.
    if (device.model.empty() || device.model.size() > 31 || device.model == "replay") {
        return std::nullopt;
    }
    for (const char c : device.model) {
        if (std::isalnum(static_cast<unsigned char>(c)) == 0 && c != '-' && c != '_') return std::nullopt;
    }
    const ModelInfo info = model_info(device.model);
    device.width = info.width;
    device.height = info.height;
    device.fps = info.fps;
    if (colon != std::string::npos) {
        const std::string size = head.substr(colon + 1);
        const auto x = size.find('x');
        if (x == std::string::npos) return std::nullopt;
        if (!parse_side(size.substr(0, x), device.width) || !parse_side(size.substr(x + 1), device.height)) {
            return std::nullopt;
        }
        if (device.width < 8 || device.height < 8 || device.width > 4096 || device.height > 4096 ||
            device.width * device.height > 4 * 1024 * 1024) {
            return std::nullopt;
        }
    }
    if (at != std::string::npos) {
        if (!parse_rate(text.substr(at + 1), device.fps) || device.fps < 1.0 || device.fps > 120.0) {
            return std::nullopt;
        }
    }
    return device;
}

std::vector<DeviceConfig> parse_device_list(const std::string& text, std::vector<std::string>* rejected) {
    std::vector<DeviceConfig> devices;
    if (trim(text).empty()) return devices;
    std::size_t begin = 0;
    while (true) {
        const auto comma = text.find(',', begin);
        const std::string entry = text.substr(begin, comma == std::string::npos ? std::string::npos : comma - begin);
        if (auto device = parse_device_entry(entry)) {
            devices.push_back(std::move(*device));
        } else if (rejected != nullptr) {
            rejected->push_back(entry);
        }
        if (comma == std::string::npos) break;
        begin = comma + 1;
    }
    return devices;
}

std::string format_device(const DeviceConfig& device) {
    if (!device.recording.empty()) return std::string(kReplayPrefix) + device.recording;
    char rate[32];
    std::snprintf(rate, sizeof rate, "%g", device.fps);
    return device.model + ":" + std::to_string(device.width) + "x" + std::to_string(device.height) + "@" + rate;
}

}  // namespace halden::sensor::sim
