// Point clouds as binary little-endian PLY files, which point-cloud viewers and libraries
// open as they are.
#pragma once

#include <cstddef>
#include <optional>
#include <string>

namespace lumora::lmr {

// The planes of one recorded point cloud: `count` elements each, coordinates in metres.
// `intensity` is null for a cloud without intensity. Not owned.
struct CloudPlanes {
    const float* x = nullptr;
    const float* y = nullptr;
    const float* z = nullptr;
    const float* intensity = nullptr;
    std::size_t count = 0;
};

// Writes the cloud's points to `path` (created or truncated) as vertices with float
// properties x, y, z (and intensity when the cloud has it), `comment` as a header comment
// line. A missing point (z not above 0, or a coordinate that is not finite) is left out.
// Returns the number of vertices written, or nothing when the file could not be written.
// Any thread; `scratch` is the caller's buffer, reused between calls.
std::optional<std::size_t> write_ply(const std::string& path, const CloudPlanes& cloud, const std::string& comment,
                                     std::string& scratch);

}  // namespace lumora::lmr
