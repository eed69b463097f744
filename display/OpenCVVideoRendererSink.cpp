// Design note: the library's delivery thread produces copies of its frame lists into a
// queue of four; the render thread, started on camera state 3, consumes them in order,
// converts each into images (ListConversion.cpp) and posts them to the process's GUI thread,
// which shows them in the windows (WindowTable.cpp) and services the windows once per list.
// The render thread converts the next list while the GUI thread shows the last: it keeps two
// lists' images, and waits for the showing of one before it converts into it again. A list
// that finds the queue full for 1 ms is dropped. Shutdown: states 2 and 0 (and destruction)
// stop the queue, which wakes the render thread at once; it waits for the showing under way,
// and is joined; the windows are then closed on the GUI thread.
#include "display/OpenCVVideoRendererSink.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

#include "GuiThread.h"
#include "ListConversion.h"
#include "WindowTable.h"
#include "imaging/ColorMaps.h"
#include "imaging/View.h"
#include "pipeline/Percentile.h"
#include "pipeline/Queue.h"

namespace lumora::display {

namespace hs = halden::sensor;
using imaging::ConversionContext;
using imaging::Projection;
using pipeline::percentile;

namespace {

constexpr auto kPushTimeout = std::chrono::milliseconds(1);
constexpr auto kPopTimeout = std::chrono::seconds(2);
// Titles keep the plain window name until this many lists have been drawn in a run.
constexpr std::uint32_t kTitleAfterLists = 10;

// Delivery-to-window times kept per run, about ten hours at 30 lists a second.
constexpr std::size_t kMaxLatencies = std::size_t{1} << 20U;

// Without windows, a watcher gets pictures of point clouds (the costliest to convert) about
// eleven times a second, so that a page that passes over one now and then still shows ten,
// and those of depth and amplitude from every list.
constexpr auto kWatcherCloudInterval = std::chrono::milliseconds(90);

// Says yes once per interval on average, to calls that come at any steadier rate: each yes
// moves the due time on by one interval, not to the call's time plus one.
class Cadence {
public:
    explicit Cadence(std::chrono::steady_clock::duration interval) : mInterval(interval) {}
    bool take(std::chrono::steady_clock::time_point now) {
        // A call up to a fifth of the interval early counts as on time; one more than an
        // interval late starts the cadence afresh.
        if (now + mInterval / 5 < mDue) return false;
        mDue = now - mDue > mInterval ? now + mInterval : mDue + mInterval;
        return true;
    }

private:
    std::chrono::steady_clock::duration mInterval;
    std::chrono::steady_clock::time_point mDue{};
};

// Lists rendered since the camera last reported running.
std::atomic<std::uint32_t> gRenderedLists{0};

std::string uriOf(hs::LumoraSource* source) { return source != nullptr ? source->uri() : "(null)"; }

}  // namespace

struct OpenCVVideoRendererSink::Renderer {
    // Starts the render thread unless it runs, with a copy of the last calibration.
    void start();
    // Stops and joins the render thread, then drops the lists still queued.
    void stop();
    void loop(const Projection& projection);
    // Converts the list into `draw` (over the images it holds from an earlier list),
    // publishes the pictures, draws the read-out markers and posts the showing of `draw`.
    std::shared_ptr<GuiTask> drawList(const DeliveredList& item, const Projection& projection,
                                      ConversionContext& conversion, imaging::Publisher* publishTo,
                                      WindowTable::Draw& draw);
    void readOutOnConsole(const std::shared_ptr<hs::LumoraFrameList>& list);
    // Replaces `pictures` with the list's pictures at the display resolution, with the
    // windows' read-out points; those of point clouds only `withClouds`.
    void convert(const std::shared_ptr<hs::LumoraFrameList>& list, const Projection& projection,
                 ConversionContext& conversion, bool withClouds, Pictures& pictures);
    std::string fpsText();
    // The frame-rate text and the lists drawn and dropped, for a published status.
    imaging::Status figures();

