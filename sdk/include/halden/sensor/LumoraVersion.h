// The library's release.
#pragma once

#include <string>

namespace halden::sensor {

// The released version, such as "2.3.0", and its date, such as "2026-11-21".
std::string last_released_version();
std::string last_released_date();

}  // namespace halden::sensor
