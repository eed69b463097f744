// Depth quality measured live from a running camera: a camera sink that measures, with the
// same DepthQualityMeter as `lmr quality`, the next N lists for whoever asks and waits (the
// shell's `get depth_quality`), and a rolling window of the last N lists whose figures it hands
// over once a second (the web view's Measure). It never holds the camera up.
#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include <halden/sensor/Lumora.h>

#include "quality/DepthQuality.h"
#include "quality/Roi.h"

namespace lumora::quality {

// What a measurement of the next lists gave: the figures, or why there are none.
struct LiveResult {
    // RESULT_SUCCESS with `quality`; otherwise the failure, and `why` says it in one line.
    halden::sensor::Result result = halden::sensor::RESULT_SUCCESS;
    std::string why;
    Quality quality;
    // The camera measured: "QRX100A LM0536240000".
    std::string camera;
};

// What the rolling window hands over once a second.
struct LiveFigures {
    Quality quality;  // its ROI in the frame's pixels
    std::size_t window = kDefaultLists;
    // Why the lists that came could not be measured (no depth, no rays, an ROI outside the
    // frame); empty when they were.
    std::string problem;
};

// Threads: the camera library calls the sink and prepared-listener callbacks on its own
// threads; the shell thread calls the settings and measureNext(); any thread (the web view's
// network thread) calls setRolling(). The worker thread, which lives as long as the sink,
// measures and calls the figures listener. The delivery thread never waits beyond a 1 ms push.
class LiveQuality : public halden::sensor::LumoraSink, public halden::sensor::LumoraCamera::PreparedListener {
public:
    using FiguresListener = std::function<void(const LiveFigures&)>;

    // Starts the worker thread.
    LiveQuality();
    // Stops and joins the worker; the queued lists are freed.
    ~LiveQuality() override;
    LiveQuality(const LiveQuality&) = delete;
    LiveQuality& operator=(const LiveQuality&) = delete;

    // "LiveQuality". The state and error callbacks do nothing: a measurement that gets no
    // more lists ends by its own wait.
    std::string name() const override;
    void onLumoraCameraState(halden::sensor::LumoraSource* source, halden::sensor::LumoraCamera::State state) override;
    void onLumoraCameraError(halden::sensor::LumoraSource* source, halden::sensor::Result error) override;
    // The delivery thread. With nothing to measure, returns at once; otherwise copies, for
    // each measurement, the ROI of the list's depth (else point cloud) and amplitude, and
    // queues them for the worker (dropped, and counted, when the queue stays full for 1 ms).
    void onLumoraFrameList(halden::sensor::LumoraSource* source,
                           const std::shared_ptr<halden::sensor::LumoraFrameList>& frameList) override;
    // A library thread: lens 0's calibration, the rays of the depth measured from now on.
    void onLumoraCameraPrepared(halden::sensor::LumoraCamera* camera) override;

    // Settings, any thread; each change starts the rolling window afresh. The ROI is that of
    // measureNext() alone; the lists (N, 2 to kMaxLists: false and nothing changed otherwise)
    // and the true distance (none, or above 0) are both measurements'.
    void setRoi(const RoiRequest& roi);
    RoiRequest roi() const;
    bool setLists(std::size_t lists);
    std::size_t lists() const;
    bool setTruth(std::optional<double> truthMm);
    std::optional<double> truth() const;

    // Shell thread: measures the next lists() lists that `camera` (not owned) delivers to this
    // sink and waits for them. Fails at once when the camera is not running (invalid
    // operation) or runs without depth and point clouds (not found); after the wait when the
    // ROI lies outside the frame (out of range), there are no rays for the depth (fail), no
    // list held enough valid pixels for a plane (fail), or no list was measured for `stall`
    // (timeout; not found when the lists that came held no depth and no point cloud). Logs at
    // information level the lists dropped at the queue meanwhile.
    LiveResult measureNext(const halden::sensor::LumoraCamera* camera, std::chrono::steady_clock::duration stall);

    // Any thread: measures the last lists() lists over `roi` from now on, afresh, or nothing
    // more (std::nullopt). Returns at once.
    void setRolling(const std::optional<RoiRequest>& roi);
    // Any thread: the rolling window's figures go to `listener` on the worker thread, once a
    // second while lists come; an empty one stops them. Returns once a call under way has ended.
    void setFiguresListener(FiguresListener listener);

private:
    struct Worker;
    std::unique_ptr<Worker> mWorker;
};

}  // namespace lumora::quality
