// A whole dump file's layout, found in one pass over its headers: what a player or a
// checker of a file needs before it trusts a byte of frame data.
#pragma once

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "format/DumpFormat.h"
#include "format/DumpHead.h"

namespace lumora::format {

// What stops a scan. The first problem found ends it; the records before it are whole.
enum class ScanProblem {
    kNone,
    kShortHead,        // the file ends inside the dump header or a descriptor
    kNotADump,         // wrong sync byte, descriptor tag or dump mode
    kBadRecord,        // a record's width, height or element size cannot be the mode's
    kRecordMismatch,   // a record's width, height or element size differs from the first's
    kTruncatedRecord,  // the file ends inside a record
};

// The head, and the records found after it.
struct DumpLayout : DumpHead {
    // The frame headers of the whole records, in file order. Every one has the first's width,
    // height and element size, so record i starts at kHeadBytes + i * recordBytes.
    std::vector<frame_header> records;
    std::uint64_t recordBytes = 0;
    std::uint64_t fileBytes = 0;
    ScanProblem problem = ScanProblem::kNone;
    // The byte where the problem lies, and one line saying what it is and where.
    std::uint64_t problemOffset = 0;
    std::string problemText;

    // Byte offset of record i's frame header, of its embedded line (when the header says there
    // is one) and of its first data block.
    std::uint64_t recordOffset(std::size_t i) const { return kHeadBytes + i * recordBytes; }
    std::uint64_t dataOffset(std::size_t i) const;
    // Bytes of one data block: width x height x element size.
    std::uint64_t blockBytes() const;
};

// Scans `file` (not owned, not closed) from its start to its end, reading the head and every
// frame header and seeking over the blocks; the embedded line is taken as frame_width bytes.
// Memory held is at most 15 bytes per record found, never more than the file's size. The
// position of `file` afterwards is unspecified. Runs on the caller's thread.
DumpLayout scan_dump(std::FILE* file);

}  // namespace lumora::format
