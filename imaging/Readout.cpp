#include "imaging/Readout.h"

#include <cmath>
#include <cstdio>

#include "ConversionKernels.h"
#include "imaging/View.h"

namespace lumora::imaging {

namespace hs = halden::sensor;

namespace {

// Plane `plane` of the frame at element `index`, as the view reads it.
std::optional<int> valueAt(const std::shared_ptr<hs::LumoraFrame>& frame, int plane, std::size_t index, bool metres) {
    if (frame->dataType() == hs::DATA_TYPE_UINT16) {
        const auto* data = static_cast<const std::uint16_t*>(frame->data());
        return data[plane * frame->elementCount() + index];
    }
    if (frame->dataType() == hs::DATA_TYPE_FLOAT32) {
        const float value = static_cast<const float*>(frame->data())[plane * frame->elementCount() + index];
        if (metres) return std::isfinite(value) ? static_cast<int>(value * 1000.0F) : 0;
        return toSample(value);
    }
    return std::nullopt;
}

}  // namespace

std::string readoutText(int column, int row, char letter, int value) {
    char text[96];
    std::snprintf(text, sizeof text, "  x:%d, y:%d, %c:%d", column, row, letter, value);
    return text;
}

std::optional<Readout> readValue(const std::shared_ptr<hs::LumoraFrameList>& list, int view, int x, int y,
                                 int pictureWidth, int pictureHeight) {
    if (!list || pictureWidth <= 0 || pictureHeight <= 0 || x < 0 || y < 0 || x >= pictureWidth || y >= pictureHeight)
        return std::nullopt;
    hs::LumoraFrame::FrameType type = hs::LumoraFrame::FRAME_NONE;
    int plane = 0;
    char letter = 'd';
    switch (view) {
        case kDepth:
            type = hs::LumoraFrame::FRAME_DEPTH;
            break;
        case kAmplitude:
            type = hs::LumoraFrame::FRAME_AMPLITUDE;
            letter = 'a';
            break;
        case kPointCloud:
        case kIntensityDepth:
            type =
                view == kPointCloud ? hs::LumoraFrame::FRAME_POINTCLOUD : hs::LumoraFrame::FRAME_INTENSITY_POINTCLOUD;
            plane = 2;
            letter = 'z';
            break;
        case kIntensityAmplitude:
            type = hs::LumoraFrame::FRAME_INTENSITY_POINTCLOUD;
            plane = 3;
            letter = 'a';
            break;
        default:
            return std::nullopt;
    }
    const auto frame = hs::find_frame(list, type);
    if (!frame || frame->width() <= 0 || frame->height() <= 0 || static_cast<std::size_t>(plane) >= frame->planeCount())
        return std::nullopt;
    Readout readout;
    // The picture is the frame scaled down by nearest neighbour: the same mapping back.
    readout.column = static_cast<int>(static_cast<long long>(x) * frame->width() / pictureWidth);
    readout.row = static_cast<int>(static_cast<long long>(y) * frame->height() / pictureHeight);
    const std::size_t index = static_cast<std::size_t>(readout.row) * frame->width() + readout.column;
    const auto value = valueAt(frame, plane, index, letter == 'z');
    if (!value) return std::nullopt;
    readout.letter = letter;
    readout.value = *value;
    readout.timestamp = frame->timestamp();
    readout.text = readoutText(readout.column, readout.row, letter, readout.value);
    return readout;
}

}  // namespace lumora::imaging
