// The windows of the live display: one per view (imaging/View.h), titled with the camera's
// model and the view's name, each with the read-out point that a click in it moves. Every
// window call is made on the process's GUI thread.
//
// Threads: the camera's state callbacks build and forget the table while the render thread
// does not run; the render thread opens, shows in and closes the windows (the state callbacks
// close them too, once the render thread has ended); the GUI thread runs the mouse handler,
// which writes the read-out points that the render thread reads.
#pragma once

#include <atomic>
#include <chrono>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <opencv2/core.hpp>

#include <halden/sensor/Lumora.h>

#include "GuiThread.h"
#include "imaging/FrameConversion.h"

namespace lumora::display {

class WindowTable {
public:
    WindowTable() = default;
    WindowTable(const WindowTable&) = delete;
    WindowTable& operator=(const WindowTable&) = delete;

    // One entry per view, titled "<sourceName> <view's name>", its read-out point at (0, 0).
    // Opens no window.
    void build(const std::string& sourceName);
    // Whether the windows were opened and not closed since.
    bool isOpen() const { return mOpen.load(); }
    // Opens the frame-rate window and the windows of the frame types in `list`, the latter
    // hooked to the mouse handler with their read-out point at the centre of the frame as
    // shown at `resolution`. Once the process exits the GUI thread takes no more work, and
    // nothing is open.
    void open(const std::shared_ptr<halden::sensor::LumoraFrameList>& list, cv::Size resolution);
    // Closes the windows when they are open; `forget` also empties the table.
    void close(bool forget);

    bool has(int view) const { return mEntries.count(view) != 0; }
    // The read-out point of the view's window; (-1, -1) for a view the table does not have.
    cv::Point readoutPoint(int view) const;
    // What one list shows: filled by the render thread, read by the GUI thread while its
    // showing is under way.
    struct Draw {
        std::vector<std::pair<int, imaging::WindowImage>> pictures;
        // Whether the titles carry the pictures' read-outs (the frame-rate window keeps its name).
        bool titled = false;
        std::chrono::steady_clock::time_point delivered;
        // Written by the GUI thread: the milliseconds from `delivered` until the last picture
        // was with the window system.
        double latency = -1.0;
    };
    // Posts to the GUI thread the showing of each (view, picture) pair of `draw` in its view's
    // window (nothing for a view the table does not have or an empty image), then the
    // servicing of the windows, and returns at once. `draw` must stay unchanged until the
    // returned task has run. Null, showing nothing, when the GUI thread takes no more work.
    std::shared_ptr<GuiTask> show(Draw& draw);

private:
    struct Entry {
        int view = 0;
        WindowTable* table = nullptr;
        // Written by the mouse handler on the GUI thread, read by the render thread.
        std::atomic<int> mouseY{0};
        std::atomic<int> mouseX{0};
        std::string name;
    };

    static void onMouse(int event, int x, int y, int flags, void* userData);
    Entry* entry(int view);
    const Entry* entry(int view) const;

    std::map<int, Entry> mEntries;
    std::atomic<bool> mOpen{false};
};

}  // namespace lumora::display
