// A camera as its sinks and listeners hear it, in groups: its life cycle and the answers to
// operations in the wrong state; listeners, sinks and callbacks that call back into the
// camera; the lists it delivers, rendered and injected; devices plugged in and unplugged.
// (What the shell makes of unplugs, during a dump, while prepared and between search and
// select, is tests/e2e/faults.sh's.)
#include <algorithm>
#include <cstdio>
#include <future>

#include "DeviceConfig.h"
#include "Scene.h"
#include "SimTestSupport.h"

namespace halden::sensor::test {
namespace {

// Small, fast devices; the last has two lenses.
class CameraTest : public SimTest {
protected:
    void SetUp() override { useDevices("QRX100A:64x48@120,QRX200AP:32x24@120,QRX500AAW:48x36@120", 3); }
};

// --- Life cycle: the states in order, and why an operation in the wrong state is refused.

TEST_F(CameraTest, StatesFollowTheOperationsInOrderAndOperationsInTheWrongStateAnswerWhy) {
    RecordingSink sink;
    const auto camera = open(0);
    ASSERT_EQ(sink.watch(camera), RESULT_SUCCESS);
    ASSERT_EQ(add_prepared_listener(&sink), RESULT_SUCCESS);
    EXPECT_EQ(add_prepared_listener(&sink), RESULT_ALREADY_EXISTS);
    EXPECT_EQ(add_prepared_listener(nullptr), RESULT_INVALID_PARAMETER);
    EXPECT_EQ(camera->source(), mSources->at(0));
    EXPECT_EQ(camera->supportedFrameTypes(), kAllTypes);
    // The device is the camera's alone.
    EXPECT_EQ(create_camera(mSources->at(0)), nullptr);
    EXPECT_EQ(create_camera(search_camera_source()->find("sim:0")), nullptr);
    EXPECT_EQ(destroy_camera(open(1)), RESULT_SUCCESS);

    EXPECT_EQ(camera->state(), LumoraCamera::STATE_NOT_PREPARED);
    EXPECT_EQ(camera->run(LumoraFrame::FRAME_DEPTH), RESULT_NOT_READY);
    EXPECT_EQ(camera->stop(), RESULT_NOT_READY);
    EXPECT_EQ(camera->release(), RESULT_NOT_READY);
    ASSERT_EQ(camera->prepare(), RESULT_SUCCESS);
    EXPECT_EQ(camera->state(), LumoraCamera::STATE_PREPARED);
    EXPECT_EQ(camera->prepare(), RESULT_ALREADY_INITIALIZED);
    EXPECT_EQ(camera->stop(), RESULT_INVALID_OPERATION);
    const int depth = LumoraFrame::FRAME_DEPTH;
    for (const int mask : {0, -1, -2, 1, 32, 64, depth | 1, depth | 32, static_cast<int>(0x80000000U) | depth}) {
        EXPECT_EQ(camera->run(mask), RESULT_INVALID_PARAMETER) << mask;
    }
    EXPECT_EQ(camera->wantedFrame(), 0U);
    ASSERT_EQ(camera->run(LumoraFrame::FRAME_DEPTH | LumoraFrame::FRAME_AMPLITUDE), RESULT_SUCCESS);
    EXPECT_EQ(camera->state(), LumoraCamera::STATE_RUNNING);
    EXPECT_EQ(camera->wantedFrame(), 6U);  // depth and amplitude
    EXPECT_EQ(camera->run(LumoraFrame::FRAME_AMPLITUDE), RESULT_ALREADY_RUNNING);
    EXPECT_EQ(camera->prepare(), RESULT_ALREADY_INITIALIZED);
    EXPECT_EQ(camera->release(), RESULT_USING_RESOURCES);
    ASSERT_EQ(camera->stop(), RESULT_SUCCESS);
    EXPECT_EQ(camera->state(), LumoraCamera::STATE_STOPPED);
    EXPECT_EQ(camera->stop(), RESULT_INVALID_OPERATION);
    EXPECT_EQ(camera->prepare(), RESULT_ALREADY_INITIALIZED);
    ASSERT_EQ(camera->run(LumoraFrame::FRAME_POINTCLOUD), RESULT_SUCCESS);
    ASSERT_EQ(camera->stop(), RESULT_SUCCESS);
    EXPECT_EQ(camera->wantedFrame(), 8U);  // the point cloud of the last run
    ASSERT_EQ(camera->release(), RESULT_SUCCESS);
    EXPECT_EQ(camera->state(), LumoraCamera::STATE_NOT_PREPARED);
    EXPECT_EQ(camera->release(), RESULT_NOT_READY);
    ASSERT_EQ(camera->prepare(), RESULT_SUCCESS);

    Events expected = {"prepared", "state 1", "state 3",  "state 2", "state 3",
                       "state 2",  "state 0", "prepared", "state 1"};
    ASSERT_TRUE(sink.events.waitFor(expected.size()));
    EXPECT_EQ(sink.events.all(), expected);
    EXPECT_EQ(remove_prepared_listener(&sink), RESULT_SUCCESS);
    EXPECT_EQ(remove_prepared_listener(&sink), RESULT_NOT_FOUND);
    // Destroying a prepared camera releases it; its sinks hear that before destroy_camera returns.
    sink.close(camera);
    expected.emplace_back("state 0");
    EXPECT_EQ(sink.events.all(), expected);
    EXPECT_EQ(camera->state(), LumoraCamera::STATE_NOT_PREPARED);
    // Destroyed, it refuses everything, and its device can be opened again.
    EXPECT_EQ(camera->prepare(), RESULT_INVALID_OPERATION);
    EXPECT_EQ(camera->run(LumoraFrame::FRAME_DEPTH), RESULT_INVALID_OPERATION);
    EXPECT_EQ(camera->stop(), RESULT_INVALID_OPERATION);
    EXPECT_EQ(camera->release(), RESULT_INVALID_OPERATION);
    EXPECT_EQ(camera->setProperty(make_property_32s("amplitude_threshold", 20)), RESULT_INVALID_OPERATION);
    EXPECT_EQ(std::get<0>(camera->getProperty("amplitude_threshold")), RESULT_INVALID_OPERATION);
    EXPECT_EQ(std::get<0>(camera->getProperties("fw_info")), RESULT_INVALID_OPERATION);
    RecordingSink late;
    EXPECT_EQ(camera->addSink(&late), RESULT_INVALID_OPERATION);
    EXPECT_EQ(destroy_camera(camera), RESULT_INVALID_OPERATION);
    EXPECT_EQ(destroy_camera(nullptr), RESULT_INVALID_PARAMETER);
    const auto again = open(0);
    EXPECT_NE(again, camera);
    EXPECT_EQ(destroy_camera(again), RESULT_SUCCESS);
}

// --- Listeners and sinks, and callbacks that call back into the camera.

constexpr auto kDeadlockLimit = 30s;

// Runs `work` on a thread of its own and ends the test process if it is still busy after the
// limit, so that a deadlock is reported at once instead of hanging the run.
void without_deadlock(const std::function<void()>& work) {
    auto done = std::async(std::launch::async, work);
    if (done.wait_for(kDeadlockLimit) != std::future_status::ready) {
        ADD_FAILURE() << "deadlock: still blocked after " << kDeadlockLimit.count() << " s";
        std::fflush(stdout);
        std::_Exit(1);
    }
}

struct PreparedLog : LumoraCamera::PreparedListener, Recorded<LumoraCamera*> {
    void onLumoraCameraPrepared(LumoraCamera* camera) override { add(camera); }
};

TEST_F(CameraTest, ListenersHearEveryCameraAndSinksTheirOwnWhileAdded) {
    PreparedLog prepared;
    RecordingSink firstSink;
    RecordingSink removed;
    RecordingSink secondSink;
    const auto first = open(0);
    const auto second = open(1);
    ASSERT_EQ(firstSink.watch(first), RESULT_SUCCESS);
    ASSERT_EQ(removed.watch(first), RESULT_SUCCESS);
    ASSERT_EQ(secondSink.watch(second), RESULT_SUCCESS);
    EXPECT_EQ(first->addSink(&firstSink), RESULT_ALREADY_EXISTS);
    EXPECT_EQ(first->addSink(nullptr), RESULT_INVALID_PARAMETER);
    EXPECT_EQ(first->removeSink(&secondSink), RESULT_NOT_FOUND);
    ASSERT_EQ(add_prepared_listener(&prepared), RESULT_SUCCESS);
    for (const auto& camera : {first, second}) {
        ASSERT_EQ(camera->prepare(), RESULT_SUCCESS);
        ASSERT_EQ(camera->run(LumoraFrame::FRAME_DEPTH), RESULT_SUCCESS);
    }
    ASSERT_TRUE(removed.arrivals.waitFor(2));
    ASSERT_TRUE(secondSink.arrivals.waitFor(2));
    EXPECT_EQ(remove_prepared_listener(&prepared), RESULT_SUCCESS);
    const auto cameras = prepared.all();
    ASSERT_EQ(cameras.size(), 2U);
    EXPECT_EQ(std::count(cameras.begin(), cameras.end(), second.get()), 1);

    ASSERT_EQ(first->removeSink(&removed), RESULT_SUCCESS);
    EXPECT_EQ(first->removeSink(&removed), RESULT_NOT_FOUND);
    const std::size_t atRemoval = removed.arrivals.size();
    ASSERT_TRUE(firstSink.arrivals.waitFor(firstSink.arrivals.size() + 4));
    // One delivery may have been under way when the sink was removed.
    EXPECT_LE(removed.arrivals.size(), atRemoval + 1);
    firstSink.close(first);
    EXPECT_EQ(removed.events.all(), (Events{"state 1", "state 3"}));
    EXPECT_EQ(firstSink.events.all(), (Events{"state 1", "state 3", "state 2", "state 0"}));
    // The other camera streams on.
    ASSERT_TRUE(secondSink.arrivals.waitFor(secondSink.arrivals.size() + 3));
    EXPECT_EQ(second->state(), LumoraCamera::STATE_RUNNING);
    secondSink.close(second);
}

TEST_F(CameraTest, FrameCallbackMaySetPropertiesButNotDriveTheLifeCycle) {
    RecordingSink sink;
    const auto camera = open(0);
    std::mutex mutex;
    std::vector<Result> answers;
    std::atomic<int> failures{0};
    std::atomic<int> value{10};
    sink.onFrames = [&](const std::shared_ptr<LumoraFrameList>&) {
        if (camera->setProperty(make_property_32s("amplitude_threshold", value++ % 100 + 10)) != RESULT_SUCCESS) {
            ++failures;
        }
        if (std::get<0>(camera->getProperty("framerate")) != RESULT_SUCCESS) ++failures;
        std::lock_guard<std::mutex> lock(mutex);
        if (answers.empty()) {
            answers = {camera->run(LumoraFrame::FRAME_DEPTH), camera->stop(), camera->release(),
                       destroy_camera(camera)};
        }
    };
    ASSERT_EQ(sink.watch(camera), RESULT_SUCCESS);
    ASSERT_EQ(camera->prepare(), RESULT_SUCCESS);
    // Stopping while frame callbacks set properties must not deadlock.
    without_deadlock([&] {
        for (int cycle = 0; cycle < 5; ++cycle) {
            const std::size_t before = sink.arrivals.size();
            EXPECT_EQ(camera->run(LumoraFrame::FRAME_DEPTH), RESULT_SUCCESS);
            EXPECT_TRUE(sink.arrivals.waitFor(before + 1));
            EXPECT_EQ(camera->stop(), RESULT_SUCCESS);
        }
    });
    EXPECT_EQ(failures.load(), 0);
    EXPECT_EQ(std::get<1>(camera->getProperty("amplitude_threshold"))->getInt32(), (value.load() - 1) % 100 + 10);
    sink.close(camera);
    std::lock_guard<std::mutex> lock(mutex);
    EXPECT_EQ(answers, std::vector<Result>(4, RESULT_INVALID_OPERATION));
}

TEST_F(CameraTest, StateCallbacksMayWaitOnAndOperateTheCameraEvenWhileItIsDestroyed) {
    RecordingSink sink;
    const auto camera = open(0);
    std::mutex mutex;
    std::vector<Result> releases;
    std::atomic<int> helpers{0};
    std::atomic<int> wrongAnswers{0};
    // On each state the sink waits for a thread of its own that uses the camera, and it releases
    // the camera whenever it stops; a listener runs it once prepared. Once the camera is being
    // destroyed they are told so, instead of being kept waiting.
    sink.onState = [&](LumoraCamera::State state) {
        std::thread helper([&] {
            std::this_thread::sleep_for(20ms);
            const Result answer = std::get<0>(camera->getProperty("framerate"));
            if (answer != RESULT_SUCCESS && answer != RESULT_INVALID_OPERATION) ++wrongAnswers;
            ++helpers;
        });
        helper.join();
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
        EXPECT_TRUE(sink.arrivals.waitFor(1));
        EXPECT_EQ(camera->stop(), RESULT_SUCCESS);
        EXPECT_TRUE(sink.events.waitFor(4));
        // The first run may have delivered more than one list before it stopped.
        const std::size_t firstRun = sink.arrivals.size();
        EXPECT_EQ(camera->prepare(), RESULT_SUCCESS);
        EXPECT_TRUE(sink.arrivals.waitFor(firstRun + 1));
        sink.close(camera);
    });
    EXPECT_EQ(remove_prepared_listener(&starter), RESULT_SUCCESS);
    EXPECT_EQ(starter.runs.load(), 2);
    EXPECT_EQ(sink.events.all(),
              (Events{"state 1", "state 3", "state 2", "state 0", "state 1", "state 3", "state 2", "state 0"}));
    EXPECT_EQ(helpers.load(), 8);
    EXPECT_EQ(wrongAnswers.load(), 0);
    std::lock_guard<std::mutex> lock(mutex);
    // The second release came while the camera was being destroyed.
    EXPECT_EQ(releases, (std::vector<Result>{RESULT_SUCCESS, RESULT_INVALID_OPERATION}));
}

// --- The lists delivered: the scene's rendering of each type, properties changed while
// running, their stamps, lists held by sinks, the published calibration, lists and errors
// injected.

TEST_F(CameraTest, ListsHoldTheScenesRenderingOfEachRequestedTypeOnce) {
    RecordingSink sink(100);
    const auto camera = open(0);
    const auto settings = make_properties("settings");
    settings->add(make_property_32s("amplitude_threshold", 25));
    settings->add(make_property_bool("embedded_data_line", true));
    settings->add(make_property_32s("depth_range_max", 4000));
    ASSERT_EQ(camera->setProperties(settings), RESULT_SUCCESS);
    ASSERT_EQ(sink.watch(camera), RESULT_SUCCESS);
    ASSERT_EQ(camera->prepare(), RESULT_SUCCESS);
    sim::SceneSettings rendering;  // and the default data types
    rendering.amplitudeThreshold = 25;
    rendering.fps = 120.0;
    rendering.rangeMin = sim::model_info("QRX100A").rangeMin;
    rendering.rangeMax = 4000;
    rendering.embeddedDataLine = true;
    sim::Scene scene({"QRX100A", 64, 48, rendering.fps, {}}, sim::model_info("QRX100A"));

    const std::uint32_t masks[] = {LumoraFrame::FRAME_DEPTH,
                                   LumoraFrame::FRAME_AMPLITUDE,
                                   LumoraFrame::FRAME_POINTCLOUD,
                                   LumoraFrame::FRAME_INTENSITY_POINTCLOUD,
                                   kAllTypes & ~LumoraFrame::FRAME_AMPLITUDE,
                                   kAllTypes};
    std::int64_t lastFrameNumber = -1;
    std::uint64_t lastTimestamp = 0;
    for (const std::uint32_t mask : masks) {
        SCOPED_TRACE(testing::Message() << "mask " << mask);
        const std::size_t before = sink.kept.size();
        ASSERT_EQ(camera->run(static_cast<int>(mask)), RESULT_SUCCESS);
        ASSERT_TRUE(sink.kept.waitFor(before + 3));
        ASSERT_EQ(camera->stop(), RESULT_SUCCESS);
        const auto kept = sink.kept.all();
        for (std::size_t k = before; k < kept.size(); ++k) {
            const auto& delivered = kept[k];
            sim::SimFrameList expected;
            std::uint32_t types = 0;
            for (std::size_t i = 0; i < delivered->size(); ++i) {
                const auto type = delivered->at(i)->frameType();
                EXPECT_EQ(types & type, 0U) << "two frames of one type";
                types |= type;
                const bool basic = type <= LumoraFrame::FRAME_AMPLITUDE;
                expected.add(std::make_shared<sim::SimFrame>(
                    type, basic ? rendering.basicDataType : rendering.pointCloudDataType, 64, 48));
            }
            EXPECT_EQ(types, mask);
            scene.render(delivered->frameNumber(), delivered->timestamp(), rendering, expected);
            for (std::size_t i = 0; i < delivered->size(); ++i) {
                EXPECT_TRUE(same_frame(*delivered->at(i), *expected.frames()[i]))
                    << "frame " << delivered->frameNumber() << " type " << delivered->at(i)->frameType();
            }
            // Frame numbers and times go on rising across runs.
            EXPECT_GT(delivered->frameNumber(), lastFrameNumber);
            EXPECT_GT(delivered->timestamp(), lastTimestamp);
            lastFrameNumber = delivered->frameNumber();
            lastTimestamp = delivered->timestamp();
        }
    }
    sink.close(camera);
}

TEST_F(CameraTest, DataTypesAndEmbeddedLineFollowPropertiesWhileRunning) {
    RecordingSink sink(400);
    const auto camera = open(0);
    ASSERT_TRUE(stream(sink, camera, kAllTypes));
    ASSERT_TRUE(sink.kept.waitFor(2));
    const auto change = make_properties("change");
    change->add(make_property_32s("depth_data_type", DATA_TYPE_FLOAT32));
    change->add(make_property_32s("pointcloud_data_type", DATA_TYPE_UINT16));
    change->add(make_property_bool("embedded_data_line", true));
    ASSERT_EQ(camera->setProperties(change), RESULT_SUCCESS);
    const std::size_t changedAt = sink.kept.size();
    ASSERT_TRUE(sink.kept.waitFor(changedAt + 4));
    const std::size_t beforeLineOff = sink.kept.size();
    ASSERT_EQ(camera->setProperty(make_property_bool("embedded_data_line", false)), RESULT_SUCCESS);
    const std::size_t lineOffAt = sink.kept.size();
    ASSERT_TRUE(sink.kept.waitFor(lineOffAt + 4));
    sink.close(camera);

    const auto kept = sink.kept.all();
    const auto switched = [&](std::size_t i) {
        return find_frame(kept[i], LumoraFrame::FRAME_DEPTH)->dataType() == DATA_TYPE_FLOAT32;
    };
    const auto hasLine = [&](std::size_t i) {
        return std::get<0>(kept[i]->at(0)->getProperty("embedded_data_line")) == RESULT_SUCCESS;
    };
    EXPECT_FALSE(switched(0));
    EXPECT_FALSE(hasLine(0));
    // A change of data type shows from one list on; only a list rendered ahead before it may
    // still have the old form. The embedded line follows from the next list handed over.
    EXPECT_TRUE(switched(changedAt + 1));
    for (std::size_t i = 0; i < kept.size(); ++i) {
        EXPECT_TRUE(i == 0 || !switched(i - 1) || switched(i)) << i;
        for (std::size_t f = 0; f < kept[i]->size(); ++f) {
            const auto frame = kept[i]->at(f);
            const bool basic = frame->frameType() <= LumoraFrame::FRAME_AMPLITUDE;
            EXPECT_EQ(frame->dataType() == DATA_TYPE_FLOAT32, basic == switched(i)) << i;
            EXPECT_EQ(std::get<0>(frame->getProperty("embedded_data_line")) == RESULT_SUCCESS, hasLine(i))
                << "all frames of a list carry it or none";
        }
    }
    for (std::size_t i = changedAt; i < beforeLineOff; ++i) {
        EXPECT_TRUE(hasLine(i)) << i;
    }
    for (std::size_t i = lineOffAt; i < kept.size(); ++i) {
        EXPECT_FALSE(hasLine(i)) << i;
    }
}

// The sensor stamps each list at its own deadline: timestamps follow frame numbers at the period.
void expect_sensor_clock(const std::vector<Arrival>& arrivals, std::size_t from, std::size_t to, double fps) {
    for (std::size_t k = from + 1; k < to; ++k) {
        ASSERT_GT(arrivals[k].frameNumber, arrivals[k - 1].frameNumber) << k;
        const double expected = (arrivals[k].frameNumber - arrivals[k - 1].frameNumber) * 1e6 / fps;
        EXPECT_NEAR(static_cast<double>(arrivals[k].timestamp - arrivals[k - 1].timestamp), expected, 1000.0)
            << "list " << k;
    }
}

// A sink that keeps the camera waiting makes it drop the frames in between, and a new frame
// rate takes effect while streaming. (Lists a second against the clock are make bench's.)
TEST_F(CameraTest, StampsFollowTheFrameRateAndASlowSinkMakesTheCameraDropFrames) {
    RecordingSink sink;
    std::atomic<bool> slow{true};
    sink.onFrames = [&](const std::shared_ptr<LumoraFrameList>&) {
        if (slow) std::this_thread::sleep_for(25ms);  // three frame periods
    };
    const auto camera = open(1);
    ASSERT_TRUE(stream(sink, camera, LumoraFrame::FRAME_DEPTH));
    ASSERT_TRUE(sink.arrivals.waitFor(11));
    slow = false;
    const std::size_t atChange = sink.arrivals.size();
    ASSERT_EQ(camera->setProperty(make_property_64f("framerate", 15.0)), RESULT_SUCCESS);
    // One list may already be on its way at the old rate; measure from the one after.
    const std::size_t from = sink.arrivals.size() + 2;
    ASSERT_TRUE(sink.arrivals.waitFor(from + 6));
    sink.close(camera);
    const auto arrivals = sink.arrivals.all();
    EXPECT_GE(arrivals[10].frameNumber - arrivals[0].frameNumber, 10U * 2);
    expect_sensor_clock(arrivals, 0, atChange, 120.0);
    expect_sensor_clock(arrivals, from, arrivals.size(), 15.0);
}

TEST_F(CameraTest, ListsHeldBySinksAreNotRewritten) {
    RecordingSink sink(3);  // its copies show what the held parts were
    const auto camera = open(0);
    ASSERT_EQ(camera->setProperty(make_property_bool("embedded_data_line", true)), RESULT_SUCCESS);
    std::mutex mutex;
    int seen = 0;
    std::shared_ptr<LumoraFrameList> heldList;
    std::shared_ptr<LumoraFrame> heldFrame;
    std::shared_ptr<LumoraProperty> heldLine;
    // The sink keeps a whole list, then one frame of another, then the data line of a third.
    sink.onFrames = [&](const std::shared_ptr<LumoraFrameList>& list) {
        std::lock_guard<std::mutex> lock(mutex);
        if (seen == 0) heldList = list;
        if (seen == 1) heldFrame = find_frame(list, LumoraFrame::FRAME_DEPTH);
        if (seen == 2) heldLine = std::get<1>(list->at(0)->getProperty("embedded_data_line"));
        ++seen;
    };
    ASSERT_TRUE(stream(sink, camera, kAllTypes));
    // Enough lists that a pool of reusable ones would have come round to the held ones.
    ASSERT_TRUE(sink.arrivals.waitFor(16));
    {
        std::lock_guard<std::mutex> lock(mutex);
        const auto copies = sink.kept.all();
        ASSERT_TRUE(heldLine && copies.size() == 3 && heldList->size() == copies[0]->size());
        const auto copy = [&](std::size_t list, std::size_t frame) {
            return std::static_pointer_cast<sim::SimFrame>(copies[list]->at(frame));
        };
        for (std::size_t i = 0; i < heldList->size(); ++i) {
            EXPECT_TRUE(same_frame(*heldList->at(i), *copy(0, i))) << i;
        }
        const auto depthCopy = find_frame(copies[1], LumoraFrame::FRAME_DEPTH);
        EXPECT_TRUE(same_frame(*heldFrame, *std::static_pointer_cast<sim::SimFrame>(depthCopy)));
        EXPECT_EQ(heldLine->getBytes(), std::get<1>(copy(2, 0)->getProperty("embedded_data_line"))->getBytes());
        // Let go while streaming: the library may use them again.
        heldList.reset();
        heldFrame.reset();
        heldLine.reset();
    }
    ASSERT_TRUE(sink.arrivals.waitFor(sink.arrivals.size() + 6));
    sink.close(camera);
}

// A loop of three: every third list holds the same pictures under fresh stamps and lines;
// each loop is rendered once, again after a change of settings (here the wall, set while
// streaming); a list a sink still holds is not restamped.
TEST_F(CameraTest, LoopDeliversItsListsAgainRestampedAndRendersEachOnce) {
    RecordingSink sink(40);
    const auto camera = open(0);
    ASSERT_EQ(camera->setProperty(make_property_32s("sim_loop", 3)), RESULT_SUCCESS);
    ASSERT_EQ(camera->setProperty(make_property_bool("embedded_data_line", true)), RESULT_SUCCESS);
    std::mutex mutex;
    std::shared_ptr<LumoraFrameList> held;
    sink.onFrames = [&](const std::shared_ptr<LumoraFrameList>& list) {
        std::lock_guard<std::mutex> lock(mutex);
        if (!held) held = list;
    };
    const std::uint64_t rendered = sim::Scene::renderedLists();
    ASSERT_TRUE(stream(sink, camera, kAllTypes));
    ASSERT_TRUE(sink.kept.waitFor(12));
    const std::size_t beforeChange = sink.kept.size();
    ASSERT_EQ(camera->setProperty(make_property_string("sim_scene", "wall:1000")), RESULT_SUCCESS);
    const std::size_t changedAt = sink.kept.size();
    ASSERT_TRUE(sink.kept.waitFor(changedAt + 10));
    ASSERT_EQ(camera->stop(), RESULT_SUCCESS);
    EXPECT_EQ(sim::Scene::renderedLists() - rendered, 6U);

    const auto kept = sink.kept.all();
    const auto wall = [&](std::size_t k) {
        const auto depth = frame_cast_basic16u(find_frame(kept[k], LumoraFrame::FRAME_DEPTH));
        return std::all_of(depth.data(), depth.data() + depth.size(), [](int d) { return std::abs(d - 1000) < 60; });
    };
    // The wall shows from the list after the one rendered ahead of the change, at the latest.
    std::size_t wallFrom = 0;
    while (wallFrom < kept.size() && !wall(wallFrom))
        ++wallFrom;
    EXPECT_GE(wallFrom, beforeChange);
    EXPECT_LE(wallFrom, changedAt + 1);
    for (std::size_t k = 0; k < kept.size(); ++k) {
        SCOPED_TRACE(testing::Message() << "list " << k);
        EXPECT_EQ(wall(k), k >= wallFrom);
        for (std::size_t f = 0; f < kept[k]->size(); ++f) {
            const auto line = line_of(*kept[k]->at(f));
            ASSERT_EQ(line.size(), 64U);
            std::uint32_t counter = 0;
            std::uint64_t timestamp = 0;
            std::memcpy(&counter, line.data() + sim::EmbeddedLineLayout::kFrameCounter, sizeof counter);
            std::memcpy(&timestamp, line.data() + sim::EmbeddedLineLayout::kTimestamp, sizeof timestamp);
            EXPECT_EQ(counter, kept[k]->frameNumber());
            EXPECT_EQ(timestamp, kept[k]->timestamp());
        }
        if (k == 0) continue;
        EXPECT_GT(kept[k]->frameNumber(), kept[k - 1]->frameNumber());
        EXPECT_GT(kept[k]->timestamp(), kept[k - 1]->timestamp());
        // The lists of one loop: the room's, then the wall's.
        for (std::size_t j = k < wallFrom ? 0 : wallFrom; j < k; ++j) {
            for (std::size_t f = 0; f < kept[k]->size(); ++f) {
                const auto& a = *kept[k]->at(f);
                const auto& b = *std::static_pointer_cast<sim::SimFrame>(kept[j]->at(f));
                EXPECT_EQ(std::memcmp(a.data(), b.data(), b.byteSize()) == 0, (k - j) % 3 == 0) << "and list " << j;
            }
        }
    }
    std::lock_guard<std::mutex> lock(mutex);
    for (std::size_t f = 0; f < held->size(); ++f) {
        EXPECT_TRUE(same_frame(*held->at(f), *std::static_pointer_cast<sim::SimFrame>(kept[0]->at(f))));
    }
    held.reset();
    sink.close(camera);
}

TEST_F(CameraTest, PublishedCalibrationDescribesTheDeliveredPointCloud) {
    for (const std::size_t index : {0U, 2U}) {
        RecordingSink sink(1);
        const auto camera = open(index);
        const sim::ModelInfo info = sim::model_info(mSources->at(index)->name());
        SCOPED_TRACE(mSources->at(index)->name());
        ASSERT_EQ(camera->lensCount(), info.lensCount);
        DistortionCoefficients distortion;
        IntrinsicParameters intrinsics;
        ExtrinsicParameters extrinsics;
        FieldOfView fov;
        for (int lens = -1; lens <= camera->lensCount(); ++lens) {
            const Result expected = lens >= 0 && lens < camera->lensCount() ? RESULT_SUCCESS : RESULT_OUT_OF_RANGE;
            EXPECT_EQ(camera->getDistortionCoefficients(lens, distortion), expected) << lens;
            EXPECT_EQ(camera->getIntrinsicParameters(lens, intrinsics), expected) << lens;
            EXPECT_EQ(camera->getExtrinsicParameters(lens, extrinsics), expected) << lens;
            EXPECT_EQ(camera->getFieldOfView(lens, fov), expected) << lens;
            if (expected == RESULT_SUCCESS) {
                EXPECT_DOUBLE_EQ(fov.horizontal, info.horizontalFov);
            }
        }
        ASSERT_EQ(camera->getDistortionCoefficients(0, distortion), RESULT_SUCCESS);
        ASSERT_EQ(camera->getIntrinsicParameters(0, intrinsics), RESULT_SUCCESS);

        ASSERT_TRUE(stream(sink, camera, LumoraFrame::FRAME_DEPTH | LumoraFrame::FRAME_POINTCLOUD));
        ASSERT_TRUE(sink.kept.waitFor(1));
        sink.close(camera);
        const auto list = sink.kept.all().front();
        const auto depth = frame_cast_basic16u(find_frame(list, LumoraFrame::FRAME_DEPTH));
        const auto cloud = frame_cast_pcl32f(find_frame(list, LumoraFrame::FRAME_POINTCLOUD));
        ASSERT_TRUE(depth && cloud);
        const std::vector<float> millimetres(depth.data(), depth.data() + depth.size());
        EXPECT_GT(expect_on_rays(millimetres, cloud, distortion, intrinsics), depth.size() / 2);
    }
}

TEST_F(CameraTest, InjectedFrameListsAndErrorsReachTheSinks) {
    RecordingSink sink(200);
    const auto camera = open(0);
    auto depth = sim::make_frame(LumoraFrame::FRAME_DEPTH, DATA_TYPE_UINT16, 64, 48, 777777, 42);
    auto* pixels = static_cast<std::uint16_t*>(sim::frame_data(depth));
    for (std::size_t i = 0; i < depth->elementCount(); ++i)
        pixels[i] = static_cast<std::uint16_t>(1000 + i);
    ASSERT_EQ(sim::set_frame_property(depth, make_property_string("note", "by hand")), RESULT_SUCCESS);
    const auto injected = sim::make_frame_list({depth});
    ASSERT_EQ(sink.watch(camera), RESULT_SUCCESS);

    EXPECT_EQ(sim::inject_frame_list("sim:0", injected), RESULT_NOT_READY);
    EXPECT_EQ(sim::inject_frame_list("sim:1", injected), RESULT_NOT_FOUND);
    ASSERT_EQ(camera->prepare(), RESULT_SUCCESS);
    EXPECT_EQ(sim::inject_error("sim:0", RESULT_TIMEOUT), RESULT_SUCCESS);
    ASSERT_TRUE(sink.events.waitFor(2));
    ASSERT_EQ(camera->run(LumoraFrame::FRAME_DEPTH | LumoraFrame::FRAME_AMPLITUDE), RESULT_SUCCESS);
    ASSERT_TRUE(sink.kept.waitFor(2));
    EXPECT_EQ(sim::inject_frame_list("sim:0", nullptr), RESULT_INVALID_PARAMETER);
    ASSERT_EQ(sim::inject_frame_list("sim:0", injected), RESULT_SUCCESS);
    ASSERT_TRUE(sink.arrivals.waitFor(sink.arrivals.size() + 4));
    EXPECT_EQ(sim::inject_error("sim:0", RESULT_FAIL), RESULT_SUCCESS);
    ASSERT_TRUE(sink.events.waitFor(4));
    sink.close(camera);
    EXPECT_EQ(sim::inject_frame_list("sim:0", injected), RESULT_NOT_FOUND);
    EXPECT_EQ(sim::inject_error("sim:0", RESULT_FAIL), RESULT_NOT_FOUND);

    EXPECT_EQ(sink.events.all(), (Events{"state 1", "error 22", "state 3", "error 1", "state 2", "state 0"}));
    const auto kept = sink.kept.all();
    const auto injectedNumber = [](const auto& list) { return list->frameNumber() == 777777U; };
    ASSERT_EQ(std::count_if(kept.begin(), kept.end(), injectedNumber), 1);
    const auto delivered = *std::find_if(kept.begin(), kept.end(), injectedNumber);
    ASSERT_EQ(delivered->size(), 1U);
    EXPECT_TRUE(same_frame(*delivered->at(0), *std::static_pointer_cast<sim::SimFrame>(depth)));
    EXPECT_EQ(std::get<1>(delivered->at(0)->getProperty("note"))->getString(""), "by hand");
    // Rendered lists go on around it, in their own numbering.
    EXPECT_EQ(kept.back()->size(), 2U);
    EXPECT_LT(kept.back()->frameNumber(), 777777U);
}

// --- Devices plugged in and unplugged while the library runs.

struct Announcement {
    bool attached;
    std::string uri;
    std::string name;
    std::string serialNumber;
    std::thread::id thread;
};

// What a source listener hears, from its construction to its destruction.
struct SourceLog : LumoraSource::Listener, Recorded<Announcement> {
    SourceLog() { EXPECT_EQ(add_source_listener(this), RESULT_SUCCESS); }
    ~SourceLog() override { remove_source_listener(this); }
    SourceLog(const SourceLog&) = delete;
    SourceLog& operator=(const SourceLog&) = delete;

