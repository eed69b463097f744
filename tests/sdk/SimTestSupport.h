// What the tests of the simulated library share: bounded waits on what library threads
// record, a sink that records one camera's callbacks, and the device list a test starts from.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <halden/sensor/Lumora.h>
#include <halden/sensor/sim/SimControl.h>

#include "SimFrame.h"

namespace halden::sensor::test {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;
using Events = std::vector<std::string>;

// Waits are bounded so that a broken library fails the test instead of hanging it; the bound
// is generous for the sanitizer builds.
inline constexpr auto kPatience = 10s;
inline constexpr std::uint32_t kAllTypes = LumoraFrame::FRAME_DEPTH | LumoraFrame::FRAME_AMPLITUDE |
                                           LumoraFrame::FRAME_POINTCLOUD | LumoraFrame::FRAME_INTENSITY_POINTCLOUD;

// Items recorded on library threads, for the test thread to wait on and read.
template <typename T>
class Recorded {
public:
    void add(T item) {
        std::lock_guard<std::mutex> lock(mMutex);
        mItems.push_back(std::move(item));
        mChanged.notify_all();
    }
    // False when fewer than `count` items came within the patience.
    bool waitFor(std::size_t count) {
        std::unique_lock<std::mutex> lock(mMutex);
        return mChanged.wait_for(lock, kPatience, [&] { return mItems.size() >= count; });
    }
    std::vector<T> all() {
        std::lock_guard<std::mutex> lock(mMutex);
        return mItems;
    }
    std::size_t size() {
        std::lock_guard<std::mutex> lock(mMutex);
        return mItems.size();
    }

private:
    std::mutex mMutex;
    std::condition_variable mChanged;
    std::vector<T> mItems;
};

struct Arrival {
    Clock::time_point when;
    std::uint32_t frameNumber;
    std::uint64_t timestamp;
};

// Records what one camera tells it: events ("prepared", "state N", "error N"), the arrival of
// every frame list, and copies of the first `keep` lists. Hooks run inside the callbacks and
// are set before the sink is added. A callback after close(), from another camera, or
// overlapping another state callback counts as a fault.
class RecordingSink : public LumoraSink, public LumoraCamera::PreparedListener {
public:
    explicit RecordingSink(std::size_t keep = 0) : mKeep(keep) {}

    std::function<void(LumoraCamera::State)> onState;
    std::function<void(const std::shared_ptr<LumoraFrameList>&)> onFrames;
    Recorded<std::string> events;
    Recorded<Arrival> arrivals;
    Recorded<std::shared_ptr<LumoraFrameList>> kept;

    Result watch(const std::shared_ptr<LumoraCamera>& camera) {
        mCamera = camera.get();
        mSource = camera->source().get();
        return camera->addSink(this);
    }
    // Destroys the camera and checks that the sink hears nothing more of it.
    void close(const std::shared_ptr<LumoraCamera>& camera) {
        EXPECT_EQ(destroy_camera(camera), RESULT_SUCCESS);
        mClosed = true;
        std::this_thread::sleep_for(50ms);  // several frame periods for a stray callback to show
        EXPECT_EQ(mFaults.load(), 0);
    }

    std::string name() const override { return "recording"; }
    void onLumoraCameraPrepared(LumoraCamera* camera) override {
        note(mInside++ != 0 || camera != mCamera, "prepared");
    }
    void onLumoraCameraState(LumoraSource* source, LumoraCamera::State state) override {
        const bool overlap = mInside++ != 0;
        if (onState) onState(state);
        note(overlap || source != mSource, "state " + std::to_string(state));
    }
    void onLumoraCameraError(LumoraSource* source, Result error) override {
        note(mInside++ != 0 || source != mSource, "error " + std::to_string(error));
    }
    void onLumoraFrameList(LumoraSource* source, const std::shared_ptr<LumoraFrameList>& list) override {
        if (onFrames) onFrames(list);
        if (mClosed || source != mSource || !list) ++mFaults;
        if (!list) return;
        if (kept.size() < mKeep) kept.add(copy_frame_list(list));
        arrivals.add({Clock::now(), list->frameNumber(), list->timestamp()});
    }

private:
    // Stays a little while inside, so that overlapping callbacks would meet.
    void note(bool fault, const std::string& event) {
        std::this_thread::sleep_for(1ms);
        if (fault || mClosed) ++mFaults;
        events.add(event);
        --mInside;
    }

