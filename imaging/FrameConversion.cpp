// Design note: large conversions share their work with the helper thread of the caller's
// conversion context (HelperThread): depth and amplitude in pieces of rows, point clouds in pieces of pixels to
// gather and project. Each piece writes only its own rows or its own part of the buffers;
// share() returns only when every piece is done and the helper has let go of the job, and
// only then are the images and buffers read (read-outs, markers, drawing in pixel order).
#include "imaging/FrameConversion.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <vector>

#include <opencv2/calib3d.hpp>
#include <opencv2/imgproc.hpp>

#include "ConversionKernels.h"
#include "imaging/ColorMaps.h"
#include "imaging/Readout.h"

namespace lumora::imaging {

namespace hs = halden::sensor;

namespace {

// Below these sizes the helper's wake-up costs more than it takes over: a cloud point costs
// about 30 ns to project, a depth and amplitude pixel well under 1 ns.
constexpr std::size_t kSplitPoints = 20000;
constexpr std::size_t kSplitPixels = 65536;
// The pieces the two threads claim: small enough that a helper waking late still finds work,
// large enough that claiming one costs little beside the work in it. Rows go in pieces of
// about 50 VGA rows: in short pieces the two threads' reads jump about too often for the
// processor's prefetching to keep up. cv::projectPoints copies a piece's points and results
// into buffers of its own (40 bytes a point): pieces of 4096 points keep those below the size
// from which the shell's allocator maps each afresh (256 KiB), whose page faults and unmapping
// would cost more than the projection itself.
constexpr std::size_t kPiecePoints = 4096;
constexpr std::size_t kPiecePixels = 32768;

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
// (and, for float data, converted) into `scratch`, which holds n samples.
const std::uint16_t* samplesOf(const std::uint16_t* source, const int* columns, int n, std::uint16_t* scratch) {
    if (columns == nullptr) return source;
    for (int i = 0; i < n; ++i)
        scratch[i] = source[columns[i]];
    return scratch;
}

const std::uint16_t* samplesOf(const float* source, const int* columns, int n, std::uint16_t* scratch) {
    if (columns == nullptr) {
        toSamples(source, n, scratch);
    } else {
        for (int i = 0; i < n; ++i)
            scratch[i] = toSample(source[columns[i]]);
    }
    return scratch;
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

cv::Scalar inverseOf(const cv::Mat& image, cv::Point point) {
    if (!inside(image.size(), point)) return {255, 255, 255, 0};
    if (image.channels() == 1) {
        const int inverse = 255 - image.at<std::uint8_t>(point);
        return {static_cast<double>(inverse), static_cast<double>(inverse), static_cast<double>(inverse), 0};
    }
    const auto pixel = image.at<cv::Vec3b>(point);
    return {255.0 - pixel[0], 255.0 - pixel[1], 255.0 - pixel[2], 0};
}

// The read-out of a cloud's depth picture at `point`: the frame's z there in millimetres,
// truncated, and the marker colour from the picture.
void readCloudDepth(const float* z, int width, int height, cv::Point point, WindowImage& picture) {
    const cv::Size display = picture.image.size();
    const auto at =
        sourceIndex(nearestMap(height, display.height), nearestMap(width, display.width), width, display, point);
    picture.readout = readoutText(point.x, point.y, 'z', at < 0 ? 0 : static_cast<int>(z[at] * 1000.0));
    picture.marker = inverseOf(picture.image, point);
}

// The x, y and z planes of a 32-bit float cloud of either type; null for other frames.
const float* cloudPlanes(const std::shared_ptr<hs::LumoraFrame>& frame) {
    if (!frame) return nullptr;
    if (const auto cloud = hs::frame_cast_pcl32f(frame)) return cloud.x();
    if (const auto cloud = hs::frame_cast_ipcl32f(frame)) return cloud.x();
    return nullptr;
}

}  // namespace

bool samePoints(const std::shared_ptr<hs::LumoraFrame>& a, const std::shared_ptr<hs::LumoraFrame>& b) {
    const float* first = cloudPlanes(a);
    const float* second = cloudPlanes(b);
    if (first == nullptr || second == nullptr || a->width() != b->width() || a->height() != b->height()) return false;
    // The planes lie back to back: x, y, then z.
    return std::memcmp(first, second, 3 * a->elementCount() * sizeof(float)) == 0;
}

void copyCloudPicture(const std::shared_ptr<hs::LumoraFrame>& frame, const WindowImage& converted, cv::Point point,
                      WindowImage& picture) {
    const float* planes = cloudPlanes(frame);
    if (planes == nullptr || converted.image.empty()) {
        picture.image.release();
        return;
    }
    converted.image.copyTo(picture.image);
    readCloudDepth(planes + 2 * frame->elementCount(), frame->width(), frame->height(), point, picture);
}

cv::Size displaySize(cv::Size frame, int displayWidth, int displayHeight) {
    if (displayWidth > 0 && displayHeight > 0 && displayWidth < frame.width && displayHeight < frame.height)
        return {displayWidth, displayHeight};
    return frame;
}

void convertDepthAmplitude(ConversionContext& context, const std::shared_ptr<hs::LumoraFrame>& depth,
                           const std::shared_ptr<hs::LumoraFrame>& amplitude, cv::Size display, cv::Point depthPoint,
                           cv::Point amplitudePoint, WindowImage& depthImage, WindowImage& amplitudeImage) {
    const Plane depthPlane(depth);
    const Plane amplitudePlane(amplitude);
    const Plane& shape = depthPlane.valid() ? depthPlane : amplitudePlane;
    depthImage.readout.clear();
    amplitudeImage.readout.clear();
    if (!shape.valid()) {
        depthImage.image.release();
        amplitudeImage.image.release();
        return;
    }
    const bool scaled = display.width != shape.width || display.height != shape.height;
    const std::vector<int> rows = nearestMap(shape.height, display.height);
    const std::vector<int> columns = nearestMap(shape.width, display.width);
    const int* columnMap = scaled ? columns.data() : nullptr;

    const TableView tables;
    const DepthColourTable& colours = tables.depthColour();
    const GrayTable& gray = tables.gray();
    const bool withDepth = depthPlane.valid() && depthPlane.width == shape.width && depthPlane.height == shape.height;
    const bool withAmplitude =
        amplitudePlane.valid() && amplitudePlane.width == shape.width && amplitudePlane.height == shape.height;
    if (withDepth)
        depthImage.image.create(display, CV_8UC3);
    else
        depthImage.image.release();
    if (withAmplitude)
        amplitudeImage.image.create(display, CV_8UC1);
    else
        amplitudeImage.image.release();

    // Rows are independent: pieces of them go to this thread and its helper.
    const HelperThread::Work rowsOf = [&](std::size_t begin, std::size_t end) {
        std::vector<std::uint16_t> scratch(static_cast<std::size_t>(display.width));
        const auto samples = [&](const Plane& plane, std::size_t offset) {
            return plane.u16 ? samplesOf(plane.u16 + offset, columnMap, display.width, scratch.data())
                             : samplesOf(plane.f32 + offset, columnMap, display.width, scratch.data());
        };
        for (auto y = static_cast<int>(begin); y < static_cast<int>(end); ++y) {
            const std::size_t offset = static_cast<std::size_t>(rows[static_cast<std::size_t>(y)]) * shape.width;
            if (withDepth)
                colourRow(samples(depthPlane, offset), display.width, depthImage.image.ptr<std::uint8_t>(y), colours);
            if (withAmplitude)
                grayRow(samples(amplitudePlane, offset), display.width, amplitudeImage.image.ptr<std::uint8_t>(y),
                        gray);
        }
    };
    const auto height = static_cast<std::size_t>(display.height);
    if (static_cast<std::size_t>(display.area()) >= kSplitPixels)
        context.helper.share(height, std::max<std::size_t>(1, kPiecePixels / display.width), rowsOf);
    else
        rowsOf(0, height);

    if (withDepth) {
        const auto at = sourceIndex(rows, columns, shape.width, display, depthPoint);
        depthImage.readout =
            readoutText(depthPoint.x, depthPoint.y, 'd', at < 0 ? 0 : depthPlane.at(static_cast<std::size_t>(at)));
        depthImage.marker = inverseOf(depthImage.image, depthPoint);
    }
    if (withAmplitude) {
        const auto at = sourceIndex(rows, columns, shape.width, display, amplitudePoint);
        amplitudeImage.readout = readoutText(amplitudePoint.x, amplitudePoint.y, 'a',
                                             at < 0 ? 0 : amplitudePlane.at(static_cast<std::size_t>(at)));
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

void convertPointCloud(ConversionContext& context, const std::shared_ptr<hs::LumoraFrame>& frame,
                       const Projection& projection, cv::Size display, cv::Point depthPoint, cv::Point intensityPoint,
                       WindowImage& depthImage, WindowImage* intensityImage) {
    const auto leaveEmpty = [&] {
        depthImage.image.release();
        if (intensityImage != nullptr) intensityImage->image.release();
    };
    if (!frame) return leaveEmpty();
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
        return leaveEmpty();
    }
    const int width = frame->width();
    const int height = frame->height();
    const std::size_t count = frame->elementCount();

    const double sx = static_cast<double>(display.width) / projection.size.width;
    const double sy = static_cast<double>(display.height) / projection.size.height;
    const cv::Matx33d cameraMatrix(projection.intrinsics.fx * sx, 0.0, projection.intrinsics.cx * sx, 0.0,
                                   projection.intrinsics.fy * sy, projection.intrinsics.cy * sy, 0.0, 0.0, 1.0);
    const cv::Matx<double, 1, 5> distortion(projection.distortion.k1, projection.distortion.k2,
                                            projection.distortion.p1, projection.distortion.p2,
                                            projection.distortion.k3);
    static const cv::Vec3d kNoRotation(0.0, 0.0, 0.0);
    static const cv::Vec3d kNoTranslation(0.0, 0.0, 0.0);

    const bool withIntensity = intensityImage != nullptr && intensity != nullptr;
    const TableView tables;
    const DepthColourTable& colours = tables.depthColour();
    const GrayTable& gray = tables.gray();

    // Each piece gathers the points with z > 0 of its own pixels to the start of its own part
    // of the buffers, in pixel order, projects them in place, and works out for each where it
    // lands and in what colour; only the drawing, in pixel order, is left to this thread.
    ConversionContext::CloudBuffers& buffers = context.cloud;
    const auto slots = static_cast<int>(count);
    buffers.points.create(slots, 1, CV_32FC3);
    buffers.projected.create(slots, 1, CV_32FC2);
    buffers.pixels.create(slots, 1, CV_32SC1);
    buffers.colours.create(slots, 1, CV_32SC1);
    if (withIntensity) buffers.levels.create(slots, 1, CV_8UC1);
    auto* const points = buffers.points.ptr<cv::Point3f>();
    auto* const projected = buffers.projected.ptr<cv::Point2f>();
    // A kept point's pixel number, until it is replaced by where the point lands.
    auto* const pixelOf = buffers.pixels.ptr<std::int32_t>();
    auto* const colourOfPoint = buffers.colours.ptr<std::uint32_t>();
    auto* const levelOfPoint = withIntensity ? buffers.levels.ptr<std::uint8_t>() : nullptr;
    const std::size_t piece = kPiecePoints;
    std::vector<std::size_t> kept((count + piece - 1) / piece);
    const HelperThread::Work gatherAndProject = [&](std::size_t begin, std::size_t end) {
        cv::Point3f* const point = points + begin;
        std::int32_t* const pixel = pixelOf + begin;
        const std::size_t n = gatherPoints(x, y, z, begin, end, point, pixel);
        kept[begin / piece] = n;
        if (n == 0) return;
        const cv::Mat in(static_cast<int>(n), 1, CV_32FC3, point);
        cv::Mat out(static_cast<int>(n), 1, CV_32FC2, projected + begin);
        cv::projectPoints(in, kNoRotation, kNoTranslation, cameraMatrix, distortion, out, cv::noArray(), 0.0);
        placePoints(point, projected + begin, n, display, intensity, colours, gray, pixel, colourOfPoint + begin,
                    withIntensity ? levelOfPoint + begin : nullptr);
    };
    if (count >= kSplitPoints)
        context.helper.share(count, piece, gatherAndProject);
    else
        for (std::size_t begin = 0; begin < count; begin += piece)
            gatherAndProject(begin, std::min(count, begin + piece));

    depthImage.image.create(display, CV_8UC3);
    depthImage.image.setTo(cv::Scalar::all(0));
    if (withIntensity) {
        intensityImage->image.create(display, CV_8UC1);
        intensityImage->image.setTo(cv::Scalar::all(0));
    } else if (intensityImage != nullptr) {
        intensityImage->image.release();
    }
    std::uint8_t* const colourPixels = depthImage.image.data;
    std::uint8_t* const levelPixels = withIntensity ? intensityImage->image.data : nullptr;
    // In pixel order: where points meet, the later one shows.
    for (std::size_t p = 0; p < kept.size(); ++p) {
        const std::size_t begin = p * piece;
        for (std::size_t k = begin; k < begin + kept[p]; ++k) {
            const std::int32_t at = pixelOf[k];
            if (at < 0) continue;
            std::memcpy(colourPixels + std::ptrdiff_t{3} * at, &colourOfPoint[k], 3);
            if (levelPixels != nullptr) levelPixels[at] = levelOfPoint[k];
        }
    }

    readCloudDepth(z, width, height, depthPoint, depthImage);
    if (withIntensity) {
        const std::vector<int> rows = nearestMap(height, display.height);
        const std::vector<int> columns = nearestMap(width, display.width);
        const auto at = sourceIndex(rows, columns, width, display, intensityPoint);
        intensityImage->readout =
            readoutText(intensityPoint.x, intensityPoint.y, 'a', at < 0 ? 0 : toSample(intensity[at]));
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
        // A frame of no pixels has no centre to read.
        if (!frame || frame->width() <= 0 || frame->height() <= 0) continue;
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

}  // namespace lumora::imaging
