// A camera opened on a virtual device. Its member functions are defined in SimCamera.cpp,
// Delivery.cpp (the delivery thread) and FaultInjection.cpp (what tests inject).
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include <halden/sensor/LumoraCamera.h>
#include <halden/sensor/LumoraSink.h>

#include "CameraProperties.h"
#include "DeviceConfig.h"
#include "Faults.h"
#include "FrameSource.h"
#include "Recording.h"
#include "Scene.h"
#include "SerialExecutor.h"
#include "SimFrame.h"

namespace halden::sensor::sim {

class SimSource final : public LumoraSource {
public:
    // A device that renders its scene ("sim:N"), or, given what its file holds, one that
    // plays a dump file ("replay:N", named as the file's camera, its size from the records).
    SimSource(int number, DeviceConfig device, std::optional<RecordingInfo> recording = std::nullopt);

    std::string name() const override { return mDevice.model; }
    std::string serialNumber() const override { return mSerialNumber; }
    std::string uri() const override { return mUri; }

    int number() const { return mNumber; }
    const DeviceConfig& device() const { return mDevice; }
    const std::optional<RecordingInfo>& recording() const { return mRecording; }

private:
    int mNumber;
    DeviceConfig mDevice;
    std::optional<RecordingInfo> mRecording;
    std::string mSerialNumber;
    std::string mUri;
};

class SimCamera final : public LumoraCamera {
public:
    // `recording` is the file a replay device plays, read by the caller; null for a device
    // that renders its scene.
    explicit SimCamera(std::shared_ptr<SimSource> source, const std::shared_ptr<const Recording>& recording = nullptr);
    ~SimCamera() override;

    State state() const override;
    std::shared_ptr<LumoraSource> source() const override { return mSource; }
    int lensCount() const override { return static_cast<int>(mLenses.size()); }
    Result getDistortionCoefficients(int lens, DistortionCoefficients& out) const override;
    Result getIntrinsicParameters(int lens, IntrinsicParameters& out) const override;
    Result getExtrinsicParameters(int lens, ExtrinsicParameters& out) const override;
    Result getFieldOfView(int lens, FieldOfView& out) const override;
    Result prepare() override;
    std::uint32_t supportedFrameTypes() const override;
    Result run(int wantedFrame) override;
    Result stop() override;
    Result release() override;
    Result setProperty(const std::shared_ptr<LumoraProperty>& property) override;
    Result setProperties(const std::shared_ptr<LumoraProperties>& properties) override;
    std::tuple<Result, std::shared_ptr<LumoraProperty>> getProperty(const std::string& key) const override;
    std::tuple<Result, std::shared_ptr<LumoraProperties>> getProperties(const std::string& name) const override;
    Result addSink(LumoraSink* sink) override;
    Result removeSink(LumoraSink* sink) override;
    std::uint32_t wantedFrame() const override;

    // Stops, releases and closes the camera once its last callbacks have been delivered.
    Result close();
    bool isClosed() const;
    // The device went away: a running camera reports RESULT_NO_SUCH_DEVICE and the states
    // of a stop and a release; every operation then answers RESULT_NO_SUCH_DEVICE.
    void unplug();
    // The next deadline delivers this list instead of one of its own.
    Result injectFrameList(std::shared_ptr<LumoraFrameList> list);
    Result injectError(Result error);
    // Errors are reported by any open camera; the other faults need a running one
    // (RESULT_NOT_READY) and act on the lists it delivers next.
    Result injectFault(const Fault& fault);

private:
    // SimCamera.cpp: the life cycle, the settings and the sinks.
    Result usable() const;  // mMutex held
    bool onDeliveryThread() const { return std::this_thread::get_id() == mDeliveryId.load(); }
    std::vector<LumoraSink*> sinks() const;
    // Queue a callback to every sink (and, for the prepared state, first to every prepared
    // listener); called in the order the camera goes through its states.
    void postState(State state, bool prepared = false);
    void postError(Result error);
    // With mControl held: stop delivery and report STATE_STOPPED.
    Result stopLocked(std::unique_lock<std::mutex>& control);
    // With mControl held: stop if running, then release.
    void shutDownLocked(std::unique_lock<std::mutex>& control);
    // Applies the properties `at(0)` to `at(count - 1)` (null for a missing one) to the
    // settings, all or none.
    template <typename At>
    Result changeSettings(std::size_t count, const At& at);
    CameraFacts facts() const;  // mMutex held

