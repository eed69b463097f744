// Devices plugged in and unplugged while the library runs: what source listeners hear, and
// what becomes of a camera whose device goes away.
#include "SimTestSupport.h"

namespace halden::sensor::test {
namespace {

struct Announcement {
    bool attached;
    std::string uri;
    std::string name;
    std::string serialNumber;
    std::thread::id thread;
};

struct SourceLog : LumoraSource::Listener, Recorded<Announcement> {
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

class HotplugTest : public SimTest {
protected:
    void SetUp() override {
        useDevices("QRX100A:64x48@120,QRX200AP:32x24@120", 2);
        ASSERT_EQ(add_source_listener(&mLog), RESULT_SUCCESS);
    }
    void TearDown() override {
        EXPECT_EQ(remove_source_listener(&mLog), RESULT_SUCCESS);
        SimTest::TearDown();
    }

    SourceLog mLog;
};

TEST_F(HotplugTest, AttachedDeviceIsAnnouncedOnALibraryThreadAndCanBeOpened) {
    EXPECT_EQ(add_source_listener(&mLog), RESULT_ALREADY_EXISTS);
    EXPECT_EQ(add_source_listener(nullptr), RESULT_INVALID_PARAMETER);
    // A listener may open the new device from its callback.
    std::shared_ptr<LumoraCamera> opened;
    mLog.onAttached = [&](LumoraSource* source) {
        if (!opened) opened = create_camera(search_camera_source()->find(source->uri()));
    };
    ASSERT_EQ(attach("QRX100A:320x240@15"), RESULT_SUCCESS);
    ASSERT_TRUE(mLog.waitFor(1));
    const auto first = mLog.all().front();
    EXPECT_TRUE(first.attached);
    EXPECT_EQ(first.uri, "sim:2");
    EXPECT_NE(first.thread, std::this_thread::get_id());
    const auto list = search_camera_source();
    ASSERT_EQ(list->size(), 3U);
    EXPECT_EQ(list->find("sim:2")->serialNumber(), first.serialNumber);
    EXPECT_NE(list->at(0)->serialNumber(), first.serialNumber);
    const std::string devices = std::get<1>(get_property("sim_devices"))->getString("");
    EXPECT_NE(devices.find("QRX100A:320x240@15"), std::string::npos) << devices;

    ASSERT_NE(opened, nullptr);
    EXPECT_EQ(opened->source()->uri(), "sim:2");
    EXPECT_EQ(std::get<1>(opened->getProperty("width"))->getInt32(), 320);
    EXPECT_DOUBLE_EQ(std::get<1>(opened->getProperty("framerate"))->getDouble(), 15.0);
    EXPECT_EQ(destroy_camera(opened), RESULT_SUCCESS);

    // Malformed entries plug in nothing and use up no number.
    EXPECT_EQ(attach("QRX100A:1x1"), RESULT_INVALID_PARAMETER);
    EXPECT_EQ(attach(""), RESULT_INVALID_PARAMETER);
    ASSERT_EQ(attach("T100K"), RESULT_SUCCESS);
    ASSERT_TRUE(mLog.waitFor(2));
    const auto second = mLog.all()[1];
    EXPECT_EQ(second.uri, "sim:3");
    EXPECT_EQ(second.name, "T100K");
    EXPECT_EQ(second.thread, first.thread) << "announcements come from one library thread";
}

TEST_F(HotplugTest, DetachedDeviceIsGoneAndRemovedListenersHearNothingMore) {
    SourceLog removed;
    ASSERT_EQ(add_source_listener(&removed), RESULT_SUCCESS);
    const auto stale = search_camera_source()->find("sim:1");
    ASSERT_EQ(detach(1), RESULT_SUCCESS);
    ASSERT_TRUE(mLog.waitFor(1) && removed.waitFor(1));
    const auto gone = mLog.all().front();
    EXPECT_FALSE(gone.attached);
    EXPECT_EQ(gone.uri, "sim:1");
    EXPECT_EQ(gone.name, "QRX200AP");
    EXPECT_EQ(gone.serialNumber, stale->serialNumber());
    EXPECT_NE(gone.thread, std::this_thread::get_id());
    ASSERT_EQ(remove_source_listener(&removed), RESULT_SUCCESS);
    EXPECT_EQ(remove_source_listener(&removed), RESULT_NOT_FOUND);

    EXPECT_EQ(search_camera_source()->size(), 1U);
    EXPECT_EQ(search_camera_source()->find("sim:1"), nullptr);
    // The source object stays valid, but no camera can be made from it.
    EXPECT_EQ(stale->uri(), "sim:1");
    EXPECT_EQ(create_camera(stale), nullptr);
    EXPECT_EQ(detach(1), RESULT_NO_SUCH_DEVICE);
    EXPECT_EQ(detach(99), RESULT_NO_SUCH_DEVICE);
    // The number of a detached device is not reused.
    ASSERT_EQ(attach("QRX200AP:32x24"), RESULT_SUCCESS);
    ASSERT_EQ(detach(2), RESULT_SUCCESS);
    // Listeners are told one after another on one thread: once the remaining one has heard the
    // last announcement, the removed one would have heard the one before.
    ASSERT_TRUE(mLog.waitFor(3));
    EXPECT_EQ(mLog.all()[1].uri, "sim:2");
    EXPECT_EQ(removed.size(), 1U);
}

TEST_F(HotplugTest, UnpluggedCameraIsStoppedAndReleasedAndOnlyARunningOneReportsTheLoss) {
    RecordingSink running;
    RecordingSink prepared;
    const auto camera = open(0);
    const auto idle = open(1);
    ASSERT_EQ(running.watch(camera), RESULT_SUCCESS);
    ASSERT_EQ(prepared.watch(idle), RESULT_SUCCESS);
    ASSERT_EQ(idle->prepare(), RESULT_SUCCESS);
    ASSERT_EQ(camera->prepare(), RESULT_SUCCESS);
    ASSERT_EQ(camera->run(LumoraFrame::FRAME_DEPTH), RESULT_SUCCESS);
    ASSERT_TRUE(running.arrivals.waitFor(2));

    ASSERT_EQ(detach(0), RESULT_SUCCESS);
    const std::size_t framesAtUnplug = running.arrivals.size();
    ASSERT_EQ(detach(1), RESULT_SUCCESS);
    ASSERT_TRUE(running.events.waitFor(5));
    ASSERT_TRUE(prepared.events.waitFor(2));
    EXPECT_EQ(running.events.all(), (Events{"state 1", "state 3", "error 10", "state 2", "state 0"}));
    ASSERT_TRUE(mLog.waitFor(2));

    EXPECT_EQ(camera->state(), LumoraCamera::STATE_NOT_PREPARED);
    EXPECT_EQ(camera->prepare(), RESULT_NO_SUCH_DEVICE);
    EXPECT_EQ(camera->run(LumoraFrame::FRAME_DEPTH), RESULT_NO_SUCH_DEVICE);
    EXPECT_EQ(idle->run(LumoraFrame::FRAME_DEPTH), RESULT_NO_SUCH_DEVICE);
    EXPECT_EQ(camera->stop(), RESULT_NO_SUCH_DEVICE);
    EXPECT_EQ(camera->release(), RESULT_NO_SUCH_DEVICE);
    EXPECT_EQ(camera->setProperty(make_property_32s("amplitude_threshold", 20)), RESULT_NO_SUCH_DEVICE);
    EXPECT_EQ(std::get<0>(camera->getProperty("width")), RESULT_NO_SUCH_DEVICE);
    EXPECT_EQ(std::get<0>(camera->getProperties("fw_info")), RESULT_NO_SUCH_DEVICE);
    RecordingSink late;
    EXPECT_EQ(camera->addSink(&late), RESULT_NO_SUCH_DEVICE);

    running.close(camera);
    prepared.close(idle);
    EXPECT_EQ(running.arrivals.size(), framesAtUnplug) << "frames after the device was unplugged";
    EXPECT_EQ(camera->prepare(), RESULT_INVALID_OPERATION);
    EXPECT_EQ(running.events.size(), 5U);
    EXPECT_EQ(prepared.events.all(), (Events{"state 1", "state 0"}));
}

}  // namespace
}  // namespace halden::sensor::test
