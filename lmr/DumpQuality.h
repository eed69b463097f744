// `lmr quality`: the depth-quality figures over a dump file's records, and the limits a
// production line checks them against.
#pragma once

#include <cstdio>
#include <optional>
#include <string>

#include "DumpExport.h"
#include "quality/Rays.h"
#include "quality/Roi.h"

namespace lumora::lmr {

struct QualityOptions {
    std::string file;
    std::optional<RecordRange> records;  // every whole record when absent
    quality::RoiRequest roi;
    std::optional<double> truthMm;
    // The rays of depth records; when absent, those of the camera that replays the file.
    std::optional<quality::Calibration> intrinsics;
    bool json = false;
    // Limits; each one given must hold. The Z error's is on the absolute value of the %.
    std::optional<double> maxTemporalNoiseMm, maxPlaneFitRmsMm, minFillRatePct, maxZErrorPct;
};

// The exit status of `lmr quality`.
enum class QualityStatus {
    kHolds = 0,        // measured, and every limit given holds
    kMissed = 1,       // a limit missed, or a figure it needs cannot be had
    kNotMeasured = 2,  // the dump cannot be read, or measured as asked (no rays, records or ROI outside it)
};

// "fx,fy,cx,cy" or "fx,fy,cx,cy,k1,k2,p1,p2,k3" (OpenCV's order), fx and fy above 0; nothing
// for any other text.
std::optional<quality::Calibration> parse_intrinsics(const std::string& text);

// Measures the records and prints the figures (text or JSON) to `out`; which rays it used,
// each limit missed and what stops it go to `err`, one line each. Runs on the caller's
// thread.
QualityStatus measure_dump(const QualityOptions& options, std::FILE* out, std::FILE* err);

}  // namespace lumora::lmr
