// The depth-quality figures as text for people (the shell and `lmr quality` print it) and
// as one JSON object for programs.
#pragma once

#include <string>

#include "quality/DepthQuality.h"

namespace lumora::quality {

// "depth quality of CAMERA: N lists, ROI X,Y WxH", then one line per figure: its name padded
// to a column, its value and unit, or why it cannot be had. `camera` names the camera, such
// as "QRX100A LM0536240000". Every line ends with a newline.
std::string format_text(const Quality& quality, const std::string& camera);

// {"fill_rate_pct": ..., "distance_mm": ..., "plane_angle_deg": ..., "plane_fit_rms_mm": ...,
//  "temporal_noise_mm": ..., "z_error_mm": ..., "z_error_pct": ..., "amplitude_mean": ...,
//  "amplitude_p5": ..., "lists": N, "roi": [x, y, w, h], "reasons": {KEY: TEXT, ...}} on one
// line: a figure that cannot be had is null, and "reasons" says why for each of those.
std::string format_json(const Quality& quality);

}  // namespace lumora::quality
