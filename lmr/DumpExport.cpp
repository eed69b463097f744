// Design note: export_dump's calling thread hands the records to the workers through an
// atomic counter: each worker claims the next record number, reads it through a file handle
// of its own and writes that record's files, so no two workers share a record, a buffer or
// a file. Records finish in any order; the index is written afterwards by the calling
// thread from the scanned layout alone. The colour tables are built before the workers
// start and only read by them. The calling thread waits on a condition variable (redrawing
// the progress bar every 100 ms) until every worker has finished. A worker that fails sets
// the stop flag, which every worker checks before it claims a record: each then ends, and
// the caller joins all of them before it returns.
#include "DumpExport.h"

#include <atomic>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <cinttypes>
#include <condition_variable>
#include <filesystem>
#include <fstream>
#include <memory>
#include <mutex>
#include <system_error>
#include <thread>
#include <vector>

#include "PngFile.h"
#include "PointCloudFile.h"
#include "Progress.h"
#include "RecordFrame.h"
#include "format/DumpFile.h"
#include "format/DumpScan.h"
#include "imaging/ColorMaps.h"
#include "imaging/FrameConversion.h"

namespace lumora::lmr {

namespace hs = halden::sensor;
namespace fs = std::filesystem;

namespace {

// What the workers share. The layout, paths and range are fixed before they start.
struct Job {
    Job(const format::DumpLayout& scanned, std::string path, fs::path into, RecordRange records)
        : layout(scanned), file(std::move(path)), directory(std::move(into)), range(records) {}

    const format::DumpLayout& layout;
    std::string file;
    fs::path directory;
    RecordRange range;

    std::atomic<std::size_t> next{0};
    std::atomic<std::size_t> done{0};
    std::atomic<bool> stop{false};

    std::mutex mutex;
    std::condition_variable finished;
    std::size_t workersFinished = 0;  // guarded by mutex
    std::string error;                // the first failure; guarded by mutex

    void fail(std::string message) {
        const std::lock_guard<std::mutex> lock(mutex);
        if (error.empty()) error = std::move(message);
        stop.store(true);
    }
};

// One worker's buffers, kept from record to record.
class RecordWriter {
public:
    explicit RecordWriter(Job& job) : mJob(job), mLayout(job.layout) {
        const format::frame_header& first = mLayout.records.front();
        mWidth = first.frame_width;
        mHeight = first.frame_height;
        mMode = mLayout.header.dump_frame_type;
        mElements = static_cast<std::size_t>(mWidth) * mHeight;
        mBytes = mLayout.blockBytes() * format::block_count(mMode);
        if (mMode <= format::DUMP_DEPTH_AMPLITUDE)
            mSamples.resize(mElements * format::block_count(mMode));
        else
            mPoints.resize(mElements * format::block_count(mMode));
    }

    // Writes record i's files; false (with the job told why) on a failure.
    bool write(std::FILE* file, std::size_t i) {
        void* buffer = mSamples.empty() ? static_cast<void*>(mPoints.data()) : static_cast<void*>(mSamples.data());
        if (fseeko(file, static_cast<off_t>(mLayout.dataOffset(i)), SEEK_SET) != 0) return readFailed(i);
        format::DumpReader reader(file);
        if (reader.readBlock(buffer, mBytes, mBytes) != mBytes) return readFailed(i);
        const RecordFiles files = record_files(i, mMode);
        return mSamples.empty() ? writeCloud(i, files) : writeImages(i, files);
    }

private:
    bool readFailed(std::size_t i) {
        mJob.fail(format::format_line("record %zu of %s cannot be read", i, mJob.file.c_str()));
        return false;
    }
    bool written(bool ok, const std::string& name) {
        if (!ok) mJob.fail(format::format_line("cannot write %s", (mJob.directory / name).c_str()));
        return ok;
    }

    bool writeImages(std::size_t i, const RecordFiles& files) {
        const std::uint64_t timestamp = mLayout.records[i].timestamp;
        std::uint16_t* depth = mSamples.data();
        const std::uint16_t* amplitude = mMode == format::DUMP_DEPTH_AMPLITUDE ? depth + mElements : nullptr;
        if (!written(write_png(mJob.directory / files.depth, cv::Mat(mHeight, mWidth, CV_16UC1, depth)), files.depth))
            return false;
        const auto depthFrame =
            make_record_frame(hs::LumoraFrame::FRAME_DEPTH, hs::DATA_TYPE_UINT16, mWidth, mHeight, timestamp, depth);
        const auto amplitudeFrame = amplitude == nullptr
                                        ? nullptr
                                        : make_record_frame(hs::LumoraFrame::FRAME_AMPLITUDE, hs::DATA_TYPE_UINT16,
                                                            mWidth, mHeight, timestamp, amplitude);
        imaging::convertDepthAmplitude(mConversion, depthFrame, amplitudeFrame, cv::Size(mWidth, mHeight),
                                       cv::Point(0, 0), cv::Point(0, 0), mColour, mGray);
        if (!written(write_png(mJob.directory / files.depthColour, mColour.image), files.depthColour)) return false;
        return amplitude == nullptr ||
               written(write_png(mJob.directory / files.amplitude, mGray.image), files.amplitude);
    }

