// Cameras in `lumora`: opening and closing, properties and calibration, and streaming into
// Python through the module's sink (FrameStream.cpp has the threads' design). Everything
// here runs on Python threads with the GIL held, which serialises the calls on one camera;
// only the wait for a list releases it, and that touches nothing but the list's channel.
#include <algorithm>
#include <chrono>
#include <optional>
#include <set>
#include <variant>

#include <pybind11/stl.h>

#include <halden/sensor/LumoraCamera.h>
#include <halden/sensor/LumoraFrame.h>

#include "Bindings.h"
#include "FrameStream.h"

namespace lumora::python {

namespace {

using Clock = std::chrono::steady_clock;
// The longest a wait for a list goes without looking for a signal such as Ctrl-C.
constexpr auto kWaitSlice = std::chrono::milliseconds(20);

// A list handed over to Python, with arrays that view its frames.
struct FrameList {
    std::shared_ptr<hs::LumoraFrameList> list;
    std::uint64_t index = 0;
    std::uint64_t dropped = 0;
    // Lens 0's, as the camera gave it when frames() began: the rays of lumora.quality.
    std::optional<quality::Calibration> calibration;
};

std::optional<quality::Calibration> lens_zero(const hs::LumoraCamera& camera) {
    quality::Calibration calibration;
    if (camera.getIntrinsicParameters(0, calibration.intrinsics) != hs::RESULT_SUCCESS ||
        camera.getDistortionCoefficients(0, calibration.distortion) != hs::RESULT_SUCCESS)
        return std::nullopt;
    return calibration;
}

constexpr std::pair<hs::LumoraFrame::FrameType, const char*> kFrameNames[] = {
    {hs::LumoraFrame::FRAME_DEPTH, "depth"},
    {hs::LumoraFrame::FRAME_AMPLITUDE, "amplitude"},
    {hs::LumoraFrame::FRAME_POINTCLOUD, "point_cloud"},
    {hs::LumoraFrame::FRAME_INTENSITY_POINTCLOUD, "intensity_point_cloud"},
};

// The frame of that type as (H, W), or (H, W, planes) for point clouds; None without one.
// 16-bit point clouds are int16, since their x and y are signed.
py::object frame_array(const FrameList& frames, hs::LumoraFrame::FrameType type) {
    const auto frame = hs::find_frame(frames.list, type);
    if (!frame) return py::none();
    const bool cloud = type == hs::LumoraFrame::FRAME_POINTCLOUD || type == hs::LumoraFrame::FRAME_INTENSITY_POINTCLOUD;
    py::dtype dtype;
    if (frame->dataType() == hs::DATA_TYPE_FLOAT32)
        dtype = py::dtype::of<float>();
    else if (frame->dataType() == hs::DATA_TYPE_UINT16)
        dtype = cloud ? py::dtype::of<std::int16_t>() : py::dtype::of<std::uint16_t>();
    else
        raise_result(hs::RESULT_NOT_SUPPORTED);
    const int width = frame->width();
    const int height = frame->height();
    const std::size_t planes = frame->planeCount();
    // A frame whose sizes disagree would make a view past its data.
    if (width < 0 || height < 0 || frame->elementCount() != std::size_t(width) * std::size_t(height) ||
        (cloud ? planes < 3 || planes > 4 : planes != 1))
        raise_result(hs::RESULT_FAIL);
    return planes_view(dtype, width, height, cloud ? static_cast<int>(planes) : 0, frame->data(), frame);
}

py::object embedded_line(const FrameList& frames) {
    for (std::size_t i = 0; i < frames.list->size(); ++i) {
        const auto frame = frames.list->at(i);
        if (!frame) continue;
        const auto [result, line] = frame->getProperty("embedded_data_line");
        if (result == hs::RESULT_SUCCESS && line)
            return py::bytes(static_cast<const char*>(line->data()), line->size());
    }
    return py::none();
}

std::string describe(const FrameList& frames) {
    std::string names;
    for (const auto& [type, name] : kFrameNames)
        if (hs::find_frame(frames.list, type)) names += std::string(names.empty() ? "'" : ", '") + name + "'";
    return "FrameList(index=" + std::to_string(frames.index) +
           ", timestamp=" + std::to_string(frames.list->timestamp()) + ", frames=[" + names +
           "], dropped=" + std::to_string(frames.dropped) + ")";
}

class Camera;
// The cameras open in the process, closed at the interpreter's exit if the script did not.
std::set<Camera*> open_cameras;

class Camera {
public:
    Camera(std::shared_ptr<hs::LumoraSource> source, std::shared_ptr<hs::LumoraCamera> camera)
        : mSource(std::move(source)), mCamera(std::move(camera)), mStream(std::make_shared<FrameStream>()) {
        mCamera->addSink(mStream.get());
        open_cameras.insert(this);
    }
    ~Camera() { close(); }
    Camera(const Camera&) = delete;
    Camera& operator=(const Camera&) = delete;

