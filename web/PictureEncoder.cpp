#include "PictureEncoder.h"

#include <turbojpeg.h>

#include <vector>

#include <opencv2/imgcodecs.hpp>

namespace lumora::web {

PictureEncoder::PictureEncoder() : mHandle(tjInitCompress()) {}

PictureEncoder::~PictureEncoder() {
    if (mHandle != nullptr) tjDestroy(static_cast<tjhandle>(mHandle));
}

bool PictureEncoder::jpeg(const cv::Mat& image, int quality, std::string& out) {
    if (mHandle == nullptr || image.empty() || image.depth() != CV_8U || image.dims != 2) return false;
    const int channels = image.channels();
    if (channels != 1 && channels != 3) return false;
    unsigned char* buffer = nullptr;
    unsigned long size = 0;
    const int failed = tjCompress2(static_cast<tjhandle>(mHandle), image.data, image.cols,
                                   static_cast<int>(image.step[0]), image.rows, channels == 3 ? TJPF_BGR : TJPF_GRAY,
                                   &buffer, &size, channels == 3 ? TJSAMP_420 : TJSAMP_GRAY, quality, TJFLAG_FASTDCT);
    if (failed == 0) out.append(reinterpret_cast<const char*>(buffer), size);
    tjFree(buffer);
    return failed == 0;
}

bool PictureEncoder::png(const cv::Mat& image, std::string& out) {
    if (image.empty() || image.depth() != CV_8U || (image.channels() != 1 && image.channels() != 3)) return false;
    std::vector<unsigned char> bytes;
    // The fastest compression: the pictures are for a link where the bytes matter less.
    if (!cv::imencode(".png", image, bytes, {cv::IMWRITE_PNG_COMPRESSION, 1})) return false;
    out.append(bytes.begin(), bytes.end());
    return true;
}

}  // namespace lumora::web
