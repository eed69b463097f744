// The live display: a camera sink that shows depth, amplitude and point-cloud frames in
// windows with a read-out point and a frame-rate window, or writes a one-line read-out on
// the console when the display is off or there is none.
#pragma once

#include <memory>
#include <string>
#include <utility>

#include <halden/sensor/Lumora.h>

#include "imaging/Publisher.h"
#include "pipeline/FramerateChecker.h"

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
    // 2 stops both and closes the windows, 0 also forgets the table.
    void onLumoraCameraState(halden::sensor::LumoraSource* source, halden::sensor::LumoraCamera::State state) override;
    // Traced only.
    void onLumoraCameraError(halden::sensor::LumoraSource* source, halden::sensor::Result error) override;
    // Counts the list for the frame rate, then queues a deep copy (dropped after 1 ms when
    // four are waiting).
    void onLumoraFrameList(halden::sensor::LumoraSource* source,
                           const std::shared_ptr<halden::sensor::LumoraFrameList>& frameList) override;
    // Remembers the camera's calibration (lens 0) for point-cloud projection.
    void onLumoraCameraPrepared(halden::sensor::LumoraCamera* camera) override;

    // Shell thread. Off closes the windows at the next list and reads out on the console.
    void setDisplay(bool on);
    bool isDisplay() const;
    // Shell thread. Frames larger than this in both sides are shown scaled down to it;
    // non-positive sides show every frame at its own size.
    void setDisplayResolution(int width, int height);
    // (width, height).
    std::pair<int, int> displayResolution() const;

    // Before the first run. While `publisher` wants pictures, the render thread converts every
    // list, with the windows or without, and publishes the pictures to it. Not owned.
    void setPublisher(imaging::Publisher* publisher);

private:
    // The render thread, its queue and windows, and what the callbacks and the shell thread
    // share with it.
    struct Renderer;
    std::unique_ptr<Renderer> mRenderer;
};

}  // namespace lumora::display
