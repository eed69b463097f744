// What the parts of the Python module `lumora` share: its error type, result checks, numpy
// views and property values, and the functions that bind each part to the module. Every
// function here runs on a Python thread with the GIL held.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>

#include <halden/sensor/LumoraProperty.h>
#include <halden/sensor/LumoraResult.h>

#include "quality/ListView.h"
#include "quality/Rays.h"

namespace lumora::python {

namespace py = pybind11;
namespace hs = halden::sensor;

// Adds lumora.Error, a RuntimeError with `code` (the result code, or None) and `text` (the
// library's text for the code, or what is wrong with a file).
void add_error_type(py::module_& module);
// Raises lumora.Error for a result code: "invalid parameter (11)".
[[noreturn]] void raise_result(hs::Result code);
inline void check(hs::Result code) {
    if (code != hs::RESULT_SUCCESS) raise_result(code);
}
// Raises lumora.Error for a file that cannot be read as a dump: "PATH: WHAT" (code None).
[[noreturn]] void raise_file_error(const std::string& path, const std::string& what);

// A read-only numpy view of `width` x `height` elements of `dtype` at `data`, which `owner`
// keeps alive for as long as the array (or any view of it) lives: (height, width) when
// `planes` is 0, else (height, width, planes) over planes stored one after another.
py::array planes_view(const py::dtype& dtype, int width, int height, int planes, const void* data,
                      std::shared_ptr<const void> owner);

// A property's value as Python's bool, int, float, str or bytes (None for an unknown type).
py::object to_python(const hs::LumoraProperty& property);
// A property typed from a Python value: bool, a 32-bit int (larger integers become floats, as
// the shell makes them), float or str; TypeError for anything else.
std::shared_ptr<hs::LumoraProperty> to_property(const std::string& key, const py::handle& value);

// Gives a class or named tuple the module name users import it from.
void name_as_lumora(const py::handle& type);

// For lumora.quality, views that the Python object `source` keeps alive while it lives.
// A Dump's whole records, its path in `path`; false when `source` is not a Dump.
bool dump_views(const py::handle& source, std::vector<quality::ListView>& views, std::string& path);
// A FrameList's frames, and the lens-0 calibration of the camera it came from (none when the
// camera gave none); false when `item` is not a FrameList, ValueError for a list with no depth
// or point cloud.
bool frame_list_view(const py::handle& item, quality::ListView& view, std::optional<quality::Calibration>& calibration);

// The module's parts: library functions, cameras and their frames, dump files, depth quality.
void bind_library(py::module_& module);
void bind_camera(py::module_& module);
void bind_dump(py::module_& module);
void bind_quality(py::module_& module);

}  // namespace lumora::python
