// Design note: large conversions share their work with the calling thread's helper
// (HelperThread): depth and amplitude in pieces of rows, point clouds in pieces of pixels to
// gather and project. Each piece writes only its own rows or its own part of the buffers;
// share() returns only when every piece is done and the helper has let go of the job, and
// only then are the images and buffers read (read-outs, markers, drawing in pixel order).
#include "FrameConversion.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <vector>

#if defined(__x86_64__)
#include <immintrin.h>
#endif

#include <opencv2/calib3d.hpp>
#include <opencv2/core/hal/intrin.hpp>
#include <opencv2/imgproc.hpp>

#include "ColorMaps.h"
#include "HelperThread.h"

namespace lumora::display {

namespace hs = halden::sensor;

namespace {

// Below these sizes the helper's wake-up costs more than it takes over: a cloud point costs
// about 30 ns to project, a depth and amplitude pixel well under 1 ns.
constexpr std::size_t kSplitPoints = 20000;
constexpr std::size_t kSplitPixels = 65536;
// The pieces the two threads claim: small enough that a helper waking late still finds work,
// large enough that claiming one costs little beside the work in it. Rows go in pieces of
// about 50 VGA rows: in short pieces the two threads' reads jump about too often for the
// processor's prefetching to keep up.
constexpr std::size_t kPiecePoints = 16384;
constexpr std::size_t kPiecePixels = 32768;

// Float samples read as the nearest integer within the 16-bit range, halves up, without
// libm. Anything below 0.5 (NaN and negatives too: they fail the comparison) reads 0; from
// 0.5 on, v + 0.5 truncated is the same half-up rounding, as the sum is exact or rounds
// within the same integer there. 0.5 minus an ulp, whose sum would round up to 1, is below
// the cut. The vector forms below follow this rule lane by lane.
inline std::uint16_t toSample(float value) {
    value = value > 65535.0F ? 65535.0F : value;
    return value >= 0.5F ? static_cast<std::uint16_t>(static_cast<std::int32_t>(value + 0.5F)) : 0;
}

inline std::uint32_t colourOf(const DepthColourTable& colours, std::uint16_t depth) {
    return colours[depth].load(std::memory_order_relaxed);
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
// (and, for float data, converted) into `scratch`, which holds n samples.
const std::uint16_t* samplesOf(const std::uint16_t* source, const int* columns, int n, std::uint16_t* scratch) {
    if (columns == nullptr) return source;
    for (int i = 0; i < n; ++i)
        scratch[i] = source[columns[i]];
    return scratch;
}
#if CV_SIMD128
// toSample on four floats.
inline cv::v_int32x4 toSamples4(cv::v_float32x4 value) {
    const cv::v_float32x4 half = cv::v_setall_f32(0.5F);
    value = cv::v_min(value & (value >= half), cv::v_setall_f32(65535.0F));
    return cv::v_trunc(value + half);
}
#endif

#if defined(__x86_64__) && (defined(__GNUC__) || defined(__clang__))
#define LUMORA_WIDE_SAMPLES 1
// toSample sixteen at a time, for processors with 512-bit vectors: a float row's
// conversion is a third of its time, and reading the floats bounds it. The minimum keeps a
// NaN (it is the second operand), which then fails the comparison and reads 0.
__attribute__((target("avx512f,avx512bw"))) void toSamplesWide(const float* source, int n, std::uint16_t* out) {
    const __m512 half = _mm512_set1_ps(0.5F);
    const __m512 top = _mm512_set1_ps(65535.0F);
    constexpr __mmask16 kAll = 0xFFFF;
    int i = 0;
    for (; i + 16 <= n; i += 16) {
        // The masked forms throughout: g++ 12's plain ones warn of their own undefined operand.
        const __m512 value = _mm512_mask_min_ps(top, kAll, top, _mm512_loadu_ps(source + i));
        const __mmask16 rounded = _mm512_cmp_ps_mask(value, half, _CMP_GE_OQ);
        const __m512i whole = _mm512_maskz_cvttps_epi32(kAll, _mm512_maskz_add_ps(rounded, value, half));
        _mm512_mask_cvtepi32_storeu_epi16(out + i, kAll, whole);
    }
    for (; i < n; ++i)
        out[i] = toSample(source[i]);
}

// Asked once, at load: the processor does not change under a running program. This may run
// before the run-time library's own look at the processor, so it asks for that first.
bool hasWideSamples() {
    __builtin_cpu_init();
    return __builtin_cpu_supports("avx512bw") != 0;
}
const bool kWideSamples = hasWideSamples();
#endif

// toSample on n floats, eight at a time in vector registers where the platform has them,
// sixteen where it has 512-bit ones.
void toSamples(const float* source, int n, std::uint16_t* out) {
#ifdef LUMORA_WIDE_SAMPLES
    if (kWideSamples) {
        toSamplesWide(source, n, out);
        return;
    }
#endif
    int i = 0;
#if CV_SIMD128
    // Offset into the signed 16-bit range for a plain saturating pack, then back.
    const cv::v_int32x4 offset = cv::v_setall_s32(32768);
    const cv::v_uint16x8 sign = cv::v_setall_u16(0x8000);
    for (; i + 8 <= n; i += 8) {
        const cv::v_int32x4 low = toSamples4(cv::v_load(source + i)) - offset;
        const cv::v_int32x4 high = toSamples4(cv::v_load(source + i + 4)) - offset;
        cv::v_store(out + i, cv::v_reinterpret_as_u16(cv::v_pack(low, high)) ^ sign);
    }
#endif
    for (; i < n; ++i)
        out[i] = toSample(source[i]);
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

// Writes n colour pixels, eight at a time as three 8-byte words: the fewest stores, and each
// sample's load feeds its table's load directly.
void colourRow(const std::uint16_t* samples, int n, std::uint8_t* out, const DepthColourTable& colours) {
    int i = 0;
    for (; i + 8 <= n; i += 8, out += 24) {
        // Named, not an array: relaxed loads into an array go through the stack.
        const std::uint64_t c0 = colourOf(colours, samples[i]);
        const std::uint64_t c1 = colourOf(colours, samples[i + 1]);
        const std::uint64_t c2 = colourOf(colours, samples[i + 2]);
        const std::uint64_t c3 = colourOf(colours, samples[i + 3]);
        const std::uint64_t c4 = colourOf(colours, samples[i + 4]);
        const std::uint64_t c5 = colourOf(colours, samples[i + 5]);
        const std::uint64_t c6 = colourOf(colours, samples[i + 6]);
        const std::uint64_t c7 = colourOf(colours, samples[i + 7]);
        const std::uint64_t first = c0 | c1 << 24U | c2 << 48U;
        const std::uint64_t second = c2 >> 16U | c3 << 8U | c4 << 32U | c5 << 56U;
        const std::uint64_t third = c5 >> 8U | c6 << 16U | c7 << 40U;
        std::memcpy(out, &first, 8);
        std::memcpy(out + 8, &second, 8);
        std::memcpy(out + 16, &third, 8);
    }
    for (; i < n; ++i, out += 3) {
        const std::uint32_t pixel = colourOf(colours, samples[i]);
        std::memcpy(out, &pixel, 3);
    }
}

void grayRow(const std::uint16_t* samples, int n, std::uint8_t* out, const GrayTable& gray) {
    int i = 0;
    for (; i + 8 <= n; i += 8) {
        std::uint64_t word = 0;
        for (int k = 0; k < 8; ++k)
            word |= static_cast<std::uint64_t>(gray[samples[i + k]]) << (8U * k);
        std::memcpy(out + i, &word, 8);
    }
    for (; i < n; ++i)
        out[i] = gray[samples[i]];
}

// Copies the points of pixels [begin, end) with z > 0 to `points` and their pixel numbers
// to `pixels`, in pixel order, and returns how many there are. Four pixels that all have
// z > 0 are copied at once in vector registers where the platform has them.
std::size_t gatherPoints(const float* x, const float* y, const float* z, std::size_t begin, std::size_t end,
                         cv::Point3f* points, std::int32_t* pixels) {
    std::size_t n = 0;
    std::size_t i = begin;
    const auto one = [&](std::size_t at) {
        points[n] = {x[at], y[at], z[at]};
        pixels[n] = static_cast<std::int32_t>(at);
        n += z[at] > 0.0F ? 1 : 0;
    };
#if CV_SIMD128
    const cv::v_float32x4 zero = cv::v_setzero_f32();
    const auto first = static_cast<int>(begin);
    cv::v_int32x4 numbers(first, first + 1, first + 2, first + 3);
    const cv::v_int32x4 four = cv::v_setall_s32(4);
    for (; i + 4 <= end; i += 4, numbers += four) {
        const cv::v_float32x4 depth = cv::v_load(z + i);
        if (cv::v_check_all(depth > zero)) {
            cv::v_store_interleave(&points[n].x, cv::v_load(x + i), cv::v_load(y + i), depth);
            cv::v_store(pixels + n, numbers);
            n += 4;
        } else {
            for (std::size_t at = i; at < i + 4; ++at)
                one(at);
        }
    }
#endif
    for (; i < end; ++i)
        one(i);
    return n;
}

// For n projected points: their colour from z in millimetres into `colour`, their gray level
// into `level` when there is one (read through their pixel numbers, which `landing` holds on
// entry), then where each lands into `landing`: its pixel's number in the image, row by row,
// or -1 off the image. Four at a time in vector registers where the platform has them.
void placePoints(const cv::Point3f* points, const cv::Point2f* shown, std::size_t n, cv::Size display,
                 const float* intensity, const DepthColourTable& colours, const GrayTable& gray, std::int32_t* landing,
                 std::uint32_t* colour, std::uint8_t* level) {
    if (level != nullptr)
        for (std::size_t k = 0; k < n; ++k)
            level[k] = gray[toSample(intensity[landing[k]])];
    const auto width = static_cast<float>(display.width);
    const auto height = static_cast<float>(display.height);
    std::size_t k = 0;
#if CV_SIMD128
    const cv::v_float32x4 zero = cv::v_setzero_f32();
    const cv::v_float32x4 half = cv::v_setall_f32(0.5F);
    const cv::v_float32x4 thousand = cv::v_setall_f32(1000.0F);
    const cv::v_float32x4 right = cv::v_setall_f32(width);
    const cv::v_float32x4 bottom = cv::v_setall_f32(height);
    const cv::v_int32x4 rowLength = cv::v_setall_s32(display.width);
    const cv::v_int32x4 offImage = cv::v_setall_s32(-1);
    std::array<std::int32_t, 4> samples{};
    for (; k + 4 <= n; k += 4) {
        cv::v_float32x4 x;
        cv::v_float32x4 y;
        cv::v_float32x4 z;
        cv::v_load_deinterleave(&points[k].x, x, y, z);
        cv::v_store(samples.data(), toSamples4(z * thousand));
        for (std::size_t j = 0; j < 4; ++j)
            colour[k + j] = colourOf(colours, static_cast<std::uint16_t>(samples[j]));
        cv::v_float32x4 u;
        cv::v_float32x4 v;
        cv::v_load_deinterleave(&shown[k].x, u, v);
        u = u + half;
        v = v + half;
        const cv::v_float32x4 onImage = (u >= zero) & (v >= zero) & (u < right) & (v < bottom);
        const cv::v_int32x4 at = cv::v_trunc(v) * rowLength + cv::v_trunc(u);
        cv::v_store(landing + k, cv::v_select(cv::v_reinterpret_as_s32(onImage), at, offImage));
    }
#endif
    for (; k < n; ++k) {
        const float u = shown[k].x + 0.5F;
        const float v = shown[k].y + 0.5F;
        colour[k] = colourOf(colours, toSample(points[k].z * 1000.0F));
        const bool onImage = u >= 0.0F && v >= 0.0F && u < width && v < height;
        landing[k] = onImage ? static_cast<int>(v) * display.width + static_cast<int>(u) : -1;
    }
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

    const DepthColourTable& colours = depthColourTable();
    const GrayTable& gray = grayTable();
    const bool withDepth = depthPlane.valid() && depthPlane.width == shape.width && depthPlane.height == shape.height;
    const bool withAmplitude =
        amplitudePlane.valid() && amplitudePlane.width == shape.width && amplitudePlane.height == shape.height;
    if (withDepth) depthImage.image.create(display, CV_8UC3);
    if (withAmplitude) amplitudeImage.image.create(display, CV_8UC1);

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
        helperOfThisThread().share(height, std::max<std::size_t>(1, kPiecePixels / display.width), rowsOf);
    else
        rowsOf(0, height);

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
    const DepthColourTable& colours = depthColourTable();
    const GrayTable& gray = grayTable();

    // Each piece gathers the points with z > 0 of its own pixels to the start of its own part
    // of the buffers, in pixel order, projects them in place, and works out for each where it
    // lands and in what colour; only the drawing, in pixel order, is left to this thread.
    // Kept for the caller's next frame: fresh buffers this large come from the kernel each
    // time, at a page fault per 4 KiB. The helper reaches them through these pointers, not
    // through the names, which would give it its own.
    thread_local cv::Mat pointBuffer;
    thread_local cv::Mat projectedBuffer;
    thread_local cv::Mat pixelBuffer;
    thread_local cv::Mat colourBuffer;
    thread_local cv::Mat levelBuffer;
    const auto slots = static_cast<int>(count);
    pointBuffer.create(slots, 1, CV_32FC3);
    projectedBuffer.create(slots, 1, CV_32FC2);
    pixelBuffer.create(slots, 1, CV_32SC1);
    colourBuffer.create(slots, 1, CV_32SC1);
    if (withIntensity) levelBuffer.create(slots, 1, CV_8UC1);
    auto* const points = pointBuffer.ptr<cv::Point3f>();
    auto* const projected = projectedBuffer.ptr<cv::Point2f>();
    // A kept point's pixel number, until it is replaced by where the point lands.
    auto* const pixelOf = pixelBuffer.ptr<std::int32_t>();
    auto* const colourOfPoint = colourBuffer.ptr<std::uint32_t>();
    auto* const levelOfPoint = withIntensity ? levelBuffer.ptr<std::uint8_t>() : nullptr;
    const std::size_t piece = count >= kSplitPoints ? kPiecePoints : std::max<std::size_t>(count, 1);
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
        helperOfThisThread().share(count, piece, gatherAndProject);
    else if (count > 0)
        gatherAndProject(0, count);

    depthImage.image = cv::Mat::zeros(display, CV_8UC3);
    if (withIntensity) intensityImage->image = cv::Mat::zeros(display, CV_8UC1);
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
