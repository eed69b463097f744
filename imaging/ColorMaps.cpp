// Design: the shell thread rebuilds a table under its range's lock; the renderer's thread
// reads the tables with no lock at all. That race is deliberate: a reader may see one table
// partly rebuilt, for at most one frame, and every entry it can see at any moment (old, new
// or the fill value) is a valid palette index or gray level. The depth colour table follows
// the index table entry by entry once that is rebuilt, so between the two a reader sees old
// or new colours, each a palette entry; its entries are atomics read and written relaxed.
// The palette is written once, before any reader starts.
#include "ColorMaps.h"

#include <algorithm>
#include <mutex>

namespace lumora::imaging {

namespace {

Palette gPalette;
// The palette as packed pixels, for composing the depth colour table.
std::array<std::uint32_t, kPaletteSize> gPackedPalette;
DepthIndexTable gDepthIndex;
DepthColourTable gDepthColour;
GrayTable gGray;
Range gDepthRange{3000.0F, 0.0F};
Range gGrayRange{200.0F, 0.0F};
std::mutex gDepthMutex;
std::mutex gGrayMutex;
std::once_flag gPaletteOnce;

// Conversion toward zero. A quotient that is not a number (a range whose max equals its
// min) or out of the unsigned range gives 0 rather than undefined behaviour.
std::uint32_t truncate(float value) {
    return value >= 0.0F && value < 4294967296.0F ? static_cast<std::uint32_t>(value) : 0U;
}

std::uint8_t level(float value) { return static_cast<std::uint8_t>(truncate(value)); }

// Red at the near end through yellow, green, cyan and blue to magenta at the far end, in
// single precision: entry 1280 is (255, 0, 254) because the last quotient falls just short of 1.
void buildPalette() {
    auto& [first, second, third] = gPalette;
    for (std::size_t i = 0; i <= kPaletteFar; ++i) {
        const float v = static_cast<float>(i) / 1280.0F;
        std::uint8_t b1 = 0;
        std::uint8_t b2 = 0;
        std::uint8_t b3 = 0;
        if (v > 0.8F) {
            b1 = 255;
            b3 = level((v - 0.8F) / 0.2F * 255.0F);
        } else if (v > 0.6F) {
            b1 = 255;
            b2 = level((1.0F - (v - 0.6F) / 0.2F) * 255.0F);
        } else if (v > 0.4F) {
            b1 = level((v - 0.4F) / 0.2F * 255.0F);
            b2 = 255;
        } else if (v > 0.2F) {
            b2 = 255;
            b3 = level((1.0F - (v - 0.2F) / 0.2F) * 255.0F);
        } else if (v > 0.0F) {
            b2 = level(v / 0.2F * 255.0F);
            b3 = 255;
        }
        first[i] = b1;
        second[i] = b2;
        third[i] = b3;
    }
    first[kPaletteMissing] = 0;
    second[kPaletteMissing] = 0;
    third[kPaletteMissing] = 0;
    for (std::size_t k = 0; k < kPaletteSize; ++k)
        gPackedPalette[k] = static_cast<std::uint32_t>(first[k]) | static_cast<std::uint32_t>(second[k]) << 8U |
                            static_cast<std::uint32_t>(third[k]) << 16U;
}

// Every entry, the never-built last one included, from the index table as it now stands.
void composeDepthColours() {
    for (std::size_t d = 0; d < kSampleTableSize; ++d)
        gDepthColour[d].store(gPackedPalette[std::min(gDepthIndex[d], kPaletteMissing)], std::memory_order_relaxed);
}

// Divides before multiplying; in single precision the order shows: with (1000, 1.6) depth 25
// maps to 29, the other order gives 30.
void rebuildDepthIndexTable(const Range& range) {
    const auto [high, low] = range;
    const float span = high - low;
    std::fill(gDepthIndex.begin(), gDepthIndex.end() - 1, kPaletteFar);
    gDepthIndex[0] = kPaletteMissing;
    for (std::size_t d = 1; d < kSampleTableSize - 1; ++d) {
        const auto depth = static_cast<float>(d);
        if (depth < low) {
            gDepthIndex[d] = 0;
        } else if (depth > high) {
            break;
        } else {
            gDepthIndex[d] = static_cast<std::uint16_t>(truncate((depth - low) / span * 1280.0F));
        }
    }
}

// Multiplies before dividing (with (200, 0.4) amplitude 200 maps to 254, the other order
// gives 255); amplitude 0 is an ordinary value here.
void rebuildGrayTable(const Range& range) {
    const auto [high, low] = range;
    const float span = high - low;
    std::fill(gGray.begin(), gGray.end() - 1, std::uint8_t{255});
    for (std::size_t a = 0; a < kSampleTableSize - 1; ++a) {
        const auto amplitude = static_cast<float>(a);
        if (amplitude < low) {
            gGray[a] = 0;
        } else if (amplitude > high) {
            break;
        } else {
            gGray[a] = level((amplitude - low) * 255.0F / span);
        }
    }
}

}  // namespace

ModelRanges modelRanges(const std::string& model) {
    for (const char* wide : {"QRX100A", "QRX100AW6", "QRX100AW9", "QRX500AAW", "T100K", "T110K"})
        if (model == wide) return {{7000.0F, 0.0F}, {230.0F, 0.0F}};
    if (model == "QRX200AP") return {{4000.0F, 0.0F}, {1400.0F, 0.0F}};
    return {{3000.0F, 0.0F}, {200.0F, 0.0F}};
}

void initColorMaps() {
    std::call_once(gPaletteOnce, buildPalette);
    rebuildDepthIndexTable(gDepthRange);
    composeDepthColours();
    rebuildGrayTable(gGrayRange);
}

void setDepthRange(const Range& range) {
    const std::lock_guard<std::mutex> lock(gDepthMutex);
    gDepthRange = range;
    rebuildDepthIndexTable(gDepthRange);
    composeDepthColours();
}

void setGrayRange(const Range& range) {
    const std::lock_guard<std::mutex> lock(gGrayMutex);
    gGrayRange = range;
    rebuildGrayTable(gGrayRange);
}

const Range* getDepthRange() { return &gDepthRange; }
const Range* getGrayRange() { return &gGrayRange; }

const Palette& palette() { return gPalette; }
const DepthIndexTable& depthIndexTable() { return gDepthIndex; }
const GrayTable& grayTable() { return gGray; }
const DepthColourTable& depthColourTable() { return gDepthColour; }

}  // namespace lumora::imaging
