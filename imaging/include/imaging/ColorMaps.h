// The process-wide colour and gray maps: a fixed palette, a depth-to-palette-index table
// built from a depth range, and a gray table built from a gray range. Displayed pixels come
// from these tables by look-up only.
#pragma once

#include <array>
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
// palette.
using DepthColourTable = std::array<std::uint32_t, kSampleTableSize>;
// The two depth tables of one rebuild.
struct DepthTables {
    DepthIndexTable index;
    DepthColourTable colour;
};
// (max, min), in that order.
using Range = std::pair<float, float>;

// The ranges a camera model's depth and amplitude are shown with until a user sets others.
struct ModelRanges {
    Range depth;
    Range gray;
};
ModelRanges modelRanges(const std::string& model);

// Builds the palette once per process (concurrent first calls build it once), then the depth
// and gray tables from the current ranges, as the setters do. Until it has run the tables
// must not be used.
void initColorMaps();

// Shell thread. Store the range and rebuild its tables under that range's own lock: the new
// tables are built aside and then published at once (the depth range's index table and depth
// colour table together); a view taken after the call returns sees them. A max equal to the
// min or below it is accepted: values below the min map to 0, the others above the max to
// the far entry (gray 255), and a value equal to both to 0. Each table has two buffers, so a
// rebuild waits for the views of the buffer it rewrites (those taken before the previous
// rebuild of that range) to end: never call a setter while holding a view.
void setDepthRange(const Range& range);
void setGrayRange(const Range& range);

// The stored ranges themselves, read without a lock; the pointers stay valid for the
// process's life.
const Range* getDepthRange();
const Range* getGrayRange();

// Written once, before any reader starts; read without a lock.
const Palette& palette();

// A reader's hold on the depth and gray tables, taken without a lock by any thread (one per
// frame: a conversion takes one for its whole frame). Each table it gives is whole as one
// rebuild left it, old or new, never a mix, with the depth index and colour tables from the
// same rebuild; none of them changes while the view lives, since a rebuild that would
// rewrite them waits for the view to end. So keep a view no longer than a frame, and do not
// call a setter while holding one. The references are valid while the view lives.
class TableView {
public:
    TableView();
    ~TableView();
    TableView(const TableView&) = delete;
    TableView& operator=(const TableView&) = delete;

    const DepthIndexTable& depthIndex() const;
    const DepthColourTable& depthColour() const;
    const GrayTable& gray() const;

private:
    const DepthTables* mDepth;
    const GrayTable* mGray;
};

}  // namespace lumora::imaging
