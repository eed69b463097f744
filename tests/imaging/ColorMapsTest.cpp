// The colour and gray maps: palette entries in single precision, depth and gray look-ups for
// the initial and changed ranges, the sentinels, degenerate ranges, and rebuilds while
// another thread reads the tables.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <thread>
#include <vector>

#include "ColorMaps.h"

namespace lumora::imaging {
namespace {

using Rgb = std::array<int, 3>;  // bytes 0, 1, 2 of a pixel

Rgb entry(std::size_t k) { return {palette()[0][k], palette()[1][k], palette()[2][k]}; }

// The pixel of depth d by the two tables, packed as the depth colour table holds it.
std::uint32_t packedColour(std::size_t d) {
    const Rgb rgb = entry(std::min(depthIndexTable()[d], kPaletteMissing));
    return static_cast<std::uint32_t>(rgb[0] | rgb[1] << 8 | rgb[2] << 16);
}

// Every entry of the depth colour table, the never-built last one too.
void expectColoursFollowIndex() {
    for (std::size_t d = 0; d < kSampleTableSize; ++d)
        ASSERT_EQ(depthColourTable()[d].load(), packedColour(d)) << d;
}

class ColorMaps : public testing::Test {
protected:
    void SetUp() override {
        initColorMaps();
        setDepthRange({3000.0F, 0.0F});
        setGrayRange({200.0F, 0.0F});
    }
};

// Runs first in its process, so it sees the ranges the process starts with.
TEST(ColorMapsInit, BuildsTheTablesFromTheCurrentRanges) {
    EXPECT_EQ(*getDepthRange(), Range(3000.0F, 0.0F));
    EXPECT_EQ(*getGrayRange(), Range(200.0F, 0.0F));
    initColorMaps();
    EXPECT_EQ(entry(640), (Rgb{127, 255, 0}));
    EXPECT_EQ(depthIndexTable()[1500], 640);
    EXPECT_EQ(grayTable()[100], 127);
    expectColoursFollowIndex();

    setDepthRange({3000.0F, 200.0F});
    setGrayRange({1200.0F, 200.0F});
    initColorMaps();
    EXPECT_EQ(entry(640), (Rgb{127, 255, 0}));
    EXPECT_EQ(depthIndexTable()[1600], 640);
    EXPECT_EQ(grayTable()[700], 127);
}

TEST_F(ColorMaps, PaletteRunsFromBlackThroughTheRampToBlack) {
    EXPECT_EQ(entry(0), (Rgb{0, 0, 0}));
    EXPECT_EQ(entry(1), (Rgb{0, 0, 255}));
    EXPECT_EQ(entry(256), (Rgb{0, 255, 255}));
    EXPECT_EQ(entry(512), (Rgb{0, 255, 0}));
    EXPECT_EQ(entry(640), (Rgb{127, 255, 0}));
    EXPECT_EQ(entry(768), (Rgb{255, 255, 0}));
    EXPECT_EQ(entry(1024), (Rgb{255, 0, 0}));
    EXPECT_EQ(entry(kPaletteFar), (Rgb{255, 0, 254}));
    EXPECT_EQ(entry(kPaletteMissing), (Rgb{0, 0, 0}));
    // Along the ramp one byte is full and the others move by at most a few steps per entry.
    for (std::size_t k = 2; k <= kPaletteFar; ++k) {
        const Rgb a = entry(k - 1);
        const Rgb b = entry(k);
        EXPECT_TRUE(a[0] == 255 || a[1] == 255 || a[2] == 255) << k;
        for (int c = 0; c < 3; ++c)
            EXPECT_LE(std::abs(a[c] - b[c]), 2) << k;
    }
}

TEST_F(ColorMaps, DepthMapsThroughTheRangeWithZeroMissing) {
    const auto& table = depthIndexTable();
    EXPECT_EQ(table[0], kPaletteMissing);
    EXPECT_EQ(table[1], 0);
    EXPECT_EQ(table[1500], 640);
    EXPECT_EQ(table[3000], kPaletteFar);
    EXPECT_EQ(table[3001], kPaletteFar);
    EXPECT_EQ(table[65534], kPaletteFar);
    EXPECT_EQ(table[65535], 0);  // never written by a build

    setDepthRange({3000.0F, 200.0F});
    EXPECT_EQ(*getDepthRange(), Range(3000.0F, 200.0F));
    EXPECT_EQ(table[0], kPaletteMissing);
    for (std::size_t d = 1; d <= 200; ++d)
        ASSERT_EQ(table[d], 0) << d;
    EXPECT_EQ(table[1600], 640);
    EXPECT_EQ(table[3000], kPaletteFar);
    EXPECT_EQ(table[3001], kPaletteFar);
    EXPECT_EQ(table[65535], 0);
    expectColoursFollowIndex();
    // Non-decreasing between the bounds.
    for (std::size_t d = 2; d <= 3000; ++d)
        ASSERT_LE(table[d - 1], table[d]) << d;

    // A narrower range leaves no stale entries from the wider one.
    setDepthRange({1000.0F, 500.0F});
    EXPECT_EQ(table[499], 0);
    EXPECT_EQ(table[750], 640);
    EXPECT_EQ(table[1001], kPaletteFar);
    EXPECT_EQ(table[2000], kPaletteFar);
    expectColoursFollowIndex();

    // Single precision, division first: the other order gives 30 and 180.
    setDepthRange({1000.0F, 1.6F});
    EXPECT_EQ(table[25], 29);
    EXPECT_EQ(table[142], 179);
}

TEST_F(ColorMaps, GrayMapsThroughTheRangeWithZeroAnOrdinaryValue) {
    const auto& table = grayTable();
    EXPECT_EQ(table[0], 0);
    EXPECT_EQ(table[100], 127);
    EXPECT_EQ(table[200], 255);
    EXPECT_EQ(table[201], 255);
    EXPECT_EQ(table[65534], 255);
    EXPECT_EQ(table[65535], 0);  // never written by a build

    setGrayRange({1200.0F, 200.0F});
    EXPECT_EQ(*getGrayRange(), Range(1200.0F, 200.0F));
    EXPECT_EQ(table[0], 0);
    EXPECT_EQ(table[199], 0);
    EXPECT_EQ(table[200], 0);
    EXPECT_EQ(table[700], 127);
    EXPECT_EQ(table[1200], 255);
    EXPECT_EQ(table[1201], 255);

    // Single precision, multiplication first: the other order gives 255 and 154.
    setGrayRange({200.0F, 0.4F});
    EXPECT_EQ(table[200], 254);
    setGrayRange({1000.0F, 0.4F});
    EXPECT_EQ(table[608], 155);
}

TEST_F(ColorMaps, DegenerateRangesBuildWithoutFault) {
    const auto& depth = depthIndexTable();
    const auto& gray = grayTable();
    // max equal to min: a value equal to both gives 0/0.
    setDepthRange({500.0F, 500.0F});
    EXPECT_EQ(depth[0], kPaletteMissing);
    EXPECT_EQ(depth[499], 0);
    EXPECT_EQ(depth[500], 0);
    EXPECT_EQ(depth[501], kPaletteFar);
    setGrayRange({500.0F, 500.0F});
    EXPECT_EQ(gray[499], 0);
    EXPECT_EQ(gray[500], 0);
    EXPECT_EQ(gray[501], 255);

    // max below min: below the min is 0, from the min on the build stops.
    setDepthRange({100.0F, 200.0F});
    EXPECT_EQ(depth[150], 0);
    EXPECT_EQ(depth[199], 0);
    EXPECT_EQ(depth[200], kPaletteFar);
    setGrayRange({100.0F, 200.0F});
    EXPECT_EQ(gray[150], 0);
    EXPECT_EQ(gray[200], 255);
}

// The reader, like the renderer, takes no lock: it may see old, new or fill entries, but
// never anything else, and once the setter returns the table is entirely the new one.
TEST_F(ColorMaps, RebuildWhileAnotherThreadReads) {
    const std::vector<std::size_t> probes{0, 1, 150, 199, 250, 1500, 1600, 2999, 3000, 3001, 5000, 65534};
    const Range depthRanges[] = {{3000.0F, 0.0F}, {3000.0F, 200.0F}};
    const Range grayRanges[] = {{200.0F, 0.0F}, {3000.0F, 150.0F}};
    std::array<std::vector<std::uint16_t>, 2> depthExpected;
    std::array<std::vector<std::uint32_t>, 2> colourExpected;
    std::array<std::vector<std::uint8_t>, 2> grayExpected;
    for (int r = 0; r < 2; ++r) {
        setDepthRange(depthRanges[r]);
        setGrayRange(grayRanges[r]);
        for (auto k : probes) {
            depthExpected[r].push_back(depthIndexTable()[k]);
            colourExpected[r].push_back(packedColour(k));
            grayExpected[r].push_back(grayTable()[k]);
        }
    }
    std::atomic<bool> done{false};
    std::atomic<int> strays{0};
    std::thread reader([&] {
        while (!done.load()) {
            for (std::size_t i = 0; i < probes.size(); ++i) {
                const std::uint16_t depth = depthIndexTable()[probes[i]];
                if (depth != depthExpected[0][i] && depth != depthExpected[1][i] && depth != kPaletteFar) ++strays;
                const std::uint32_t colour = depthColourTable()[probes[i]].load(std::memory_order_relaxed);
                if (colour != colourExpected[0][i] && colour != colourExpected[1][i]) ++strays;
                const std::uint8_t gray = grayTable()[probes[i]];
                if (gray != grayExpected[0][i] && gray != grayExpected[1][i] && gray != 255) ++strays;
            }
        }
    });
    for (int round = 0; round < 40; ++round) {
        setDepthRange(depthRanges[round % 2]);
        setGrayRange(grayRanges[round % 2]);
    }
    done = true;
    reader.join();
    EXPECT_EQ(strays.load(), 0);
    for (std::size_t i = 0; i < probes.size(); ++i) {
        EXPECT_EQ(depthIndexTable()[probes[i]], depthExpected[1][i]) << probes[i];
        EXPECT_EQ(depthColourTable()[probes[i]].load(), colourExpected[1][i]) << probes[i];
        EXPECT_EQ(grayTable()[probes[i]], grayExpected[1][i]) << probes[i];
    }
}

}  // namespace
}  // namespace lumora::imaging