    // The sink leaves the camera before it is destroyed, and destroy_camera() waits for the
    // last callback, so none reaches the sink afterwards.
    hs::Result close() {
        if (!mCamera) return hs::RESULT_SUCCESS;
        open_cameras.erase(this);
        mStream->closeChannel();
        mCamera->removeSink(mStream.get());
        const auto camera = std::move(mCamera);
        return hs::destroy_camera(camera);
    }

    hs::LumoraCamera& camera() const {
        if (!mCamera) raise_result(hs::RESULT_INVALID_OPERATION);
        return *mCamera;
    }
    const hs::LumoraSource& source() const { return *mSource; }
    hs::LumoraCamera::State state() const { return mCamera ? mCamera->state() : hs::LumoraCamera::STATE_NOT_PREPARED; }
    bool running() const { return state() == hs::LumoraCamera::STATE_RUNNING; }
    const std::shared_ptr<FrameStream>& stream() const { return mStream; }

    void start(int mask) {
        hs::LumoraCamera& opened = camera();
        mStream->restart();
        check(opened.run(mask));
    }
    void stop() {
        hs::LumoraCamera& opened = camera();
        mStream->closeChannel();
        check(opened.stop());
    }

private:
    std::shared_ptr<hs::LumoraSource> mSource;
    std::shared_ptr<hs::LumoraCamera> mCamera;  // null once closed
    std::shared_ptr<FrameStream> mStream;
};

// One frames() call: a channel attached to the camera's sink until the count is reached,
// the camera stops or is closed, or the iterator goes.
class FrameIterator {
public:
    FrameIterator(const Camera& camera, std::optional<std::uint64_t> count, std::optional<double> timeout,
                  std::size_t queue)
        : mCamera(camera), mStream(camera.stream()), mLeft(count), mCalibration(lens_zero(camera.camera())) {
        if (timeout)
            mTimeout =
                std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(std::max(0.0, *timeout)));
        if (mLeft == std::uint64_t{0}) return;
        mChannel = std::make_shared<FrameChannel>(queue);
        mStream->attach(mChannel.get());
    }
    ~FrameIterator() { finish(); }
    FrameIterator(const FrameIterator&) = delete;
    FrameIterator& operator=(const FrameIterator&) = delete;

    FrameList next() {
        // Kept for the wait, in case another thread ends the iteration meanwhile.
        const std::shared_ptr<FrameChannel> channel = mChannel;
        if (!channel) throw py::stop_iteration();
        const auto start = Clock::now();
        for (;;) {
            Clock::duration slice = kWaitSlice;
            if (mTimeout) slice = std::clamp(start + *mTimeout - Clock::now(), Clock::duration::zero(), slice);
            std::pair<hs::Result, DeliveredList> popped;
            {
                const py::gil_scoped_release release;
                popped = channel->pop(slice);
            }
            if (popped.first == hs::RESULT_SUCCESS) {
                if (mLeft && --*mLeft == 0) finish();
                return {std::move(popped.second.list), popped.second.index, popped.second.dropped, mCalibration};
            }
            if (popped.first != hs::RESULT_TIMEOUT || !mCamera.running()) {
                finish();
                throw py::stop_iteration();
            }
            if (PyErr_CheckSignals() != 0) throw py::error_already_set();
            if (mTimeout && Clock::now() - start >= *mTimeout) {
                PyErr_SetString(PyExc_TimeoutError, "no frame list came within the timeout");
                throw py::error_already_set();
            }
        }
    }

private:
    void finish() {
        if (!mChannel) return;
        mStream->detach(mChannel.get());
        mChannel.reset();
    }

