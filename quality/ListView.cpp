#include "quality/ListView.h"

#include <memory>

namespace lumora::quality {

namespace hs = halden::sensor;

namespace {

using Frame = std::shared_ptr<hs::LumoraFrame>;

Frame find(const hs::LumoraFrameList& list, hs::LumoraFrame::FrameType type) {
    for (std::size_t i = 0; i < list.size(); ++i)
        if (Frame frame = list.at(i); frame && frame->frameType() == type) return frame;
    return nullptr;
}

// A frame whose planes are as large as its width and height say, of 16-bit or float data.
bool readable(const Frame& frame, std::size_t planes) {
    if (!frame || frame->data() == nullptr || frame->width() <= 0 || frame->height() <= 0) return false;
    if (frame->dataType() != hs::DATA_TYPE_UINT16 && frame->dataType() != hs::DATA_TYPE_FLOAT32) return false;
    return frame->planeCount() >= planes && frame->elementCount() == static_cast<std::size_t>(frame->width()) *
                                                                         static_cast<std::size_t>(frame->height());
}

bool float_data(const Frame& frame) { return frame->dataType() == hs::DATA_TYPE_FLOAT32; }

bool same_size(const Frame& frame, const ListView& view) {
    return frame->width() == view.width && frame->height() == view.height;
}

}  // namespace

bool view_of(const hs::LumoraFrameList& list, ListView& view) {
    view = ListView{};
    const Frame depth = find(list, hs::LumoraFrame::FRAME_DEPTH);
    const Frame intensityCloud = find(list, hs::LumoraFrame::FRAME_INTENSITY_POINTCLOUD);
    Frame cloud = find(list, hs::LumoraFrame::FRAME_POINTCLOUD);
    if (!readable(cloud, 3)) cloud = intensityCloud;
    if (readable(depth, 1)) {
        view.depth = depth->data();
        view.depthType = float_data(depth) ? Sample::kFloat32 : Sample::kUint16;
        view.width = depth->width();
        view.height = depth->height();
    } else if (readable(cloud, 3)) {
        view.points = cloud->data();
        // 16-bit coordinates are signed.
        view.pointType = float_data(cloud) ? Sample::kFloat32 : Sample::kInt16;
        view.planeStride = cloud->elementCount();
        view.width = cloud->width();
        view.height = cloud->height();
    } else {
        return false;
    }
    const Frame amplitude = find(list, hs::LumoraFrame::FRAME_AMPLITUDE);
    if (readable(amplitude, 1) && same_size(amplitude, view)) {
        view.amplitude = amplitude->data();
        view.amplitudeType = float_data(amplitude) ? Sample::kFloat32 : Sample::kUint16;
    } else if (readable(intensityCloud, 4) && same_size(intensityCloud, view)) {
        const std::size_t plane = intensityCloud->elementCount();
        if (float_data(intensityCloud)) {
            view.amplitude = static_cast<const float*>(intensityCloud->data()) + 3 * plane;
            view.amplitudeType = Sample::kFloat32;
        } else {
            view.amplitude = static_cast<const std::uint16_t*>(intensityCloud->data()) + 3 * plane;
            view.amplitudeType = Sample::kUint16;
        }
    }
    return true;
}

}  // namespace lumora::quality
