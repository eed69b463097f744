// One frame list as the depth-quality measurement reads it: depth, or else a point cloud,
// and an amplitude when there is one. The view borrows the data, which need not be aligned;
// whoever makes it keeps the data alive and unchanged while the view is used.
#pragma once

#include <cstddef>

#include <halden/sensor/LumoraFrame.h>

namespace lumora::quality {

enum class Sample { kUint16, kInt16, kFloat32 };

struct ListView {
    int width = 0;
    int height = 0;
    // Depth along the optical axis in millimetres, width x height in row order, kUint16 or
    // kFloat32; 0 (or not finite) is missing.
    const void* depth = nullptr;
    Sample depthType = Sample::kUint16;
    // Read when depth is null: the planes x, y and z, `planeStride` elements apart, each
    // width x height in row order; kFloat32 in metres or kInt16 in millimetres. A z not
    // above 0 (or not finite) is missing.
    const void* points = nullptr;
    Sample pointType = Sample::kFloat32;
    std::size_t planeStride = 0;
    // Amplitude or intensity, width x height in row order, kUint16 or kFloat32; null when the
    // list carries none.
    const void* amplitude = nullptr;
    Sample amplitudeType = Sample::kUint16;
};

// The view of a camera library's list (which keeps its frames, and so the view's data,
// alive): its depth frame, else its point cloud, else its intensity point cloud; the
// amplitude frame, else an intensity point cloud's intensity, when of the same size. False
// when the list has no depth or point cloud of 16-bit or float data whose size agrees with
// its planes.
bool view_of(const halden::sensor::LumoraFrameList& list, ListView& view);

}  // namespace lumora::quality
