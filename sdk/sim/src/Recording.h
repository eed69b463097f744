// A dump file played back as a camera: what its head and records say (checked when the
// device list is read), and its records held in memory (read when the camera is created).
//
// The file's layout is read through the dump format's own scan and reader; a file that is
// not a dump, is cut short or whose records disagree with each other is refused whole.
// Memory held for a file is never more than the file's size: the records' data without
// their 15-byte headers, plus the headers themselves.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "format/DumpFormat.h"

namespace halden::sensor::sim {

struct RecordingInfo {
    std::string name;  // the camera descriptor's name, "replay" when it is empty
    std::string serialNumber;
    std::uint16_t firmwareVersion = 0;
    std::uint32_t mode = 0;  // the dump mode, 0 to 3
    int width = 0;
    int height = 0;
    bool embeddedLines = false;
    std::size_t records = 0;
    double fps = 0.0;  // records per second over the file; 30 for a single record

    // The frame-type bits of the mode: depth; depth and amplitude; point cloud; intensity
    // point cloud.
    std::uint32_t frameTypes() const;
};

// Checks a whole file (not owned, not closed; its position is left anywhere). Empty, with
// one line saying why in `problem`, for a file that cannot be played.
std::optional<RecordingInfo> describe_recording(std::FILE* file, std::string& problem);
// The same for the file at `path`.
std::optional<RecordingInfo> describe_recording(const std::string& path, std::string& problem);

class Recording {
public:
    // Checks and reads a whole file (not owned, not closed); null with one line in `problem`
    // for a file that cannot be played.
    static std::shared_ptr<const Recording> read(std::FILE* file, std::string& problem);
    static std::shared_ptr<const Recording> load(const std::string& path, std::string& problem);

    const RecordingInfo& info() const { return mInfo; }
    std::size_t size() const { return mHeaders.size(); }
    std::uint64_t timestamp(std::size_t record) const { return mHeaders[record].timestamp; }
    // The time between the record before (the last one, for record 0) and this one, as
    // recorded: within 0 and 1 s, and from the last record back to the first the mean
    // interval of the file, at least 1 ms.
    std::chrono::microseconds intervalBefore(std::size_t record) const;
    // frame_width bytes of embedded line; null for a file without embedded lines.
    const std::uint8_t* line(std::size_t record) const;
    // The record's data blocks, back to back.
    const std::uint8_t* blocks(std::size_t record) const;
    std::size_t blockBytes() const { return mBlockBytes; }
    // Bytes held in memory for the file.
    std::size_t heldBytes() const;

private:
    Recording() = default;

    RecordingInfo mInfo;
    std::vector<lumora::format::frame_header> mHeaders;
    std::unique_ptr<std::uint8_t[]> mData;  // per record: the embedded line, then the blocks
    std::size_t mLineBytes = 0;
    std::size_t mBlockBytes = 0;
    std::size_t mRecordBytes = 0;  // of mData: line and blocks
    std::chrono::microseconds mLoopInterval{0};
};

}  // namespace halden::sensor::sim