    std::atomic<bool> display{true};
    WindowTable windows;
    // Written on the delivery thread, read by the render thread; the lock is held only to
    // copy the text.
    std::mutex fpsMutex;
    char fpsBuffer[257] = {};
    std::atomic<int> displayWidth{-1};
    std::atomic<int> displayHeight{-1};
    // The calibration of the camera that last reported prepared; the render thread takes a
    // copy when it starts.
    std::mutex projectionMutex;
    std::unique_ptr<Projection> calibration;
    std::atomic<imaging::Publisher*> publisher{nullptr};
    // Lists delivered, drawn (or read out) and dropped at the queue since construction,
    // logged when the render thread ends, with the run's delivery-to-window times.
    std::atomic<std::uint64_t> delivered{0};
    std::atomic<std::uint64_t> drawn{0};
    std::atomic<std::uint64_t> dropped{0};
    std::thread thread;
    std::atomic<bool> running{false};
    hs::Queue<DeliveredList> queue{4};
};

OpenCVVideoRendererSink::OpenCVVideoRendererSink() : mRenderer(std::make_unique<Renderer>()) {
    imaging::initColorMaps();
}

OpenCVVideoRendererSink::~OpenCVVideoRendererSink() {
    mRenderer->windows.close(true);
    mRenderer->stop();
}

std::string OpenCVVideoRendererSink::name() const { return "OpenCVVideoRendererSink"; }

// The trace lines of the three callbacks below are matched by users' scripts as they are:
// their numbers (224, 388, 434) are fixed parts of the text, not line numbers of this file.
void OpenCVVideoRendererSink::onLumoraCameraState(hs::LumoraSource* source, hs::LumoraCamera::State state) {
    std::printf("%s:%d source(%s) state = %d\n", "onLumoraCameraState", 224, uriOf(source).c_str(),
                static_cast<int>(state));
    switch (state) {
        case hs::LumoraCamera::STATE_PREPARED:
            mRenderer->windows.build(source != nullptr ? source->name() : std::string());
            break;
        case hs::LumoraCamera::STATE_RUNNING:
            gRenderedLists.store(0);
            mRenderer->start();
            start();
            break;
        case hs::LumoraCamera::STATE_STOPPED:
            mRenderer->stop();
            stop();
            mRenderer->windows.close(false);
            break;
        case hs::LumoraCamera::STATE_NOT_PREPARED:
            mRenderer->stop();
            mRenderer->windows.close(true);
            break;
        default:
            break;
    }
}

void OpenCVVideoRendererSink::onLumoraCameraError(hs::LumoraSource* source, hs::Result error) {
    std::printf("%s:%d source(%s) error = %d\n", "onLumoraCameraError", 388, uriOf(source).c_str(),
                static_cast<int>(error));
}

void OpenCVVideoRendererSink::onLumoraCameraPrepared(hs::LumoraCamera* camera) {
    if (camera == nullptr) return;
    const auto source = camera->source();
    std::printf("%s:%d source(%s)\n", "onLumoraCameraPrepared", 434, uriOf(source.get()).c_str());
    auto projection = std::make_unique<Projection>();
    const bool calibrated = camera->getIntrinsicParameters(0, projection->intrinsics) == hs::RESULT_SUCCESS &&
                            projection->intrinsics.fx > 0.0 && projection->intrinsics.fy > 0.0;
    if (camera->getDistortionCoefficients(0, projection->distortion) != hs::RESULT_SUCCESS) projection->distortion = {};
    const std::lock_guard<std::mutex> lock(mRenderer->projectionMutex);
    mRenderer->calibration = calibrated ? std::move(projection) : nullptr;
}

void OpenCVVideoRendererSink::onLumoraFrameList(hs::LumoraSource* source,
                                                const std::shared_ptr<hs::LumoraFrameList>& frameList) {
    const pipeline::FramerateStatus status = countFrame();
    const bool check = isErrorCheck();
    Renderer& renderer = *mRenderer;
    {
        const std::lock_guard<std::mutex> lock(renderer.fpsMutex);
        std::memset(renderer.fpsBuffer, 0, 256);
        if (check && status.errorCount < 1)
            std::snprintf(renderer.fpsBuffer, sizeof renderer.fpsBuffer, "fps : %.2f, check error(%d)",
                          status.frameRate, status.errorCount);
        else if (check)
            std::snprintf(renderer.fpsBuffer, sizeof renderer.fpsBuffer, "fps : %.2f, check error(%d) : %.2f",
                          status.frameRate, status.errorCount, status.errorRate);
        else
            std::snprintf(renderer.fpsBuffer, sizeof renderer.fpsBuffer, "fps : %.2f", status.frameRate);
    }
    renderer.delivered.fetch_add(1, std::memory_order_relaxed);
    const auto delivered = std::chrono::steady_clock::now();
    if (renderer.queue.push({source, hs::copy_frame_list(frameList), delivered}, kPushTimeout) != hs::RESULT_SUCCESS)
        renderer.dropped.fetch_add(1, std::memory_order_relaxed);
}

void OpenCVVideoRendererSink::setDisplay(bool on) { mRenderer->display.store(on); }

bool OpenCVVideoRendererSink::isDisplay() const { return mRenderer->display.load(); }

void OpenCVVideoRendererSink::setDisplayResolution(int width, int height) {
    mRenderer->displayWidth.store(width);
    mRenderer->displayHeight.store(height);
}

std::pair<int, int> OpenCVVideoRendererSink::displayResolution() const {
    return {mRenderer->displayWidth.load(), mRenderer->displayHeight.load()};
}

void OpenCVVideoRendererSink::setPublisher(imaging::Publisher* publisher) { mRenderer->publisher.store(publisher); }

void OpenCVVideoRendererSink::Renderer::start() {
    if (running.load()) return;
    running.store(true);
    Projection projection;
    {
        const std::lock_guard<std::mutex> lock(projectionMutex);
        if (calibration) projection = *calibration;
    }
    thread = std::thread([this, projection] { loop(projection); });
}

void OpenCVVideoRendererSink::Renderer::stop() {
    if (!running.load()) return;
    queue.stop();
    running.store(false);
    if (thread.joinable()) thread.join();
    // Lists of this run still queued would open the windows of their frame types at the next
    // run, whatever that run's types: they go now.
    queue.restart();
    while (queue.pop(std::chrono::seconds(0)).first == hs::RESULT_SUCCESS) {
    }
    queue.stop();
}

std::string OpenCVVideoRendererSink::Renderer::fpsText() {
    const std::lock_guard<std::mutex> lock(fpsMutex);
    return fpsBuffer;
}

imaging::Status OpenCVVideoRendererSink::Renderer::figures() {
    imaging::Status status;
    status.fpsText = fpsText();
    status.drawn = drawn.load(std::memory_order_relaxed);
    status.dropped = dropped.load(std::memory_order_relaxed);
    return status;
}

void OpenCVVideoRendererSink::Renderer::convert(const std::shared_ptr<hs::LumoraFrameList>& list,
                                                const Projection& projection, ConversionContext& conversion,
                                                bool withClouds, Pictures& pictures) {
    const cv::Size resolution(displayWidth.load(), displayHeight.load());
    convertList(
        list, projection, conversion, resolution, [this](int view) { return windows.readoutPoint(view); }, withClouds,
        pictures);
}

std::shared_ptr<GuiTask> OpenCVVideoRendererSink::Renderer::drawList(const DeliveredList& item,
                                                                     const Projection& projection,
                                                                     ConversionContext& conversion,
                                                                     imaging::Publisher* publishTo,
                                                                     WindowTable::Draw& draw) {
    const std::uint32_t rendered = gRenderedLists.fetch_add(1) + 1;
    convert(item.list, projection, conversion, true, draw.pictures);
    if (publishTo != nullptr) publish(item, draw.pictures, true, figures(), *publishTo);
    for (auto& [view, picture] : draw.pictures)
        if (windows.has(view)) imaging::drawMarker(picture, windows.readoutPoint(view));
    if (windows.has(imaging::kFramerate))
        draw.pictures.emplace(draw.pictures.begin(), imaging::kFramerate,
                              imaging::WindowImage{imaging::framerateImage(fpsText()), {}, {}});
    draw.titled = rendered > kTitleAfterLists;
    draw.delivered = item.delivered;
    draw.latency = -1.0;
    return windows.show(draw);
}

void OpenCVVideoRendererSink::Renderer::readOutOnConsole(const std::shared_ptr<hs::LumoraFrameList>& list) {
    const std::string line = imaging::consoleReadout(fpsText(), list);
    std::printf("%s", line.c_str());
    std::fflush(stdout);
    std::printf("\b\b\b\b\b");
}

void OpenCVVideoRendererSink::Renderer::loop(const Projection& projection) {
    static std::once_flag noDisplayNotice;
    // Ends, with its helper thread, when this thread does.
    ConversionContext conversion;
    std::vector<double> latencies;
    Cadence cloudsDue(kWatcherCloudInterval);
    // Without windows: the pictures of the last lists handed to a watcher.
    std::array<Pictures, 3> forWatcher;
    std::size_t nextForWatcher = 0;
    // The GUI thread shows one list's pictures while the next list is converted into the
    // other's; their images are kept from list to list.
    std::array<WindowTable::Draw, 2> draws;
    std::size_t next = 0;
    // The showing of draws[1 - next], while it may be under way.
    std::shared_ptr<GuiTask> showing;
    // Lists delivered before the windows last opened waited for them: their times are
    // counted apart, as the cost of opening windows rather than of showing a list.
    std::chrono::steady_clock::time_point opened{};
    std::size_t waitedForWindows = 0;
    double longestWait = 0.0;
    // This run's lists taken from the queue, and when the first and the last were delivered:
    // its rate over the time the camera delivered, whatever its start-up took.
    std::size_t taken = 0;
    std::chrono::steady_clock::time_point firstDelivered{};
    std::chrono::steady_clock::time_point lastDelivered{};
    const auto shown = [&] {
        if (!showing) return;
        showing->wait();
        showing.reset();
        const WindowTable::Draw& draw = draws[1 - next];
        if (draw.latency < 0.0) return;
        if (draw.delivered < opened) {
            ++waitedForWindows;
            longestWait = std::max(longestWait, draw.latency);
        } else if (latencies.size() < kMaxLatencies) {
            latencies.push_back(draw.latency);
        }
    };
    queue.restart();
    while (running.load()) {
        auto [result, item] = queue.pop(kPopTimeout);
        if (result != hs::RESULT_SUCCESS) continue;
        if (!item.list) continue;
        drawn.fetch_add(1, std::memory_order_relaxed);
        if (taken++ == 0) firstDelivered = item.delivered;
        lastDelivered = item.delivered;
        imaging::Publisher* publishTo = publisher.load();
        if (publishTo != nullptr && !publishTo->wanted()) publishTo = nullptr;
        const bool displayOn = display.load();
        const bool inWindows = displayOn && displayAvailable();
        if (displayOn && !inWindows)
            std::call_once(noDisplayNotice,
                           [] { std::printf("\rno display found: the frames are read out on the console\n\r"); });
        if (!inWindows) {
            shown();
            if (!displayOn) windows.close(false);
            if (publishTo != nullptr) {
                // The watcher keeps the images it is handed until it has encoded them: those it
                // still holds are left to it, the others drawn over.
                Pictures& pictures = forWatcher[nextForWatcher];
                nextForWatcher = (nextForWatcher + 1) % forWatcher.size();
                leaveHeld(pictures);
                convert(item.list, projection, conversion, cloudsDue.take(item.delivered), pictures);
                publish(item, pictures, false, figures(), *publishTo);
            }
            readOutOnConsole(item.list);
            continue;
        }
        if (!windows.isOpen()) {
            windows.open(item.list, {displayWidth.load(), displayHeight.load()});
            opened = std::chrono::steady_clock::now();
        }
        auto posted = drawList(item, projection, conversion, publishTo, draws[next]);
        shown();
        showing = std::move(posted);
        next = 1 - next;
    }
    shown();
    hs::Log::i(LUMORA_LOG_TAG("OpenCVVideoRendererSink"),
               "%llu lists drawn, %llu dropped at the queue, %s; %llu lists delivered; this run drew %zu, "
               "delivered over %.3f s",
               static_cast<unsigned long long>(drawn.load()), static_cast<unsigned long long>(dropped.load()),
               fpsText().c_str(), static_cast<unsigned long long>(delivered.load()), taken,
               std::chrono::duration<double>(lastDelivered - firstDelivered).count());
    if (!latencies.empty())
        hs::Log::i(LUMORA_LOG_TAG("OpenCVVideoRendererSink"),
                   "delivery to the window system p50 %.2f ms p99 %.2f ms over %zu lists drawn in windows; %zu "
                   "lists waited for the windows to open, the longest %.2f ms",
                   percentile(latencies, 0.5), percentile(latencies, 0.99), latencies.size(), waitedForWindows,
                   longestWait);
}

}  // namespace lumora::display
