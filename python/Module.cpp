// The compiled part of the Python package `lumora` (lumora/__init__.py re-exports it): one
// bind function per part, each in its own file.
#include "Bindings.h"

PYBIND11_MODULE(_lumora, module) {
    namespace lp = lumora::python;
    module.doc() = "Time-of-flight cameras and their dump files as numpy arrays; import it as `lumora`.";
    lp::add_error_type(module);
    lp::bind_library(module);
    lp::bind_camera(module);
    lp::bind_dump(module);
    lp::bind_quality(module);
}
