// Devices plugged in and unplugged while the library runs: what source listeners hear, and
// what becomes of a camera whose device goes away.
#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <halden/sensor/Lumora.h>
#include <halden/sensor/sim/SimControl.h>

namespace {

using namespace halden::sensor;
using namespace std::chrono_literals;

constexpr auto kPatience = 10s;  // generous, for the sanitizer builds

struct Announcement {
    bool attached;
    std::string uri;
    std::string name;
    std::string serialNumber;
    std::thread::id thread;
};

class SourceLog : public LumoraSource::Listener {
public:
    // Runs inside onAttachedLumoraSource; set before the listener is added.
    std::function<void(LumoraSource*)> onAttached;

    void onAttachedLumoraSource(LumoraSource* source) override {
        if (onAttached) onAttached(source);
        record(true, source);
    }
    void onDetachedLumoraSource(LumoraSource* source) override { record(false, source); }

    bool waitFor(std::size_t count) {
        std::unique_lock<std::mutex> lock(mMutex);
        return mChanged.wait_for(lock, kPatience, [&] { return mHeard.size() >= count; });
    }
    std::vector<Announcement> heard() {
        std::lock_guard<std::mutex> lock(mMutex);
        return mHeard;
    }

private:
    void record(bool attached, LumoraSource* source) {
        std::lock_guard<std::mutex> lock(mMutex);
        mHeard.push_back({attached, source->uri(), source->name(), source->serialNumber(), std::this_thread::get_id()});
        mChanged.notify_all();
    }

    std::mutex mMutex;
    std::condition_variable mChanged;
    std::vector<Announcement> mHeard;
};

// What a camera's sinks hear, as "state N" and "error N", and how many frame lists came.
class EventSink : public LumoraSink {
public:
    std::string name() const override { return "events"; }
    void onLumoraCameraState(LumoraSource*, LumoraCamera::State state) override {
        record("state " + std::to_string(state));
    }
    void onLumoraCameraError(LumoraSource*, Result error) override { record("error " + std::to_string(error)); }
    void onLumoraFrameList(LumoraSource*, const std::shared_ptr<LumoraFrameList>&) override {
        std::lock_guard<std::mutex> lock(mMutex);
        ++mFrameLists;
        mChanged.notify_all();
    }

    bool waitForEvents(std::size_t count) {
        std::unique_lock<std::mutex> lock(mMutex);
        return mChanged.wait_for(lock, kPatience, [&] { return mEvents.size() >= count; });
    }
    bool waitForFrameLists(std::size_t count) {
        std::unique_lock<std::mutex> lock(mMutex);
        return mChanged.wait_for(lock, kPatience, [&] { return mFrameLists >= count; });
    }
    std::vector<std::string> events() {
        std::lock_guard<std::mutex> lock(mMutex);
        return mEvents;
    }
    std::size_t frameLists() {
        std::lock_guard<std::mutex> lock(mMutex);
        return mFrameLists;
    }

private:
    void record(const std::string& event) {
        std::lock_guard<std::mutex> lock(mMutex);
        mEvents.push_back(event);
        mChanged.notify_all();
    }

    std::mutex mMutex;
    std::condition_variable mChanged;
    std::vector<std::string> mEvents;
    std::size_t mFrameLists = 0;
};

Result attach(const std::string& entry) { return set_property(make_property_string("sim_attach", entry)); }
Result detach(int number) { return set_property(make_property_32s("sim_detach", number)); }

class HotplugTest : public testing::Test {
protected:
    void SetUp() override {
        // NOLINTNEXTLINE(concurrency-mt-unsafe): no library thread reads the environment
        setenv("LUMORA_SIM_DEVICES", "QRX100A:64x48@120,QRX200AP:32x24@120", 1);
        ASSERT_EQ(sim::reset_devices(), RESULT_SUCCESS);
        ASSERT_EQ(add_source_listener(&mLog), RESULT_SUCCESS);
    }
    void TearDown() override {
        EXPECT_EQ(remove_source_listener(&mLog), RESULT_SUCCESS);
        EXPECT_EQ(sim::reset_devices(), RESULT_SUCCESS) << "a camera was left open";
    }

