// A camera's keys: one table says for each its type, whether it can be written, how it is
// read and written, and which of the camera's named collections hold it. The simulation's
// own keys are reached only singly, so that the collections read as a sensor's:
//   sim_scene  "room" (the default), or "wall:DISTANCE_MM[:ANGLE_DEG]": a flat wall filling
//              the view (SceneChoice)
//   sim_noise  the deviation (mm) of Gaussian depth noise in place of the sensor's, 0 to
//              1000; 0 (the default) keeps the sensor's
//   sim_loop   0 (the default) renders every list; 1 to 300 renders that many lists of a run
//              once and delivers them again in turn, stamped afresh
#pragma once

#include <memory>
#include <string>

#include <halden/sensor/LumoraProperty.h>

#include "DeviceConfig.h"
#include "Scene.h"

namespace halden::sensor::sim {

// What a camera's keys read, at one instant.
struct CameraFacts {
    const SceneSettings& settings;
    const DeviceConfig& device;
    std::string serialNumber;
    int firmwareVersion;
    double secondsUp;  // since the camera was opened
};

// Writes one property into `settings`: RESULT_NOT_SUPPORTED for a key that is not a camera's,
// RESULT_INVALID_OPERATION for a read-only one, RESULT_INVALID_PARAMETER for a value of the
// wrong type and RESULT_OUT_OF_RANGE for one outside the key's range. The bounds of the depth
// range are checked against each other by check_camera_settings(), once all are written.
Result write_camera_property(const LumoraProperty& property, const DeviceConfig& device, SceneSettings& settings);
Result check_camera_settings(const SceneSettings& settings);

// The key's value; null for a key that is not a camera's.
std::shared_ptr<LumoraProperty> read_camera_property(const std::string& key, const CameraFacts& facts);
// The collection "settings" (the sensor's writable keys), "device_info" or "fw_info"; null
// for any other name.
std::shared_ptr<LumoraProperties> read_camera_collection(const std::string& name, const CameraFacts& facts);

}  // namespace halden::sensor::sim
