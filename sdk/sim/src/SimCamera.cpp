// A simulated camera's life cycle, calibration, settings and sinks. Its delivery thread is
// in Delivery.cpp, with the note on the camera's threads; what tests inject, in
// FaultInjection.cpp.
#include "SimCamera.h"

#include <cstdio>
#include <utility>

#include "Registry.h"

namespace halden::sensor::sim {

namespace {

constexpr int kFirmwareVersion = 0x0312;

std::string serial_for(int number, const std::string& model) {
    std::uint32_t hash = 2166136261U;  // FNV-1a: stable across runs and machines
    for (const char c : model)
        hash = (hash ^ static_cast<unsigned char>(c)) * 16777619U;
    char text[32];
    std::snprintf(text, sizeof text, "LM%06X%04d", hash & 0xFFFFFFU, number % 10000);
    return text;
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

SimCamera::SimCamera(std::shared_ptr<SimSource> source, const std::shared_ptr<const Recording>& recording)
    : mSource(std::move(source)),
      mModel(model_info(mSource->device().model)),
      mOpened(std::chrono::steady_clock::now()),
      mFirmwareVersion(recording ? recording->info().firmwareVersion : kFirmwareVersion),
      mLenses(Scene::lensesOf(mSource->device(), mModel)),
      mFrames(recording ? make_recording_source(recording) : make_scene_source(mSource->device(), mModel)) {
    mSettings.fps = mSource->device().fps;
    mSettings.rangeMin = mModel.rangeMin;
    mSettings.rangeMax = mModel.rangeMax;
    mSettings.embeddedDataLine = recording && recording->info().embeddedLines;
}

SimCamera::~SimCamera() { close(); }

LumoraCamera::State SimCamera::state() const {
    std::lock_guard<std::mutex> lock(mMutex);
    return mState;
}

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

std::uint32_t SimCamera::supportedFrameTypes() const { return mFrames->frameTypes(); }

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
        mState = STATE_RUNNING;
        postState(STATE_RUNNING);
    }
    startDelivery();
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
    endDelivery();
    std::lock_guard<std::mutex> lock(mMutex);
    forgetFaults();  // a fault is meant for the run it was injected into
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
    mListFaults.clear();
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

template <typename At>
Result SimCamera::changeSettings(std::size_t count, const At& at) {
    std::unique_lock<std::mutex> lock(mMutex);
    // As a library that attaches the line at delivery: the next list handed over after this
    // returns has the new settings, so a hand-over under way is waited for. The delivery
    // thread's own sinks may change settings during theirs.
    if (!onDeliveryThread()) mHandedOver.wait(lock, [this] { return !mHandingOver; });
    if (const Result result = usable(); result != RESULT_SUCCESS) return result;
    SceneSettings settings = mSettings;
    for (std::size_t i = 0; i < count; ++i) {
        const auto property = at(i);
        if (!property) return RESULT_INVALID_PARAMETER;
        const Result result = write_camera_property(*property, mSource->device(), settings);
        if (result != RESULT_SUCCESS) return result;
    }
    if (const Result result = check_camera_settings(settings); result != RESULT_SUCCESS) return result;
    if (const Result refused = mFrames->refuses(mSettings, settings); refused != RESULT_SUCCESS) return refused;
    mSettings = settings;
    mWake.notify_all();  // a new frame rate moves the next deadline
    return RESULT_SUCCESS;
}

Result SimCamera::setProperty(const std::shared_ptr<LumoraProperty>& property) {
    if (!property) return RESULT_INVALID_PARAMETER;
    return changeSettings(1, [&](std::size_t) { return property; });
}

Result SimCamera::setProperties(const std::shared_ptr<LumoraProperties>& properties) {
    if (!properties) return RESULT_INVALID_PARAMETER;
    return changeSettings(properties->size(), [&](std::size_t i) { return properties->at(i); });
}

CameraFacts SimCamera::facts() const {
    const std::chrono::duration<double> up = std::chrono::steady_clock::now() - mOpened;
    return {mSettings, mSource->device(), mSource->serialNumber(), mFirmwareVersion, up.count()};
}

std::tuple<Result, std::shared_ptr<LumoraProperty>> SimCamera::getProperty(const std::string& key) const {
    std::lock_guard<std::mutex> lock(mMutex);
    if (const Result result = usable(); result != RESULT_SUCCESS) return {result, nullptr};
    auto property = read_camera_property(key, facts());
    return {property ? RESULT_SUCCESS : RESULT_NOT_SUPPORTED, std::move(property)};
}

std::tuple<Result, std::shared_ptr<LumoraProperties>> SimCamera::getProperties(const std::string& name) const {
    std::lock_guard<std::mutex> lock(mMutex);
    if (const Result result = usable(); result != RESULT_SUCCESS) return {result, nullptr};
    auto collection = read_camera_collection(name, facts());
    return {collection ? RESULT_SUCCESS : RESULT_NOT_SUPPORTED, std::move(collection)};
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

}  // namespace halden::sensor::sim
