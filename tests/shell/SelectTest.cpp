// "select" opens the camera and sets the display ranges its model is shown with.
#include <gtest/gtest.h>

#include <cstdlib>

#include <halden/sensor/sim/SimControl.h>

#include "Commands.h"
#include "imaging/ColorMaps.h"

namespace {

using lumora::imaging::Range;
using lumora::shell::run_command;

TEST(SelectTest, SelectAppliesTheModelsRangesAndDeselectKeepsThem) {
    // NOLINTNEXTLINE(concurrency-mt-unsafe): no library thread reads the environment
    ::setenv("LUMORA_SIM_DEVICES", "QRX200AP,Generic,QRX100AW9", 1);
    ASSERT_EQ(halden::sensor::sim::reset_devices(), halden::sensor::RESULT_SUCCESS);
    lumora::shell::ShellContext context;
    testing::internal::CaptureStdout();
    run_command(context, "search");
    const struct {
        const char* index;
        Range depth;
        Range gray;
    } cases[] = {
        {"0", {4000.0F, 0.0F}, {1400.0F, 0.0F}},
        {"1", {3000.0F, 0.0F}, {200.0F, 0.0F}},
        {"2", {7000.0F, 0.0F}, {230.0F, 0.0F}},
    };
    for (const auto& c : cases) {
        run_command(context, std::string("select ") + c.index);
        ASSERT_TRUE(context.camera) << c.index;
        EXPECT_EQ(*lumora::imaging::getDepthRange(), c.depth) << c.index;
        EXPECT_EQ(*lumora::imaging::getGrayRange(), c.gray) << c.index;
        run_command(context, "deselect");
        EXPECT_FALSE(context.camera);
        EXPECT_EQ(*lumora::imaging::getDepthRange(), c.depth) << "deselect leaves the ranges";
    }
    const std::string output = testing::internal::GetCapturedStdout();
    EXPECT_NE(output.find("selected device(QRX100AW9:"), std::string::npos) << output;
    ::unsetenv("LUMORA_SIM_DEVICES");  // NOLINT(concurrency-mt-unsafe): every camera is closed
    halden::sensor::sim::reset_devices();
}

}  // namespace
