// The simulated sensor's view: a room (floor, ceiling, side walls, a back wall with a
// door) and a ball moving through it, or a flat wall filling the view, seen by a lens with
// the device's calibration.
//
// Rendering is a pure function of the device, the settings and the frame number, so the
// same frame can be made again and checked.
#pragma once

#include <array>
#include <cstdint>
#include <vector>

#include <halden/sensor/LumoraCalibration.h>
#include <halden/sensor/LumoraDataType.h>

#include "DeviceConfig.h"
#include "SimFrame.h"

namespace halden::sensor::sim {

// What the sensor looks at: the room, or a flat matte wall filling the view, which the
// optical axis meets at `distance` and which is turned by `angle` about the vertical axis
// (its normal (sin a, 0, cos a) in camera space: x right, y down, z forward).
struct SceneChoice {
    static constexpr std::size_t kTextSize = 32;
    bool wall = false;
    double distance = 0.0;                     // millimetres
    double angle = 0.0;                        // degrees
    std::array<char, kTextSize> text{"room"};  // the value as set, NUL-terminated

    bool sameView(const SceneChoice& other) const {
        return wall == other.wall && distance == other.distance && angle == other.angle;
    }
};

// The camera settings that change what the sensor delivers.
struct SceneSettings {
    int amplitudeThreshold = 10;
    double fps = 30.0;
    int rangeMin = 200;   // millimetres
    int rangeMax = 5000;  // millimetres
    bool illumination = true;
    bool embeddedDataLine = false;
    DataType basicDataType = DATA_TYPE_UINT16;        // depth and amplitude frames
    DataType pointCloudDataType = DATA_TYPE_FLOAT32;  // both point-cloud frames
    SceneChoice scene;
    // The deviation in millimetres of Gaussian depth noise, independent per pixel and per
    // list, that replaces the sensor's own depth noise; 0 keeps the sensor's.
    double noise = 0.0;
    // Lists the camera renders once and then delivers again in turn; 0 renders every list.
    int loop = 0;

    DataType dataTypeOf(LumoraFrame::FrameType type) const {
        return type <= LumoraFrame::FRAME_AMPLITUDE ? basicDataType : pointCloudDataType;
    }
    // True when the two differ at most in the embedded line, which a delivered list can be
    // given or lose without rendering it again.
    bool sameButLine(const SceneSettings& other) const {
        return amplitudeThreshold == other.amplitudeThreshold && fps == other.fps && rangeMin == other.rangeMin &&
               rangeMax == other.rangeMax && illumination == other.illumination &&
               basicDataType == other.basicDataType && pointCloudDataType == other.pointCloudDataType &&
               scene.sameView(other.scene) && noise == other.noise && loop == other.loop;
    }
};

struct LensCalibration {
    DistortionCoefficients distortion;
    IntrinsicParameters intrinsics;
    ExtrinsicParameters extrinsics;
    FieldOfView fov;
};

// Byte offsets of the fields of a frame's embedded data line (little-endian); the rest of
// the line, up to the frame width, is zero.
struct EmbeddedLineLayout {
    static constexpr std::size_t kMagic = 0;             // "LM"
    static constexpr std::size_t kFrameCounter = 2;      // u32
    static constexpr std::size_t kTimestamp = 6;         // u64, microseconds
    static constexpr std::size_t kTemperature = 14;      // i16, hundredths of a degree Celsius
    static constexpr std::size_t kIntegrationTime = 16;  // u16, microseconds
    static constexpr std::size_t kUsed = 18;
};

class Scene {
public:
    Scene(const DeviceConfig& device, const ModelInfo& model);

    int width() const { return mWidth; }
    int height() const { return mHeight; }
    const std::vector<LensCalibration>& lenses() const { return mLenses; }
    // The calibration of a device of this model at the device's size, without its scene.
    static std::vector<LensCalibration> lensesOf(const DeviceConfig& device, const ModelInfo& model);
    // Sensor temperature in degrees Celsius, t seconds after power-up.
    static double temperatureAt(double seconds);
    // Lists rendered so far by every scene of the process.
    static std::uint64_t renderedLists();

    // A list with one frame of this scene's size for each type in the mask, in the data
    // types of the settings; its planes are not initialised.
    std::shared_ptr<SimFrameList> makeList(std::uint32_t mask, const SceneSettings& settings) const {
        return makeList(mask, settings, mWidth, mHeight);
    }
    // The same for frames of any size.
    static std::shared_ptr<SimFrameList> makeList(std::uint32_t mask, const SceneSettings& settings, int width,
                                                  int height);

    // Fills every frame of the list (allocated to this scene's size) with frame
    // `frameNumber` and stamps the list. Not reentrant: one thread renders at a time.
    void render(std::uint32_t frameNumber, std::uint64_t timestamp, const SceneSettings& settings, SimFrameList& list);
    // Writes or removes the embedded lines of a list rendered as frame `frameNumber`, as the
    // settings ask.
    void writeLines(std::uint32_t frameNumber, std::uint64_t timestamp, const SceneSettings& settings,
                    SimFrameList& list) const;

private:
    struct Ball {
        float cx, cy, cz, radius;
    };
    Ball ballAt(double seconds) const;
    void buildRays();
    void buildRoom();
    void buildWall(double distance, double angle);
    void light(bool illumination);
    void drawNoise(std::uint32_t frameNumber, float sigma);
    void shade(std::uint32_t frameNumber, const SceneSettings& settings);
    void writeEmbeddedLine(SimFrame& frame, std::uint32_t frameNumber, std::uint64_t timestamp,
                           const SceneSettings& settings) const;

    int mWidth;
    int mHeight;
    double mGain;
    float mBackWall;  // metres
    std::vector<LensCalibration> mLenses;
    std::vector<float> mRayX, mRayY;  // per pixel: the ray (x, y, 1) in camera space
    // Per pixel, the view without the ball (the empty room or the wall): depth (mm) and
    // reflected light.
    SceneChoice mView;  // what they show
    std::vector<float> mViewDepth, mViewLight;
    // The view as the sensor sees it with the current illumination: true amplitude and the
    // deviations of depth and amplitude noise.
    int mLitFor = -1;  // the illumination the three arrays were made for, -1 for none yet
    std::vector<float> mLitAmplitude, mDepthSigma, mAmplitudeSigma;
    std::vector<float> mDepth, mAmplitude;  // scratch of one render: depth (mm, 0 missing), amplitude
    std::vector<float> mDepthNoise;         // scratch: the depth noise of one list, when drawn per pixel
};

}  // namespace halden::sensor::sim
