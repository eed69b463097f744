#include "format/DumpCheck.h"

#include <algorithm>
#include <cinttypes>
#include <cmath>

#include "format/DumpFile.h"

namespace lumora::format {

namespace {

// Beyond this many findings of one kind, the rest are counted, not listed.
constexpr std::size_t kListed = 10;

// Adds the listed findings of one kind, and a line counting those beyond kListed.
void add_listed(std::vector<std::string>& findings, const std::vector<std::string>& found, const char* kind) {
    for (std::size_t i = 0; i < found.size() && i < kListed; ++i)
        findings.push_back(found[i]);
    if (found.size() > kListed) findings.push_back(format_line("... and %zu more %s", found.size() - kListed, kind));
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
            gaps.push_back(format_line("record 0 has frame_index %u: %u lists skipped before it", index, skipped));
        else
            gaps.push_back(format_line("frame_index jumps from %u to %u at record %zu: %u lists skipped",
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
            backwards.push_back(format_line(
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
            result.findings.push_back(layout.problemText + format_line("; the file cannot be read past byte %" PRIu64
                                                                       " (%" PRIu64 " bytes after it not read)",
                                                                       layout.problemOffset,
                                                                       layout.fileBytes - layout.problemOffset));
            return;
    }
}

}  // namespace

Verification verify(const DumpLayout& layout) {
    Verification result;
    result.found = layout.records.size();
    result.announced = layout.header.dump_frame_count;
    if (layout.problem == ScanProblem::kShortHead || layout.problem == ScanProblem::kNotADump) {
        result.findings.push_back(layout.problemText);
        result.status = DumpStatus::kUnreadable;
        return result;
    }
    if (result.found < result.announced)
        result.findings.push_back(format_line("%zu of the %zu announced records are missing",
                                              result.announced - result.found, result.announced));
    else if (result.found > result.announced)
        result.findings.push_back(
            format_line("%zu records more than the %zu announced", result.found - result.announced, result.announced));
    check_indices(layout, result);
    check_timestamps(layout, result);
    check_end(layout, result);
    result.status = result.findings.empty() ? DumpStatus::kWhole : DumpStatus::kFindings;
    return result;
}

}  // namespace lumora::format
