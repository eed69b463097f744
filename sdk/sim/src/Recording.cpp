#include "Recording.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include <halden/sensor/LumoraFrame.h>

#include "format/DumpFile.h"
#include "format/DumpScan.h"

namespace halden::sensor::sim {

namespace format = lumora::format;

namespace {

constexpr std::chrono::microseconds kLongestInterval{1000000};
constexpr std::chrono::microseconds kShortestLoop{1000};
constexpr std::chrono::microseconds kSingleRecordInterval{33333};  // a lone record plays at 30 fps

std::chrono::microseconds interval_between(std::uint64_t before, std::uint64_t after) {
    if (after <= before) return std::chrono::microseconds{0};
    return std::chrono::microseconds{
        static_cast<std::int64_t>(std::min<std::uint64_t>(after - before, kLongestInterval.count()))};
}

// From the last record back to the first: the file's mean interval.
std::chrono::microseconds loop_interval(const std::vector<format::frame_header>& records) {
    if (records.size() < 2) return kSingleRecordInterval;
    std::chrono::microseconds sum{0};
    for (std::size_t i = 1; i < records.size(); ++i)
        sum += interval_between(records[i - 1].timestamp, records[i].timestamp);
    return std::max(kShortestLoop, sum / static_cast<std::int64_t>(records.size() - 1));
}

std::optional<RecordingInfo> describe_layout(const format::DumpLayout& layout, std::string& problem) {
    if (layout.problem != format::ScanProblem::kNone) {
        problem = layout.problemText;
        return std::nullopt;
    }
    if (layout.records.empty()) {
        problem = "the file holds no frame records";
        return std::nullopt;
    }
    RecordingInfo info;
    info.name = layout.cameraName().empty() ? "replay" : layout.cameraName();
    info.serialNumber = layout.serialNumber();
    info.firmwareVersion = layout.camera.firmware_version;
    info.mode = layout.header.dump_frame_type;
    info.width = layout.records.front().frame_width;
    info.height = layout.records.front().frame_height;
    info.embeddedLines = layout.header.embedded_line_control == 1;
    info.records = layout.records.size();
    info.fps = 1e6 / static_cast<double>(loop_interval(layout.records).count());
    return info;
}

format::File open_recording(const std::string& path, std::string& problem) {
    format::File file = format::open_file(path, "rb");
    if (!file) {
        char text[128];
        problem = std::string("the file cannot be opened (") + strerror_r(errno, text, sizeof text) + ")";
    }
    return file;
}

}  // namespace

std::uint32_t RecordingInfo::frameTypes() const {
    switch (mode) {
        case format::DUMP_DEPTH:
            return LumoraFrame::FRAME_DEPTH;
        case format::DUMP_DEPTH_AMPLITUDE:
            return LumoraFrame::FRAME_DEPTH | LumoraFrame::FRAME_AMPLITUDE;
        case format::DUMP_POINTCLOUD:
            return LumoraFrame::FRAME_POINTCLOUD;
        case format::DUMP_INTENSITY_POINTCLOUD:
            return LumoraFrame::FRAME_INTENSITY_POINTCLOUD;
        default:
            return 0;
    }
}

std::optional<RecordingInfo> describe_recording(std::FILE* file, std::string& problem) {
    return describe_layout(format::scan_dump(file), problem);
}

std::optional<RecordingInfo> describe_recording(const std::string& path, std::string& problem) {
    const format::File file = open_recording(path, problem);
    return file ? describe_recording(file.get(), problem) : std::nullopt;
}

std::shared_ptr<const Recording> Recording::read(std::FILE* file, std::string& problem) {
    format::DumpLayout layout = format::scan_dump(file);
    const auto info = describe_layout(layout, problem);
    if (!info) return nullptr;
    std::shared_ptr<Recording> recording(new Recording);
    recording->mInfo = *info;
    recording->mLineBytes = info->embeddedLines ? static_cast<std::size_t>(info->width) : 0;
    recording->mBlockBytes = static_cast<std::size_t>(layout.blockBytes());
    recording->mRecordBytes = static_cast<std::size_t>(layout.recordBytes - sizeof(format::frame_header));
    recording->mLoopInterval = loop_interval(layout.records);
    recording->mHeaders = std::move(layout.records);
    recording->mHeaders.shrink_to_fit();

    // The scan found every record whole, so this reads no more than the file holds.
    const std::size_t count = recording->mHeaders.size();
    const std::size_t bytes = count * recording->mRecordBytes;
    if (std::fseek(file, static_cast<long>(format::kHeadBytes), SEEK_SET) != 0) {
        problem = "the file cannot be read again after its check";
        return nullptr;
    }
    format::DumpReader reader(file);
    if (reader.bytesLeft() < count * layout.recordBytes) {
        problem = "the file became shorter after its check";
        return nullptr;
    }
    recording->mData.reset(new std::uint8_t[bytes]);
    for (std::size_t i = 0; i < count; ++i) {
        std::uint8_t* data = recording->mData.get() + i * recording->mRecordBytes;
        format::frame_header header{};
        if (!reader.read(header) ||
            reader.readBlock(data, recording->mRecordBytes, recording->mRecordBytes) != recording->mRecordBytes ||
            std::memcmp(&header, &recording->mHeaders[i], sizeof header) != 0) {
            problem = "the file changed after its check";
            return nullptr;
        }
    }
    return recording;
}

std::shared_ptr<const Recording> Recording::load(const std::string& path, std::string& problem) {
    const format::File file = open_recording(path, problem);
    return file ? read(file.get(), problem) : nullptr;
}

std::chrono::microseconds Recording::intervalBefore(std::size_t record) const {
    if (record == 0) return mLoopInterval;
    return interval_between(mHeaders[record - 1].timestamp, mHeaders[record].timestamp);
}

const std::uint8_t* Recording::line(std::size_t record) const {
    return mLineBytes == 0 ? nullptr : mData.get() + record * mRecordBytes;
}

const std::uint8_t* Recording::blocks(std::size_t record) const {
    return mData.get() + record * mRecordBytes + mLineBytes;
}

std::size_t Recording::heldBytes() const {
    return mHeaders.capacity() * sizeof(format::frame_header) + mHeaders.size() * mRecordBytes;
}

}  // namespace halden::sensor::sim
