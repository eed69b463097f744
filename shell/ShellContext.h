// The shell's state: owned by the program entry, worked on by the shell thread.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <thread>

#include <halden/sensor/Lumora.h>

#include "terminal/History.h"

namespace lumora::dump {
class FrameDumpSink;
}  // namespace lumora::dump
namespace lumora::display {
class OpenCVVideoRendererSink;
}  // namespace lumora::display

namespace lumora::web {
class WebView;
}  // namespace lumora::web

namespace lumora::quality {
class LiveQuality;
}  // namespace lumora::quality

namespace lumora::shell {

struct ShellContext {
    // Set by "quit"; the entry point polls it once a second.
    std::atomic<bool> quit{false};
    // Set by a successful "run", cleared by "stop", "deselect" and "quit"; also keeps the
    // run/stop stress test going.
    std::atomic<bool> running{false};
    std::thread testThread;
    // True from the start of a stress test until its thread has printed its count.
    std::atomic<bool> testActive{false};
    // Only the shell thread changes the selected camera.
    std::shared_ptr<halden::sensor::LumoraCamera> camera;
    std::shared_ptr<halden::sensor::LumoraSourceList> sources;
    // The selected source's name; empty while nothing is selected.
    std::string promptName;
    // The last frame selector given to "run"; the stress test reads it too.
    std::atomic<std::int32_t> runArgument{6};
    // The lines entered so far, kept by whichever reads them: the line editor on a
    // terminal, the script reader otherwise.
    const terminal::History* history = nullptr;
    // Owned by the entry point, which outlives the shell thread.
    dump::FrameDumpSink* dumpSink = nullptr;
    // The live display, owned by the entry point; attached to every selected camera.
    display::OpenCVVideoRendererSink* renderer = nullptr;
    // The live view in a web browser, owned by the entry point; fed by the renderer.
    web::WebView* webView = nullptr;
    // The live depth-quality measurement, owned by the entry point; a sink of the selected
    // camera, like the dump sink.
    quality::LiveQuality* liveQuality = nullptr;

    // Ends the run/stop stress test: clear `running`, then wait for its thread.
    void stopStressTest() {
        running = false;
        if (testThread.joinable()) testThread.join();
    }
};

}  // namespace lumora::shell
