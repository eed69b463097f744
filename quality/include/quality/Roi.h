// The region of interest a depth-quality measurement looks at: given as a share of the frame
// (centred) or as a pixel rectangle, and resolved against a frame's size.
#pragma once

#include <optional>
#include <string>

namespace lumora::quality {

// A rectangle of pixels: columns x to x + width - 1, rows y to y + height - 1.
struct Roi {
    int x = 0;
    int y = 0;
    int width = 0;
    int height = 0;

    bool empty() const { return width <= 0 || height <= 0; }
};

// What the user asked for: `percent` of the width and of the height, centred (when `pixels`
// is empty), or the pixel rectangle `pixels`.
struct RoiRequest {
    int percent = 40;
    std::optional<Roi> pixels;
};

// "40" (1 to 100) or "X,Y,W,H" (X, Y at least 0, W, H at least 1); nothing for any other text.
std::optional<RoiRequest> parse_roi(const std::string& text);

// The rectangle of `request` in a frame of width x height pixels: a share rounded to whole pixels
// (at least one) and centred; a pixel rectangle clipped to the frame, empty when it lies
// outside.
Roi resolve_roi(const RoiRequest& request, int width, int height);

}  // namespace lumora::quality
