#include "format/DumpHead.h"

#include <cstring>

namespace lumora::format {

namespace {

template <std::size_t N>
std::string field_text(const char (&field)[N]) {
    return {field, strnlen(field, N)};
}

}  // namespace

std::string DumpHead::sourceType() const { return field_text(source.source_type); }
std::string DumpHead::sdkVersion() const { return field_text(camera.sdk_version); }
std::string DumpHead::serialNumber() const { return field_text(camera.serial_number); }
std::string DumpHead::cameraName() const { return field_text(camera.camera_name); }

bool read_head(DumpReader& reader, DumpHead& head) {
    const bool header = reader.read(head.header);
    const bool source = reader.read(head.source);
    const bool camera = reader.read(head.camera);
    return header && source && camera;
}

const char* dump_mode_name(std::uint32_t mode) {
    switch (mode) {
        case DUMP_DEPTH:
            return "Depth only";
        case DUMP_DEPTH_AMPLITUDE:
            return "Depth + Amplitude";
        case DUMP_POINTCLOUD:
            return "Pointcloud";
        case DUMP_INTENSITY_POINTCLOUD:
            return "Intensity Pointcloud";
        default:
            return "unknown";
    }
}

}  // namespace lumora::format
