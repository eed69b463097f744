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
    // Shows each (view, picture) pair in its view's window (nothing for a view the table does
    // not have or an empty image), titled with the picture's read-out after the window's name
    // when `titled` (the frame-rate window keeps its name), then services the windows. Returns
    // the milliseconds from `delivered` until the last picture was with the window system;
    // negative when the GUI thread took no more work.
    double show(const std::vector<std::pair<int, imaging::WindowImage>>& pictures, bool titled,
                std::chrono::steady_clock::time_point delivered);

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
