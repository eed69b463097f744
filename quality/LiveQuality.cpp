// Design note: the camera library's delivery thread produces. While a measurement is wanted
// (the next N lists someone waits for, the rolling window) it cuts each measurement's ROI out
// of the list's depth (else point cloud) and amplitude and pushes the cuts of the list, as one
// item, into a queue of four, waiting at most 1 ms for room and counting the list as dropped
// otherwise; with nothing wanted it returns at once. The worker thread, started with the sink,
// consumes in order: it feeds each cut to its measurement's meter, ends the measurement of the
// next N lists once they are in (waking the thread that waits for it), and hands the rolling
// window's figures to the listener at most once a second. Every change of what is measured
// moves a generation on; the worker drops cuts made for an older one. Shutdown: the
// destructor stops the queue, which wakes the worker at once, and joins it; the cuts still
// queued are freed with the queue.
#include "quality/LiveQuality.h"

#include <atomic>
#include <cmath>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

#include "pipeline/Queue.h"

namespace lumora::quality {

namespace hs = halden::sensor;
using Clock = std::chrono::steady_clock;

namespace {

constexpr auto kPushWait = std::chrono::milliseconds(1);
// How long the worker waits for a list before it looks whether a window nobody measures any
// more can let its lists go.
constexpr auto kIdleWait = std::chrono::milliseconds(500);
constexpr auto kFiguresInterval = std::chrono::seconds(1);
constexpr std::uint32_t kDepthTypes =
    hs::LumoraFrame::FRAME_DEPTH | hs::LumoraFrame::FRAME_POINTCLOUD | hs::LumoraFrame::FRAME_INTENSITY_POINTCLOUD;
constexpr const char* kNoDepth = "no depth frames and no point cloud in the lists";

template <typename... Args>
std::string printed(const char* pattern, Args... args) {
    char text[256];
    std::snprintf(text, sizeof text, pattern, args...);
    return text;
}

std::string roi_text(const Roi& roi) { return printed("%d,%d %dx%d", roi.x, roi.y, roi.width, roi.height); }

bool same(const Roi& a, const Roi& b) { return a.x == b.x && a.y == b.y && a.width == b.width && a.height == b.height; }

std::size_t sample_bytes(Sample sample) { return sample == Sample::kFloat32 ? 4 : 2; }

// One measurement's ROI of one list: its samples in row order, three planes of them for points.
struct Cut {
    Roi roi;  // in the frame's pixels; empty when it lies outside the frame
    int frameWidth = 0;
    int frameHeight = 0;
    bool points = false;
    Sample depthType = Sample::kUint16;
    Sample amplitudeType = Sample::kUint16;
    std::vector<std::uint8_t> depth;
    std::vector<std::uint8_t> amplitude;  // empty without one
};

void copy_rows(const void* plane, int frameWidth, const Roi& roi, std::size_t bytes, std::uint8_t* out) {
    const auto* in = static_cast<const std::uint8_t*>(plane);
    const std::size_t row = static_cast<std::size_t>(roi.width) * bytes;
    for (int r = 0; r < roi.height; ++r, out += row)
        std::memcpy(out, in + (static_cast<std::size_t>(roi.y + r) * frameWidth + roi.x) * bytes, row);
}

Cut cut_of(const ListView& view, const RoiRequest& request) {
    Cut cut;
    cut.frameWidth = view.width;
    cut.frameHeight = view.height;
    cut.roi = resolve_roi(request, view.width, view.height);
    if (cut.roi.empty()) return cut;
    const std::size_t pixels = static_cast<std::size_t>(cut.roi.width) * static_cast<std::size_t>(cut.roi.height);
    cut.points = view.depth == nullptr;
    cut.depthType = cut.points ? view.pointType : view.depthType;
    const std::size_t bytes = sample_bytes(cut.depthType);
    const std::size_t planes = cut.points ? 3 : 1;
    cut.depth.resize(planes * pixels * bytes);
    const auto* first = static_cast<const std::uint8_t*>(cut.points ? view.points : view.depth);
    for (std::size_t p = 0; p < planes; ++p)
        copy_rows(first + p * view.planeStride * bytes, view.width, cut.roi, bytes,
                  cut.depth.data() + p * pixels * bytes);
    if (view.amplitude != nullptr) {
        cut.amplitudeType = view.amplitudeType;
        const std::size_t amplitudeBytes = sample_bytes(view.amplitudeType);
        cut.amplitude.resize(pixels * amplitudeBytes);
        copy_rows(view.amplitude, view.width, cut.roi, amplitudeBytes, cut.amplitude.data());
    }
    return cut;
}

ListView view_of_cut(const Cut& cut) {
    ListView view;
    view.width = cut.roi.width;
    view.height = cut.roi.height;
    if (cut.points) {
        view.points = cut.depth.data();
        view.pointType = cut.depthType;
        view.planeStride = static_cast<std::size_t>(cut.roi.width) * static_cast<std::size_t>(cut.roi.height);
    } else {
        view.depth = cut.depth.data();
        view.depthType = cut.depthType;
    }
    if (!cut.amplitude.empty()) {
        view.amplitude = cut.amplitude.data();
        view.amplitudeType = cut.amplitudeType;
    }
    return view;
}

// The cuts of one list; generation 0 is no measurement's.
struct Item {
    bool readable = false;  // the list held depth or a point cloud
    std::uint64_t onceGeneration = 0;
    std::uint64_t rollingGeneration = 0;
    Cut once;
    Cut rolling;
};

// A meter with what it was configured for: the worker's own.
struct Meter {
    DepthQualityMeter meter;
    std::uint64_t generation = 0;
    Roi roi;
    int frameWidth = 0;
    int frameHeight = 0;
};

}  // namespace

struct LiveQuality::Worker {
    void loop();
    void takeOnce(const Item& item);
    void takeRolling(const Item& item);
    // Adds the cut to `m`, first configured afresh for it when the generation, the ROI or the
    // frame's size changed.
    static Status add(Meter& m, std::uint64_t generation, const Cut& cut, Settings base);
    // Ends the measurement of the next lists. With `mutex` held.
    void finishOnce(hs::Result result, std::string why, const Quality& quality = {});
    // A rolling window measured afresh from the next list. With `mutex` held.
    void restartRolling() {
        if (rolling) rollingGeneration = ++generation;
    }
    // What the meters need of the settings. With `mutex` held.
    Settings settings() const { return {RoiRequest{}, calibration, truth, lists}; }

