// The frame dump sink.
//
// Design: the camera library's delivery thread produces: while a dump takes lists it
// pushes a deep copy of each into the 10-deep queue, waiting at most 1 ms for room and
// dropping the copy otherwise, so disk never holds the camera up. The writer thread
// consumes in queue order and writes one record per list. When the count is reached the
// delivery thread only clears the running flag; the writer drains what is queued and ends
// once 100 ms pass without a list. The writer thread is joined (under mWriterMutex, which
// the delivery thread never takes) by the next request, by a camera state of 2 or 0, or by
// the destructor, which also stops the queue. Ending, the writer logs a file that holds
// fewer records than asked for, or that was removed while it was written.
#include "dump/FrameDumpSink.h"

#include <chrono>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <optional>
#include <vector>

#include "DumpListing.h"
#include "dump/DumpWriter.h"
#include "format/DumpFile.h"
#include "format/DumpFormat.h"

namespace lumora::dump {

namespace hs = halden::sensor;
using namespace std::chrono_literals;

std::atomic<std::uint32_t> FrameDumpSink::sFramesTaken{0};

namespace {

constexpr const char* kName = "FrameDumpSink";
constexpr auto kPushWait = 1ms;
constexpr auto kIdleEnd = 100ms;
// More embedded-line failures than this end a dump.
constexpr std::uint32_t kMaxLineFailures = 5;

std::string uri_of(const hs::LumoraSource* source) { return source != nullptr ? source->uri() : std::string(); }

std::int64_t integer_value(const hs::LumoraProperty& property) {
    switch (property.dataType()) {
        case hs::DATA_TYPE_INT8:
            return property.getInt8();
        case hs::DATA_TYPE_UINT8:
            return property.getUInt8();
        case hs::DATA_TYPE_INT16:
            return property.getInt16();
        case hs::DATA_TYPE_UINT16:
            return property.getUInt16();
        case hs::DATA_TYPE_INT32:
            return property.getInt32();
        case hs::DATA_TYPE_UINT32:
            return property.getUInt32();
        case hs::DATA_TYPE_INT64:
            return property.getInt64();
        case hs::DATA_TYPE_UINT64:
            return static_cast<std::int64_t>(property.getUInt64());
        default:
            return 0;
    }
}

std::uint16_t firmware_version(const hs::LumoraCamera& camera) {
    const auto [result, info] = camera.getProperties("fw_info");
    if (result != hs::RESULT_SUCCESS || !info) {
        hs::Log::e(LUMORA_LOG_TAG(kName), "mAttachedCamera->getProperties() fail\n");
        return 0;
    }
    const auto version = info->find("fw_version");
    return version ? static_cast<std::uint16_t>(integer_value(*version)) : 0;
}

void log_write_failure(int error) {
    char text[128];
    hs::Log::e(LUMORA_LOG_TAG(kName), "fail to write file! (%s)\n", strerror_r(error, text, sizeof text));
}

// What one frame list contributes to a file: the header (without its index), the frame
// whose embedded line goes with it, and the data blocks. Views keep their frames alive.
struct Record {
    format::frame_header header{};
    std::shared_ptr<hs::LumoraFrame> lineFrame;
    std::vector<Bytes> blocks;
};

template <typename View>
Record record_of(const View& main, std::uint16_t elementSize) {
    Record record;
    record.header.frame_width = static_cast<std::uint16_t>(main.width());
    record.header.frame_height = static_cast<std::uint16_t>(main.height());
    record.header.frame_data_size = elementSize;
    record.header.timestamp = main.timestamp();
    record.lineFrame = main.frame();
    return record;
}

template <typename View>
Bytes plane_bytes(const View& view, int plane, std::uint16_t elementSize) {
    return {view.plane(plane), view.size() * elementSize};
}

// The record of `list` in dump mode `mode`; none when the list lacks the frame it needs.
std::optional<Record> record_for(std::uint32_t mode, const std::shared_ptr<hs::LumoraFrameList>& list) {
    const std::uint16_t size = format::element_size(mode);
    switch (mode) {
        case format::DUMP_DEPTH:
        case format::DUMP_DEPTH_AMPLITUDE: {
            const auto depth = hs::frame_cast_basic16u(hs::find_frame(list, hs::LumoraFrame::FRAME_DEPTH));
            const auto amplitude = hs::frame_cast_basic16u(hs::find_frame(list, hs::LumoraFrame::FRAME_AMPLITUDE));
            if (!depth || (mode == format::DUMP_DEPTH_AMPLITUDE && !amplitude)) return std::nullopt;
            Record record = record_of(depth, size);
            record.blocks.push_back(plane_bytes(depth, 0, size));
            if (mode == format::DUMP_DEPTH_AMPLITUDE) record.blocks.push_back(plane_bytes(amplitude, 0, size));
            return record;
        }
        case format::DUMP_POINTCLOUD: {
            const auto cloud = hs::frame_cast_pcl32f(hs::find_frame(list, hs::LumoraFrame::FRAME_POINTCLOUD));
            if (!cloud) return std::nullopt;
            Record record = record_of(cloud, size);
            for (int plane = 0; plane < 3; ++plane)
                record.blocks.push_back(plane_bytes(cloud, plane, size));
            return record;
        }
        case format::DUMP_INTENSITY_POINTCLOUD: {
            const auto cloud =
                hs::frame_cast_ipcl32f(hs::find_frame(list, hs::LumoraFrame::FRAME_INTENSITY_POINTCLOUD));
            if (!cloud) return std::nullopt;
            Record record = record_of(cloud, size);
            for (int plane = 0; plane < 4; ++plane)
                record.blocks.push_back(plane_bytes(cloud, plane, size));
            return record;
        }
        default:
            return std::nullopt;
    }
}

}  // namespace

// A writer's first localtime_r would read the zone itself, unguarded against another thread
// asking for local time at that moment.
FrameDumpSink::FrameDumpSink() { tzset(); }

FrameDumpSink::~FrameDumpSink() {
    stopDump();
    mQueue.stop();
}

std::string FrameDumpSink::name() const { return kName; }

void FrameDumpSink::onLumoraCameraPrepared(hs::LumoraCamera* camera) {
    const auto source = camera != nullptr ? camera->source() : nullptr;
    std::printf("%s:%s:%d source(%s)\n", kName, "onLumoraCameraPrepared", __LINE__, uri_of(source.get()).c_str());
    mAttachedCamera = camera;
}

void FrameDumpSink::onLumoraCameraState(hs::LumoraSource* source, hs::LumoraCamera::State state) {
    std::printf("%s:%s:%d source(%s) state = %d\n", kName, "onLumoraCameraState", __LINE__, uri_of(source).c_str(),
                static_cast<int>(state));
    mCameraState.store(state, std::memory_order_relaxed);
    if (state == hs::LumoraCamera::STATE_STOPPED || state == hs::LumoraCamera::STATE_NOT_PREPARED) stopDump();
    if (state == hs::LumoraCamera::STATE_NOT_PREPARED) mAttachedCamera = nullptr;
}

void FrameDumpSink::onLumoraCameraError(hs::LumoraSource* source, hs::Result error) {
    std::printf("%s:%s:%d source(%s) error = %d\n", kName, "onLumoraCameraError", __LINE__, uri_of(source).c_str(),
                static_cast<int>(error));
}

void FrameDumpSink::onLumoraFrameList(hs::LumoraSource* source, const std::shared_ptr<hs::LumoraFrameList>& frameList) {
    if (!mRunning.load()) return;
    if (sFramesTaken.load(std::memory_order_relaxed) < mWantedFrameCount.load(std::memory_order_relaxed)) {
        if (mWriting.load() && mQueue.push({source, hs::copy_frame_list(frameList)}, kPushWait) != hs::RESULT_SUCCESS)
            mDroppedLists.fetch_add(1, std::memory_order_relaxed);
        sFramesTaken.fetch_add(1, std::memory_order_relaxed);
        return;
    }
    std::printf("Frame dump finished!\n");
    mRunning = false;
    hs::LumoraCamera* camera = mAttachedCamera;
    if (camera != nullptr &&
        camera->setProperty(hs::make_property_bool("embedded_data_line", false)) != hs::RESULT_SUCCESS)
        std::printf("Cannot set property embedded_data_line!\n");
}

void FrameDumpSink::requestDump(std::uint32_t frameTypeMask, std::uint32_t mode, std::uint32_t count) {
    hs::LumoraCamera* camera = mAttachedCamera;
    if (camera == nullptr) {
        hs::Log::e(LUMORA_LOG_TAG(kName), "Camera not exist!\n");
        return;
    }
    if (mCameraState.load(std::memory_order_relaxed) != hs::LumoraCamera::STATE_RUNNING) {
        hs::Log::e(LUMORA_LOG_TAG(kName), "Camera is not in running status!\n");
        return;
    }
    // The mask is printed where the text says mode.
    hs::Log::d(LUMORA_LOG_TAG(kName), "dump mode (%d) wanted frame count (%d)\n", static_cast<int>(frameTypeMask),
               static_cast<int>(count));
    if (mode > format::DUMP_INTENSITY_POINTCLOUD) {
        hs::Log::e(LUMORA_LOG_TAG(kName),
                   "Not supported dump mode! [0: Depth only, 1: Depth + Amplitude, 2: Pointcloud, 3: Intensity "
                   "Pointcloud]\n");
        return;
    }
    // 0 passes: the next frame list ends the dump at once.
    if (count > format::kMaxFrameCount) {
        hs::Log::e(LUMORA_LOG_TAG(kName), "Not supported frame count! [1 ~ %d]\n",
                   static_cast<int>(format::kMaxFrameCount));
        return;
    }
    const bool depth = (frameTypeMask & hs::LumoraFrame::FRAME_DEPTH) != 0;
    const bool amplitude = (frameTypeMask & hs::LumoraFrame::FRAME_AMPLITUDE) != 0;
    const bool cloud = (frameTypeMask & hs::LumoraFrame::FRAME_POINTCLOUD) != 0;
    const bool intensityCloud = (frameTypeMask & hs::LumoraFrame::FRAME_INTENSITY_POINTCLOUD) != 0;
    bool served = false;
    switch (mode) {
        case format::DUMP_DEPTH:
            served = depth;
            hs::Log::d(LUMORA_LOG_TAG(kName), "Dump frame ==> Depth only (D)\n");
            break;
        case format::DUMP_DEPTH_AMPLITUDE:
            served = depth && amplitude;
            hs::Log::d(LUMORA_LOG_TAG(kName), "Dump frame ==> Depth + Amplitude (D / A)\n");
            break;
        case format::DUMP_POINTCLOUD:
            // Accepted with intensity clouds alone, although the writer then finds no cloud.
            served = cloud || intensityCloud;
            hs::Log::d(LUMORA_LOG_TAG(kName), "Dump frame ==> Point cloud (X / Y / Z / A)\n");
            break;
        default:
            served = intensityCloud;
            hs::Log::d(LUMORA_LOG_TAG(kName), "Dump frame ==> Point cloud (X / Y / Z / A)\n");
            break;
    }
    if (!served) {
        hs::Log::e(LUMORA_LOG_TAG(kName), "Not support frame dump mode!\n");
        return;
    }

    if (!mRunning.load()) {
        const std::lock_guard<std::mutex> lock(mWriterMutex);
        retireWriter();
    }
    mWantedFrameCount.store(count, std::memory_order_relaxed);
    mDumpMode.store(mode, std::memory_order_relaxed);
    sFramesTaken.store(0, std::memory_order_relaxed);
    mDroppedLists.store(0, std::memory_order_relaxed);
    const bool line = camera->setProperty(hs::make_property_bool("embedded_data_line", true)) == hs::RESULT_SUCCESS;
    mEmbeddedLineControl.store(line ? 1 : 0, std::memory_order_relaxed);
    // The camera is not called with the lock held: its state callbacks take the lock.
    const std::lock_guard<std::mutex> lock(mWriterMutex);
    if (mRunning.load()) return;
    // A dump that ended since the check above still has its writer.
    if (mWriter.joinable()) mWriter.join();
    mRunning = true;
    mWriting = true;
    mWriter = std::thread(writerMain, this);
}

void FrameDumpSink::stopDump() {
    mRunning = false;
    const std::lock_guard<std::mutex> lock(mWriterMutex);
    if (mWriter.joinable()) mWriter.join();
}

void FrameDumpSink::retireWriter() {
    if (mWriter.joinable()) mWriter.join();
    // Lists queued after a writer gave up belong to no file.
    drainQueue();
}

void FrameDumpSink::drainQueue() {
    while (mQueue.pop(std::chrono::steady_clock::duration::zero()).first == hs::RESULT_SUCCESS) {
    }
}

void FrameDumpSink::writerMain(FrameDumpSink* sink) {
    // However the writer ends, the capture stops copying and the copies it left are freed
    // now rather than at the next request.
    struct Ending {
        explicit Ending(FrameDumpSink* owner) : sink(owner) {}
        ~Ending() {
            sink->mWriting = false;
            sink->drainQueue();
        }
        Ending(const Ending&) = delete;
        Ending& operator=(const Ending&) = delete;
        FrameDumpSink* sink;
    } ending{sink};
    hs::LumoraCamera* camera = sink->mAttachedCamera;
    if (camera == nullptr) {
        hs::Log::e(LUMORA_LOG_TAG(kName), "Camera not exist!\n");
        return;
    }
    const auto source = camera->source();
    const std::string uri = source ? source->uri() : std::string();
    const auto sourceType = format::source_type_of(uri);
    if (!sourceType) {
        hs::Log::e(LUMORA_LOG_TAG(kName), "Camera source has no URI!\n");
        return;
    }
    const std::string name = source->name();
    const std::string serialNumber = source->serialNumber();
    const std::time_t now = std::time(nullptr);
    std::tm local{};
    localtime_r(&now, &local);
    const std::string fileName = format::dump_file_name(name, serialNumber, local);
    std::optional<DumpWriter> file(std::in_place, fileName);
    if (!file->isOpen()) {
        hs::Log::e(LUMORA_LOG_TAG(kName), "fail to open file!\n");
        return;
    }

    const std::uint8_t lineControl = sink->mEmbeddedLineControl.load(std::memory_order_relaxed);
    const format::dump_header header{
        format::kSyncByte, lineControl,
        static_cast<std::uint16_t>(sink->mWantedFrameCount.load(std::memory_order_relaxed)),
        static_cast<std::uint16_t>(sink->mDumpMode.load(std::memory_order_relaxed))};
    format::source_descriptor sourceDescriptor{format::kSourceDescriptorTag, {}};
    format::fill_text_field(sourceDescriptor.source_type, *sourceType);
    format::camera_descriptor cameraDescriptor{format::kCameraDescriptorTag, firmware_version(*camera), {}, {}, {}};
    format::fill_text_field(cameraDescriptor.sdk_version, hs::last_released_version());
    format::fill_text_field(cameraDescriptor.serial_number, serialNumber);
    format::fill_text_field(cameraDescriptor.camera_name, name);
    if (file->writeHead(header, sourceDescriptor, cameraDescriptor) != hs::RESULT_SUCCESS) {
        log_write_failure(file->lastError());
        return;
    }

    const Written written = sink->writeRecords(*file, lineControl);
    const bool removed = file->removed();
    file.reset();
    // This fixed name, not the dump's own file.
    if (written.end == WriterEnd::kGaveUp && std::remove("framedump.lmr") != 0)
        hs::Log::e(LUMORA_LOG_TAG(kName), "fail to remove file!\n");
    if (removed) hs::Log::e(LUMORA_LOG_TAG(kName), "%s was removed while it was written!\n", fileName.c_str());
    const std::uint32_t wanted = sink->mWantedFrameCount.load(std::memory_order_relaxed);
    if (written.records < wanted)
        hs::Log::e(LUMORA_LOG_TAG(kName), "%s holds %u of the %u frames asked for\n", fileName.c_str(), written.records,
                   wanted);
    // So that a dump short of records says why. Lists taken after the writer ended (no list
    // for 100 ms) are in no file.
    hs::Log::i(LUMORA_LOG_TAG(kName),
               "dump of %u lists, %u taken when the writer ended: %u records written, %u lists dropped at the "
               "queue, %u without the mode's frame, %u without an embedded line\n",
               wanted, sFramesTaken.load(std::memory_order_relaxed), written.records,
               sink->mDroppedLists.load(std::memory_order_relaxed), written.withoutFrame, written.lineFailures);
}

FrameDumpSink::Written FrameDumpSink::writeRecords(DumpWriter& file, std::uint8_t lineControl) {
    std::uint8_t index = 0;
    Written written{WriterEnd::kIdle, 0, 0, 0};
    for (;;) {
        auto [status, entry] = mQueue.pop(kIdleEnd);
        if (status != hs::RESULT_SUCCESS) return written;
        if (written.lineFailures > kMaxLineFailures) {
            written.end = WriterEnd::kGaveUp;
            return written;
        }
        const std::uint32_t mode = mDumpMode.load(std::memory_order_relaxed);
        std::optional<Record> record = record_for(mode, std::get<1>(entry));
        if (!record) {
            if (written.withoutFrame++ == 0)
                hs::Log::e(LUMORA_LOG_TAG(kName), "No frame for this dump mode in the frame list! Let's skip!\n");
            ++index;
            continue;
        }
        Bytes line{nullptr, 0};
        std::shared_ptr<hs::LumoraProperty> lineProperty;
        if (lineControl == 1) {
            hs::Result found = hs::RESULT_FAIL;
            std::tie(found, lineProperty) = record->lineFrame->getProperty("embedded_data_line");
            if (found != hs::RESULT_SUCCESS || !lineProperty) {
                hs::Log::e(LUMORA_LOG_TAG(kName),
                           mode == format::DUMP_DEPTH
                               ? "Cannot get embedded data line in this time! Let's skip!\n"
                               : "Something wrong.. cannot get embedded data line in this time! Let's skip!\n");
                ++written.lineFailures;
                continue;
            }
            line = {lineProperty->data(), lineProperty->size()};
        }
        record->header.frame_index = index;
        if (file.writeRecord(record->header, line, record->blocks) != hs::RESULT_SUCCESS) {
            log_write_failure(file.lastError());
            written.end = WriterEnd::kWriteFailed;
            return written;
        }
        ++written.records;
        ++index;
    }
}

void FrameDumpSink::inspectDumpFile(const std::string& path) {
    if (path.empty()) return;
    const format::File file = format::open_file(path, "rb");
    if (!file) {
        hs::Log::e(LUMORA_LOG_TAG(kName), "fail to open file!\n");
        return;
    }
    inspect_dump(file.get(), stdout);
}

}  // namespace lumora::dump
