// The value under a picture point, read from the frame the picture was made from, and the
// text that shows it. Pure functions, any thread.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include <halden/sensor/LumoraFrame.h>

namespace lumora::imaging {

// "  x:320, y:240, d:2874": the column and row, then `letter` ('d' depth in mm, 'a'
// amplitude or intensity, 'z' a point's depth in mm) and the value, as the windows' titles
// and the web page write them.
std::string readoutText(int column, int row, char letter, int value);

struct Readout {
    int column = 0;
    int row = 0;
    char letter = 'd';
    int value = 0;
    std::uint64_t timestamp = 0;
    // readoutText() of the above.
    std::string text;
};

// The frame pixel under picture point (x, y) of a picture `pictureWidth` x `pictureHeight`
// of `view` (View.h; the picture may be the frame scaled down), and its raw value: depth or
// amplitude as stored (float samples rounded, within 0..65535), point-cloud z in mm (float
// metres times 1000, truncated), intensity as stored. Nothing when the list has no frame
// for the view, the point lies outside the picture or the picture size is not positive.
std::optional<Readout> readValue(const std::shared_ptr<halden::sensor::LumoraFrameList>& list, int view, int x, int y,
                                 int pictureWidth, int pictureHeight);

}  // namespace lumora::imaging
