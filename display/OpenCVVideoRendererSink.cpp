// Design note: the library's delivery thread produces copies of its frame lists into a
// queue of four; the render thread, started on camera state 3, consumes them in order,
// converts each into images and hands them to the process's GUI thread, which shows them
// and services the windows once per list. A list that finds the queue full for 1 ms is
// dropped. Shutdown: states 2 and 0 (and destruction) stop the queue, which wakes the render
// thread at once, clear `running` and join the thread; the windows are then closed on the
// GUI thread.
#include "display/OpenCVVideoRendererSink.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <utility>
#include <vector>

#include <opencv2/highgui.hpp>

#include "GuiThread.h"
#include "imaging/ColorMaps.h"
#include "imaging/View.h"
#include "pipeline/Percentile.h"

namespace lumora::display {

namespace hs = halden::sensor;
using imaging::ConversionContext;
using imaging::Projection;
using imaging::WindowImage;
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

// A window that does not exist answers negatively, whatever highgui throws for it.
double autosizeProperty(const std::string& name) {
    try {
        return cv::getWindowProperty(name, cv::WND_PROP_AUTOSIZE);
    } catch (const cv::Exception&) {
        return -1.0;
    }
}

}  // namespace

OpenCVVideoRendererSink::OpenCVVideoRendererSink() { imaging::initColorMaps(); }

OpenCVVideoRendererSink::~OpenCVVideoRendererSink() {
    closeWindows(true);
    stopRenderThread();
}

std::string OpenCVVideoRendererSink::name() const { return "OpenCVVideoRendererSink"; }