    const std::size_t mKeep;
    LumoraCamera* mCamera = nullptr;
    LumoraSource* mSource = nullptr;
    std::atomic<bool> mClosed{false};
    std::atomic<int> mInside{0};
    std::atomic<int> mFaults{0};
};

// Points LUMORA_SIM_DEVICES at `devices` (unset for null) and has the library read it again.
inline std::shared_ptr<LumoraSourceList> use_devices(const char* devices) {
    // NOLINTNEXTLINE(concurrency-mt-unsafe): no library thread reads the environment
    devices != nullptr ? setenv("LUMORA_SIM_DEVICES", devices, 1) : unsetenv("LUMORA_SIM_DEVICES");
    EXPECT_EQ(sim::reset_devices(), RESULT_SUCCESS);
    return search_camera_source();
}

// Starts from its own devices and fails a test that leaves a camera open.
class SimTest : public testing::Test {
protected:
    void useDevices(const char* devices, std::size_t count) {
        mSources = use_devices(devices);
        ASSERT_NE(mSources, nullptr);
        ASSERT_EQ(mSources->size(), count);
    }
    void TearDown() override { EXPECT_EQ(sim::reset_devices(), RESULT_SUCCESS) << "a camera was left open"; }
    std::shared_ptr<LumoraCamera> open(std::size_t index) {
        auto camera = create_camera(mSources->at(index));
        EXPECT_NE(camera, nullptr);
        return camera;
    }
    // Has `sink` watch the camera, then prepares it and runs it with `mask`; false when any
    // of them is refused.
    static bool stream(RecordingSink& sink, const std::shared_ptr<LumoraCamera>& camera, std::uint32_t mask) {
        return sink.watch(camera) == RESULT_SUCCESS && camera->prepare() == RESULT_SUCCESS &&
               camera->run(static_cast<int>(mask)) == RESULT_SUCCESS;
    }

    std::shared_ptr<LumoraSourceList> mSources;
};

// The frame's embedded data line; none is empty.
inline std::vector<std::uint8_t> line_of(const LumoraFrame& frame) {
    const auto property = std::get<1>(frame.getProperty("embedded_data_line"));
    return property ? property->getBytes() : std::vector<std::uint8_t>{};
}

// Same size, stamps, data type, planes and embedded data line.
inline bool same_frame(const LumoraFrame& delivered, const sim::SimFrame& expected) {
    return delivered.width() == expected.width() && delivered.height() == expected.height() &&
           delivered.frameNumber() == expected.frameNumber() && delivered.timestamp() == expected.timestamp() &&
           delivered.dataType() == expected.dataType() &&
           std::memcmp(delivered.data(), expected.data(), expected.byteSize()) == 0 &&
           line_of(delivered) == line_of(expected);
}

// Checks a point cloud against its depth in millimetres and the lens model: a missing pixel is
// the point (0, 0, 0), any other lies at its depth and projects back onto its own pixel.
// Returns how many pixels were seen.
inline std::size_t expect_on_rays(const std::vector<float>& depth, const LumoraPointCloud32f& cloud,
                                  const DistortionCoefficients& d, const IntrinsicParameters& k) {
    std::size_t seen = 0;
    std::size_t wrong = 0;
    double worst = 0.0;
    for (int v = 0; v < cloud.height(); ++v) {
        for (int u = 0; u < cloud.width(); ++u) {
            const std::size_t i = static_cast<std::size_t>(v) * cloud.width() + u;
            const double x = cloud.x()[i], y = cloud.y()[i], z = cloud.z()[i];
            if (depth[i] == 0.0F) {
                wrong += x != 0.0 || y != 0.0 || z != 0.0;
                continue;
            }
            ++seen;
            wrong += std::fabs(z * 1000.0 - depth[i]) > 0.01;
            const double a = x / z;
            const double b = y / z;
            const double r2 = a * a + b * b;
            const double radial = 1.0 + r2 * (d.k1 + r2 * (d.k2 + r2 * d.k3));
            const double xd = a * radial + 2.0 * d.p1 * a * b + d.p2 * (r2 + 2.0 * a * a);
            const double yd = b * radial + d.p1 * (r2 + 2.0 * b * b) + 2.0 * d.p2 * a * b;
            worst = std::max({worst, std::fabs(k.fx * (xd + d.skew * yd) + k.cx - u), std::fabs(k.fy * yd + k.cy - v)});
        }
    }
    EXPECT_EQ(wrong, 0U) << "points off their depth, or missing pixels that are not (0, 0, 0)";
    EXPECT_LT(worst, 0.05) << "pixels between a point's projection and its own pixel";
    return seen;
}

}  // namespace halden::sensor::test