    SourceLog mLog;
};

TEST_F(HotplugTest, AttachedDeviceIsAnnouncedOnALibraryThreadAndCanBeOpened) {
    EXPECT_EQ(add_source_listener(&mLog), RESULT_ALREADY_EXISTS);
    EXPECT_EQ(add_source_listener(nullptr), RESULT_INVALID_PARAMETER);
    // A listener may open the new device from its callback.
    std::shared_ptr<LumoraCamera> opened;
    mLog.onAttached = [&](LumoraSource* source) {
        const auto list = search_camera_source();
        if (list && !opened) opened = create_camera(list->find(source->uri()));
    };

    ASSERT_EQ(attach("QRX100A:320x240@15"), RESULT_SUCCESS);
    ASSERT_TRUE(mLog.waitFor(1));
    const auto first = mLog.heard().front();
    EXPECT_TRUE(first.attached);
    EXPECT_EQ(first.uri, "sim:2");
    EXPECT_EQ(first.name, "QRX100A");
    EXPECT_NE(first.thread, std::this_thread::get_id());

    const auto list = search_camera_source();
    ASSERT_EQ(list->size(), 3U);
    const auto source = list->find("sim:2");
    ASSERT_NE(source, nullptr);
    EXPECT_EQ(source->serialNumber(), first.serialNumber);
    EXPECT_NE(source->serialNumber(), list->at(0)->serialNumber());
    const auto [result, devices] = get_property("sim_devices");
    ASSERT_EQ(result, RESULT_SUCCESS);
    EXPECT_NE(devices->getString("").find("QRX100A:320x240@15"), std::string::npos) << devices->getString("");

    ASSERT_NE(opened, nullptr);
    EXPECT_EQ(opened->source()->uri(), "sim:2");
    EXPECT_EQ(std::get<1>(opened->getProperty("width"))->getInt32(), 320);
    EXPECT_EQ(std::get<1>(opened->getProperty("height"))->getInt32(), 240);
    EXPECT_DOUBLE_EQ(std::get<1>(opened->getProperty("framerate"))->getDouble(), 15.0);
    EXPECT_EQ(destroy_camera(opened), RESULT_SUCCESS);

    // Malformed entries and values of the wrong type plug in nothing and use up no number.
    EXPECT_EQ(attach("QRX100A:1x1"), RESULT_INVALID_PARAMETER);
    EXPECT_EQ(attach(""), RESULT_INVALID_PARAMETER);
    EXPECT_EQ(set_property(make_property_32s("sim_attach", 1)), RESULT_INVALID_PARAMETER);
    ASSERT_EQ(attach("T100K"), RESULT_SUCCESS);
    ASSERT_TRUE(mLog.waitFor(2));
    const auto heard = mLog.heard();
    ASSERT_EQ(heard.size(), 2U);
    EXPECT_EQ(heard[1].uri, "sim:3");
    EXPECT_EQ(heard[1].name, "T100K");
    EXPECT_EQ(heard[1].thread, first.thread) << "announcements come from one library thread";
}

TEST_F(HotplugTest, DetachedDeviceIsGoneAndItsNumberIsNotReused) {
    const auto stale = search_camera_source()->find("sim:1");
    ASSERT_NE(stale, nullptr);
    ASSERT_EQ(detach(1), RESULT_SUCCESS);
    ASSERT_TRUE(mLog.waitFor(1));
    const auto gone = mLog.heard().front();
    EXPECT_FALSE(gone.attached);
    EXPECT_EQ(gone.uri, "sim:1");
    EXPECT_EQ(gone.name, "QRX200AP");
    EXPECT_EQ(gone.serialNumber, stale->serialNumber());
    EXPECT_NE(gone.thread, std::this_thread::get_id());

    const auto list = search_camera_source();
    ASSERT_EQ(list->size(), 1U);
    EXPECT_EQ(list->find("sim:1"), nullptr);
    // The source object stays valid, but no camera can be made from it.
    EXPECT_EQ(stale->uri(), "sim:1");
    EXPECT_EQ(stale->name(), "QRX200AP");
    EXPECT_EQ(create_camera(stale), nullptr);

    EXPECT_EQ(detach(1), RESULT_NO_SUCH_DEVICE);
    EXPECT_EQ(detach(99), RESULT_NO_SUCH_DEVICE);
    EXPECT_EQ(set_property(make_property_string("sim_detach", "0")), RESULT_INVALID_PARAMETER);
    ASSERT_EQ(attach("QRX200AP:32x24"), RESULT_SUCCESS);
    ASSERT_TRUE(mLog.waitFor(2));
    EXPECT_EQ(mLog.heard()[1].uri, "sim:2");
    EXPECT_EQ(search_camera_source()->find("sim:1"), nullptr);
}

TEST_F(HotplugTest, UnpluggingARunningCameraStopsItAndReportsTheLoss) {
    EventSink sink;
    const auto camera = create_camera(search_camera_source()->find("sim:0"));
    ASSERT_NE(camera, nullptr);
    ASSERT_EQ(camera->addSink(&sink), RESULT_SUCCESS);
    ASSERT_EQ(camera->prepare(), RESULT_SUCCESS);
    ASSERT_EQ(camera->run(LumoraFrame::FRAME_DEPTH), RESULT_SUCCESS);
    ASSERT_TRUE(sink.waitForFrameLists(2));

    ASSERT_EQ(detach(0), RESULT_SUCCESS);
    const std::size_t framesAtUnplug = sink.frameLists();
    ASSERT_TRUE(sink.waitForEvents(5));
    EXPECT_EQ(sink.events(), (std::vector<std::string>{"state 1", "state 3", "error 10", "state 2", "state 0"}));
    ASSERT_TRUE(mLog.waitFor(1));
    EXPECT_EQ(mLog.heard().front().uri, "sim:0");
    EXPECT_FALSE(mLog.heard().front().attached);

    EXPECT_EQ(camera->state(), LumoraCamera::STATE_NOT_PREPARED);
    EXPECT_EQ(camera->prepare(), RESULT_NO_SUCH_DEVICE);
    EXPECT_EQ(camera->run(LumoraFrame::FRAME_DEPTH), RESULT_NO_SUCH_DEVICE);
    EXPECT_EQ(camera->stop(), RESULT_NO_SUCH_DEVICE);
    EXPECT_EQ(camera->release(), RESULT_NO_SUCH_DEVICE);
    EXPECT_EQ(camera->setProperty(make_property_32s("amplitude_threshold", 20)), RESULT_NO_SUCH_DEVICE);
    EXPECT_EQ(std::get<0>(camera->getProperty("width")), RESULT_NO_SUCH_DEVICE);
    EXPECT_EQ(std::get<0>(camera->getProperties("fw_info")), RESULT_NO_SUCH_DEVICE);
    EventSink late;
    EXPECT_EQ(camera->addSink(&late), RESULT_NO_SUCH_DEVICE);
    std::this_thread::sleep_for(50ms);  // several frame periods for a stray frame to show
    EXPECT_EQ(sink.frameLists(), framesAtUnplug) << "frames after the device was unplugged";

    EXPECT_EQ(destroy_camera(camera), RESULT_SUCCESS);
    EXPECT_EQ(camera->prepare(), RESULT_INVALID_OPERATION);
    EXPECT_EQ(sink.events().size(), 5U);
    EXPECT_EQ(late.events().size(), 0U);
}

TEST_F(HotplugTest, UnpluggingAPreparedCameraReleasesItWithoutAnError) {
    EventSink sink;
    const auto camera = create_camera(search_camera_source()->find("sim:1"));
    ASSERT_NE(camera, nullptr);
    ASSERT_EQ(camera->addSink(&sink), RESULT_SUCCESS);
    ASSERT_EQ(camera->prepare(), RESULT_SUCCESS);
    ASSERT_EQ(detach(1), RESULT_SUCCESS);
    ASSERT_TRUE(sink.waitForEvents(2));
    EXPECT_EQ(camera->run(LumoraFrame::FRAME_DEPTH), RESULT_NO_SUCH_DEVICE);
    ASSERT_TRUE(mLog.waitFor(1));
    EXPECT_EQ(destroy_camera(camera), RESULT_SUCCESS);
    EXPECT_EQ(sink.events(), (std::vector<std::string>{"state 1", "state 0"}));
}

TEST_F(HotplugTest, RemovedListenerHearsNothing) {
    SourceLog removed;
    ASSERT_EQ(add_source_listener(&removed), RESULT_SUCCESS);
    ASSERT_EQ(attach("QRX100A:16x16"), RESULT_SUCCESS);
    ASSERT_TRUE(removed.waitFor(1));
    ASSERT_EQ(remove_source_listener(&removed), RESULT_SUCCESS);
    EXPECT_EQ(remove_source_listener(&removed), RESULT_NOT_FOUND);
    ASSERT_EQ(detach(2), RESULT_SUCCESS);
    ASSERT_EQ(attach("QRX100A:16x16"), RESULT_SUCCESS);
    // Listeners are told one after another on one thread: once the remaining one has heard both,
    // the removed one would have too.
    ASSERT_TRUE(mLog.waitFor(3));
    EXPECT_EQ(removed.heard().size(), 1U);
    const auto heard = mLog.heard();
    EXPECT_FALSE(heard[1].attached);
    EXPECT_EQ(heard[1].uri, "sim:2");
    EXPECT_EQ(heard[2].uri, "sim:3");
}

}  // namespace
