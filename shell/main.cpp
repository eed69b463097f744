// lumora-shell: an interactive shell for time-of-flight cameras.
//
// Threads: the main thread builds the long-lived objects, starts the shell thread, then
// only polls `quit` once a second; the shell thread runs every command. When `quit` is
// set the main thread joins the shell thread and tears down in the reverse order of
// start-up. The camera itself is closed by the shell thread before it sets `quit`.
#include <cerrno>
#include <cstdio>
#include <ctime>
#include <memory>
#include <thread>

#include <malloc.h>

#include <halden/sensor/Lumora.h>

#include "ShellContext.h"
#include "ShellLoop.h"
#include "SourceListener.h"
#include "display/OpenCVVideoRendererSink.h"
#include "dump/FrameDumpSink.h"
#include "quality/LiveQuality.h"
#include "web/WebView.h"

namespace {

// Blocks of this size and more (a VGA depth frame is 600 KiB) are mappings of their own.
constexpr int kOwnMappingFrom = 256 * 1024;
constexpr int kKeptAtHeapTop = 4 * 1024 * 1024;

void sleep_one_second() {
    timespec remaining{1, 0};
    while (nanosleep(&remaining, &remaining) == -1 && errno == EINTR) {
    }
}

}  // namespace

int main() {
    using lumora::shell::gSourceListener;
    // Frame buffers are made and freed at the frame rate on several threads. With glibc's
    // moving threshold they soon come from per-thread heaps whose free space is kept, and a
    // shell left streaming grew by half a gigabyte in an hour; a fixed threshold keeps them
    // mappings, handed back to the system when freed.
    mallopt(M_MMAP_THRESHOLD, kOwnMappingFrom);  // NOLINT(concurrency-mt-unsafe): before any thread starts
    // Smaller blocks made and freed for each list (OpenCV's buffers for a piece of a point
    // cloud) would otherwise give a heap's top back to the system and fault it in again each
    // time, with a TLB shootdown on every core: each heap keeps this much free at its top.
    mallopt(M_TRIM_THRESHOLD, kKeptAtHeapTop);  // NOLINT(concurrency-mt-unsafe): before any thread starts
    // Every printf reaches the terminal at once and in order with the editor's own writes.
    std::setvbuf(stdout, nullptr, _IONBF, 0);
    lumora::shell::ShellContext context;

    halden::sensor::add_source_listener(&gSourceListener);
    // Built before the web view that measures through it, so that it goes after it.
    auto liveQuality = std::make_unique<lumora::quality::LiveQuality>();
    // Built before the renderer that publishes to it, so that it goes after it.
    auto webView = std::make_unique<lumora::web::WebView>();
    webView->setMeasurement(liveQuality.get());
    auto renderer = std::make_unique<lumora::display::OpenCVVideoRendererSink>();
    renderer->setPublisher(webView.get());
    context.webView = webView.get();
    auto dumpSink = std::make_unique<lumora::dump::FrameDumpSink>();
    context.renderer = renderer.get();
    context.dumpSink = dumpSink.get();
    context.liveQuality = liveQuality.get();
    // The renderer hears of every prepared camera from here on; the dump sink and the live
    // measurement only of the selected one, added and removed with the selection (Discovery.cpp).
    halden::sensor::add_prepared_listener(renderer.get());
    gSourceListener.setStopTest([&context] { context.stopStressTest(); });

    std::thread shellThread([&context] { lumora::shell::run_shell(context); });
    while (!context.quit)
        sleep_one_second();

    if (shellThread.joinable()) shellThread.join();
    context.sources.reset();
    context.camera.reset();
    halden::sensor::remove_prepared_listener(renderer.get());
    dumpSink.reset();
    renderer.reset();
    webView.reset();
    liveQuality.reset();
    return 0;
}
