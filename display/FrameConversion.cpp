// Design note: convertPointCloud splits cv::projectPoints over the calling thread and one
// helper thread it starts for that frame. The helper projects the second half of the points
// into its own output; the caller projects the first half, then joins the helper before it
// reads either half. Nothing outlives the call.
#include "FrameConversion.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <thread>
#include <vector>

#include <opencv2/calib3d.hpp>
#include <opencv2/imgproc.hpp>

#include "ColorMaps.h"

namespace lumora::display {

namespace hs = halden::sensor;

namespace {

// Below this many points a second thread costs more than it saves.
constexpr std::size_t kSplitPoints = 20000;

// Float samples read as the nearest integer within the 16-bit range, without libm; NaN
// fails both comparisons and reads 0.
inline std::uint16_t toSample(float value) {
    value = value > 0.0F ? value : 0.0F;
    value = value < 65535.0F ? value : 65535.0F;
    // Half up: the value is not negative here.
    const auto whole = static_cast<std::int32_t>(value);
    return static_cast<std::uint16_t>(whole + (value - static_cast<float>(whole) >= 0.5F ? 1 : 0));
}

// Palette entries as little-endian B, G, R, 0 words, so one 4-byte store writes a pixel.
using PackedPalette = std::array<std::uint32_t, kPaletteSize>;

PackedPalette packPalette() {
    const Palette& colours = palette();
    PackedPalette packed{};
    for (std::size_t k = 0; k < kPaletteSize; ++k)
        packed[k] = static_cast<std::uint32_t>(colours[0][k]) | static_cast<std::uint32_t>(colours[1][k]) << 8U |
                    static_cast<std::uint32_t>(colours[2][k]) << 16U;
    return packed;
}

inline std::uint32_t colourOf(const PackedPalette& packed, const DepthIndexTable& index, std::uint16_t depth) {
    return packed[std::min<std::uint16_t>(index[depth], kPaletteMissing)];
}

// The source column or row that each displayed one shows, as cv::resize picks it for
// nearest-neighbour scaling.
std::vector<int> nearestMap(int source, int shown) {
    std::vector<int> map(static_cast<std::size_t>(shown));
    const double step = 1.0 / (static_cast<double>(shown) / source);
    for (int i = 0; i < shown; ++i)
        map[static_cast<std::size_t>(i)] = std::min(static_cast<int>(std::floor(i * step)), source - 1);
    return map;
}

bool inside(cv::Size size, cv::Point point) {
    return point.x >= 0 && point.y >= 0 && point.x < size.width && point.y < size.height;
}

// The n samples of a displayed row: the row itself when unscaled 16-bit, else gathered
// (and, for float data, converted) into `scratch`.
const std::uint16_t* samplesOf(const std::uint16_t* source, const int* columns, int n,
                               std::vector<std::uint16_t>& scratch) {
    if (columns == nullptr) return source;
    for (int i = 0; i < n; ++i)
        scratch[static_cast<std::size_t>(i)] = source[columns[i]];
    return scratch.data();
}
const std::uint16_t* samplesOf(const float* source, const int* columns, int n, std::vector<std::uint16_t>& scratch) {
    std::uint16_t* out = scratch.data();
    if (columns == nullptr) {
        for (int i = 0; i < n; ++i)
            out[i] = toSample(source[i]);
    } else {
        for (int i = 0; i < n; ++i)
            out[i] = toSample(source[columns[i]]);
    }
    return out;
}

// Writes n colour pixels; every store but the last spills one byte into the next pixel.
void colourRow(const std::uint16_t* samples, int n, std::uint8_t* out, const PackedPalette& packed,
               const DepthIndexTable& index) {
    if (n <= 0) return;
    for (int i = 0; i + 1 < n; ++i) {
        const std::uint32_t pixel = colourOf(packed, index, samples[i]);
        std::memcpy(out + std::ptrdiff_t{3} * i, &pixel, 4);
    }
    const std::uint32_t last = colourOf(packed, index, samples[n - 1]);
    std::memcpy(out + std::ptrdiff_t{3} * (n - 1), &last, 3);
}

void grayRow(const std::uint16_t* samples, int n, std::uint8_t* out, const GrayTable& gray) {
    for (int i = 0; i < n; ++i)
        out[i] = gray[samples[i]];
}

// One frame of depth or amplitude, typed.
struct Plane {
    const std::uint16_t* u16 = nullptr;
    const float* f32 = nullptr;
    int width = 0;
    int height = 0;

