// From a delivered frame list to the pictures of its views, and from those to the watcher of
// the pictures (the web view). Render thread; no window is involved.
#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <utility>
#include <vector>

#include <opencv2/core.hpp>

#include <halden/sensor/Lumora.h>

#include "imaging/FrameConversion.h"
#include "imaging/Publisher.h"

namespace lumora::display {

// A list as the library delivered it: its source, a deep copy of the list, and when.
struct DeliveredList {
    halden::sensor::LumoraSource* source = nullptr;
    std::shared_ptr<halden::sensor::LumoraFrameList> list;
    std::chrono::steady_clock::time_point delivered;
};

// Pictures, each with the view (imaging/View.h) it is for.
using Pictures = std::vector<std::pair<int, imaging::WindowImage>>;

// Replaces `pictures` with those of the depth, amplitude and point-cloud frames of `list`, each
// at the size its frame is shown at for `resolution` (non-positive sides: the frame's own
// size), with the read-out at `readoutPoint(view)` ((-1, -1): none). A point cloud is projected
// through `projection`, or through a default lens when that has no focal length. Depth and
// amplitude come as a pair, as do the two pictures of an intensity point cloud; point clouds
// are left out unless `withClouds`. The images
// that `pictures` held for the same views are drawn over in place when their size and type
// fit, so a caller that keeps them from list to list allocates none: nothing else may hold
// them.
void convertList(const std::shared_ptr<halden::sensor::LumoraFrameList>& list, const imaging::Projection& projection,
                 imaging::ConversionContext& conversion, cv::Size resolution,
                 const std::function<cv::Point(int view)>& readoutPoint, bool withClouds, Pictures& pictures);

// Lets go of the images of `pictures` that are held elsewhere too (by a watcher that has not
// encoded them yet), so that a conversion into `pictures` draws over only the images no one
// else reads.
void leaveHeld(Pictures& pictures);

// Hands `publisher` the non-empty pictures, the list and `status` completed with the source's
// model and serial number, the list's frame types and the size of its last frame.
// `drawnNext`: the images are drawn on afterwards, so the publisher gets copies.
void publish(const DeliveredList& item, const Pictures& pictures, bool drawnNext, imaging::Status status,
             imaging::Publisher& publisher);

}  // namespace lumora::display
