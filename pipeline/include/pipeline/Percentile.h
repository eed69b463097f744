// Percentiles of timing samples, as the sinks and the benchmarks report them.
#pragma once

#include <algorithm>
#include <cstddef>
#include <vector>

namespace lumora::pipeline {

// The sample of rank fraction x (n - 1), rounded down, in sorted order (`fraction` from 0 to
// 1: 0.5 the median, 1 the largest); 0 for no samples. Takes a copy, which it reorders.
inline double percentile(std::vector<double> samples, double fraction) {
    if (samples.empty()) return 0.0;
    const auto rank = static_cast<std::size_t>(fraction * static_cast<double>(samples.size() - 1));
    std::nth_element(samples.begin(), samples.begin() + static_cast<std::ptrdiff_t>(rank), samples.end());
    return samples[rank];
}

}  // namespace lumora::pipeline
