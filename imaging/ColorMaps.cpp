// Design note: the shell thread (any thread calling a setter) produces tables; renderers and
// other converting threads read them through views, with no lock. Each table has two
// buffers: a rebuild, under its range's lock, fills the one not published and publishes it
// with one atomic pointer store, so a reader sees the old table or the new one, never a mix.
// The buffer a rebuild fills was published until the previous rebuild, and views taken
// before that may still read it: each buffer counts its views, a view counts itself in and
// then checks that the buffer is still the published one (else it counts itself out and
// tries again), and a rebuild waits until the buffer it is about to fill has no views. Every
// one of these atomics is sequentially consistent, which makes the count and the check
// exclusive: a view that a waiting rebuild does not see checks after the rebuild published
// the other buffer, and so does not read this one. The palette is written once, before any
// reader starts.
#include "imaging/ColorMaps.h"

#include <algorithm>
#include <atomic>
#include <mutex>
#include <thread>

namespace lumora::imaging {

namespace {

// A table in two buffers, one of them published.
template <typename Table>
struct Published {
    std::array<Table, 2> buffers{};
    std::atomic<const Table*> current{&buffers[0]};
    std::array<std::atomic<int>, 2> views{};

    std::size_t slot(const Table* table) const { return table == &buffers[0] ? 0 : 1; }

    const Table* hold() {
        for (;;) {
            const Table* table = current.load();
            std::atomic<int>& count = views[slot(table)];
            count.fetch_add(1);
            if (current.load() == table) return table;
            count.fetch_sub(1);
        }
    }
    void release(const Table* table) { views[slot(table)].fetch_sub(1); }

    // Under the range's lock: the buffer not published, once no view reads it.
    Table& spare() {
        const std::size_t free = 1 - slot(current.load());
        while (views[free].load() != 0)
            std::this_thread::yield();
        return buffers[free];
    }
    void publish(const Table& table) { current.store(&table); }
};

Palette gPalette;
// The palette as packed pixels, for composing the depth colour table.
std::array<std::uint32_t, kPaletteSize> gPackedPalette;
Published<DepthTables> gDepth;
Published<GrayTable> gGray;
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

// Every entry, the never-built last one included, from the index table beside it.
void composeDepthColours(DepthTables& tables) {
    for (std::size_t d = 0; d < kSampleTableSize; ++d)
        tables.colour[d] = gPackedPalette[std::min(tables.index[d], kPaletteMissing)];
}

// Divides before multiplying; in single precision the order shows: with (1000, 1.6) depth 25
// maps to 29, the other order gives 30.
void rebuildDepthIndexTable(const Range& range, DepthIndexTable& index) {
    const auto [high, low] = range;
    const float span = high - low;
    std::fill(index.begin(), index.end() - 1, kPaletteFar);
    index[0] = kPaletteMissing;
    for (std::size_t d = 1; d < kSampleTableSize - 1; ++d) {
        const auto depth = static_cast<float>(d);
        if (depth < low) {
            index[d] = 0;
        } else if (depth > high) {
            break;
        } else {
            index[d] = static_cast<std::uint16_t>(truncate((depth - low) / span * 1280.0F));
        }
    }
}

// Multiplies before dividing (with (200, 0.4) amplitude 200 maps to 254, the other order
// gives 255); amplitude 0 is an ordinary value here.
void rebuildGrayTable(const Range& range, GrayTable& gray) {
    const auto [high, low] = range;
    const float span = high - low;
    std::fill(gray.begin(), gray.end() - 1, std::uint8_t{255});
    for (std::size_t a = 0; a < kSampleTableSize - 1; ++a) {
        const auto amplitude = static_cast<float>(a);
        if (amplitude < low) {
            gray[a] = 0;
        } else if (amplitude > high) {
            break;
        } else {
            gray[a] = level((amplitude - low) * 255.0F / span);
        }
    }
}

// Under the depth range's lock.
void rebuildDepth() {
    DepthTables& tables = gDepth.spare();
    rebuildDepthIndexTable(gDepthRange, tables.index);
    composeDepthColours(tables);
    gDepth.publish(tables);
}

// Under the gray range's lock.
void rebuildGray() {
    GrayTable& gray = gGray.spare();
    rebuildGrayTable(gGrayRange, gray);
    gGray.publish(gray);
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
    {
        const std::lock_guard<std::mutex> lock(gDepthMutex);
        rebuildDepth();
    }
    const std::lock_guard<std::mutex> lock(gGrayMutex);
    rebuildGray();
}

void setDepthRange(const Range& range) {
    const std::lock_guard<std::mutex> lock(gDepthMutex);
    gDepthRange = range;
    rebuildDepth();
}

void setGrayRange(const Range& range) {
    const std::lock_guard<std::mutex> lock(gGrayMutex);
    gGrayRange = range;
    rebuildGray();
}

const Range* getDepthRange() { return &gDepthRange; }
const Range* getGrayRange() { return &gGrayRange; }

const Palette& palette() { return gPalette; }

TableView::TableView() : mDepth(gDepth.hold()), mGray(gGray.hold()) {}

TableView::~TableView() {
    gDepth.release(mDepth);
    gGray.release(mGray);
}

const DepthIndexTable& TableView::depthIndex() const { return mDepth->index; }
const DepthColourTable& TableView::depthColour() const { return mDepth->colour; }
const GrayTable& TableView::gray() const { return *mGray; }

}  // namespace lumora::imaging