void OpenCVVideoRendererSink::onLumoraCameraState(hs::LumoraSource* source, hs::LumoraCamera::State state) {
    std::printf("%s:%d source(%s) state = %d\n", "onLumoraCameraState", 224, uriOf(source).c_str(),
                static_cast<int>(state));
    switch (state) {
        case hs::LumoraCamera::STATE_PREPARED: {
            mWindows.clear();
            const std::string sourceName = source != nullptr ? source->name() : std::string();
            for (int key = imaging::kFramerate; key <= imaging::kIntensityAmplitude; ++key) {
                RenderWindow& entry = mWindows[key];
                entry.key = key;
                entry.sink = this;
                entry.mouseX.store(0, std::memory_order_relaxed);
                entry.mouseY.store(0, std::memory_order_relaxed);
                entry.name = sourceName + " " + imaging::viewName(key);
            }
            break;
        }
        case hs::LumoraCamera::STATE_RUNNING: {
            gRenderedLists.store(0);
            if (!mRunning.load()) {
                mRunning.store(true);
                Projection projection;
                {
                    const std::lock_guard<std::mutex> lock(mProjectionMutex);
                    if (mProjection) projection = *mProjection;
                }
                mRenderThread = std::thread([this, projection] { renderLoop(projection); });
            }
            start();
            break;
        }
        case hs::LumoraCamera::STATE_STOPPED:
            stopRenderThread();
            stop();
            closeWindows(false);
            break;
        case hs::LumoraCamera::STATE_NOT_PREPARED:
            stopRenderThread();
            closeWindows(true);
            mCamera.store(nullptr);
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
    {
        const std::lock_guard<std::mutex> lock(mProjectionMutex);
        mProjection = calibrated ? std::move(projection) : nullptr;
    }
    mCamera.store(camera);
}

void OpenCVVideoRendererSink::onLumoraFrameList(hs::LumoraSource* source,
                                                const std::shared_ptr<hs::LumoraFrameList>& frameList) {
    const pipeline::FramerateStatus status = countFrame();
    const bool check = isErrorCheck();
    {
        const std::lock_guard<std::mutex> lock(mFpsMutex);
        std::memset(mFpsText, 0, 256);
        if (check && status.errorCount < 1)
            std::snprintf(mFpsText, sizeof mFpsText, "fps : %.2f, check error(%d)", status.frameRate,
                          status.errorCount);
        else if (check)
            std::snprintf(mFpsText, sizeof mFpsText, "fps : %.2f, check error(%d) : %.2f", status.frameRate,
                          status.errorCount, status.errorRate);
        else
            std::snprintf(mFpsText, sizeof mFpsText, "fps : %.2f", status.frameRate);
    }
    mDelivered.fetch_add(1, std::memory_order_relaxed);
    const auto delivered = std::chrono::steady_clock::now();
    if (mFrameQueue.push(Item(source, hs::copy_frame_list(frameList), delivered), kPushTimeout) != hs::RESULT_SUCCESS)
        mDropped.fetch_add(1, std::memory_order_relaxed);
}

void OpenCVVideoRendererSink::setDisplayResolution(int width, int height) {
    mDisplayWidth.store(width);
    mDisplayHeight.store(height);
}

std::pair<int, int> OpenCVVideoRendererSink::displayResolution() const {
    return {mDisplayWidth.load(), mDisplayHeight.load()};
}

std::string OpenCVVideoRendererSink::fpsText() {
    const std::lock_guard<std::mutex> lock(mFpsMutex);
    return mFpsText;
}

cv::Size OpenCVVideoRendererSink::shownSize(const std::shared_ptr<hs::LumoraFrame>& frame) const {
    return imaging::displaySize({frame->width(), frame->height()}, mDisplayWidth.load(), mDisplayHeight.load());
}

OpenCVVideoRendererSink::RenderWindow* OpenCVVideoRendererSink::window(int key) {
    const auto it = mWindows.find(key);
    return it == mWindows.end() ? nullptr : &it->second;
}

void OpenCVVideoRendererSink::onMouse(int event, int x, int y, int /*flags*/, void* userData) {
    if (event != cv::EVENT_LBUTTONDOWN || userData == nullptr) return;
    const auto* clicked = static_cast<RenderWindow*>(userData);
    RenderWindow* entry = clicked->sink->window(clicked->key);
    if (entry == nullptr) return;
    entry->mouseX.store(x, std::memory_order_relaxed);
    entry->mouseY.store(y, std::memory_order_relaxed);
}

void OpenCVVideoRendererSink::stopRenderThread() {
    if (!mRunning.load()) return;
    mFrameQueue.stop();
    mRunning.store(false);
    if (mRenderThread.joinable()) mRenderThread.join();
    // Lists of this run still queued would open the windows of their frame types at the next
    // run, whatever that run's types: they go now.
    mFrameQueue.restart();
    while (mFrameQueue.pop(std::chrono::seconds(0)).first == hs::RESULT_SUCCESS) {
    }
    mFrameQueue.stop();
}

void OpenCVVideoRendererSink::closeWindows(bool clearTable) {
    if (mWindowsCreated.load()) {
        std::vector<std::string> names;
        for (const auto& [key, entry] : mWindows)
            names.push_back(entry.name);
        runOnGuiThread([&names] {
            for (const auto& name : names) {
                if (autosizeProperty(name) < 0.0) continue;
                try {
                    cv::setMouseCallback(name, nullptr, nullptr);
                    cv::destroyWindow(name);
                } catch (const cv::Exception&) {
                    // Closed meanwhile: nothing left to close.
                }
            }
            // Lets the window system see the windows go now rather than at the next run.
            cv::waitKey(1);
        });
        mWindowsCreated.store(false);
    }
    if (clearTable) mWindows.clear();
}

void OpenCVVideoRendererSink::createWindows(const std::shared_ptr<hs::LumoraFrameList>& list) {
    struct Opened {
        RenderWindow* entry;
        bool hooked;
    };
    std::vector<Opened> opened;
    if (RenderWindow* framerate = window(imaging::kFramerate)) opened.push_back({framerate, false});
    for (std::size_t i = 0; i < list->size(); ++i) {
        const auto frame = list->at(i);
        if (!frame) continue;
        std::vector<int> keys;
        switch (frame->frameType()) {
            case hs::LumoraFrame::FRAME_DEPTH:
                keys = {imaging::kDepth};
                break;
            case hs::LumoraFrame::FRAME_AMPLITUDE:
                keys = {imaging::kAmplitude};
                break;
            case hs::LumoraFrame::FRAME_POINTCLOUD:
                keys = {imaging::kPointCloud};
                break;
            case hs::LumoraFrame::FRAME_INTENSITY_POINTCLOUD:
                keys = {imaging::kIntensityDepth, imaging::kIntensityAmplitude};
                break;
            default:
                break;
        }
        const cv::Size shown = shownSize(frame);
        for (const int key : keys) {
            RenderWindow* entry = window(key);
            if (entry == nullptr) continue;
            entry->mouseX.store(shown.width / 2, std::memory_order_relaxed);
            entry->mouseY.store(shown.height / 2, std::memory_order_relaxed);
            opened.push_back({entry, true});
        }
    }
    const bool created = runOnGuiThread([&opened] {
        for (const Opened& window : opened) {
            try {
                cv::namedWindow(window.entry->name, cv::WINDOW_AUTOSIZE);
                if (window.hooked) cv::setMouseCallback(window.entry->name, &onMouse, window.entry);
            } catch (const cv::Exception&) {
                // Shown without a read-out hook; the next list tries the image again.
            }
        }
        cv::startWindowThread();
    });
    // Once the process exits the GUI thread takes no more work: nothing was opened.
    mWindowsCreated.store(created);
}

cv::Point OpenCVVideoRendererSink::readoutPoint(const RenderWindow* entry) {
    return entry == nullptr ? cv::Point(-1, -1)
                            : cv::Point(entry->mouseX.load(std::memory_order_relaxed),
                                        entry->mouseY.load(std::memory_order_relaxed));
}

OpenCVVideoRendererSink::Converted OpenCVVideoRendererSink::convertList(
    const std::shared_ptr<hs::LumoraFrameList>& list, const Projection& projection, ConversionContext& conversion) {
    Converted converted;
    const auto pointOf = [this](int key) { return readoutPoint(window(key)); };
    const auto depth = hs::find_frame(list, hs::LumoraFrame::FRAME_DEPTH);
    const auto amplitude = hs::find_frame(list, hs::LumoraFrame::FRAME_AMPLITUDE);
    if (depth || amplitude) {
        WindowImage depthImage;
        WindowImage amplitudeImage;
        imaging::convertDepthAmplitude(conversion, depth, amplitude, shownSize(depth ? depth : amplitude),
                                       pointOf(imaging::kDepth), pointOf(imaging::kAmplitude), depthImage,
                                       amplitudeImage);
        converted.emplace_back(imaging::kDepth, std::move(depthImage));
        converted.emplace_back(imaging::kAmplitude, std::move(amplitudeImage));
    }
    for (const auto type : {hs::LumoraFrame::FRAME_POINTCLOUD, hs::LumoraFrame::FRAME_INTENSITY_POINTCLOUD}) {
        const auto frame = hs::find_frame(list, type);
        if (!frame) continue;
        const bool intensity = type == hs::LumoraFrame::FRAME_INTENSITY_POINTCLOUD;
        const int depthKey = intensity ? imaging::kIntensityDepth : imaging::kPointCloud;
        const Projection lens =
            projection.intrinsics.fx > 0.0 ? projection : imaging::defaultProjection({frame->width(), frame->height()});
        Projection sized = lens;
        if (sized.size.width <= 0 || sized.size.height <= 0) sized.size = {frame->width(), frame->height()};
        WindowImage depthImage;
        WindowImage intensityImage;
        imaging::convertPointCloud(conversion, frame, sized, shownSize(frame), pointOf(depthKey),
                                   pointOf(imaging::kIntensityAmplitude), depthImage,
                                   intensity ? &intensityImage : nullptr);
        converted.emplace_back(depthKey, std::move(depthImage));
        if (intensity) converted.emplace_back(imaging::kIntensityAmplitude, std::move(intensityImage));
    }
    return converted;
}

void OpenCVVideoRendererSink::publish(const Item& item, const Converted& pictures, bool drawnNext,
                                      imaging::Publisher& publisher) {
    imaging::Snapshot snapshot;
    const auto& [source, list, delivered] = item;
    // Images that get their markers drawn next go to the web view as copies.
    for (const auto& [key, picture] : pictures)
        if (!picture.image.empty())
            snapshot.pictures.push_back({key, drawnNext ? picture.image.clone() : picture.image});
    snapshot.list = list;
    snapshot.delivered = delivered;
    if (source != nullptr) {
        snapshot.status.camera = source->name();
        snapshot.status.serial = source->serialNumber();
    }
    for (std::size_t i = 0; i < list->size(); ++i) {
        const auto frame = list->at(i);
        if (!frame) continue;
        snapshot.status.mask |= frame->frameType();
        snapshot.status.width = frame->width();
        snapshot.status.height = frame->height();
    }
    snapshot.status.fpsText = fpsText();
    snapshot.status.drawn = mDrawn.load(std::memory_order_relaxed);
    snapshot.status.dropped = mDropped.load(std::memory_order_relaxed);
    publisher.publish(std::move(snapshot));
}

void OpenCVVideoRendererSink::drawList(const Item& item, const Projection& projection, ConversionContext& conversion,
                                       imaging::Publisher* publisher, std::vector<double>& latencies) {
    const std::uint32_t rendered = gRenderedLists.fetch_add(1) + 1;
    struct Shown {
        RenderWindow* entry;
        WindowImage picture;
    };
    std::vector<Shown> shown;
    if (RenderWindow* entry = window(imaging::kFramerate))
        shown.push_back({entry, {imaging::framerateImage(fpsText()), {}, {}}});
    Converted converted = convertList(std::get<1>(item), projection, conversion);
    if (publisher != nullptr) publish(item, converted, true, *publisher);
    for (auto& [key, picture] : converted)
        shown.push_back({window(key), std::move(picture)});

    for (Shown& each : shown)
        if (each.entry != nullptr && each.entry->key != imaging::kFramerate)
            imaging::drawMarker(each.picture, readoutPoint(each.entry));
    const bool titled = rendered > kTitleAfterLists;
    const auto delivered = std::get<2>(item);
    double latency = -1.0;
    runOnGuiThread([&shown, titled, delivered, &latency] {
        for (const Shown& each : shown) {
            if (each.entry == nullptr || each.picture.image.empty()) continue;
            try {
                cv::imshow(each.entry->name, each.picture.image);
                if (titled && each.entry->key != imaging::kFramerate && autosizeProperty(each.entry->name) >= 0.0)
                    cv::setWindowTitle(each.entry->name, each.entry->name + each.picture.readout);
            } catch (const cv::Exception&) {
                // A window lost between the check and the call: the next list shows it again.
            }
        }
        // Every image of the list is with the window system now.
        latency = std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - delivered).count();
        cv::waitKey(1);
    });
    if (latency >= 0.0 && latencies.size() < kMaxLatencies) latencies.push_back(latency);
}

