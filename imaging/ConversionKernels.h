// The per-pixel kernels of frame-to-image conversion, each in vector registers where the
// processor has them and giving the same bytes as its plain form. Pure functions over the
// caller's buffers; any thread.
#pragma once

#include <cstddef>
#include <cstdint>

#include <opencv2/core/types.hpp>

#include "imaging/ColorMaps.h"

namespace lumora::imaging {

// Float samples read as the nearest integer within the 16-bit range, halves up, without
// libm. Anything below 0.5 (NaN and negatives too: they fail the comparison) reads 0; from
// 0.5 on, v + 0.5 truncated is the same half-up rounding, as the sum is exact or rounds
// within the same integer there. 0.5 minus an ulp, whose sum would round up to 1, is below
// the cut. The vector forms of toSamples follow this rule lane by lane.
inline std::uint16_t toSample(float value) {
    value = value > 65535.0F ? 65535.0F : value;
    // NOLINTNEXTLINE(bugprone-incorrect-roundings): halves up is the rule, and exact here
    return value >= 0.5F ? static_cast<std::uint16_t>(static_cast<std::int32_t>(value + 0.5F)) : 0;
}

// toSample on n floats into `out`.
void toSamples(const float* source, int n, std::uint16_t* out);

// n colour pixels (3 bytes each) of the depth samples through `colours`.
void colourRow(const std::uint16_t* samples, int n, std::uint8_t* out, const DepthColourTable& colours);

// n gray pixels of the amplitude samples through `gray`.
void grayRow(const std::uint16_t* samples, int n, std::uint8_t* out, const GrayTable& gray);

// Copies the points of pixels [begin, end) with z > 0 to `points` and their pixel numbers
// to `pixels`, in pixel order, and returns how many there are.
std::size_t gatherPoints(const float* x, const float* y, const float* z, std::size_t begin, std::size_t end,
                         cv::Point3f* points, std::int32_t* pixels);

// For n projected points: their colour from z in millimetres into `colour`, their gray level
// into `level` when there is one (read through their pixel numbers, which `landing` holds on
// entry), then where each lands into `landing`: its pixel's number in the image, row by row,
// or -1 off the image.
void placePoints(const cv::Point3f* points, const cv::Point2f* shown, std::size_t n, cv::Size display,
                 const float* intensity, const DepthColourTable& colours, const GrayTable& gray, std::int32_t* landing,
                 std::uint32_t* colour, std::uint8_t* level);

}  // namespace lumora::imaging
