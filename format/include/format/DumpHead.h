// The head of a dump file (its header and both descriptors) as read, with its fields
// decoded: what every program that prints or checks a dump reads first.
#pragma once

#include <cstdint>
#include <string>

#include "format/DumpFormat.h"

namespace lumora::format {

struct DumpHead {
    dump_header header{};
    source_descriptor source{};
    camera_descriptor camera{};

    bool syncIsOurs() const { return header.sync_byte == kSyncByte; }
    bool sourceTagIsValid() const { return source.desc_tag == kSourceDescriptorTag; }
    bool cameraTagIsValid() const { return camera.desc_tag == kCameraDescriptorTag; }
    // The texts of the descriptors: a field's bytes up to its first NUL, all of them when it
    // has none.
    std::string sourceType() const;
    std::string sdkVersion() const;
    std::string serialNumber() const;
    std::string cameraName() const;
};

// Reads the three records of the head from the reader's position, in file order. False when
// the file ends inside them; the bytes not read keep their values (zero in a new head).
bool read_head(DumpReader& reader, DumpHead& head);

// "Depth only", "Depth + Amplitude", "Pointcloud", "Intensity Pointcloud" for modes 0 to 3,
// "unknown" for any other.
const char* dump_mode_name(std::uint32_t mode);

}  // namespace lumora::format
