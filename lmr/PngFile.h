// PNG files written with libpng itself: OpenCV's image codecs would bring some 140 shared
// libraries into the program, whose loading alone takes longer than `lmr info` needs for a
// whole file. The encoding matches OpenCV's default for PNG (fastest zlib level, "sub"
// filter, run-length strategy), so files cost what cv::imwrite's would.
#pragma once

#include <string>

#include <opencv2/core.hpp>

namespace lumora::lmr {

// Writes `image` to `path` (created or truncated): one-channel 8-bit as gray, one-channel
// 16-bit as 16-bit gray (values kept exactly), three-channel 8-bit in OpenCV's blue, green,
// red byte order as a colour image. False when the image is of another kind or the file
// could not be written. Any thread.
bool write_png(const std::string& path, const cv::Mat& image);

}  // namespace lumora::lmr
