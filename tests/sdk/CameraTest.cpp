// A camera's life cycle as its sinks hear it, the answers to operations in the wrong state,
// callbacks that call back into the camera, and the frames it delivers.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <list>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <halden/sensor/Lumora.h>
#include <halden/sensor/sim/SimControl.h>

#include "DeviceSpec.h"
#include "Scene.h"
#include "SimFrame.h"

namespace {

using namespace halden::sensor;
using namespace std::chrono_literals;

// Waits are bounded so that a broken library fails the test instead of hanging it; the
// bounds are generous for the sanitizer builds.
constexpr auto kPatience = 10s;
constexpr auto kDeadlockLimit = 30s;
constexpr std::uint32_t kAllTypes = LumoraFrame::FRAME_DEPTH | LumoraFrame::FRAME_AMPLITUDE |
                                    LumoraFrame::FRAME_POINTCLOUD | LumoraFrame::FRAME_INTENSITY_POINTCLOUD;

// Runs `work` on a thread of its own and ends the test process if it is still busy after the
// limit, so that a deadlock is reported at once instead of hanging the run.
void without_deadlock(const std::function<void()>& work) {
    struct Done {
        std::mutex mutex;
        std::condition_variable finished;
        bool done = false;
    };
    auto done = std::make_shared<Done>();
    std::thread worker([done, work] {
        work();
        std::lock_guard<std::mutex> lock(done->mutex);
        done->done = true;
        done->finished.notify_all();
    });
    std::unique_lock<std::mutex> lock(done->mutex);
    if (!done->finished.wait_for(lock, kDeadlockLimit, [&] { return done->done; })) {
        ADD_FAILURE() << "deadlock: still blocked after " << kDeadlockLimit.count() << " s";
        std::fflush(stdout);
        std::_Exit(1);
    }
    lock.unlock();
    worker.join();
}

// Records what one camera tells it, in order, for the test thread to wait on and inspect.
// Hooks run inside the callbacks; they are set before the sink is added.
class RecordingSink : public LumoraSink, public LumoraCamera::PreparedListener {
public:
    explicit RecordingSink(std::size_t keep = 0) : mKeep(keep) {}

    std::function<void(LumoraCamera::State)> onState;
    std::function<void(const std::shared_ptr<LumoraFrameList>&)> onFrames;

    Result watch(const std::shared_ptr<LumoraCamera>& camera) {
        {
            std::lock_guard<std::mutex> lock(mMutex);
            mCamera = camera.get();
            mSource = camera->source().get();
        }
        return camera->addSink(this);
    }

    std::string name() const override { return "recording"; }

    void onLumoraCameraPrepared(LumoraCamera* camera) override {
        enter();
        record(camera == mCamera ? nullptr : camera, "prepared");
        leave();
    }

    void onLumoraCameraState(LumoraSource* source, LumoraCamera::State state) override {
        enter();
        if (onState) onState(state);
        record(source == mSource ? nullptr : source, "state " + std::to_string(state));
        leave();
    }

    void onLumoraCameraError(LumoraSource* source, Result error) override {
        enter();
        record(source == mSource ? nullptr : source, "error " + std::to_string(error));
        leave();
    }

    void onLumoraFrameList(LumoraSource* source, const std::shared_ptr<LumoraFrameList>& list) override {
        if (onFrames) onFrames(list);
        std::lock_guard<std::mutex> lock(mMutex);
        if (mClosed) ++mLate;
        if (source != mSource || !list) ++mForeign;
        ++mFrameLists;
        if (mKept.size() < mKeep) mKept.push_back(copy_frame_list(list));
        mChanged.notify_all();
    }

    // Waits until `ready` (called with the sink's lock held) holds; false after the patience runs out.
    bool waitUntil(const std::function<bool()>& ready) {
        std::unique_lock<std::mutex> lock(mMutex);
        return mChanged.wait_for(lock, kPatience, ready);
    }
    bool waitForEvents(std::size_t count) {
        return waitUntil([&] { return mEvents.size() >= count; });
    }
    bool waitForFrameLists(std::size_t count) {
        return waitUntil([&] { return mFrameLists >= count; });
    }
    bool waitForKept(std::size_t count) {
        return waitUntil([&] { return mKept.size() >= count; });
    }

    std::vector<std::string> events() {
        std::lock_guard<std::mutex> lock(mMutex);
        return mEvents;
    }
    std::size_t frameLists() {
        std::lock_guard<std::mutex> lock(mMutex);
        return mFrameLists;
    }
    std::vector<std::shared_ptr<LumoraFrameList>> kept() {
        std::lock_guard<std::mutex> lock(mMutex);
        return mKept;
    }
    // From now on the camera is destroyed: any callback is one too many.
    void markClosed() {
        std::lock_guard<std::mutex> lock(mMutex);
        mClosed = true;
    }
    // Callbacks after markClosed(), from another source or camera, or overlapping another.
    int faults() {
        std::lock_guard<std::mutex> lock(mMutex);
        return mLate + mForeign + mOverlaps.load();
    }

private:
    // A callback stays a little while inside, so that overlapping ones would meet.
    void enter() {
        if (mInside.fetch_add(1) != 0) ++mOverlaps;
        std::this_thread::sleep_for(1ms);
    }
    void leave() { mInside.fetch_sub(1); }

    void record(const void* foreign, const std::string& event) {
        std::lock_guard<std::mutex> lock(mMutex);
        if (mClosed) ++mLate;
        if (foreign != nullptr) ++mForeign;
        mEvents.push_back(event);
        mChanged.notify_all();
    }

    const std::size_t mKeep;
    std::mutex mMutex;
    std::condition_variable mChanged;
    LumoraCamera* mCamera = nullptr;
    LumoraSource* mSource = nullptr;
    std::vector<std::string> mEvents;
    std::size_t mFrameLists = 0;
    std::vector<std::shared_ptr<LumoraFrameList>> mKept;
    bool mClosed = false;
    int mLate = 0;
    int mForeign = 0;
    std::atomic<int> mInside{0};
    std::atomic<int> mOverlaps{0};
};

using Events = std::vector<std::string>;

// The devices every test here starts with: small, fast ones, the last with two lenses.
class CameraTest : public testing::Test {
protected:
    void SetUp() override {
        // NOLINTNEXTLINE(concurrency-mt-unsafe): no library thread reads the environment
        setenv("LUMORA_SIM_DEVICES", "QRX100A:64x48@120,QRX200AP:32x24@120,QRX500AAW:48x36@120", 1);
        ASSERT_EQ(sim::reset_devices(), RESULT_SUCCESS);
        mSources = search_camera_source();
        ASSERT_NE(mSources, nullptr);
        ASSERT_EQ(mSources->size(), 3U);
    }
    void TearDown() override { EXPECT_EQ(sim::reset_devices(), RESULT_SUCCESS) << "a camera was left open"; }

