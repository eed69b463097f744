// The frame-rate checker's sampling and band check. The timer event is driven directly: the
// library timer's first event is a second after start, far beyond these tests (the soak has
// the checker on that timer, counting the errors of a band the camera misses).
#include <gtest/gtest.h>

#include "pipeline/FramerateChecker.h"

namespace lumora::pipeline {

// Found by argument-dependent look-up, so outside the unnamed namespace.
bool operator==(const FramerateStatus& a, const FramerateStatus& b) {
    return a.errorRate == b.errorRate && a.errorCount == b.errorCount && a.frameRate == b.frameRate;
}

void PrintTo(const FramerateStatus& status, std::ostream* out) {
    *out << "(" << status.errorRate << ", " << status.errorCount << ", " << status.frameRate << ")";
}

namespace {

// Feeds a running checker whole samples. Reading the status counts a frame itself, so that
// frame is taken as the first of the next sample.
class Sampler {
public:
    explicit Sampler(FramerateChecker& checker) : mChecker(checker) {}

    // The status after a sample of `frames` (at least 1) frames.
    FramerateStatus sample(unsigned frames) {
        for (; mCounted < frames; ++mCounted)
            mChecker.countFrame();
        mChecker.onTimeEvent(nullptr);
        mCounted = 1;
        return mChecker.countFrame();
    }

private:
    FramerateChecker& mChecker;
    unsigned mCounted = 0;
};

TEST(FramerateChecker, CountsOnlyWhileRunning) {
    FramerateChecker checker;
    EXPECT_FALSE(checker.isRunning());
    for (int i = 0; i < 5; ++i)
        EXPECT_EQ(checker.countFrame(), FramerateStatus{});
    checker.start();
    ASSERT_TRUE(checker.isRunning());
    // The frames offered before start were not counted.
    Sampler sampler(checker);
    EXPECT_EQ(sampler.sample(3), (FramerateStatus{0.0F, 0, 3.0F}));
    checker.stop();
    EXPECT_FALSE(checker.isRunning());
    EXPECT_EQ(checker.countFrame(), FramerateStatus{});
}

TEST(FramerateChecker, BandEdgesAreInsideTheBand) {
    FramerateChecker checker;
    EXPECT_EQ(checker.getRange(), std::make_pair(31.0F, 29.0F));
    EXPECT_FALSE(checker.isErrorCheck());
    checker.start();
    Sampler sampler(checker);
    // Checking off: no sample is an error.
    EXPECT_EQ(sampler.sample(5), (FramerateStatus{0.0F, 0, 5.0F}));

    checker.setErrorCheck(true);
    EXPECT_TRUE(checker.isErrorCheck());
    EXPECT_EQ(sampler.sample(29), (FramerateStatus{0.0F, 0, 29.0F}));
    EXPECT_EQ(sampler.sample(31), (FramerateStatus{0.0F, 0, 31.0F}));
    EXPECT_EQ(sampler.sample(28), (FramerateStatus{28.0F, 1, 28.0F}));
    EXPECT_EQ(sampler.sample(30), (FramerateStatus{28.0F, 1, 30.0F}));
    EXPECT_EQ(sampler.sample(32), (FramerateStatus{32.0F, 2, 32.0F}));

    // Switching on again keeps the count; off keeps it too; on from off clears it.
    checker.setErrorCheck(true);
    EXPECT_EQ(sampler.sample(30), (FramerateStatus{32.0F, 2, 30.0F}));
    checker.setErrorCheck(false);
    EXPECT_EQ(sampler.sample(10), (FramerateStatus{32.0F, 2, 10.0F}));
    checker.setErrorCheck(true);
    EXPECT_EQ(sampler.sample(30), (FramerateStatus{0.0F, 0, 30.0F}));
    checker.stop();
}

TEST(FramerateChecker, MinimumAboveMaximumMakesEverySampleAnError) {
    FramerateChecker checker;
    checker.setMinimum(40.0F);
    checker.setMaximum(35.0F);
    EXPECT_EQ(checker.getRange(), std::make_pair(35.0F, 40.0F));
    checker.setErrorCheck(true);
    checker.start();
    Sampler sampler(checker);
    EXPECT_EQ(sampler.sample(30), (FramerateStatus{30.0F, 1, 30.0F}));
    EXPECT_EQ(sampler.sample(38), (FramerateStatus{38.0F, 2, 38.0F}));
    EXPECT_EQ(sampler.sample(45), (FramerateStatus{45.0F, 3, 45.0F}));
    checker.stop();
}

TEST(FramerateChecker, StartingARunningCheckerKeepsItsCountersAndARestartClearsThem) {
    FramerateChecker checker;
    checker.setErrorCheck(true);
    checker.start();
    Sampler sampler(checker);
    EXPECT_EQ(sampler.sample(20), (FramerateStatus{20.0F, 1, 20.0F}));
    checker.start();
    EXPECT_TRUE(checker.isRunning());
    EXPECT_EQ(checker.countFrame(), (FramerateStatus{20.0F, 1, 20.0F}));

    // Stopped and started again: every counter from zero.
    checker.stop();
    checker.start();
    EXPECT_EQ(checker.countFrame(), FramerateStatus{});
    checker.onTimeEvent(nullptr);
    EXPECT_EQ(checker.countFrame(), (FramerateStatus{1.0F, 1, 1.0F}));
    checker.stop();
}

}  // namespace
}  // namespace lumora::pipeline