    explicit Plane(const std::shared_ptr<hs::LumoraFrame>& frame) {
        if (!frame) return;
        if (const auto view16 = hs::frame_cast_basic16u(frame)) {
            u16 = view16.data();
        } else if (const auto view32 = hs::frame_cast_basic32f(frame)) {
            f32 = view32.data();
        } else {
            return;
        }
        width = frame->width();
        height = frame->height();
    }
    bool valid() const { return u16 != nullptr || f32 != nullptr; }
    std::uint16_t at(std::size_t i) const { return u16 ? u16[i] : toSample(f32[i]); }
};

// The frame pixel a displayed point shows, or -1 outside the image.
std::ptrdiff_t sourceIndex(const std::vector<int>& rows, const std::vector<int>& columns, int width, cv::Size display,
                           cv::Point point) {
    if (!inside(display, point)) return -1;
    return static_cast<std::ptrdiff_t>(rows[static_cast<std::size_t>(point.y)]) * width +
           columns[static_cast<std::size_t>(point.x)];
}

std::string readoutText(const char* kind, cv::Point point, int value) {
    char text[96];
    std::snprintf(text, sizeof text, "  x:%d, y:%d, %s:%d", point.x, point.y, kind, value);
    return text;
}

cv::Scalar inverseOf(const cv::Mat& image, cv::Point point) {
    if (!inside(image.size(), point)) return {255, 255, 255, 0};
    if (image.channels() == 1) {
        const int inverse = 255 - image.at<std::uint8_t>(point);
        return {static_cast<double>(inverse), static_cast<double>(inverse), static_cast<double>(inverse), 0};
    }
    const auto pixel = image.at<cv::Vec3b>(point);
    return {255.0 - pixel[0], 255.0 - pixel[1], 255.0 - pixel[2], 0};
}

}  // namespace

cv::Size displaySize(cv::Size frame, int displayWidth, int displayHeight) {
    if (displayWidth > 0 && displayHeight > 0 && displayWidth < frame.width && displayHeight < frame.height)
        return {displayWidth, displayHeight};
    return frame;
}

void convertDepthAmplitude(const std::shared_ptr<hs::LumoraFrame>& depth,
                           const std::shared_ptr<hs::LumoraFrame>& amplitude, cv::Size display, cv::Point depthPoint,
                           cv::Point amplitudePoint, WindowImage& depthImage, WindowImage& amplitudeImage) {
    const Plane depthPlane(depth);
    const Plane amplitudePlane(amplitude);
    const Plane& shape = depthPlane.valid() ? depthPlane : amplitudePlane;
    if (!shape.valid()) return;
    const bool scaled = display.width != shape.width || display.height != shape.height;
    const std::vector<int> rows = nearestMap(shape.height, display.height);
    const std::vector<int> columns = nearestMap(shape.width, display.width);
    const int* columnMap = scaled ? columns.data() : nullptr;

    const PackedPalette packed = packPalette();
    const DepthIndexTable& index = depthIndexTable();
    const GrayTable& gray = grayTable();
    const bool withDepth = depthPlane.valid() && depthPlane.width == shape.width && depthPlane.height == shape.height;
    const bool withAmplitude =
        amplitudePlane.valid() && amplitudePlane.width == shape.width && amplitudePlane.height == shape.height;
    if (withDepth) depthImage.image.create(display, CV_8UC3);
    if (withAmplitude) amplitudeImage.image.create(display, CV_8UC1);

    std::vector<std::uint16_t> scratch(static_cast<std::size_t>(display.width));
    const auto samples = [&](const Plane& plane, std::size_t offset) {
        return plane.u16 ? samplesOf(plane.u16 + offset, columnMap, display.width, scratch)
                         : samplesOf(plane.f32 + offset, columnMap, display.width, scratch);
    };
    for (int y = 0; y < display.height; ++y) {
        const std::size_t offset = static_cast<std::size_t>(rows[static_cast<std::size_t>(y)]) * shape.width;
        if (withDepth)
            colourRow(samples(depthPlane, offset), display.width, depthImage.image.ptr<std::uint8_t>(y), packed, index);
        if (withAmplitude)
            grayRow(samples(amplitudePlane, offset), display.width, amplitudeImage.image.ptr<std::uint8_t>(y), gray);
    }

    if (withDepth) {
        const auto at = sourceIndex(rows, columns, shape.width, display, depthPoint);
        depthImage.readout = readoutText("d", depthPoint, at < 0 ? 0 : depthPlane.at(static_cast<std::size_t>(at)));
        depthImage.marker = inverseOf(depthImage.image, depthPoint);
    }
    if (withAmplitude) {
        const auto at = sourceIndex(rows, columns, shape.width, display, amplitudePoint);
        amplitudeImage.readout =
            readoutText("a", amplitudePoint, at < 0 ? 0 : amplitudePlane.at(static_cast<std::size_t>(at)));
        amplitudeImage.marker = inverseOf(amplitudeImage.image, amplitudePoint);
    }
}

Projection defaultProjection(cv::Size frame) {
    Projection projection;
    projection.size = frame;
    // tan(35 degrees): half of a 70 degree field of view.
    const double focal = frame.width / 2.0 / 0.7002075382097097;
    projection.intrinsics = {focal, focal, frame.width / 2.0, frame.height / 2.0};
    return projection;
}

void convertPointCloud(const std::shared_ptr<hs::LumoraFrame>& frame, const Projection& projection, cv::Size display,
                       cv::Point depthPoint, cv::Point intensityPoint, WindowImage& depthImage,
                       WindowImage* intensityImage) {
    if (!frame) return;
    const float* x = nullptr;
    const float* y = nullptr;
    const float* z = nullptr;
    const float* intensity = nullptr;
    if (const auto cloud = hs::frame_cast_pcl32f(frame)) {
        x = cloud.x();
        y = cloud.y();
        z = cloud.z();
    } else if (const auto intensityCloud = hs::frame_cast_ipcl32f(frame)) {
        x = intensityCloud.x();
        y = intensityCloud.y();
        z = intensityCloud.z();
        intensity = intensityCloud.intensity();
    } else {
        return;
    }
    const int width = frame->width();
    const int height = frame->height();
    const std::size_t count = frame->elementCount();

    std::vector<cv::Point3f> points;
    std::vector<std::uint32_t> pixels;
    points.reserve(count);
    pixels.reserve(count);
    for (std::size_t i = 0; i < count; ++i) {
        if (!(z[i] > 0.0F)) continue;
        points.emplace_back(x[i], y[i], z[i]);
        pixels.push_back(static_cast<std::uint32_t>(i));
    }

    const double sx = static_cast<double>(display.width) / projection.size.width;
    const double sy = static_cast<double>(display.height) / projection.size.height;
    const cv::Matx33d cameraMatrix(projection.intrinsics.fx * sx, 0.0, projection.intrinsics.cx * sx, 0.0,
                                   projection.intrinsics.fy * sy, projection.intrinsics.cy * sy, 0.0, 0.0, 1.0);
    const cv::Matx<double, 1, 5> distortion(projection.distortion.k1, projection.distortion.k2,
                                            projection.distortion.p1, projection.distortion.p2,
                                            projection.distortion.k3);
    static const cv::Vec3d kNoRotation(0.0, 0.0, 0.0);
    static const cv::Vec3d kNoTranslation(0.0, 0.0, 0.0);
    const auto project = [&](std::size_t begin, std::size_t end, std::vector<cv::Point2f>& out) {
        if (begin == end) return;
        const cv::Mat in(static_cast<int>(end - begin), 1, CV_32FC3, &points[begin]);
        cv::projectPoints(in, kNoRotation, kNoTranslation, cameraMatrix, distortion, out, cv::noArray(), 0.0);
    };
    const std::size_t half = points.size() < kSplitPoints ? points.size() : points.size() / 2;
    std::vector<cv::Point2f> first;
    std::vector<cv::Point2f> second;
    std::thread helper;
    if (half < points.size()) helper = std::thread(project, half, points.size(), std::ref(second));
    project(0, half, first);
    if (helper.joinable()) helper.join();

    const PackedPalette packed = packPalette();
    const DepthIndexTable& index = depthIndexTable();
    const GrayTable& gray = grayTable();
    depthImage.image = cv::Mat::zeros(display, CV_8UC3);
    if (intensityImage != nullptr && intensity != nullptr) intensityImage->image = cv::Mat::zeros(display, CV_8UC1);
    const bool withIntensity = intensityImage != nullptr && !intensityImage->image.empty();
    const auto draw = [&](const std::vector<cv::Point2f>& projected, std::size_t base) {
        for (std::size_t k = 0; k < projected.size(); ++k) {
            const float u = projected[k].x + 0.5F;
            const float v = projected[k].y + 0.5F;
            if (!(u >= 0.0F && v >= 0.0F && u < static_cast<float>(display.width) &&
                  v < static_cast<float>(display.height)))
                continue;
            const int column = static_cast<int>(u);
            const int row = static_cast<int>(v);
            const std::uint32_t pixel = pixels[base + k];
            const std::uint32_t colour = colourOf(packed, index, toSample(z[pixel] * 1000.0F));
            std::memcpy(depthImage.image.ptr<std::uint8_t>(row) + std::ptrdiff_t{3} * column, &colour, 3);
            if (withIntensity) intensityImage->image.at<std::uint8_t>(row, column) = gray[toSample(intensity[pixel])];
        }
    };
    draw(first, 0);
    draw(second, half);

    const std::vector<int> rows = nearestMap(height, display.height);
    const std::vector<int> columns = nearestMap(width, display.width);
    const auto depthAt = sourceIndex(rows, columns, width, display, depthPoint);
    depthImage.readout = readoutText("z", depthPoint, depthAt < 0 ? 0 : static_cast<int>(z[depthAt] * 1000.0));
    depthImage.marker = inverseOf(depthImage.image, depthPoint);
    if (withIntensity) {
        const auto at = sourceIndex(rows, columns, width, display, intensityPoint);
        intensityImage->readout = readoutText("a", intensityPoint, at < 0 ? 0 : toSample(intensity[at]));
        intensityImage->marker = inverseOf(intensityImage->image, intensityPoint);
    }
}

void drawMarker(WindowImage& image, cv::Point point) {
    if (image.image.empty()) return;
    cv::circle(image.image, point, 4, image.marker, -1, cv::LINE_8, 0);
}

cv::Mat framerateImage(const std::string& fpsText) {
    const int columns = 20 * static_cast<int>(fpsText.size()) - 40;
    if (columns <= 0) return {};
    cv::Mat image = cv::Mat::zeros(60, columns, CV_8UC1);
    cv::putText(image, fpsText, {30, 40}, cv::FONT_HERSHEY_DUPLEX, 1.0, {255, 255, 255}, 1, cv::LINE_8, false);
    return image;
}

std::string consoleReadout(const std::string& fpsText, const std::shared_ptr<hs::LumoraFrameList>& list) {
    std::string line = "\r" + fpsText;
    if (!list) return line;
    char value[32];
    char second[32];
    char piece[160];
    for (std::size_t f = 0; f < list->size(); ++f) {
        const auto frame = list->at(f);
        if (!frame) continue;
        const int cx = frame->width() / 2;
        const int cy = frame->height() / 2;
        const std::size_t centre = static_cast<std::size_t>(cy) * frame->width() + cx;
        const bool u16 = frame->dataType() == hs::DATA_TYPE_UINT16;
        piece[0] = '\0';
        switch (frame->frameType()) {
            case hs::LumoraFrame::FRAME_DEPTH:
            case hs::LumoraFrame::FRAME_AMPLITUDE: {
                const Plane plane(frame);
                if (!plane.valid()) break;
                std::snprintf(value, sizeof value, "%04d", plane.at(centre));
                std::snprintf(piece, sizeof piece,
                              frame->frameType() == hs::LumoraFrame::FRAME_DEPTH ? ", depth(%03d,%03d) : %s"
                                                                                 : ", amplitude(%03d,%03d) : %s",
                              cx, cy, value);
                break;
            }
            case hs::LumoraFrame::FRAME_POINTCLOUD: {
                const int zmm = u16 ? hs::frame_cast_pcl16u(frame).z()[centre]
                                    : static_cast<int>(hs::frame_cast_pcl32f(frame).z()[centre] * 1000.0);
                std::snprintf(value, sizeof value, "%04d", zmm);
                std::snprintf(piece, sizeof piece, ", PCL(%03d,%03d) : %s", cx, cy, value);
                break;
            }
            case hs::LumoraFrame::FRAME_INTENSITY_POINTCLOUD: {
                int zmm = 0;
                int level = 0;
                if (u16) {
                    const auto cloud = hs::frame_cast_ipcl16u(frame);
                    zmm = cloud.z()[centre];
                    level = cloud.intensity()[centre];
                } else {
                    const auto cloud = hs::frame_cast_ipcl32f(frame);
                    zmm = static_cast<int>(cloud.z()[centre] * 1000.0);
                    level = toSample(cloud.intensity()[centre]);
                }
                std::snprintf(value, sizeof value, "%04d", zmm);
                std::snprintf(second, sizeof second, "%04d", level);
                std::snprintf(piece, sizeof piece, ", Intensity-PCL(%03d,%03d) : %s, %s", cx, cy, value, second);
                break;
            }
            default:
                break;
        }
        line += piece;
    }
    return line;
}

}  // namespace lumora::display
