// Threads of a camera:
// - Delivery: started by run(), ended and joined by stop() (or by unplug and close). It
//   takes each list from the camera's frame source (the scene it renders, or the file it
//   plays) into a pooled list ahead of time, sleeps to the list's absolute deadline, which
//   the source's pace sets, and hands the list to every sink in turn. It reads settings and
//   sinks under mMutex, never holds a lock while calling a sink or filling a list, and is
//   only ever joined with mControl held, so a sink that sets a property from its frame
//   callback cannot deadlock a concurrent stop(). A change of settings from another thread
//   waits for a hand-over under way, so the next list handed over shows it; the line of a
//   list filled ahead is rewritten at hand-over when the switch changed meanwhile. Faults
//   (sim_fault) spoil the lists at hand-over, or hold delivery back before it.
// - Events (mEvents): state and error callbacks in the order the life cycle produced them,
//   one at a time. Posting never waits, so sinks may block in their state callbacks
//   (joining threads of their own) while the camera's operations go on. close() drains the
//   queue, so no sink hears of the camera after destroy_camera().
#include "SimCamera.h"

#include <cstdio>
#include <utility>

#include <pthread.h>

#include "Registry.h"

namespace halden::sensor::sim {

namespace {

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
        mStopDelivery = false;
        mState = STATE_RUNNING;
        postState(STATE_RUNNING);
    }
    mDelivery = std::thread([this] {
        pthread_setname_np(pthread_self(), "lumora-delivery");
        deliver();
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
    mListFaults.clear();  // a fault is meant for the run it was injected into
    mStall = {};
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

Result SimCamera::injectFault(const Fault& fault) {
    std::lock_guard<std::mutex> lock(mMutex);
    if (const Result result = usable(); result != RESULT_SUCCESS) return result;
    if (fault.kind == Fault::kErrors) {
        for (std::uint32_t i = 0; i < fault.argument; ++i)
            postError(RESULT_FAIL);
        return RESULT_SUCCESS;
    }
    if (mState != STATE_RUNNING) return RESULT_NOT_READY;
    if (fault.kind == Fault::kStall) {
        mStall = std::chrono::milliseconds(fault.argument);
        mWake.notify_all();
    } else {
        mListFaults.push_back(fault);
    }
    return RESULT_SUCCESS;
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

// Each list is filled ahead, right after the one before was handed over, so that the sinks
// receive it at its deadline whatever the filling costs. A deadline is the sum of the paces
// since an anchor, so that a frame rate's grid does not drift.
void SimCamera::deliver() {
    using Clock = std::chrono::steady_clock;
    using Seconds = std::chrono::duration<double>;
    mDeliveryId = std::this_thread::get_id();
    std::unique_lock<std::mutex> lock(mMutex);
    Clock::time_point anchor = Clock::now();
    Seconds sinceAnchor{0.0};  // to the last deadline
    std::uint32_t frameNumber = mNextFrameNumber;
    std::shared_ptr<SimFrameList> ahead;
    Seconds aheadInterval{0.0};  // the interval the list ahead was stamped for
    std::uint64_t aheadDue = 0;
    bool aheadLines = false;  // whether the list ahead was filled with embedded lines
    while (!mStopDelivery) {
        const Pace pace = mFrames->paceBefore(frameNumber, mSettings);
        if (pace.interval != aheadInterval) ahead.reset();  // a new rate moves its deadline and stamp
        const auto deadline = anchor + std::chrono::duration_cast<Clock::duration>(sinceAnchor + pace.interval);
        if (!ahead) {
            const SceneSettings settings = mSettings;
            const std::uint32_t mask = mWanted;
            lock.unlock();
            auto pooled = acquireList(mask, settings);
            aheadDue = microsecondsSinceOpen(deadline);
            mFrames->fill(frameNumber, aheadDue, settings, *pooled);
            ahead = std::move(pooled);
            aheadInterval = pace.interval;
            aheadLines = settings.embeddedDataLine;
            lock.lock();
            continue;  // the rate may have changed meanwhile
        }
        const auto changed = [&] {
            return mStopDelivery || mFrames->paceBefore(frameNumber, mSettings).interval != pace.interval;
        };
        if (mWake.wait_until(lock, deadline, changed)) continue;
        if (mStall.count() > 0) {
            const auto until = Clock::now() + mStall;
            mStall = {};
            if (mWake.wait_until(lock, until, [this] { return mStopDelivery; })) continue;
        }
        sinceAnchor += pace.interval;
        // The line follows a switch made since the list was filled.
        if (mSettings.embeddedDataLine != aheadLines) mFrames->writeLines(frameNumber, aheadDue, mSettings, *ahead);
        mNextFrameNumber = ++frameNumber;
        handOver(std::exchange(ahead, nullptr), lock);

        const Clock::time_point now = Clock::now();
        if (now - deadline <= pace.slack) continue;
        if (pace.dropLate) {
            // A sensor that was not read out in time has dropped the frames in between.
            const auto dropped = static_cast<std::uint64_t>((now - deadline) / pace.interval);
            frameNumber += static_cast<std::uint32_t>(dropped);
            sinceAnchor += pace.interval * static_cast<double>(dropped);
        } else {
            // A player that fell behind goes on from now rather than rushing through the records.
            anchor = now;
            sinceAnchor = Seconds(0.0);
        }
    }
}

void SimCamera::handOver(std::shared_ptr<SimFrameList> own, std::unique_lock<std::mutex>& lock) {
    mDeliverySinks = mSinks;
    std::shared_ptr<LumoraFrameList> list;
    if (!mInjected.empty()) {
        list = std::move(mInjected.front());
        mInjected.pop_front();
    } else {
        list = withFault(own);
    }
    own.reset();
    mHandingOver = true;
    lock.unlock();
    for (auto* sink : mDeliverySinks)
        sink->onLumoraFrameList(mSource.get(), list);
    list.reset();
    lock.lock();
    mHandingOver = false;
    mHandedOver.notify_all();
}

std::shared_ptr<LumoraFrameList> SimCamera::withFault(const std::shared_ptr<SimFrameList>& list) {
    if (mListFaults.empty()) return list;
    Fault& fault = mListFaults.front();
    auto faulty = std::make_shared<SimFrameList>();
    for (const auto& frame : list->frames()) {
        switch (fault.kind) {
            case Fault::kMissing:
                if (frame->frameType() != fault.argument) faulty->add(frame);
                break;
            case Fault::kZeroSize:
                faulty->add(std::make_shared<SimFrame>(frame->frameType(), frame->dataType(), 0, 0));
                break;
            case Fault::kNoLine:
                frame->removeProperty(embedded_line_key());
                faulty->add(frame);
                break;
            default:  // kEmpty
                break;
        }
    }
    faulty->stamp(list->frameNumber(), list->timestamp());
    // A missing frame's argument is its type: it spoils one list.
    if (fault.kind == Fault::kMissing || --fault.argument == 0) mListFaults.pop_front();
    return faulty;
}

}  // namespace halden::sensor::sim
