// The check of a scanned dump file: whether its records are whole and consistent, and if not,
// one line per thing found wrong. What `lmr info` prints and Python's Dump.findings() gives.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "format/DumpScan.h"

namespace lumora::format {

// What a check concludes; the values are `lmr info`'s exit statuses.
enum class DumpStatus {
    kWhole = 0,       // every announced record is there, whole, in order
    kFindings = 1,    // readable, but with findings
    kUnreadable = 2,  // not a dump file, or cut short inside its head
};

// Timestamp intervals between consecutive records, in the library's unit (microseconds).
struct Intervals {
    std::size_t count = 0;
    double smallest = 0.0;
    double largest = 0.0;
    double mean = 0.0;
    double jitter = 0.0;           // standard deviation
    double framesPerSecond = 0.0;  // records per second over the first to the last timestamp
};

// What the check of a scanned file found.
struct Verification {
    std::size_t found = 0;
    std::size_t announced = 0;
    // Lists the writer counted but did not write, from the gaps in frame_index (which
    // starts at 0 and wraps at 256).
    std::size_t skippedLists = 0;
    Intervals intervals;
    // One line per finding; none for a whole, consistent file.
    std::vector<std::string> findings;
    DumpStatus status = DumpStatus::kWhole;
};

// Checks a layout found by scan_dump(): the records against the announced count, gaps in
// frame_index, timestamps that do not advance, and the problem that ended the scan. Ten
// findings of one kind at most are listed, the rest counted in one more line. Pure.
Verification verify(const DumpLayout& layout);

}  // namespace lumora::format
