// Threads of a camera:
// - Delivery: started by run(), ended and joined by stop() (or by unplug and close). It
//   sleeps to each frame's absolute deadline, renders into a pooled frame list and hands
//   the list to every sink in turn. It reads settings and sinks under mMutex, never holds a
//   lock while calling a sink, and is only ever joined with mControl held, so a sink that
//   sets a property from its frame callback cannot deadlock a concurrent stop().
//   A replay device's delivery thread plays its file the same way, each record due its
//   recorded interval after the one before.
// - Events (mEvents): state and error callbacks in the order the life cycle produced them,
//   one at a time. Posting never waits, so sinks may block in their state callbacks
//   (joining threads of their own) while the camera's operations go on. close() drains the
//   queue, so no sink hears of the camera after destroy_camera().
#include "SimCamera.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>

#include <pthread.h>

#include "Registry.h"

namespace halden::sensor::sim {

namespace {

constexpr std::uint32_t kAllFrameTypes = LumoraFrame::FRAME_DEPTH | LumoraFrame::FRAME_AMPLITUDE |
                                         LumoraFrame::FRAME_POINTCLOUD | LumoraFrame::FRAME_INTENSITY_POINTCLOUD;
constexpr std::size_t kPoolLimit = 8;
constexpr int kFirmwareVersion = 0x0312;

std::string serial_for(int number, const std::string& model) {
    std::uint32_t hash = 2166136261U;  // FNV-1a: stable across runs and machines
    for (const char c : model)
        hash = (hash ^ static_cast<unsigned char>(c)) * 16777619U;
    char text[32];
    std::snprintf(text, sizeof text, "LM%06X%04d", hash & 0xFFFFFFU, number % 10000);
    return text;
}

Result read_flag(const LumoraProperty& property, bool& out) {
    if (property.dataType() == DATA_TYPE_STRING) {
        const std::string text = property.getString("");
        if (text == "on" || text == "true") {
            out = true;
        } else if (text == "off" || text == "false") {
            out = false;
        } else {
            return RESULT_INVALID_PARAMETER;
        }
        return RESULT_SUCCESS;
    }
    double value = 0.0;
    if (!numeric_value(&property, value)) return RESULT_INVALID_PARAMETER;
    if (value != 0.0 && value != 1.0) return RESULT_OUT_OF_RANGE;
    out = value == 1.0;
    return RESULT_SUCCESS;
}

Result read_data_type(const LumoraProperty& property, DataType& out) {
    int code = 0;
    const Result result = integer_value(property, 0, 13, code);
    if (result != RESULT_SUCCESS) return result;
    if (code != DATA_TYPE_UINT16 && code != DATA_TYPE_FLOAT32) return RESULT_OUT_OF_RANGE;
    out = static_cast<DataType>(code);
    return RESULT_SUCCESS;
}

bool read_only_key(const std::string& key) {
    return key == "model" || key == "serial_number" || key == "width" || key == "height" || key == "temperature" ||
           key == "fw_version";
}

// Applies one writable key to a copy of the settings; the caller checks the range order.
Result assign(const LumoraProperty& property, double maxFps, SceneSettings& settings) {
    const std::string key = property.key();
    if (key == "amplitude_threshold") return integer_value(property, 0, 65535, settings.amplitudeThreshold);
    if (key == "depth_range_min") return integer_value(property, 0, 65535, settings.rangeMin);
    if (key == "depth_range_max") return integer_value(property, 0, 65535, settings.rangeMax);
    if (key == "illumination") return read_flag(property, settings.illumination);
    if (key == "embedded_data_line") return read_flag(property, settings.embeddedDataLine);
    if (key == "depth_data_type") return read_data_type(property, settings.basicDataType);
    if (key == "pointcloud_data_type") return read_data_type(property, settings.pointCloudDataType);
    if (key == "framerate") {
        double fps = 0.0;
        if (property.dataType() == DATA_TYPE_BOOL || !numeric_value(&property, fps)) return RESULT_INVALID_PARAMETER;
        if (fps < 1.0 || fps > maxFps) return RESULT_OUT_OF_RANGE;
        settings.fps = fps;
        return RESULT_SUCCESS;
    }
    return read_only_key(key) ? RESULT_INVALID_OPERATION : RESULT_NOT_SUPPORTED;
}

std::shared_ptr<LumoraProperties> firmware_info(const DeviceConfig& device, int firmwareVersion) {
    auto info = std::make_shared<SimProperties>("fw_info");
    info->add(SimProperty::makeInt32("fw_version", firmwareVersion, true));
    info->add(SimProperty::makeString("fw_build_date", "2026-09-14", true));
    info->add(SimProperty::makeString("hw_revision", "B2", true));
    info->add(SimProperty::makeString(
        "sensor", "LMS" + std::to_string(device.width) + "x" + std::to_string(device.height), true));
    return info;
}

}  // namespace

SimSource::SimSource(int number, DeviceConfig device, std::optional<RecordingInfo> recording)
    : mNumber(number),
      mDevice(std::move(device)),
      mRecording(std::move(recording)),
      mSerialNumber(mRecording ? mRecording->serialNumber : serial_for(number, mDevice.model)),
      mUri((mRecording ? "replay:" : "sim:") + std::to_string(number)) {
    if (mRecording) {
        mDevice.model = mRecording->name;
        mDevice.width = mRecording->width;
        mDevice.height = mRecording->height;
        mDevice.fps = mRecording->fps;
    }
}

SimCamera::SimCamera(std::shared_ptr<SimSource> source, std::shared_ptr<const Recording> recording)
    : mSource(std::move(source)),
      mModel(model_info(mSource->device().model)),
      mOpened(std::chrono::steady_clock::now()),
      mRecording(std::move(recording)),
      mLenses(Scene::lensesOf(mSource->device(), mModel)),
      mScene(mRecording ? nullptr : std::make_unique<Scene>(mSource->device(), mModel)) {
    mSettings.fps = mSource->device().fps;
    mSettings.rangeMin = mModel.rangeMin;
    mSettings.rangeMax = mModel.rangeMax;
    mSettings.embeddedDataLine = mRecording && mRecording->info().embeddedLines;
}

SimCamera::~SimCamera() { close(); }

LumoraCamera::State SimCamera::state() const {
    std::lock_guard<std::mutex> lock(mMutex);
    return mState;
}

int SimCamera::firmwareVersion() const { return mRecording ? mRecording->info().firmwareVersion : kFirmwareVersion; }

Result SimCamera::usable() const {
    if (mClosed) return RESULT_INVALID_OPERATION;
    if (mUnplugged) return RESULT_NO_SUCH_DEVICE;
    return RESULT_SUCCESS;
}

template <typename T>
static Result lens_value(const std::vector<LensCalibration>& lenses, int lens, T LensCalibration::*field, T& out) {
    if (lens < 0 || static_cast<std::size_t>(lens) >= lenses.size()) return RESULT_OUT_OF_RANGE;
    out = lenses[static_cast<std::size_t>(lens)].*field;
    return RESULT_SUCCESS;
}

Result SimCamera::getDistortionCoefficients(int lens, DistortionCoefficients& out) const {
    return lens_value(mLenses, lens, &LensCalibration::distortion, out);
}

Result SimCamera::getIntrinsicParameters(int lens, IntrinsicParameters& out) const {
    return lens_value(mLenses, lens, &LensCalibration::intrinsics, out);
}

Result SimCamera::getExtrinsicParameters(int lens, ExtrinsicParameters& out) const {
    return lens_value(mLenses, lens, &LensCalibration::extrinsics, out);
}

Result SimCamera::getFieldOfView(int lens, FieldOfView& out) const {
    return lens_value(mLenses, lens, &LensCalibration::fov, out);
}

std::uint32_t SimCamera::supportedFrameTypes() const {
    return mRecording ? mRecording->info().frameTypes() : kAllFrameTypes;
}

std::uint32_t SimCamera::wantedFrame() const {
    std::lock_guard<std::mutex> lock(mMutex);
    return mWanted;
}

std::vector<LumoraSink*> SimCamera::sinks() const {
    std::lock_guard<std::mutex> lock(mMutex);
    return mSinks;
}

void SimCamera::postState(State state, bool prepared) {
    mEvents.post([this, state, prepared] {
        if (prepared) {
            for (auto* listener : Registry::instance().preparedListeners())
                listener->onLumoraCameraPrepared(this);
        }
        for (auto* sink : sinks())
            sink->onLumoraCameraState(mSource.get(), state);
    });
}

void SimCamera::postError(Result error) {
    mEvents.post([this, error] {
        for (auto* sink : sinks())
            sink->onLumoraCameraError(mSource.get(), error);
    });
}

Result SimCamera::prepare() {
    std::lock_guard<std::mutex> control(mControl);
    std::lock_guard<std::mutex> lock(mMutex);
    if (const Result result = usable(); result != RESULT_SUCCESS) return result;
    if (mState != STATE_NOT_PREPARED) return RESULT_ALREADY_INITIALIZED;
    mState = STATE_PREPARED;
    postState(STATE_PREPARED, true);
    return RESULT_SUCCESS;
}

Result SimCamera::run(int wantedFrame) {
    if (onDeliveryThread()) return RESULT_INVALID_OPERATION;
    std::lock_guard<std::mutex> control(mControl);
    {
        std::lock_guard<std::mutex> lock(mMutex);
        if (const Result result = usable(); result != RESULT_SUCCESS) return result;
        if (mState == STATE_NOT_PREPARED) return RESULT_NOT_READY;
        if (mState == STATE_RUNNING) return RESULT_ALREADY_RUNNING;
        if (wantedFrame <= 0 || (static_cast<std::uint32_t>(wantedFrame) & ~supportedFrameTypes()) != 0) {
            return RESULT_INVALID_PARAMETER;
        }
        mWanted = static_cast<std::uint32_t>(wantedFrame);
        mStopDelivery = false;
        mState = STATE_RUNNING;
        postState(STATE_RUNNING);
    }
    mDelivery = std::thread([this] {
        pthread_setname_np(pthread_self(), "lumora-delivery");
        mRecording ? play() : deliver();
    });
    return RESULT_SUCCESS;
}

Result SimCamera::stop() {
    if (onDeliveryThread()) return RESULT_INVALID_OPERATION;
    std::unique_lock<std::mutex> control(mControl);
    {
        std::lock_guard<std::mutex> lock(mMutex);
        if (const Result result = usable(); result != RESULT_SUCCESS) return result;
        if (mState == STATE_NOT_PREPARED) return RESULT_NOT_READY;
        if (mState != STATE_RUNNING) return RESULT_INVALID_OPERATION;
    }
    return stopLocked(control);
}

Result SimCamera::stopLocked(std::unique_lock<std::mutex>& /*control*/) {
    {
        std::lock_guard<std::mutex> lock(mMutex);
        mStopDelivery = true;
    }
    mWake.notify_all();
    if (mDelivery.joinable()) mDelivery.join();
    std::lock_guard<std::mutex> lock(mMutex);
    mDeliveryId = std::thread::id();
    mState = STATE_STOPPED;
    postState(STATE_STOPPED);
    return RESULT_SUCCESS;
}

void SimCamera::shutDownLocked(std::unique_lock<std::mutex>& control) {
    bool running = false;
    {
        std::lock_guard<std::mutex> lock(mMutex);
        running = mState == STATE_RUNNING;
    }
    if (running) stopLocked(control);
    std::lock_guard<std::mutex> lock(mMutex);
    if (mState != STATE_NOT_PREPARED) {
        mState = STATE_NOT_PREPARED;
        postState(STATE_NOT_PREPARED);
    }
}

Result SimCamera::release() {
    if (onDeliveryThread()) return RESULT_INVALID_OPERATION;
    std::lock_guard<std::mutex> control(mControl);
    std::lock_guard<std::mutex> lock(mMutex);
    if (const Result result = usable(); result != RESULT_SUCCESS) return result;
    if (mState == STATE_NOT_PREPARED) return RESULT_NOT_READY;
    if (mState == STATE_RUNNING) return RESULT_USING_RESOURCES;
    mState = STATE_NOT_PREPARED;
    postState(STATE_NOT_PREPARED);
    return RESULT_SUCCESS;
}

Result SimCamera::close() {
    if (onDeliveryThread() || mEvents.onWorkerThread()) return RESULT_INVALID_OPERATION;
    std::unique_lock<std::mutex> control(mControl);
    {
        std::lock_guard<std::mutex> lock(mMutex);
        if (mClosed) return RESULT_INVALID_OPERATION;
    }
    shutDownLocked(control);
    {
        std::lock_guard<std::mutex> lock(mMutex);
        mClosed = true;
    }
    // Drain without the life-cycle lock: a state callback that calls an operation then gets
    // RESULT_INVALID_OPERATION instead of waiting for this thread, which waits for it.
    control.unlock();
    mEvents.shutdown();
    std::lock_guard<std::mutex> lock(mMutex);
    mSinks.clear();
    mInjected.clear();
    return RESULT_SUCCESS;
}

bool SimCamera::isClosed() const {
    std::lock_guard<std::mutex> lock(mMutex);
    return mClosed;
}

void SimCamera::unplug() {
    std::unique_lock<std::mutex> control(mControl);
    {
        std::lock_guard<std::mutex> lock(mMutex);
        if (mClosed || mUnplugged) return;
        if (mState == STATE_RUNNING) postError(RESULT_NO_SUCH_DEVICE);
    }
    shutDownLocked(control);
    std::lock_guard<std::mutex> lock(mMutex);
    mUnplugged = true;
}

Result SimCamera::injectFrameList(std::shared_ptr<LumoraFrameList> list) {
    if (!list) return RESULT_INVALID_PARAMETER;
    std::lock_guard<std::mutex> lock(mMutex);
    if (const Result result = usable(); result != RESULT_SUCCESS) return result;
    if (mState != STATE_RUNNING) return RESULT_NOT_READY;
    mInjected.push_back(std::move(list));
    return RESULT_SUCCESS;
}

Result SimCamera::injectError(Result error) {
    std::lock_guard<std::mutex> lock(mMutex);
    if (const Result result = usable(); result != RESULT_SUCCESS) return result;
    postError(error);
    return RESULT_SUCCESS;
}

Result SimCamera::setProperty(const std::shared_ptr<LumoraProperty>& property) {
    if (!property) return RESULT_INVALID_PARAMETER;
    std::lock_guard<std::mutex> lock(mMutex);
    if (const Result result = usable(); result != RESULT_SUCCESS) return result;
    SceneSettings settings = mSettings;
    const Result result = assign(*property, std::max(60.0, mSource->device().fps), settings);
    if (result != RESULT_SUCCESS) return result;
    if (settings.rangeMin >= settings.rangeMax) return RESULT_OUT_OF_RANGE;
    if (const Result refused = recordingRefuses(settings); refused != RESULT_SUCCESS) return refused;
    mSettings = settings;
    mWake.notify_all();  // a new frame rate moves the next deadline
    return RESULT_SUCCESS;
}

Result SimCamera::setProperties(const std::shared_ptr<LumoraProperties>& properties) {
    if (!properties) return RESULT_INVALID_PARAMETER;
    std::lock_guard<std::mutex> lock(mMutex);
    if (const Result result = usable(); result != RESULT_SUCCESS) return result;
    SceneSettings settings = mSettings;
    for (std::size_t i = 0; i < properties->size(); ++i) {
        const auto property = properties->at(i);
        if (!property) return RESULT_INVALID_PARAMETER;
        const Result result = assign(*property, std::max(60.0, mSource->device().fps), settings);
        if (result != RESULT_SUCCESS) return result;
    }
    if (settings.rangeMin >= settings.rangeMax) return RESULT_OUT_OF_RANGE;
    if (const Result refused = recordingRefuses(settings); refused != RESULT_SUCCESS) return refused;
    mSettings = settings;
    mWake.notify_all();  // a new frame rate moves the next deadline
    return RESULT_SUCCESS;
}

std::tuple<Result, std::shared_ptr<LumoraProperty>> SimCamera::getProperty(const std::string& key) const {
    std::lock_guard<std::mutex> lock(mMutex);
    if (const Result result = usable(); result != RESULT_SUCCESS) return {result, nullptr};
    const SceneSettings& s = mSettings;
    const DeviceConfig& device = mSource->device();
    std::shared_ptr<LumoraProperty> property;
    if (key == "amplitude_threshold") {
        property = SimProperty::makeInt32(key, s.amplitudeThreshold);
    } else if (key == "framerate") {
        property = SimProperty::makeFloat64(key, s.fps);
    } else if (key == "depth_range_min") {
        property = SimProperty::makeInt32(key, s.rangeMin);
    } else if (key == "depth_range_max") {
        property = SimProperty::makeInt32(key, s.rangeMax);
    } else if (key == "illumination") {
        property = SimProperty::makeBool(key, s.illumination);
    } else if (key == "embedded_data_line") {
        property = SimProperty::makeBool(key, s.embeddedDataLine);
    } else if (key == "depth_data_type") {
        property = SimProperty::makeInt32(key, static_cast<std::int32_t>(s.basicDataType));
    } else if (key == "pointcloud_data_type") {
        property = SimProperty::makeInt32(key, static_cast<std::int32_t>(s.pointCloudDataType));
    } else if (key == "model") {
        property = SimProperty::makeString(key, device.model, true);
    } else if (key == "serial_number") {
        property = SimProperty::makeString(key, mSource->serialNumber(), true);
    } else if (key == "width") {
        property = SimProperty::makeInt32(key, device.width, true);
    } else if (key == "height") {
        property = SimProperty::makeInt32(key, device.height, true);
    } else if (key == "fw_version") {
        property = SimProperty::makeInt32(key, firmwareVersion(), true);
    } else if (key == "temperature") {
        const std::chrono::duration<double> up = std::chrono::steady_clock::now() - mOpened;
        property = SimProperty::makeFloat32(key, static_cast<float>(Scene::temperatureAt(up.count())), true);
    } else {
        return {RESULT_NOT_SUPPORTED, nullptr};
    }
    return {RESULT_SUCCESS, property};
}

std::tuple<Result, std::shared_ptr<LumoraProperties>> SimCamera::getProperties(const std::string& name) const {
    {
        std::lock_guard<std::mutex> lock(mMutex);
        if (const Result result = usable(); result != RESULT_SUCCESS) return {result, nullptr};
    }
    if (name == "fw_info") return {RESULT_SUCCESS, firmware_info(mSource->device(), firmwareVersion())};
    if (name != "settings" && name != "device_info") return {RESULT_NOT_SUPPORTED, nullptr};
    static const char* const settingKeys[] = {"amplitude_threshold", "framerate",           "depth_range_min",
                                              "depth_range_max",     "illumination",        "embedded_data_line",
                                              "depth_data_type",     "pointcloud_data_type"};
    static const char* const deviceKeys[] = {"model", "serial_number", "width", "height", "temperature"};
    auto collection = std::make_shared<SimProperties>(name);
    auto addAll = [&](const auto& keys) {
        for (const char* key : keys)
            collection->add(std::get<1>(getProperty(key)));
    };
    if (name == "settings") {
        addAll(settingKeys);
    } else {
        addAll(deviceKeys);
    }
    return {RESULT_SUCCESS, collection};
}

Result SimCamera::addSink(LumoraSink* sink) {
    if (sink == nullptr) return RESULT_INVALID_PARAMETER;
    std::lock_guard<std::mutex> lock(mMutex);
    if (const Result result = usable(); result != RESULT_SUCCESS) return result;
    for (auto* existing : mSinks) {
        if (existing == sink) return RESULT_ALREADY_EXISTS;
    }
    mSinks.push_back(sink);
    return RESULT_SUCCESS;
}

Result SimCamera::removeSink(LumoraSink* sink) {
    std::lock_guard<std::mutex> lock(mMutex);
    for (auto it = mSinks.begin(); it != mSinks.end(); ++it) {
        if (*it == sink) {
            mSinks.erase(it);
            return RESULT_SUCCESS;
        }
    }
    return RESULT_NOT_FOUND;
}

std::uint64_t SimCamera::microsecondsSinceOpen(std::chrono::steady_clock::time_point when) const {
    return static_cast<std::uint64_t>(std::chrono::duration_cast<std::chrono::microseconds>(when - mOpened).count());
}

// A pooled list that no sink still holds, so steady delivery allocates nothing. The pool
// is rebuilt when the wanted types or data types change.
std::shared_ptr<SimFrameList> SimCamera::acquireList(std::uint32_t mask, const SceneSettings& settings) {
    auto matches = [&](const SimFrameList& list) {
        std::uint32_t types = 0;
        for (const auto& frame : list.frames()) {
            if (frame->dataType() != settings.dataTypeOf(frame->frameType())) return false;
            types |= frame->frameType();
        }
        return types == mask;
    };
    if (!mPool.empty() && !matches(*mPool.front())) mPool.clear();
    for (const auto& list : mPool) {
        if (list->unshared(list)) {
            // The count is read relaxed; the fence orders the sinks' last reads of the
            // list (published by their releasing decrement) before our rewriting of it.
            // ThreadSanitizer does not model fences and g++ refuses them under it.
#ifndef __SANITIZE_THREAD__
            std::atomic_thread_fence(std::memory_order_acquire);
#endif
            return list;
        }
    }
    auto list = Scene::makeList(mask, settings, mSource->device().width, mSource->device().height);
    if (mPool.size() < kPoolLimit) mPool.push_back(list);
    return list;
}

// Each list is rendered ahead, right after the one before was delivered, so that the
// sinks receive it at its deadline whatever the rendering costs.
void SimCamera::deliver() {
    using Clock = std::chrono::steady_clock;
    mDeliveryId = std::this_thread::get_id();
    std::unique_lock<std::mutex> lock(mMutex);
    Clock::time_point base = Clock::now();
    double fps = mSettings.fps;
    std::uint64_t tick = 0;  // deadlines since base
    std::uint32_t firstFrame = mNextFrameNumber;
    std::shared_ptr<LumoraFrameList> ahead;
    while (!mStopDelivery) {
        if (mSettings.fps != fps) {  // a new rate counts from the last deadline
            base += std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(tick / fps));
            firstFrame += static_cast<std::uint32_t>(tick);
            tick = 0;
            fps = mSettings.fps;
            ahead.reset();
        }
        const auto period = std::chrono::duration<double>(1.0 / fps);
        const auto deadline =
            base + std::chrono::duration_cast<Clock::duration>(period * static_cast<double>(tick + 1));
        const std::uint32_t frameNumber = firstFrame + static_cast<std::uint32_t>(tick);
        if (!ahead) {
            const SceneSettings settings = mSettings;
            const std::uint32_t mask = mWanted;
            lock.unlock();
            auto pooled = acquireList(mask, settings);
            mScene->render(frameNumber, microsecondsSinceOpen(deadline), settings, *pooled);
            ahead = std::move(pooled);
            lock.lock();
            continue;  // the rate may have changed meanwhile
        }
        if (mWake.wait_until(lock, deadline, [this, fps] { return mStopDelivery || mSettings.fps != fps; })) continue;
        ++tick;
        mNextFrameNumber = frameNumber + 1;
        handOver(std::move(ahead), lock);

        // A sensor that was not read out in time has dropped the frames in between.
        const auto late = Clock::now() - deadline;
        if (late > period) tick += static_cast<std::uint64_t>(late / period);
    }
}

