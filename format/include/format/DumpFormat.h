// The layout of a frame dump file (".lmr"): four packed little-endian records, the data
// blocks each dump mode carries, the file name, and a bounded reader of the layout.
//
// A file is a dump_header, a source_descriptor, a camera_descriptor, then frame records to
// the end of the file: a frame_header, the embedded line bytes when the header's
// embedded_line_control is 1, then the mode's blocks of width x height elements each.
// The writer writes the embedded line at the length the camera gave it; a reader takes it
// as frame_width bytes.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <ctime>
#include <optional>
#include <string>

namespace lumora::format {

static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__, "the records are written as they lie in memory");

#pragma pack(push, 1)
struct dump_header {
    std::uint16_t sync_byte;
    std::uint8_t embedded_line_control;
    std::uint16_t dump_frame_count;
    std::uint16_t dump_frame_type;
};

struct source_descriptor {
    std::uint16_t desc_tag;
    char source_type[8];
};

struct camera_descriptor {
    std::uint16_t desc_tag;
    std::uint16_t firmware_version;
    char sdk_version[12];
    char serial_number[20];
    char camera_name[16];
};

struct frame_header {
    std::uint8_t frame_index;
    std::uint16_t frame_width;
    std::uint16_t frame_height;
    std::uint16_t frame_data_size;
    std::uint64_t timestamp;
};
#pragma pack(pop)

static_assert(sizeof(dump_header) == 7);
static_assert(sizeof(source_descriptor) == 10);
static_assert(sizeof(camera_descriptor) == 52);
static_assert(sizeof(frame_header) == 15);

inline constexpr std::uint16_t kSyncByte = 0x00DF;
inline constexpr std::uint16_t kSourceDescriptorTag = 1;
inline constexpr std::uint16_t kCameraDescriptorTag = 2;
// Frame records start here.
inline constexpr std::size_t kHeadBytes = sizeof(dump_header) + sizeof(source_descriptor) + sizeof(camera_descriptor);
inline constexpr std::uint32_t kMaxFrameCount = 300;

// dump_frame_type.
enum DumpMode : std::uint32_t {
    DUMP_DEPTH = 0,                 // depth, u16
    DUMP_DEPTH_AMPLITUDE = 1,       // depth, amplitude, u16
    DUMP_POINTCLOUD = 2,            // x, y, z, float
    DUMP_INTENSITY_POINTCLOUD = 3,  // x, y, z, intensity, float
};

// Blocks per record of a mode; 0 for an unknown mode.
constexpr std::size_t block_count(std::uint32_t mode) { return mode <= DUMP_INTENSITY_POINTCLOUD ? mode + 1 : 0; }
// Bytes per element (frame_data_size) of a mode's blocks; 0 for an unknown mode.
constexpr std::uint16_t element_size(std::uint32_t mode) {
    return mode <= DUMP_DEPTH_AMPLITUDE ? 2 : mode <= DUMP_INTENSITY_POINTCLOUD ? 4 : 0;
}

// Copies `text` into a fixed field of `width` bytes: cut to width - 1 characters, then
// NUL, then zeros to the end.
void fill_text_field(char* field, std::size_t width, const std::string& text);

template <std::size_t N>
void fill_text_field(char (&field)[N], const std::string& text) {
    fill_text_field(field, N, text);
}

// The source_type of a URI: its part before the first ":" (the whole URI when it has
// none). Empty for an empty URI, which has no such part and cannot be dumped.
std::optional<std::string> source_type_of(const std::string& uri);

// "NAME_SERIAL_framedump_YYYYMMDDhhmmss.lmr" for the local time `when`; an empty name or
// serial becomes "unknown"; cut to 255 characters.
std::string dump_file_name(const std::string& name, const std::string& serialNumber, const std::tm& when);

// Reads the layout from an open file (not owned, not closed), never past the file's end
// as it was when the reader was made, and never into more memory than the caller gives.
// Used on one thread.
class DumpReader {
public:
    explicit DumpReader(std::FILE* file);

    // Reads the next sizeof(record) bytes into `record`. On a short read the bytes not read
    // keep their values; false then.
    template <typename Record>
    bool read(Record& record) {
        return readBytes(&record, sizeof record) == sizeof record;
    }

    // Reads up to `bytes` into `buffer` (at most `capacity` bytes stored, the rest skipped)
    // and returns how many were stored.
    std::size_t readBlock(void* buffer, std::size_t capacity, std::uint64_t bytes);

    // Bytes from the position to the end of the file (0 when its size is unknown).
    std::uint64_t bytesLeft() const;

private:
    std::size_t readBytes(void* buffer, std::size_t bytes);

    std::FILE* mFile;
    std::uint64_t mPosition = 0;
    std::uint64_t mEnd = 0;
};

}  // namespace lumora::format
