// Pictures to the bytes sent to the page: JPEG through TurboJPEG, PNG (lossless) through
// OpenCV. One encoder per thread; it keeps its TurboJPEG handle and buffer between calls.
#pragma once

#include <string>

#include <opencv2/core.hpp>

namespace lumora::web {

class PictureEncoder {
public:
    PictureEncoder();
    ~PictureEncoder();
    PictureEncoder(const PictureEncoder&) = delete;
    PictureEncoder& operator=(const PictureEncoder&) = delete;

    // Appends the JPEG of an 8-bit image of 3 channels (B, G, R) or 1 gray channel, at
    // `quality` (1..100), to `out`. False (and `out` unchanged) for any other image or when
    // the codec fails.
    bool jpeg(const cv::Mat& image, int quality, std::string& out);
    // Appends the PNG of such an image to `out`; false when it cannot.
    static bool png(const cv::Mat& image, std::string& out);

private:
    void* mHandle;
};

}  // namespace lumora::web