    const Camera& mCamera;  // kept alive by the iterator's Python object
    std::shared_ptr<FrameStream> mStream;
    std::shared_ptr<FrameChannel> mChannel;  // null once the iteration ended
    std::optional<std::uint64_t> mLeft;
    std::optional<Clock::duration> mTimeout;
    std::optional<quality::Calibration> mCalibration;
};

std::unique_ptr<Camera> open_camera(const std::variant<int, std::string>& which) {
    const auto list = hs::search_camera_source();
    std::shared_ptr<hs::LumoraSource> source;
    if (list && std::holds_alternative<int>(which) && std::get<int>(which) >= 0)
        source = list->at(static_cast<std::size_t>(std::get<int>(which)));
    else if (list && std::holds_alternative<std::string>(which))
        source = list->find(std::get<std::string>(which));
    if (!source) raise_result(hs::RESULT_NOT_FOUND);
    auto camera = hs::create_camera(source);
    // The source was just found, so it is attached: another holds it open.
    if (!camera) raise_result(hs::RESULT_ALREADY_OPENED);
    if (const hs::Result prepared = camera->prepare(); prepared != hs::RESULT_SUCCESS) {
        hs::destroy_camera(camera);
        raise_result(prepared);
    }
    return std::make_unique<Camera>(std::move(source), std::move(camera));
}

py::dict properties_of(const hs::LumoraProperties& properties) {
    py::dict values;
    for (std::size_t i = 0; i < properties.size(); ++i)
        if (const auto property = properties.at(i)) values[py::str(property->key())] = to_python(*property);
    return values;
}

}  // namespace

bool frame_list_view(const py::handle& item, quality::ListView& view,
                     std::optional<quality::Calibration>& calibration) {
    if (!py::isinstance<FrameList>(item)) return false;
    const FrameList& frames = item.cast<const FrameList&>();
    if (!quality::view_of(*frames.list, view))
        throw py::value_error("a FrameList without depth or a point cloud has nothing to measure");
    calibration = frames.calibration;
    return true;
}

