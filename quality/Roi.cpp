#include "quality/Roi.h"

#include <algorithm>
#include <charconv>

namespace lumora::quality {

namespace {

// Reads a whole number at `at` and moves past it; false when there is none.
bool read_int(const char*& at, const char* end, int& value) {
    const auto [next, error] = std::from_chars(at, end, value);
    if (error != std::errc() || next == at) return false;
    at = next;
    return true;
}

// A share of `size` pixels, rounded, at least one.
int share(int size, int percent) { return std::max(1, (size * percent + 50) / 100); }

}  // namespace

std::optional<RoiRequest> parse_roi(const std::string& text) {
    const char* at = text.data();
    const char* const end = at + text.size();
    int numbers[4] = {};
    int count = 0;
    while (count < 4 && read_int(at, end, numbers[count])) {
        ++count;
        if (at == end || *at != ',') break;
        ++at;
    }
    if (at != end) return std::nullopt;
    if (count == 1 && numbers[0] >= 1 && numbers[0] <= 100) return RoiRequest{numbers[0], std::nullopt};
    if (count == 4 && numbers[0] >= 0 && numbers[1] >= 0 && numbers[2] >= 1 && numbers[3] >= 1)
        return RoiRequest{0, Roi{numbers[0], numbers[1], numbers[2], numbers[3]}};
    return std::nullopt;
}

Roi resolve_roi(const RoiRequest& request, int width, int height) {
    if (width <= 0 || height <= 0) return {};
    if (!request.pixels) {
        const int percent = std::clamp(request.percent, 1, 100);
        const int w = share(width, percent);
        const int h = share(height, percent);
        return {(width - w) / 2, (height - h) / 2, w, h};
    }
    const Roi& r = *request.pixels;
    const long right = std::min<long>(static_cast<long>(r.x) + r.width, width);
    const long bottom = std::min<long>(static_cast<long>(r.y) + r.height, height);
    if (r.x < 0 || r.y < 0 || r.x >= width || r.y >= height || right <= r.x || bottom <= r.y) return {};
    return {r.x, r.y, static_cast<int>(right - r.x), static_cast<int>(bottom - r.y)};
}

}  // namespace lumora::quality
