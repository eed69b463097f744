#include "DumpListing.h"

#include <algorithm>
#include <cinttypes>
#include <vector>

#include "format/DumpFormat.h"
#include "format/DumpHead.h"

namespace lumora::dump {

namespace {

// Lines that end with a flush, as a stream's endl would.
void print_line(std::FILE* out, const char* text) {
    std::fprintf(out, "%s\n", text);
    std::fflush(out);
}

// Reads one block of width x height elements into a zeroed buffer of elements of
// `bufferElementSize` bytes, the file holding `storedElementSize` bytes per element; the
// buffer is no larger than what the file still holds. The data is dropped.
void read_block(format::DumpReader& reader, const format::frame_header& header, std::size_t bufferElementSize,
                std::uint64_t storedElementSize) {
    const std::uint64_t elements = std::uint64_t{header.frame_width} * header.frame_height;
    const std::uint64_t stored = elements * storedElementSize;
    const auto capacity =
        static_cast<std::size_t>(std::min({elements * bufferElementSize, stored, reader.bytesLeft()}));
    std::vector<std::uint8_t> buffer(capacity);
    reader.readBlock(buffer.data(), buffer.size(), stored);
}

void print_frame(format::DumpReader& reader, std::FILE* out, const format::dump_header& dump,
                 const format::frame_header& header, int i) {
    std::fprintf(out, "[Frame header] ==> %d\n", i);
    std::fprintf(out, "  - frame_header[%d].frame_index (0x%0x)\n", i, header.frame_index);
    std::fprintf(out, "  - frame_header[%d].frame_width (0x%0x)\n", i, header.frame_width);
    std::fprintf(out, "  - frame_header[%d].frame_height (0x%02x)\n", i, header.frame_height);
    std::fprintf(out, "  - frame_header[%d].frame_data_size (0x%02x)\n", i, header.frame_data_size);
    std::fprintf(out, "  - frame_header[%d].timestamp (%" PRIu64 ")\n", i, std::uint64_t{header.timestamp});
    if (dump.embedded_line_control == 1) {
        read_block(reader, format::frame_header{0, header.frame_width, 1, 1, 0}, 1, 1);
        std::fprintf(out, "  - [Reading Embedded line frame data...]\n");
    } else {
        std::fprintf(out, "  - [There is no embedded line frame data!]\n");
    }
    static const char* const kLines[][4] = {
        {"  - [Reading Depth frame data...]\n"},
        {"  - [Reading Depth frame data...]\n", "  - [Reading Amplitude frame data...]\n"},
        {"  - [Reading PCL X frame data...]\n", "  - [Reading PCL Y frame data...]\n",
         "  - [Reading PCL Z frame data...]\n"},
        {"  - [Reading IPCL X frame data...]\n", "  - [Reading IPCL Y frame data...]\n",
         "  - [Reading IPCL Z frame data...]\n", "  - [Reading IPCL I frame data...]\n"},
    };
    const std::size_t blocks = format::block_count(dump.dump_frame_type);
    if (blocks == 0) {
        print_line(out, "Invalid dump mode!");
        return;
    }
    for (std::size_t b = 0; b < blocks; ++b)
        read_block(reader, header, format::element_size(dump.dump_frame_type), header.frame_data_size);
    for (std::size_t b = 0; b < blocks; ++b)
        std::fputs(kLines[dump.dump_frame_type][b], out);
}

}  // namespace

void inspect_dump(std::FILE* in, std::FILE* out) {
    format::DumpReader reader(in);
    format::DumpHead head;
    format::read_head(reader, head);
    const format::dump_header& dump = head.header;
    std::fprintf(out, "[Dump Header]\n");
    std::fprintf(out, "  - dump_header.sync_byte (0x%02x)\n", dump.sync_byte);
    std::fprintf(out, "  - dump_header.embedded_line_control (0x%0x)\n", dump.embedded_line_control);
    std::fprintf(out, "  - dump_header.dump_frame_count (0x%02x)\n", dump.dump_frame_count);
    std::fprintf(out, "  - dump_header.dump_frame_type (0x%02x)\n", dump.dump_frame_type);
    print_line(out, "  - [Checking sync byte...]");
    // A file from another writer is still read.
    print_line(out, head.syncIsOurs() ? "    - This is our latest lmr file. Keep going!"
                                      : "    - This is not our latest lmr file!");

    std::fprintf(out, "[Source descriptor]\n");
    if (!head.sourceTagIsValid()) {
        std::fprintf(out, "Invalid source descriptor!\n");
    } else {
        std::fprintf(out, "  - source_descriptor.desc_tag (0x%02x)\n", head.source.desc_tag);
        std::fprintf(out, "  - source_descriptor.source_type (%s)\n", head.sourceType().c_str());
    }

    std::fprintf(out, "[Camera descriptor]\n");
    if (!head.cameraTagIsValid()) {
        std::fprintf(out, "Invalid camera descriptor!\n");
    } else {
        std::fprintf(out, "  - camera_descriptor.desc_tag (0x%02x)\n", head.camera.desc_tag);
        std::fprintf(out, "  - camera_descriptor.firmware_version (0x%02x)\n", head.camera.firmware_version);
        std::fprintf(out, "  - camera_descriptor.sdk_version (%s)\n", head.sdkVersion().c_str());
        std::fprintf(out, "  - camera_descriptor.serial_number (%s)\n", head.serialNumber().c_str());
        std::fprintf(out, "  - camera_descriptor.camera_name (%s)\n", head.cameraName().c_str());
    }

    // Past the end of the file a header keeps what the last read left in it.
    format::frame_header header{};
    for (int i = 0; i < dump.dump_frame_count; ++i) {
        reader.read(header);
        print_frame(reader, out, dump, header, i);
    }
    std::fflush(out);
}

}  // namespace lumora::dump
