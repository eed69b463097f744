#include "quality/Report.h"

#include <array>
#include <cstdio>
#include <utility>

namespace lumora::quality {

namespace {

// At most 255 characters; the rest is cut.
template <typename... Args>
std::string printed(const char* pattern, Args... args) {
    char text[256];
    std::snprintf(text, sizeof text, pattern, args...);
    return text;
}

// The figures under their JSON names, in the JSON's order.
std::array<std::pair<const char*, const Figure*>, 9> json_fields(const Quality& q) {
    return {{{"fill_rate_pct", &q.fillRatePct},
             {"distance_mm", &q.distanceMm},
             {"plane_angle_deg", &q.planeAngleDeg},
             {"plane_fit_rms_mm", &q.planeFitRmsMm},
             {"temporal_noise_mm", &q.temporalNoiseMm},
             {"z_error_mm", &q.zErrorMm},
             {"z_error_pct", &q.zErrorPct},
             {"amplitude_mean", &q.amplitudeMean},
             {"amplitude_p5", &q.amplitudeP5}}};
}

}  // namespace

std::string format_text(const Quality& q, const std::string& camera) {
    std::string text = printed("depth quality of %s: %zu list%s, ROI %d,%d %dx%d\n", camera.c_str(), q.lists,
                               q.lists == 1 ? "" : "s", q.roi.x, q.roi.y, q.roi.width, q.roi.height);
    const auto line = [&text](const char* name, const Figure& figure, const std::string& value) {
        text += printed("  %-19s%s\n", name, figure.value ? value.c_str() : missing_text(figure.missing));
    };
    const auto value = [](const Figure& figure) { return figure.value.value_or(0.0); };
    line("fill rate", q.fillRatePct, printed("%.2f %%", value(q.fillRatePct)));
    line("distance", q.distanceMm, printed("%.1f mm", value(q.distanceMm)));
    line("plane angle", q.planeAngleDeg, printed("%.2f deg", value(q.planeAngleDeg)));
    line("plane-fit RMS", q.planeFitRmsMm, printed("%.2f mm", value(q.planeFitRmsMm)));
    line("temporal noise", q.temporalNoiseMm, printed("%.2f mm", value(q.temporalNoiseMm)));
    line("Z accuracy", q.zErrorMm, printed("%+.1f mm (%+.2f %%)", value(q.zErrorMm), value(q.zErrorPct)));
    line("amplitude", q.amplitudeMean,
         printed("mean %.1f, 5th percentile %.0f", value(q.amplitudeMean), value(q.amplitudeP5)));
    return text;
}

std::string format_json(const Quality& q) {
    std::string json = "{";
    std::string reasons;
    for (const auto& [name, figure] : json_fields(q)) {
        json += printed("\"%s\": ", name) + (figure->value ? printed("%.9g", *figure->value) : "null") + ", ";
        if (!figure->value)
            reasons += printed("%s\"%s\": \"%s\"", reasons.empty() ? "" : ", ", name, missing_text(figure->missing));
    }
    json +=
        printed("\"lists\": %zu, \"roi\": [%d, %d, %d, %d], ", q.lists, q.roi.x, q.roi.y, q.roi.width, q.roi.height);
    return json + "\"reasons\": {" + reasons + "}}";
}

}  // namespace lumora::quality
