// Frame-to-image conversion: functions from library frames to 8-bit images, read-out texts
// and marker colours, with no window involved. Every function may be called from any thread;
// a conversion reads the colour and gray tables through one view for its whole frame
// (ColorMaps.h), so its images show one rebuild's tables. The conversions of large images
// work with the helper thread of a conversion context that the caller owns.
#pragma once

#include <memory>
#include <string>

#include <opencv2/core.hpp>

#include <halden/sensor/LumoraCalibration.h>
#include <halden/sensor/LumoraFrame.h>

#include "imaging/HelperThread.h"

namespace lumora::imaging {

// One window's picture: the image (empty when there was no frame of its kind), the text that
// follows the window name in its title, and the marker colour (inverse of the pixel at the
// read-out point).
struct WindowImage {
    cv::Mat image;
    std::string readout;
    cv::Scalar marker;
};

// What a converting thread keeps from one conversion to the next: its helper thread, started
// at the first large image and joined when the context is destroyed, and the point-cloud
// buffers (about 29 bytes a point; fresh buffers this large would come from the kernel at a
// page fault per 4 KiB on every frame). The caller owns it and passes it to one conversion at
// a time; threads that take turns with one context must be ordered (e.g. by a join). Its
// members are the conversion's own.
struct ConversionContext {
    struct CloudBuffers {
        cv::Mat points;
        cv::Mat projected;
        cv::Mat pixels;
        cv::Mat colours;
        cv::Mat levels;
    };
    HelperThread helper;
    CloudBuffers cloud;
};

// The size a frame is shown at: its own, unless both display sides are positive and smaller
// than the frame's; images are never scaled up.
cv::Size displaySize(cv::Size frame, int displayWidth, int displayHeight);

// Depth (colour through the depth-to-palette-index table and the palette) and amplitude
// (gray through the gray table) of 16-bit or 32-bit float frames, scaled to `display` by
// nearest neighbour, in one pass over the rows. Float samples are rounded to the nearest
// integer within 0..65535 (NaN reads 0) before the look-up. Either frame may be null; its
// image is then left empty. The points are in displayed-image coordinates; a point outside
// the image reads value 0 and takes black as its pixel. Images of 65536 pixels or more are
// shared out in pieces of rows between the caller and the context's helper thread. An image
// already in `depthImage` or `amplitudeImage` is drawn over in place when its size and type
// fit (nothing else may hold it), else replaced.
void convertDepthAmplitude(ConversionContext& context, const std::shared_ptr<halden::sensor::LumoraFrame>& depth,
                           const std::shared_ptr<halden::sensor::LumoraFrame>& amplitude, cv::Size display,
                           cv::Point depthPoint, cv::Point amplitudePoint, WindowImage& depthImage,
                           WindowImage& amplitudeImage);

// The lens model points are projected with, for frames of `size` pixels.
struct Projection {
    cv::Size size;
    halden::sensor::IntrinsicParameters intrinsics;
    halden::sensor::DistortionCoefficients distortion;
};

// A stand-in for a camera that reports no calibration: a 70 degree lens on the frame's size.
Projection defaultProjection(cv::Size frame);

// A 32-bit float point cloud (type 8) or intensity point cloud (type 16) projected through
// `projection` (rescaled to `display`) onto a black image of the display size: each point
// with z > 0 is coloured from z in millimetres through the depth tables and, for type 16,
// its intensity through the gray table into `intensityImage`. The read-out value is the
// frame's z at the point, in millimetres, truncated. Clouds of 20000 points or more are
// gathered and projected by the caller and the context's helper thread; the gather,
// projection and placing buffers are the context's. Frames of other data types leave both
// images empty; `intensityImage` may be null for type 8. Images passed in are drawn over as
// by convertDepthAmplitude.
void convertPointCloud(ConversionContext& context, const std::shared_ptr<halden::sensor::LumoraFrame>& frame,
                       const Projection& projection, cv::Size display, cv::Point depthPoint, cv::Point intensityPoint,
                       WindowImage& depthImage, WindowImage* intensityImage);

// Whether two 32-bit float point clouds (either type) hold the same points: the same size
// and x, y and z planes alike, so that they project onto the same depth picture.
bool samePoints(const std::shared_ptr<halden::sensor::LumoraFrame>& a,
                const std::shared_ptr<halden::sensor::LumoraFrame>& b);

// The depth picture of `frame` made from `converted`, the depth picture of a cloud with the
// same points (samePoints) at the same display size: its image copied into `picture` (drawn
// over as by convertDepthAmplitude), with the read-out of `frame` at `point` and its marker
// colour. An empty `converted` leaves `picture` empty.
void copyCloudPicture(const std::shared_ptr<halden::sensor::LumoraFrame>& frame, const WindowImage& converted,
                      cv::Point point, WindowImage& picture);

// A filled circle of radius 4 in the marker colour at the point (clipped at the border).
void drawMarker(WindowImage& image, cv::Point point);

// The frame-rate window's image: `fpsText` in white on black, 60 rows by 20 x length - 40
// columns; empty when the text is too short to give a positive width.
cv::Mat framerateImage(const std::string& fpsText);

// The console read-out line of a list (display off): a carriage return, `fpsText`, then one
// piece per frame with the value at the frame centre (none for a frame of 0 x 0).
std::string consoleReadout(const std::string& fpsText, const std::shared_ptr<halden::sensor::LumoraFrameList>& list);

}  // namespace lumora::imaging
