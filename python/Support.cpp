#include <climits>
#include <utility>

#include "Bindings.h"

namespace lumora::python {

namespace {

// Owned by the module, which lives until the interpreter ends; a static py::object would be
// released after that.
PyObject* error_type = nullptr;

[[noreturn]] void raise_error(const std::string& message, const py::object& code, const std::string& text) {
    py::object error = py::reinterpret_borrow<py::object>(error_type)(message);
    error.attr("code") = code;
    error.attr("text") = text;
    PyErr_SetObject(error_type, error.ptr());
    throw py::error_already_set();
}

}  // namespace

void add_error_type(py::module_& module) {
    error_type = PyErr_NewExceptionWithDoc(
        "lumora.Error",
        "A result code other than success from the camera library (code, and the library's text), or a file that "
        "cannot be read as a dump (code None).",
        PyExc_RuntimeError, nullptr);
    if (error_type == nullptr) throw py::error_already_set();
    py::handle(error_type).attr("code") = py::none();
    py::handle(error_type).attr("text") = "";
    module.add_object("Error", py::handle(error_type));
}

void raise_result(hs::Result code) {
    const char* text = hs::result_text(code);
    const std::string name = text != nullptr ? text : "unknown result";
    raise_error(name + " (" + std::to_string(code) + ")", py::int_(static_cast<std::uint32_t>(code)), name);
}

void raise_file_error(const std::string& path, const std::string& what) {
    raise_error(path + ": " + what, py::none(), what);
}

py::array planes_view(const py::dtype& dtype, int width, int height, int planes, const void* data,
                      std::shared_ptr<const void> owner) {
    const py::ssize_t element = dtype.itemsize();
    const py::ssize_t row = element * width;
    std::vector<py::ssize_t> shape{height, width};
    std::vector<py::ssize_t> strides{row, element};
    if (planes > 0) {
        shape.push_back(planes);
        strides.push_back(row * height);
    }
    if (data == nullptr) return py::array(dtype, shape, strides);
    py::capsule base(new std::shared_ptr<const void>(std::move(owner)),
                     [](void* held) { delete static_cast<std::shared_ptr<const void>*>(held); });
    py::array array(dtype, shape, strides, data, base);
    py::detail::array_proxy(array.ptr())->flags &= ~py::detail::npy_api::NPY_ARRAY_WRITEABLE_;
    return array;
}

py::object to_python(const hs::LumoraProperty& property) {
    switch (property.dataType()) {
        case hs::DATA_TYPE_BOOL:
            return py::bool_(property.getBool());
        case hs::DATA_TYPE_INT8:
            return py::int_(property.getInt8());
        case hs::DATA_TYPE_UINT8:
            return py::int_(property.getUInt8());
        case hs::DATA_TYPE_INT16:
            return py::int_(property.getInt16());
        case hs::DATA_TYPE_UINT16:
            return py::int_(property.getUInt16());
        case hs::DATA_TYPE_INT32:
            return py::int_(property.getInt32());
        case hs::DATA_TYPE_UINT32:
            return py::int_(property.getUInt32());
        case hs::DATA_TYPE_INT64:
            return py::int_(property.getInt64());
        case hs::DATA_TYPE_UINT64:
            return py::int_(property.getUInt64());
        case hs::DATA_TYPE_FLOAT32:
            return py::float_(property.getFloat());
        case hs::DATA_TYPE_FLOAT64:
            return py::float_(property.getDouble());
        case hs::DATA_TYPE_STRING:
            return py::str(property.getString(std::string()));
        case hs::DATA_TYPE_BYTES:
            return py::bytes(static_cast<const char*>(property.data()), property.size());
        default:
            return py::none();
    }
}

std::shared_ptr<hs::LumoraProperty> to_property(const std::string& key, const py::handle& value) {
    if (PyBool_Check(value.ptr())) return hs::make_property_bool(key, value.cast<bool>());
    if (PyIndex_Check(value.ptr())) {
        const auto integer = py::reinterpret_steal<py::object>(PyNumber_Index(value.ptr()));
        if (!integer) throw py::error_already_set();
        int overflow = 0;
        const long long number = PyLong_AsLongLongAndOverflow(integer.ptr(), &overflow);
        if (overflow == 0 && number >= INT32_MIN && number <= INT32_MAX)
            return hs::make_property_32s(key, static_cast<std::int32_t>(number));
        const double real = PyLong_AsDouble(integer.ptr());
        if (PyErr_Occurred() != nullptr) throw py::error_already_set();
        return hs::make_property_64f(key, real);
    }
    if (PyFloat_Check(value.ptr())) return hs::make_property_64f(key, value.cast<double>());
    if (PyUnicode_Check(value.ptr())) return hs::make_property_string(key, value.cast<std::string>());
    throw py::type_error("a property value is a bool, int, float or str, not " +
                         py::str(py::type::handle_of(value).attr("__name__")).cast<std::string>());
}

void name_as_lumora(const py::handle& type) { type.attr("__module__") = "lumora"; }

}  // namespace lumora::python
