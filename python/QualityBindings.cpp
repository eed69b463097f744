// lumora.quality: the depth-quality figures of quality/, the implementation `lmr quality`
// prints, over a Dump, FrameLists or depth arrays.
#include <pybind11/stl.h>

#include "Bindings.h"
#include "quality/DepthQuality.h"
#include "quality/ReplayCalibration.h"
#include "quality/Report.h"

namespace lumora::python {

namespace {

constexpr const char* kCalibrationForm =
    "calibration=lumora.Calibration (Camera.calibration()) or (fx, fy, cx, cy[, k1, k2, p1, p2, k3])";

constexpr const char* kRoiForm = "roi is a percentage (1 to 100) or (x, y, w, h) with x, y >= 0 and w, h >= 1";

// The value as T; ValueError saying what is expected when it is not one.
template <typename T>
T as(const py::handle& value, const std::string& expected) {
    try {
        return value.cast<T>();
    } catch (const py::cast_error&) {
        throw py::value_error(expected);
    }
}

quality::RoiRequest roi_of(const py::handle& roi) {
    if (roi.is_none()) return {};
    if (PyIndex_Check(roi.ptr()) && !PyBool_Check(roi.ptr())) {
        const int percent = as<int>(roi, kRoiForm);
        if (percent < 1 || percent > 100) throw py::value_error(kRoiForm);
        return {percent, std::nullopt};
    }
    const auto numbers = as<std::vector<int>>(roi, kRoiForm);
    if (numbers.size() != 4 || numbers[0] < 0 || numbers[1] < 0 || numbers[2] < 1 || numbers[3] < 1)
        throw py::value_error(kRoiForm);
    return {0, quality::Roi{numbers[0], numbers[1], numbers[2], numbers[3]}};
}

std::optional<quality::Calibration> calibration_of(const py::handle& given) {
    if (given.is_none()) return std::nullopt;
    quality::Calibration c;
    const std::string expected = std::string("expected ") + kCalibrationForm;
    if (py::hasattr(given, "fx") && py::hasattr(given, "distortion")) {
        const py::object d = given.attr("distortion");
        const auto number = [&expected](const py::handle& of, const char* name) {
            return as<double>(of.attr(name), expected);
        };
        c.intrinsics = {number(given, "fx"), number(given, "fy"), number(given, "cx"), number(given, "cy")};
        c.distortion = {number(d, "k1"), number(d, "k2"), number(d, "k3"), number(d, "p1"), number(d, "p2"), 0.0};
    } else {
        // A str would pass as a sequence of one-letter strings.
        if (py::isinstance<py::str>(given)) throw py::value_error(expected);
        const auto v = as<std::vector<double>>(given, expected);
        if (v.size() != 4 && v.size() != 9) throw py::value_error(expected);
        c.intrinsics = {v[0], v[1], v[2], v[3]};
        if (v.size() == 9) c.distortion = {v[4], v[5], v[8], v[6], v[7], 0.0};
    }
    if (!(c.intrinsics.fx > 0.0) || !(c.intrinsics.fy > 0.0)) throw py::value_error("calibration: fx and fy above 0");
    return c;
}

// A 2-D uint16 or float32 array of depth, made contiguous; kept in `held` while it is read.
quality::ListView array_view(const py::handle& item, std::vector<py::array>& held) {
    if (!py::isinstance<py::array>(item))
        throw py::value_error("a source is a Dump, or a list of FrameLists or of depth arrays (numpy, mm)");
    const auto array = py::reinterpret_borrow<py::array>(item);
    const bool integers = array.dtype().is(py::dtype::of<std::uint16_t>());
    if (array.ndim() != 2 || (!integers && !array.dtype().is(py::dtype::of<float>())))
        throw py::value_error("a depth array is (H, W) uint16 or float32 in mm, not " +
                              py::str(array.attr("shape")).cast<std::string>() + " " +
                              py::str(array.dtype()).cast<std::string>());
    held.push_back(integers ? py::array(py::array_t<std::uint16_t, py::array::c_style>::ensure(array))
                            : py::array(py::array_t<float, py::array::c_style>::ensure(array)));
    quality::ListView view;
    view.height = static_cast<int>(array.shape(0));
    view.width = static_cast<int>(array.shape(1));
    view.depth = held.back().data();
    view.depthType = integers ? quality::Sample::kUint16 : quality::Sample::kFloat32;
    return view;
}

py::object measure(const py::object& source, const py::object& roi, std::optional<double> truth,
                   const py::object& calibration, const py::object& result) {
    quality::Settings settings;
    settings.roi = roi_of(roi);
    settings.truthMm = truth;
    if (truth && !(*truth > 0.0)) throw py::value_error("truth_mm is above 0");
    settings.calibration = calibration_of(calibration);

    std::vector<quality::ListView> views;
    std::vector<py::array> held;
    std::string path;
    if (!dump_views(source, views, path)) {
        if (!py::isinstance<py::sequence>(source) || py::isinstance<py::str>(source))
            throw py::value_error("a source is a Dump, or a list of FrameLists or of depth arrays (numpy, mm)");
        for (const py::handle item : source) {
            quality::ListView view;
            std::optional<quality::Calibration> camera;
            if (!frame_list_view(item, view, camera)) view = array_view(item, held);
            if (!settings.calibration) settings.calibration = camera;
            if (!views.empty() && (view.width != views.front().width || view.height != views.front().height))
                throw py::value_error("the lists differ in size");
            views.push_back(view);
        }
    }
    if (views.empty() || views.size() > quality::kMaxLists)
        throw py::value_error("measures 1 to 300 lists, not " + std::to_string(views.size()));
    const bool depth = views.front().depth != nullptr;
    if (depth && !settings.calibration && !path.empty()) {
        std::string problem;
        settings.calibration = quality::replay_calibration(path, problem);
        if (!settings.calibration)
            raise_file_error(path, "no rays for its depth: " + problem + "; give " + kCalibrationForm);
    }
    if (depth && !settings.calibration)
        throw py::value_error(std::string("depth needs its rays: give ") + kCalibrationForm);
    settings.lists = views.size();

    quality::DepthQualityMeter meter;
    if (meter.configure(settings) != quality::Status::kOk)
        throw py::value_error(quality::status_text(quality::Status::kBadSettings));
    for (const quality::ListView& view : views)
        if (const quality::Status added = meter.add(view); added != quality::Status::kOk)
            throw py::value_error(quality::status_text(added));
    const quality::Quality q = meter.result();

    py::dict reasons;
    const auto value = [&reasons](const char* name, const quality::Figure& figure) -> py::object {
        if (figure.value) return py::float_(*figure.value);
        reasons[name] = quality::missing_text(figure.missing);
        return py::none();
    };
    return result(value("fill_rate_pct", q.fillRatePct), value("distance_mm", q.distanceMm),
                  value("plane_angle_deg", q.planeAngleDeg), value("plane_fit_rms_mm", q.planeFitRmsMm),
                  value("temporal_noise_mm", q.temporalNoiseMm), value("z_error_mm", q.zErrorMm),
                  value("z_error_pct", q.zErrorPct), value("amplitude_mean", q.amplitudeMean),
                  value("amplitude_p5", q.amplitudeP5), q.lists,
                  py::make_tuple(q.roi.x, q.roi.y, q.roi.width, q.roi.height), reasons);
}

}  // namespace

void bind_quality(py::module_& module) {
    const py::object namedtuple = py::module_::import("collections").attr("namedtuple");
    const py::object result =
        namedtuple("Quality",
                   "fill_rate_pct distance_mm plane_angle_deg plane_fit_rms_mm temporal_noise_mm z_error_mm "
                   "z_error_pct amplitude_mean amplitude_p5 lists roi reasons");
    result.attr("__doc__") =
        "Depth quality over an ROI and N lists: fill rate (%), distance where the optical axis meets the fitted "
        "plane (mm), the plane's angle to the axis (deg), plane-fit RMS (mm, 0.5% trimmed each side), temporal "
        "noise (mm), Z error against the truth (mm and %), amplitude mean and 5th percentile; medians over the "
        "lists where per list. A figure that cannot be had is None, and `reasons` says why. `roi` is (x, y, w, h).";
    name_as_lumora(result);
    module.add_object("Quality", result);
    module.def(
        "quality",
        [result](const py::object& source, const py::object& roi, std::optional<double> truth_mm,
                 const py::object& calibration) { return measure(source, roi, truth_mm, calibration, result); },
        py::arg("source"), py::arg("roi") = py::none(), py::arg("truth_mm") = py::none(),
        py::arg("calibration") = py::none(),
        "Depth quality as a Quality, by the same implementation as `lmr quality`. `source`: a Dump "
        "(its whole records), or a list of 1 to 300 FrameLists or (H, W) depth arrays (uint16 or float32, mm). "
        "`roi`: a centred percentage of width and height (default 40) or (x, y, w, h) in pixels, clipped to the "
        "frame. `truth_mm`: the true distance, for the Z error. `calibration`: a Calibration (Camera.calibration()) "
        "or (fx, fy, cx, cy[, k1, k2, p1, p2, k3]), for the rays of depth; FrameLists carry their camera's lens 0 "
        "as it was when frames() began, a Dump of depth takes that of the camera the library replays it with, "
        "point clouds need none. ValueError for bad input, lumora.Error for a Dump whose rays cannot be found.");
}

}  // namespace lumora::python
