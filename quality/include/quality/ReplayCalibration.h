// The calibration a dump file's rays come from when it records depth without one: that of
// the camera which plays the file back, as the camera library makes it.
#pragma once

#include <optional>
#include <string>

#include "quality/Rays.h"

namespace lumora::quality {

// Lens 0's calibration of a replay camera for the dump file at `path`, through the camera
// library's interface alone: the library property sim_attach set to "replay:PATH", the
// source that adds, a camera created for it and asked for its lens 0, then the camera
// destroyed and the device detached (sim_detach). Nothing, with `problem` saying why, when
// the library cannot play the file (a vendor's library has no such property). The library
// logs its own errors as it does. Runs on the caller's thread, while no other thread
// attaches devices.
std::optional<Calibration> replay_calibration(const std::string& path, std::string& problem);

}  // namespace lumora::quality
