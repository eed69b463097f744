// The process-wide colour and gray maps: a fixed palette, a depth-to-palette-index table
// built from a depth range, and a gray table built from a gray range. Displayed pixels come
// from these tables by look-up only.
#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string>
#include <utility>

namespace lumora::imaging {

inline constexpr std::size_t kPaletteSize = 1282;
// The far end of the ramp; depths beyond the range map here.
inline constexpr std::uint16_t kPaletteFar = 1280;
// Black: a depth of 0 is a missing value.
inline constexpr std::uint16_t kPaletteMissing = 1281;
// Indexed by a raw 16-bit sample. The last entry (65535) is never written by a build.
inline constexpr std::size_t kSampleTableSize = 65536;

// One table per byte of a 3-byte pixel: palette()[0][k] goes into byte 0 (blue to the
// display library), [1][k] into byte 1 (green), [2][k] into byte 2 (red).
using PaletteChannel = std::array<std::uint8_t, kPaletteSize>;
using Palette = std::array<PaletteChannel, 3>;
using DepthIndexTable = std::array<std::uint16_t, kSampleTableSize>;
using GrayTable = std::array<std::uint8_t, kSampleTableSize>;
// Entry d is the pixel of depth d, palette entry min(index[d], kPaletteMissing) packed as
// byte 0 | byte 1 << 8 | byte 2 << 16 (the top byte 0): one look-up instead of index then
// palette. Entries are read with relaxed loads while a rebuild may be storing them.
using DepthColourTable = std::array<std::atomic<std::uint32_t>, kSampleTableSize>;
// (max, min), in that order.
using Range = std::pair<float, float>;

// The ranges a camera model's depth and amplitude are shown with until a user sets others.
struct ModelRanges {
    Range depth;
    Range gray;
};
ModelRanges modelRanges(const std::string& model);

// Builds the palette once per process (concurrent first calls build it once), then the depth
// and gray tables from the current ranges. Takes neither range lock: call it before any
// thread uses the setters. Until it has run the tables must not be used.
void initColorMaps();

// Shell thread. Store the range and rebuild its table under that range's own lock (the
// depth range also the depth colour table, after the index table); the tables are complete
// for the new range when the call returns. A max equal to the min or
// below it is accepted: values below the min map to 0, the others above the max to the far
// entry (gray 255), and a value equal to both to 0.
void setDepthRange(const Range& range);
void setGrayRange(const Range& range);

// The stored ranges themselves, read without a lock; the pointers stay valid for the
// process's life.
const Range* getDepthRange();
const Range* getGrayRange();

// Read by the renderer without a lock: during a rebuild a reader may see a table partly
// rebuilt (one frame of mixed colours), never an index outside the palette nor a colour
// that is not a palette entry.
const Palette& palette();
const DepthIndexTable& depthIndexTable();
const GrayTable& grayTable();
const DepthColourTable& depthColourTable();

}  // namespace lumora::imaging