    // Guards everything up to the atomics; held only to read or write these, never while
    // measuring.
    mutable std::mutex mutex;
    // Woken at each list measured for the shell and at the end of its measurement.
    std::condition_variable onceProgress;
    RoiRequest roi;
    std::size_t lists = kDefaultLists;
    std::optional<double> truth;
    std::optional<Calibration> calibration;
    // The last generation given out.
    std::uint64_t generation = 0;
    // The measurement of the next lists: its generation (0 when none is under way), the lists
    // measured and those without depth, and its end.
    std::uint64_t onceGeneration = 0;
    std::size_t onceMeasured = 0;
    std::size_t onceUnreadable = 0;
    std::optional<LiveResult> onceResult;
    std::optional<RoiRequest> rolling;
    std::uint64_t rollingGeneration = 0;

    // Read by the delivery thread without the lock, so that it returns at once when nothing is
    // measured.
    std::atomic<bool> onceWanted{false};
    std::atomic<bool> rollingWanted{false};
    std::atomic<std::uint64_t> dropped{0};

    // Held while the listener is called, so that replacing it waits for a call under way.
    std::mutex listenerMutex;
    FiguresListener listener;

    // The worker thread's own.
    Meter once;
    Meter window;
    std::string windowProblem;
    Clock::time_point nextFigures{};

