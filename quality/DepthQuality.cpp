#include "quality/DepthQuality.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <utility>

namespace lumora::quality {

namespace {

constexpr std::pair<Status, const char*> kStatusTexts[] = {
    {Status::kOk, "ok"},
    {Status::kBadSettings, "settings out of range: 1 to 300 lists, a true distance above 0"},
    {Status::kBadList, "the list has no depth or point cloud of a size that can be read"},
    {Status::kEmptyRoi, "the ROI lies outside the frame"},
    {Status::kNoRays, "depth needs a calibration (intrinsics, distortion) for its rays"},
};

constexpr std::pair<Missing, const char*> kMissingTexts[] = {
    {Missing::kNone, ""},
    {Missing::kNoLists, "no list measured"},
    {Missing::kNoValidPixels, "no valid depth in the ROI"},
    {Missing::kTooFewPoints, "fewer than 3 valid points for a plane"},
    {Missing::kPlaneAlongAxis, "the plane is parallel to the optical axis"},
    {Missing::kTooFewLists, "needs at least 2 lists"},
    {Missing::kNoSteadyPixel, "no ROI pixel valid in every list"},
    {Missing::kNoTruth, "no true distance given"},
    {Missing::kNoAmplitude, "no amplitude in the lists"},
};

// The 0.5% most extreme residuals on each side are left out of the plane-fit RMS.
constexpr std::size_t kTrimPerMille = 5;
// Residuals beyond this many RMS are gathered as the extremes' candidates: for Gaussian noise
// 1.4% on each side, enough to hold the 0.5% with a wide margin.
constexpr double kCandidateRms = 2.2;
constexpr double kPi = 3.14159265358979323846;
constexpr float kLargest = std::numeric_limits<float>::max();

Figure figure(double value) { return {value, Missing::kNone}; }
Figure missing(Missing why) { return {std::nullopt, why}; }

// The q-quantile, linear between neighbouring order statistics; reorders `values` (not empty).
template <typename T>
double quantile(std::vector<T>& values, double q) {
    const double position = q * static_cast<double>(values.size() - 1);
    const auto low = static_cast<std::size_t>(position);
    const auto nth = values.begin() + static_cast<std::ptrdiff_t>(low);
    std::nth_element(values.begin(), nth, values.end());
    const double fraction = position - static_cast<double>(low);
    if (fraction == 0.0) return *nth;
    const double high = *std::min_element(nth + 1, values.end());
    return *nth + fraction * (high - *nth);
}

// The same q-quantile of the values that `each(f)` hands to f (in the same order at every call;
// `count` of them, not none, from `low` to `high`), without gathering and reordering them all: a
// histogram finds the bin that holds the lower order statistic, and only that bin's values are
// gathered. Bins are monotonic in the value, so the ranks below a bin are those of the bins below.
template <typename Each>
double quantile_of(const Each& each, std::size_t count, float low, float high, double q) {
    if (!(high > low)) return low;
    const double position = q * static_cast<double>(count - 1);
    const auto rank = static_cast<std::size_t>(position);
    const double fraction = position - static_cast<double>(rank);
    constexpr int kBins = 4096;
    const float scale = static_cast<float>(kBins) / (high - low);
    const auto bin = [&](float value) { return std::min(static_cast<int>((value - low) * scale), kBins - 1); };
    std::vector<std::size_t> counts(kBins, 0);
    each([&](float value) { ++counts[static_cast<std::size_t>(bin(value))]; });
    int found = 0;
    std::size_t below = 0;
    while (below + counts[static_cast<std::size_t>(found)] <= rank)
        below += counts[static_cast<std::size_t>(found++)];
    std::vector<float> in;
    in.reserve(counts[static_cast<std::size_t>(found)]);
    each([&](float value) {
        if (bin(value) == found) in.push_back(value);
    });
    const auto nth = in.begin() + static_cast<std::ptrdiff_t>(rank - below);
    std::nth_element(in.begin(), nth, in.end());
    if (fraction == 0.0) return *nth;
    // The next order statistic: the least of the rest of this bin, else of the bins above.
    float next = kLargest;
    if (nth + 1 != in.end())
        next = *std::min_element(nth + 1, in.end());
    else
        each([&](float value) {
            if (bin(value) > found) next = std::min(next, value);
        });
    return *nth + fraction * (static_cast<double>(next) - *nth);
}

using Matrix = std::array<std::array<double, 3>, 3>;

struct Eigen {
    std::array<double, 3> vector;  // of unit length
    double value;
};

// The smallest eigenvalue of a symmetric matrix and its eigenvector, by cyclic Jacobi
// rotations, which stay accurate when two eigenvalues are close (a noisy, nearly square ROI).
Eigen smallest_eigen(Matrix a) {
    Matrix v{{{1.0, 0.0, 0.0}, {0.0, 1.0, 0.0}, {0.0, 0.0, 1.0}}};
    const double scale = a[0][0] * a[0][0] + a[1][1] * a[1][1] + a[2][2] * a[2][2];
    for (int sweep = 0; sweep < 50; ++sweep) {
        const double off = a[0][1] * a[0][1] + a[0][2] * a[0][2] + a[1][2] * a[1][2];
        if (off <= 1e-30 * scale) break;
        for (const auto& [p, q] : {std::pair{0, 1}, std::pair{0, 2}, std::pair{1, 2}}) {
            if (a[p][q] == 0.0) continue;
            const double theta = (a[q][q] - a[p][p]) / (2.0 * a[p][q]);
            const double t = (theta >= 0.0 ? 1.0 : -1.0) / (std::abs(theta) + std::sqrt(theta * theta + 1.0));
            const double c = 1.0 / std::sqrt(t * t + 1.0);
            const double s = t * c;
            for (int k = 0; k < 3; ++k) {
                const double kp = a[k][p];
                const double kq = a[k][q];
                a[k][p] = c * kp - s * kq;
                a[k][q] = s * kp + c * kq;
            }
            for (int k = 0; k < 3; ++k) {
                const double pk = a[p][k];
                const double qk = a[q][k];
                a[p][k] = c * pk - s * qk;
                a[q][k] = s * pk + c * qk;
            }
            for (int k = 0; k < 3; ++k) {
                const double kp = v[k][p];
                const double kq = v[k][q];
                v[k][p] = c * kp - s * kq;
                v[k][q] = s * kp + c * kq;
            }
        }
    }
    int m = 0;
    for (int k = 1; k < 3; ++k)
        if (a[k][k] < a[m][m]) m = k;
    return {{v[0][m], v[1][m], v[2][m]}, a[m][m]};
}

// The sum of the squares of the `take` largest of values[0, count); reorders them.
double top_squares(float* values, std::size_t count, std::size_t take) {
    std::nth_element(values, values + count - take, values + count);
    double sum = 0.0;
    for (std::size_t i = count - take; i < count; ++i)
        sum += static_cast<double>(values[i]) * values[i];
    return sum;
}

// A sample wherever it lies: views of a mapped dump file are not aligned.
template <typename T>
float load(const T* at) {
    T value;
    std::memcpy(&value, at, sizeof value);
    return static_cast<float>(value);
}

bool usable(float value) { return value > 0.0F && value <= kLargest; }

// The ROI's depths into `kept` (0 where missing) and its valid points into x, y, z; returns
// how many are valid. The point of depth d lies on the pixel's ray.
template <typename T>
std::size_t read_depth(const T* depth, int width, const Roi& roi, const RayTable& rays, float* kept, float* x, float* y,
                       float* z) {
    std::size_t valid = 0;
    std::size_t i = 0;
    for (int row = 0; row < roi.height; ++row) {
        const T* in = depth + static_cast<std::size_t>(roi.y + row) * width + roi.x;
        for (int column = 0; column < roi.width; ++column, ++i) {
            const float d = load(in + column);
            const bool ok = usable(d);
            kept[i] = ok ? d : 0.0F;
            if (!ok) continue;
            x[valid] = rays.x()[i] * d;
            y[valid] = rays.y()[i] * d;
            z[valid] = d;
            ++valid;
        }
    }
    return valid;
}

// The same from planes of points, `scale` to millimetres; the depth is z.
template <typename T>
std::size_t read_points(const T* points, std::size_t planeStride, float scale, int width, const Roi& roi, float* kept,
                        float* x, float* y, float* z) {
    std::size_t valid = 0;
    std::size_t i = 0;
    for (int row = 0; row < roi.height; ++row) {
        const T* in = points + static_cast<std::size_t>(roi.y + row) * width + roi.x;
        for (int column = 0; column < roi.width; ++column, ++i) {
            const float pz = load(in + column + 2 * planeStride) * scale;
            const float px = load(in + column) * scale;
            const float py = load(in + column + planeStride) * scale;
            const bool ok = usable(pz) && std::isfinite(px) && std::isfinite(py);
            kept[i] = ok ? pz : 0.0F;
            if (!ok) continue;
            x[valid] = px;
            y[valid] = py;
            z[valid] = pz;
            ++valid;
        }
    }
    return valid;
}

template <typename T>
void read_amplitude(const T* amplitude, int width, const Roi& roi, float* kept) {
    for (int row = 0; row < roi.height; ++row) {
        const T* in = amplitude + static_cast<std::size_t>(roi.y + row) * width + roi.x;
        for (int column = 0; column < roi.width; ++column)
            *kept++ = load(in + column);
    }
}

}  // namespace

const char* status_text(Status status) {
    for (const auto& [code, text] : kStatusTexts)
        if (code == status) return text;
    return "unknown status";
}

const char* missing_text(Missing why) {
    for (const auto& [code, text] : kMissingTexts)
        if (code == why) return text;
    return "unknown reason";
}

DepthQualityMeter::DepthQualityMeter() { configure(Settings{}); }

Status DepthQualityMeter::configure(const Settings& settings) {
    if (settings.lists < 1 || settings.lists > kMaxLists) return Status::kBadSettings;
    if (settings.truthMm && !(*settings.truthMm > 0.0 && std::isfinite(*settings.truthMm))) return Status::kBadSettings;
    mSettings = settings;
    mKept.assign(settings.lists, Kept{});
    mWidth = 0;
    mHeight = 0;
    mRoi = {};
    mRays = {};
    clear();
    return Status::kOk;
}

void DepthQualityMeter::clear() {
    mNext = 0;
    mCount = 0;
}

Status DepthQualityMeter::prepareFor(const ListView& view) {
    if (view.width != mWidth || view.height != mHeight) {
        const Roi roi = resolve_roi(mSettings.roi, view.width, view.height);
        if (roi.empty()) return Status::kEmptyRoi;
        clear();
        mWidth = view.width;
        mHeight = view.height;
        mRoi = roi;
        mRays = {};
        const std::size_t pixels = static_cast<std::size_t>(roi.width) * static_cast<std::size_t>(roi.height);
        for (std::vector<float>* buffer : {&mX, &mY, &mZ, &mResiduals, &mLow, &mHigh})
            buffer->resize(pixels);
    }
    if (view.depth != nullptr && mRays.empty()) {
        if (!mSettings.calibration) return Status::kNoRays;
        mRays = RayTable(*mSettings.calibration, mRoi);
        if (mRays.empty()) return Status::kNoRays;
    }
    return Status::kOk;
}

Status DepthQualityMeter::add(const ListView& view) {
    const std::size_t pixels = static_cast<std::size_t>(std::max(view.width, 0)) * std::max(view.height, 0);
    if (pixels == 0 || (view.depth == nullptr && (view.points == nullptr || view.planeStride < pixels)))
        return Status::kBadList;
    if (view.depthType == Sample::kInt16 || view.pointType == Sample::kUint16 || view.amplitudeType == Sample::kInt16)
        return Status::kBadList;
    if (const Status prepared = prepareFor(view); prepared != Status::kOk) return prepared;

    Kept& kept = mKept[mNext];
    const std::size_t roiPixels = mX.size();
    kept.depth.resize(roiPixels);
    float* x = mX.data();
    float* y = mY.data();
    float* z = mZ.data();
    if (view.depth != nullptr && view.depthType == Sample::kFloat32)
        kept.valid = read_depth(static_cast<const float*>(view.depth), mWidth, mRoi, mRays, kept.depth.data(), x, y, z);
    else if (view.depth != nullptr)
        kept.valid =
            read_depth(static_cast<const std::uint16_t*>(view.depth), mWidth, mRoi, mRays, kept.depth.data(), x, y, z);
    else if (view.pointType == Sample::kFloat32)
        kept.valid = read_points(static_cast<const float*>(view.points), view.planeStride, 1000.0F, mWidth, mRoi,
                                 kept.depth.data(), x, y, z);
    else
        kept.valid = read_points(static_cast<const std::int16_t*>(view.points), view.planeStride, 1.0F, mWidth, mRoi,
                                 kept.depth.data(), x, y, z);

    kept.hasAmplitude = view.amplitude != nullptr;
    if (kept.hasAmplitude) {
        kept.amplitude.resize(roiPixels);
        if (view.amplitudeType == Sample::kFloat32)
            read_amplitude(static_cast<const float*>(view.amplitude), mWidth, mRoi, kept.amplitude.data());
        else
            read_amplitude(static_cast<const std::uint16_t*>(view.amplitude), mWidth, mRoi, kept.amplitude.data());
    }
    fitPlane(kept);
    mNext = (mNext + 1) % mKept.size();
    mCount = std::min(mCount + 1, mKept.size());
    return Status::kOk;
}

// Total least squares: the plane through the centroid whose normal is the covariance's
// smallest eigenvector, so that a tilted plane is fitted without bias.
void DepthQualityMeter::fitPlane(Kept& kept) {
    const std::size_t n = kept.valid;
    kept.plane.reset();
    if (n < 3) {
        kept.planeMissing = n == 0 ? Missing::kNoValidPixels : Missing::kTooFewPoints;
        return;
    }
    const float* x = mX.data();
    const float* y = mY.data();
    const float* z = mZ.data();
    // Sums about the first point, so that the squares do not swamp the spread.
    const double ox = x[0];
    const double oy = y[0];
    const double oz = z[0];
    double sx = 0, sy = 0, sz = 0, sxx = 0, sxy = 0, sxz = 0, syy = 0, syz = 0, szz = 0;
    for (std::size_t i = 0; i < n; ++i) {
        const double dx = x[i] - ox;
        const double dy = y[i] - oy;
        const double dz = z[i] - oz;
        sx += dx;
        sy += dy;
        sz += dz;
        sxx += dx * dx;
        sxy += dx * dy;
        sxz += dx * dz;
        syy += dy * dy;
        syz += dy * dz;
        szz += dz * dz;
    }
    const double count = static_cast<double>(n);
    const double mx = sx / count;
    const double my = sy / count;
    const double mz = sz / count;
    const Matrix covariance{{{sxx / count - mx * mx, sxy / count - mx * my, sxz / count - mx * mz},
                             {sxy / count - mx * my, syy / count - my * my, syz / count - my * mz},
                             {sxz / count - mx * mz, syz / count - my * mz, szz / count - mz * mz}}};
    const Eigen eigen = smallest_eigen(covariance);
    auto normal = eigen.vector;
    if (normal[2] < 0.0)
        for (double& component : normal)
            component = -component;
    const double cx = ox + mx;
    const double cy = oy + my;
    const double cz = oz + mz;

    Plane plane;
    plane.angleDeg = std::acos(std::min(1.0, normal[2])) * 180.0 / kPi;
    const double offset = normal[0] * cx + normal[1] * cy + normal[2] * cz;
    plane.distanceMm = normal[2] > 1e-9 ? offset / normal[2] : std::numeric_limits<double>::quiet_NaN();

    // The residuals about the centroid, whose mean square is the smallest eigenvalue. Those
    // beyond a few RMS on each side are gathered as they come (without branches: every one is
    // written, and kept by counting it), the lowest negated.
    const auto nx = static_cast<float>(normal[0]);
    const auto ny = static_cast<float>(normal[1]);
    const auto nz = static_cast<float>(normal[2]);
    const auto fx = static_cast<float>(cx);
    const auto fy = static_cast<float>(cy);
    const auto fz = static_cast<float>(cz);
    const double squares = std::max(0.0, eigen.value) * count;
    const auto limit = static_cast<float>(kCandidateRms * std::sqrt(squares / count));
    float* const r = mResiduals.data();
    float* const low = mLow.data();
    float* const high = mHigh.data();
    std::size_t lows = 0;
    std::size_t highs = 0;
    for (std::size_t i = 0; i < n; ++i) {
        const float residual = nx * (x[i] - fx) + ny * (y[i] - fy) + nz * (z[i] - fz);
        r[i] = residual;
        low[lows] = -residual;
        lows += -residual > limit ? 1 : 0;
        high[highs] = residual;
        highs += residual > limit ? 1 : 0;
    }
    const std::size_t trim = n * kTrimPerMille / 1000;
    double extremes = 0.0;
    if (trim > 0 && lows >= trim && highs >= trim)
        extremes = top_squares(low, lows, trim) + top_squares(high, highs, trim);
    else if (trim > 0)
        extremes = extremeSquares(n, trim);
    plane.rmsMm = std::sqrt(std::max(0.0, squares - extremes) / static_cast<double>(n - 2 * trim));
    kept.plane = plane;
    kept.planeMissing = Missing::kNone;
}

// When outliers leave too few candidates on a side: exact, by way of a histogram of the
// residuals. The bins wholly among the extremes are summed as they are, and only the bin where
// the extremes end on each side is searched, which costs three passes however the residuals
// are spread.
double DepthQualityMeter::extremeSquares(std::size_t n, std::size_t trim) {
    const float* const r = mResiduals.data();
    float from = r[0];
    float to = r[0];
    for (std::size_t i = 1; i < n; ++i) {
        from = std::min(from, r[i]);
        to = std::max(to, r[i]);
    }
    // Residuals all but equal: any of them stands for the extremes.
    if (!(to - from > 1e-20F)) return 2.0 * static_cast<double>(trim) * from * from;
    constexpr int kBins = 1024;
    const float scale = static_cast<float>(kBins) / (to - from);
    // A signed conversion: the unsigned one costs a comparison and a branch on x86.
    const auto bin = [&](float value) { return std::min(static_cast<int>((value - from) * scale), kBins - 1); };
    std::array<std::uint32_t, kBins> counts{};
    for (std::size_t i = 0; i < n; ++i)
        ++counts[bin(r[i])];
    // The bin where the lowest `trim` end, and how many lie below it; the same from the top.
    int lowBin = 0, highBin = kBins - 1;
    std::size_t below = 0, above = 0;
    while (below + counts[lowBin] < trim)
        below += counts[lowBin++];
    while (above + counts[highBin] < trim)
        above += counts[highBin--];
    double extremes = 0.0;
    std::size_t lows = 0, highs = 0;
    for (std::size_t i = 0; i < n; ++i) {
        const int b = bin(r[i]);
        if (b < lowBin || b > highBin) extremes += static_cast<double>(r[i]) * r[i];
        if (b == lowBin) mLow[lows++] = -r[i];
        if (b == highBin) mHigh[highs++] = r[i];
    }
    return extremes + top_squares(mLow.data(), lows, trim - below) + top_squares(mHigh.data(), highs, trim - above);
}

Quality DepthQualityMeter::result() const {
    Quality q;
    q.lists = mCount;
    q.roi = mRoi;
    if (mCount == 0) return q;
    const std::size_t roiPixels = mX.size();

    std::size_t valid = 0;
    std::vector<double> distances, angles, rms;
    Missing planeMissing = Missing::kNone;
    for (std::size_t k = 0; k < mCount; ++k) {
        const Kept& kept = mKept[k];
        valid += kept.valid;
        if (!kept.plane) {
            planeMissing = kept.planeMissing;
            continue;
        }
        if (!std::isnan(kept.plane->distanceMm)) distances.push_back(kept.plane->distanceMm);
        angles.push_back(kept.plane->angleDeg);
        rms.push_back(kept.plane->rmsMm);
    }
    q.fillRatePct = figure(100.0 * static_cast<double>(valid) / static_cast<double>(mCount * roiPixels));
    if (angles.empty()) {
        q.distanceMm = q.planeAngleDeg = q.planeFitRmsMm = missing(planeMissing);
    } else {
        q.distanceMm = distances.empty() ? missing(Missing::kPlaneAlongAxis) : figure(quantile(distances, 0.5));
        q.planeAngleDeg = figure(quantile(angles, 0.5));
        q.planeFitRmsMm = figure(quantile(rms, 0.5));
    }

    // Temporal noise: each pixel's mean, then its spread, over the lists.
    if (mCount < 2) {
        q.temporalNoiseMm = missing(Missing::kTooFewLists);
    } else {
        std::vector<double> sum(roiPixels, 0.0);
        std::vector<std::uint16_t> seen(roiPixels, 0);
        for (std::size_t k = 0; k < mCount; ++k) {
            const float* depth = mKept[k].depth.data();
            for (std::size_t i = 0; i < roiPixels; ++i) {
                sum[i] += depth[i];
                seen[i] += depth[i] > 0.0F ? 1 : 0;
            }
        }
        std::vector<double> spread(roiPixels, 0.0);
        for (std::size_t k = 0; k < mCount; ++k) {
            const float* depth = mKept[k].depth.data();
            for (std::size_t i = 0; i < roiPixels; ++i) {
                const double deviation = depth[i] - sum[i] / static_cast<double>(mCount);
                spread[i] += deviation * deviation;
            }
        }
        std::vector<double> deviations;
        for (std::size_t i = 0; i < roiPixels; ++i)
            if (seen[i] == mCount) deviations.push_back(std::sqrt(spread[i] / static_cast<double>(mCount - 1)));
        q.temporalNoiseMm = deviations.empty() ? missing(Missing::kNoSteadyPixel) : figure(quantile(deviations, 0.5));
    }

    if (!mSettings.truthMm) {
        q.zErrorMm = q.zErrorPct = missing(Missing::kNoTruth);
    } else if (valid == 0) {
        q.zErrorMm = q.zErrorPct = missing(Missing::kNoValidPixels);
    } else {
        const auto depths = [this](const auto& take) {
            for (std::size_t k = 0; k < mCount; ++k)
                for (const float d : mKept[k].depth)
                    if (d > 0.0F) take(d);
        };
        float low = kLargest;
        float high = 0.0F;
        depths([&](float d) {
            low = std::min(low, d);
            high = std::max(high, d);
        });
        const double error = quantile_of(depths, valid, low, high, 0.5) - *mSettings.truthMm;
        q.zErrorMm = figure(error);
        q.zErrorPct = figure(100.0 * error / *mSettings.truthMm);
    }

    const auto amplitudes = [this](const auto& take) {
        for (std::size_t k = 0; k < mCount; ++k)
            if (mKept[k].hasAmplitude)
                for (const float a : mKept[k].amplitude)
                    if (std::isfinite(a)) take(a);
    };
    double amplitudeSum = 0.0;
    std::size_t amplitudeCount = 0;
    float low = kLargest;
    float high = -kLargest;
    amplitudes([&](float a) {
        amplitudeSum += a;
        ++amplitudeCount;
        low = std::min(low, a);
        high = std::max(high, a);
    });
    if (amplitudeCount == 0) {
        q.amplitudeMean = q.amplitudeP5 = missing(Missing::kNoAmplitude);
    } else {
        q.amplitudeMean = figure(amplitudeSum / static_cast<double>(amplitudeCount));
        q.amplitudeP5 = figure(quantile_of(amplitudes, amplitudeCount, low, high, 0.05));
    }
    return q;
}

}  // namespace lumora::quality
