// A one-line progress bar for a terminal: records done of the total and the rate.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdio>

namespace lumora::lmr {

// Draws on `out` (not owned), rewriting one line in place. Used by one thread.
class ProgressBar {
public:
    ProgressBar(std::FILE* out, std::size_t total);

    // Redraws the line for `done` records finished.
    void update(std::size_t done);
    // Redraws it a last time and ends the line.
    void finish(std::size_t done);

private:
    std::FILE* mOut;
    std::size_t mTotal;
    std::chrono::steady_clock::time_point mStart;
};

}  // namespace lumora::lmr