    std::shared_ptr<LumoraCamera> open(std::size_t index) {
        auto camera = create_camera(mSources->at(index));
        EXPECT_NE(camera, nullptr);
        return camera;
    }

    // Destroys the camera and checks that the sink hears nothing more of it.
    static void close(const std::shared_ptr<LumoraCamera>& camera, RecordingSink& sink) {
        EXPECT_EQ(destroy_camera(camera), RESULT_SUCCESS);
        sink.markClosed();
        std::this_thread::sleep_for(50ms);  // several frame periods for a stray callback to show
        EXPECT_EQ(sink.faults(), 0);
    }

    std::shared_ptr<LumoraSourceList> mSources;
};

TEST_F(CameraTest, StatesFollowTheOperationsInOrder) {
    RecordingSink sink;
    const auto camera = open(0);
    ASSERT_NE(camera, nullptr);
    ASSERT_EQ(sink.watch(camera), RESULT_SUCCESS);
    ASSERT_EQ(add_prepared_listener(&sink), RESULT_SUCCESS);
    EXPECT_EQ(add_prepared_listener(&sink), RESULT_ALREADY_EXISTS);
    EXPECT_EQ(camera->source(), mSources->at(0));
    EXPECT_EQ(camera->supportedFrameTypes(), kAllTypes);
    EXPECT_EQ(camera->wantedFrame(), 0U);

    EXPECT_EQ(camera->state(), LumoraCamera::STATE_NOT_PREPARED);
    ASSERT_EQ(camera->prepare(), RESULT_SUCCESS);
    EXPECT_EQ(camera->state(), LumoraCamera::STATE_PREPARED);
    ASSERT_EQ(camera->run(LumoraFrame::FRAME_DEPTH | LumoraFrame::FRAME_AMPLITUDE), RESULT_SUCCESS);
    EXPECT_EQ(camera->state(), LumoraCamera::STATE_RUNNING);
    EXPECT_EQ(camera->wantedFrame(),
              static_cast<std::uint32_t>(LumoraFrame::FRAME_DEPTH | LumoraFrame::FRAME_AMPLITUDE));
    ASSERT_EQ(camera->stop(), RESULT_SUCCESS);
    EXPECT_EQ(camera->state(), LumoraCamera::STATE_STOPPED);
    ASSERT_EQ(camera->run(LumoraFrame::FRAME_POINTCLOUD), RESULT_SUCCESS);
    EXPECT_EQ(camera->wantedFrame(), static_cast<std::uint32_t>(LumoraFrame::FRAME_POINTCLOUD));
    ASSERT_EQ(camera->stop(), RESULT_SUCCESS);
    EXPECT_EQ(camera->wantedFrame(), static_cast<std::uint32_t>(LumoraFrame::FRAME_POINTCLOUD));
    ASSERT_EQ(camera->release(), RESULT_SUCCESS);
    EXPECT_EQ(camera->state(), LumoraCamera::STATE_NOT_PREPARED);
    ASSERT_EQ(camera->prepare(), RESULT_SUCCESS);

    const Events expected = {"prepared", "state 1", "state 3",  "state 2", "state 3",
                             "state 2",  "state 0", "prepared", "state 1"};
    ASSERT_TRUE(sink.waitForEvents(expected.size()));
    EXPECT_EQ(sink.events(), expected);

    // Destroying a prepared camera releases it; its sinks hear that before destroy_camera returns.
    EXPECT_EQ(remove_prepared_listener(&sink), RESULT_SUCCESS);
    EXPECT_EQ(remove_prepared_listener(&sink), RESULT_NOT_FOUND);
    close(camera, sink);
    Events closed = expected;
    closed.push_back("state 0");
    EXPECT_EQ(sink.events(), closed);
    EXPECT_EQ(camera->state(), LumoraCamera::STATE_NOT_PREPARED);
}

// Prepared listener and sink of several cameras at once, all in one log.
struct SharedLog : LumoraCamera::PreparedListener, LumoraSink {
    std::mutex mutex;
    std::vector<std::string> lines;
    LumoraCamera* firstCamera = nullptr;
    void onLumoraCameraPrepared(LumoraCamera* camera) override {
        std::lock_guard<std::mutex> lock(mutex);
        lines.push_back(camera == firstCamera ? "prepared first" : "prepared second");
    }
    std::string name() const override { return "log"; }
    void onLumoraCameraState(LumoraSource* source, LumoraCamera::State state) override {
        std::lock_guard<std::mutex> lock(mutex);
        lines.push_back(source->uri() + " state " + std::to_string(state));
    }
    void onLumoraCameraError(LumoraSource*, Result) override {}
    void onLumoraFrameList(LumoraSource*, const std::shared_ptr<LumoraFrameList>&) override {}
};

TEST_F(CameraTest, PreparedListenersHearEveryCameraBeforeItsSinks) {
    SharedLog log;
    RecordingSink firstSink;
    RecordingSink secondSink;
    const auto first = open(0);
    const auto second = open(1);
    ASSERT_NE(first, nullptr);
    ASSERT_NE(second, nullptr);
    ASSERT_EQ(firstSink.watch(first), RESULT_SUCCESS);
    ASSERT_EQ(secondSink.watch(second), RESULT_SUCCESS);

    log.firstCamera = first.get();
    ASSERT_EQ(add_prepared_listener(&log), RESULT_SUCCESS);
    ASSERT_EQ(first->addSink(&log), RESULT_SUCCESS);
    ASSERT_EQ(second->addSink(&log), RESULT_SUCCESS);
    EXPECT_EQ(add_prepared_listener(nullptr), RESULT_INVALID_PARAMETER);

    ASSERT_EQ(first->prepare(), RESULT_SUCCESS);
    ASSERT_EQ(second->prepare(), RESULT_SUCCESS);
    ASSERT_TRUE(firstSink.waitForEvents(1));
    ASSERT_TRUE(secondSink.waitForEvents(1));
    EXPECT_EQ(remove_prepared_listener(&log), RESULT_SUCCESS);
    close(first, firstSink);
    close(second, secondSink);
    EXPECT_EQ(firstSink.events(), (Events{"state 1", "state 0"}));

    std::lock_guard<std::mutex> lock(log.mutex);
    const auto at = [&](const std::string& line) {
        return std::find(log.lines.begin(), log.lines.end(), line) - log.lines.begin();
    };
    ASSERT_EQ(log.lines.size(), 6U);
    EXPECT_LT(at("prepared first"), at("sim:0 state 1"));
    EXPECT_LT(at("prepared second"), at("sim:1 state 1"));
    EXPECT_LT(at("sim:0 state 1"), at("sim:0 state 0"));
}

TEST_F(CameraTest, OperationsInTheWrongStateAnswerWhy) {
    const auto camera = open(0);
    ASSERT_NE(camera, nullptr);
    EXPECT_EQ(camera->run(LumoraFrame::FRAME_DEPTH), RESULT_NOT_READY);
    EXPECT_EQ(camera->stop(), RESULT_NOT_READY);
    EXPECT_EQ(camera->release(), RESULT_NOT_READY);
    ASSERT_EQ(camera->prepare(), RESULT_SUCCESS);
    EXPECT_EQ(camera->prepare(), RESULT_ALREADY_INITIALIZED);
    EXPECT_EQ(camera->stop(), RESULT_INVALID_OPERATION);
    const int depth = LumoraFrame::FRAME_DEPTH;
    for (const int mask : {0, -1, -2, 1, 32, 64, depth | 1, depth | 32, static_cast<int>(0x80000000U) | depth}) {
        EXPECT_EQ(camera->run(mask), RESULT_INVALID_PARAMETER) << mask;
    }
    EXPECT_EQ(camera->state(), LumoraCamera::STATE_PREPARED);
    EXPECT_EQ(camera->wantedFrame(), 0U);
    ASSERT_EQ(camera->run(LumoraFrame::FRAME_DEPTH), RESULT_SUCCESS);
    EXPECT_EQ(camera->run(LumoraFrame::FRAME_DEPTH), RESULT_ALREADY_RUNNING);
    EXPECT_EQ(camera->run(LumoraFrame::FRAME_AMPLITUDE), RESULT_ALREADY_RUNNING);
    EXPECT_EQ(camera->prepare(), RESULT_ALREADY_INITIALIZED);
    EXPECT_EQ(camera->release(), RESULT_USING_RESOURCES);
    EXPECT_EQ(camera->state(), LumoraCamera::STATE_RUNNING);
    ASSERT_EQ(camera->stop(), RESULT_SUCCESS);
    EXPECT_EQ(camera->stop(), RESULT_INVALID_OPERATION);
    EXPECT_EQ(camera->prepare(), RESULT_ALREADY_INITIALIZED);
    ASSERT_EQ(camera->release(), RESULT_SUCCESS);
    EXPECT_EQ(camera->release(), RESULT_NOT_READY);
    EXPECT_EQ(camera->run(LumoraFrame::FRAME_DEPTH), RESULT_NOT_READY);
    EXPECT_EQ(destroy_camera(camera), RESULT_SUCCESS);
}

TEST_F(CameraTest, DeviceIsExclusiveAndDestroyedCameraRefusesEverything) {
    const auto camera = open(1);
    ASSERT_NE(camera, nullptr);
    EXPECT_EQ(create_camera(mSources->at(1)), nullptr);
    EXPECT_EQ(create_camera(search_camera_source()->find("sim:1")), nullptr);
    const auto other = open(0);
    ASSERT_NE(other, nullptr);
    EXPECT_EQ(destroy_camera(other), RESULT_SUCCESS);

    ASSERT_EQ(camera->prepare(), RESULT_SUCCESS);
    ASSERT_EQ(camera->run(LumoraFrame::FRAME_DEPTH), RESULT_SUCCESS);
    EXPECT_EQ(destroy_camera(camera), RESULT_SUCCESS);
    EXPECT_EQ(camera->state(), LumoraCamera::STATE_NOT_PREPARED);

    EXPECT_EQ(camera->prepare(), RESULT_INVALID_OPERATION);
    EXPECT_EQ(camera->run(LumoraFrame::FRAME_DEPTH), RESULT_INVALID_OPERATION);
    EXPECT_EQ(camera->stop(), RESULT_INVALID_OPERATION);
    EXPECT_EQ(camera->release(), RESULT_INVALID_OPERATION);
    EXPECT_EQ(camera->setProperty(make_property_32s("amplitude_threshold", 20)), RESULT_INVALID_OPERATION);
    EXPECT_EQ(std::get<0>(camera->getProperty("amplitude_threshold")), RESULT_INVALID_OPERATION);
    EXPECT_EQ(std::get<0>(camera->getProperties("fw_info")), RESULT_INVALID_OPERATION);
    RecordingSink sink;
    EXPECT_EQ(camera->addSink(&sink), RESULT_INVALID_OPERATION);
    EXPECT_EQ(destroy_camera(camera), RESULT_INVALID_OPERATION);
    EXPECT_EQ(destroy_camera(nullptr), RESULT_INVALID_PARAMETER);

    // The device is free again.
    const auto again = open(1);
    ASSERT_NE(again, nullptr);
    EXPECT_NE(again, camera);
    EXPECT_EQ(again->state(), LumoraCamera::STATE_NOT_PREPARED);
    EXPECT_EQ(destroy_camera(again), RESULT_SUCCESS);
}

TEST_F(CameraTest, SinksAreAddedOnceAndRemovedSinksFallSilent) {
    RecordingSink kept;
    RecordingSink removed;
    const auto camera = open(0);
    ASSERT_NE(camera, nullptr);
    ASSERT_EQ(kept.watch(camera), RESULT_SUCCESS);
    ASSERT_EQ(removed.watch(camera), RESULT_SUCCESS);
    EXPECT_EQ(camera->addSink(&kept), RESULT_ALREADY_EXISTS);
    EXPECT_EQ(camera->addSink(nullptr), RESULT_INVALID_PARAMETER);
    RecordingSink stranger;
    EXPECT_EQ(camera->removeSink(&stranger), RESULT_NOT_FOUND);

    ASSERT_EQ(camera->prepare(), RESULT_SUCCESS);
    ASSERT_EQ(camera->run(LumoraFrame::FRAME_DEPTH), RESULT_SUCCESS);
    ASSERT_TRUE(removed.waitForFrameLists(2));
    ASSERT_EQ(camera->removeSink(&removed), RESULT_SUCCESS);
    EXPECT_EQ(camera->removeSink(&removed), RESULT_NOT_FOUND);
    const std::size_t atRemoval = removed.frameLists();
    const std::size_t keptAtRemoval = kept.frameLists();
    ASSERT_TRUE(kept.waitForFrameLists(keptAtRemoval + 4));
    // One delivery may have been under way when the sink was removed.
    EXPECT_LE(removed.frameLists(), atRemoval + 1);
    close(camera, kept);
    EXPECT_EQ(removed.events(), (Events{"state 1", "state 3"}));
    EXPECT_EQ(kept.events(), (Events{"state 1", "state 3", "state 2", "state 0"}));
}

TEST_F(CameraTest, FrameCallbackCannotDriveTheLifeCycleButMaySetProperties) {
    RecordingSink sink;
    const auto camera = open(0);
    ASSERT_NE(camera, nullptr);
    std::mutex mutex;
    std::vector<Result> answers;
    sink.onFrames = [&](const std::shared_ptr<LumoraFrameList>&) {
        std::lock_guard<std::mutex> lock(mutex);
        if (!answers.empty()) return;
        answers = {camera->run(LumoraFrame::FRAME_DEPTH), camera->stop(), camera->release(), destroy_camera(camera),
                   camera->setProperty(make_property_32s("amplitude_threshold", 30))};
    };
    ASSERT_EQ(sink.watch(camera), RESULT_SUCCESS);
    ASSERT_EQ(camera->prepare(), RESULT_SUCCESS);
    ASSERT_EQ(camera->run(LumoraFrame::FRAME_DEPTH), RESULT_SUCCESS);
    ASSERT_TRUE(sink.waitForFrameLists(2));
    EXPECT_EQ(camera->state(), LumoraCamera::STATE_RUNNING);
    EXPECT_EQ(std::get<1>(camera->getProperty("amplitude_threshold"))->getInt32(), 30);
    close(camera, sink);
    std::lock_guard<std::mutex> lock(mutex);
    EXPECT_EQ(answers, (std::vector<Result>{RESULT_INVALID_OPERATION, RESULT_INVALID_OPERATION,
                                            RESULT_INVALID_OPERATION, RESULT_INVALID_OPERATION, RESULT_SUCCESS}));
}

TEST_F(CameraTest, SinkBlockingInItsStateCallbackDoesNotStallTheCamera) {
    RecordingSink sink;
    const auto camera = open(0);
    ASSERT_NE(camera, nullptr);
    std::atomic<int> helpers{0};
    std::atomic<int> wrongAnswers{0};
    // Each state change makes the sink wait for a thread of its own that uses the camera; once
    // the camera is being destroyed that thread is told so, instead of being kept waiting.
    sink.onState = [&](LumoraCamera::State) {
        std::thread helper([&] {
            std::this_thread::sleep_for(20ms);
            const Result answer = std::get<0>(camera->getProperty("framerate"));
            if (answer != RESULT_SUCCESS && answer != RESULT_INVALID_OPERATION) ++wrongAnswers;
            ++helpers;
        });
        helper.join();
    };
    ASSERT_EQ(sink.watch(camera), RESULT_SUCCESS);
    without_deadlock([&] {
        EXPECT_EQ(camera->prepare(), RESULT_SUCCESS);
        EXPECT_EQ(camera->run(LumoraFrame::FRAME_DEPTH), RESULT_SUCCESS);
        EXPECT_TRUE(sink.waitForFrameLists(1));
        EXPECT_EQ(camera->stop(), RESULT_SUCCESS);
        EXPECT_EQ(camera->release(), RESULT_SUCCESS);
        EXPECT_EQ(camera->prepare(), RESULT_SUCCESS);
        EXPECT_EQ(camera->run(LumoraFrame::FRAME_AMPLITUDE), RESULT_SUCCESS);
        EXPECT_EQ(destroy_camera(camera), RESULT_SUCCESS);
    });
    sink.markClosed();
    EXPECT_EQ(sink.events(),
              (Events{"state 1", "state 3", "state 2", "state 0", "state 1", "state 3", "state 2", "state 0"}));
    EXPECT_EQ(helpers.load(), 8);
    EXPECT_EQ(wrongAnswers.load(), 0);
    EXPECT_EQ(sink.faults(), 0);
}

TEST_F(CameraTest, StateCallbackMayOperateTheCameraEvenWhileItIsDestroyed) {
    RecordingSink sink;
    const auto camera = open(0);
    ASSERT_NE(camera, nullptr);
    std::mutex mutex;
    std::vector<Result> releases;
    // The sink releases the camera whenever it stops, and a listener starts it once prepared.
    sink.onState = [&](LumoraCamera::State state) {
        if (state != LumoraCamera::STATE_STOPPED) return;
        const Result result = camera->release();
        std::lock_guard<std::mutex> lock(mutex);
        releases.push_back(result);
    };
    struct Starter : LumoraCamera::PreparedListener {
        std::atomic<int> runs{0};
        void onLumoraCameraPrepared(LumoraCamera* prepared) override {
            if (prepared->run(LumoraFrame::FRAME_DEPTH) == RESULT_SUCCESS) ++runs;
        }
    } starter;
    ASSERT_EQ(sink.watch(camera), RESULT_SUCCESS);
    ASSERT_EQ(add_prepared_listener(&starter), RESULT_SUCCESS);
    without_deadlock([&] {
        EXPECT_EQ(camera->prepare(), RESULT_SUCCESS);
        EXPECT_TRUE(sink.waitForFrameLists(1));
        EXPECT_EQ(camera->stop(), RESULT_SUCCESS);
        EXPECT_TRUE(sink.waitForEvents(4));
        EXPECT_EQ(camera->prepare(), RESULT_SUCCESS);
        EXPECT_TRUE(sink.waitForFrameLists(2));
        EXPECT_EQ(destroy_camera(camera), RESULT_SUCCESS);
    });
    EXPECT_EQ(remove_prepared_listener(&starter), RESULT_SUCCESS);
    sink.markClosed();
    EXPECT_EQ(starter.runs.load(), 2);
    EXPECT_EQ(sink.events(),
              (Events{"state 1", "state 3", "state 2", "state 0", "state 1", "state 3", "state 2", "state 0"}));
    std::lock_guard<std::mutex> lock(mutex);
    // The second release came while the camera was being destroyed.
    EXPECT_EQ(releases, (std::vector<Result>{RESULT_SUCCESS, RESULT_INVALID_OPERATION}));
}

TEST_F(CameraTest, SettingPropertiesFromFrameCallbacksDoesNotBlockStop) {
    RecordingSink sink;
    const auto camera = open(0);
    ASSERT_NE(camera, nullptr);
    std::atomic<int> failures{0};
    std::atomic<int> value{10};
    sink.onFrames = [&](const std::shared_ptr<LumoraFrameList>&) {
        const int next = value.fetch_add(1) % 100 + 10;
        if (camera->setProperty(make_property_32s("amplitude_threshold", next)) != RESULT_SUCCESS) ++failures;
        if (std::get<0>(camera->getProperty("framerate")) != RESULT_SUCCESS) ++failures;
    };
    ASSERT_EQ(sink.watch(camera), RESULT_SUCCESS);
    ASSERT_EQ(camera->prepare(), RESULT_SUCCESS);
    without_deadlock([&] {
        for (int cycle = 0; cycle < 5; ++cycle) {
            const std::size_t before = sink.frameLists();
            EXPECT_EQ(camera->run(LumoraFrame::FRAME_DEPTH), RESULT_SUCCESS);
            EXPECT_TRUE(sink.waitForFrameLists(before + 1));
            EXPECT_EQ(camera->stop(), RESULT_SUCCESS);
        }
    });
    EXPECT_EQ(failures.load(), 0);
    close(camera, sink);
}

TEST_F(CameraTest, ListHoldsOneFrameOfEachRequestedType) {
    std::list<RecordingSink> sinks;  // removed sinks live on until the camera is destroyed
    const auto camera = open(0);
    ASSERT_NE(camera, nullptr);
    ASSERT_EQ(camera->prepare(), RESULT_SUCCESS);
    const std::uint32_t masks[] = {LumoraFrame::FRAME_DEPTH,
                                   LumoraFrame::FRAME_AMPLITUDE,
                                   LumoraFrame::FRAME_POINTCLOUD,
                                   LumoraFrame::FRAME_INTENSITY_POINTCLOUD,
                                   LumoraFrame::FRAME_DEPTH | LumoraFrame::FRAME_POINTCLOUD,
                                   kAllTypes};
    std::uint32_t lastFrameNumber = 0;
    for (const std::uint32_t mask : masks) {
        SCOPED_TRACE(testing::Message() << "mask " << mask);
        RecordingSink& sink = sinks.emplace_back(3);
        ASSERT_EQ(sink.watch(camera), RESULT_SUCCESS);
        ASSERT_EQ(camera->run(static_cast<int>(mask)), RESULT_SUCCESS);
        ASSERT_TRUE(sink.waitForKept(3));
        ASSERT_EQ(camera->stop(), RESULT_SUCCESS);
        ASSERT_EQ(camera->removeSink(&sink), RESULT_SUCCESS);

        for (const auto& list : sink.kept()) {
            std::uint32_t types = 0;
            for (std::size_t i = 0; i < list->size(); ++i) {
                const auto frame = list->at(i);
                EXPECT_EQ(types & frame->frameType(), 0U) << "two frames of one type";
                types |= frame->frameType();
                EXPECT_EQ(frame->width(), 64);
                EXPECT_EQ(frame->height(), 48);
                EXPECT_EQ(frame->timestamp(), list->timestamp());
                EXPECT_EQ(frame->frameNumber(), list->frameNumber());
                const bool basic = frame->frameType() <= LumoraFrame::FRAME_AMPLITUDE;
                EXPECT_EQ(frame->dataType(), basic ? DATA_TYPE_UINT16 : DATA_TYPE_FLOAT32);
            }
            EXPECT_EQ(types, mask);
            // Frame numbers and times go on rising across runs.
            if (lastFrameNumber != 0) {
                EXPECT_GT(list->frameNumber(), lastFrameNumber);
            }
            lastFrameNumber = std::max(lastFrameNumber, list->frameNumber());
        }
        const auto kept = sink.kept();
        EXPECT_LT(kept[0]->timestamp(), kept[1]->timestamp());
        EXPECT_LT(kept[1]->timestamp(), kept[2]->timestamp());
    }
    EXPECT_EQ(destroy_camera(camera), RESULT_SUCCESS);
}

// The settings a camera reports, as the renderer takes them.
sim::SceneSettings settings_of(const std::shared_ptr<LumoraCamera>& camera) {
    const auto value = [&](const char* key) { return std::get<1>(camera->getProperty(key)); };
    sim::SceneSettings settings;
    settings.amplitudeThreshold = value("amplitude_threshold")->getInt32();
    settings.fps = value("framerate")->getDouble();
    settings.rangeMin = value("depth_range_min")->getInt32();
    settings.rangeMax = value("depth_range_max")->getInt32();
    settings.illumination = value("illumination")->getBool();
    settings.embeddedDataLine = value("embedded_data_line")->getBool();
    settings.basicDataType = static_cast<DataType>(value("depth_data_type")->getInt32());
    settings.pointCloudDataType = static_cast<DataType>(value("pointcloud_data_type")->getInt32());
    return settings;
}

TEST_F(CameraTest, DeliveredFramesAreTheScenesRenderingOfTheirNumber) {
    RecordingSink sink(3);
    const auto camera = open(0);
    ASSERT_NE(camera, nullptr);
    const auto settings = make_properties("settings");
    settings->add(make_property_32s("amplitude_threshold", 25));
    settings->add(make_property_32s("depth_data_type", DATA_TYPE_FLOAT32));
    settings->add(make_property_32s("pointcloud_data_type", DATA_TYPE_UINT16));
    settings->add(make_property_bool("embedded_data_line", true));
    settings->add(make_property_32s("depth_range_max", 4000));
    ASSERT_EQ(camera->setProperties(settings), RESULT_SUCCESS);
    const sim::SceneSettings rendering = settings_of(camera);
    ASSERT_EQ(sink.watch(camera), RESULT_SUCCESS);
    ASSERT_EQ(camera->prepare(), RESULT_SUCCESS);
    ASSERT_EQ(camera->run(static_cast<int>(kAllTypes)), RESULT_SUCCESS);
    ASSERT_TRUE(sink.waitForKept(3));
    close(camera, sink);

    const sim::DeviceSpec device{mSources->at(0)->name(), 64, 48, rendering.fps};
    sim::Scene scene(device, sim::model_info(device.model));
    for (const auto& delivered : sink.kept()) {
        sim::SimFrameList expected;
        for (std::size_t i = 0; i < delivered->size(); ++i) {
            const auto frame = delivered->at(i);
            expected.add(std::make_shared<sim::SimFrame>(frame->frameType(), frame->dataType(), frame->width(),
                                                         frame->height()));
        }
        scene.render(delivered->frameNumber(), delivered->timestamp(), rendering, expected);
        for (std::size_t i = 0; i < delivered->size(); ++i) {
            const auto frame = delivered->at(i);
            const auto& mine = *expected.frames()[i];
            SCOPED_TRACE(testing::Message() << "frame " << delivered->frameNumber() << " type " << frame->frameType());
            EXPECT_EQ(frame->dataType(), mine.dataType());
            EXPECT_EQ(std::memcmp(frame->data(), mine.data(), mine.byteSize()), 0);
            const auto line = std::get<1>(frame->getProperty("embedded_data_line"));
            ASSERT_NE(line, nullptr);
            EXPECT_EQ(line->getBytes(), std::get<1>(mine.getProperty("embedded_data_line"))->getBytes());
        }
    }
}

std::uint64_t read_le(const std::vector<std::uint8_t>& bytes, std::size_t offset, std::size_t size) {
    std::uint64_t value = 0;
    for (std::size_t i = 0; i < size; ++i)
        value |= static_cast<std::uint64_t>(bytes[offset + i]) << (8 * i);
    return value;
}

TEST_F(CameraTest, DataTypesAndEmbeddedLineFollowPropertiesWhileRunning) {
    RecordingSink sink(400);
    const auto camera = open(0);
    ASSERT_NE(camera, nullptr);
    ASSERT_EQ(sink.watch(camera), RESULT_SUCCESS);
    ASSERT_EQ(camera->prepare(), RESULT_SUCCESS);
    ASSERT_EQ(camera->run(static_cast<int>(kAllTypes)), RESULT_SUCCESS);
    ASSERT_TRUE(sink.waitForKept(2));

    const auto switched = [](const std::shared_ptr<LumoraFrameList>& list) {
        return find_frame(list, LumoraFrame::FRAME_DEPTH)->dataType() == DATA_TYPE_FLOAT32;
    };
    const auto hasLine = [](const std::shared_ptr<LumoraFrameList>& list) {
        return std::get<0>(list->at(0)->getProperty("embedded_data_line")) == RESULT_SUCCESS;
    };
    const auto change = make_properties("change");
    change->add(make_property_32s("depth_data_type", DATA_TYPE_FLOAT32));
    change->add(make_property_32s("pointcloud_data_type", DATA_TYPE_UINT16));
    change->add(make_property_bool("embedded_data_line", true));
    ASSERT_EQ(camera->setProperties(change), RESULT_SUCCESS);
    const std::size_t changedAt = sink.kept().size();
    ASSERT_TRUE(sink.waitForKept(changedAt + 4));
    const std::size_t beforeLineOff = sink.kept().size();
    ASSERT_EQ(camera->setProperty(make_property_bool("embedded_data_line", false)), RESULT_SUCCESS);
    const std::size_t lineOffAt = sink.kept().size();
    ASSERT_TRUE(sink.waitForKept(lineOffAt + 4));
    close(camera, sink);

    const auto kept = sink.kept();
    EXPECT_FALSE(switched(kept[0]));
    EXPECT_FALSE(hasLine(kept[0]));
    // A change shows from one list on; only a list rendered ahead before it may still have the old form.
    std::size_t firstSwitched = kept.size();
    for (std::size_t i = 0; i < kept.size(); ++i) {
        if (switched(kept[i]) && firstSwitched == kept.size()) firstSwitched = i;
        if (firstSwitched < i) {
            EXPECT_TRUE(switched(kept[i])) << i;
        }
    }
    EXPECT_LE(firstSwitched, changedAt + 1);
    for (std::size_t i = 0; i < kept.size(); ++i) {
        const auto& list = kept[i];
        for (std::size_t f = 0; f < list->size(); ++f) {
            const auto frame = list->at(f);
            const bool basic = frame->frameType() <= LumoraFrame::FRAME_AMPLITUDE;
            const bool wide = frame->dataType() == DATA_TYPE_FLOAT32;
            EXPECT_EQ(wide, basic == switched(list)) << i;
            EXPECT_EQ(static_cast<bool>(frame_cast_basic32f(frame)), basic && wide);
            EXPECT_EQ(static_cast<bool>(frame_cast_basic16u(frame)), basic && !wide);
            EXPECT_EQ(static_cast<bool>(frame_cast_pcl16u(frame)),
                      frame->frameType() == LumoraFrame::FRAME_POINTCLOUD && !wide);
            EXPECT_EQ(static_cast<bool>(frame_cast_ipcl32f(frame)),
                      frame->frameType() == LumoraFrame::FRAME_INTENSITY_POINTCLOUD && wide);
            const auto [result, line] = frame->getProperty("embedded_data_line");
            EXPECT_EQ(result == RESULT_SUCCESS, hasLine(list)) << "all frames of a list carry it or none";
            if (!line) continue;
            const auto bytes = line->getBytes();
            ASSERT_EQ(bytes.size(), static_cast<std::size_t>(frame->width()));
            EXPECT_EQ(bytes[sim::EmbeddedLineLayout::kMagic], 'L');
            EXPECT_EQ(bytes[sim::EmbeddedLineLayout::kMagic + 1], 'M');
            EXPECT_EQ(read_le(bytes, sim::EmbeddedLineLayout::kFrameCounter, 4), list->frameNumber());
            EXPECT_EQ(read_le(bytes, sim::EmbeddedLineLayout::kTimestamp, 8), list->timestamp());
        }
    }
    for (std::size_t i = changedAt + 1; i < beforeLineOff; ++i) {
        EXPECT_TRUE(hasLine(kept[i])) << i;
    }
    for (std::size_t i = lineOffAt + 1; i < kept.size(); ++i) {
        EXPECT_FALSE(hasLine(kept[i])) << i;
    }
}

TEST_F(CameraTest, ListsHeldBySinksAreNotRewritten) {
    RecordingSink sink;
    const auto camera = open(0);
    ASSERT_NE(camera, nullptr);
    ASSERT_EQ(camera->setProperty(make_property_bool("embedded_data_line", true)), RESULT_SUCCESS);
    std::mutex mutex;
    int seen = 0;
    std::shared_ptr<LumoraFrameList> heldList;
    std::shared_ptr<LumoraFrameList> heldListCopy;
    std::shared_ptr<LumoraFrame> heldFrame;
    std::shared_ptr<LumoraFrameList> heldFrameCopy;
    std::shared_ptr<LumoraProperty> heldLine;
    std::vector<std::uint8_t> heldLineCopy;
    // The sink keeps a whole list, then one frame of another, then the data line of a third.
    sink.onFrames = [&](const std::shared_ptr<LumoraFrameList>& list) {
        std::lock_guard<std::mutex> lock(mutex);
        switch (seen++) {
            case 0:
                heldList = list;
                heldListCopy = copy_frame_list(list);
                break;
            case 1:
                heldFrame = find_frame(list, LumoraFrame::FRAME_DEPTH);
                heldFrameCopy = copy_frame_list(list);
                break;
            case 2:
                heldLine = std::get<1>(list->at(0)->getProperty("embedded_data_line"));
                heldLineCopy = heldLine->getBytes();
                break;
            default:
                break;
        }
    };
    ASSERT_EQ(sink.watch(camera), RESULT_SUCCESS);
    ASSERT_EQ(camera->prepare(), RESULT_SUCCESS);
    ASSERT_EQ(camera->run(static_cast<int>(kAllTypes)), RESULT_SUCCESS);
    // Enough lists that a pool of reusable ones would have come round to the held ones.
    ASSERT_TRUE(sink.waitForFrameLists(16));
    {
        std::lock_guard<std::mutex> lock(mutex);
        ASSERT_NE(heldLine, nullptr);
        EXPECT_EQ(heldList->frameNumber(), heldListCopy->frameNumber());
        EXPECT_EQ(heldList->timestamp(), heldListCopy->timestamp());
        ASSERT_EQ(heldList->size(), heldListCopy->size());
        for (std::size_t i = 0; i < heldList->size(); ++i) {
            const auto frame = heldList->at(i);
            const auto copy = std::static_pointer_cast<sim::SimFrame>(heldListCopy->at(i));
            EXPECT_EQ(frame->frameNumber(), copy->frameNumber());
            EXPECT_EQ(std::memcmp(frame->data(), copy->data(), copy->byteSize()), 0) << i;
            EXPECT_EQ(std::get<1>(frame->getProperty("embedded_data_line"))->getBytes(),
                      std::get<1>(copy->getProperty("embedded_data_line"))->getBytes());
        }
        const auto depthCopy =
            std::static_pointer_cast<sim::SimFrame>(find_frame(heldFrameCopy, LumoraFrame::FRAME_DEPTH));
        EXPECT_EQ(heldFrame->frameNumber(), depthCopy->frameNumber());
        EXPECT_EQ(std::memcmp(heldFrame->data(), depthCopy->data(), depthCopy->byteSize()), 0);
        EXPECT_EQ(heldLine->getBytes(), heldLineCopy);
        // Let go while streaming: the library may use them again.
        heldList.reset();
        heldFrame.reset();
        heldLine.reset();
    }
    ASSERT_TRUE(sink.waitForFrameLists(sink.frameLists() + 6));
    close(camera, sink);
}

// Where a camera-space point lands on the sensor, through the lens model the camera publishes.
void project(const DistortionCoefficients& d, const IntrinsicParameters& k, double x, double y, double z, double& u,
             double& v) {
    const double a = x / z;
    const double b = y / z;
    const double r2 = a * a + b * b;
    const double radial = 1.0 + r2 * (d.k1 + r2 * (d.k2 + r2 * d.k3));
    const double xd = a * radial + 2.0 * d.p1 * a * b + d.p2 * (r2 + 2.0 * a * a);
    const double yd = b * radial + d.p1 * (r2 + 2.0 * b * b) + 2.0 * d.p2 * a * b;
    u = k.fx * (xd + d.skew * yd) + k.cx;
    v = k.fy * yd + k.cy;
}

TEST_F(CameraTest, PublishedCalibrationDescribesTheDeliveredPointCloud) {
    for (const std::size_t index : {0U, 2U}) {
        RecordingSink sink(1);
        const auto camera = open(index);
        ASSERT_NE(camera, nullptr);
        const auto model = mSources->at(index)->name();
        SCOPED_TRACE(model);
        const sim::ModelInfo info = sim::model_info(model);
        ASSERT_EQ(camera->lensCount(), info.lensCount);
        DistortionCoefficients distortion;
        IntrinsicParameters intrinsics;
        ExtrinsicParameters extrinsics;
        FieldOfView fov;
        for (const int lens : {-1, camera->lensCount()}) {
            EXPECT_EQ(camera->getDistortionCoefficients(lens, distortion), RESULT_OUT_OF_RANGE);
            EXPECT_EQ(camera->getIntrinsicParameters(lens, intrinsics), RESULT_OUT_OF_RANGE);
            EXPECT_EQ(camera->getExtrinsicParameters(lens, extrinsics), RESULT_OUT_OF_RANGE);
            EXPECT_EQ(camera->getFieldOfView(lens, fov), RESULT_OUT_OF_RANGE);
        }
        for (int lens = 0; lens < camera->lensCount(); ++lens) {
            EXPECT_EQ(camera->getExtrinsicParameters(lens, extrinsics), RESULT_SUCCESS);
            EXPECT_EQ(camera->getFieldOfView(lens, fov), RESULT_SUCCESS);
            EXPECT_DOUBLE_EQ(fov.horizontal, info.horizontalFov);
        }
        ASSERT_EQ(camera->getDistortionCoefficients(0, distortion), RESULT_SUCCESS);
        ASSERT_EQ(camera->getIntrinsicParameters(0, intrinsics), RESULT_SUCCESS);

        ASSERT_EQ(sink.watch(camera), RESULT_SUCCESS);
        ASSERT_EQ(camera->prepare(), RESULT_SUCCESS);
        ASSERT_EQ(camera->run(LumoraFrame::FRAME_DEPTH | LumoraFrame::FRAME_POINTCLOUD), RESULT_SUCCESS);
        ASSERT_TRUE(sink.waitForKept(1));
        close(camera, sink);

        const auto list = sink.kept().front();
        const auto depth = frame_cast_basic16u(find_frame(list, LumoraFrame::FRAME_DEPTH));
        const auto cloud = frame_cast_pcl32f(find_frame(list, LumoraFrame::FRAME_POINTCLOUD));
        ASSERT_TRUE(depth);
        ASSERT_TRUE(cloud);
        std::size_t seen = 0;
        double worst = 0.0;
        for (int v = 0; v < cloud.height(); ++v) {
            for (int u = 0; u < cloud.width(); ++u) {
                const std::size_t i = static_cast<std::size_t>(v) * cloud.width() + u;
                if (depth[i] == 0) {
                    EXPECT_EQ(cloud.z()[i], 0.0F);
                    continue;
                }
                ++seen;
                EXPECT_NEAR(cloud.z()[i] * 1000.0, depth[i], 0.01);
                double pu = 0.0;
                double pv = 0.0;
                project(distortion, intrinsics, cloud.x()[i], cloud.y()[i], cloud.z()[i], pu, pv);
                worst = std::max({worst, std::fabs(pu - u), std::fabs(pv - v)});
            }
        }
        EXPECT_GT(seen, depth.size() / 2);
        EXPECT_LT(worst, 0.05) << "pixels between a point's projection and its own pixel";
    }
}

TEST_F(CameraTest, InjectedFrameListsAndErrorsReachTheSinks) {
    RecordingSink sink(200);
    const auto camera = open(0);
    ASSERT_NE(camera, nullptr);
    auto depth = sim::make_frame(LumoraFrame::FRAME_DEPTH, DATA_TYPE_UINT16, 64, 48, 777777, 42);
    auto* pixels = static_cast<std::uint16_t*>(sim::frame_data(depth));
    for (std::size_t i = 0; i < depth->elementCount(); ++i)
        pixels[i] = static_cast<std::uint16_t>(1000 + i);
    ASSERT_EQ(sim::set_frame_property(depth, make_property_string("note", "by hand")), RESULT_SUCCESS);
    const auto injected = sim::make_frame_list({depth});
    std::atomic<bool> sameList{false};
    sink.onFrames = [&](const std::shared_ptr<LumoraFrameList>& list) {
        if (list == injected) sameList = true;
    };
    ASSERT_EQ(sink.watch(camera), RESULT_SUCCESS);

    EXPECT_EQ(sim::inject_frame_list("sim:0", injected), RESULT_NOT_READY);
    EXPECT_EQ(sim::inject_frame_list("sim:1", injected), RESULT_NOT_FOUND);
    EXPECT_EQ(sim::inject_error("sim:1", RESULT_TIMEOUT), RESULT_NOT_FOUND);
    ASSERT_EQ(camera->prepare(), RESULT_SUCCESS);
    EXPECT_EQ(sim::inject_error("sim:0", RESULT_TIMEOUT), RESULT_SUCCESS);
    ASSERT_TRUE(sink.waitForEvents(2));
    ASSERT_EQ(camera->run(LumoraFrame::FRAME_DEPTH | LumoraFrame::FRAME_AMPLITUDE), RESULT_SUCCESS);
    ASSERT_TRUE(sink.waitForKept(2));
    EXPECT_EQ(sim::inject_frame_list("sim:0", nullptr), RESULT_INVALID_PARAMETER);
    ASSERT_EQ(sim::inject_frame_list("sim:0", injected), RESULT_SUCCESS);
    ASSERT_TRUE(sink.waitUntil([&] { return sameList.load(); }));
    const std::size_t afterInjection = sink.kept().size();
    ASSERT_TRUE(sink.waitForKept(afterInjection + 2));
    EXPECT_EQ(sim::inject_error("sim:0", RESULT_FAIL), RESULT_SUCCESS);
    ASSERT_TRUE(sink.waitForEvents(4));
    close(camera, sink);
    EXPECT_EQ(sim::inject_frame_list("sim:0", injected), RESULT_NOT_FOUND);
    EXPECT_EQ(sim::inject_error("sim:0", RESULT_FAIL), RESULT_NOT_FOUND);

    EXPECT_EQ(sink.events(), (Events{"state 1", "error 22", "state 3", "error 1", "state 2", "state 0"}));
    const auto kept = sink.kept();
    const auto match =
        std::find_if(kept.begin(), kept.end(), [](const auto& list) { return list->frameNumber() == 777777U; });
    ASSERT_NE(match, kept.end());
    const auto& delivered = *match;
    ASSERT_EQ(delivered->size(), 1U);
    EXPECT_EQ(delivered->timestamp(), 42U);
    const auto view = frame_cast_basic16u(delivered->at(0));
    ASSERT_TRUE(view);
    EXPECT_EQ(std::memcmp(view.data(), pixels, depth->elementCount() * sizeof(std::uint16_t)), 0);
    EXPECT_EQ(std::get<1>(delivered->at(0)->getProperty("note"))->getString(""), "by hand");
    // Rendered lists go on around it, in their own numbering.
    EXPECT_EQ(std::count_if(kept.begin(), kept.end(), [](const auto& list) { return list->frameNumber() == 777777U; }),
              1);
    EXPECT_EQ(kept.back()->size(), 2U);
    EXPECT_LT(kept.back()->frameNumber(), 777777U);
}

TEST_F(CameraTest, TwoCamerasStreamIndependently) {
    RecordingSink firstSink(1);
    RecordingSink secondSink(1);
    const auto first = open(0);
    const auto second = open(1);
    ASSERT_NE(first, nullptr);
    ASSERT_NE(second, nullptr);
    ASSERT_EQ(firstSink.watch(first), RESULT_SUCCESS);
    ASSERT_EQ(secondSink.watch(second), RESULT_SUCCESS);
    for (const auto& camera : {first, second}) {
        ASSERT_EQ(camera->prepare(), RESULT_SUCCESS);
        ASSERT_EQ(camera->run(LumoraFrame::FRAME_DEPTH), RESULT_SUCCESS);
    }
    ASSERT_TRUE(firstSink.waitForFrameLists(3));
    ASSERT_TRUE(secondSink.waitForFrameLists(3));
    close(first, firstSink);
    const std::size_t before = secondSink.frameLists();
    ASSERT_TRUE(secondSink.waitForFrameLists(before + 3));
    EXPECT_EQ(second->state(), LumoraCamera::STATE_RUNNING);
    close(second, secondSink);
    EXPECT_EQ(firstSink.kept().front()->at(0)->width(), 64);
    EXPECT_EQ(secondSink.kept().front()->at(0)->width(), 32);
    EXPECT_EQ(secondSink.kept().front()->at(0)->height(), 24);
}

}  // namespace