void OpenCVVideoRendererSink::readOutOnConsole(const std::shared_ptr<hs::LumoraFrameList>& list) {
    const std::string line = imaging::consoleReadout(fpsText(), list);
    std::printf("%s", line.c_str());
    std::fflush(stdout);
    std::printf("\b\b\b\b\b");
}

void OpenCVVideoRendererSink::renderLoop(const Projection& projection) {
    static std::once_flag noDisplayNotice;
    // Ends, with its helper thread, when this thread does.
    ConversionContext conversion;
    std::vector<double> latencies;
    mFrameQueue.restart();
    while (mRunning.load()) {
        auto [result, item] = mFrameQueue.pop(kPopTimeout);
        if (result != hs::RESULT_SUCCESS) continue;
        const auto& list = std::get<1>(item);
        if (!list) continue;
        mDrawn.fetch_add(1, std::memory_order_relaxed);
        imaging::Publisher* publisher = mPublisher.load();
        if (publisher != nullptr && !publisher->wanted()) publisher = nullptr;
        const bool display = mDisplay.load();
        const bool windows = display && displayAvailable();
        if (display && !windows)
            std::call_once(noDisplayNotice,
                           [] { std::printf("\rno display found: the frames are read out on the console\n\r"); });
        if (!windows) {
            if (!display) closeWindows(false);
            if (publisher != nullptr) publish(item, convertList(list, projection, conversion), false, *publisher);
            readOutOnConsole(list);
            continue;
        }
        if (!mWindowsCreated.load()) createWindows(list);
        drawList(item, projection, conversion, publisher, latencies);
    }
    hs::Log::i(LUMORA_LOG_TAG("OpenCVVideoRendererSink"),
               "%llu lists drawn, %llu dropped at the queue, %s; %llu lists delivered",
               static_cast<unsigned long long>(mDrawn.load()), static_cast<unsigned long long>(mDropped.load()),
               fpsText().c_str(), static_cast<unsigned long long>(mDelivered.load()));
    if (!latencies.empty())
        hs::Log::i(LUMORA_LOG_TAG("OpenCVVideoRendererSink"),
                   "delivery to the window system p50 %.2f ms p99 %.2f ms over %zu lists drawn in windows",
                   percentile(latencies, 0.5), percentile(latencies, 0.99), latencies.size());
}

}  // namespace lumora::display
