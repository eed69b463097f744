// Frame delivery against the clock: a 30 fps camera delivers about 30 lists a second, a new
// frame rate takes effect while streaming, and a sink that keeps the camera waiting makes it
// drop frames. Bounds are wide (a fifth either way) so that a loaded machine passes; a
// camera that ignores its rate, or floods, does not.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstdlib>
#include <mutex>
#include <thread>
#include <vector>

#include <halden/sensor/Lumora.h>
#include <halden/sensor/sim/SimControl.h>

namespace {

using namespace halden::sensor;
using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

constexpr auto kPatience = 15s;

struct Arrival {
    Clock::time_point when;
    std::uint32_t frameNumber;
    std::uint64_t timestamp;
};

class ArrivalSink : public LumoraSink {
public:
    explicit ArrivalSink(std::chrono::milliseconds delay = 0ms) : mDelay(delay) {}

    std::string name() const override { return "arrivals"; }
    void onLumoraCameraState(LumoraSource*, LumoraCamera::State) override {}
    void onLumoraCameraError(LumoraSource*, Result) override {}
    void onLumoraFrameList(LumoraSource*, const std::shared_ptr<LumoraFrameList>& list) override {
        {
            std::lock_guard<std::mutex> lock(mMutex);
            mArrivals.push_back({Clock::now(), list->frameNumber(), list->timestamp()});
            mChanged.notify_all();
        }
        std::this_thread::sleep_for(mDelay);
    }

    bool waitFor(std::size_t count) {
        std::unique_lock<std::mutex> lock(mMutex);
        return mChanged.wait_for(lock, kPatience, [&] { return mArrivals.size() >= count; });
    }
    std::vector<Arrival> arrivals() {
        std::lock_guard<std::mutex> lock(mMutex);
        return mArrivals;
    }

private:
    const std::chrono::milliseconds mDelay;
    std::mutex mMutex;
    std::condition_variable mChanged;
    std::vector<Arrival> mArrivals;
};

double seconds(Clock::duration duration) { return std::chrono::duration<double>(duration).count(); }

// The sensor stamps each list at its own deadline: timestamps follow frame numbers at the period.
void expect_sensor_clock(const std::vector<Arrival>& arrivals, std::size_t from, std::size_t to, double fps) {
    const double periodUs = 1e6 / fps;
    for (std::size_t k = from + 1; k < to; ++k) {
        ASSERT_GT(arrivals[k].frameNumber, arrivals[k - 1].frameNumber) << k;
        const double expected = (arrivals[k].frameNumber - arrivals[k - 1].frameNumber) * periodUs;
        const auto measured = static_cast<double>(arrivals[k].timestamp - arrivals[k - 1].timestamp);
        EXPECT_NEAR(measured, expected, 1000.0) << "list " << k;
    }
}

class DeliveryRate : public testing::Test {
protected:
    void SetUp() override {
        // NOLINTNEXTLINE(concurrency-mt-unsafe): no library thread reads the environment
        unsetenv("LUMORA_SIM_DEVICES");
        ASSERT_EQ(sim::reset_devices(), RESULT_SUCCESS);
        const auto source = search_camera_source()->find("sim:1");
        ASSERT_NE(source, nullptr);
        mCamera = create_camera(source);
        ASSERT_NE(mCamera, nullptr);
        ASSERT_DOUBLE_EQ(std::get<1>(mCamera->getProperty("framerate"))->getDouble(), 30.0);
    }
    void TearDown() override {
        if (mCamera) {
            EXPECT_EQ(destroy_camera(mCamera), RESULT_SUCCESS);
        }
    }

    void start(LumoraSink& sink) {
        ASSERT_EQ(mCamera->addSink(&sink), RESULT_SUCCESS);
        ASSERT_EQ(mCamera->prepare(), RESULT_SUCCESS);
        ASSERT_EQ(mCamera->run(LumoraFrame::FRAME_DEPTH), RESULT_SUCCESS);
    }

    // Members, so that they outlive the camera, which TearDown destroys.
    ArrivalSink mSink;
    ArrivalSink mSlowSink{100ms};  // three frame periods per list
    std::shared_ptr<LumoraCamera> mCamera;
};

TEST_F(DeliveryRate, ThirtyFramesASecond) {
    start(mSink);
    ASSERT_TRUE(mSink.waitFor(76));
    ASSERT_EQ(mCamera->stop(), RESULT_SUCCESS);
    const auto arrivals = mSink.arrivals();

    const double rate = 75.0 / seconds(arrivals[75].when - arrivals[0].when);
    EXPECT_GT(rate, 30.0 * 0.8);
    EXPECT_LT(rate, 30.0 * 1.2);
    std::vector<double> gaps;
    for (std::size_t k = 1; k <= 75; ++k)
        gaps.push_back(seconds(arrivals[k].when - arrivals[k - 1].when));
    std::nth_element(gaps.begin(), gaps.begin() + gaps.size() / 2, gaps.end());
    const double median = gaps[gaps.size() / 2];
    EXPECT_GT(median, 0.8 / 30.0);
    EXPECT_LT(median, 1.2 / 30.0);
    expect_sensor_clock(arrivals, 0, arrivals.size(), 30.0);
    // A sink that keeps up loses hardly any frame.
    EXPECT_LE(arrivals[75].frameNumber - arrivals[0].frameNumber, 75U * 6 / 5);
}

TEST_F(DeliveryRate, NewFrameRateTakesEffectWhileStreaming) {
    start(mSink);
    ASSERT_TRUE(mSink.waitFor(10));
    EXPECT_EQ(mCamera->setProperty(make_property_64f("framerate", 61.0)), RESULT_OUT_OF_RANGE);
    const std::size_t before = mSink.arrivals().size();
    ASSERT_EQ(mCamera->setProperty(make_property_64f("framerate", 15.0)), RESULT_SUCCESS);
    // One list may already be on its way at the old rate; measure thirty from the one after.
    const std::size_t from = mSink.arrivals().size() + 2;
    ASSERT_TRUE(mSink.waitFor(from + 31));
    ASSERT_EQ(mCamera->stop(), RESULT_SUCCESS);
    const auto arrivals = mSink.arrivals();

    const double rate = 30.0 / seconds(arrivals[from + 30].when - arrivals[from].when);
    EXPECT_GT(rate, 15.0 * 0.8);
    EXPECT_LT(rate, 15.0 * 1.2);
    expect_sensor_clock(arrivals, 0, before, 30.0);
    expect_sensor_clock(arrivals, from, from + 31, 15.0);
}

TEST_F(DeliveryRate, SlowSinkMakesTheCameraDropFrames) {
    start(mSlowSink);
    ASSERT_TRUE(mSlowSink.waitFor(16));
    ASSERT_EQ(mCamera->stop(), RESULT_SUCCESS);
    const auto arrivals = mSlowSink.arrivals();

    // Lists come as fast as the sink takes them, and the frames in between are gone.
    const double rate = 15.0 / seconds(arrivals[15].when - arrivals[0].when);
    EXPECT_LT(rate, 10.0 * 1.2);
    EXPECT_GE(arrivals[15].frameNumber - arrivals[0].frameNumber, 15U * 2);
    expect_sensor_clock(arrivals, 0, 16, 30.0);
}

}  // namespace
