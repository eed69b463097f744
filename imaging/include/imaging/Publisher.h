// What the live display hands to a watcher of its pictures (the web view) after converting a
// frame list. The display depends only on this interface, never on what implements it.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include <opencv2/core.hpp>

#include <halden/sensor/LumoraFrame.h>

namespace lumora::imaging {

// One converted picture: `view` numbered as the display windows are keyed (View.h),
// the 8-bit image (3 channels B, G, R or 1 gray channel) without read-out marker.
struct Picture {
    int view = 0;
    cv::Mat image;
};

struct Status {
    std::string camera;
    std::string serial;
    std::uint32_t mask = 0;
    int width = 0;
    int height = 0;
    std::string fpsText;
    std::uint64_t drawn = 0;
    std::uint64_t dropped = 0;
};

// The pictures of one frame list, the list itself for read-outs and the time the library
// delivered it. The publisher keeps the images and the list as they are: the caller must not
// write into them afterwards.
struct Snapshot {
    std::vector<Picture> pictures;
    std::shared_ptr<halden::sensor::LumoraFrameList> list;
    Status status;
    std::chrono::steady_clock::time_point delivered;
};

class Publisher {
public:
    virtual ~Publisher() = default;
    // Any thread, lock-free: whether anyone may look, so that a caller converts only then.
    virtual bool wanted() const = 0;
    // The render thread. Takes the snapshot and returns at once: it replaces one not yet
    // taken by the encoder, never waits for encoding or sending.
    virtual void publish(Snapshot snapshot) = 0;
};

}  // namespace lumora::imaging
