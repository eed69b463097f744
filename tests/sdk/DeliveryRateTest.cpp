// Frame delivery against the clock: a 30 fps camera delivers about 30 lists a second, a new
// frame rate takes effect while streaming, and a sink that keeps the camera waiting makes it
// drop frames. Bounds are wide (a fifth either way) so that a loaded machine passes; a
// camera that ignores its rate, or floods, does not.
#include <algorithm>

#include "SimTestSupport.h"

namespace halden::sensor::test {
namespace {

double seconds(Clock::duration duration) { return std::chrono::duration<double>(duration).count(); }

// Lists per second from arrival `from` to arrival `to`.
double rate(const std::vector<Arrival>& arrivals, std::size_t from, std::size_t to) {
    return static_cast<double>(to - from) / seconds(arrivals[to].when - arrivals[from].when);
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

class DeliveryRate : public SimTest {
protected:
    void SetUp() override {
        useDevices(nullptr, 2);
        mCamera = open(1);
        ASSERT_NE(mCamera, nullptr);
        ASSERT_DOUBLE_EQ(std::get<1>(mCamera->getProperty("framerate"))->getDouble(), 30.0);
    }
    void TearDown() override {
        if (mCamera) mSink.close(mCamera);
        SimTest::TearDown();
    }
    void start() {
        ASSERT_EQ(mSink.watch(mCamera), RESULT_SUCCESS);
        ASSERT_EQ(mCamera->prepare(), RESULT_SUCCESS);
        ASSERT_EQ(mCamera->run(LumoraFrame::FRAME_DEPTH), RESULT_SUCCESS);
    }

    RecordingSink mSink;  // a member, so that it outlives the camera, which TearDown destroys
    std::shared_ptr<LumoraCamera> mCamera;
};

TEST_F(DeliveryRate, ThirtyFramesASecond) {
    start();
    ASSERT_TRUE(mSink.arrivals.waitFor(76));
    ASSERT_EQ(mCamera->stop(), RESULT_SUCCESS);
    const auto arrivals = mSink.arrivals.all();
    EXPECT_GT(rate(arrivals, 0, 75), 30.0 * 0.8);
    EXPECT_LT(rate(arrivals, 0, 75), 30.0 * 1.2);
    std::vector<double> gaps;
    for (std::size_t k = 1; k <= 75; ++k)
        gaps.push_back(seconds(arrivals[k].when - arrivals[k - 1].when));
    std::nth_element(gaps.begin(), gaps.begin() + gaps.size() / 2, gaps.end());
    EXPECT_GT(gaps[gaps.size() / 2], 0.8 / 30.0);
    EXPECT_LT(gaps[gaps.size() / 2], 1.2 / 30.0);
    expect_sensor_clock(arrivals, 0, arrivals.size(), 30.0);
    // A sink that keeps up loses hardly any frame.
    EXPECT_LE(arrivals[75].frameNumber - arrivals[0].frameNumber, 75U * 6 / 5);
}

TEST_F(DeliveryRate, NewFrameRateTakesEffectWhileStreaming) {
    start();
    ASSERT_TRUE(mSink.arrivals.waitFor(10));
    EXPECT_EQ(mCamera->setProperty(make_property_64f("framerate", 61.0)), RESULT_OUT_OF_RANGE);
    const std::size_t before = mSink.arrivals.size();
    ASSERT_EQ(mCamera->setProperty(make_property_64f("framerate", 15.0)), RESULT_SUCCESS);
    // One list may already be on its way at the old rate; measure thirty from the one after.
    const std::size_t from = mSink.arrivals.size() + 2;
    ASSERT_TRUE(mSink.arrivals.waitFor(from + 31));
    ASSERT_EQ(mCamera->stop(), RESULT_SUCCESS);
    const auto arrivals = mSink.arrivals.all();
    EXPECT_GT(rate(arrivals, from, from + 30), 15.0 * 0.8);
    EXPECT_LT(rate(arrivals, from, from + 30), 15.0 * 1.2);
    expect_sensor_clock(arrivals, 0, before, 30.0);
    expect_sensor_clock(arrivals, from, from + 31, 15.0);
}

TEST_F(DeliveryRate, SlowSinkMakesTheCameraDropFrames) {
    mSink.onFrames = [](const std::shared_ptr<LumoraFrameList>&) { std::this_thread::sleep_for(100ms); };
    start();
    ASSERT_TRUE(mSink.arrivals.waitFor(16));
    ASSERT_EQ(mCamera->stop(), RESULT_SUCCESS);
    const auto arrivals = mSink.arrivals.all();
    // Lists come as fast as the sink takes them (three frame periods each), and the frames in
    // between are gone.
    EXPECT_LT(rate(arrivals, 0, 15), 10.0 * 1.2);
    EXPECT_GE(arrivals[15].frameNumber - arrivals[0].frameNumber, 15U * 2);
    expect_sensor_clock(arrivals, 0, 16, 30.0);
}

}  // namespace
}  // namespace halden::sensor::test