void bind_camera(py::module_& module) {
    py::enum_<hs::LumoraCamera::State> state(module, "State", py::arithmetic(), "A camera's state.");
    state.value("NOT_PREPARED", hs::LumoraCamera::STATE_NOT_PREPARED)
        .value("PREPARED", hs::LumoraCamera::STATE_PREPARED)
        .value("STOPPED", hs::LumoraCamera::STATE_STOPPED)
        .value("RUNNING", hs::LumoraCamera::STATE_RUNNING);
    name_as_lumora(state);

    const py::object namedtuple = py::module_::import("collections").attr("namedtuple");
    const py::object calibration = namedtuple("Calibration", "lens fx fy cx cy distortion rotation translation fov");
    calibration.attr("__doc__") =
        "A lens's calibration: focal lengths and principal point in pixels, distortion, the lens's rotation (rows) "
        "and translation (metres) relative to the camera body, and its field of view.";
    const py::object distortion = namedtuple("Distortion", "k1 k2 k3 p1 p2 skew");
    distortion.attr("__doc__") = "Radial (k1, k2, k3) and tangential (p1, p2) distortion coefficients, and skew.";
    const py::object fov = namedtuple("FieldOfView", "horizontal vertical");
    fov.attr("__doc__") = "A lens's field of view in degrees.";
    for (const auto& [name, type] :
         {std::pair{"Calibration", calibration}, {"Distortion", distortion}, {"FieldOfView", fov}}) {
        name_as_lumora(type);
        module.add_object(name, type);
    }

    py::class_<FrameList> frameList(module, "FrameList",
                                    "The frames of one instant, copied from the camera: arrays view the copy, which "
                                    "lives as long as any of them.");
    name_as_lumora(frameList);
    frameList
        .def_property_readonly(
            "depth", [](const FrameList& f) { return frame_array(f, hs::LumoraFrame::FRAME_DEPTH); },
            "Depth in mm as (H, W) uint16, or float32 when the camera sends floats; None without a depth frame.")
        .def_property_readonly(
            "amplitude", [](const FrameList& f) { return frame_array(f, hs::LumoraFrame::FRAME_AMPLITUDE); },
            "Amplitude as (H, W) uint16 or float32; None without an amplitude frame.")
        .def_property_readonly(
            "point_cloud", [](const FrameList& f) { return frame_array(f, hs::LumoraFrame::FRAME_POINTCLOUD); },
            "x, y, z as (H, W, 3): float32 metres, or int16 mm for 16-bit data; None without a point cloud.")
        .def_property_readonly(
            "intensity_point_cloud",
            [](const FrameList& f) { return frame_array(f, hs::LumoraFrame::FRAME_INTENSITY_POINTCLOUD); },
            "x, y, z, intensity as (H, W, 4), typed as point_cloud; None without an intensity point cloud.")
        .def_property_readonly(
            "timestamp", [](const FrameList& f) { return f.list->timestamp(); },
            "The capture time as the library gives it (microseconds for the simulated cameras).")
        .def_readonly("index", &FrameList::index, "Lists the camera delivered since start() before this one.")
        .def_property_readonly("embedded_line", &embedded_line,
                               "The camera's embedded data line as bytes, or None when the frames carry none.")
        .def_readonly("dropped", &FrameList::dropped,
                      "Lists dropped at this iteration's queue since the list handed over before this one.")
        .def("__repr__", &describe);

    py::class_<FrameIterator> iterator(module, "FrameIterator",
                                       "The lists of one frames() call, as they come; see Camera.frames().");
    name_as_lumora(iterator);
    iterator
        .def(
            "__iter__", [](FrameIterator& self) -> FrameIterator& { return self; }, py::return_value_policy::reference)
        .def("__next__", &FrameIterator::next, "The next list, waiting for it with the GIL released.");

    py::class_<Camera> camera(module, "Camera",
                              "An open camera, from lumora.open(); a context manager that closes it on leaving.");
    name_as_lumora(camera);
    camera
        .def(
            "__enter__", [](Camera& self) -> Camera& { return self; }, py::return_value_policy::reference,
            "The camera itself.")
        .def(
            "__exit__",
            [](Camera& c, const py::args&) {
                check(c.close());
                return false;
            },
            "Stops, releases and closes the camera, also when leaving on an exception.")
        .def(
            "close", [](Camera& c) { check(c.close()); },
            "Stops, releases and closes the camera; nothing when it is closed already.")
        .def_property_readonly(
            "name", [](const Camera& c) { return c.source().name(); }, "The camera's model, such as 'QRX100A'.")
        .def_property_readonly(
            "serial", [](const Camera& c) { return c.source().serialNumber(); }, "The camera's serial number.")
        .def_property_readonly(
            "uri", [](const Camera& c) { return c.source().uri(); }, "The camera's URI, such as 'sim:0'.")
        .def_property_readonly("state", &Camera::state, "The camera's State (NOT_PREPARED once closed).")
        .def(
            "get",
            [](const Camera& c, const std::string& key) {
                const auto [result, property] = c.camera().getProperty(key);
                check(result);
                return property ? to_python(*property) : py::none();
            },
            py::arg("key"), "A camera property's value, such as get('temperature').")
        .def(
            "set",
            [](const Camera& c, const std::string& key, const py::object& value) {
                check(c.camera().setProperty(to_property(key, value)));
            },
            py::arg("key"), py::arg("value"), "Sets a camera property; bool, int, float or str, typed from the value.")
        .def(
            "properties",
            [](const Camera& c, const std::string& collection) {
                const auto [result, properties] = c.camera().getProperties(collection);
                check(result);
                return properties ? properties_of(*properties) : py::dict();
            },
            py::arg("collection"), "A property collection ('fw_info', 'settings', 'device_info') as a dict.")
        .def(
            "set_properties",
            [](const Camera& c, const std::string& collection, const py::dict& values) {
                const auto properties = hs::make_properties(collection);
                if (!properties) raise_result(hs::RESULT_OUT_OF_MEMORY);
                for (const auto& [key, value] : values)
                    check(properties->add(to_property(py::str(key), value)));
                check(c.camera().setProperties(properties));
            },
            py::arg("collection"), py::arg("values"),
            "Sets several properties of a collection at once, all or nothing.")
        .def(
            "calibration",
            [calibration, distortion, fov](const Camera& c, int lens) {
                const hs::LumoraCamera& opened = c.camera();
                hs::IntrinsicParameters in{};
                hs::DistortionCoefficients d{};
                hs::ExtrinsicParameters ex{};
                hs::FieldOfView f{};
                check(opened.getIntrinsicParameters(lens, in));
                check(opened.getDistortionCoefficients(lens, d));
                check(opened.getExtrinsicParameters(lens, ex));
                check(opened.getFieldOfView(lens, f));
                const auto& r = ex.rotation;
                return calibration(
                    lens, in.fx, in.fy, in.cx, in.cy, distortion(d.k1, d.k2, d.k3, d.p1, d.p2, d.skew),
                    py::make_tuple(py::make_tuple(r[0][0], r[0][1], r[0][2]), py::make_tuple(r[1][0], r[1][1], r[1][2]),
                                   py::make_tuple(r[2][0], r[2][1], r[2][2])),
                    py::make_tuple(ex.tx, ex.ty, ex.tz), fov(f.horizontal, f.vertical));
            },
            py::arg("lens") = 0, "The calibration of a lens (0 .. lenses - 1) as a Calibration.")
        .def("start", &Camera::start, py::arg("mask") = 6,
             "Streams the frame types in the mask (DEPTH | AMPLITUDE by default); list indices start again at 0.")
        .def("stop", &Camera::stop, "Stops streaming; a frames() iteration under way ends.")
        .def(
            "frames",
            [](const Camera& c, std::optional<std::uint64_t> count, std::optional<double> timeout, std::size_t queue) {
                if (!c.running()) raise_result(hs::RESULT_INVALID_OPERATION);
                if (queue == 0) throw py::value_error("queue holds at least one list");
                return std::make_unique<FrameIterator>(c, count, timeout, queue);
            },
            py::arg("count") = py::none(), py::arg("timeout") = 2.0, py::arg("queue") = 4, py::keep_alive<0, 1>(),
            "Iterates over the lists the running camera delivers from now on: `count` of them, or until stop(), "
            "close() or the next frames(). Waiting longer than `timeout` seconds (None: no limit) for one raises "
            "TimeoutError; while `queue` lists wait for Python, newer ones are dropped and counted in "
            "FrameList.dropped.")
        .def_property_readonly(
            "_sink_cost",
            [](const Camera& c) {
                const FrameStream::Cost cost = c.stream()->cost();
                return py::make_tuple(cost.lists, static_cast<double>(cost.nanoseconds) * 1e-9);
            },
            "The lists the sink copied on the delivery thread, and the processor seconds it spent on them (for make "
            "bench).")
        .def("__repr__", [](const Camera& c) {
            return "Camera(name='" + c.source().name() + "', serial='" + c.source().serialNumber() + "', uri='" +
                   c.source().uri() + "', state=" + py::str(py::cast(c.state())).cast<std::string>() + ")";
        });

    module.def("open", &open_camera, py::arg("index_or_uri"),
               "Opens and prepares a camera: an index of sources(), or a URI such as 'sim:0'.");
    // A camera left open by the script is closed before the interpreter ends, while the
    // library's threads may still be stopped.
    module.def("_close_cameras", [] {
        while (!open_cameras.empty())
            (*open_cameras.begin())->close();
    });
    py::module_::import("atexit").attr("register")(module.attr("_close_cameras"));
}

}  // namespace lumora::python
