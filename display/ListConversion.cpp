#include "ListConversion.h"

#include <algorithm>

#include "imaging/View.h"

namespace lumora::display {

namespace hs = halden::sensor;
using imaging::Projection;
using imaging::WindowImage;

namespace {

cv::Size shownSize(const std::shared_ptr<hs::LumoraFrame>& frame, cv::Size resolution) {
    return imaging::displaySize({frame->width(), frame->height()}, resolution.width, resolution.height);
}

// The picture `pictures` held for `view`, its image kept for drawing over.
WindowImage reuse(Pictures& pictures, int view) {
    WindowImage reused;
    for (auto& [held, picture] : pictures)
        if (held == view) reused.image = std::move(picture.image);
    return reused;
}

}  // namespace

void convertList(const std::shared_ptr<hs::LumoraFrameList>& list, const Projection& projection,
                 imaging::ConversionContext& conversion, cv::Size resolution,
                 const std::function<cv::Point(int view)>& readoutPoint, bool withClouds, Pictures& pictures) {
    Pictures converted;
    const auto depth = hs::find_frame(list, hs::LumoraFrame::FRAME_DEPTH);
    const auto amplitude = hs::find_frame(list, hs::LumoraFrame::FRAME_AMPLITUDE);
    if (depth || amplitude) {
        WindowImage depthImage = reuse(pictures, imaging::kDepth);
        WindowImage amplitudeImage = reuse(pictures, imaging::kAmplitude);
        imaging::convertDepthAmplitude(conversion, depth, amplitude, shownSize(depth ? depth : amplitude, resolution),
                                       readoutPoint(imaging::kDepth), readoutPoint(imaging::kAmplitude), depthImage,
                                       amplitudeImage);
        converted.emplace_back(imaging::kDepth, std::move(depthImage));
        converted.emplace_back(imaging::kAmplitude, std::move(amplitudeImage));
    }
    // A camera that sends both clouds sends the same points twice: they are projected once.
    const auto cloud = withClouds ? hs::find_frame(list, hs::LumoraFrame::FRAME_POINTCLOUD) : nullptr;
    const auto intensityCloud =
        withClouds ? hs::find_frame(list, hs::LumoraFrame::FRAME_INTENSITY_POINTCLOUD) : nullptr;
    const bool projectOnce = cloud && intensityCloud && imaging::samePoints(cloud, intensityCloud);
    for (const auto& frame : {intensityCloud, cloud}) {
        if (!frame) continue;
        const bool intensity = frame == intensityCloud;
        const int depthView = intensity ? imaging::kIntensityDepth : imaging::kPointCloud;
        WindowImage depthImage = reuse(pictures, depthView);
        if (!intensity && projectOnce) {
            const auto projected = std::find_if(converted.begin(), converted.end(), [](const auto& each) {
                return each.first == imaging::kIntensityDepth;
            });
            imaging::copyCloudPicture(frame, projected->second, readoutPoint(depthView), depthImage);
            converted.emplace_back(depthView, std::move(depthImage));
            continue;
        }
        const Projection lens =
            projection.intrinsics.fx > 0.0 ? projection : imaging::defaultProjection({frame->width(), frame->height()});
        Projection sized = lens;
        if (sized.size.width <= 0 || sized.size.height <= 0) sized.size = {frame->width(), frame->height()};
        WindowImage intensityImage = reuse(pictures, imaging::kIntensityAmplitude);
        imaging::convertPointCloud(conversion, frame, sized, shownSize(frame, resolution), readoutPoint(depthView),
                                   readoutPoint(imaging::kIntensityAmplitude), depthImage,
                                   intensity ? &intensityImage : nullptr);
        converted.emplace_back(depthView, std::move(depthImage));
        if (intensity) converted.emplace_back(imaging::kIntensityAmplitude, std::move(intensityImage));
    }
    // In the order of the views, as the windows have always been served.
    std::stable_sort(converted.begin(), converted.end(),
                     [](const auto& a, const auto& b) { return a.first < b.first; });
    pictures = std::move(converted);
}

void leaveHeld(Pictures& pictures) {
    for (auto& [view, picture] : pictures) {
        const cv::UMatData* data = picture.image.u;
        // OpenCV counts the holders of a buffer atomically; the acquiring load orders the
        // last holder's reads before the writes of the next conversion.
        if (data != nullptr && __atomic_load_n(&data->refcount, __ATOMIC_ACQUIRE) > 1) picture.image.release();
    }
}

void publish(const DeliveredList& item, const Pictures& pictures, bool drawnNext, imaging::Status status,
             imaging::Publisher& publisher) {
    imaging::Snapshot snapshot;
    snapshot.status = std::move(status);
    // Images that get their markers drawn next go to the web view as copies.
    for (const auto& [view, picture] : pictures)
        if (!picture.image.empty())
            snapshot.pictures.push_back({view, drawnNext ? picture.image.clone() : picture.image});
    snapshot.list = item.list;
    snapshot.delivered = item.delivered;
    if (item.source != nullptr) {
        snapshot.status.camera = item.source->name();
        snapshot.status.serial = item.source->serialNumber();
    }
    for (std::size_t i = 0; i < item.list->size(); ++i) {
        const auto frame = item.list->at(i);
        if (!frame) continue;
        snapshot.status.mask |= frame->frameType();
        snapshot.status.width = frame->width();
        snapshot.status.height = frame->height();
    }
    publisher.publish(std::move(snapshot));
}

}  // namespace lumora::display
