// Replay devices: a dump file of each mode played in a loop with its records' stamps and
// lines, masks and settings it cannot serve, and files that make no device. (That each
// record plays byte for byte as recorded is tests/e2e/replay.sh's, which dumps the replays
// again; files changed after the device list was read are tests/e2e/faults.sh's.)
#include <algorithm>
#include <fstream>
#include <string>
#include <vector>

#include "DumpBytes.h"
#include "SimTestSupport.h"
#include "format/DumpFormat.h"

namespace halden::sensor::test {
namespace {

constexpr int kWidth = 8;
constexpr int kHeight = 4;
const std::vector<std::uint64_t> kTimestamps = {1000, 11000, 21000};

// A dump of three 8 x 4 records in `mode`; each embedded line, where there are lines, is a
// letter of its own record.
std::string dump_bytes(int mode, bool lines) {
    const int size = mode < 2 ? 2 : 4;
    lumora::format::test::FileBytes file;
    file.head(0x00DF, lines ? 1 : 0, 3, mode);
    for (std::size_t r = 0; r < kTimestamps.size(); ++r) {
        file.frame(static_cast<int>(r), kWidth, kHeight, size, kTimestamps[r]);
        if (lines) file.text(std::string(kWidth, static_cast<char>('a' + r)), kWidth);
        file.filler(std::size_t{kWidth} * kHeight * size * (mode + 1));
    }
    return file.bytes();
}

// The bytes in a file of that name in the test's temporary directory; its path.
std::string saved(const std::string& name, const std::string& bytes) {
    std::string path = testing::TempDir() + name;
    std::ofstream(path, std::ios::binary | std::ios::trunc) << bytes;
    return path;
}

using ReplayTest = SimTest;

TEST_F(ReplayTest, EachModePlaysItsRecordsInALoopAndRefusesWhatItCannotServe) {
    const std::uint32_t types[] = {LumoraFrame::FRAME_DEPTH, LumoraFrame::FRAME_DEPTH | LumoraFrame::FRAME_AMPLITUDE,
                                   LumoraFrame::FRAME_POINTCLOUD, LumoraFrame::FRAME_INTENSITY_POINTCLOUD};
    for (int mode = 0; mode < 4; ++mode) {
        SCOPED_TRACE("mode " + std::to_string(mode));
        const bool lines = mode % 2 == 1;
        const std::string file = saved("replay_mode" + std::to_string(mode) + ".lmr", dump_bytes(mode, lines));
        useDevices(("QRX200AP:64x48,replay:" + file).c_str(), 2);
        const auto source = mSources->at(1);
        EXPECT_EQ(source->name(), "QRX100A");
        EXPECT_EQ(source->serialNumber(), "LM0536240000");
        EXPECT_EQ(source->uri(), "replay:1");

        const auto camera = open(1);
        ASSERT_NE(camera, nullptr);
        EXPECT_EQ(camera->supportedFrameTypes(), types[mode]);
        EXPECT_EQ(std::get<1>(camera->getProperty("width"))->getInt32(), kWidth);
        EXPECT_EQ(std::get<1>(camera->getProperty("fw_version"))->getInt32(), 0x312);
        IntrinsicParameters intrinsics{};
        EXPECT_EQ(camera->getIntrinsicParameters(0, intrinsics), RESULT_SUCCESS);
        EXPECT_GT(intrinsics.fx, 0.0);
        // A recording cannot follow new sensor settings, nor give lines it does not hold.
        EXPECT_EQ(camera->setProperty(make_property_64f("framerate", 10.0)), RESULT_INVALID_OPERATION);
        EXPECT_EQ(camera->setProperty(make_property_32s("amplitude_threshold", 99)), RESULT_INVALID_OPERATION);
        EXPECT_EQ(camera->setProperty(make_property_string("sim_scene", "wall:1000")), RESULT_INVALID_OPERATION);
        EXPECT_EQ(camera->setProperty(make_property_64f("sim_noise", 5.0)), RESULT_INVALID_OPERATION);
        EXPECT_EQ(camera->setProperty(make_property_32s("sim_loop", 3)), RESULT_INVALID_OPERATION);
        EXPECT_EQ(camera->setProperty(make_property_bool("embedded_data_line", true)),
                  lines ? RESULT_SUCCESS : RESULT_NOT_SUPPORTED);

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
            ASSERT_EQ(lists[i]->size(), mode == 1 ? 2U : 1U) << "list " << i;
            for (std::size_t f = 0; f < lists[i]->size(); ++f) {
                const auto frame = lists[i]->at(f);
                EXPECT_EQ(frame->timestamp(), kTimestamps[record]) << "list " << i;
                EXPECT_EQ(frame->width(), kWidth);
                EXPECT_EQ(frame->dataType(), mode < 2 ? DATA_TYPE_UINT16 : DATA_TYPE_FLOAT32);
                EXPECT_EQ(line_of(*frame),
                          std::vector<std::uint8_t>(lines ? kWidth : 0, static_cast<std::uint8_t>('a' + record)));
            }
        }
        sink.close(camera);
    }
}

TEST_F(ReplayTest, FilesThatCannotBePlayedMakeNoDeviceAndOneLogLineEach) {
    const std::string whole = dump_bytes(1, true);
    const std::string good = saved("replay_good.lmr", whole);
    std::string wider = whole;
    wider[lumora::format::kHeadBytes + 1] = kWidth + 1;  // the first record's width, a byte more than its line
    std::string huge = whole;
    huge[lumora::format::kHeadBytes + 1] = huge[lumora::format::kHeadBytes + 2] = huge[lumora::format::kHeadBytes + 3] =
        huge[lumora::format::kHeadBytes + 4] = '\xFF';
    const std::vector<std::string> bad = {
        testing::TempDir() + "replay_missing.lmr",
        saved("replay_truncated.lmr", whole.substr(0, whole.size() - 1)),
        saved("replay_wider.lmr", wider),
        saved("replay_huge.lmr", huge),
        saved("replay_head_only.lmr", whole.substr(0, lumora::format::kHeadBytes)),
        saved("replay_garbage.lmr", std::string(500, 'x')),
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

    // Hot-plugged: a bad file is refused, a good one is announced.
    testing::internal::CaptureStdout();
    EXPECT_EQ(set_property(make_property_string("sim_attach", "replay:" + bad[1])), RESULT_INVALID_PARAMETER);
    EXPECT_EQ(set_property(make_property_string("sim_attach", "replay:" + good)), RESULT_SUCCESS);
    const std::string attachLog = testing::internal::GetCapturedStdout();
    EXPECT_NE(attachLog.find("sim_attach: no replay device from \"" + bad[1] + "\": "), std::string::npos) << attachLog;
    EXPECT_EQ(search_camera_source()->find("replay:1")->name(), "QRX100A");
}

}  // namespace
}  // namespace halden::sensor::test
