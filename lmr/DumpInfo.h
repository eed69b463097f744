// `lmr info`: a dump file's header and descriptors, then a check that its records are whole
// and consistent.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "format/DumpScan.h"

namespace lumora::lmr {

// The exit status of `lmr info`.
enum class InfoStatus {
    kWhole = 0,       // every announced record is there, whole, in order
    kFindings = 1,    // readable, but with findings
    kUnreadable = 2,  // cannot be opened, or not a dump file
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
    InfoStatus status = InfoStatus::kWhole;
};

// Checks a layout found by scan_dump().
Verification verify(const format::DumpLayout& layout);

// Prints the file's head and its verification to `out`, and messages about a file that
// cannot be opened to `err`. Runs on the caller's thread.
InfoStatus print_info(const std::string& path, std::FILE* out, std::FILE* err);

}  // namespace lumora::lmr
