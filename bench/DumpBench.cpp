// Frame dumps: a 300-frame dump from a simulated 30 fps VGA QRX100A in each mode (records
// written, lists lost at the dump queue, the delivery thread's time in the sink's frame
// callback), and the writer's throughput for mode-3 records beside dd's, measured in the
// same run in the same directory, and alone at each size of the scaling figures. No display runs beside the dumps.
//
// Threads: the camera's delivery thread calls TimedSink, which forwards every callback to
// the dump sink and times the frame callback; the benchmark's thread requests the dump,
// waits for the samples of its lists, then stops the camera, whose state callback waits
// for the sink's writer thread.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <filesystem>
#include <mutex>
#include <string>
#include <vector>

#include <fcntl.h>
#include <unistd.h>

#include <halden/sensor/Lumora.h>

#include "dump/DumpWriter.h"
#include "dump/FrameDumpSink.h"
#include "format/DumpFormat.h"
#include "pipeline/Percentile.h"

namespace {

namespace hs = halden::sensor;
namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;
using lumora::pipeline::percentile;
using namespace std::chrono_literals;

constexpr std::uint32_t kFrames = 300;
// The run mask that serves each mode with the least to copy.
constexpr std::uint32_t kMasks[] = {2, 2 | 4, 8, 16};
constexpr std::size_t kBlocks[] = {1, 2, 3, 4};

// Works in a fresh directory beside the current one, on the same file system.
class ScratchDirectory {
public:
    ScratchDirectory() : mPrevious(fs::current_path()) {
        std::string pattern = (mPrevious / "lumora-bench-XXXXXX").string();
        if (mkdtemp(pattern.data()) != nullptr) mPath = pattern;
        if (!mPath.empty()) fs::current_path(mPath);
    }
    ~ScratchDirectory() {
        fs::current_path(mPrevious);
        if (!mPath.empty()) fs::remove_all(mPath);
    }
    ScratchDirectory(const ScratchDirectory&) = delete;
    ScratchDirectory& operator=(const ScratchDirectory&) = delete;

    std::vector<fs::path> dumps() const {
        std::vector<fs::path> files;
        for (const auto& entry : fs::directory_iterator(mPath))
            if (entry.path().extension() == ".lmr") files.push_back(entry.path());
        return files;
    }

private:
    fs::path mPrevious;
    fs::path mPath;
};

// Forwards to the dump sink; times its frame callback while armed.
class TimedSink : public hs::LumoraSink {
public:
    explicit TimedSink(lumora::dump::FrameDumpSink& sink) : mSink(sink) {}

    std::string name() const override { return "timed"; }
    void onLumoraCameraState(hs::LumoraSource* source, hs::LumoraCamera::State state) override {
        mSink.onLumoraCameraState(source, state);
    }
    void onLumoraCameraError(hs::LumoraSource* source, hs::Result error) override {
        mSink.onLumoraCameraError(source, error);
    }
    void onLumoraFrameList(hs::LumoraSource* source, const std::shared_ptr<hs::LumoraFrameList>& list) override {
        const auto begin = Clock::now();
        mSink.onLumoraFrameList(source, list);
        const double millis = std::chrono::duration<double, std::milli>(Clock::now() - begin).count();
        const std::lock_guard<std::mutex> lock(mMutex);
        if (mWanted == 0) return;
        mMillis.push_back(millis);
        if (mMillis.size() >= mWanted) {
            mWanted = 0;
            mDone.notify_all();
        }
    }