    hs::Queue<Item> queue{4};
    std::thread thread;
};

void LiveQuality::Worker::loop() {
    for (;;) {
        auto [status, item] = queue.pop(kIdleWait);
        if (status == hs::RESULT_INVALID_OPERATION) return;
        if (status == hs::RESULT_SUCCESS) {
            takeOnce(item);
            takeRolling(item);
        }
        if (!rollingWanted.load(std::memory_order_relaxed) && window.generation != 0) window = Meter{};
    }
}

Status LiveQuality::Worker::add(Meter& m, std::uint64_t generation, const Cut& cut, Settings base) {
    if (cut.roi.empty()) return Status::kEmptyRoi;
    if (m.generation != generation || !same(m.roi, cut.roi) || m.frameWidth != cut.frameWidth ||
        m.frameHeight != cut.frameHeight) {
        base.roi = RoiRequest{0, Roi{0, 0, cut.roi.width, cut.roi.height}};
        // The cut's pixel (0, 0) is the frame's (x, y): the same rays, about a principal point
        // moved by as much.
        if (base.calibration) {
            base.calibration->intrinsics.cx -= cut.roi.x;
            base.calibration->intrinsics.cy -= cut.roi.y;
        }
        if (const Status configured = m.meter.configure(base); configured != Status::kOk) return configured;
        m.generation = generation;
        m.roi = cut.roi;
        m.frameWidth = cut.frameWidth;
        m.frameHeight = cut.frameHeight;
    }
    return m.meter.add(view_of_cut(cut));
}

void LiveQuality::Worker::finishOnce(hs::Result result, std::string why, const Quality& quality) {
    onceResult = LiveResult{result, std::move(why), quality, {}};
    onceWanted.store(false, std::memory_order_relaxed);
}

void LiveQuality::Worker::takeOnce(const Item& item) {
    if (item.onceGeneration == 0) return;
    Settings wanted;
    RoiRequest asked;
    {
        const std::lock_guard<std::mutex> lock(mutex);
        if (item.onceGeneration != onceGeneration || onceResult) return;
        if (!item.readable) {
            ++onceUnreadable;
            return;
        }
        wanted = settings();
        asked = roi;
    }
    const Status status = add(once, item.onceGeneration, item.once, wanted);
    std::optional<Quality> quality;
    if (status == Status::kOk && once.meter.lists() >= wanted.lists) {
        quality = once.meter.result();
        quality->roi = once.roi;
    }
    {
        const std::lock_guard<std::mutex> lock(mutex);
        if (status == Status::kEmptyRoi) {
            const Roi given = asked.pixels.value_or(Roi{});
            finishOnce(hs::RESULT_OUT_OF_RANGE,
                       printed("the ROI %s lies outside the %dx%d frame", roi_text(given).c_str(), item.once.frameWidth,
                               item.once.frameHeight));
        } else if (status == Status::kNoRays) {
            finishOnce(hs::RESULT_FAIL, "the camera gives no calibration for the rays of its depth");
        } else if (status != Status::kOk) {
            finishOnce(hs::RESULT_FAIL, status_text(status));
        } else if (quality && !quality->planeAngleDeg.value) {
            finishOnce(hs::RESULT_FAIL,
                       printed("fewer valid pixels than a plane needs (3) in every list: ROI %s, fill rate %.2f %%",
                               roi_text(quality->roi).c_str(), quality->fillRatePct.value.value_or(0.0)));
        } else if (quality) {
            finishOnce(hs::RESULT_SUCCESS, {}, *quality);
        }
        onceMeasured = once.meter.lists();
    }
    onceProgress.notify_all();
    // The lists of an ended measurement go now, not at the next one.
    if (status != Status::kOk || quality) once = Meter{};
}

void LiveQuality::Worker::takeRolling(const Item& item) {
    if (item.rollingGeneration == 0) return;
    Settings wanted;
    {
        const std::lock_guard<std::mutex> lock(mutex);
        if (!rolling || item.rollingGeneration != rollingGeneration) return;
        wanted = settings();
    }
    const Status status = item.readable ? add(window, item.rollingGeneration, item.rolling, wanted) : Status::kBadList;
    if (status == Status::kOk)
        windowProblem.clear();
    else if (!item.readable)
        windowProblem = kNoDepth;
    else if (status == Status::kEmptyRoi)
        windowProblem = "the ROI lies outside the frame";
    else
        windowProblem = status_text(status);
    const auto now = Clock::now();
    if (now < nextFigures) return;
    nextFigures = now + kFiguresInterval;
    LiveFigures figures;
    figures.window = wanted.lists;
    figures.problem = windowProblem;
    if (windowProblem.empty()) {
        figures.quality = window.meter.result();
        figures.quality.roi = window.roi;
    }
    const std::lock_guard<std::mutex> lock(listenerMutex);
    if (listener) listener(figures);
}

LiveQuality::LiveQuality() : mWorker(std::make_unique<Worker>()) {
    mWorker->thread = std::thread([worker = mWorker.get()] { worker->loop(); });
}

LiveQuality::~LiveQuality() {
    mWorker->queue.stop();
    if (mWorker->thread.joinable()) mWorker->thread.join();
}

std::string LiveQuality::name() const { return "LiveQuality"; }

void LiveQuality::onLumoraCameraState(hs::LumoraSource* /*source*/, hs::LumoraCamera::State /*state*/) {}

void LiveQuality::onLumoraCameraError(hs::LumoraSource* /*source*/, hs::Result /*error*/) {}

void LiveQuality::onLumoraFrameList(hs::LumoraSource* /*source*/,
                                    const std::shared_ptr<hs::LumoraFrameList>& frameList) {
    Worker& w = *mWorker;
    if (!w.onceWanted.load(std::memory_order_relaxed) && !w.rollingWanted.load(std::memory_order_relaxed)) return;
    Item item;
    RoiRequest onceRoi;
    std::optional<RoiRequest> rollingRoi;
    {
        const std::lock_guard<std::mutex> lock(w.mutex);
        if (w.onceGeneration != 0 && !w.onceResult) {
            item.onceGeneration = w.onceGeneration;
            onceRoi = w.roi;
        }
        if (w.rolling) {
            item.rollingGeneration = w.rollingGeneration;
            rollingRoi = w.rolling;
        }
    }
    if (item.onceGeneration == 0 && item.rollingGeneration == 0) return;
    ListView view;
    item.readable = frameList && view_of(*frameList, view);
    if (item.readable && item.onceGeneration != 0) item.once = cut_of(view, onceRoi);
    if (item.readable && rollingRoi) item.rolling = cut_of(view, *rollingRoi);
    if (w.queue.push(std::move(item), kPushWait) != hs::RESULT_SUCCESS)
        w.dropped.fetch_add(1, std::memory_order_relaxed);
}

void LiveQuality::onLumoraCameraPrepared(hs::LumoraCamera* camera) {
    if (camera == nullptr) return;
    Calibration lens;
    const bool calibrated = camera->getIntrinsicParameters(0, lens.intrinsics) == hs::RESULT_SUCCESS &&
                            lens.intrinsics.fx > 0.0 && lens.intrinsics.fy > 0.0;
    if (camera->getDistortionCoefficients(0, lens.distortion) != hs::RESULT_SUCCESS) lens.distortion = {};
    const std::lock_guard<std::mutex> lock(mWorker->mutex);
    mWorker->calibration = calibrated ? std::optional<Calibration>(lens) : std::nullopt;
    mWorker->restartRolling();
}

void LiveQuality::setRoi(const RoiRequest& roi) {
    const std::lock_guard<std::mutex> lock(mWorker->mutex);
    mWorker->roi = roi;
}

RoiRequest LiveQuality::roi() const {
    const std::lock_guard<std::mutex> lock(mWorker->mutex);
    return mWorker->roi;
}

bool LiveQuality::setLists(std::size_t lists) {
    if (lists < 2 || lists > kMaxLists) return false;
    const std::lock_guard<std::mutex> lock(mWorker->mutex);
    mWorker->lists = lists;
    mWorker->restartRolling();
    return true;
}

std::size_t LiveQuality::lists() const {
    const std::lock_guard<std::mutex> lock(mWorker->mutex);
    return mWorker->lists;
}

bool LiveQuality::setTruth(std::optional<double> truthMm) {
    if (truthMm && !(*truthMm > 0.0 && std::isfinite(*truthMm))) return false;
    const std::lock_guard<std::mutex> lock(mWorker->mutex);
    mWorker->truth = truthMm;
    mWorker->restartRolling();
    return true;
}

std::optional<double> LiveQuality::truth() const {
    const std::lock_guard<std::mutex> lock(mWorker->mutex);
    return mWorker->truth;
}

LiveResult LiveQuality::measureNext(const hs::LumoraCamera* camera, Clock::duration stall) {
    LiveResult refused;
    if (camera == nullptr || camera->state() != hs::LumoraCamera::STATE_RUNNING) {
        refused.result = hs::RESULT_INVALID_OPERATION;
        refused.why = "the camera is not running";
        return refused;
    }
    if ((camera->wantedFrame() & kDepthTypes) == 0) {
        refused.result = hs::RESULT_NOT_FOUND;
        refused.why = std::string(kNoDepth) + ": run with 2, 8 or 16 in the mask";
        return refused;
    }
    const auto source = camera->source();
    Worker& w = *mWorker;
    const std::uint64_t droppedBefore = w.dropped.load(std::memory_order_relaxed);
    std::unique_lock<std::mutex> lock(w.mutex);
    w.onceGeneration = ++w.generation;
    w.onceMeasured = 0;
    w.onceUnreadable = 0;
    w.onceResult.reset();
    w.onceWanted.store(true, std::memory_order_relaxed);
    std::size_t seen = 0;
    auto progress = Clock::now();
    while (!w.onceResult) {
        w.onceProgress.wait_until(lock, progress + stall);
        if (w.onceResult) break;
        if (w.onceMeasured != seen) {
            seen = w.onceMeasured;
            progress = Clock::now();
        } else if (Clock::now() >= progress + stall) {
            const auto seconds = std::chrono::duration_cast<std::chrono::duration<double>>(stall).count();
            if (seen == 0 && w.onceUnreadable > 0)
                w.finishOnce(hs::RESULT_NOT_FOUND, kNoDepth);
            else
                w.finishOnce(
                    hs::RESULT_TIMEOUT,
                    printed("the lists stopped coming: %zu of %zu measured, none for %.0f s", seen, w.lists, seconds));
        }
    }
    LiveResult result = std::move(*w.onceResult);
    const std::size_t measured = w.onceMeasured;
    w.onceResult.reset();
    w.onceGeneration = 0;
    lock.unlock();
    if (source) result.camera = source->name() + " " + source->serialNumber();
    hs::Log::i(LUMORA_LOG_TAG("LiveQuality"), "depth quality: %zu lists measured, %llu lists dropped at the queue\n",
               measured, static_cast<unsigned long long>(w.dropped.load(std::memory_order_relaxed) - droppedBefore));
    return result;
}

void LiveQuality::setRolling(const std::optional<RoiRequest>& roi) {
    const std::lock_guard<std::mutex> lock(mWorker->mutex);
    mWorker->rolling = roi;
    mWorker->restartRolling();
    mWorker->rollingWanted.store(roi.has_value(), std::memory_order_relaxed);
}

void LiveQuality::setFiguresListener(FiguresListener listener) {
    const std::lock_guard<std::mutex> lock(mWorker->listenerMutex);
    mWorker->listener = std::move(listener);
}

}  // namespace lumora::quality
