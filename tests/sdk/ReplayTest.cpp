// Replay devices: a dump file of each mode played back as recorded, masks and settings it
// cannot serve, and files that make no device.
#include <algorithm>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "SimTestSupport.h"
#include "dump/DumpWriter.h"

namespace halden::sensor::test {
namespace {

namespace dump = lumora::dump;
namespace format = lumora::format;

constexpr int kWidth = 8;
constexpr int kHeight = 4;
const std::vector<std::uint64_t> kTimestamps = {1000, 11000, 21000};

// A dump of 8 x 4 frames whose bytes tell record and position apart.
struct DumpFile {
    std::uint16_t mode = 0;
    bool lines = false;
    std::size_t blockBytes() const { return std::size_t{kWidth} * kHeight * format::element_size(mode); }
    std::vector<std::uint8_t> line(std::size_t record) const {
        std::vector<std::uint8_t> bytes(kWidth);
        for (std::size_t j = 0; j < bytes.size(); ++j)
            bytes[j] = static_cast<std::uint8_t>(100 + record * 13 + j);
        return bytes;
    }
    std::vector<std::uint8_t> blocks(std::size_t record) const {
        std::vector<std::uint8_t> bytes(blockBytes() * format::block_count(mode));
        for (std::size_t j = 0; j < bytes.size(); ++j)
            bytes[j] = static_cast<std::uint8_t>(record * 31 + j * 7 + 1);
        return bytes;
    }

