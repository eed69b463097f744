// The dump sink writes byte-exact files from frame lists handed to it as the camera's
// delivery thread would; the files are read back here with a parser of the test's own.
#include <chrono>
#include <regex>
#include <thread>

#include "DumpTestSupport.h"
#include "dump/FrameDumpSink.h"

namespace lumora::dump::test {
namespace {

using namespace std::chrono_literals;
using FT = hs::LumoraFrame::FrameType;

// Little-endian fields at a running offset; at() throws past the end, failing the test.
struct Parser {
    const std::vector<std::uint8_t>& bytes;
    std::size_t at = 0;

    std::uint64_t number(int width) {
        std::uint64_t value = 0;
        for (int i = 0; i < width; ++i)
            value |= std::uint64_t{bytes.at(at + i)} << (8 * i);
        at += width;
        return value;
    }
    std::vector<std::uint8_t> take(std::size_t count) {
        std::vector<std::uint8_t> out(bytes.begin() + at, bytes.begin() + at + count);
        EXPECT_LE(at + count, bytes.size());
        at += count;
        return out;
    }
    std::string field(std::size_t width) {
        const auto raw = take(width);
        return {raw.begin(), raw.end()};
    }
};

// `text` as a field of `width` bytes: cut, NUL, zeros.
std::string field_of(const std::string& text, std::size_t width) {
    std::string out = text.substr(0, width - 1);
    out.resize(width, '\0');
    return out;
}

std::vector<std::uint8_t> plane_bytes(const std::shared_ptr<hs::LumoraFrame>& frame, std::size_t plane,
                                      std::size_t elementSize) {
    const std::size_t size = frame->elementCount() * elementSize;
    const auto* data = static_cast<const std::uint8_t*>(frame->data()) + plane * size;
    return {data, data + size};
}

std::shared_ptr<hs::LumoraFrameList> list_of(const std::vector<std::shared_ptr<hs::LumoraFrame>>& frames) {
    return hs::sim::make_frame_list(frames);
}

class FrameDumpSinkTest : public InScratchDirectory {
protected:
    // Waits until the one dump file is `size` bytes long; false after 10 s.
    bool waitForSize(std::uintmax_t size) {
        const auto deadline = std::chrono::steady_clock::now() + 10s;
        while (std::chrono::steady_clock::now() < deadline) {
            const auto files = dumpFiles();
            std::error_code error;
            if (files.size() == 1 && fs::file_size(files[0], error) == size) return true;
            std::this_thread::sleep_for(1ms);
        }
        return false;
    }
    void startRunning(FrameDumpSink& sink, FakeCamera& camera) {
        sink.onLumoraCameraPrepared(&camera);
        sink.onLumoraCameraState(camera.source().get(), hs::LumoraCamera::STATE_RUNNING);
    }
};

// The example file: two 4 x 2 depth frames without embedded lines make 131 bytes, and
// every text field is cut and terminated inside its width.
TEST_F(FrameDumpSinkTest, WritesTheExampleFileWithCutFields) {
    const std::string name = "ABCDEFGHIJKLMNOPQRST";
    const std::string serial = "SN-0123456789-ABCDEFG";
    auto source = std::make_shared<FakeSource>(name, serial, "usbcam0123");
    FakeCamera camera(source, 0x12345, false);
    FrameDumpSink sink;
    startRunning(sink, camera);
    sink.requestDump(FT::FRAME_DEPTH, 0, 2);
    const auto first = patterned_frame(FT::FRAME_DEPTH, 4, 2, 1000, 1);
    const auto second = patterned_frame(FT::FRAME_DEPTH, 4, 2, 0x1122334455667788ULL, 9);
    sink.onLumoraFrameList(source.get(), list_of({first}));
    sink.onLumoraFrameList(source.get(), list_of({second}));
    sink.onLumoraFrameList(source.get(), list_of({second}));  // the count is reached: finished
    sink.stopDump();
    EXPECT_EQ(camera.lineSwitches, (std::vector<bool>{true, false}));

    const auto files = dumpFiles();
    ASSERT_EQ(files.size(), 1U);
    EXPECT_TRUE(std::regex_match(files[0].filename().string(),
                                 std::regex(name + "_" + serial + "_framedump_20[0-9]{12}\\.lmr")))
        << files[0];
    const auto bytes = read_file(files[0]);
    ASSERT_EQ(bytes.size(), 131U);
    Parser p{bytes};
    EXPECT_EQ(p.number(2), 0x00DFU);
    EXPECT_EQ(p.number(1), 0U);
    EXPECT_EQ(p.number(2), 2U);
    EXPECT_EQ(p.number(2), 0U);
    EXPECT_EQ(p.number(2), 1U);
    EXPECT_EQ(p.field(8), field_of("usbcam0", 8));
    EXPECT_EQ(p.number(2), 2U);
    EXPECT_EQ(p.number(2), 0x2345U);
    EXPECT_EQ(p.field(12), field_of(hs::last_released_version(), 12));
    EXPECT_EQ(p.field(20), field_of(serial, 20));
    EXPECT_EQ(p.field(16), field_of(name, 16));
    EXPECT_EQ(p.at, 69U);
    int index = 0;
    for (const auto& frame : {first, second}) {
        EXPECT_EQ(p.number(1), static_cast<std::uint64_t>(index++));
        EXPECT_EQ(p.number(2), 4U);
        EXPECT_EQ(p.number(2), 2U);
        EXPECT_EQ(p.number(2), 2U);
        EXPECT_EQ(p.number(8), frame->timestamp());
        EXPECT_EQ(p.take(16), plane_bytes(frame, 0, 2));
    }
}

// 300 lists, two without an embedded line (dropped, the index stays) and one without a
// depth frame (nothing written, the index moves on): the index wraps at 256, and the
// line is written at its own length. (The writer giving up on lines that keep failing is
// tested through the shell, in tests/e2e/faults.sh.)
TEST_F(FrameDumpSinkTest, RunningIndexWrapsAndSkips) {
    auto source = std::make_shared<FakeSource>("QRX100A", "LM01", "sim:0");
    FakeCamera camera(source, 7, true);
    FrameDumpSink sink;
    startRunning(sink, camera);
    sink.requestDump(FT::FRAME_DEPTH | FT::FRAME_AMPLITUDE, 0, 300);
    const std::vector<std::uint8_t> line{'L', 'M', 1, 2, 3, 4};
    constexpr std::size_t kRecord = 15 + 6 + 16;
    std::vector<std::pair<std::uint8_t, int>> expected;  // index, list number (timestamp and seed)
    std::uint8_t index = 0;
    for (int i = 0; i < 300; ++i) {
        const auto seed = static_cast<std::uint8_t>(i);
        if (i == 100 || i == 101) {
            sink.onLumoraFrameList(source.get(), list_of({patterned_frame(FT::FRAME_DEPTH, 4, 2, i, seed)}));
            continue;
        }
        if (i == 150) {
            sink.onLumoraFrameList(source.get(), list_of({patterned_frame(FT::FRAME_AMPLITUDE, 4, 2, i, seed, &line)}));
            ++index;
            continue;
        }
        sink.onLumoraFrameList(source.get(), list_of({patterned_frame(FT::FRAME_DEPTH, 4, 2, i, seed, &line)}));
        expected.emplace_back(index++, i);
        // Paced by the writer, so that no list is dropped at the queue.
        ASSERT_TRUE(waitForSize(69 + expected.size() * kRecord)) << "record " << expected.size();
    }
    sink.onLumoraFrameList(source.get(), list_of({patterned_frame(FT::FRAME_DEPTH, 4, 2, 0, 0, &line)}));
    sink.stopDump();

    const auto files = dumpFiles();
    ASSERT_EQ(files.size(), 1U);
    const auto bytes = read_file(files[0]);
    ASSERT_EQ(bytes.size(), 69 + 297 * kRecord);
    EXPECT_EQ(bytes[2], 1U) << "embedded_line_control";
    Parser p{bytes, 69};
    std::size_t wraps = 0;
    for (const auto& [wantIndex, number] : expected) {
        const auto got = p.number(1);
        EXPECT_EQ(got, wantIndex);
        wraps += got == 0;
        p.number(6);
        EXPECT_EQ(p.number(8), static_cast<std::uint64_t>(number));
        EXPECT_EQ(p.take(6), line);
        EXPECT_EQ(p.take(16)[0], static_cast<std::uint8_t>(number));
    }
    EXPECT_EQ(wraps, 2U) << "the index starts at 0 and wraps once";
}

// Each mode writes its blocks in order at its element size; a mode-3 record carries
// 4 x width x height x 4 bytes after its header. Mode 2 on intensity clouds alone is taken
// but writes no record. (Frames are small: a list must reach the writer within its 100 ms,
// also where ThreadSanitizer slows the copy down.)
TEST_F(FrameDumpSinkTest, ModesWriteTheirBlocks) {
    constexpr int kWidth = 160;
    constexpr int kHeight = 120;
    auto source = std::make_shared<FakeSource>("QRX100A", "LM01", "sim:0");
    FakeCamera camera(source, 7, false);
    FrameDumpSink sink;
    startRunning(sink, camera);
    const auto depth = patterned_frame(FT::FRAME_DEPTH, kWidth, kHeight, 5, 1);
    const auto amplitude = patterned_frame(FT::FRAME_AMPLITUDE, kWidth, kHeight, 5, 2);
    const auto cloud = patterned_frame(FT::FRAME_POINTCLOUD, kWidth, kHeight, 5, 3);
    const auto intensityCloud = patterned_frame(FT::FRAME_INTENSITY_POINTCLOUD, kWidth, kHeight, 5, 4);
    const auto all = list_of({depth, amplitude, cloud, intensityCloud});
    const std::vector<std::vector<std::uint8_t>> blocks[] = {
        {plane_bytes(depth, 0, 2)},
        {plane_bytes(depth, 0, 2), plane_bytes(amplitude, 0, 2)},
        {plane_bytes(cloud, 0, 4), plane_bytes(cloud, 1, 4), plane_bytes(cloud, 2, 4)},
        {plane_bytes(intensityCloud, 0, 4), plane_bytes(intensityCloud, 1, 4), plane_bytes(intensityCloud, 2, 4),
         plane_bytes(intensityCloud, 3, 4)},
    };
    for (std::uint32_t mode = 0; mode < 4; ++mode) {
        SCOPED_TRACE(mode);
        sink.requestDump(30, mode, 1);
        sink.onLumoraFrameList(source.get(), all);
        sink.onLumoraFrameList(source.get(), all);
        sink.stopDump();
        const auto files = dumpFiles();
        ASSERT_EQ(files.size(), 1U);
        const auto bytes = read_file(files[0]);
        fs::remove(files[0]);
        const std::size_t element = mode < 2 ? 2 : 4;
        ASSERT_EQ(bytes.size(), 69 + 15 + blocks[mode].size() * kWidth * kHeight * element);
        Parser p{bytes, 5};
        EXPECT_EQ(p.number(2), mode);
        p.at = 69 + 5;
        EXPECT_EQ(p.number(2), element);
        p.number(8);
        for (const auto& block : blocks[mode])
            EXPECT_TRUE(p.take(block.size()) == block);
    }
    sink.requestDump(FT::FRAME_INTENSITY_POINTCLOUD, 2, 1);
    sink.onLumoraFrameList(source.get(), list_of({intensityCloud}));
    sink.stopDump();
    const auto files = dumpFiles();
    ASSERT_EQ(files.size(), 1U);
    EXPECT_EQ(fs::file_size(files[0]), 69U);
}

}  // namespace
}  // namespace lumora::dump::test
