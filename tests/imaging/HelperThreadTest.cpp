#include <atomic>
#include <chrono>
#include <mutex>
#include <set>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "imaging/HelperThread.h"

namespace lumora::imaging {
namespace {

// Runs one job and checks that each position ran exactly once.
void expectEachOnce(HelperThread& helper, std::size_t count, std::size_t piece) {
    std::vector<std::atomic<int>> runs(count);
    helper.share(count, piece, [&](std::size_t begin, std::size_t end) {
        for (std::size_t i = begin; i < end; ++i)
            runs[i].fetch_add(1, std::memory_order_relaxed);
    });
    for (std::size_t i = 0; i < count; ++i)
        ASSERT_EQ(runs[i].load(), 1) << "position " << i << " of " << count << " in pieces of " << piece;
}

TEST(HelperThread, EveryPieceRunsOnceWhetherTheHelperWatchesSleepsOrIsGone) {
    HelperThread helper;
    // Back to back (the helper watching), then after pauses long enough for it to sleep;
    // pieces that divide the job, that do not, and larger than it.
    for (const auto pause : {std::chrono::microseconds(0), std::chrono::microseconds(3000)})
        for (const std::size_t count : {std::size_t{0}, std::size_t{1}, std::size_t{7}, std::size_t{1000}})
            for (const std::size_t piece : {std::size_t{0}, std::size_t{1}, std::size_t{3}, std::size_t{64}}) {
                std::this_thread::sleep_for(pause);
                expectEachOnce(helper, count, piece);
            }

    // Pieces slow enough that the helper takes some of them: the work really is shared.
    std::set<std::thread::id> workers;
    std::mutex workersMutex;
    for (int job = 0; job < 100 && workers.size() < 2; ++job)
        helper.share(8, 1, [&](std::size_t, std::size_t) {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
            const std::lock_guard<std::mutex> lock(workersMutex);
            workers.insert(std::this_thread::get_id());
        });
    EXPECT_EQ(workers.size(), 2U);

    // Ended while it watches and while it sleeps: the destructors join without a hang.
    {
        HelperThread watching;
        expectEachOnce(watching, 100, 10);
    }
    HelperThread sleeping;
    expectEachOnce(sleeping, 100, 10);
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
}

}  // namespace
}  // namespace lumora::imaging
