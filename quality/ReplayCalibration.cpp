#include "quality/ReplayCalibration.h"

#include <charconv>
#include <cstdint>
#include <memory>

#include <halden/sensor/LumoraCamera.h>
#include <halden/sensor/LumoraProperty.h>
#include <halden/sensor/LumoraSource.h>

namespace lumora::quality {

namespace hs = halden::sensor;

namespace {

constexpr const char* kReplayScheme = "replay:";

std::string result_name(hs::Result result) {
    const char* text = hs::result_text(result);
    return text != nullptr ? text : "result " + std::to_string(result);
}

}  // namespace

std::optional<Calibration> replay_calibration(const std::string& path, std::string& problem) {
    // A comma would end the device entry.
    if (path.find(',') != std::string::npos) {
        problem = "a replay camera cannot be made for a path with a comma";
        return std::nullopt;
    }
    const hs::Result attached = hs::set_property(hs::make_property_string("sim_attach", kReplayScheme + path));
    if (attached != hs::RESULT_SUCCESS) {
        problem = "the camera library makes no replay camera of it (sim_attach: " + result_name(attached) + ")";
        return std::nullopt;
    }
    // The device attached last is the list's last.
    const auto sources = hs::search_camera_source();
    const std::shared_ptr<hs::LumoraSource> source = sources ? sources->back() : nullptr;
    if (!source || source->uri().rfind(kReplayScheme, 0) != 0) {
        problem = "the replay camera is not among the library's sources";
        return std::nullopt;
    }
    Calibration calibration;
    const auto camera = hs::create_camera(source);
    hs::Result result = hs::RESULT_FAIL;
    if (camera) {
        result = camera->getIntrinsicParameters(0, calibration.intrinsics);
        if (result == hs::RESULT_SUCCESS) result = camera->getDistortionCoefficients(0, calibration.distortion);
        hs::destroy_camera(camera);
    }
    const std::string uri = source->uri();
    std::int32_t number = 0;
    const char* const digits = uri.data() + std::char_traits<char>::length(kReplayScheme);
    if (std::from_chars(digits, uri.data() + uri.size(), number).ec == std::errc())
        hs::set_property(hs::make_property_32s("sim_detach", number));
    if (!camera) {
        problem = "the replay camera " + uri + " cannot be opened";
        return std::nullopt;
    }
    if (result != hs::RESULT_SUCCESS) {
        problem = "the replay camera gives no calibration of lens 0 (" + result_name(result) + ")";
        return std::nullopt;
    }
    return calibration;
}

}  // namespace lumora::quality
