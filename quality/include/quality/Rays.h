// The rays of a region of pixels through a lens's calibration: the direction (x, y, 1) on
// which a pixel's depth d places its point (x d, y d, d), in camera space (x right, y down,
// z forward).
#pragma once

#include <cstddef>
#include <vector>

#include <halden/sensor/LumoraCalibration.h>

#include "quality/Roi.h"

namespace lumora::quality {

// Lens 0's calibration, as the camera library gives it: intrinsics in pixels of the frame's
// own resolution, Brown-Conrady distortion (k1, k2, k3 radial, p1, p2 tangential; skew is
// not used).
struct Calibration {
    halden::sensor::IntrinsicParameters intrinsics;
    halden::sensor::DistortionCoefficients distortion;
};

// The rays of every pixel of one ROI, in row order; built once and read from any thread.
class RayTable {
public:
    RayTable() = default;
    // Undistorts each pixel centre (u, v) of `roi`, pixel centres at integers:
    // x_d = (u - cx) / fx, y_d = (v - cy) / fy, then the distortion inverted by a fixed-point
    // iteration. An fx or fy of 0 gives an empty table.
    RayTable(const Calibration& calibration, const Roi& roi);

    bool empty() const { return mX.empty(); }
    // Pixel i of the ROI: row i / roi.width, column i % roi.width.
    const float* x() const { return mX.data(); }
    const float* y() const { return mY.data(); }
    std::size_t size() const { return mX.size(); }

private:
    std::vector<float> mX;
    std::vector<float> mY;
};

}  // namespace lumora::quality
