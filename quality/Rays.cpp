#include "quality/Rays.h"

namespace lumora::quality {

RayTable::RayTable(const Calibration& calibration, const Roi& roi) {
    const auto& k = calibration.intrinsics;
    const auto& d = calibration.distortion;
    if (k.fx == 0.0 || k.fy == 0.0 || roi.empty()) return;
    const std::size_t count = static_cast<std::size_t>(roi.width) * static_cast<std::size_t>(roi.height);
    mX.resize(count);
    mY.resize(count);
    std::size_t i = 0;
    for (int v = roi.y; v < roi.y + roi.height; ++v) {
        for (int u = roi.x; u < roi.x + roi.width; ++u, ++i) {
            const double xd = (u - k.cx) / k.fx;
            const double yd = (v - k.cy) / k.fy;
            double x = xd;
            double y = yd;
            // The same iteration as the simulated cameras' rays, so that their depth lies on
            // exactly these rays.
            for (int iteration = 0; iteration < 20; ++iteration) {
                const double r2 = x * x + y * y;
                const double radial = 1.0 + r2 * (d.k1 + r2 * (d.k2 + r2 * d.k3));
                const double dx = 2.0 * d.p1 * x * y + d.p2 * (r2 + 2.0 * x * x);
                const double dy = d.p1 * (r2 + 2.0 * y * y) + 2.0 * d.p2 * x * y;
                x = (xd - dx) / radial;
                y = (yd - dy) / radial;
            }
            mX[i] = static_cast<float>(x);
            mY[i] = static_cast<float>(y);
        }
    }
}

}  // namespace lumora::quality
