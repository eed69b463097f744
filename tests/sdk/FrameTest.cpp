// Frames made by hand, typed views of them, frame lists and their deep copies.
#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include <halden/sensor/Lumora.h>
#include <halden/sensor/sim/SimControl.h>

namespace {

using namespace halden::sensor;

constexpr LumoraFrame::FrameType kTypes[] = {LumoraFrame::FRAME_DEPTH, LumoraFrame::FRAME_AMPLITUDE,
                                             LumoraFrame::FRAME_POINTCLOUD, LumoraFrame::FRAME_INTENSITY_POINTCLOUD};
constexpr DataType kDataTypes[] = {DATA_TYPE_UINT16, DATA_TYPE_FLOAT32};

std::size_t planes_of(LumoraFrame::FrameType type) {
    return type == LumoraFrame::FRAME_POINTCLOUD ? 3 : type == LumoraFrame::FRAME_INTENSITY_POINTCLOUD ? 4 : 1;
}

std::size_t bytes_of(const std::shared_ptr<LumoraFrame>& frame) {
    const std::size_t element = frame->dataType() == DATA_TYPE_UINT16 ? 2 : 4;
    return frame->planeCount() * frame->elementCount() * element;
}

// Fills every byte of the frame's planes from a seed, so that two frames differ wherever their seeds do.
void fill(const std::shared_ptr<LumoraFrame>& frame, unsigned seed) {
    auto* bytes = static_cast<std::uint8_t*>(sim::frame_data(frame));
    ASSERT_NE(bytes, nullptr);
    for (std::size_t i = 0; i < bytes_of(frame); ++i)
        bytes[i] = static_cast<std::uint8_t>(i * 31 + seed);
}

bool same_planes(const std::shared_ptr<LumoraFrame>& a, const std::shared_ptr<LumoraFrame>& b) {
    return bytes_of(a) == bytes_of(b) && std::memcmp(a->data(), b->data(), bytes_of(a)) == 0;
}

TEST(MadeFrame, HasTheRequestedShapeAndZeroPlanes) {
    for (const auto type : kTypes) {
        for (const auto dataType : kDataTypes) {
            const auto frame = sim::make_frame(type, dataType, 7, 5, 42, 1000);
            ASSERT_NE(frame, nullptr);
            EXPECT_EQ(frame->frameType(), type);
            EXPECT_EQ(frame->dataType(), dataType);
            EXPECT_EQ(frame->width(), 7);
            EXPECT_EQ(frame->height(), 5);
            EXPECT_EQ(frame->elementCount(), 35U);
            EXPECT_EQ(frame->planeCount(), planes_of(type));
            EXPECT_EQ(frame->frameNumber(), 42U);
            EXPECT_EQ(frame->timestamp(), 1000U);
            EXPECT_EQ(sim::frame_data(frame), frame->data());
            const std::vector<std::uint8_t> zeros(bytes_of(frame), 0);
            EXPECT_EQ(std::memcmp(frame->data(), zeros.data(), zeros.size()), 0);
            const auto [result, line] = frame->getProperty("embedded_data_line");
            EXPECT_EQ(result, RESULT_NOT_FOUND);
            EXPECT_EQ(line, nullptr);
        }
    }
    EXPECT_EQ(sim::make_frame(LumoraFrame::FRAME_DEPTH, DATA_TYPE_INT32, 7, 5, 0, 0), nullptr);
    EXPECT_EQ(sim::make_frame(LumoraFrame::FRAME_DEPTH, DATA_TYPE_FLOAT64, 7, 5, 0, 0), nullptr);
    EXPECT_EQ(sim::make_frame(LumoraFrame::FRAME_DEPTH, DATA_TYPE_UINT16, 0, 5, 0, 0), nullptr);
    EXPECT_EQ(sim::make_frame(LumoraFrame::FRAME_DEPTH, DATA_TYPE_UINT16, 7, -1, 0, 0), nullptr);
    EXPECT_EQ(sim::frame_data(nullptr), nullptr);
}

TEST(MadeFrame, PropertiesAreReplacedByKey) {
    const auto frame = sim::make_frame(LumoraFrame::FRAME_DEPTH, DATA_TYPE_UINT16, 4, 4, 0, 0);
    EXPECT_EQ(sim::set_frame_property(frame, nullptr), RESULT_INVALID_PARAMETER);
    EXPECT_EQ(sim::set_frame_property(nullptr, make_property_32s("a", 1)), RESULT_INVALID_PARAMETER);
    EXPECT_EQ(sim::set_frame_property(frame, make_property_32s("a", 1)), RESULT_SUCCESS);
    EXPECT_EQ(sim::set_frame_property(frame, make_property_32s("b", 2)), RESULT_SUCCESS);
    EXPECT_EQ(sim::set_frame_property(frame, make_property_32s("a", 3)), RESULT_SUCCESS);
    EXPECT_EQ(std::get<1>(frame->getProperty("a"))->getInt32(), 3);
    EXPECT_EQ(std::get<1>(frame->getProperty("b"))->getInt32(), 2);
    EXPECT_EQ(std::get<0>(frame->getProperty("c")), RESULT_NOT_FOUND);
}

// Which views a frame of each kind and data type gives: exactly the one that matches.
TEST(FrameCast, OnlyTheMatchingViewIsNonEmpty) {
    for (const auto type : kTypes) {
        for (const auto dataType : kDataTypes) {
            const auto frame = sim::make_frame(type, dataType, 6, 3, 1, 77);
            const bool basic = type == LumoraFrame::FRAME_DEPTH || type == LumoraFrame::FRAME_AMPLITUDE;
            const bool cloud = type == LumoraFrame::FRAME_POINTCLOUD;
            const bool intensity = type == LumoraFrame::FRAME_INTENSITY_POINTCLOUD;
            const bool integral = dataType == DATA_TYPE_UINT16;
            SCOPED_TRACE(testing::Message() << "type " << type << ", data type " << dataType);
            EXPECT_EQ(static_cast<bool>(frame_cast_basic16u(frame)), basic && integral);
            EXPECT_EQ(static_cast<bool>(frame_cast_basic32f(frame)), basic && !integral);
            EXPECT_EQ(static_cast<bool>(frame_cast_pcl16u(frame)), cloud && integral);
            EXPECT_EQ(static_cast<bool>(frame_cast_pcl32f(frame)), cloud && !integral);
            EXPECT_EQ(static_cast<bool>(frame_cast_ipcl16u(frame)), intensity && integral);
            EXPECT_EQ(static_cast<bool>(frame_cast_ipcl32f(frame)), intensity && !integral);
        }
    }
    EXPECT_FALSE(frame_cast_basic16u(nullptr));
    EXPECT_FALSE(frame_cast_basic32f(nullptr));
    EXPECT_FALSE(frame_cast_pcl16u(nullptr));
    EXPECT_FALSE(frame_cast_pcl32f(nullptr));
    EXPECT_FALSE(frame_cast_ipcl16u(nullptr));
    EXPECT_FALSE(frame_cast_ipcl32f(nullptr));
}

TEST(FrameCast, ViewsReadThePlanesAndKeepTheFrameAlive) {
    auto frame = sim::make_frame(LumoraFrame::FRAME_INTENSITY_POINTCLOUD, DATA_TYPE_FLOAT32, 3, 2, 9, 123);
    auto* planes = static_cast<float*>(sim::frame_data(frame));
    for (int i = 0; i < 4 * 6; ++i)
        planes[i] = static_cast<float>(i);
    const auto cloud = frame_cast_ipcl32f(frame);
    frame.reset();
    ASSERT_TRUE(cloud);
    EXPECT_EQ(cloud.width(), 3);
    EXPECT_EQ(cloud.height(), 2);
    EXPECT_EQ(cloud.size(), 6U);
    EXPECT_EQ(cloud.timestamp(), 123U);
    EXPECT_EQ(cloud.frame()->frameNumber(), 9U);
    EXPECT_FLOAT_EQ(cloud.x()[1], 1.0F);
    EXPECT_FLOAT_EQ(cloud.y()[0], 6.0F);
    EXPECT_FLOAT_EQ(cloud.z()[5], 17.0F);
    EXPECT_FLOAT_EQ(cloud.intensity()[2], 20.0F);
    EXPECT_FLOAT_EQ(cloud[4], 4.0F);

    auto depth = sim::make_frame(LumoraFrame::FRAME_DEPTH, DATA_TYPE_UINT16, 4, 1, 0, 0);
    static_cast<std::uint16_t*>(sim::frame_data(depth))[3] = 65535;
    const auto view = frame_cast_basic16u(depth);
    depth.reset();
    EXPECT_EQ(view[3], 65535);
}

TEST(FrameList, MadeListSharesItsFirstFramesInstant) {
    const auto depth = sim::make_frame(LumoraFrame::FRAME_DEPTH, DATA_TYPE_UINT16, 4, 4, 5, 100);
    const auto cloud = sim::make_frame(LumoraFrame::FRAME_POINTCLOUD, DATA_TYPE_FLOAT32, 4, 4, 9, 900);
    const auto list = sim::make_frame_list({depth, cloud});
    ASSERT_NE(list, nullptr);
    EXPECT_EQ(list->size(), 2U);
    EXPECT_EQ(list->frameNumber(), 5U);
    EXPECT_EQ(list->timestamp(), 100U);
    EXPECT_EQ(list->at(0), depth);
    EXPECT_EQ(list->at(1), cloud);
    EXPECT_EQ(list->at(2), nullptr);
    EXPECT_EQ(cloud->frameNumber(), 5U);
    EXPECT_EQ(cloud->timestamp(), 100U);

    EXPECT_EQ(find_frame(list, LumoraFrame::FRAME_DEPTH), depth);
    EXPECT_EQ(find_frame(list, LumoraFrame::FRAME_POINTCLOUD), cloud);
    EXPECT_EQ(find_frame(list, LumoraFrame::FRAME_AMPLITUDE), nullptr);
    EXPECT_EQ(find_frame(nullptr, LumoraFrame::FRAME_DEPTH), nullptr);
    EXPECT_EQ(sim::make_frame_list({})->size(), 0U);
}

TEST(CopyFrameList, IsADeepCopyIndependentOfTheSource) {
    EXPECT_EQ(copy_frame_list(nullptr), nullptr);

    std::vector<std::shared_ptr<LumoraFrame>> frames;
    unsigned seed = 1;
    for (const auto type : kTypes) {
        frames.push_back(sim::make_frame(type, type == LumoraFrame::FRAME_DEPTH ? DATA_TYPE_FLOAT32 : DATA_TYPE_UINT16,
                                         5, 3, 77, 5000));
        fill(frames.back(), seed++);
    }
    const std::vector<std::uint8_t> line = {'L', 'M', 1, 2, 3};
    ASSERT_EQ(sim::set_frame_property(frames[0], sim::make_property_bytes("embedded_data_line", line)), RESULT_SUCCESS);
    ASSERT_EQ(sim::set_frame_property(frames[0], make_property_string("note", "kept")), RESULT_SUCCESS);
    const auto source = sim::make_frame_list(frames);

    const auto copy = copy_frame_list(source);
    ASSERT_NE(copy, nullptr);
    ASSERT_EQ(copy->size(), source->size());
    EXPECT_EQ(copy->frameNumber(), 77U);
    EXPECT_EQ(copy->timestamp(), 5000U);
    for (std::size_t i = 0; i < copy->size(); ++i) {
        const auto original = source->at(i);
        const auto duplicate = copy->at(i);
        EXPECT_NE(duplicate, original);
        EXPECT_EQ(duplicate->frameType(), original->frameType());
        EXPECT_EQ(duplicate->dataType(), original->dataType());
        EXPECT_EQ(duplicate->width(), 5);
        EXPECT_EQ(duplicate->height(), 3);
        EXPECT_EQ(duplicate->planeCount(), original->planeCount());
        EXPECT_EQ(duplicate->frameNumber(), 77U);
        EXPECT_EQ(duplicate->timestamp(), 5000U);
        EXPECT_NE(duplicate->data(), original->data());
        EXPECT_TRUE(same_planes(duplicate, original)) << i;
    }

    const auto copiedLine = std::get<1>(copy->at(0)->getProperty("embedded_data_line"));
    const auto originalLine = std::get<1>(frames[0]->getProperty("embedded_data_line"));
    ASSERT_NE(copiedLine, nullptr);
    EXPECT_NE(copiedLine, originalLine);
    EXPECT_EQ(copiedLine->dataType(), DATA_TYPE_BYTES);
    EXPECT_EQ(copiedLine->getBytes(), line);
    const auto copiedNote = std::get<1>(copy->at(0)->getProperty("note"));
    ASSERT_NE(copiedNote, nullptr);
    EXPECT_EQ(copiedNote->getString(""), "kept");
    EXPECT_EQ(std::get<0>(copy->at(1)->getProperty("embedded_data_line")), RESULT_NOT_FOUND);

    // Rewriting the source afterwards leaves the copy as it was.
    const auto snapshot = copy_frame_list(copy);
    for (std::size_t i = 0; i < source->size(); ++i)
        fill(source->at(i), 200 + static_cast<unsigned>(i));
    ASSERT_EQ(sim::set_frame_property(frames[0], sim::make_property_bytes("embedded_data_line", {9, 9})),
              RESULT_SUCCESS);
    for (std::size_t i = 0; i < copy->size(); ++i) {
        EXPECT_FALSE(same_planes(copy->at(i), source->at(i))) << i;
        EXPECT_TRUE(same_planes(copy->at(i), snapshot->at(i))) << i;
    }
    EXPECT_EQ(std::get<1>(copy->at(0)->getProperty("embedded_data_line"))->getBytes(), line);
}

}  // namespace
