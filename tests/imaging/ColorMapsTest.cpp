// The colour and gray maps: palette entries in single precision, depth and gray look-ups for
// the initial and changed ranges, the sentinels, degenerate ranges, and rebuilds while
// other threads hold views of the tables.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <thread>
#include <utility>
#include <vector>

#include "imaging/ColorMaps.h"

namespace lumora::imaging {
namespace {

using Rgb = std::array<int, 3>;  // bytes 0, 1, 2 of a pixel

Rgb entry(std::size_t k) { return {palette()[0][k], palette()[1][k], palette()[2][k]}; }

// The tables as they stand now.
std::uint16_t indexOf(std::size_t d) { return TableView().depthIndex()[d]; }
std::uint8_t grayOf(std::size_t a) { return TableView().gray()[a]; }

// The pixel of depth d by the index table and the palette, packed as the depth colour table
// holds it.
std::uint32_t packedColour(const TableView& view, std::size_t d) {
    const Rgb rgb = entry(std::min(view.depthIndex()[d], kPaletteMissing));
    return static_cast<std::uint32_t>(rgb[0] | rgb[1] << 8 | rgb[2] << 16);
}

// Every entry of the depth colour table, the never-built last one too.
void expectColoursFollowIndex() {
    const TableView view;
    for (std::size_t d = 0; d < kSampleTableSize; ++d)
        ASSERT_EQ(view.depthColour()[d], packedColour(view, d)) << d;
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
    EXPECT_EQ(indexOf(1500), 640);
    EXPECT_EQ(grayOf(100), 127);
    expectColoursFollowIndex();

    setDepthRange({3000.0F, 200.0F});
    setGrayRange({1200.0F, 200.0F});
    initColorMaps();
    EXPECT_EQ(entry(640), (Rgb{127, 255, 0}));
    EXPECT_EQ(indexOf(1600), 640);
    EXPECT_EQ(grayOf(700), 127);
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
    EXPECT_EQ(indexOf(0), kPaletteMissing);
    EXPECT_EQ(indexOf(1), 0);
    EXPECT_EQ(indexOf(1500), 640);
    EXPECT_EQ(indexOf(3000), kPaletteFar);
    EXPECT_EQ(indexOf(3001), kPaletteFar);
    EXPECT_EQ(indexOf(65534), kPaletteFar);
    EXPECT_EQ(indexOf(65535), 0);  // never written by a build

    setDepthRange({3000.0F, 200.0F});
    EXPECT_EQ(*getDepthRange(), Range(3000.0F, 200.0F));
    EXPECT_EQ(indexOf(0), kPaletteMissing);
    for (std::size_t d = 1; d <= 200; ++d)
        ASSERT_EQ(indexOf(d), 0) << d;
    EXPECT_EQ(indexOf(1600), 640);
    EXPECT_EQ(indexOf(3000), kPaletteFar);
    EXPECT_EQ(indexOf(3001), kPaletteFar);
    EXPECT_EQ(indexOf(65535), 0);
    expectColoursFollowIndex();
    // Non-decreasing between the bounds.
    for (std::size_t d = 2; d <= 3000; ++d)
        ASSERT_LE(indexOf(d - 1), indexOf(d)) << d;

    // A narrower range leaves no stale entries from the wider one.
    setDepthRange({1000.0F, 500.0F});
    EXPECT_EQ(indexOf(499), 0);
    EXPECT_EQ(indexOf(750), 640);
    EXPECT_EQ(indexOf(1001), kPaletteFar);
    EXPECT_EQ(indexOf(2000), kPaletteFar);
    expectColoursFollowIndex();

    // Single precision, division first: the other order gives 30 and 180.
    setDepthRange({1000.0F, 1.6F});
    EXPECT_EQ(indexOf(25), 29);
    EXPECT_EQ(indexOf(142), 179);
}

TEST_F(ColorMaps, GrayMapsThroughTheRangeWithZeroAnOrdinaryValue) {
    EXPECT_EQ(grayOf(0), 0);
    EXPECT_EQ(grayOf(100), 127);
    EXPECT_EQ(grayOf(200), 255);
    EXPECT_EQ(grayOf(201), 255);
    EXPECT_EQ(grayOf(65534), 255);
    EXPECT_EQ(grayOf(65535), 0);  // never written by a build

    setGrayRange({1200.0F, 200.0F});
    EXPECT_EQ(*getGrayRange(), Range(1200.0F, 200.0F));
    EXPECT_EQ(grayOf(0), 0);
    EXPECT_EQ(grayOf(199), 0);
    EXPECT_EQ(grayOf(200), 0);
    EXPECT_EQ(grayOf(700), 127);
    EXPECT_EQ(grayOf(1200), 255);
    EXPECT_EQ(grayOf(1201), 255);

    // Single precision, multiplication first: the other order gives 255 and 154.
    setGrayRange({200.0F, 0.4F});
    EXPECT_EQ(grayOf(200), 254);
    setGrayRange({1000.0F, 0.4F});
    EXPECT_EQ(grayOf(608), 155);
}

TEST_F(ColorMaps, DegenerateRangesBuildWithoutFault) {
    // max equal to min: a value equal to both gives 0/0.
    setDepthRange({500.0F, 500.0F});
    EXPECT_EQ(indexOf(0), kPaletteMissing);
    EXPECT_EQ(indexOf(499), 0);
    EXPECT_EQ(indexOf(500), 0);
    EXPECT_EQ(indexOf(501), kPaletteFar);
    setGrayRange({500.0F, 500.0F});
    EXPECT_EQ(grayOf(499), 0);
    EXPECT_EQ(grayOf(500), 0);
    EXPECT_EQ(grayOf(501), 255);

    // max below min: below the min is 0, from the min on the build stops.
    setDepthRange({100.0F, 200.0F});
    EXPECT_EQ(indexOf(150), 0);
    EXPECT_EQ(indexOf(199), 0);
    EXPECT_EQ(indexOf(200), kPaletteFar);
    setGrayRange({100.0F, 200.0F});
    EXPECT_EQ(grayOf(150), 0);
    EXPECT_EQ(grayOf(200), 255);
}

// Readers, like the renderer, take no lock. Each view shows whole tables of one rebuild, old
// or new (the index and colour tables of the same one), and keeps them while it lives, even
// across further rebuilds; a view taken after a setter returns shows the new tables.
TEST_F(ColorMaps, ViewsShowWholeTablesWhileRangesChange) {
    const std::vector<std::size_t> probes{0, 1, 150, 199, 250, 1500, 1600, 2999, 3000, 3001, 5000, 65534};
    const Range depthRanges[] = {{3000.0F, 0.0F}, {3000.0F, 200.0F}};
    const Range grayRanges[] = {{200.0F, 0.0F}, {3000.0F, 150.0F}};
    using Depth = std::pair<std::vector<std::uint16_t>, std::vector<std::uint32_t>>;
    using Probed = std::pair<Depth, std::vector<std::uint8_t>>;
    const auto probe = [&](const TableView& view) {
        Probed seen;
        for (const auto k : probes) {
            seen.first.first.push_back(view.depthIndex()[k]);
            seen.first.second.push_back(view.depthColour()[k]);
            seen.second.push_back(view.gray()[k]);
        }
        return seen;
    };
    std::array<Probed, 2> expected;
    for (std::size_t r = 0; r < 2; ++r) {
        setDepthRange(depthRanges[r]);
        setGrayRange(grayRanges[r]);
        expected[r] = probe(TableView());
    }
    ASSERT_NE(expected[0].first.first, expected[1].first.first);
    ASSERT_NE(expected[0].first.second, expected[1].first.second);
    ASSERT_NE(expected[0].second, expected[1].second);

    std::atomic<bool> done{false};
    std::atomic<int> strays{0};
    std::thread reader([&] {
        while (!done.load()) {
            const Probed seen = probe(TableView());
            const bool depth = seen.first == expected[0].first || seen.first == expected[1].first;
            const bool gray = seen.second == expected[0].second || seen.second == expected[1].second;
            if (!depth || !gray) ++strays;
        }
    });
    for (std::size_t round = 0; round < 40; ++round) {
        setDepthRange(depthRanges[round % 2]);
        setGrayRange(grayRanges[round % 2]);
    }
    done = true;
    reader.join();
    EXPECT_EQ(strays.load(), 0);
    EXPECT_EQ(probe(TableView()), expected[1]);

    // The second of two rebuilds would rewrite the held view's tables: it waits for the view.
    auto held = std::make_unique<TableView>();
    std::atomic<int> finished{0};
    std::thread depthSetter([&] {
        setDepthRange(depthRanges[0]);
        setDepthRange(depthRanges[0]);
        ++finished;
    });
    std::thread graySetter([&] {
        setGrayRange(grayRanges[0]);
        setGrayRange(grayRanges[0]);
        ++finished;
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_EQ(finished.load(), 0);
    EXPECT_EQ(probe(*held), expected[1]);
    held.reset();
    depthSetter.join();
    graySetter.join();
    EXPECT_EQ(probe(TableView()), expected[0]);
}

}  // namespace
}  // namespace lumora::imaging
