// Frames, frame lists and typed views of frame data.
//
// A frame holds one image of one frame type. Depth and amplitude frames have one plane;
// point clouds have the planes x, y, z (and intensity), stored one after another, each of
// width x height elements in row order. Depth is in millimetres; point coordinates are in
// metres for 32-bit float data and in millimetres for 16-bit data (x and y are signed and
// are stored as the two's-complement bit pattern). A missing pixel has depth 0 and the
// point (0, 0, 0).
//
// Frame lists handed to sinks belong to the library and are reused once the sinks'
// callbacks return: a sink that keeps frames beyond its callback takes a copy_frame_list().
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <tuple>

#include "LumoraDataType.h"
#include "LumoraProperty.h"
#include "LumoraResult.h"

namespace halden::sensor {

class LumoraFrame {
public:
    // Bits of the mask given to LumoraCamera::run().
    enum FrameType : std::uint32_t {
        FRAME_NONE = 0,
        FRAME_DEPTH = 2,
        FRAME_AMPLITUDE = 4,
        FRAME_POINTCLOUD = 8,
        FRAME_INTENSITY_POINTCLOUD = 16,
    };

    // The virtual slot order is part of the library's ABI.
    virtual int width() const = 0;
    virtual int height() const = 0;
    virtual FrameType frameType() const = 0;
    virtual DataType dataType() const = 0;  // DATA_TYPE_UINT16 or DATA_TYPE_FLOAT32
    // The sensor's capture time in microseconds; all frames of one list share it.
    virtual std::uint64_t timestamp() const = 0;
    // The camera's running frame counter; all frames of one list share it.
    virtual std::uint32_t frameNumber() const = 0;
    // Elements in one plane: width x height.
    virtual std::size_t elementCount() const = 0;
    virtual std::size_t planeCount() const = 0;
    // The planes, back to back: planeCount() x elementCount() elements of dataType().
    virtual const void* data() const = 0;
    // A per-frame property such as "embedded_data_line": RESULT_NOT_FOUND when the frame
    // carries none under that key.
    virtual std::tuple<Result, std::shared_ptr<LumoraProperty>> getProperty(const std::string& key) const = 0;
    virtual ~LumoraFrame() = default;
};

// The frames of one instant, at most one per frame type.
class LumoraFrameList {
public:
    virtual std::size_t size() const = 0;
    virtual std::shared_ptr<LumoraFrame> at(std::size_t index) const = 0;
    virtual std::uint64_t timestamp() const = 0;
    virtual std::uint32_t frameNumber() const = 0;
    virtual ~LumoraFrameList() = default;
};

// A typed, read-only view of a frame's planes. It keeps the frame alive; an empty view
// (false in a test) is what a cast gives for a frame of another kind or data type.
template <typename T, int Planes>
class LumoraFrameView {
public:
    LumoraFrameView() = default;
    LumoraFrameView(std::shared_ptr<LumoraFrame> frame, const T* data) : mFrame(std::move(frame)), mData(data) {}

    explicit operator bool() const { return mData != nullptr; }
    const std::shared_ptr<LumoraFrame>& frame() const { return mFrame; }
    int width() const { return mFrame ? mFrame->width() : 0; }
    int height() const { return mFrame ? mFrame->height() : 0; }
    // Elements in one plane.
    std::size_t size() const { return mFrame ? mFrame->elementCount() : 0; }
    std::uint64_t timestamp() const { return mFrame ? mFrame->timestamp() : 0; }

    const T* plane(int index) const { return mData + static_cast<std::size_t>(index) * size(); }
    // Element access by linear index (row x width + column) into the first plane.
    const T& operator[](std::size_t index) const { return mData[index]; }
    const T* data() const { return mData; }

    const T* x() const {
        static_assert(Planes >= 3, "only point clouds have coordinates");
        return plane(0);
    }
    const T* y() const {
        static_assert(Planes >= 3, "only point clouds have coordinates");
        return plane(1);
    }
    const T* z() const {
        static_assert(Planes >= 3, "only point clouds have coordinates");
        return plane(2);
    }
    const T* intensity() const {
        static_assert(Planes == 4, "only intensity point clouds have an intensity plane");
        return plane(3);
    }

private:
    std::shared_ptr<LumoraFrame> mFrame;
    const T* mData = nullptr;
};

using LumoraBasicFrame16u = LumoraFrameView<std::uint16_t, 1>;
using LumoraBasicFrame32f = LumoraFrameView<float, 1>;
using LumoraPointCloud16u = LumoraFrameView<std::uint16_t, 3>;
using LumoraPointCloud32f = LumoraFrameView<float, 3>;
using LumoraIntensityPointCloud16u = LumoraFrameView<std::uint16_t, 4>;
using LumoraIntensityPointCloud32f = LumoraFrameView<float, 4>;

// The list's frame of that type, or null.
std::shared_ptr<LumoraFrame> find_frame(const std::shared_ptr<LumoraFrameList>& list, LumoraFrame::FrameType type);

// A deep copy: frames, planes and frame properties are the caller's own. Null for null.
std::shared_ptr<LumoraFrameList> copy_frame_list(const std::shared_ptr<LumoraFrameList>& list);

// Views of depth or amplitude frames (basic), point clouds (pcl) and intensity point
// clouds (ipcl) of 16-bit (16u) or 32-bit float (32f) data; empty for any other frame.
LumoraBasicFrame16u frame_cast_basic16u(const std::shared_ptr<LumoraFrame>& frame);
LumoraBasicFrame32f frame_cast_basic32f(const std::shared_ptr<LumoraFrame>& frame);
LumoraPointCloud16u frame_cast_pcl16u(const std::shared_ptr<LumoraFrame>& frame);
LumoraPointCloud32f frame_cast_pcl32f(const std::shared_ptr<LumoraFrame>& frame);
LumoraIntensityPointCloud16u frame_cast_ipcl16u(const std::shared_ptr<LumoraFrame>& frame);
LumoraIntensityPointCloud32f frame_cast_ipcl32f(const std::shared_ptr<LumoraFrame>& frame);

}  // namespace halden::sensor
