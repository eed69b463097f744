// lmr: checks LumoraShell dump files (.lmr) and exports their records. The command line
// only: the work is in the lumora::lmr library.
#include <cstdio>
#include <optional>
#include <string>

#include <malloc.h>
#include <unistd.h>

#include <CLI/CLI.hpp>

#include "DumpExport.h"
#include "DumpInfo.h"

namespace {

// Binds a float option that may be left out.
CLI::Option* add_bound(CLI::App* app, const std::string& name, std::optional<float>& value,
                       const std::string& description) {
    return app->add_option_function<float>(
        name, [&value](const float& given) { value = given; }, description);
}

int run(int argc, char** argv) {
    CLI::App app{"lmr: checks LumoraShell dump files (.lmr) and exports their records as PNG, PLY and CSV."};
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
    exporter->add_option("--records", records, "Only records A to B, numbered from 0 as in the index (A-B, or A alone)")
        ->check(CLI::Validator(
            [](const std::string& text) {
                return lumora::lmr::parse_record_range(text) ? std::string() : "expected A-B or A, with A <= B";
            },
            "A-B"));
    add_bound(exporter, "--depth-min", options.depthMin,
              "Depth in millimetres at the near end of the colour map (default: the camera model's)");
    add_bound(exporter, "--depth-max", options.depthMax,
              "Depth in millimetres at the far end of the colour map (default: the camera model's)");
    add_bound(exporter, "--gray-min", options.grayMin, "Amplitude shown black (default: the camera model's)");
    add_bound(exporter, "--gray-max", options.grayMax, "Amplitude shown white (default: the camera model's)");

    CLI11_PARSE(app, argc, argv);

    if (info->parsed()) return static_cast<int>(lumora::lmr::print_info(file, stdout, stderr));
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
