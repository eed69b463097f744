// lmr: checks LumoraShell dump files (.lmr), exports their records and measures their depth
// quality. The command line only: the work is in the lumora::lmr library.
#include <cstdio>
#include <optional>
#include <string>

#include <malloc.h>
#include <unistd.h>

#include <CLI/CLI.hpp>

#include "DumpExport.h"
#include "DumpInfo.h"
#include "DumpQuality.h"

namespace {

// Binds a number option that may be left out.
template <typename T>
CLI::Option* add_bound(CLI::App* app, const std::string& name, std::optional<T>& value,
                       const std::string& description) {
    return app->add_option_function<T>(
        name, [&value](const T& given) { value = given; }, description);
}

// A validator from a parser that gives nothing for text it cannot read.
template <typename Parse>
CLI::Validator parsed_by(Parse parse, const std::string& expected, const std::string& name) {
    return CLI::Validator(
        [parse, expected](const std::string& text) { return parse(text) ? std::string() : "expected " + expected; },
        name);
}

int run(int argc, char** argv) {
    CLI::App app{
        "lmr: checks LumoraShell dump files (.lmr), exports their records as PNG, PLY and CSV, and measures their "
        "depth quality."};
    app.require_subcommand(1);

    std::string file;
    auto* info = app.add_subcommand(
        "info",
        "Print the file's header and descriptors, then check its records: the count against the one announced, "
        "frame_index gaps, timestamp intervals, a truncated last record, a layout broken by an embedded line of the "
        "wrong length. Exit status 0: whole and consistent; 1: findings; 2: cannot be read.");
    info->add_option("FILE", file, "The dump file")->required();

    lumora::lmr::ExportOptions options;
    std::string records;
    auto* exporter = app.add_subcommand(
        "export",
        "Write every record into DIR: depth as a 16-bit PNG in millimetres and as a colour PNG through the live "
        "display's colour map, amplitude as an 8-bit gray PNG, point clouds as binary PLY in metres, and index.csv. "
        "Exit status 0: all written; 1: a bad option or a file not written; 2: the dump cannot be read.");
    exporter->add_option("FILE", options.file, "The dump file")->required();
    exporter->add_option("DIR", options.directory, "The directory to write into (made when missing)")->required();
    const CLI::Validator recordRange = parsed_by(lumora::lmr::parse_record_range, "A-B or A, with A <= B", "A-B");
    exporter->add_option("--records", records, "Only records A to B, numbered from 0 as in the index (A-B, or A alone)")
        ->check(recordRange);
    add_bound(exporter, "--depth-min", options.depthMin,
              "Depth in millimetres at the near end of the colour map (default: the camera model's)");
    add_bound(exporter, "--depth-max", options.depthMax,
              "Depth in millimetres at the far end of the colour map (default: the camera model's)");
    add_bound(exporter, "--gray-min", options.grayMin, "Amplitude shown black (default: the camera model's)");
    add_bound(exporter, "--gray-max", options.grayMax, "Amplitude shown white (default: the camera model's)");

    lumora::lmr::QualityOptions measure;
    std::string qualityRecords, roi, intrinsics;
    auto* quality = app.add_subcommand(
        "quality",
        "Measure the depth quality over the records: fill rate, distance and angle of the plane fitted to the ROI's "
        "points, plane-fit RMS, temporal noise, Z accuracy against --truth, amplitude. Depth records (modes 0 and 1) "
        "take their rays from --intrinsics, else from the replay camera the camera library makes of the file; point "
        "clouds (modes 2 and 3) from their points. Which rays were used is said on standard error, and so is each "
        "limit missed. Exit status 0: measured, every limit holds; 1: a limit missed (or a figure it needs cannot be "
        "had); 2: the file cannot be read or measured (no rays, records or ROI outside it).");
    quality->add_option("FILE", measure.file, "The dump file")->required();
    quality->add_option("--records", qualityRecords, "Only records A to B, numbered from 0 (A-B, or A alone)")
        ->check(recordRange);
    quality->add_option("--roi", roi, "The region: a centred share of width and height in % (default 40), or X,Y,W,H")
        ->check(parsed_by(lumora::quality::parse_roi, "1 to 100, or X,Y,W,H", "ROI"));
    quality
        ->add_option("--intrinsics", intrinsics,
                     "The rays of depth records: fx,fy,cx,cy in pixels, and optionally the distortion k1,k2,p1,p2,k3")
        ->check(parsed_by(lumora::lmr::parse_intrinsics, "fx,fy,cx,cy[,k1,k2,p1,p2,k3] with fx, fy above 0",
                          "FX,FY,CX,CY[,K1,K2,P1,P2,K3]"));
    auto* truth = add_bound(quality, "--truth", measure.truthMm, "The true distance in mm, for the Z accuracy")
                      ->check(CLI::PositiveNumber);
    quality->add_flag("--json", measure.json, "Print the figures as one JSON object (null where one cannot be had)");
    add_bound(quality, "--max-temporal-noise", measure.maxTemporalNoiseMm, "Limit: temporal noise at most MM");
    add_bound(quality, "--max-plane-fit-rms", measure.maxPlaneFitRmsMm, "Limit: plane-fit RMS at most MM");
    add_bound(quality, "--min-fill-rate", measure.minFillRatePct, "Limit: fill rate at least PCT");
    add_bound(quality, "--max-z-error", measure.maxZErrorPct,
              "Limit: the Z error's absolute value at most PCT of --truth")
        ->needs(truth);

    CLI11_PARSE(app, argc, argv);

    if (info->parsed()) return static_cast<int>(lumora::lmr::print_info(file, stdout, stderr));
    if (quality->parsed()) {
        if (!qualityRecords.empty()) measure.records = lumora::lmr::parse_record_range(qualityRecords);
        if (!roi.empty()) measure.roi = *lumora::quality::parse_roi(roi);
        if (!intrinsics.empty()) measure.intrinsics = lumora::lmr::parse_intrinsics(intrinsics);
        return static_cast<int>(lumora::lmr::measure_dump(measure, stdout, stderr));
    }
    if (!records.empty()) options.records = lumora::lmr::parse_record_range(records);
    options.progress = isatty(STDERR_FILENO) == 1;
    // The PNG encoder takes and frees its compression state for every file: kept in the
    // heap, it is not mapped, unmapped and shot down from the other core's TLB each time.
    mallopt(M_MMAP_THRESHOLD, 32 << 20);   // NOLINT(concurrency-mt-unsafe): no other thread yet
    mallopt(M_TRIM_THRESHOLD, 256 << 20);  // NOLINT(concurrency-mt-unsafe): no other thread yet
    return static_cast<int>(lumora::lmr::export_dump(options, stderr));
}

}  // namespace

int main(int argc, char** argv) {
    // The parser reports a wrong command line through its own exceptions, which CLI11_PARSE
    // turns into a message and a status; anything else it throws ends here.
    try {
        return run(argc, argv);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "lmr: %s\n", error.what());
        return 1;
    }
}