    std::string write(const std::string& name) const {
        std::string path = testing::TempDir() + name;
        dump::DumpWriter out(path);
        format::camera_descriptor camera{format::kCameraDescriptorTag, 0x0205, {}, {}, {}};
        format::fill_text_field(camera.serial_number, "LM0042");
        format::fill_text_field(camera.camera_name, "QRX200AP");
        EXPECT_EQ(out.writeHead({format::kSyncByte, static_cast<std::uint8_t>(lines), 3, mode},
                                {format::kSourceDescriptorTag, "sim"}, camera),
                  RESULT_SUCCESS);
        for (std::size_t r = 0; r < kTimestamps.size(); ++r) {
            const auto lineBytes = line(r);
            const auto blockBytes = blocks(r);
            EXPECT_EQ(out.writeRecord(
                          {static_cast<std::uint8_t>(r), kWidth, kHeight, format::element_size(mode), kTimestamps[r]},
                          lines ? dump::Bytes{lineBytes.data(), lineBytes.size()} : dump::Bytes{nullptr, 0},
                          {{blockBytes.data(), blockBytes.size()}}),
                      RESULT_SUCCESS);
        }
        return path;
    }
};

std::vector<std::uint8_t> bytes_of(const LumoraFrame& frame) {
    const auto* data = static_cast<const std::uint8_t*>(frame.data());
    return {data, data + frame.planeCount() * frame.elementCount() * (frame.dataType() == DATA_TYPE_UINT16 ? 2 : 4)};
}

std::vector<std::uint8_t> line_of(const LumoraFrame& frame) {
    const auto property = std::get<1>(frame.getProperty("embedded_data_line"));
    return property ? property->getBytes() : std::vector<std::uint8_t>{};
}

using ReplayTest = SimTest;

TEST_F(ReplayTest, EachModePlaysItsRecordsAsRecordedAndLoopsAndRefusesWhatItCannotServe) {
    const std::uint32_t types[] = {LumoraFrame::FRAME_DEPTH, LumoraFrame::FRAME_DEPTH | LumoraFrame::FRAME_AMPLITUDE,
                                   LumoraFrame::FRAME_POINTCLOUD, LumoraFrame::FRAME_INTENSITY_POINTCLOUD};
    for (std::uint16_t mode = 0; mode < 4; ++mode) {
        SCOPED_TRACE("mode " + std::to_string(mode));
        const DumpFile file{mode, mode % 2 == 1};
        const std::string entry = "QRX100A:64x48,replay:" + file.write("replay_mode" + std::to_string(mode) + ".lmr");
        useDevices(entry.c_str(), 2);
        const auto source = mSources->at(1);
        EXPECT_EQ(source->name(), "QRX200AP");
        EXPECT_EQ(source->serialNumber(), "LM0042");
        EXPECT_EQ(source->uri(), "replay:1");

        const auto camera = open(1);
        ASSERT_NE(camera, nullptr);
        EXPECT_EQ(camera->supportedFrameTypes(), types[mode]);
        EXPECT_EQ(std::get<1>(camera->getProperty("width"))->getInt32(), kWidth);
        EXPECT_EQ(std::get<1>(camera->getProperty("fw_version"))->getInt32(), 0x0205);
        IntrinsicParameters intrinsics{};
        EXPECT_EQ(camera->getIntrinsicParameters(0, intrinsics), RESULT_SUCCESS);
        EXPECT_GT(intrinsics.fx, 0.0);
        // A recording cannot follow new sensor settings, nor give lines it does not hold.
        EXPECT_EQ(camera->setProperty(make_property_64f("framerate", 10.0)), RESULT_INVALID_OPERATION);
        EXPECT_EQ(camera->setProperty(make_property_32s("amplitude_threshold", 99)), RESULT_INVALID_OPERATION);
        EXPECT_EQ(camera->setProperty(make_property_bool("embedded_data_line", true)),
                  file.lines ? RESULT_SUCCESS : RESULT_NOT_SUPPORTED);

        RecordingSink sink(7);
        // A sink slower than the records: a player plays every record all the same.
        if (mode == 0)
            sink.onFrames = [](const std::shared_ptr<LumoraFrameList>&) { std::this_thread::sleep_for(25ms); };
        ASSERT_EQ(sink.watch(camera), RESULT_SUCCESS);
        ASSERT_EQ(camera->prepare(), RESULT_SUCCESS);
        EXPECT_EQ(camera->run(static_cast<int>(kAllTypes)), RESULT_INVALID_PARAMETER);
        EXPECT_EQ(camera->run(static_cast<int>(types[(mode + 1) % 4])), RESULT_INVALID_PARAMETER);
        ASSERT_EQ(camera->run(static_cast<int>(types[mode])), RESULT_SUCCESS);
        ASSERT_TRUE(sink.kept.waitFor(7));
        EXPECT_EQ(camera->stop(), RESULT_SUCCESS);

        const auto lists = sink.kept.all();
        for (std::size_t i = 0; i < lists.size(); ++i) {
            const std::size_t record = i % kTimestamps.size();
            SCOPED_TRACE("list " + std::to_string(i));
            EXPECT_EQ(lists[i]->timestamp(), kTimestamps[record]);
            const auto blocks = file.blocks(record);
            ASSERT_EQ(lists[i]->size(), static_cast<std::size_t>(mode == 1 ? 2 : 1));
            for (std::size_t f = 0; f < lists[i]->size(); ++f) {
                const auto frame = lists[i]->at(f);
                EXPECT_EQ(frame->timestamp(), kTimestamps[record]);
                EXPECT_EQ(frame->width(), kWidth);
                EXPECT_EQ(frame->dataType(), mode < 2 ? DATA_TYPE_UINT16 : DATA_TYPE_FLOAT32);
                // Amplitude is the record's second block; a point cloud's planes are its blocks.
                const auto from = blocks.begin() + static_cast<std::ptrdiff_t>(f * file.blockBytes());
                const std::vector<std::uint8_t> expected(from,
                                                         from + static_cast<std::ptrdiff_t>(bytes_of(*frame).size()));
                EXPECT_EQ(bytes_of(*frame), expected);
                EXPECT_EQ(line_of(*frame), file.lines ? file.line(record) : std::vector<std::uint8_t>{});
            }
        }
        sink.close(camera);
    }
}

TEST_F(ReplayTest, FilesThatCannotBePlayedMakeNoDeviceAndOneLogLineEach) {
    const DumpFile file{1, true};
    const std::string good = file.write("replay_good.lmr");
    std::ifstream in(good, std::ios::binary);
    const std::string whole((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    const auto variant = [&](const std::string& name, const std::string& bytes) {
        std::string path = testing::TempDir() + name;
        std::ofstream(path, std::ios::binary | std::ios::trunc) << bytes;
        return path;
    };
    std::string wider = whole;
    wider[format::kHeadBytes + 1] = kWidth + 1;  // the first record's width, a byte more than its line
    std::string huge = whole;
    huge[format::kHeadBytes + 1] = huge[format::kHeadBytes + 2] = huge[format::kHeadBytes + 3] =
        huge[format::kHeadBytes + 4] = '\xFF';
    const std::vector<std::string> bad = {
        testing::TempDir() + "replay_missing.lmr",
        variant("replay_truncated.lmr", whole.substr(0, whole.size() - 1)),
        variant("replay_wider.lmr", wider),
        variant("replay_huge.lmr", huge),
        variant("replay_head_only.lmr", whole.substr(0, format::kHeadBytes)),
        variant("replay_garbage.lmr", std::string(500, 'x')),
    };
    std::string entries = "QRX100A:64x48";
    for (const auto& path : bad)
        entries += ",replay:" + path;
    search_camera_source();  // the library reads its devices once at start: not now, but below
    testing::internal::CaptureStdout();
    mSources = use_devices(entries.c_str());
    const std::string log = testing::internal::GetCapturedStdout();
    ASSERT_NE(mSources, nullptr);
    EXPECT_EQ(mSources->size(), 1U);
    for (const auto& path : bad) {
        const std::string line = "LUMORA_SIM_DEVICES: no replay device from \"" + path + "\": ";
        const auto at = log.find(line);
        EXPECT_NE(at, std::string::npos) << log;
        EXPECT_EQ(log.find(line, at + 1), std::string::npos) << log;
    }
    EXPECT_EQ(std::count(log.begin(), log.end(), '\n'), static_cast<std::ptrdiff_t>(bad.size())) << log;

    // Hot-plugged: a bad file is refused, a good one is announced and can be opened; a file
    // that changed since it was found cannot.
    testing::internal::CaptureStdout();
    EXPECT_EQ(set_property(make_property_string("sim_attach", "replay:" + bad[1])), RESULT_INVALID_PARAMETER);
    EXPECT_EQ(set_property(make_property_string("sim_attach", "replay:" + good)), RESULT_SUCCESS);
    mSources = search_camera_source();
    ASSERT_EQ(mSources->size(), 2U);
    EXPECT_EQ(mSources->at(1)->uri(), "replay:1");
    variant("replay_good.lmr", whole.substr(0, whole.size() - 1));
    EXPECT_EQ(create_camera(mSources->at(1)), nullptr);
    const std::string attachLog = testing::internal::GetCapturedStdout();
    EXPECT_NE(attachLog.find("sim_attach: no replay device from \"" + bad[1] + "\": "), std::string::npos) << attachLog;
    EXPECT_NE(attachLog.find("replay:1: cannot open \"" + good + "\": "), std::string::npos) << attachLog;
}

}  // namespace
}  // namespace halden::sensor::test
