#include "DumpInfo.h"

#include <cerrno>
#include <cinttypes>
#include <memory>
#include <system_error>

#include "format/DumpFile.h"

namespace lumora::lmr {

namespace {

using format::DumpLayout;
using format::Intervals;
using format::ScanProblem;

const char* or_empty(const std::string& text) { return text.empty() ? "(empty)" : text.c_str(); }

void print_head(const DumpLayout& layout, std::FILE* out) {
    const format::dump_header& header = layout.header;
    std::fprintf(out, "[Dump header]\n");
    std::fprintf(out, "  sync_byte               0x%04x\n", header.sync_byte);
    std::fprintf(out, "  embedded_line_control   %u\n", header.embedded_line_control);
    std::fprintf(out, "  dump_frame_count        %u\n", header.dump_frame_count);
    std::fprintf(out, "  dump_frame_type         %u (%s)\n", header.dump_frame_type,
                 format::dump_mode_name(header.dump_frame_type));
    std::fprintf(out, "[Source descriptor]\n");
    std::fprintf(out, "  desc_tag                %u\n", layout.source.desc_tag);
    std::fprintf(out, "  source_type             %s\n", or_empty(layout.sourceType()));
    std::fprintf(out, "[Camera descriptor]\n");
    std::fprintf(out, "  desc_tag                %u\n", layout.camera.desc_tag);
    std::fprintf(out, "  firmware_version        0x%04x\n", layout.camera.firmware_version);
    std::fprintf(out, "  sdk_version             %s\n", or_empty(layout.sdkVersion()));
    std::fprintf(out, "  serial_number           %s\n", or_empty(layout.serialNumber()));
    std::fprintf(out, "  camera_name             %s\n", or_empty(layout.cameraName()));
}

void print_records(const DumpLayout& layout, const Verification& result, std::FILE* out) {
    std::fprintf(out, "[Records]\n");
    std::fprintf(out, "  records                 %zu found, %zu announced\n", result.found, result.announced);
    if (layout.records.empty()) return;
    const format::frame_header& first = layout.records.front();
    std::fprintf(out, "  frame                   %u x %u, %u bytes per element, %" PRIu64 " bytes per record\n",
                 first.frame_width, first.frame_height, first.frame_data_size, layout.recordBytes);
    std::fprintf(out, "  frame_index             first %u, last %u, %zu lists skipped\n", first.frame_index,
                 layout.records.back().frame_index, result.skippedLists);
    std::fprintf(out, "  timestamps              %" PRIu64 " to %" PRIu64 " (microseconds)\n", first.timestamp,
                 layout.records.back().timestamp);
    const Intervals& intervals = result.intervals;
    if (intervals.count == 0) return;
    std::fprintf(out, "  frame rate              %.2f per second\n", intervals.framesPerSecond);
    std::fprintf(out, "  intervals               smallest %.3f ms, largest %.3f ms, mean %.3f ms, jitter %.3f ms\n",
                 intervals.smallest / 1e3, intervals.largest / 1e3, intervals.mean / 1e3, intervals.jitter / 1e3);
}

}  // namespace

InfoStatus print_info(const std::string& path, std::FILE* out, std::FILE* err) {
    const format::File file = format::open_file(path, "rb");
    if (!file) {
        std::fprintf(err, "lmr info: cannot open %s: %s\n", path.c_str(),
                     std::generic_category().message(errno).c_str());
        return InfoStatus::kUnreadable;
    }
    const DumpLayout layout = format::scan_dump(file.get());
    const Verification result = verify(layout);

    std::fprintf(out, "%s: %" PRIu64 " bytes\n", path.c_str(), layout.fileBytes);
    if (layout.problem != ScanProblem::kShortHead) print_head(layout, out);
    if (result.status != InfoStatus::kUnreadable) print_records(layout, result, out);
    std::fprintf(out, "[Verification]\n");
    for (const std::string& finding : result.findings)
        std::fprintf(out, "  - %s\n", finding.c_str());
    switch (result.status) {
        case InfoStatus::kWhole:
            std::fprintf(out, "  whole and consistent\n");
            break;
        case InfoStatus::kFindings:
            std::fprintf(out, "  %zu finding%s\n", result.findings.size(), result.findings.size() == 1 ? "" : "s");
            break;
        case InfoStatus::kUnreadable:
            std::fprintf(out, "  cannot be read as a dump file\n");
            break;
    }
    return result.status;
}

}  // namespace lumora::lmr
