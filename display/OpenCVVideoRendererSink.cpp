// Design note: the library's delivery thread produces copies of its frame lists into a
// queue of four; the render thread, started on camera state 3, consumes them in order,
// converts each into images (ListConversion.cpp) and hands them to the process's GUI thread,
// which shows them in the windows (WindowTable.cpp) and services the windows once per list.
// A list that finds the queue full for 1 ms is dropped. Shutdown: states 2 and 0 (and
// destruction) stop the queue, which wakes the render thread at once, clear `running` and
// join the thread; the windows are then closed on the GUI thread.
#include "display/OpenCVVideoRendererSink.h"

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
    // Adds to `latencies` the milliseconds from the list's delivery to the GUI thread's
    // hand-over of its last image to the window system.
    void drawList(const DeliveredList& item, const Projection& projection, ConversionContext& conversion,
                  imaging::Publisher* publishTo, std::vector<double>& latencies);
    void readOutOnConsole(const std::shared_ptr<hs::LumoraFrameList>& list);
    // The list's pictures at the display resolution, with the windows' read-out points.
    Pictures convert(const std::shared_ptr<hs::LumoraFrameList>& list, const Projection& projection,
                     ConversionContext& conversion);
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

Pictures OpenCVVideoRendererSink::Renderer::convert(const std::shared_ptr<hs::LumoraFrameList>& list,
                                                    const Projection& projection, ConversionContext& conversion) {
    const cv::Size resolution(displayWidth.load(), displayHeight.load());
    return convertList(list, projection, conversion, resolution,
                       [this](int view) { return windows.readoutPoint(view); });
}

void OpenCVVideoRendererSink::Renderer::drawList(const DeliveredList& item, const Projection& projection,
                                                 ConversionContext& conversion, imaging::Publisher* publishTo,
                                                 std::vector<double>& latencies) {
    const std::uint32_t rendered = gRenderedLists.fetch_add(1) + 1;
    Pictures shown;
    if (windows.has(imaging::kFramerate))
        shown.emplace_back(imaging::kFramerate, imaging::WindowImage{imaging::framerateImage(fpsText()), {}, {}});
    Pictures converted = convert(item.list, projection, conversion);
    if (publishTo != nullptr) publish(item, converted, true, figures(), *publishTo);
    for (auto& [view, picture] : converted) {
        if (windows.has(view)) imaging::drawMarker(picture, windows.readoutPoint(view));
        shown.emplace_back(view, std::move(picture));
    }
    const double latency = windows.show(shown, rendered > kTitleAfterLists, item.delivered);
    if (latency >= 0.0 && latencies.size() < kMaxLatencies) latencies.push_back(latency);
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
    queue.restart();
    while (running.load()) {
        auto [result, item] = queue.pop(kPopTimeout);
        if (result != hs::RESULT_SUCCESS) continue;
        if (!item.list) continue;
        drawn.fetch_add(1, std::memory_order_relaxed);
        imaging::Publisher* publishTo = publisher.load();
        if (publishTo != nullptr && !publishTo->wanted()) publishTo = nullptr;
        const bool displayOn = display.load();
        const bool inWindows = displayOn && displayAvailable();
        if (displayOn && !inWindows)
            std::call_once(noDisplayNotice,
                           [] { std::printf("\rno display found: the frames are read out on the console\n\r"); });
        if (!inWindows) {
            if (!displayOn) windows.close(false);
            if (publishTo != nullptr)
                publish(item, convert(item.list, projection, conversion), false, figures(), *publishTo);
            readOutOnConsole(item.list);
            continue;
        }
        if (!windows.isOpen()) windows.open(item.list, {displayWidth.load(), displayHeight.load()});
        drawList(item, projection, conversion, publishTo, latencies);
    }
    hs::Log::i(LUMORA_LOG_TAG("OpenCVVideoRendererSink"),
               "%llu lists drawn, %llu dropped at the queue, %s; %llu lists delivered",
               static_cast<unsigned long long>(drawn.load()), static_cast<unsigned long long>(dropped.load()),
               fpsText().c_str(), static_cast<unsigned long long>(delivered.load()));
    if (!latencies.empty())
        hs::Log::i(LUMORA_LOG_TAG("OpenCVVideoRendererSink"),
                   "delivery to the window system p50 %.2f ms p99 %.2f ms over %zu lists drawn in windows",
                   percentile(latencies, 0.5), percentile(latencies, 0.99), latencies.size());
}

}  // namespace lumora::display
