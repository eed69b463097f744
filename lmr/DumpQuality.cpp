#include "DumpQuality.h"

#include <cerrno>
#include <charconv>
#include <cmath>
#include <system_error>
#include <vector>

#include "format/DumpFile.h"
#include "format/DumpScan.h"
#include "quality/DepthQuality.h"
#include "quality/ReplayCalibration.h"
#include "quality/Report.h"

namespace lumora::lmr {

namespace {

using quality::Figure;
using quality::Quality;

// A limit on one figure: its name in the report, the option that sets it, whether it is an
// upper bound, whether it bounds the figure's absolute value, and its unit.
struct Limit {
    const char* name;
    std::optional<double> QualityOptions::*bound;
    Figure Quality::*figure;
    bool upper;
    bool absolute;
    const char* unit;
};

constexpr Limit kLimits[] = {
    {"temporal noise", &QualityOptions::maxTemporalNoiseMm, &Quality::temporalNoiseMm, true, false, "mm"},
    {"plane-fit RMS", &QualityOptions::maxPlaneFitRmsMm, &Quality::planeFitRmsMm, true, false, "mm"},
    {"fill rate", &QualityOptions::minFillRatePct, &Quality::fillRatePct, false, false, "%"},
    {"Z error", &QualityOptions::maxZErrorPct, &Quality::zErrorPct, true, true, "%"},
};

// Prints each limit missed; true when all hold.
bool check_limits(const QualityOptions& options, const Quality& result, std::FILE* err) {
    bool holds = true;
    for (const Limit& limit : kLimits) {
        const std::optional<double>& bound = options.*limit.bound;
        if (!bound) continue;
        const Figure& figure = result.*limit.figure;
        if (!figure.value) {
            std::fprintf(err, "limit missed: %s cannot be had: %s\n", limit.name,
                         quality::missing_text(figure.missing));
            holds = false;
            continue;
        }
        const double value = limit.absolute ? std::abs(*figure.value) : *figure.value;
        if (limit.upper ? value <= *bound : value >= *bound) continue;
        std::fprintf(err, "limit missed: %s %.2f %s, %s %g %s\n", limit.name, value, limit.unit,
                     limit.upper ? "above" : "below", *bound, limit.unit);
        holds = false;
    }
    return holds;
}

// A record's blocks as the meter reads them: depth (and amplitude) of modes 0 and 1, the
// points (and intensity) of modes 2 and 3.
quality::ListView record_view(std::uint32_t mode, int width, int height, const void* blocks) {
    const std::size_t plane = static_cast<std::size_t>(width) * static_cast<std::size_t>(height);
    quality::ListView view;
    view.width = width;
    view.height = height;
    if (mode <= format::DUMP_DEPTH_AMPLITUDE) {
        view.depth = blocks;
        if (mode == format::DUMP_DEPTH_AMPLITUDE) view.amplitude = static_cast<const std::uint16_t*>(blocks) + plane;
        return view;
    }
    view.points = blocks;
    view.planeStride = plane;
    if (mode == format::DUMP_INTENSITY_POINTCLOUD) {
        view.amplitude = static_cast<const float*>(blocks) + 3 * plane;
        view.amplitudeType = quality::Sample::kFloat32;
    }
    return view;
}

// The rays for the file's depth: given, or the replay camera's; says which on `err`.
bool find_rays(const QualityOptions& options, const format::DumpLayout& layout, quality::Settings& settings,
               std::FILE* err) {
    const format::frame_header& first = layout.records.front();
    if (layout.header.dump_frame_type > format::DUMP_DEPTH_AMPLITUDE) {
        std::fprintf(err, "lmr quality: rays: the points recorded in the file\n");
        return true;
    }
    const char* origin = "--intrinsics";
    settings.calibration = options.intrinsics;
    std::string problem;
    if (!settings.calibration) {
        settings.calibration = quality::replay_calibration(options.file, problem);
        origin = "the replay camera's lens 0";
    }
    if (!settings.calibration) {
        std::fprintf(err,
                     "lmr quality: no rays for the depth of %s: %s; give --intrinsics fx,fy,cx,cy[,k1,k2,p1,p2,k3]\n",
                     options.file.c_str(), problem.c_str());
        return false;
    }
    const auto& k = settings.calibration->intrinsics;
    const auto& d = settings.calibration->distortion;
    std::fprintf(err,
                 "lmr quality: rays: %s, %s at %ux%u: fx %.3f, fy %.3f, cx %.3f, cy %.3f, k1 %g, k2 %g, p1 %g, p2 %g, "
                 "k3 %g\n",
                 origin, layout.cameraName().c_str(), first.frame_width, first.frame_height, k.fx, k.fy, k.cx, k.cy,
                 d.k1, d.k2, d.p1, d.p2, d.k3);
    return true;
}

}  // namespace

std::optional<quality::Calibration> parse_intrinsics(const std::string& text) {
    double values[9] = {};
    std::size_t count = 0;
    const char* at = text.data();
    const char* const end = at + text.size();
    while (count < 9) {
        const auto [next, error] = std::from_chars(at, end, values[count]);
        if (error != std::errc() || next == at || !std::isfinite(values[count])) return std::nullopt;
        ++count;
        at = next;
        if (at == end || *at != ',') break;
        ++at;
    }
    if (at != end || (count != 4 && count != 9) || values[0] <= 0.0 || values[1] <= 0.0) return std::nullopt;
    quality::Calibration calibration;
    calibration.intrinsics = {values[0], values[1], values[2], values[3]};
    calibration.distortion.k1 = values[4];
    calibration.distortion.k2 = values[5];
    calibration.distortion.p1 = values[6];
    calibration.distortion.p2 = values[7];
    calibration.distortion.k3 = values[8];
    return calibration;
}

QualityStatus measure_dump(const QualityOptions& options, std::FILE* out, std::FILE* err) {
    const format::File file = format::open_file(options.file, "rb");
    if (!file) {
        std::fprintf(err, "lmr quality: cannot open %s: %s\n", options.file.c_str(),
                     std::generic_category().message(errno).c_str());
        return QualityStatus::kNotMeasured;
    }
    const format::DumpLayout layout = format::scan_dump(file.get());
    if (layout.problem == format::ScanProblem::kShortHead || layout.problem == format::ScanProblem::kNotADump) {
        std::fprintf(err, "lmr quality: %s: %s\n", options.file.c_str(), layout.problemText.c_str());
        return QualityStatus::kNotMeasured;
    }
    const std::size_t found = layout.records.size();
    if (found == 0) {
        std::fprintf(err, "lmr quality: %s holds no whole record\n", options.file.c_str());
        return QualityStatus::kNotMeasured;
    }
    const RecordRange range = options.records.value_or(RecordRange{0, found - 1});
    if (range.last >= found) {
        std::fprintf(err, "lmr quality: records %zu-%zu: %s has records 0-%zu\n", range.first, range.last,
                     options.file.c_str(), found - 1);
        return QualityStatus::kNotMeasured;
    }
    const std::size_t count = range.last - range.first + 1;
    if (count > quality::kMaxLists) {
        std::fprintf(err, "lmr quality: %zu records: at most %zu at a time (--records)\n", count, quality::kMaxLists);
        return QualityStatus::kNotMeasured;
    }

    quality::Settings settings;
    settings.roi = options.roi;
    settings.truthMm = options.truthMm;
    settings.lists = count;
    if (!find_rays(options, layout, settings, err)) return QualityStatus::kNotMeasured;
    quality::DepthQualityMeter meter;
    if (meter.configure(settings) != quality::Status::kOk) {
        std::fprintf(err, "lmr quality: %s\n", quality::status_text(quality::Status::kBadSettings));
        return QualityStatus::kNotMeasured;
    }

    const std::uint32_t mode = layout.header.dump_frame_type;
    const format::frame_header& first = layout.records.front();
    const std::uint64_t bytes = layout.blockBytes() * format::block_count(mode);
    // Floats, so that float blocks are aligned; 16-bit blocks fit as well.
    std::vector<float> blocks((bytes + sizeof(float) - 1) / sizeof(float));
    for (std::size_t i = range.first; i <= range.last; ++i) {
        if (fseeko(file.get(), static_cast<off_t>(layout.dataOffset(i)), SEEK_SET) != 0 ||
            format::DumpReader(file.get()).readBlock(blocks.data(), bytes, bytes) != bytes) {
            std::fprintf(err, "lmr quality: record %zu of %s cannot be read\n", i, options.file.c_str());
            return QualityStatus::kNotMeasured;
        }
        const quality::Status added =
            meter.add(record_view(mode, first.frame_width, first.frame_height, blocks.data()));
        if (added != quality::Status::kOk) {
            std::fprintf(err, "lmr quality: %s: %s (%ux%u)\n", options.file.c_str(), quality::status_text(added),
                         first.frame_width, first.frame_height);
            return QualityStatus::kNotMeasured;
        }
    }
    const Quality result = meter.result();
    const std::string report = options.json
                                   ? quality::format_json(result) + "\n"
                                   : quality::format_text(result, layout.cameraName() + " " + layout.serialNumber());
    std::fputs(report.c_str(), out);
    return check_limits(options, result, err) ? QualityStatus::kHolds : QualityStatus::kMissed;
}

}  // namespace lumora::lmr
