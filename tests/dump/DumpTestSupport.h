// What the dump tests share: a scratch working directory, a camera and a source whose
// answers the test chooses, and frames made with the simulated library.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>
#include <vector>

#include <halden/sensor/Lumora.h>
#include <halden/sensor/sim/SimControl.h>

namespace lumora::dump::test {

namespace hs = halden::sensor;
namespace fs = std::filesystem;

// Runs each test in an empty directory of its own, where dump files land.
class InScratchDirectory : public testing::Test {
protected:
    void SetUp() override {
        mPrevious = fs::current_path();
        std::string pattern = (fs::temp_directory_path() / "lumora-dump-XXXXXX").string();
        ASSERT_NE(mkdtemp(pattern.data()), nullptr);
        mDirectory = pattern;
        fs::current_path(mDirectory);
    }
    void TearDown() override {
        fs::current_path(mPrevious);
        fs::remove_all(mDirectory);
    }
    // The .lmr files in the directory.
    std::vector<fs::path> dumpFiles() const {
        std::vector<fs::path> files;
        for (const auto& entry : fs::directory_iterator(mDirectory))
            if (entry.path().extension() == ".lmr" && entry.path().filename() != "framedump.lmr")
                files.push_back(entry.path());
        return files;
    }

    fs::path mPrevious;
    fs::path mDirectory;
};

inline std::vector<std::uint8_t> read_file(const fs::path& path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

class FakeSource : public hs::LumoraSource {
public:
    FakeSource(std::string name, std::string serial, std::string uri)
        : mName(std::move(name)), mSerial(std::move(serial)), mUri(std::move(uri)) {}
    std::string name() const override { return mName; }
    std::string serialNumber() const override { return mSerial; }
    std::string uri() const override { return mUri; }

private:
    std::string mName, mSerial, mUri;
};

// Answers "fw_info" with the given fw_version, takes or refuses embedded_data_line, and
// records the values it was given for it.
class FakeCamera : public hs::LumoraCamera {
public:
    FakeCamera(std::shared_ptr<hs::LumoraSource> source, std::int32_t firmware, bool takesLine)
        : mSource(std::move(source)), mFirmware(firmware), mTakesLine(takesLine) {}

    std::vector<bool> lineSwitches;

    State state() const override { return STATE_RUNNING; }
    std::shared_ptr<hs::LumoraSource> source() const override { return mSource; }
    int lensCount() const override { return 1; }
    hs::Result getDistortionCoefficients(int, hs::DistortionCoefficients&) const override { return no(); }
    hs::Result getIntrinsicParameters(int, hs::IntrinsicParameters&) const override { return no(); }
    hs::Result getExtrinsicParameters(int, hs::ExtrinsicParameters&) const override { return no(); }
    hs::Result getFieldOfView(int, hs::FieldOfView&) const override { return no(); }
    hs::Result prepare() override { return no(); }
    std::uint32_t supportedFrameTypes() const override { return 30; }
    hs::Result run(int) override { return no(); }
    hs::Result stop() override { return no(); }
    hs::Result release() override { return no(); }
    hs::Result setProperty(const std::shared_ptr<hs::LumoraProperty>& property) override {
        if (property->key() != "embedded_data_line") return no();
        lineSwitches.push_back(property->getBool());
        return mTakesLine ? hs::RESULT_SUCCESS : no();
    }
    hs::Result setProperties(const std::shared_ptr<hs::LumoraProperties>&) override { return no(); }
    std::tuple<hs::Result, std::shared_ptr<hs::LumoraProperty>> getProperty(const std::string&) const override {
        return {no(), nullptr};
    }
    std::tuple<hs::Result, std::shared_ptr<hs::LumoraProperties>> getProperties(
        const std::string& name) const override {
        if (name != "fw_info") return {no(), nullptr};
        auto info = hs::make_properties("fw_info");
        info->add(hs::make_property_string("sensor", "T1"));
        info->add(hs::make_property_32s("fw_version", mFirmware));
        return {hs::RESULT_SUCCESS, info};
    }
    hs::Result addSink(hs::LumoraSink*) override { return no(); }
    hs::Result removeSink(hs::LumoraSink*) override { return no(); }
    std::uint32_t wantedFrame() const override { return 30; }

private:
    static hs::Result no() { return hs::RESULT_NOT_SUPPORTED; }

    std::shared_ptr<hs::LumoraSource> mSource;
    std::int32_t mFirmware;
    bool mTakesLine;
};

// A frame of `type` whose bytes count up from `seed`, optionally with an embedded line.
inline std::shared_ptr<hs::LumoraFrame> patterned_frame(hs::LumoraFrame::FrameType type, int width, int height,
                                                        std::uint64_t timestamp, std::uint8_t seed,
                                                        const std::vector<std::uint8_t>* line = nullptr) {
    const bool basic = type == hs::LumoraFrame::FRAME_DEPTH || type == hs::LumoraFrame::FRAME_AMPLITUDE;
    const std::size_t planes = basic ? 1 : type == hs::LumoraFrame::FRAME_POINTCLOUD ? 3 : 4;
    const std::size_t bytes = planes * static_cast<std::size_t>(width) * height * (basic ? 2 : 4);
    auto frame =
        hs::sim::make_frame(type, basic ? hs::DATA_TYPE_UINT16 : hs::DATA_TYPE_FLOAT32, width, height, 1, timestamp);
    auto* data = static_cast<std::uint8_t*>(hs::sim::frame_data(frame));
    for (std::size_t i = 0; i < bytes; ++i)
        data[i] = static_cast<std::uint8_t>(seed + i * 7);
    if (line != nullptr) hs::sim::set_frame_property(frame, hs::sim::make_property_bytes("embedded_data_line", *line));
    return frame;
}

}  // namespace lumora::dump::test
