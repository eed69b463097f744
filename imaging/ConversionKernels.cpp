// The per-pixel kernels of the conversion: 128-bit vector forms through OpenCV's universal
// intrinsics (SSE on x86-64, NEON on Arm), 512-bit forms chosen at run time where the
// processor has them, and plain loops for the tails and for other platforms. Every form
// gives the same bytes as the plain one.
#include "ConversionKernels.h"

#include <array>
#include <cstring>

#if defined(__x86_64__)
#include <immintrin.h>
#endif

#include <opencv2/core/hal/intrin.hpp>

namespace lumora::imaging {

namespace {

#if CV_SIMD128
// toSample on four floats.
inline cv::v_int32x4 toSamples4(cv::v_float32x4 value) {
    const cv::v_float32x4 half = cv::v_setall_f32(0.5F);
    value = cv::v_min(value & (value >= half), cv::v_setall_f32(65535.0F));
    return cv::v_trunc(value + half);
}
#endif

#if defined(__x86_64__) && (defined(__GNUC__) || defined(__clang__))
#define LUMORA_WIDE_SAMPLES 1
// toSample sixteen at a time, for processors with 512-bit vectors: a float row's
// conversion is a third of its time, and reading the floats bounds it. The minimum keeps a
// NaN (it is the second operand), which then fails the comparison and reads 0.
__attribute__((target("avx512f,avx512bw"))) void toSamplesWide(const float* source, int n, std::uint16_t* out) {
    const __m512 half = _mm512_set1_ps(0.5F);
    const __m512 top = _mm512_set1_ps(65535.0F);
    constexpr __mmask16 kAll = 0xFFFF;
    int i = 0;
    for (; i + 16 <= n; i += 16) {
        // The masked forms throughout: g++ 12's plain ones warn of their own undefined operand.
        const __m512 value = _mm512_mask_min_ps(top, kAll, top, _mm512_loadu_ps(source + i));
        const __mmask16 rounded = _mm512_cmp_ps_mask(value, half, _CMP_GE_OQ);
        const __m512i whole = _mm512_maskz_cvttps_epi32(kAll, _mm512_maskz_add_ps(rounded, value, half));
        _mm512_mask_cvtepi32_storeu_epi16(out + i, kAll, whole);
    }
    for (; i < n; ++i)
        out[i] = toSample(source[i]);
}

// Asked once, at load: the processor does not change under a running program. This may run
// before the run-time library's own look at the processor, so it asks for that first.
bool hasWideSamples() {
    __builtin_cpu_init();
    return __builtin_cpu_supports("avx512bw") != 0;
}
const bool kWideSamples = hasWideSamples();
#endif

}  // namespace

// Eight at a time in vector registers where the platform has them, sixteen where it has
// 512-bit ones.
void toSamples(const float* source, int n, std::uint16_t* out) {
#ifdef LUMORA_WIDE_SAMPLES
    if (kWideSamples) {
        toSamplesWide(source, n, out);
        return;
    }
#endif
    int i = 0;
#if CV_SIMD128
    // Offset into the signed 16-bit range for a plain saturating pack, then back.
    const cv::v_int32x4 offset = cv::v_setall_s32(32768);
    const cv::v_uint16x8 sign = cv::v_setall_u16(0x8000);
    for (; i + 8 <= n; i += 8) {
        const cv::v_int32x4 low = toSamples4(cv::v_load(source + i)) - offset;
        const cv::v_int32x4 high = toSamples4(cv::v_load(source + i + 4)) - offset;
        cv::v_store(out + i, cv::v_reinterpret_as_u16(cv::v_pack(low, high)) ^ sign);
    }
#endif
    for (; i < n; ++i)
        out[i] = toSample(source[i]);
}

// Eight at a time as three 8-byte words: the fewest stores, and each sample's load feeds its
// table's load directly.
void colourRow(const std::uint16_t* samples, int n, std::uint8_t* out, const DepthColourTable& colours) {
    int i = 0;
    for (; i + 8 <= n; i += 8, out += 24) {
        const std::uint64_t c0 = colours[samples[i]];
        const std::uint64_t c1 = colours[samples[i + 1]];
        const std::uint64_t c2 = colours[samples[i + 2]];
        const std::uint64_t c3 = colours[samples[i + 3]];
        const std::uint64_t c4 = colours[samples[i + 4]];
        const std::uint64_t c5 = colours[samples[i + 5]];
        const std::uint64_t c6 = colours[samples[i + 6]];
        const std::uint64_t c7 = colours[samples[i + 7]];
        const std::uint64_t first = c0 | c1 << 24U | c2 << 48U;
        const std::uint64_t second = c2 >> 16U | c3 << 8U | c4 << 32U | c5 << 56U;
        const std::uint64_t third = c5 >> 8U | c6 << 16U | c7 << 40U;
        std::memcpy(out, &first, 8);
        std::memcpy(out + 8, &second, 8);
        std::memcpy(out + 16, &third, 8);
    }
    for (; i < n; ++i, out += 3) {
        const std::uint32_t pixel = colours[samples[i]];
        std::memcpy(out, &pixel, 3);
    }
}

void grayRow(const std::uint16_t* samples, int n, std::uint8_t* out, const GrayTable& gray) {
    int i = 0;
    for (; i + 8 <= n; i += 8) {
        std::uint64_t word = 0;
        for (int k = 0; k < 8; ++k)
            word |= static_cast<std::uint64_t>(gray[samples[i + k]]) << (8U * k);
        std::memcpy(out + i, &word, 8);
    }
    for (; i < n; ++i)
        out[i] = gray[samples[i]];
}

// Four pixels that all have z > 0 are copied at once in vector registers where the platform
// has them.
std::size_t gatherPoints(const float* x, const float* y, const float* z, std::size_t begin, std::size_t end,
                         cv::Point3f* points, std::int32_t* pixels) {
    std::size_t n = 0;
    std::size_t i = begin;
    const auto one = [&](std::size_t at) {
        points[n] = {x[at], y[at], z[at]};
        pixels[n] = static_cast<std::int32_t>(at);
        n += z[at] > 0.0F ? 1 : 0;
    };
#if CV_SIMD128
    const cv::v_float32x4 zero = cv::v_setzero_f32();
    const auto first = static_cast<int>(begin);
    cv::v_int32x4 numbers(first, first + 1, first + 2, first + 3);
    const cv::v_int32x4 four = cv::v_setall_s32(4);
    for (; i + 4 <= end; i += 4, numbers += four) {
        const cv::v_float32x4 depth = cv::v_load(z + i);
        if (cv::v_check_all(depth > zero)) {
            cv::v_store_interleave(&points[n].x, cv::v_load(x + i), cv::v_load(y + i), depth);
            cv::v_store(pixels + n, numbers);
            n += 4;
        } else {
            for (std::size_t at = i; at < i + 4; ++at)
                one(at);
        }
    }
#endif
    for (; i < end; ++i)
        one(i);
    return n;
}

// Four at a time in vector registers where the platform has them.
void placePoints(const cv::Point3f* points, const cv::Point2f* shown, std::size_t n, cv::Size display,
                 const float* intensity, const DepthColourTable& colours, const GrayTable& gray, std::int32_t* landing,
                 std::uint32_t* colour, std::uint8_t* level) {
    if (level != nullptr)
        for (std::size_t k = 0; k < n; ++k)
            level[k] = gray[toSample(intensity[landing[k]])];
    const auto width = static_cast<float>(display.width);
    const auto height = static_cast<float>(display.height);
    std::size_t k = 0;
#if CV_SIMD128
    const cv::v_float32x4 zero = cv::v_setzero_f32();
    const cv::v_float32x4 half = cv::v_setall_f32(0.5F);
    const cv::v_float32x4 thousand = cv::v_setall_f32(1000.0F);
    const cv::v_float32x4 right = cv::v_setall_f32(width);
    const cv::v_float32x4 bottom = cv::v_setall_f32(height);
    const cv::v_int32x4 rowLength = cv::v_setall_s32(display.width);
    const cv::v_int32x4 offImage = cv::v_setall_s32(-1);
    std::array<std::int32_t, 4> samples{};
    for (; k + 4 <= n; k += 4) {
        cv::v_float32x4 x;
        cv::v_float32x4 y;
        cv::v_float32x4 z;
        cv::v_load_deinterleave(&points[k].x, x, y, z);
        cv::v_store(samples.data(), toSamples4(z * thousand));
        for (std::size_t j = 0; j < 4; ++j)
            colour[k + j] = colours[static_cast<std::uint16_t>(samples[j])];
        cv::v_float32x4 u;
        cv::v_float32x4 v;
        cv::v_load_deinterleave(&shown[k].x, u, v);
        u = u + half;
        v = v + half;
        const cv::v_float32x4 onImage = (u >= zero) & (v >= zero) & (u < right) & (v < bottom);
        const cv::v_int32x4 at = cv::v_trunc(v) * rowLength + cv::v_trunc(u);
        cv::v_store(landing + k, cv::v_select(cv::v_reinterpret_as_s32(onImage), at, offImage));
    }
#endif
    for (; k < n; ++k) {
        const float u = shown[k].x + 0.5F;
        const float v = shown[k].y + 0.5F;
        colour[k] = colours[toSample(points[k].z * 1000.0F)];
        const bool onImage = u >= 0.0F && v >= 0.0F && u < width && v < height;
        landing[k] = onImage ? static_cast<int>(v) * display.width + static_cast<int>(u) : -1;
    }
}

}  // namespace lumora::imaging