void SimCamera::handOver(std::shared_ptr<LumoraFrameList> list, std::unique_lock<std::mutex>& lock) {
    mDeliverySinks = mSinks;
    if (!mInjected.empty()) {
        list = std::move(mInjected.front());
        mInjected.pop_front();
    }
    lock.unlock();
    for (auto* sink : mDeliverySinks)
        sink->onLumoraFrameList(mSource.get(), list);
    list.reset();
    lock.lock();
}

// Records are copied ahead, like rendered frames, and the camera's frame counter picks the
// record, so a new run goes on where the last one stopped.
void SimCamera::play() {
    using Clock = std::chrono::steady_clock;
    mDeliveryId = std::this_thread::get_id();
    std::unique_lock<std::mutex> lock(mMutex);
    Clock::time_point last = Clock::now();
    std::shared_ptr<LumoraFrameList> ahead;
    while (!mStopDelivery) {
        const std::uint32_t frameNumber = mNextFrameNumber;
        const std::size_t record = frameNumber % mRecording->size();
        if (!ahead) {
            const SceneSettings settings = mSettings;
            const std::uint32_t mask = mWanted;
            lock.unlock();
            auto pooled = acquireList(mask, settings);
            fillFromRecording(record, frameNumber, settings.embeddedDataLine, *pooled);
            ahead = std::move(pooled);
            lock.lock();
            continue;
        }
        const Clock::time_point deadline = last + mRecording->intervalBefore(record);
        if (mWake.wait_until(lock, deadline, [this] { return mStopDelivery; })) continue;
        mNextFrameNumber = frameNumber + 1;
        handOver(std::move(ahead), lock);
        // A player that fell behind goes on from now rather than rushing through the records.
        const Clock::time_point now = Clock::now();
        last = now - deadline > mRecording->intervalBefore(0) ? now : deadline;
    }
}

