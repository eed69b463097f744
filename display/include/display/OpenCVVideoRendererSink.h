// The live display: a camera sink that shows depth, amplitude and point-cloud frames in
// windows with a read-out point and a frame-rate window, or writes a one-line read-out on
// the console when the display is off or there is none.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <tuple>
#include <utility>
#include <vector>

#include <halden/sensor/Lumora.h>

#include "imaging/FrameConversion.h"
#include "imaging/Publisher.h"
#include "pipeline/FramerateChecker.h"
#include "pipeline/Queue.h"

namespace lumora::display {

// Threads: the library calls the sink and prepared-listener callbacks on its own threads;
// the shell thread calls the setters and getters; the render thread (running from camera
// state 3 to state 2 or 0) converts the lists; the process's GUI thread makes every window
// call and runs the mouse handler. The library's delivery thread never waits on any of
// them beyond a 1 ms push.
class OpenCVVideoRendererSink : public halden::sensor::LumoraSink,
                                public halden::sensor::LumoraCamera::PreparedListener,
                                public pipeline::FramerateChecker {
public:
    // Builds the colour and gray tables. Opens no window.
    OpenCVVideoRendererSink();
    // Closes the windows, stops the render thread, then frees the queued lists.
    ~OpenCVVideoRendererSink() override;

    OpenCVVideoRendererSink(const OpenCVVideoRendererSink&) = delete;
    OpenCVVideoRendererSink& operator=(const OpenCVVideoRendererSink&) = delete;

    std::string name() const override;
    // State 1 builds the window table, 3 starts the render thread and the frame-rate checker,
    // 2 stops both and closes the windows, 0 also forgets the table and the camera.
    void onLumoraCameraState(halden::sensor::LumoraSource* source, halden::sensor::LumoraCamera::State state) override;
    // Traced only.
    void onLumoraCameraError(halden::sensor::LumoraSource* source, halden::sensor::Result error) override;
    // Counts the list for the frame rate, then queues a deep copy (dropped after 1 ms when
    // four are waiting).
    void onLumoraFrameList(halden::sensor::LumoraSource* source,
                           const std::shared_ptr<halden::sensor::LumoraFrameList>& frameList) override;
    // Remembers the camera and its calibration (lens 0) for point-cloud projection.
    void onLumoraCameraPrepared(halden::sensor::LumoraCamera* camera) override;

    // Shell thread. Off closes the windows at the next list and reads out on the console.
    void setDisplay(bool on) { mDisplay.store(on); }
    bool isDisplay() const { return mDisplay.load(); }
    // Shell thread. Frames larger than this in both sides are shown scaled down to it;
    // non-positive sides show every frame at its own size.
    void setDisplayResolution(int width, int height);
    // (width, height).
    std::pair<int, int> displayResolution() const;

    // Before the first run. While `publisher` wants pictures, the render thread converts every
    // list, with the windows or without, and publishes the pictures to it. Not owned.
    void setPublisher(imaging::Publisher* publisher) { mPublisher.store(publisher); }

private:
    struct RenderWindow {
        int key = 0;
        OpenCVVideoRendererSink* sink = nullptr;
        // Written by the mouse handler on the GUI thread, read by the render thread.
        std::atomic<int> mouseY{0};
        std::atomic<int> mouseX{0};
        std::string name;
    };
    // The source, the list and when the library delivered it.
    using Item = std::tuple<halden::sensor::LumoraSource*, std::shared_ptr<halden::sensor::LumoraFrameList>,
                            std::chrono::steady_clock::time_point>;
    // A converted picture and the key of the window it is for.
    using Converted = std::vector<std::pair<int, imaging::WindowImage>>;
    // The read-out point of a window, or (-1, -1) for a window the list does not use.
    static cv::Point readoutPoint(const RenderWindow* entry);

    static void onMouse(int event, int x, int y, int flags, void* userData);
    void renderLoop(const imaging::Projection& projection);
    void stopRenderThread();
    void closeWindows(bool clearTable);
    void createWindows(const std::shared_ptr<halden::sensor::LumoraFrameList>& list);
    Converted convertList(const std::shared_ptr<halden::sensor::LumoraFrameList>& list,
                          const imaging::Projection& projection, imaging::ConversionContext& conversion);
    // Adds to `latencies` the milliseconds from the list's delivery to the GUI thread's
    // hand-over of its last image to the window system.
    void drawList(const Item& item, const imaging::Projection& projection, imaging::ConversionContext& conversion,
                  imaging::Publisher* publisher, std::vector<double>& latencies);
    // `drawnNext`: the images are drawn on afterwards, so the publisher gets copies.
    void publish(const Item& item, const Converted& pictures, bool drawnNext, imaging::Publisher& publisher);
    void readOutOnConsole(const std::shared_ptr<halden::sensor::LumoraFrameList>& list);
    std::string fpsText();
    cv::Size shownSize(const std::shared_ptr<halden::sensor::LumoraFrame>& frame) const;
    RenderWindow* window(int key);

    std::atomic<bool> mDisplay{true};
    std::atomic<bool> mWindowsCreated{false};
    std::map<int, RenderWindow> mWindows;
    std::atomic<halden::sensor::LumoraCamera*> mCamera{nullptr};
    // Written on the delivery thread, read by the render thread; the lock is held only to
    // copy the text.
    std::mutex mFpsMutex;
    char mFpsText[257] = {};
    std::atomic<int> mDisplayWidth{-1};
    std::atomic<int> mDisplayHeight{-1};
    // The calibration of the camera that last reported prepared; the render thread takes a
    // copy when it starts.
    std::mutex mProjectionMutex;
    std::unique_ptr<imaging::Projection> mProjection;
    std::atomic<imaging::Publisher*> mPublisher{nullptr};
    // Lists delivered, drawn (or read out) and dropped at the queue since construction,
    // logged when the render thread ends, with the run's delivery-to-window times.
    std::atomic<std::uint64_t> mDelivered{0};
    std::atomic<std::uint64_t> mDrawn{0};
    std::atomic<std::uint64_t> mDropped{0};
    std::thread mRenderThread;
    std::atomic<bool> mRunning{false};
    halden::sensor::Queue<Item> mFrameQueue{4};
};

}  // namespace lumora::display
