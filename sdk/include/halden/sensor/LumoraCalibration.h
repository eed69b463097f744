// Per-lens calibration of a camera, as filled in by LumoraCamera's calibration getters.
#pragma once

namespace halden::sensor {

struct DistortionCoefficients {
    double k1 = 0.0;  // radial
    double k2 = 0.0;
    double k3 = 0.0;
    double p1 = 0.0;  // tangential
    double p2 = 0.0;
    double skew = 0.0;
};

// In pixels of the camera's full resolution.
struct IntrinsicParameters {
    double fx = 0.0;
    double fy = 0.0;
    double cx = 0.0;
    double cy = 0.0;
};

// The lens's pose relative to the camera body: a row-major rotation and a translation in
// metres.
struct ExtrinsicParameters {
    double rotation[3][3] = {{1.0, 0.0, 0.0}, {0.0, 1.0, 0.0}, {0.0, 0.0, 1.0}};
    double tx = 0.0;
    double ty = 0.0;
    double tz = 0.0;
};

// In degrees.
struct FieldOfView {
    double horizontal = 0.0;
    double vertical = 0.0;
};

}  // namespace halden::sensor
