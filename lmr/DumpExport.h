// `lmr export`: every record of a dump file as files that people and other programs open.
// Depth as a 16-bit PNG (millimetres) and as a colour PNG through the live display's colour
// map, amplitude as an 8-bit gray PNG through its gray map, point clouds as binary PLY, and
// a CSV index with one row per record.
#pragma once

#include <cstddef>
#include <cstdio>
#include <optional>
#include <string>

namespace lumora::lmr {

// Records `first` to `last`, both included, numbered from 0 in file order.
struct RecordRange {
    std::size_t first = 0;
    std::size_t last = 0;
};

// "A-B" or "A"; nothing for any other text or for B below A.
std::optional<RecordRange> parse_record_range(const std::string& text);

struct ExportOptions {
    std::string file;
    std::string directory;               // created when missing; files in it are replaced
    std::optional<RecordRange> records;  // every whole record when absent
    // The colour map's depth range and the gray map's range; each bound missing here is the
    // camera model's.
    std::optional<float> depthMin, depthMax, grayMin, grayMax;
    bool progress = false;  // a progress bar on the error stream
    unsigned workers = 2;
};

// The exit status of `lmr export`.
enum class ExportStatus {
    kDone = 0,        // every selected record written
    kFailed = 1,      // a bad option, or a file that could not be written
    kUnreadable = 2,  // the dump cannot be opened, or is not a dump file
};

// The names of a record's files in the directory, as the index lists them ("" for a kind
// the dump mode does not have).
struct RecordFiles {
    std::string depth;
    std::string depthColour;
    std::string amplitude;
    std::string cloud;
};
RecordFiles record_files(std::size_t record, unsigned mode);

// The index's file name in the directory.
inline constexpr const char* kIndexName = "index.csv";

// Writes the files; messages (and the progress bar) go to `err`. Starts options.workers
// threads over the records and joins them before it returns; called on one thread.
ExportStatus export_dump(const ExportOptions& options, std::FILE* err);

}  // namespace lumora::lmr
