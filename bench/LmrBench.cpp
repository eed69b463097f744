// lmr on a 300-record VGA mode-1 dump of the simulated QRX100A's scene: `lmr export` beside
// cv::imwrite of the same PNGs on both cores, and `lmr info` beside cat of the file, each
// pair alternated in the same run in the same directory.
//
// Threads: the imwrite baseline runs two threads that claim images from an atomic counter
// and are joined before the round's time is taken; lmr runs as its own process.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include <unistd.h>

#include <opencv2/imgcodecs.hpp>

#include "DeviceConfig.h"
#include "Scene.h"
#include "dump/DumpWriter.h"
#include "format/DumpFormat.h"
#include "imaging/ColorMaps.h"
#include "imaging/FrameConversion.h"

namespace {

namespace hs = halden::sensor;
namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

constexpr std::uint32_t kRecords = 300;
constexpr int kWidth = 640;
constexpr int kHeight = 480;

double median(std::vector<double> samples) {
    if (samples.empty()) return 0.0;
    std::nth_element(samples.begin(), samples.begin() + static_cast<std::ptrdiff_t>(samples.size() / 2), samples.end());
    return samples[samples.size() / 2];
}

double seconds_of(const char* command) {
    const auto begin = Clock::now();
    // NOLINTNEXTLINE(concurrency-mt-unsafe): no other thread of the benchmark runs now
    if (std::system(command) != 0) return 0.0;
    return std::chrono::duration<double>(Clock::now() - begin).count();
}

// The dump and the images the live display makes of its records, in a fresh directory
// beside the current one, removed at the end.
class Recording {
public:
    Recording() : mDirectory(fs::current_path() / ("lumora-bench-lmr-" + std::to_string(::getpid()))) {
        fs::create_directories(mDirectory);
        const hs::sim::DeviceConfig device{"QRX100A", kWidth, kHeight, 30.0, {}};
        hs::sim::Scene scene(device, hs::sim::model_info(device.model));
        const hs::sim::SceneSettings settings;
        auto list = scene.makeList(2 | 4, settings);
        lumora::imaging::initColorMaps();
        lumora::imaging::setDepthRange(lumora::imaging::modelRanges(device.model).depth);
        lumora::imaging::setGrayRange(lumora::imaging::modelRanges(device.model).gray);

        using namespace lumora::dump;
        using namespace lumora::format;
        DumpWriter writer(file());
        camera_descriptor camera{kCameraDescriptorTag, 0x312, {}, {}, {}};
        fill_text_field(camera.camera_name, device.model);
        writer.writeHead({kSyncByte, 1, kRecords, DUMP_DEPTH_AMPLITUDE}, {kSourceDescriptorTag, "sim"}, camera);
        const std::vector<std::uint8_t> line(kWidth, 0);
        const std::size_t bytes = std::size_t{kWidth} * kHeight * 2;
        lumora::imaging::ConversionContext conversion;
        for (std::uint32_t i = 0; i < kRecords; ++i) {
            const std::uint64_t timestamp = i * 33333ULL;
            scene.render(i, timestamp, settings, *list);
            const auto depth = hs::find_frame(list, hs::LumoraFrame::FRAME_DEPTH);
            const auto amplitude = hs::find_frame(list, hs::LumoraFrame::FRAME_AMPLITUDE);
            writer.writeRecord({static_cast<std::uint8_t>(i), kWidth, kHeight, 2, timestamp}, {line.data(), kWidth},
                               {{depth->data(), bytes}, {amplitude->data(), bytes}});
            lumora::imaging::WindowImage colour;
            lumora::imaging::WindowImage gray;
            lumora::imaging::convertDepthAmplitude(conversion, depth, amplitude, {kWidth, kHeight}, {0, 0}, {0, 0},
                                                   colour, gray);
            mImages.push_back(cv::Mat(kHeight, kWidth, CV_16UC1, const_cast<void*>(depth->data())).clone());
            mImages.push_back(colour.image);
            mImages.push_back(gray.image);
        }
    }
    ~Recording() { fs::remove_all(mDirectory); }
    Recording(const Recording&) = delete;
    Recording& operator=(const Recording&) = delete;

    std::string file() const { return (mDirectory / "recording.lmr").string(); }
    fs::path output() const { return mDirectory / "out"; }

    // Writes every image with cv::imwrite on two threads; returns the seconds taken.
    double imwriteAll() const {
        fs::create_directories(output());
        std::atomic<std::size_t> next{0};
        const auto work = [&] {
            for (std::size_t i = next.fetch_add(1); i < mImages.size(); i = next.fetch_add(1))
                cv::imwrite((output() / ("image_" + std::to_string(i) + ".png")).string(), mImages[i]);
        };
        const auto begin = Clock::now();
        std::thread helper(work);
        work();
        helper.join();
        return std::chrono::duration<double>(Clock::now() - begin).count();
    }

private:
    fs::path mDirectory;
    std::vector<cv::Mat> mImages;
};

// Three rounds of each, alternating, each into an empty directory; the medians.
void BM_LmrExport300Vga(benchmark::State& state) {
    const Recording recording;
    const std::string command =
        std::string(LMR_BINARY) + " export " + recording.file() + " " + recording.output().string() + " 2>/dev/null";
    std::vector<double> imwrite;
    std::vector<double> lmr;
    for (auto _ : state) {
        for (int round = 0; round < 3; ++round) {
            imwrite.push_back(recording.imwriteAll());
            fs::remove_all(recording.output());
            lmr.push_back(seconds_of(command.c_str()));
            fs::remove_all(recording.output());
        }
    }
    state.counters["imwrite_s"] = median(imwrite);
    state.counters["lmr_s"] = median(lmr);

    std::vector<double> cat;
    std::vector<double> info;
    const std::string catCommand = "cat " + recording.file() + " >/dev/null";
    const std::string infoCommand = std::string(LMR_BINARY) + " info " + recording.file() + " >/dev/null";
    for (int round = 0; round < 5; ++round) {
        cat.push_back(seconds_of(catCommand.c_str()));
        info.push_back(seconds_of(infoCommand.c_str()));
    }
    state.counters["cat_s"] = median(cat);
    state.counters["info_s"] = median(info);
    state.counters["file_MB"] = static_cast<double>(fs::file_size(recording.file())) / 1e6;
}
BENCHMARK(BM_LmrExport300Vga)->Iterations(1)->Unit(benchmark::kMillisecond);

}  // namespace