void SimCamera::fillFromRecording(std::size_t record, std::uint32_t frameNumber, bool withLine,
                                  SimFrameList& list) const {
    const std::uint8_t* blocks = mRecording->blocks(record);
    const std::uint8_t* line = withLine ? mRecording->line(record) : nullptr;
    const auto lineBytes = static_cast<std::size_t>(mSource->device().width);
    for (const auto& frame : list.frames()) {
        // A point cloud's planes are the record's blocks in order; amplitude follows depth.
        const std::size_t first = frame->frameType() == LumoraFrame::FRAME_AMPLITUDE ? 1 : 0;
        std::memcpy(frame->mutableData(), blocks + first * mRecording->blockBytes(), frame->byteSize());
        if (line == nullptr) {
            frame->removeProperty(embedded_line_key());
            continue;
        }
        std::memcpy(frame->embeddedLine(lineBytes), line, lineBytes);
    }
    list.stamp(frameNumber, mRecording->timestamp(record));
}

Result SimCamera::recordingRefuses(const SceneSettings& settings) const {
    if (!mRecording) return RESULT_SUCCESS;
    const SceneSettings& now = mSettings;
    if (settings.amplitudeThreshold != now.amplitudeThreshold || settings.fps != now.fps ||
        settings.rangeMin != now.rangeMin || settings.rangeMax != now.rangeMax ||
        settings.illumination != now.illumination || settings.basicDataType != now.basicDataType ||
        settings.pointCloudDataType != now.pointCloudDataType) {
        return RESULT_INVALID_OPERATION;
    }
    if (settings.embeddedDataLine && !mRecording->info().embeddedLines) return RESULT_NOT_SUPPORTED;
    return RESULT_SUCCESS;
}

}  // namespace halden::sensor::sim
