#include "PngFile.h"

#include <csetjmp>
#include <cstdio>
#include <memory>

#include <png.h>
#include <zlib.h>

#include "format/DumpFile.h"

namespace lumora::lmr {

namespace {

class PngWriteStruct {
public:
    PngWriteStruct() : mPng(png_create_write_struct(PNG_LIBPNG_VER_STRING, nullptr, nullptr, nullptr)) {
        if (mPng != nullptr) mInfo = png_create_info_struct(mPng);
    }
    ~PngWriteStruct() { png_destroy_write_struct(&mPng, mInfo != nullptr ? &mInfo : nullptr); }
    PngWriteStruct(const PngWriteStruct&) = delete;
    PngWriteStruct& operator=(const PngWriteStruct&) = delete;

    png_structp png() const { return mPng; }
    png_infop info() const { return mInfo; }

private:
    png_structp mPng;
    png_infop mInfo = nullptr;
};

// libpng reports errors by a long jump back here, so nothing with a destructor lives in
// this function.
bool encode(std::FILE* file, const cv::Mat& image, png_structp png, png_infop info) {
    if (setjmp(png_jmpbuf(png)) != 0) return false;
    const bool colour = image.channels() == 3;
    const bool wide = image.depth() == CV_16U;
    png_init_io(png, file);
    png_set_IHDR(png, info, static_cast<png_uint_32>(image.cols), static_cast<png_uint_32>(image.rows), wide ? 16 : 8,
                 colour ? PNG_COLOR_TYPE_RGB : PNG_COLOR_TYPE_GRAY, PNG_INTERLACE_NONE, PNG_COMPRESSION_TYPE_DEFAULT,
                 PNG_FILTER_TYPE_DEFAULT);
    png_set_filter(png, PNG_FILTER_TYPE_BASE, PNG_FILTER_SUB);
    png_set_compression_level(png, Z_BEST_SPEED);
    png_set_compression_strategy(png, Z_RLE);
    png_write_info(png, info);
    if (colour) png_set_bgr(png);
    // PNG samples are big-endian; the image's are the machine's.
    if (wide) png_set_swap(png);
    for (int y = 0; y < image.rows; ++y)
        png_write_row(png, image.ptr<png_byte>(y));
    png_write_end(png, nullptr);
    return true;
}

}  // namespace

bool write_png(const std::string& path, const cv::Mat& image) {
    const int type = image.type();
    if (image.empty() || (type != CV_8UC1 && type != CV_8UC3 && type != CV_16UC1)) return false;
    format::File file = format::open_file(path, "wb");
    if (file) std::setvbuf(file.get(), nullptr, _IOFBF, std::size_t{1} << 18);
    const PngWriteStruct writer;
    if (!file || writer.info() == nullptr || !encode(file.get(), image, writer.png(), writer.info())) return false;
    // The last bytes reach the file at the close, which can fail too.
    return std::fclose(file.release()) == 0;
}

}  // namespace lumora::lmr
