#include "Scene.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cmath>
#include <cstring>
#include <random>

namespace halden::sensor::sim {

namespace {

constexpr double kPi = 3.14159265358979323846;
constexpr float kPitch = 8.0F * static_cast<float>(kPi) / 180.0F;  // the camera looks slightly down
constexpr float kCameraHeight = 0.9F;                              // above the floor, metres
constexpr float kCeilingAbove = 1.6F;
constexpr float kSideWall = 2.0F;
constexpr float kAmbient = 4.0F;      // amplitude of ambient light, also with illumination off
constexpr float kDepthNoise = 70.0F;  // depth noise in mm at amplitude 1, falling with its root
constexpr int kIntegrationTimeUs = 1000;
// Four times the white target of the model's gain: a wall turned by 30 degrees 3 m away
// stays well above the default amplitude threshold across a 70 degree view.
constexpr float kWallReflectivity = 4.0F;
constexpr float kNowhere = 1e6F;  // the depth (mm) of a ray that meets nothing: out of any range

std::atomic<std::uint64_t> gRenderedLists{0};

// Gaussian noise of unit deviation, the same in every process. A list reads it from an
// offset of its own, so the draws of pixels 65536 apart in one list are equal, and those
// of two lists are the same run shifted: cheap, and fine for a picture, but not noise that
// is independent per pixel (drawNoise() makes that).
constexpr std::size_t kNoiseSize = 1U << 16;
const std::array<float, kNoiseSize>& noise_table() {
    static const auto table = [] {
        std::array<float, kNoiseSize> values{};
        std::mt19937 random(20261121U);
        std::normal_distribution<float> normal(0.0F, 1.0F);
        for (auto& value : values)
            value = std::clamp(normal(random), -4.0F, 4.0F);
        return values;
    }();
    return table;
}

std::uint32_t mix(std::uint32_t x) {
    x ^= x >> 16;
    x *= 0x7feb352dU;
    x ^= x >> 15;
    x *= 0x846ca68bU;
    x ^= x >> 16;
    return x;
}

// Rounds a value that is not negative, in a way that vectorises (std::lround does not).
inline float round_half_up(float value) {
    return static_cast<float>(static_cast<int>(value + 0.5F));  // NOLINT(bugprone-incorrect-roundings)
}

// A reading that is not negative as 16-bit data, rounded and saturated.
inline std::uint16_t to_u16(float value) {
    return static_cast<std::uint16_t>(
        static_cast<int>(std::min(value, 65535.0F) + 0.5F));  // NOLINT(bugprone-incorrect-roundings)
}

// A signed coordinate in millimetres, rounded, as the two's-complement bits of 16-bit data.
std::uint16_t signed_millimetres(float value) {
    const float rounded = value + (value >= 0.0F ? 0.5F : -0.5F);
    return static_cast<std::uint16_t>(static_cast<std::int16_t>(std::clamp(rounded, -32768.0F, 32767.0F)));
}

void put_le(std::uint8_t* out, std::uint64_t value, std::size_t bytes) {
    for (std::size_t i = 0; i < bytes; ++i)
        out[i] = static_cast<std::uint8_t>(value >> (8 * i));
}

LensCalibration make_lens(int width, int height, double horizontalFov, int lens) {
    LensCalibration c;
    const double fx = (width / 2.0) / std::tan(horizontalFov * kPi / 360.0);
    c.intrinsics = {fx, fx * 1.002, width / 2.0 - 0.5 + 1.25 - lens * 0.5, height / 2.0 - 0.5 - 0.75};
    const double wide = horizontalFov / 70.0;
    c.distortion = {-0.12 * wide, 0.03 * wide, -0.004, 0.0005, -0.0003, 0.0};
    c.extrinsics.tx = 0.05 * lens;
    c.fov.horizontal = horizontalFov;
    c.fov.vertical = 2.0 * std::atan((height / 2.0) / c.intrinsics.fy) * 180.0 / kPi;
    return c;
}

}  // namespace

Scene::Scene(const DeviceConfig& device, const ModelInfo& model)
    : mWidth(device.width),
      mHeight(device.height),
      mGain(model.amplitudeGain),
      // The far wall stands well inside the model's range, so that only dim pixels go missing.
      mBackWall(std::min(4.5F, 0.75F * static_cast<float>(model.rangeMax) / 1000.0F)),
      mLenses(lensesOf(device, model)) {
    const std::size_t pixels = static_cast<std::size_t>(mWidth) * mHeight;
    mRayX.resize(pixels);
    mRayY.resize(pixels);
    mViewDepth.resize(pixels);
    mViewLight.resize(pixels);
    mLitAmplitude.resize(pixels);
    mDepthSigma.resize(pixels);
    mAmplitudeSigma.resize(pixels);
    mDepth.resize(pixels);
    mAmplitude.resize(pixels);
    buildRays();
    buildRoom();
}

std::vector<LensCalibration> Scene::lensesOf(const DeviceConfig& device, const ModelInfo& model) {
    std::vector<LensCalibration> lenses;
    lenses.reserve(static_cast<std::size_t>(model.lensCount));
    for (int lens = 0; lens < model.lensCount; ++lens)
        lenses.push_back(make_lens(device.width, device.height, model.horizontalFov, lens));
    return lenses;
}

double Scene::temperatureAt(double seconds) {
    return 38.0 + 4.0 * (1.0 - std::exp(-seconds / 120.0)) + 0.2 * std::sin(seconds / 7.0);
}

// Rays come from undistorting each pixel centre, so projecting a point of the cloud with
// the published calibration lands back on its pixel.
void Scene::buildRays() {
    const auto& k = mLenses.front().intrinsics;
    const auto& d = mLenses.front().distortion;
    for (int v = 0; v < mHeight; ++v) {
        for (int u = 0; u < mWidth; ++u) {
            const double xd = (u - k.cx) / k.fx;
            const double yd = (v - k.cy) / k.fy;
            double x = xd;
            double y = yd;
            for (int iteration = 0; iteration < 20; ++iteration) {
                const double r2 = x * x + y * y;
                const double radial = 1.0 + r2 * (d.k1 + r2 * (d.k2 + r2 * d.k3));
                const double dx = 2.0 * d.p1 * x * y + d.p2 * (r2 + 2.0 * x * x);
                const double dy = d.p1 * (r2 + 2.0 * y * y) + 2.0 * d.p2 * x * y;
                x = (xd - dx) / radial;
                y = (yd - dy) / radial;
            }
            const std::size_t i = static_cast<std::size_t>(v) * mWidth + u;
            mRayX[i] = static_cast<float>(x);
            mRayY[i] = static_cast<float>(y);
        }
    }
}

// The empty room: the nearest of six planes along each ray, lit by the camera's own
// illumination (falling with the square of the distance and with the angle of incidence).
void Scene::buildRoom() {
    const float s = std::sin(kPitch);
    const float c = std::cos(kPitch);
    struct Plane {
        float nx, ny, nz, distance;
    };
    // Normals in camera space (x right, y down, z forward), pointing away from the camera.
    const std::array<Plane, 5> planes = {{
        {0.0F, c, s, kCameraHeight},     // floor
        {0.0F, -c, -s, kCeilingAbove},   // ceiling
        {0.0F, -s, c, mBackWall},        // back wall
        {1.0F, 0.0F, 0.0F, kSideWall},   // right wall
        {-1.0F, 0.0F, 0.0F, kSideWall},  // left wall
    }};
    for (std::size_t i = 0; i < mRayX.size(); ++i) {
        const float rx = mRayX[i];
        const float ry = mRayY[i];
        const float length = std::sqrt(rx * rx + ry * ry + 1.0F);
        float bestZ = 1e9F;
        std::size_t bestPlane = 0;
        float bestCos = 1.0F;
        for (std::size_t p = 0; p < planes.size(); ++p) {
            const float facing = planes[p].nx * rx + planes[p].ny * ry + planes[p].nz;
            if (facing <= 1e-6F) continue;
            const float z = planes[p].distance / facing;
            if (z < bestZ) {
                bestZ = z;
                bestPlane = p;
                bestCos = facing / length;
            }
        }
        // World position of the hit: right, forward (horizontal) and height above the floor.
        const float px = rx * bestZ;
        const float py = ry * bestZ;
        const float forward = -s * py + c * bestZ;
        const float up = kCameraHeight - (c * py + s * bestZ);
        float reflectivity = 0.6F;
        if (bestPlane == 0) {
            const bool dark =
                ((static_cast<int>(std::floor(px / 0.5F)) + static_cast<int>(std::floor(forward / 0.5F))) & 1) != 0;
            reflectivity = dark ? 0.35F : 0.55F;
        } else if (bestPlane == 1) {
            reflectivity = 0.7F;
        } else if (bestPlane == 2) {
            const bool door = px > -1.4F && px < -0.6F && up < 2.0F;
            reflectivity = door ? 0.25F : 0.8F;
        }
        const float distance = bestZ * length;
        mViewDepth[i] = bestZ * 1000.0F;
        mViewLight[i] = static_cast<float>(mGain) * reflectivity * bestCos / (distance * distance);
    }
}

// The wall n . p = distance * cos(a) with n = (sin a, 0, cos a): each ray (x, y, 1) meets it
// at z = distance * cos(a) / (x sin a + cos a), or not at all when it runs parallel or away.
void Scene::buildWall(double distance, double angle) {
    const double radians = angle * kPi / 180.0;
    const double s = std::sin(radians);
    const double c = std::cos(radians);
    for (std::size_t i = 0; i < mRayX.size(); ++i) {
        const double facing = mRayX[i] * s + c;
        if (facing <= 1e-6) {
            mViewDepth[i] = kNowhere;
            mViewLight[i] = 0.0F;
            continue;
        }
        const double z = distance * c / facing;  // millimetres
        const double length = std::sqrt(double{mRayX[i]} * mRayX[i] + double{mRayY[i]} * mRayY[i] + 1.0);
        const double metres = z * length / 1000.0;
        mViewDepth[i] = static_cast<float>(z);
        mViewLight[i] = static_cast<float>(mGain * kWallReflectivity * (facing / length) / (metres * metres));
    }
}

Scene::Ball Scene::ballAt(double seconds) const {
    const float s = std::sin(kPitch);
    const float c = std::cos(kPitch);
    const float radius = 0.3F;
    const auto x = static_cast<float>(1.0 * std::sin(2.0 * kPi * seconds / 6.0));
    const auto forward = static_cast<float>(2.4 + 0.5 * std::sin(2.0 * kPi * seconds / 4.3));
    const auto down =
        static_cast<float>(kCameraHeight - radius - 0.25 * std::fabs(std::sin(2.0 * kPi * seconds / 1.7)));
    return {x, down * c - forward * s, down * s + forward * c, radius};
}

namespace {

// The sensor's true amplitude is the reflected light plus ambient light; noise of both
// readings falls with the root of it.
struct Reading {
    float amplitude;
    float root;
};

inline Reading reading(float light, float illumination) {
    const float amplitude = light * illumination + kAmbient;
    return {amplitude, std::sqrt(amplitude + 1.0F)};
}

// What the sensor reports for one pixel: the noisy depth, missing (0) when the amplitude is
// too low or the depth out of range.
struct PixelRule {
    float threshold;
    float rangeMin;
    float rangeMax;
};

template <bool Integral>
inline void report(float depth, float amplitude, const PixelRule& rule, float& outDepth, float& outAmplitude) {
    amplitude = std::max(amplitude, 0.0F);
    if (Integral) depth = round_half_up(depth);
    // Bitwise, not short-circuit: no branch, so the loops around this vectorise.
    const bool valid = (amplitude >= rule.threshold) & (depth >= rule.rangeMin) & (depth <= rule.rangeMax);
    outDepth = valid ? depth : 0.0F;
    outAmplitude = amplitude;
}

// The view's pixels in runs of contiguous table noise, so that the loops vectorise. Depth
// noise is the table's scaled by `depthSigma`, or, when `drawn` is given, drawn[i] itself.
template <bool Integral>
void report_view(std::size_t pixels, std::uint32_t depthOffset, std::uint32_t amplitudeOffset, const PixelRule& rule,
                 const float* __restrict viewDepth, const float* __restrict amplitudes,
                 const float* __restrict depthSigma, const float* __restrict amplitudeSigma,
                 const float* __restrict drawn, float* __restrict outDepth, float* __restrict outAmplitude) {
    const float* noise = noise_table().data();
    for (std::size_t begin = 0; begin < pixels;) {
        const std::size_t depthStart = (begin + depthOffset) & (kNoiseSize - 1);
        const std::size_t amplitudeStart = (begin + amplitudeOffset) & (kNoiseSize - 1);
        const std::size_t run = std::min({pixels - begin, kNoiseSize - depthStart, kNoiseSize - amplitudeStart});
        const float* __restrict depthNoise = noise + depthStart;
        const float* __restrict amplitudeNoise = noise + amplitudeStart;
        if (drawn != nullptr) {
            for (std::size_t k = 0; k < run; ++k) {
                const std::size_t i = begin + k;
                report<Integral>(viewDepth[i] + drawn[i], amplitudes[i] + amplitudeNoise[k] * amplitudeSigma[i], rule,
                                 outDepth[i], outAmplitude[i]);
            }
        } else {
            for (std::size_t k = 0; k < run; ++k) {
                const std::size_t i = begin + k;
                report<Integral>(viewDepth[i] + depthNoise[k] * depthSigma[i],
                                 amplitudes[i] + amplitudeNoise[k] * amplitudeSigma[i], rule, outDepth[i],
                                 outAmplitude[i]);
            }
        }
        begin += run;
    }
}

// 64 random bits at `index` of a SplitMix64 stream: a pure function of the index.
inline std::uint64_t split_mix(std::uint64_t index) {
    std::uint64_t z = 0x6A09E667F3BCC909ULL + (index + 1) * 0x9E3779B97F4A7C15ULL;
    z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ULL;
    z = (z ^ (z >> 27)) * 0x94D049BB133111EBULL;
    return z ^ (z >> 31);
}

}  // namespace

void Scene::light(bool illumination) {
    if (mLitFor == static_cast<int>(illumination)) return;
    for (std::size_t i = 0; i < mViewLight.size(); ++i) {
        const Reading r = reading(mViewLight[i], illumination ? 1.0F : 0.0F);
        mLitAmplitude[i] = r.amplitude;
        mDepthSigma[i] = kDepthNoise / r.root;
        mAmplitudeSigma[i] = 0.5F * r.root;
    }
    mLitFor = static_cast<int>(illumination);
}

// Each pair of pixels takes one draw of the stream, at the list's number above the pair's,
// and makes two independent values of it (Box-Muller).
void Scene::drawNoise(std::uint32_t frameNumber, float sigma) {
    mDepthNoise.resize(mDepth.size());
    const std::size_t pixels = mDepthNoise.size();
    const std::uint64_t list = std::uint64_t{frameNumber} << 32;
    constexpr float kTurn = 2.0F * static_cast<float>(kPi);
    for (std::size_t pair = 0; 2 * pair < pixels; ++pair) {
        const std::uint64_t bits = split_mix(list | pair);
        const float u = (static_cast<float>(bits >> 40) + 0.5F) * 0x1p-24F;  // in (0, 1)
        const float turn = static_cast<float>(bits & 0xFFFFFFU) * 0x1p-24F;
        const float radius = sigma * std::sqrt(-2.0F * std::log(u));
        mDepthNoise[2 * pair] = radius * std::cos(kTurn * turn);
        if (2 * pair + 1 < pixels) mDepthNoise[2 * pair + 1] = radius * std::sin(kTurn * turn);
    }
}

void Scene::shade(std::uint32_t frameNumber, const SceneSettings& settings) {
    if (!mView.sameView(settings.scene)) {
        if (settings.scene.wall) {
            buildWall(settings.scene.distance, settings.scene.angle);
        } else {
            buildRoom();
        }
        mView = settings.scene;
        mLitFor = -1;
    }
    light(settings.illumination);
    const PixelRule rule{static_cast<float>(settings.amplitudeThreshold), static_cast<float>(settings.rangeMin),
                         static_cast<float>(settings.rangeMax)};
    const bool integral = settings.basicDataType == DATA_TYPE_UINT16;
    const std::uint32_t depthOffset = mix(frameNumber * 2U + 1U);
    const std::uint32_t amplitudeOffset = mix(frameNumber * 2U + 2U);
    const bool drawn = settings.noise > 0.0;
    if (drawn) drawNoise(frameNumber, static_cast<float>(settings.noise));
    (integral ? report_view<true> : report_view<false>)(mDepth.size(), depthOffset, amplitudeOffset, rule,
                                                        mViewDepth.data(), mLitAmplitude.data(), mDepthSigma.data(),
                                                        mAmplitudeSigma.data(), drawn ? mDepthNoise.data() : nullptr,
                                                        mDepth.data(), mAmplitude.data());
    if (settings.scene.wall) return;

    // The ball, over the box of rows and columns around its projection.
    const Ball ball = ballAt(frameNumber / settings.fps);
    const auto& k = mLenses.front().intrinsics;
    const float reach = ball.radius / (ball.cz - ball.radius) * 1.6F;
    const float centreX = ball.cx / ball.cz;
    const float centreY = ball.cy / ball.cz;
    const int u0 = std::max(0, static_cast<int>((centreX - reach) * k.fx + k.cx) - 4);
    const int u1 = std::min(mWidth - 1, static_cast<int>((centreX + reach) * k.fx + k.cx) + 4);
    const int v0 = std::max(0, static_cast<int>((centreY - reach) * k.fy + k.cy) - 4);
    const int v1 = std::min(mHeight - 1, static_cast<int>((centreY + reach) * k.fy + k.cy) + 4);
    const float ballSquare = ball.cx * ball.cx + ball.cy * ball.cy + ball.cz * ball.cz - ball.radius * ball.radius;
    const float illumination = settings.illumination ? 1.0F : 0.0F;
    const auto& noise = noise_table();
    for (int v = v0; v <= v1; ++v) {
        for (int u = u0; u <= u1; ++u) {
            const std::size_t i = static_cast<std::size_t>(v) * mWidth + u;
            const float rx = mRayX[i];
            const float ry = mRayY[i];
            const float rr = rx * rx + ry * ry + 1.0F;
            const float rc = rx * ball.cx + ry * ball.cy + ball.cz;
            const float disc = rc * rc - rr * ballSquare;
            if (disc <= 0.0F) continue;
            const float t = (rc - std::sqrt(disc)) / rr;
            if (t <= 0.0F || t * 1000.0F >= mViewDepth[i]) continue;
            const float length = std::sqrt(rr);
            const float cosine =
                ((ball.cx - rx * t) * rx + (ball.cy - ry * t) * ry + (ball.cz - t)) / (ball.radius * length);
            const float distance = t * length;
            const Reading r = reading(static_cast<float>(mGain) * 0.9F * std::max(cosine, 0.0F) / (distance * distance),
                                      illumination);
            const float depth =
                t * 1000.0F +
                (drawn ? mDepthNoise[i] : noise[(i + depthOffset) & (kNoiseSize - 1)] * (kDepthNoise / r.root));
            const float amplitude = r.amplitude + noise[(i + amplitudeOffset) & (kNoiseSize - 1)] * (0.5F * r.root);
            if (integral) {
                report<true>(depth, amplitude, rule, mDepth[i], mAmplitude[i]);
            } else {
                report<false>(depth, amplitude, rule, mDepth[i], mAmplitude[i]);
            }
        }
    }
}

void Scene::writeEmbeddedLine(SimFrame& frame, std::uint32_t frameNumber, std::uint64_t timestamp,
                              const SceneSettings& settings) const {
    if (!settings.embeddedDataLine) {
        frame.removeProperty(embedded_line_key());
        return;
    }
    const auto width = static_cast<std::size_t>(mWidth);
    std::uint8_t* line = frame.embeddedLine(width);
    std::uint8_t record[EmbeddedLineLayout::kUsed] = {'L', 'M'};
    put_le(record + EmbeddedLineLayout::kFrameCounter, frameNumber, 4);
    put_le(record + EmbeddedLineLayout::kTimestamp, timestamp, 8);
    const auto centiDegrees = static_cast<std::int16_t>(std::lround(temperatureAt(frameNumber / settings.fps) * 100.0));
    put_le(record + EmbeddedLineLayout::kTemperature, static_cast<std::uint16_t>(centiDegrees), 2);
    put_le(record + EmbeddedLineLayout::kIntegrationTime, kIntegrationTimeUs, 2);
    std::memcpy(line, record, std::min(sizeof record, width));
}

void Scene::writeLines(std::uint32_t frameNumber, std::uint64_t timestamp, const SceneSettings& settings,
                       SimFrameList& list) const {
    for (const auto& frame : list.frames())
        writeEmbeddedLine(*frame, frameNumber, timestamp, settings);
}

std::shared_ptr<SimFrameList> Scene::makeList(std::uint32_t mask, const SceneSettings& settings, int width,
                                              int height) {
    auto list = std::make_shared<SimFrameList>();
    for (const auto type : {LumoraFrame::FRAME_DEPTH, LumoraFrame::FRAME_AMPLITUDE, LumoraFrame::FRAME_POINTCLOUD,
                            LumoraFrame::FRAME_INTENSITY_POINTCLOUD}) {
        if ((mask & type) != 0) list->add(std::make_shared<SimFrame>(type, settings.dataTypeOf(type), width, height));
    }
    return list;
}

std::uint64_t Scene::renderedLists() { return gRenderedLists.load(std::memory_order_relaxed); }

void Scene::render(std::uint32_t frameNumber, std::uint64_t timestamp, const SceneSettings& settings,
                   SimFrameList& list) {
    gRenderedLists.fetch_add(1, std::memory_order_relaxed);
    shade(frameNumber, settings);
    const std::size_t n = mDepth.size();
    for (const auto& frame : list.frames()) {
        void* out = frame->mutableData();
        const bool wide = frame->dataType() == DATA_TYPE_FLOAT32;
        switch (frame->frameType()) {
            case LumoraFrame::FRAME_DEPTH:
            case LumoraFrame::FRAME_AMPLITUDE: {
                const float* source =
                    frame->frameType() == LumoraFrame::FRAME_DEPTH ? mDepth.data() : mAmplitude.data();
                if (wide) {
                    std::memcpy(out, source, n * sizeof(float));
                } else {
                    auto* values = static_cast<std::uint16_t*>(out);
                    for (std::size_t i = 0; i < n; ++i) {
                        values[i] = to_u16(source[i]);
                    }
                }
                break;
            }
            case LumoraFrame::FRAME_POINTCLOUD:
            case LumoraFrame::FRAME_INTENSITY_POINTCLOUD: {
                const bool intensity = frame->frameType() == LumoraFrame::FRAME_INTENSITY_POINTCLOUD;
                if (wide) {
                    auto* x = static_cast<float*>(out);
                    float* y = x + n;
                    float* z = y + n;
                    for (std::size_t i = 0; i < n; ++i) {
                        const float metres = mDepth[i] * 0.001F;
                        x[i] = mRayX[i] * metres;
                        y[i] = mRayY[i] * metres;
                        z[i] = metres;
                    }
                    if (intensity) std::memcpy(z + n, mAmplitude.data(), n * sizeof(float));
                } else {
                    auto* x = static_cast<std::uint16_t*>(out);
                    std::uint16_t* y = x + n;
                    std::uint16_t* z = y + n;
                    for (std::size_t i = 0; i < n; ++i) {
                        const float millimetres = round_half_up(mDepth[i]);
                        x[i] = signed_millimetres(mRayX[i] * millimetres);
                        y[i] = signed_millimetres(mRayY[i] * millimetres);
                        z[i] = to_u16(millimetres);
                    }
                    if (intensity) {
                        std::uint16_t* a = z + n;
                        for (std::size_t i = 0; i < n; ++i) {
                            a[i] = to_u16(mAmplitude[i]);
                        }
                    }
                }
                break;
            }
            default:
                break;
        }
        writeEmbeddedLine(*frame, frameNumber, timestamp, settings);
    }
    list.stamp(frameNumber, timestamp);
}

}  // namespace halden::sensor::sim
