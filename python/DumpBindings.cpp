// Dump files in `lumora`: the file memory-mapped, its layout scanned once by format/, and
// records whose arrays view the mapping. The mapping lives as long as the Dump, a Record or
// an array of it does.
#include <sys/stat.h>

#include <cerrno>
#include <system_error>

#include <pybind11/stl.h>

#include "Bindings.h"
#include "MappedFile.h"
#include "format/DumpCheck.h"
#include "format/DumpFile.h"
#include "format/DumpScan.h"

namespace lumora::python {

namespace {

struct DumpData {
    std::string path;
    format::DumpLayout layout;
    std::shared_ptr<const MappedFile> file;
};

class Record {
public:
    Record(std::shared_ptr<const DumpData> dump, std::size_t index) : mDump(std::move(dump)), mIndex(index) {}

    const format::frame_header& header() const { return mDump->layout.records[mIndex]; }
    std::uint8_t frameIndex() const { return header().frame_index; }
    std::uint16_t width() const { return header().frame_width; }
    std::uint16_t height() const { return header().frame_height; }
    std::uint64_t timestamp() const { return header().timestamp; }

    py::object embeddedLine() const {
        if (mDump->layout.header.embedded_line_control != 1) return py::none();
        const auto* line = mDump->file->data() + mDump->layout.recordOffset(mIndex) + sizeof(format::frame_header);
        return py::bytes(reinterpret_cast<const char*>(line), width());
    }

    // Depth (block 0) or amplitude (block 1) of modes 0 and 1; None in other modes.
    py::object image(std::size_t block) const {
        const std::uint32_t mode = mDump->layout.header.dump_frame_type;
        if (mode > format::DUMP_DEPTH_AMPLITUDE || block >= format::block_count(mode)) return py::none();
        return planes_view(py::dtype::of<std::uint16_t>(), width(), height(), 0, blockData(block), mDump);
    }

    // x, y, z (and intensity) of modes 2 and 3 as (H, W, 3 or 4); None in other modes.
    py::object points() const {
        const std::uint32_t mode = mDump->layout.header.dump_frame_type;
        if (mode < format::DUMP_POINTCLOUD) return py::none();
        return planes_view(py::dtype::of<float>(), width(), height(), static_cast<int>(format::block_count(mode)),
                           blockData(0), mDump);
    }

    std::string describe() const {
        return "Record(frame_index=" + std::to_string(frameIndex()) + ", width=" + std::to_string(width()) +
               ", height=" + std::to_string(height()) + ", timestamp=" + std::to_string(timestamp()) + ")";
    }

private:
    const std::uint8_t* blockData(std::size_t block) const {
        return mDump->file->data() + mDump->layout.dataOffset(mIndex) + block * mDump->layout.blockBytes();
    }

    std::shared_ptr<const DumpData> mDump;
    std::size_t mIndex;
};

class Dump {
public:
    explicit Dump(const std::string& path) {
        auto dump = std::make_shared<DumpData>();
        dump->path = path;
        const format::File file = format::open_file(path, "rb");
        if (!file) raise_file_error(path, "cannot open: " + std::generic_category().message(errno));
        // Only a regular file has a size to scan and map.
        struct stat status {};
        if (fstat(fileno(file.get()), &status) != 0 || !S_ISREG(status.st_mode))
            raise_file_error(path, S_ISDIR(status.st_mode) ? "cannot open: " + std::generic_category().message(EISDIR)
                                                           : "not a regular file");
        dump->layout = format::scan_dump(file.get());
        const format::ScanProblem problem = dump->layout.problem;
        if (problem == format::ScanProblem::kShortHead || problem == format::ScanProblem::kNotADump)
            raise_file_error(path, dump->layout.problemText);
        std::string error;
        dump->file = MappedFile::map(fileno(file.get()), dump->layout.fileBytes, error);
        if (!dump->file) raise_file_error(path, error);
        mDump = std::move(dump);
    }

    const DumpData& data() const { return *mDump; }
    const format::DumpLayout& layout() const { return mDump->layout; }
    std::size_t size() const { return mDump->layout.records.size(); }

    // Negative indices count from the end. The record after the whole ones, when the file
    // ends inside it, raises lumora.Error saying so; past it, IndexError.
    Record at(py::ssize_t index) const {
        const auto count = static_cast<py::ssize_t>(size());
        const py::ssize_t at = index < 0 ? index + count : index;
        if (at >= 0 && at < count) return {mDump, static_cast<std::size_t>(at)};
        if (at == count && layout().problem != format::ScanProblem::kNone)
            raise_file_error(mDump->path, layout().problemText);
        throw py::index_error("record " + std::to_string(index) + " of " + std::to_string(count));
    }