    bool writeCloud(std::size_t i, const RecordFiles& files) {
        const format::frame_header& header = mLayout.records[i];
        CloudPlanes cloud;
        cloud.x = mPoints.data();
        cloud.y = cloud.x + mElements;
        cloud.z = cloud.y + mElements;
        cloud.intensity = mMode == format::DUMP_INTENSITY_POINTCLOUD ? cloud.z + mElements : nullptr;
        cloud.count = mElements;
        const std::string comment = format::format_line("record %zu of %s, frame_index %u, timestamp %" PRIu64 ", %s",
                                                        i, fs::path(mJob.file).filename().c_str(), header.frame_index,
                                                        header.timestamp, mLayout.cameraName().c_str());
        return written(write_ply(mJob.directory / files.cloud, cloud, comment, mScratch).has_value(), files.cloud);
    }

    Job& mJob;
    const format::DumpLayout& mLayout;
    int mWidth = 0;
    int mHeight = 0;
    std::uint32_t mMode = 0;
    std::size_t mElements = 0;
    std::uint64_t mBytes = 0;
    std::vector<std::uint16_t> mSamples;
    std::vector<float> mPoints;
    imaging::ConversionContext mConversion;
    imaging::WindowImage mColour;
    imaging::WindowImage mGray;
    std::string mScratch;
};

void work(Job& job) {
    const format::File file = format::open_file(job.file, "rb");
    if (!file) {
        job.fail(format::format_line("cannot open %s: %s", job.file.c_str(),
                                     std::generic_category().message(errno).c_str()));
    } else {
        RecordWriter writer(job);
        while (!job.stop.load()) {
            const std::size_t i = job.range.first + job.next.fetch_add(1);
            if (i > job.range.last || !writer.write(file.get(), i)) break;
            job.done.fetch_add(1);
        }
    }
    {
        const std::lock_guard<std::mutex> lock(job.mutex);
        ++job.workersFinished;
    }
    job.finished.notify_all();
}

// Starts up to `workers` threads (at least one runs: the caller, when none can start),
// waits for them, drawing the progress bar when asked.
void run_workers(Job& job, unsigned workers, bool progress, std::FILE* err) {
    std::vector<std::thread> threads;
    for (unsigned k = 0; k < workers; ++k) {
        try {
            threads.emplace_back(work, std::ref(job));
        } catch (const std::system_error&) {
            break;  // the threads started share the records
        }
    }
    if (threads.empty()) work(job);
    const std::size_t total = job.range.last - job.range.first + 1;
    std::unique_ptr<ProgressBar> bar = progress ? std::make_unique<ProgressBar>(err, total) : nullptr;
    {
        std::unique_lock<std::mutex> lock(job.mutex);
        const auto allFinished = [&] { return job.workersFinished >= std::max<std::size_t>(threads.size(), 1); };
        while (!job.finished.wait_for(lock, std::chrono::milliseconds(100), allFinished))
            if (bar) bar->update(job.done.load());
    }
    for (std::thread& thread : threads)
        thread.join();
    if (bar) bar->finish(job.done.load());
}

bool write_index(const fs::path& path, const format::DumpLayout& layout, const RecordRange& range) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << "record,frame_index,timestamp,depth_png,depth_colour_png,amplitude_png,point_cloud_ply\n";
    for (std::size_t i = range.first; i <= range.last; ++i) {
        const RecordFiles files = record_files(i, layout.header.dump_frame_type);
        out << i << ',' << unsigned{layout.records[i].frame_index} << ',' << layout.records[i].timestamp << ','
            << files.depth << ',' << files.depthColour << ',' << files.amplitude << ',' << files.cloud << '\n';
    }
    out.close();
    return !out.fail();
}

// The model's range with the user's bounds over it; nothing (after saying why) when max is
// not above min.
std::optional<imaging::Range> range_of(imaging::Range model, const std::optional<float>& min,
                                       const std::optional<float>& max, const char* name, std::FILE* err) {
    const imaging::Range range{max.value_or(model.first), min.value_or(model.second)};
    if (range.first > range.second) return range;
    std::fprintf(err, "lmr export: the %s range's max (%g) must be above its min (%g)\n", name, range.first,
                 range.second);
    return std::nullopt;
}

}  // namespace

