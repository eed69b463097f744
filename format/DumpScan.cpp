#include "format/DumpScan.h"

#include <cinttypes>

#include "format/DumpFile.h"

namespace lumora::format {

namespace {

std::string describe(const char* format, std::uint64_t a, std::uint64_t b = 0, std::uint64_t c = 0,
                     std::uint64_t d = 0) {
    return format_line(format, a, b, c, d);
}

void stop(DumpLayout& layout, ScanProblem problem, std::uint64_t offset, std::string text) {
    layout.problem = problem;
    layout.problemOffset = offset;
    layout.problemText = std::move(text);
}

bool same_shape(const frame_header& a, const frame_header& b) {
    return a.frame_width == b.frame_width && a.frame_height == b.frame_height && a.frame_data_size == b.frame_data_size;
}

// The records after the head: the first fixes the shape, every later one must repeat it.
void scan_records(DumpReader& reader, DumpLayout& layout) {
    const dump_header& dump = layout.header;
    std::uint64_t offset = kHeadBytes;
    while (reader.bytesLeft() > 0) {
        const std::size_t index = layout.records.size();
        frame_header header{};
        if (!reader.read(header)) {
            stop(
                layout, ScanProblem::kTruncatedRecord, offset,
                describe("record %" PRIu64 " at byte %" PRIu64 " is cut short inside its frame header", index, offset));
            return;
        }
        if (index == 0) {
            if (header.frame_width == 0 || header.frame_height == 0 ||
                header.frame_data_size != element_size(dump.dump_frame_type)) {
                stop(layout, ScanProblem::kBadRecord, offset,
                     describe("record 0 at byte %" PRIu64 " has width %" PRIu64 ", height %" PRIu64
                              " and element size %" PRIu64 ", which the dump mode cannot have",
                              offset, header.frame_width, header.frame_height, header.frame_data_size));
                return;
            }
            const std::uint64_t block =
                std::uint64_t{header.frame_width} * header.frame_height * header.frame_data_size;
            layout.recordBytes = sizeof(frame_header) + (dump.embedded_line_control == 1 ? header.frame_width : 0) +
                                 block * block_count(dump.dump_frame_type);
        } else if (!same_shape(header, layout.records.front())) {
            std::string text = describe("record %" PRIu64 " at byte %" PRIu64 " does not follow record %" PRIu64
                                        ": its width, height or element size differ",
                                        index, offset, index - 1);
            if (dump.embedded_line_control == 1)
                text += describe(" (the embedded line of record %" PRIu64 " is not %" PRIu64 " bytes long)", index - 1,
                                 layout.records.front().frame_width);
            stop(layout, ScanProblem::kRecordMismatch, offset, std::move(text));
            return;
        }
        const std::uint64_t rest = layout.recordBytes - sizeof(frame_header);
        if (reader.bytesLeft() < rest) {
            stop(layout, ScanProblem::kTruncatedRecord, offset,
                 describe("record %" PRIu64 " at byte %" PRIu64 " is cut short: %" PRIu64 " of %" PRIu64 " bytes",
                          index, offset, sizeof(frame_header) + reader.bytesLeft(), layout.recordBytes));
            return;
        }
        layout.records.push_back(header);
        char skipped = 0;
        reader.readBlock(&skipped, 0, rest);
        offset += layout.recordBytes;
    }
}

}  // namespace

std::uint64_t DumpLayout::blockBytes() const {
    if (records.empty()) return 0;
    const frame_header& first = records.front();
    return std::uint64_t{first.frame_width} * first.frame_height * first.frame_data_size;
}

std::uint64_t DumpLayout::dataOffset(std::size_t i) const {
    const std::uint64_t embedded =
        header.embedded_line_control == 1 && !records.empty() ? records.front().frame_width : 0;
    return recordOffset(i) + sizeof(frame_header) + embedded;
}

DumpLayout scan_dump(std::FILE* file) {
    DumpLayout layout;
    if (std::fseek(file, 0, SEEK_SET) != 0) {
        stop(layout, ScanProblem::kShortHead, 0, "the file cannot be read from its start");
        return layout;
    }
    DumpReader reader(file);
    layout.fileBytes = reader.bytesLeft();
    if (!read_head(reader, layout)) {
        stop(layout, ScanProblem::kShortHead, 0,
             describe("the file is %" PRIu64 " bytes long, shorter than the %" PRIu64 " bytes of its head",
                      layout.fileBytes, kHeadBytes));
        return layout;
    }
    const dump_header& dump = layout.header;
    if (!layout.syncIsOurs() || !layout.sourceTagIsValid() || !layout.cameraTagIsValid() ||
        block_count(dump.dump_frame_type) == 0 || dump.embedded_line_control > 1) {
        stop(layout, ScanProblem::kNotADump, 0,
             describe("not a dump file: sync byte 0x%02" PRIx64 ", descriptor tags %" PRIu64 " and %" PRIu64
                      ", dump mode %" PRIu64,
                      dump.sync_byte, layout.source.desc_tag, layout.camera.desc_tag, dump.dump_frame_type));
        return layout;
    }
    scan_records(reader, layout);
    return layout;
}

}  // namespace lumora::format
