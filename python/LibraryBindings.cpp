// The library level of `lumora`: its release, the attached cameras and the library's
// properties.
#include <halden/sensor/Log.h>
#include <halden/sensor/LumoraSource.h>
#include <halden/sensor/LumoraVersion.h>

#include "Bindings.h"

namespace lumora::python {

void bind_library(py::module_& module) {
    const py::object namedtuple = py::module_::import("collections").attr("namedtuple");
    const py::object source = namedtuple("Source", "index name serial uri");
    source.attr("__doc__") = "An attached camera: its index in sources(), model name, serial number and URI.";
    name_as_lumora(source);
    module.add_object("Source", source);

    module.def(
        "version", [] { return py::make_tuple(hs::last_released_version(), hs::last_released_date()); },
        "The camera library's release and its date, such as ('2.3.0', '2026-11-21').");
    module.def(
        "sources",
        [source] {
            py::list sources;
            const auto list = hs::search_camera_source();
            for (std::size_t i = 0; list && i < list->size(); ++i)
                if (const auto found = list->at(i))
                    sources.append(source(i, found->name(), found->serialNumber(), found->uri()));
            return sources;
        },
        "The attached cameras, as Source(index, name, serial, uri); empty when the library finds none.");
    module.def(
        "get",
        [](const std::string& key) {
            const auto [result, property] = hs::get_property(key);
            check(result);
            return property ? to_python(*property) : py::none();
        },
        py::arg("key"), "A library property's value (or a key of the camera opened last), such as get('sim_devices').");
    module.def(
        "set",
        [](const std::string& key, const py::object& value) { check(hs::set_property(to_property(key, value))); },
        py::arg("key"), py::arg("value"),
        "Sets a library property (or a key of the camera opened last); bool, int, float or str, typed from the value.");
    module.def(
        "set_log_level", [](int level) { hs::Log::setLogLevel(static_cast<hs::Log::LogLevel>(level)); },
        py::arg("level"),
        "The library's log on standard output: 0 none, 1 errors (the default), 2 warnings, 3 information, 4 debug.");
}

}  // namespace lumora::python
