#include "DumpInfo.h"

#include <cerrno>
#include <cinttypes>
#include <cmath>
#include <memory>
#include <system_error>

#include "format/DumpFile.h"

namespace lumora::lmr {

namespace {

using format::DumpLayout;
using format::ScanProblem;

// Beyond this many findings of one kind, the rest are counted, not listed.
constexpr std::size_t kListed = 10;

// Adds the listed findings of one kind, and a line counting those beyond kListed.
void add_listed(std::vector<std::string>& findings, const std::vector<std::string>& found, const char* kind) {
    for (std::size_t i = 0; i < found.size() && i < kListed; ++i)
        findings.push_back(found[i]);
    if (found.size() > kListed)
        findings.push_back(format::format_line("... and %zu more %s", found.size() - kListed, kind));
}

void check_indices(const DumpLayout& layout, Verification& result) {
    std::vector<std::string> gaps;
    for (std::size_t i = 0; i < layout.records.size(); ++i) {
        const unsigned index = layout.records[i].frame_index;
        // The writer numbers from 0, one more for each list it counts: written or skipped.
        const unsigned expected = i == 0 ? 0U : (layout.records[i - 1].frame_index + 1U) & 0xFFU;
        const unsigned skipped = (index - expected) & 0xFFU;
        if (skipped == 0) continue;
        result.skippedLists += skipped;
        if (i == 0)
            gaps.push_back(
                format::format_line("record 0 has frame_index %u: %u lists skipped before it", index, skipped));
        else
            gaps.push_back(format::format_line("frame_index jumps from %u to %u at record %zu: %u lists skipped",
                                               layout.records[i - 1].frame_index, index, i, skipped));
    }
    add_listed(result.findings, gaps, "frame_index gaps");
}

void check_timestamps(const DumpLayout& layout, Verification& result) {
    const auto& records = layout.records;
    if (records.size() < 2) return;
    std::vector<std::string> backwards;
    Intervals& intervals = result.intervals;
    double sum = 0.0;
    double squares = 0.0;
    for (std::size_t i = 1; i < records.size(); ++i) {
        const std::uint64_t before = records[i - 1].timestamp;
        const std::uint64_t now = records[i].timestamp;
        const double interval = now >= before ? static_cast<double>(now - before) : -static_cast<double>(before - now);
        if (now <= before)
            backwards.push_back(format::format_line(
                "record %zu's timestamp %" PRIu64 " does not come after record %zu's %" PRIu64, i, now, i - 1, before));
        intervals.smallest = i == 1 ? interval : std::min(intervals.smallest, interval);
        intervals.largest = i == 1 ? interval : std::max(intervals.largest, interval);
        sum += interval;
        squares += interval * interval;
    }
    intervals.count = records.size() - 1;
    const auto n = static_cast<double>(intervals.count);
    intervals.mean = sum / n;
    intervals.jitter = std::sqrt(std::max(0.0, squares / n - intervals.mean * intervals.mean));
    if (records.back().timestamp > records.front().timestamp)
        intervals.framesPerSecond = n * 1e6 / static_cast<double>(records.back().timestamp - records.front().timestamp);
    add_listed(result.findings, backwards, "timestamps that do not advance");
}

void check_end(const DumpLayout& layout, Verification& result) {
    switch (layout.problem) {
        case ScanProblem::kNone:
        case ScanProblem::kShortHead:
        case ScanProblem::kNotADump:
            return;
        case ScanProblem::kTruncatedRecord:
            result.findings.push_back(layout.problemText);
            return;
        case ScanProblem::kBadRecord:
        case ScanProblem::kRecordMismatch:
            result.findings.push_back(layout.problemText +
                                      format::format_line("; the file cannot be read past byte %" PRIu64 " (%" PRIu64
                                                          " bytes after it not read)",
                                                          layout.problemOffset,
                                                          layout.fileBytes - layout.problemOffset));
            return;
    }
}

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

Verification verify(const DumpLayout& layout) {
    Verification result;
    result.found = layout.records.size();
    result.announced = layout.header.dump_frame_count;
    if (layout.problem == ScanProblem::kShortHead || layout.problem == ScanProblem::kNotADump) {
        result.findings.push_back(layout.problemText);
        result.status = InfoStatus::kUnreadable;
        return result;
    }
    if (result.found < result.announced)
        result.findings.push_back(format::format_line("%zu of the %zu announced records are missing",
                                                      result.announced - result.found, result.announced));
    else if (result.found > result.announced)
        result.findings.push_back(format::format_line("%zu records more than the %zu announced",
                                                      result.found - result.announced, result.announced));
    check_indices(layout, result);
    check_timestamps(layout, result);
    check_end(layout, result);
    result.status = result.findings.empty() ? InfoStatus::kWhole : InfoStatus::kFindings;
    return result;
}

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
