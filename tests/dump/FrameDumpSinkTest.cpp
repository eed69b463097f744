// The dump sink writes byte-exact files from frame lists handed to it as the camera's
// delivery thread would; each file is compared with the bytes the test builds itself.
#include <algorithm>
#include <chrono>
#include <regex>
#include <thread>

#include "DumpBytes.h"
#include "DumpTestSupport.h"
#include "dump/FrameDumpSink.h"

namespace lumora::dump::test {
namespace {

using namespace std::chrono_literals;
using format::test::DumpCamera;
using format::test::FileBytes;
using FT = hs::LumoraFrame::FrameType;

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
    // Where the one dump file, which is then removed, first differs from `expected`; empty
    // when it does not.
    std::string differenceFrom(const FileBytes& expected) {
        const auto files = dumpFiles();
        if (files.size() != 1) return std::to_string(files.size()) + " dump files";
        const auto got = read_file(files[0]);
        fs::remove(files[0]);
        const std::string& want = expected.bytes();
        const auto at = std::mismatch(got.begin(), got.end(), want.begin(), want.end(),
                                      [](std::uint8_t a, char b) { return a == static_cast<std::uint8_t>(b); });
        if (at.first == got.end() && at.second == want.end()) return {};
        return "byte " + std::to_string(at.first - got.begin()) + " of " + std::to_string(got.size()) + ", " +
               std::to_string(want.size()) + " expected";
    }
};

// The descriptors of FakeSource("QRX100A", "LM01", "sim:0") with firmware 7: the URI's scheme
// is the source type.
const DumpCamera kCamera{"sim", 7, hs::last_released_version(), "LM01", "QRX100A"};

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
    FileBytes expected;
    expected.head(
        0x00DF, 0, 2, 0, 1,
        {"usbcam0", 0x2345, hs::last_released_version().substr(0, 11), serial.substr(0, 19), name.substr(0, 15)});
    expected.frame(0, 4, 2, 2, 1000).raw(plane_bytes(first, 0, 2));
    expected.frame(1, 4, 2, 2, second->timestamp()).raw(plane_bytes(second, 0, 2));
    ASSERT_EQ(expected.bytes().size(), 131U);
    EXPECT_EQ(differenceFrom(expected), "");
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
    FileBytes expected;
    expected.head(0x00DF, 1, 300, 0, 1, kCamera);
    std::size_t records = 0;
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
        const auto depth = patterned_frame(FT::FRAME_DEPTH, 4, 2, i, seed, &line);
        sink.onLumoraFrameList(source.get(), list_of({depth}));
        expected.frame(index++, 4, 2, 2, i).raw(line).raw(plane_bytes(depth, 0, 2));
        // Paced by the writer, so that no list is dropped at the queue.
        ASSERT_TRUE(waitForSize(69 + ++records * kRecord)) << "record " << records;
    }
    sink.onLumoraFrameList(source.get(), list_of({patterned_frame(FT::FRAME_DEPTH, 4, 2, 0, 0, &line)}));
    sink.stopDump();

    EXPECT_EQ(records, 297U);
    EXPECT_EQ(differenceFrom(expected), "");
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
        FileBytes expected;
        expected.head(0x00DF, 0, 1, static_cast<int>(mode), 1, kCamera).frame(0, kWidth, kHeight, mode < 2 ? 2 : 4, 5);
        for (const auto& block : blocks[mode])
            expected.raw(block);
        EXPECT_EQ(differenceFrom(expected), "");
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
