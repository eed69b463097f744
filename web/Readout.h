// The value under a clicked picture point, read from the frame the picture was made from.
// Pure function, any thread.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include <halden/sensor/LumoraFrame.h>

namespace lumora::web {

// The picture kinds, numbered as the display windows are keyed.
enum View : int {
    kFramerate = 0,
    kDepth = 1,
    kAmplitude = 2,
    kPointCloud = 3,
    kIntensityDepth = 4,
    kIntensityAmplitude = 5
};

struct Readout {
    int column = 0;
    int row = 0;
    // "d" depth in mm, "a" amplitude, "z" in mm.
    char letter = 'd';
    int value = 0;
    std::uint64_t timestamp = 0;
    // "  x:%d, y:%d, d:%d" as the windows' titles write it.
    std::string text;
};

// The frame pixel under picture point (x, y) of a picture `pictureWidth` x `pictureHeight`
// of `view` (the picture may be the frame scaled down), and its raw value: depth or
// amplitude as stored (float samples rounded, within 0..65535), point-cloud z in mm (float
// metres times 1000, truncated), intensity as stored. Nothing when the list has no frame
// for the view, the point lies outside the picture or the picture size is not positive.
std::optional<Readout> readValue(const std::shared_ptr<halden::sensor::LumoraFrameList>& list, int view, int x, int y,
                                 int pictureWidth, int pictureHeight);

}  // namespace lumora::web
