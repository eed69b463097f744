#include "Progress.h"

#include <string>

namespace lumora::lmr {

namespace {
constexpr std::size_t kBarWidth = 30;
}

ProgressBar::ProgressBar(std::FILE* out, std::size_t total)
    : mOut(out), mTotal(total), mStart(std::chrono::steady_clock::now()) {}

void ProgressBar::update(std::size_t done) {
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - mStart).count();
    const std::size_t filled = mTotal == 0 ? kBarWidth : done * kBarWidth / mTotal;
    const std::string bar = std::string(filled, '#') + std::string(kBarWidth - filled, '.');
    std::fprintf(mOut, "\r[%s] %zu/%zu records, %.1f records/s", bar.c_str(), done, mTotal,
                 seconds > 0.0 ? static_cast<double>(done) / seconds : 0.0);
    std::fflush(mOut);
}

void ProgressBar::finish(std::size_t done) {
    update(done);
    std::fputc('\n', mOut);
}

}  // namespace lumora::lmr
