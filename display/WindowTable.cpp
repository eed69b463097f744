#include "WindowTable.h"

#include <opencv2/highgui.hpp>

#include "GuiThread.h"
#include "imaging/View.h"

namespace lumora::display {

namespace hs = halden::sensor;

namespace {

// A window that does not exist answers negatively, whatever highgui throws for it.
double autosizeProperty(const std::string& name) {
    try {
        return cv::getWindowProperty(name, cv::WND_PROP_AUTOSIZE);
    } catch (const cv::Exception&) {
        return -1.0;
    }
}

}  // namespace

void WindowTable::build(const std::string& sourceName) {
    mEntries.clear();
    for (int view = imaging::kFramerate; view <= imaging::kIntensityAmplitude; ++view) {
        Entry& entry = mEntries[view];
        entry.view = view;
        entry.table = this;
        entry.mouseX.store(0, std::memory_order_relaxed);
        entry.mouseY.store(0, std::memory_order_relaxed);
        entry.name = sourceName + " " + imaging::viewName(view);
    }
}

WindowTable::Entry* WindowTable::entry(int view) {
    const auto it = mEntries.find(view);
    return it == mEntries.end() ? nullptr : &it->second;
}

const WindowTable::Entry* WindowTable::entry(int view) const {
    const auto it = mEntries.find(view);
    return it == mEntries.end() ? nullptr : &it->second;
}

cv::Point WindowTable::readoutPoint(int view) const {
    const Entry* found = entry(view);
    return found == nullptr ? cv::Point(-1, -1)
                            : cv::Point(found->mouseX.load(std::memory_order_relaxed),
                                        found->mouseY.load(std::memory_order_relaxed));
}

void WindowTable::onMouse(int event, int x, int y, int /*flags*/, void* userData) {
    if (event != cv::EVENT_LBUTTONDOWN || userData == nullptr) return;
    const auto* clicked = static_cast<Entry*>(userData);
    Entry* found = clicked->table->entry(clicked->view);
    if (found == nullptr) return;
    found->mouseX.store(x, std::memory_order_relaxed);
    found->mouseY.store(y, std::memory_order_relaxed);
}

void WindowTable::close(bool forget) {
    if (mOpen.load()) {
        std::vector<std::string> names;
        for (const auto& [view, entry] : mEntries)
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
        mOpen.store(false);
    }
    if (forget) mEntries.clear();
}

void WindowTable::open(const std::shared_ptr<hs::LumoraFrameList>& list, cv::Size resolution) {
    struct Opened {
        Entry* entry;
        bool hooked;
    };
    std::vector<Opened> opened;
    if (Entry* framerate = entry(imaging::kFramerate)) opened.push_back({framerate, false});
    for (std::size_t i = 0; i < list->size(); ++i) {
        const auto frame = list->at(i);
        if (!frame) continue;
        std::vector<int> views;
        switch (frame->frameType()) {
            case hs::LumoraFrame::FRAME_DEPTH:
                views = {imaging::kDepth};
                break;
            case hs::LumoraFrame::FRAME_AMPLITUDE:
                views = {imaging::kAmplitude};
                break;
            case hs::LumoraFrame::FRAME_POINTCLOUD:
                views = {imaging::kPointCloud};
                break;
            case hs::LumoraFrame::FRAME_INTENSITY_POINTCLOUD:
                views = {imaging::kIntensityDepth, imaging::kIntensityAmplitude};
                break;
            default:
                break;
        }
        const cv::Size shown =
            imaging::displaySize({frame->width(), frame->height()}, resolution.width, resolution.height);
        for (const int view : views) {
            Entry* found = entry(view);
            if (found == nullptr) continue;
            found->mouseX.store(shown.width / 2, std::memory_order_relaxed);
            found->mouseY.store(shown.height / 2, std::memory_order_relaxed);
            opened.push_back({found, true});
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
    mOpen.store(created);
}

std::shared_ptr<GuiTask> WindowTable::show(Draw& draw) {
    struct Shown {
        const Entry* entry;
        const imaging::WindowImage* picture;
    };
    std::vector<Shown> shown;
    for (const auto& [view, picture] : draw.pictures)
        if (const Entry* found = entry(view)) shown.push_back({found, &picture});
    return postToGuiThread([shown = std::move(shown), &draw] {
        for (const Shown& each : shown) {
            if (each.picture->image.empty()) continue;
            try {
                cv::imshow(each.entry->name, each.picture->image);
                if (draw.titled && each.entry->view != imaging::kFramerate && autosizeProperty(each.entry->name) >= 0.0)
                    cv::setWindowTitle(each.entry->name, each.entry->name + each.picture->readout);
            } catch (const cv::Exception&) {
                // A window lost between the check and the call: the next list shows it again.
            }
        }
        // Every image of the list is with the window system now.
        draw.latency =
            std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - draw.delivered).count();
        cv::waitKey(1);
    });
}

}  // namespace lumora::display
