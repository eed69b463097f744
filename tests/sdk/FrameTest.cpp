// Frames made by hand, typed views of them, frame lists and their deep copies.
#include <cstring>

#include "SimTestSupport.h"

namespace halden::sensor::test {
namespace {

constexpr LumoraFrame::FrameType kTypes[] = {LumoraFrame::FRAME_DEPTH, LumoraFrame::FRAME_AMPLITUDE,
                                             LumoraFrame::FRAME_POINTCLOUD, LumoraFrame::FRAME_INTENSITY_POINTCLOUD};

std::size_t bytes_of(const std::shared_ptr<LumoraFrame>& frame) {
    return frame->planeCount() * frame->elementCount() * (frame->dataType() == DATA_TYPE_UINT16 ? 2 : 4);
}

// Fills every byte of the frame's planes from a seed, so that two frames differ wherever their seeds do.
void fill(const std::shared_ptr<LumoraFrame>& frame, unsigned seed) {
    auto* bytes = static_cast<std::uint8_t*>(sim::frame_data(frame));
    for (std::size_t i = 0; i < bytes_of(frame); ++i)
        bytes[i] = static_cast<std::uint8_t>(i * 31 + seed);
}

TEST(MadeFrame, HasTheRequestedShapeAndZeroPlanesAndGivesOnlyTheMatchingView) {
    for (const auto type : kTypes) {
        for (const auto dataType : {DATA_TYPE_UINT16, DATA_TYPE_FLOAT32}) {
            SCOPED_TRACE(testing::Message() << "type " << type << ", data type " << dataType);
            const auto frame = sim::make_frame(type, dataType, 7, 5, 42, 1000);
            ASSERT_NE(frame, nullptr);
            const bool basic = type <= LumoraFrame::FRAME_AMPLITUDE;
            const bool cloud = type == LumoraFrame::FRAME_POINTCLOUD;
            const bool intensity = type == LumoraFrame::FRAME_INTENSITY_POINTCLOUD;
            EXPECT_EQ(frame->frameType(), type);
            EXPECT_EQ(frame->dataType(), dataType);
            EXPECT_EQ(frame->elementCount(), 35U);
            EXPECT_EQ(frame->planeCount(), basic ? 1U : cloud ? 3U : 4U);
            EXPECT_EQ(sim::frame_data(frame), frame->data());
            const std::vector<std::uint8_t> zeros(bytes_of(frame), 0);
            EXPECT_EQ(std::memcmp(frame->data(), zeros.data(), zeros.size()), 0);
            EXPECT_EQ(std::get<0>(frame->getProperty("embedded_data_line")), RESULT_NOT_FOUND);

            const bool integral = dataType == DATA_TYPE_UINT16;
            EXPECT_EQ(static_cast<bool>(frame_cast_basic16u(frame)), basic && integral);
            EXPECT_EQ(static_cast<bool>(frame_cast_basic32f(frame)), basic && !integral);
            EXPECT_EQ(static_cast<bool>(frame_cast_pcl16u(frame)), cloud && integral);
            EXPECT_EQ(static_cast<bool>(frame_cast_pcl32f(frame)), cloud && !integral);
            EXPECT_EQ(static_cast<bool>(frame_cast_ipcl16u(frame)), intensity && integral);
            EXPECT_EQ(static_cast<bool>(frame_cast_ipcl32f(frame)), intensity && !integral);
        }
    }
    EXPECT_FALSE(frame_cast_basic16u(nullptr) || frame_cast_basic32f(nullptr) || frame_cast_pcl16u(nullptr) ||
                 frame_cast_pcl32f(nullptr) || frame_cast_ipcl16u(nullptr) || frame_cast_ipcl32f(nullptr));
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

TEST(FrameView, ReadsThePlanesAndKeepsTheFrameAlive) {
    auto frame = sim::make_frame(LumoraFrame::FRAME_INTENSITY_POINTCLOUD, DATA_TYPE_FLOAT32, 3, 2, 9, 123);
    auto* planes = static_cast<float*>(sim::frame_data(frame));
    for (int i = 0; i < 4 * 6; ++i)
        planes[i] = static_cast<float>(i);
    const auto cloud = frame_cast_ipcl32f(frame);
    frame.reset();
    ASSERT_TRUE(cloud);
    EXPECT_EQ(cloud.size(), 6U);
    EXPECT_FLOAT_EQ(cloud.x()[1], 1.0F);
    EXPECT_FLOAT_EQ(cloud.y()[0], 6.0F);
    EXPECT_FLOAT_EQ(cloud.z()[5], 17.0F);
    EXPECT_FLOAT_EQ(cloud.intensity()[2], 20.0F);
    EXPECT_FLOAT_EQ(cloud[4], 4.0F);
}

TEST(FrameList, MadeListSharesItsFirstFramesInstant) {
    const auto depth = sim::make_frame(LumoraFrame::FRAME_DEPTH, DATA_TYPE_UINT16, 4, 4, 5, 100);
    const auto cloud = sim::make_frame(LumoraFrame::FRAME_POINTCLOUD, DATA_TYPE_FLOAT32, 4, 4, 9, 900);
    const auto list = sim::make_frame_list({depth, cloud});
    ASSERT_NE(list, nullptr);
    EXPECT_EQ(list->size(), 2U);
    EXPECT_EQ(list->frameNumber(), 5U);
    EXPECT_EQ(list->timestamp(), 100U);
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
    for (const auto type : kTypes) {
        frames.push_back(sim::make_frame(type, type == LumoraFrame::FRAME_DEPTH ? DATA_TYPE_FLOAT32 : DATA_TYPE_UINT16,
                                         5, 3, 77, 5000));
        fill(frames.back(), static_cast<unsigned>(frames.size()));
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
    const auto same = [](const std::shared_ptr<LumoraFrame>& a, const std::shared_ptr<LumoraFrame>& b) {
        return a->frameType() == b->frameType() && same_frame(*a, *std::static_pointer_cast<sim::SimFrame>(b));
    };
    for (std::size_t i = 0; i < copy->size(); ++i) {
        EXPECT_TRUE(same(copy->at(i), source->at(i))) << i;
    }
    const auto copiedLine = std::get<1>(copy->at(0)->getProperty("embedded_data_line"));
    EXPECT_NE(copiedLine, std::get<1>(frames[0]->getProperty("embedded_data_line")));
    EXPECT_EQ(copiedLine->getBytes(), line);
    EXPECT_EQ(std::get<1>(copy->at(0)->getProperty("note"))->getString(""), "kept");
    EXPECT_EQ(std::get<0>(copy->at(1)->getProperty("embedded_data_line")), RESULT_NOT_FOUND);

    // Rewriting the source afterwards leaves the copy as it was.
    const auto snapshot = copy_frame_list(copy);
    for (std::size_t i = 0; i < source->size(); ++i)
        fill(source->at(i), 200 + static_cast<unsigned>(i));
    ASSERT_EQ(sim::set_frame_property(frames[0], sim::make_property_bytes("embedded_data_line", {9, 9})),
              RESULT_SUCCESS);
    for (std::size_t i = 0; i < copy->size(); ++i) {
        EXPECT_FALSE(same(copy->at(i), source->at(i))) << i;
        EXPECT_TRUE(same(copy->at(i), snapshot->at(i))) << i;
    }
    EXPECT_EQ(std::get<1>(copy->at(0)->getProperty("embedded_data_line"))->getBytes(), line);
}

}  // namespace
}  // namespace halden::sensor::test