    std::function<void(LumoraSource*)> onAttached;  // runs inside the callback
    void onAttachedLumoraSource(LumoraSource* source) override {
        if (onAttached) onAttached(source);
        record(true, source);
    }
    void onDetachedLumoraSource(LumoraSource* source) override { record(false, source); }
    void record(bool attached, LumoraSource* source) {
        add({attached, source->uri(), source->name(), source->serialNumber(), std::this_thread::get_id()});
    }
};

Result attach(const std::string& entry) { return set_property(make_property_string("sim_attach", entry)); }
Result detach(int number) { return set_property(make_property_32s("sim_detach", number)); }

TEST_F(CameraTest, AttachedDeviceIsAnnouncedOnALibraryThreadAndCanBeOpened) {
    SourceLog log;
    EXPECT_EQ(add_source_listener(&log), RESULT_ALREADY_EXISTS);
    EXPECT_EQ(add_source_listener(nullptr), RESULT_INVALID_PARAMETER);
    // A listener may open the new device from its callback.
    std::shared_ptr<LumoraCamera> opened;
    log.onAttached = [&](LumoraSource* source) {
        if (!opened) opened = create_camera(search_camera_source()->find(source->uri()));
    };
    ASSERT_EQ(attach("QRX100A:320x240@15"), RESULT_SUCCESS);
    ASSERT_TRUE(log.waitFor(1));
    const auto first = log.all().front();
    EXPECT_TRUE(first.attached);
    EXPECT_NE(first.thread, std::this_thread::get_id());
    EXPECT_EQ(search_camera_source()->find("sim:3")->serialNumber(), first.serialNumber);
    EXPECT_NE(mSources->at(0)->serialNumber(), first.serialNumber);
    const std::string devices = std::get<1>(get_property("sim_devices"))->getString("");
    EXPECT_NE(devices.find("QRX100A:320x240@15"), std::string::npos) << devices;
    ASSERT_NE(opened, nullptr);
    EXPECT_EQ(opened->source()->uri(), "sim:3");
    EXPECT_EQ(std::get<1>(opened->getProperty("width"))->getInt32(), 320);
    EXPECT_DOUBLE_EQ(std::get<1>(opened->getProperty("framerate"))->getDouble(), 15.0);
    EXPECT_EQ(destroy_camera(opened), RESULT_SUCCESS);

    // Malformed entries plug in nothing and use up no number.
    EXPECT_EQ(attach("QRX100A:1x1"), RESULT_INVALID_PARAMETER);
    EXPECT_EQ(attach(""), RESULT_INVALID_PARAMETER);
    ASSERT_EQ(attach("T100K"), RESULT_SUCCESS);
    ASSERT_TRUE(log.waitFor(2));
    const auto second = log.all()[1];
    EXPECT_EQ(second.uri, "sim:4");
    EXPECT_EQ(second.name, "T100K");
    EXPECT_EQ(second.thread, first.thread) << "announcements come from one library thread";
}

TEST_F(CameraTest, DetachedDeviceIsGoneAndRemovedListenersHearNothingMore) {
    SourceLog log;
    SourceLog removed;
    const auto stale = mSources->at(1);
    ASSERT_EQ(detach(1), RESULT_SUCCESS);
    ASSERT_TRUE(log.waitFor(1) && removed.waitFor(1));
    const auto gone = log.all().front();
    EXPECT_FALSE(gone.attached);
    EXPECT_EQ(gone.uri, "sim:1");
    EXPECT_EQ(gone.name, "QRX200AP");
    EXPECT_EQ(gone.serialNumber, stale->serialNumber());
    EXPECT_NE(gone.thread, std::this_thread::get_id());
    ASSERT_EQ(remove_source_listener(&removed), RESULT_SUCCESS);
    EXPECT_EQ(remove_source_listener(&removed), RESULT_NOT_FOUND);

    EXPECT_EQ(search_camera_source()->size(), 2U);
    EXPECT_EQ(search_camera_source()->find("sim:1"), nullptr);
    EXPECT_EQ(stale->uri(), "sim:1") << "the source object stays valid";
    EXPECT_EQ(detach(1), RESULT_NO_SUCH_DEVICE);
    EXPECT_EQ(detach(99), RESULT_NO_SUCH_DEVICE);
    // Listeners are told one after another on one thread: once the remaining one has heard the
    // last announcement, the removed one would have heard the one before.
    ASSERT_EQ(detach(2), RESULT_SUCCESS);
    ASSERT_EQ(detach(0), RESULT_SUCCESS);
    ASSERT_TRUE(log.waitFor(3));
    EXPECT_EQ(removed.size(), 1U);
}

// The answers of an unplugged camera that the shell's commands do not show.
TEST_F(CameraTest, UnpluggedCameraIsStoppedAndReleasedAndOnlyARunningOneReportsTheLoss) {
    RecordingSink running;
    RecordingSink prepared;
    const auto camera = open(0);
    const auto idle = open(1);
    ASSERT_EQ(prepared.watch(idle), RESULT_SUCCESS);
    ASSERT_EQ(idle->prepare(), RESULT_SUCCESS);
    ASSERT_TRUE(stream(running, camera, LumoraFrame::FRAME_DEPTH));
    ASSERT_TRUE(running.arrivals.waitFor(2));

    ASSERT_EQ(detach(0), RESULT_SUCCESS);
    const std::size_t framesAtUnplug = running.arrivals.size();
    ASSERT_EQ(detach(1), RESULT_SUCCESS);
    ASSERT_TRUE(running.events.waitFor(5));
    ASSERT_TRUE(prepared.events.waitFor(2));
    EXPECT_EQ(camera->state(), LumoraCamera::STATE_NOT_PREPARED);
    EXPECT_EQ(camera->prepare(), RESULT_NO_SUCH_DEVICE);
    EXPECT_EQ(camera->release(), RESULT_NO_SUCH_DEVICE);
    EXPECT_EQ(camera->setProperty(make_property_32s("amplitude_threshold", 20)), RESULT_NO_SUCH_DEVICE);
    EXPECT_EQ(std::get<0>(camera->getProperty("width")), RESULT_NO_SUCH_DEVICE);
    EXPECT_EQ(std::get<0>(camera->getProperties("fw_info")), RESULT_NO_SUCH_DEVICE);
    RecordingSink late;
    EXPECT_EQ(camera->addSink(&late), RESULT_NO_SUCH_DEVICE);

    running.close(camera);
    prepared.close(idle);
    EXPECT_EQ(running.arrivals.size(), framesAtUnplug) << "frames after the device was unplugged";
    EXPECT_EQ(running.events.all(), (Events{"state 1", "state 3", "error 10", "state 2", "state 0"}));
    EXPECT_EQ(prepared.events.all(), (Events{"state 1", "state 0"}));
}

}  // namespace
}  // namespace halden::sensor::test