    // Delivery.cpp: the delivery thread.
    // With mControl held, mMutex not: starts the thread of a camera just made running.
    void startDelivery();
    // With mControl held, mMutex not: stops the thread and joins it.
    void endDelivery();
    void deliver();
    // Hands a list (an injected one first, else `own` with any pending fault) to every sink;
    // mMutex held on entry and on return, not during the calls.
    void handOver(std::shared_ptr<SimFrameList> own, std::unique_lock<std::mutex>& lock);
    // The list to hand over as frame n, due `due` microseconds after the open, stamped: one
    // the frame source fills, or, with a loop set, the loop's. mMutex not held.
    std::shared_ptr<SimFrameList> nextList(std::uint32_t frameNumber, std::uint64_t due, std::uint32_t mask,
                                           const SceneSettings& settings);
    std::shared_ptr<SimFrameList> loopedList(std::uint32_t frameNumber, std::uint64_t due, std::uint32_t mask,
                                             const SceneSettings& settings);
    std::shared_ptr<SimFrameList> acquireList(std::uint32_t mask, const SceneSettings& settings);
    std::uint64_t microsecondsSinceOpen(std::chrono::steady_clock::time_point when) const;

    // FaultInjection.cpp: what tests inject, as the delivery thread applies it.
    // `list`, or a list made from it by the first pending list fault. mMutex held.
    std::shared_ptr<LumoraFrameList> withFault(const std::shared_ptr<SimFrameList>& list);
    // Holds delivery back for a stall injected since the last list: mMutex held on entry and
    // on return, not while waiting. True when delivery was stopped meanwhile.
    bool waitOutStall(std::unique_lock<std::mutex>& lock);
    // Drops the list faults and the stall still pending. mMutex held.
    void forgetFaults();

    const std::shared_ptr<SimSource> mSource;
    const ModelInfo mModel;
    const std::chrono::steady_clock::time_point mOpened;
    const int mFirmwareVersion;
    const std::vector<LensCalibration> mLenses;
    const std::unique_ptr<FrameSource> mFrames;  // fill() on the delivery thread only

    std::mutex mControl;  // serialises the life cycle; held while joining the delivery thread

    mutable std::mutex mMutex;  // guards everything below
    std::condition_variable mWake;
    State mState = STATE_NOT_PREPARED;
    bool mClosed = false;
    bool mUnplugged = false;
    bool mStopDelivery = false;
    std::uint32_t mWanted = 0;
    std::uint32_t mNextFrameNumber = 0;
    SceneSettings mSettings;
    std::vector<LumoraSink*> mSinks;
    std::deque<std::shared_ptr<LumoraFrameList>> mInjected;
    std::deque<Fault> mListFaults;
    std::chrono::milliseconds mStall{0};
    // True while the delivery thread calls the sinks; a change of settings waits for it to
    // end, so that the next list handed over shows the change.
    bool mHandingOver = false;
    std::condition_variable mHandedOver;

    std::thread mDelivery;
    std::atomic<std::thread::id> mDeliveryId{};
    std::vector<std::shared_ptr<SimFrameList>> mPool;  // delivery thread only
    // The lists of a loop (sim_loop), for the mask and the settings given, and the lists
    // taken from it since it started: turn k hands over list k modulo their number. Delivery
    // thread only; dropped when delivery ends.
    struct Loop {
        std::vector<std::shared_ptr<SimFrameList>> lists;
        std::size_t turns = 0;
        std::uint32_t mask = 0;
        SceneSettings settings;
    } mLoop;
    std::vector<LumoraSink*> mDeliverySinks;  // delivery thread only
    SerialExecutor mEvents;                   // state and error callbacks, in order
};

}  // namespace halden::sensor::sim
