// The depth-quality figures of a ToF camera over a region of interest and the last N frame
// lists: how complete the depth is, how far and how tilted the surface seen is, how flat it
// is and how noisy from list to list, how far off a known distance, and how bright.
//
// A meter keeps, per list, only what the figures need (the plane fitted to its points, the
// ROI's depths and amplitudes), so that memory grows with the ROI, not the frame. It is not
// synchronised: one thread at a time calls it (a live sink that adds lists on its worker
// thread while another thread asks for the figures holds a lock around both).
#pragma once

#include <cstddef>
#include <optional>
#include <vector>

#include "quality/ListView.h"
#include "quality/Rays.h"
#include "quality/Roi.h"

namespace lumora::quality {

inline constexpr std::size_t kDefaultLists = 30;
inline constexpr std::size_t kMaxLists = 300;

enum class Status {
    kOk,
    kBadSettings,  // lists outside 1 to kMaxLists, or a true distance not above 0
    kBadList,      // no depth and no points, a size not above 0, a plane stride too short, or a sample type
                   // the view does not take
    kEmptyRoi,     // the ROI lies outside the frame
    kNoRays,       // depth to measure, but no calibration (or one with fx or fy 0)
};
const char* status_text(Status status);

// Why a figure cannot be had.
enum class Missing {
    kNone,
    kNoLists,         // no list measured yet
    kNoValidPixels,   // no valid depth in the ROI
    kTooFewPoints,    // fewer than 3 valid points for a plane
    kPlaneAlongAxis,  // the plane is parallel to the optical axis, which never meets it
    kTooFewLists,     // temporal noise needs at least 2 lists
    kNoSteadyPixel,   // no ROI pixel valid in every list
    kNoTruth,         // no true distance given
    kNoAmplitude,     // no list carries an amplitude
};
const char* missing_text(Missing missing);

// A figure, or why it cannot be had.
struct Figure {
    std::optional<double> value;
    Missing missing = Missing::kNoLists;  // kNone exactly when there is a value
};

struct Quality {
    std::size_t lists = 0;  // the lists the figures are over
    Roi roi;
    Figure fillRatePct;      // valid ROI pixels over all ROI pixels of the lists, in %
    Figure distanceMm;       // where the optical axis meets the fitted plane; median over the lists
    Figure planeAngleDeg;    // between the plane's normal and the optical axis; median
    Figure planeFitRmsMm;    // residuals to the plane, 0.5% trimmed on each side; median
    Figure temporalNoiseMm;  // per pixel valid in every list, the standard deviation; median
    Figure zErrorMm;         // median over every valid ROI depth of (depth - truth)
    Figure zErrorPct;        // the same in % of the truth
    Figure amplitudeMean;    // over the ROI of the lists that carry an amplitude
    Figure amplitudeP5;      // its 5th percentile
};

struct Settings {
    RoiRequest roi;
    // The rays for depth (point clouds carry their points); the frames' own resolution.
    std::optional<Calibration> calibration;
    std::optional<double> truthMm;
    // N: the figures are over the last `lists` lists added.
    std::size_t lists = kDefaultLists;
};

class DepthQualityMeter {
public:
    DepthQualityMeter();

    // Takes new settings and forgets the lists; kBadSettings (and the old settings kept) for
    // settings out of range.
    Status configure(const Settings& settings);
    // Measures one list and keeps what the figures need, forgetting the oldest list beyond N.
    // A list of another size than the ones before starts afresh: the ROI and its rays are
    // made for the new size. The view's data is read only during the call. On a failure the
    // list is not counted and the lists before stay.
    Status add(const ListView& view);
    // Forgets the lists; the settings stay.
    void clear();
    // The figures over the lists kept (all of them missing with kNoLists before the first).
    Quality result() const;
    std::size_t lists() const { return mCount; }

private:
    struct Plane {
        double distanceMm = 0.0;  // not a number when the plane is parallel to the axis
        double angleDeg = 0.0;
        double rmsMm = 0.0;
    };
    // What one list leaves behind.
    struct Kept {
        std::vector<float> depth;      // the ROI's depths in mm, 0 where missing
        std::vector<float> amplitude;  // the ROI's amplitudes, when it has them
        bool hasAmplitude = false;
        std::size_t valid = 0;
        std::optional<Plane> plane;
        Missing planeMissing = Missing::kNone;
    };

    Status prepareFor(const ListView& view);
    void fitPlane(Kept& kept);
    // The sum of the squares of the `trim` lowest and the `trim` highest of the n residuals.
    double extremeSquares(std::size_t n, std::size_t trim);

    Settings mSettings;
    int mWidth = 0;
    int mHeight = 0;
    Roi mRoi;
    RayTable mRays;
    std::vector<Kept> mKept;  // a ring of N
    std::size_t mNext = 0;
    std::size_t mCount = 0;
    // The valid points of the list being measured, their residuals, and the candidates for
    // their extremes on each side (the lowest negated).
    std::vector<float> mX, mY, mZ, mResiduals, mLow, mHigh;
};

}  // namespace lumora::quality