    // Times the next `count` frame callbacks; returns them once all came (or after 60 s).
    template <typename Start>
    std::vector<double> time(std::size_t count, Start start) {
        std::unique_lock<std::mutex> lock(mMutex);
        mMillis.clear();
        mWanted = count;
        lock.unlock();
        start();
        lock.lock();
        mDone.wait_for(lock, 60s, [this] { return mWanted == 0; });
        mWanted = 0;
        return mMillis;
    }

private:
    lumora::dump::FrameDumpSink& mSink;
    std::mutex mMutex;
    std::condition_variable mDone;
    std::size_t mWanted = 0;
    std::vector<double> mMillis;
};

// One 300-frame dump in the mode given by the argument; the camera streams only what the
// mode needs, with embedded lines on from the start so that every list can be written.
void BM_Dump300VgaFrames(benchmark::State& state) {
    const auto mode = static_cast<std::uint32_t>(state.range(0));
    const ScratchDirectory scratch;
    const auto sources = hs::search_camera_source();
    const auto camera = sources ? hs::create_camera(sources->find("sim:0")) : nullptr;
    if (!camera || camera->source()->name() != "QRX100A") {
        state.SkipWithError("no simulated QRX100A at sim:0");
        return;
    }
    lumora::dump::FrameDumpSink sink;
    TimedSink timed(sink);
    hs::add_prepared_listener(&sink);
    camera->addSink(&timed);
    camera->prepare();
    camera->setProperty(hs::make_property_bool("embedded_data_line", true));
    camera->run(static_cast<int>(kMasks[mode]));
    std::this_thread::sleep_for(300ms);
    std::vector<double> millis;
    for (auto _ : state)
        millis = timed.time(kFrames + 1, [&] { sink.requestDump(kMasks[mode], mode, kFrames); });
    camera->stop();
    hs::destroy_camera(camera);
    hs::remove_prepared_listener(&sink);

    const auto files = scratch.dumps();
    const std::uintmax_t size = files.size() == 1 ? fs::file_size(files[0]) : 0;
    const std::uintmax_t record =
        sizeof(lumora::format::frame_header) + 640 + kBlocks[mode] * 640 * 480 * lumora::format::element_size(mode);
    const double records = size >= lumora::format::kHeadBytes ? double(size - lumora::format::kHeadBytes) / record : 0;
    state.counters["records"] = records;
    state.counters["lost"] = kFrames - records;
    state.counters["samples"] = static_cast<double>(millis.size());
    state.counters["p50_ms"] = percentile(millis, 0.5);
    state.counters["p999_ms"] = percentile(millis, 0.999);
    state.counters["max_ms"] = percentile(millis, 1.0);
}
BENCHMARK(BM_Dump300VgaFrames)->DenseRange(0, 3)->Iterations(1)->Unit(benchmark::kMillisecond);

double seconds_since(Clock::time_point begin) { return std::chrono::duration<double>(Clock::now() - begin).count(); }

// dd's 1 GiB in 4 MiB blocks with a final fsync.
double dd_megabytes_per_second() {
    const auto begin = Clock::now();
    // NOLINTNEXTLINE(concurrency-mt-unsafe): no other thread of the benchmark runs now
    if (std::system("dd if=/dev/zero of=dd.out bs=4M count=256 conv=fsync status=none") != 0) return 0.0;
    const double rate = 256.0 * 4 * 1024 * 1024 / 1e6 / seconds_since(begin);
    fs::remove("dd.out");
    return rate;
}

// About `bytes` of width x height mode-3 records through the dump writer, with a final fsync.
double writer_megabytes_per_second(const std::vector<float>& planes, int width, int height, std::size_t bytes) {
    using namespace lumora::dump;
    using namespace lumora::format;
    const std::size_t plane = planes.size() / 4 * sizeof(float);
    const std::size_t records = std::max<std::size_t>(1, bytes / (sizeof(frame_header) + 4 * plane));
    const auto begin = Clock::now();
    {
        DumpWriter writer("writer.lmr");
        if (writer.writeHead({kSyncByte, 0, 300, 3}, {kSourceDescriptorTag, "sim"},
                             {kCameraDescriptorTag, 0, {}, {}, {}}) != halden::sensor::RESULT_SUCCESS)
            return 0.0;
        const auto* data = reinterpret_cast<const std::uint8_t*>(planes.data());
        const std::vector<Bytes> blocks{
            {data, plane}, {data + plane, plane}, {data + 2 * plane, plane}, {data + 3 * plane, plane}};
        for (std::size_t i = 0; i < records; ++i)
            if (writer.writeRecord({static_cast<std::uint8_t>(i), static_cast<std::uint16_t>(width),
                                    static_cast<std::uint16_t>(height), 4, i},
                                   {nullptr, 0}, blocks) != halden::sensor::RESULT_SUCCESS)
                return 0.0;
    }
    const int fd = ::open("writer.lmr", O_RDONLY | O_CLOEXEC);
    if (fd < 0 || ::fsync(fd) != 0) return 0.0;
    ::close(fd);
    const double rate = double(kHeadBytes + records * (sizeof(frame_header) + 4 * plane)) / 1e6 / seconds_since(begin);
    fs::remove("writer.lmr");
    return rate;
}

std::vector<float> mode3Planes(int width, int height) {
    std::vector<float> planes(std::size_t{4} * static_cast<std::size_t>(width) * static_cast<std::size_t>(height));
    for (std::size_t i = 0; i < planes.size(); ++i)
        planes[i] = static_cast<float>(i % 7919) * 0.001F;
    return planes;
}

constexpr std::size_t kGiB = std::size_t{1} << 30U;

// Three runs of each, alternating; the median of each.
void BM_DumpWriterThroughput(benchmark::State& state) {
    const ScratchDirectory scratch;
    const auto planes = mode3Planes(640, 480);
    std::vector<double> dd;
    std::vector<double> writer;
    for (auto _ : state) {
        for (int run = 0; run < 3; ++run) {
            dd.push_back(dd_megabytes_per_second());
            writer.push_back(writer_megabytes_per_second(planes, 640, 480, kGiB));
        }
    }
    state.counters["dd_MBps"] = percentile(dd, 0.5);
    state.counters["writer_MBps"] = percentile(writer, 0.5);
}
BENCHMARK(BM_DumpWriterThroughput)->Iterations(1)->Unit(benchmark::kMillisecond);

// The writer at each size of the scaling figures: a quarter GiB of mode-3 records, once.
void BM_DumpWriterAtSize(benchmark::State& state) {
    const ScratchDirectory scratch;
    const auto width = static_cast<int>(state.range(0));
    const auto height = static_cast<int>(state.range(1));
    const auto planes = mode3Planes(width, height);
    for (auto _ : state)
        state.counters["writer_MBps"] = writer_megabytes_per_second(planes, width, height, kGiB / 4);
}
BENCHMARK(BM_DumpWriterAtSize)
    ->Args({320, 240})
    ->Args({640, 480})
    ->Args({1024, 1024})
    ->Args({2048, 2048})
    ->Iterations(1)
    ->Unit(benchmark::kMillisecond);

}  // namespace
