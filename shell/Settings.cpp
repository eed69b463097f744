#include "Settings.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <optional>
#include <sstream>
#include <stdexcept>

#include "display/OpenCVVideoRendererSink.h"
#include "dump/FrameDumpSink.h"
#include "imaging/ColorMaps.h"
#include "quality/LiveQuality.h"
#include "quality/Report.h"
#include "terminal/TextHelpers.h"
#include "web/WebView.h"

namespace lumora::shell {

namespace hs = halden::sensor;

namespace {

constexpr Outcome kNotSupported = hs::RESULT_NOT_SUPPORTED;
constexpr Outcome kInvalid = hs::RESULT_INVALID_PARAMETER;
constexpr Outcome kSuccess = hs::RESULT_SUCCESS;

// The value of a number typed as an integer or a fraction; nothing for a word.
std::optional<double> number_of(const hs::LumoraProperty* value) {
    if (value == nullptr) return std::nullopt;
    if (value->dataType() == hs::DATA_TYPE_INT32) return value->getInt32();
    if (value->dataType() == hs::DATA_TYPE_FLOAT64) return value->getDouble();
    return std::nullopt;
}

std::string word_of(const hs::LumoraProperty* value) { return value == nullptr ? std::string() : value->getString({}); }

// "on" or "off" switch a setting; a number is not for these keys, any other word is wrong.
Outcome set_switch(const hs::LumoraProperty* value, void (*apply)(ShellContext&, bool), ShellContext& context) {
    if (number_of(value)) return kNotSupported;
    const std::string word = word_of(value);
    if (word != "on" && word != "off") return kInvalid;
    apply(context, word == "on");
    return kSuccess;
}

void print_value(const char* key, const std::string& value) { std::printf("-> result : %s %s\n", key, value.c_str()); }

void print_float(const char* key, float value) { std::printf("-> result : %s %f\n", key, static_cast<double>(value)); }

struct Resolution {
    int width;
    int height;
};
constexpr std::array<Resolution, 3> kResolutions = {{{160, 120}, {320, 240}, {640, 480}}};

// A bound of a colour-map range, as (max, min) with the max first.
enum class Bound { Max, Min };

template <const imaging::Range* (*Get)(), void (*Set)(const imaging::Range&), Bound B>
Outcome set_scale(ShellContext& /*context*/, const hs::LumoraProperty* value, const std::string& /*rest*/) {
    const auto number = number_of(value);
    if (!number) return kInvalid;
    imaging::Range range = *Get();
    (B == Bound::Max ? range.first : range.second) = static_cast<float>(*number);
    Set(range);
    return kSuccess;
}

template <const imaging::Range* (*Get)(), Bound B>
Outcome get_scale(const char* key, ShellContext& /*context*/, const hs::LumoraProperty* /*value*/) {
    const imaging::Range& range = *Get();
    print_float(key, B == Bound::Max ? range.first : range.second);
    return std::nullopt;
}

Outcome set_display(ShellContext& context, const hs::LumoraProperty* value, const std::string& /*rest*/) {
    return set_switch(
        value, [](ShellContext& c, bool on) { c.renderer->setDisplay(on); }, context);
}

Outcome get_display(const char* key, ShellContext& context, const hs::LumoraProperty* /*value*/) {
    print_value(key, context.renderer->isDisplay() ? "on" : "off");
    return std::nullopt;
}

Outcome set_display_resolution(ShellContext& context, const hs::LumoraProperty* value, const std::string& /*rest*/) {
    const auto number = number_of(value);
    if (!number) return kInvalid;
    for (size_t i = 0; i < kResolutions.size(); ++i) {
        if (*number != static_cast<double>(i)) continue;
        context.renderer->setDisplayResolution(kResolutions[i].width, kResolutions[i].height);
        return kSuccess;
    }
    return kNotSupported;
}

Outcome get_display_resolution(const char* key, ShellContext& context, const hs::LumoraProperty* /*value*/) {
    const auto [width, height] = context.renderer->displayResolution();
    for (size_t i = 0; i < kResolutions.size(); ++i) {
        if (kResolutions[i].width == width && kResolutions[i].height == height) {
            print_value(key, std::to_string(i));
            return std::nullopt;
        }
    }
    // Never set: frames are shown at their own size.
    print_value(key, "-1");
    return std::nullopt;
}

Outcome set_fps_check(ShellContext& context, const hs::LumoraProperty* value, const std::string& /*rest*/) {
    return set_switch(
        value, [](ShellContext& c, bool on) { c.renderer->setErrorCheck(on); }, context);
}

Outcome get_fps_check(const char* key, ShellContext& context, const hs::LumoraProperty* /*value*/) {
    print_value(key, context.renderer->isErrorCheck() ? "on" : "off");
    return std::nullopt;
}

template <Bound B>
Outcome set_fps_bound(ShellContext& context, const hs::LumoraProperty* value, const std::string& /*rest*/) {
    const auto number = number_of(value);
    if (!number) return kNotSupported;
    const auto bound = static_cast<float>(*number);
    if (B == Bound::Max) {
        context.renderer->setMaximum(bound);
    } else {
        context.renderer->setMinimum(bound);
    }
    return kSuccess;
}

template <Bound B>
Outcome get_fps_bound(const char* key, ShellContext& context, const hs::LumoraProperty* /*value*/) {
    const auto [maximum, minimum] = context.renderer->getRange();
    print_float(key, B == Bound::Max ? maximum : minimum);
    return std::nullopt;
}

// A number as an unsigned 32-bit value; negative or larger numbers wrap or saturate to
// values the dump sink refuses.
std::uint32_t as_u32(const hs::LumoraProperty& number) {
    if (number.dataType() == hs::DATA_TYPE_INT32) return static_cast<std::uint32_t>(number.getInt32());
    const double value = number.getDouble();
    return value >= 0.0 && value < 4294967296.0 ? static_cast<std::uint32_t>(value) : UINT32_MAX;
}

// "frame_dump MODE COUNT": MODE is the typed value, COUNT the next word.
Outcome set_frame_dump(ShellContext& context, const hs::LumoraProperty* value, const std::string& rest) {
    if (!number_of(value)) return kNotSupported;
    std::istringstream words(rest);
    std::string mode;
    std::string countWord;
    words >> mode >> countWord;
    if (!terminal::isInteger(countWord)) return kInvalid;
    std::uint32_t count = UINT32_MAX;
    try {
        count = static_cast<std::uint32_t>(terminal::toInt(countWord, -1));
    } catch (const std::out_of_range&) {
        // Beyond 32 bits: a count the sink refuses.
    }
    // The frame types the camera is running with decide which modes it can serve.
    context.dumpSink->requestDump(context.camera ? context.camera->wantedFrame() : 0, as_u32(*value), count);
    return kSuccess;
}

// A missing file name is not caught here: the inspector takes an empty path as nothing to
// read.
Outcome get_frame_dump(const char* /*key*/, ShellContext& context, const hs::LumoraProperty* value) {
    context.dumpSink->inspectDumpFile(word_of(value));
    return std::nullopt;
}

// The first word of the argument text after the key.
std::string first_word(const std::string& rest) {
    std::istringstream words(rest);
    std::string word;
    words >> word;
    return word;
}

// Starts serving with a new token and prints where, or says why it cannot.
Outcome set_web_view(ShellContext& context, const hs::LumoraProperty* value, const std::string& /*rest*/) {
    if (context.webView == nullptr || number_of(value)) return kNotSupported;
    const std::string word = word_of(value);
    if (word != "on" && word != "off") return kInvalid;
    web::WebView& view = *context.webView;
    if (word == "off") {
        view.stop();
        return kSuccess;
    }
    const std::string failure = view.start();
    if (!failure.empty()) {
        std::printf("web view: %s\n", failure.c_str());
        return Outcome(hs::RESULT_FAIL);
    }
    const unsigned port = view.port();
    if (view.bind() == "127.0.0.1" || view.bind() == "::1")
        std::printf("web view: %s (ssh -L %u:%s:%u BOARD, then open it on your laptop)\n", view.url().c_str(), port,
                    view.bind().c_str(), port);
    else
        std::printf("web view: %s\n", view.url().c_str());
    return kSuccess;
}

Outcome get_web_view(const char* key, ShellContext& context, const hs::LumoraProperty* /*value*/) {
    if (context.webView == nullptr) return kNotSupported;
    print_value(key, context.webView->isOn() ? "on " + context.webView->url() : "off");
    return std::nullopt;
}

// Takes effect at the next "web_view on".
Outcome set_web_port(ShellContext& context, const hs::LumoraProperty* value, const std::string& /*rest*/) {
    if (context.webView == nullptr) return kNotSupported;
    const auto number = number_of(value);
    if (!number || *number < 1.0 || *number > 65535.0 || *number != static_cast<double>(static_cast<int>(*number)))
        return kInvalid;
    context.webView->setPort(static_cast<unsigned short>(*number));
    return kSuccess;
}

Outcome get_web_port(const char* key, ShellContext& context, const hs::LumoraProperty* /*value*/) {
    if (context.webView == nullptr) return kNotSupported;
    print_value(key, std::to_string(context.webView->port()));
    return std::nullopt;
}

// The address as typed: a dotted address may be taken for a number by the property typing.
Outcome set_web_bind(ShellContext& context, const hs::LumoraProperty* /*value*/, const std::string& rest) {
    if (context.webView == nullptr) return kNotSupported;
    return context.webView->setBind(first_word(rest)) ? kSuccess : kInvalid;
}

Outcome get_web_bind(const char* key, ShellContext& context, const hs::LumoraProperty* /*value*/) {
    if (context.webView == nullptr) return kNotSupported;
    print_value(key, context.webView->bind());
    return std::nullopt;
}

// How long `get depth_quality` waits for the next list before it says that the lists stopped
// coming: generous, for emulated and sanitized builds, which deliver a few lists a second.
constexpr auto kQualityStall = std::chrono::seconds(5);

// "40" (a centred share, in %) or "X,Y,W,H" (pixels), as typed.
Outcome set_quality_roi(ShellContext& context, const hs::LumoraProperty* /*value*/, const std::string& rest) {
    if (context.liveQuality == nullptr) return kNotSupported;
    const auto roi = quality::parse_roi(first_word(rest));
    if (!roi) return kInvalid;
    context.liveQuality->setRoi(*roi);
    return kSuccess;
}

Outcome get_quality_roi(const char* key, ShellContext& context, const hs::LumoraProperty* /*value*/) {
    if (context.liveQuality == nullptr) return kNotSupported;
    const quality::RoiRequest roi = context.liveQuality->roi();
    const quality::Roi pixels = roi.pixels.value_or(quality::Roi{});
    print_value(key, roi.pixels ? std::to_string(pixels.x) + "," + std::to_string(pixels.y) + "," +
                                      std::to_string(pixels.width) + "," + std::to_string(pixels.height)
                                : std::to_string(roi.percent));
    return std::nullopt;
}

Outcome set_quality_frames(ShellContext& context, const hs::LumoraProperty* value, const std::string& /*rest*/) {
    if (context.liveQuality == nullptr) return kNotSupported;
    const auto number = number_of(value);
    if (!number || *number != static_cast<double>(static_cast<int>(*number)) ||
        !context.liveQuality->setLists(static_cast<std::size_t>(std::max(0.0, *number))))
        return kInvalid;
    return kSuccess;
}

Outcome get_quality_frames(const char* key, ShellContext& context, const hs::LumoraProperty* /*value*/) {
    if (context.liveQuality == nullptr) return kNotSupported;
    print_value(key, std::to_string(context.liveQuality->lists()));
    return std::nullopt;
}

// Millimetres; 0 for none.
Outcome set_quality_truth(ShellContext& context, const hs::LumoraProperty* value, const std::string& /*rest*/) {
    if (context.liveQuality == nullptr) return kNotSupported;
    const auto number = number_of(value);
    if (!number || !(*number >= 0.0) ||
        !context.liveQuality->setTruth(*number == 0.0 ? std::nullopt : std::optional<double>(*number)))
        return kInvalid;
    return kSuccess;
}

Outcome get_quality_truth(const char* key, ShellContext& context, const hs::LumoraProperty* /*value*/) {
    if (context.liveQuality == nullptr) return kNotSupported;
    char text[32];
    std::snprintf(text, sizeof text, "%.10g", context.liveQuality->truth().value_or(0.0));
    print_value(key, text);
    return std::nullopt;
}

// Read only: the figures are measured, not set.
Outcome set_depth_quality(ShellContext& context, const hs::LumoraProperty* /*value*/, const std::string& /*rest*/) {
    return context.liveQuality == nullptr ? kNotSupported : Outcome(hs::RESULT_INVALID_OPERATION);
}

// Measures the selected camera's next lists and prints the figures, or one line saying why
// there are none before the result line.
Outcome get_depth_quality(const char* /*key*/, ShellContext& context, const hs::LumoraProperty* /*value*/) {
    if (context.liveQuality == nullptr) return kNotSupported;
    const quality::LiveResult measured = context.liveQuality->measureNext(context.camera.get(), kQualityStall);
    if (measured.result != hs::RESULT_SUCCESS) {
        std::printf("depth quality: %s\n", measured.why.c_str());
        return Outcome(measured.result);
    }
    std::fputs(quality::format_text(measured.quality, measured.camera).c_str(), stdout);
    return kSuccess;
}

struct Setting {
    const char* key;
    Outcome (*set)(ShellContext& context, const hs::LumoraProperty* value, const std::string& rest);
    Outcome (*get)(const char* key, ShellContext& context, const hs::LumoraProperty* value);
};

// In the order "set" compares the keys.
constexpr std::array<Setting, 17> kSettings = {{
    {"display", set_display, get_display},
    {"display_resolution", set_display_resolution, get_display_resolution},
    {"scale_rgb_max", set_scale<imaging::getDepthRange, imaging::setDepthRange, Bound::Max>,
     get_scale<imaging::getDepthRange, Bound::Max>},
    {"scale_rgb_min", set_scale<imaging::getDepthRange, imaging::setDepthRange, Bound::Min>,
     get_scale<imaging::getDepthRange, Bound::Min>},
    {"scale_gray_max", set_scale<imaging::getGrayRange, imaging::setGrayRange, Bound::Max>,
     get_scale<imaging::getGrayRange, Bound::Max>},
    {"scale_gray_min", set_scale<imaging::getGrayRange, imaging::setGrayRange, Bound::Min>,
     get_scale<imaging::getGrayRange, Bound::Min>},
    {"fps_error_check", set_fps_check, get_fps_check},
    {"fps_error_check_min", set_fps_bound<Bound::Min>, get_fps_bound<Bound::Min>},
    {"fps_error_check_max", set_fps_bound<Bound::Max>, get_fps_bound<Bound::Max>},
    {"frame_dump", set_frame_dump, get_frame_dump},
    {"web_view", set_web_view, get_web_view},
    {"web_port", set_web_port, get_web_port},
    {"web_bind", set_web_bind, get_web_bind},
    {"quality_roi", set_quality_roi, get_quality_roi},
    {"quality_frames", set_quality_frames, get_quality_frames},
    {"quality_truth", set_quality_truth, get_quality_truth},
    {"depth_quality", set_depth_quality, get_depth_quality},
}};

// The setting with that key, or null; none while the shell has no sinks to apply it to.
const Setting* find_setting(const ShellContext& context, const std::string& key) {
    if (context.renderer == nullptr || context.dumpSink == nullptr) return nullptr;
    const auto found =
        std::find_if(kSettings.begin(), kSettings.end(), [&key](const Setting& s) { return key == s.key; });
    return found == kSettings.end() ? nullptr : &*found;
}

}  // namespace

Outcome set_setting(ShellContext& context, const std::string& key, const hs::LumoraProperty* value,
                    const std::string& rest) {
    const Setting* setting = find_setting(context, key);
    return setting == nullptr ? kNotSupported : setting->set(context, value, rest);
}

Outcome get_setting(ShellContext& context, const std::string& key, const hs::LumoraProperty* value) {
    const Setting* setting = find_setting(context, key);
    return setting == nullptr ? kNotSupported : setting->get(setting->key, context, value);
}

}  // namespace lumora::shell
