// Frame-to-image conversion on frames made by hand: pixels against the two-table rule for
// both data types, the read-out and marker, scaling, projection of a known plane, and the
// console read-out; and the value read under a point of a picture, as the web page asks.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <map>
#include <memory>
#include <utility>
#include <vector>

#include <opencv2/imgproc.hpp>

#include <halden/sensor/sim/SimControl.h>

#include "imaging/ColorMaps.h"
#include "imaging/FrameConversion.h"
#include "imaging/Readout.h"
#include "imaging/View.h"

namespace lumora::imaging {
namespace {

namespace hs = halden::sensor;
using Frame = std::shared_ptr<hs::LumoraFrame>;

constexpr int kWidth = 64;
constexpr int kHeight = 48;

// A depth or amplitude frame whose pixel i holds values[i % size], as 16-bit or float data.
template <typename T>
Frame basicFrame(hs::LumoraFrame::FrameType type, hs::DataType dataType, const std::vector<T>& values,
                 int width = kWidth, int height = kHeight, std::uint64_t timestamp = 0) {
    Frame frame = hs::sim::make_frame(type, dataType, width, height, 1, timestamp);
    void* data = hs::sim::frame_data(frame);
    for (int i = 0; i < width * height; ++i) {
        const T value = values[static_cast<std::size_t>(i) % values.size()];
        if (dataType == hs::DATA_TYPE_UINT16)
            static_cast<std::uint16_t*>(data)[i] = static_cast<std::uint16_t>(value);
        else
            static_cast<float*>(data)[i] = static_cast<float>(value);
    }
    return frame;
}

// The rule itself, pixel by pixel: depth -> palette index (at most 1281) -> three bytes.
cv::Vec3b ruleColour(std::uint16_t depth) {
    const std::uint16_t k = std::min<std::uint16_t>(TableView().depthIndex()[depth], kPaletteMissing);
    return {palette()[0][k], palette()[1][k], palette()[2][k]};
}

std::uint8_t grayOf(std::uint16_t amplitude) { return TableView().gray()[amplitude]; }

class FrameConversion : public testing::Test {
protected:
    void SetUp() override {
        initColorMaps();
        setDepthRange({3000.0F, 0.0F});
        setGrayRange({200.0F, 0.0F});
        for (int i = 0; i < 997; ++i)
            mValues.push_back(static_cast<std::uint16_t>(i * 67 % 4001));
        mValues[0] = 0;
    }
    std::vector<std::uint16_t> mValues;
    ConversionContext mContext;
};

TEST_F(FrameConversion, DepthAndAmplitudeFollowTheTablesForBothDataTypes) {
    // Rows that are not a whole number of four or eight pixels, enough of them to be shared
    // between two threads, and a height that leaves the last share short.
    const int width = 331;
    const int height = 199;
    // A depth range of its own: the colours must follow a change of range.
    setDepthRange({2500.0F, 300.0F});
    std::vector<cv::Mat> depthImages;
    for (const auto dataType : {hs::DATA_TYPE_UINT16, hs::DATA_TYPE_FLOAT32}) {
        WindowImage depth;
        WindowImage amplitude;
        const cv::Point point(10, 20);
        convertDepthAmplitude(mContext, basicFrame(hs::LumoraFrame::FRAME_DEPTH, dataType, mValues, width, height),
                              basicFrame(hs::LumoraFrame::FRAME_AMPLITUDE, dataType, mValues, width, height),
                              {width, height}, point, {width - 1, height - 1}, depth, amplitude);
        ASSERT_EQ(depth.image.type(), CV_8UC3);
        ASSERT_EQ(amplitude.image.type(), CV_8UC1);
        for (int y = 0; y < height; ++y)
            for (int x = 0; x < width; ++x) {
                const std::uint16_t value = mValues[static_cast<std::size_t>(y * width + x) % mValues.size()];
                ASSERT_EQ(depth.image.at<cv::Vec3b>(y, x), ruleColour(value)) << x << "," << y;
                ASSERT_EQ(amplitude.image.at<std::uint8_t>(y, x), grayOf(value)) << x << "," << y;
            }
        // Depth 0 is missing and black.
        EXPECT_EQ(depth.image.at<cv::Vec3b>(0, 0), cv::Vec3b(0, 0, 0));
        const std::uint16_t atPoint = mValues[static_cast<std::size_t>(20 * width + 10) % mValues.size()];
        EXPECT_EQ(depth.readout, "  x:10, y:20, d:" + std::to_string(atPoint));
        const std::uint16_t atCorner = mValues[static_cast<std::size_t>(width * height - 1) % mValues.size()];
        EXPECT_EQ(amplitude.readout, "  x:330, y:198, a:" + std::to_string(atCorner));
        // The marker is the pixel's inverse, and drawn over it.
        const cv::Vec3b pixel = ruleColour(atPoint);
        EXPECT_EQ(depth.marker, cv::Scalar(255 - pixel[0], 255 - pixel[1], 255 - pixel[2], 0));
        const int gray = 255 - grayOf(atCorner);
        EXPECT_EQ(amplitude.marker, cv::Scalar(gray, gray, gray, 0));
        drawMarker(depth, point);
        EXPECT_EQ(depth.image.at<cv::Vec3b>(point), cv::Vec3b(255 - pixel[0], 255 - pixel[1], 255 - pixel[2]));
        depthImages.push_back(depth.image);
    }
    EXPECT_EQ(cv::norm(depthImages[0], depthImages[1], cv::NORM_INF), 0.0);

    // Float samples round half up to an integer and clamp into the 16-bit range, NaN to 0;
    // two groups of eight and a tail, as the conversion takes them. Just below 0.5 adding a
    // half would round up to 1.
    const float inf = std::numeric_limits<float>::infinity();
    const float belowHalf = std::nextafter(0.5F, 0.0F);
    const std::vector<std::pair<float, std::uint16_t>> rounding = {
        {149.6F, 150}, {-5.0F, 0},        {1.0e9F, 65535},   {0.4F, 0},  {2.5F, 3},       {NAN, 0},
        {99.5F, 100},  {65534.6F, 65535}, {65535.4F, 65535}, {0.5F, 1},  {7.49F, 7},      {-0.0F, 0},
        {inf, 65535},  {-inf, 0},         {belowHalf, 0},    {1e-3F, 0}, {1499.6F, 1500}, {NAN, 0}};
    const int count = static_cast<int>(rounding.size());
    Frame odd = hs::sim::make_frame(hs::LumoraFrame::FRAME_AMPLITUDE, hs::DATA_TYPE_FLOAT32, count, 1, 1, 0);
    for (int i = 0; i < count; ++i)
        static_cast<float*>(hs::sim::frame_data(odd))[i] = rounding[static_cast<std::size_t>(i)].first;
    WindowImage none;
    WindowImage amplitude;
    convertDepthAmplitude(mContext, nullptr, odd, {count, 1}, {0, 0}, {0, 0}, none, amplitude);
    for (int i = 0; i < count; ++i)
        EXPECT_EQ(amplitude.image.at<std::uint8_t>(0, i), grayOf(rounding[static_cast<std::size_t>(i)].second))
            << rounding[static_cast<std::size_t>(i)].first;
    EXPECT_TRUE(none.image.empty());
}

TEST_F(FrameConversion, ScalesDownOnlyByNearestNeighbour) {
    EXPECT_EQ(displaySize({640, 480}, 160, 120), cv::Size(160, 120));
    EXPECT_EQ(displaySize({320, 240}, 640, 480), cv::Size(320, 240));
    EXPECT_EQ(displaySize({640, 480}, 640, 120), cv::Size(640, 480));
    EXPECT_EQ(displaySize({640, 480}, -1, -1), cv::Size(640, 480));

    const Frame frame = basicFrame(hs::LumoraFrame::FRAME_DEPTH, hs::DATA_TYPE_UINT16, mValues);
    const cv::Mat values(kHeight, kWidth, CV_16UC1, hs::sim::frame_data(frame));
    const cv::Size shown(20, 15);
    cv::Mat nearest;
    cv::resize(values, nearest, shown, 0, 0, cv::INTER_NEAREST);
    WindowImage depth;
    WindowImage amplitude;
    convertDepthAmplitude(mContext, frame, nullptr, shown, {3, 4}, {0, 0}, depth, amplitude);
    ASSERT_EQ(depth.image.size(), shown);
    for (int y = 0; y < shown.height; ++y)
        for (int x = 0; x < shown.width; ++x)
            ASSERT_EQ(depth.image.at<cv::Vec3b>(y, x), ruleColour(nearest.at<std::uint16_t>(y, x))) << x << "," << y;
    EXPECT_EQ(depth.readout, "  x:3, y:4, d:" + std::to_string(nearest.at<std::uint16_t>(4, 3)));
}

TEST_F(FrameConversion, ProjectsAKnownPlaneOntoItsPixels) {
    // A wall 2 m away seen through a lens without distortion: each pixel's point lies on its
    // own ray, so it lands on that pixel; the last point lies off its pixel's ray on purpose.
    // Large enough to be shared between two threads.
    const int width = 160;
    const int height = 128;
    Projection lens = defaultProjection({width, height});
    lens.intrinsics = {50.0, 50.0, 80.0, 64.0};
    std::map<int, std::pair<Frame, cv::Mat>> converted;
    for (const auto type : {hs::LumoraFrame::FRAME_POINTCLOUD, hs::LumoraFrame::FRAME_INTENSITY_POINTCLOUD}) {
        Frame frame = hs::sim::make_frame(type, hs::DATA_TYPE_FLOAT32, width, height, 1, 0);
        auto* planes = static_cast<float*>(hs::sim::frame_data(frame));
        const std::size_t n = std::size_t{width} * height;
        for (int y = 0; y < height; ++y)
            for (int x = 0; x < width; ++x) {
                const std::size_t i = static_cast<std::size_t>(y) * width + x;
                planes[i] = static_cast<float>((x - 80.0) / 50.0 * 2.0);
                planes[n + i] = static_cast<float>((y - 64.0) / 50.0 * 2.0);
                planes[2 * n + i] = 2.0F;
                if (type == hs::LumoraFrame::FRAME_INTENSITY_POINTCLOUD) planes[3 * n + i] = 100.0F;
            }
        // The last point moved onto the ray of pixel (40, 30), 1 m away: drawn after that
        // pixel's own point, it is the one that shows.
        planes[n - 1] = -40.0F / 50.0F;
        planes[2 * n - 1] = -34.0F / 50.0F;
        planes[3 * n - 1] = 1.0F;
        // No point at (10, 20), which has z = 0; the one after it keeps its own intensity.
        const std::size_t hole = std::size_t{20} * width + 10;
        planes[2 * n + hole] = 0.0F;
        // The point of (100, 50) moved far to the left, off the image, at a depth of its own.
        planes[std::size_t{50} * width + 100] = -100.0F;
        planes[2 * n + std::size_t{50} * width + 100] = 1.5F;
        if (type == hs::LumoraFrame::FRAME_INTENSITY_POINTCLOUD) planes[3 * n + hole + 1] = 150.0F;
        WindowImage depth;
        WindowImage intensity;
        convertPointCloud(mContext, frame, lens, {width, height}, {5, 6}, {5, 6}, depth, &intensity);
        ASSERT_EQ(depth.image.size(), cv::Size(width, height));
        EXPECT_EQ(depth.image.at<cv::Vec3b>(height - 1, width - 1), cv::Vec3b(0, 0, 0)) << "nothing projects there";
        EXPECT_EQ(depth.image.at<cv::Vec3b>(30, 40), ruleColour(1000));
        EXPECT_EQ(depth.image.at<cv::Vec3b>(6, 5), ruleColour(2000));
        EXPECT_EQ(depth.image.at<cv::Vec3b>(height - 1, 0), ruleColour(2000));
        EXPECT_EQ(depth.image.at<cv::Vec3b>(20, 10), cv::Vec3b(0, 0, 0));
        EXPECT_EQ(depth.image.at<cv::Vec3b>(20, 11), ruleColour(2000));
        EXPECT_EQ(depth.image.at<cv::Vec3b>(50, 100), cv::Vec3b(0, 0, 0));
        cv::Mat offImage;
        cv::inRange(depth.image, ruleColour(1500), ruleColour(1500), offImage);
        EXPECT_EQ(cv::countNonZero(offImage), 0);
        EXPECT_EQ(depth.readout, "  x:5, y:6, z:2000");
        if (type == hs::LumoraFrame::FRAME_INTENSITY_POINTCLOUD) {
            EXPECT_EQ(intensity.image.at<std::uint8_t>(height - 1, 0), grayOf(100));
            EXPECT_EQ(intensity.image.at<std::uint8_t>(20, 11), grayOf(150));
            EXPECT_EQ(intensity.readout, "  x:5, y:6, a:100");
        } else {
            EXPECT_TRUE(intensity.image.empty());
        }
        converted[type] = {frame, depth.image};
    }
    // Both clouds hold the same points: the depth picture of one serves the other, with its
    // own read-out; a single point apart, they are not the same.
    const auto& [cloud, cloudImage] = converted[hs::LumoraFrame::FRAME_POINTCLOUD];
    const auto& [intensityCloud, intensityImage] = converted[hs::LumoraFrame::FRAME_INTENSITY_POINTCLOUD];
    ASSERT_TRUE(samePoints(cloud, intensityCloud));
    WindowImage copied{cv::Mat(height, width, CV_8UC3, cv::Scalar::all(255)), {}, {}};
    copyCloudPicture(cloud, WindowImage{intensityImage, {}, {}}, {40, 30}, copied);
    EXPECT_EQ(cv::norm(copied.image, cloudImage, cv::NORM_INF), 0.0);
    EXPECT_EQ(copied.readout, "  x:40, y:30, z:2000");
    static_cast<float*>(hs::sim::frame_data(cloud))[7] += 0.001F;
    EXPECT_FALSE(samePoints(cloud, intensityCloud));
    // A picture drawn over in place is the one drawn afresh: nothing of the old one is left.
    WindowImage depth{cv::Mat(height, width, CV_8UC3, cv::Scalar::all(255)), {}, {}};
    convertPointCloud(mContext, intensityCloud, lens, {width, height}, {5, 6}, {5, 6}, depth, nullptr);
    EXPECT_EQ(cv::norm(depth.image, intensityImage, cv::NORM_INF), 0.0);
    // 16-bit point clouds are not drawn, and a picture passed in is not left in place.
    convertPointCloud(mContext,
                      hs::sim::make_frame(hs::LumoraFrame::FRAME_POINTCLOUD, hs::DATA_TYPE_UINT16, 8, 8, 1, 0), lens,
                      {8, 8}, {0, 0}, {0, 0}, depth, nullptr);
    EXPECT_TRUE(depth.image.empty());
}

TEST_F(FrameConversion, ConsoleReadoutAndFramerateImage) {
    std::vector<Frame> frames;
    for (const auto type : {hs::LumoraFrame::FRAME_DEPTH, hs::LumoraFrame::FRAME_AMPLITUDE,
                            hs::LumoraFrame::FRAME_POINTCLOUD, hs::LumoraFrame::FRAME_INTENSITY_POINTCLOUD}) {
        Frame frame = hs::sim::make_frame(type, hs::DATA_TYPE_FLOAT32, 4, 2, 1, 0);
        auto* data = static_cast<float*>(hs::sim::frame_data(frame));
        const std::size_t centre = 1 * 4 + 2;
        const bool cloud = type >= hs::LumoraFrame::FRAME_POINTCLOUD;
        data[(cloud ? 2 * 8 : 0) + centre] = cloud ? 1.25F : (type == hs::LumoraFrame::FRAME_DEPTH ? 812.0F : 77.0F);
        if (type == hs::LumoraFrame::FRAME_INTENSITY_POINTCLOUD) data[std::size_t{3} * 8 + centre] = 55.0F;
        frames.push_back(frame);
    }
    EXPECT_EQ(consoleReadout("fps : 30.00", hs::sim::make_frame_list(frames)),
              "\rfps : 30.00, depth(002,001) : 0812, amplitude(002,001) : 0077, PCL(002,001) : 1250, "
              "Intensity-PCL(002,001) : 1250, 0055");

    const cv::Mat fps = framerateImage("fps : 30.00");
    EXPECT_EQ(fps.size(), cv::Size(20 * 11 - 40, 60));
    EXPECT_GT(cv::countNonZero(fps), 0);
    EXPECT_TRUE(framerateImage("ab").empty());
}

TEST(Readout, ReadsTheFramePixelUnderAScaledPicturePoint) {
    std::vector<std::uint16_t> depth(std::size_t{8} * 6);
    for (std::size_t i = 0; i < depth.size(); ++i)
        depth[i] = static_cast<std::uint16_t>(1000 + i);
    std::vector<float> amplitude(depth.size(), 2.6F);
    amplitude[13] = 70000.0F;
    Frame cloud = hs::sim::make_frame(hs::LumoraFrame::FRAME_POINTCLOUD, hs::DATA_TYPE_FLOAT32, 8, 6, 1, 0);
    static_cast<float*>(hs::sim::frame_data(cloud))[2 * 48 + 8 + 1] = 1.2345F;  // z of column 1, row 1
    const auto list = hs::sim::make_frame_list(
        {basicFrame(hs::LumoraFrame::FRAME_DEPTH, hs::DATA_TYPE_UINT16, depth, 8, 6, 4242),
         basicFrame(hs::LumoraFrame::FRAME_AMPLITUDE, hs::DATA_TYPE_FLOAT32, amplitude, 8, 6), cloud});

    // A picture of half the frame's size: point (3, 2) is frame column 6, row 4.
    const auto d = readValue(list, kDepth, 3, 2, 4, 3);
    ASSERT_TRUE(d);
    EXPECT_EQ(d->column, 6);
    EXPECT_EQ(d->row, 4);
    EXPECT_EQ(d->value, 1000 + 4 * 8 + 6);
    EXPECT_EQ(d->timestamp, 4242U);
    EXPECT_EQ(d->text, readoutText(6, 4, 'd', 1038));
    // Float samples rounded and clamped as the pictures show them; a point's z in millimetres.
    EXPECT_EQ(readValue(list, kAmplitude, 0, 0, 8, 6)->value, 3);
    EXPECT_EQ(readValue(list, kAmplitude, 5, 1, 8, 6)->value, 65535);
    EXPECT_EQ(readValue(list, kAmplitude, 0, 0, 8, 6)->letter, 'a');
    const auto z = readValue(list, kPointCloud, 1, 1, 8, 6);
    ASSERT_TRUE(z);
    EXPECT_EQ(z->value, 1234);
    EXPECT_EQ(z->letter, 'z');

    EXPECT_FALSE(readValue(list, kDepth, 4, 0, 4, 3));
    EXPECT_FALSE(readValue(list, kDepth, 0, -1, 4, 3));
    EXPECT_FALSE(readValue(list, kDepth, 0, 0, 0, 3));
    EXPECT_FALSE(readValue(list, kIntensityDepth, 0, 0, 8, 6));
    EXPECT_FALSE(readValue(list, kFramerate, 0, 0, 8, 6));
    EXPECT_FALSE(readValue(nullptr, kDepth, 0, 0, 8, 6));
}

}  // namespace
}  // namespace lumora::imaging