    std::shared_ptr<const DumpData> shared() const { return mDump; }

private:
    std::shared_ptr<const DumpData> mDump;
};

// Iterates over the whole records of a dump.
struct RecordIterator {
    std::shared_ptr<const DumpData> dump;
    std::size_t next = 0;
};

}  // namespace

bool dump_views(const py::handle& source, std::vector<quality::ListView>& views, std::string& path) {
    if (!py::isinstance<Dump>(source)) return false;
    const Dump& dump = source.cast<const Dump&>();
    const format::DumpLayout& layout = dump.layout();
    const std::uint32_t mode = layout.header.dump_frame_type;
    path = dump.data().path;
    views.clear();
    for (std::size_t i = 0; i < dump.size(); ++i) {
        const format::frame_header& header = layout.records[i];
        const std::uint8_t* blocks = dump.data().file->data() + layout.dataOffset(i);
        quality::ListView view;
        view.width = header.frame_width;
        view.height = header.frame_height;
        const std::size_t plane = static_cast<std::size_t>(view.width) * view.height;
        if (mode <= format::DUMP_DEPTH_AMPLITUDE) {
            view.depth = blocks;
            if (mode == format::DUMP_DEPTH_AMPLITUDE) view.amplitude = blocks + 2 * plane;
        } else {
            view.points = blocks;
            view.planeStride = plane;
            if (mode == format::DUMP_INTENSITY_POINTCLOUD) {
                view.amplitude = blocks + 3 * sizeof(float) * plane;
                view.amplitudeType = quality::Sample::kFloat32;
            }
        }
        views.push_back(view);
    }
    return true;
}

void bind_dump(py::module_& module) {
    py::class_<Record> record(module, "Record", "One whole record of a dump; its arrays view the mapped file.");
    name_as_lumora(record);
    record.def_property_readonly("frame_index", &Record::frameIndex, "The writer's running count of lists, mod 256.")
        .def_property_readonly("width", &Record::width, "Frame width in pixels.")
        .def_property_readonly("height", &Record::height, "Frame height in pixels.")
        .def_property_readonly("timestamp", &Record::timestamp, "The capture time as the library gave it.")
        .def_property_readonly("embedded_line", &Record::embeddedLine,
                               "The embedded line (width bytes), or None when the file has none.")
        .def_property_readonly(
            "depth", [](const Record& r) { return r.image(0); },
            "Depth in mm as (H, W) uint16 (modes 0 and 1), else None.")
        .def_property_readonly(
            "amplitude", [](const Record& r) { return r.image(1); }, "Amplitude as (H, W) uint16 (mode 1), else None.")
        .def_property_readonly("points", &Record::points,
                               "x, y, z in metres as (H, W, 3) float32 (mode 2), with intensity as (H, W, 4) (mode 3); "
                               "else None.")
        .def("__repr__", &Record::describe);

    py::class_<RecordIterator> iterator(module, "RecordIterator", "The whole records of a Dump, in file order.");
    name_as_lumora(iterator);
    iterator
        .def(
            "__iter__", [](RecordIterator& self) -> RecordIterator& { return self; },
            py::return_value_policy::reference)
        .def("__next__", [](RecordIterator& it) {
            if (it.next >= it.dump->layout.records.size()) throw py::stop_iteration();
            return Record(it.dump, it.next++);
        });

    py::class_<Dump> dump(module, "Dump",
                          "A dump file (.lmr) memory-mapped: its header and descriptors, and its whole records.");
    name_as_lumora(dump);
    dump.def(py::init<const std::string&>(), py::arg("path"),
             "Maps and scans the file; lumora.Error when it cannot be opened or is not a dump file.")
        .def_property_readonly(
            "path", [](const Dump& d) { return d.data().path; }, "The file's path as given.")
        .def_property_readonly(
            "sync_byte", [](const Dump& d) { return d.layout().header.sync_byte; }, "0x00DF in the project's dumps.")
        .def_property_readonly(
            "embedded_line_control", [](const Dump& d) { return d.layout().header.embedded_line_control; },
            "1 when every record carries an embedded line, else 0.")
        .def_property_readonly(
            "frame_count", [](const Dump& d) { return d.layout().header.dump_frame_count; },
            "The frames asked for (the file may hold fewer).")
        .def_property_readonly(
            "mode", [](const Dump& d) { return d.layout().header.dump_frame_type; },
            "0 depth, 1 depth + amplitude, 2 point cloud, 3 intensity point cloud.")
        .def_property_readonly(
            "source_type", [](const Dump& d) { return d.layout().sourceType(); },
            "The camera's transport, such as 'sim'.")
        .def_property_readonly(
            "firmware_version", [](const Dump& d) { return d.layout().camera.firmware_version; },
            "The camera's firmware version, low 16 bits.")
        .def_property_readonly(
            "sdk_version", [](const Dump& d) { return d.layout().sdkVersion(); }, "The camera library's release.")
        .def_property_readonly(
            "serial_number", [](const Dump& d) { return d.layout().serialNumber(); }, "The camera's serial number.")
        .def_property_readonly(
            "camera_name", [](const Dump& d) { return d.layout().cameraName(); }, "The camera's model.")
        .def("__len__", &Dump::size, "The whole records.")
        .def("__getitem__", &Dump::at, py::arg("index"), "Whole record `index` (negative from the end).")
        .def(
            "__iter__", [](const Dump& d) { return RecordIterator{d.shared()}; }, "The whole records in file order.")
        .def(
            "findings", [](const Dump& d) { return format::verify(d.layout()).findings; },
            "What `lmr info` finds wrong with the file, one line each; [] for a whole, consistent file.")
        .def("__repr__", [](const Dump& d) {
            return "Dump('" + d.data().path + "', mode=" + std::to_string(d.layout().header.dump_frame_type) +
                   ", records=" + std::to_string(d.size()) + " of " +
                   std::to_string(d.layout().header.dump_frame_count) + ")";
        });
}

}  // namespace lumora::python