std::optional<RecordRange> parse_record_range(const std::string& text) {
    const char* const begin = text.data();
    const char* const end = begin + text.size();
    RecordRange range;
    const auto first = std::from_chars(begin, end, range.first);
    if (first.ec != std::errc() || first.ptr == begin) return std::nullopt;
    if (first.ptr == end) return RecordRange{range.first, range.first};
    if (*first.ptr != '-') return std::nullopt;
    const auto last = std::from_chars(first.ptr + 1, end, range.last);
    if (last.ec != std::errc() || last.ptr != end || last.ptr == first.ptr + 1 || range.last < range.first)
        return std::nullopt;
    return range;
}

RecordFiles record_files(std::size_t record, unsigned mode) {
    const std::string stem = format::format_line("record_%04zu", record);
    RecordFiles files;
    if (mode <= format::DUMP_DEPTH_AMPLITUDE) {
        files.depth = stem + "_depth.png";
        files.depthColour = stem + "_depth_colour.png";
        if (mode == format::DUMP_DEPTH_AMPLITUDE) files.amplitude = stem + "_amplitude.png";
    } else {
        files.cloud = stem + ".ply";
    }
    return files;
}

ExportStatus export_dump(const ExportOptions& options, std::FILE* err) {
    format::DumpLayout layout;
    {
        const format::File file = format::open_file(options.file, "rb");
        if (!file) {
            std::fprintf(err, "lmr export: cannot open %s: %s\n", options.file.c_str(),
                         std::generic_category().message(errno).c_str());
            return ExportStatus::kUnreadable;
        }
        layout = format::scan_dump(file.get());
    }
    if (layout.problem == format::ScanProblem::kShortHead || layout.problem == format::ScanProblem::kNotADump) {
        std::fprintf(err, "lmr export: %s: %s\n", options.file.c_str(), layout.problemText.c_str());
        return ExportStatus::kUnreadable;
    }
    const std::size_t found = layout.records.size();
    if (layout.problem != format::ScanProblem::kNone)
        std::fprintf(err, "lmr export: %s: %s; only the %zu whole records before it can be exported\n",
                     options.file.c_str(), layout.problemText.c_str(), found);
    if (found == 0) {
        std::fprintf(err, "lmr export: %s holds no whole record\n", options.file.c_str());
        return ExportStatus::kFailed;
    }
    const RecordRange range = options.records.value_or(RecordRange{0, found - 1});
    if (range.last >= found) {
        std::fprintf(err, "lmr export: records %zu-%zu: %s has records 0-%zu\n", range.first, range.last,
                     options.file.c_str(), found - 1);
        return ExportStatus::kFailed;
    }

    const imaging::ModelRanges model = imaging::modelRanges(layout.cameraName());
    const auto depthRange = range_of(model.depth, options.depthMin, options.depthMax, "depth", err);
    const auto grayRange = range_of(model.gray, options.grayMin, options.grayMax, "gray", err);
    if (!depthRange || !grayRange) return ExportStatus::kFailed;
    imaging::initColorMaps();
    imaging::setDepthRange(*depthRange);
    imaging::setGrayRange(*grayRange);

    std::error_code error;
    fs::create_directories(options.directory, error);
    if (error) {
        std::fprintf(err, "lmr export: cannot make the directory %s: %s\n", options.directory.c_str(),
                     error.message().c_str());
        return ExportStatus::kFailed;
    }

    Job job(layout, options.file, options.directory, range);
    const std::size_t total = range.last - range.first + 1;
    run_workers(job, static_cast<unsigned>(std::min<std::size_t>(std::max(options.workers, 1U), total)),
                options.progress, err);
    if (!job.error.empty()) {
        std::fprintf(err, "lmr export: %s\n", job.error.c_str());
        return ExportStatus::kFailed;
    }
    const fs::path index = fs::path(options.directory) / kIndexName;
    if (!write_index(index, layout, range)) {
        std::fprintf(err, "lmr export: cannot write %s\n", index.c_str());
        return ExportStatus::kFailed;
    }
    return ExportStatus::kDone;
}

}  // namespace lumora::lmr
