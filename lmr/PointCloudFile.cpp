#include "PointCloudFile.h"

#include <cmath>
#include <cstdio>
#include <cstring>
#include <memory>

#include "format/DumpFile.h"

namespace lumora::lmr {

namespace {

void append_float(std::string& out, float value) {
    char bytes[sizeof value];
    std::memcpy(bytes, &value, sizeof value);
    out.append(bytes, sizeof bytes);
}

}  // namespace

std::optional<std::size_t> write_ply(const std::string& path, const CloudPlanes& cloud, const std::string& comment,
                                     std::string& scratch) {
    const bool withIntensity = cloud.intensity != nullptr;
    scratch.clear();
    scratch.reserve(cloud.count * (withIntensity ? 16 : 12));
    std::size_t vertices = 0;
    for (std::size_t i = 0; i < cloud.count; ++i) {
        const float x = cloud.x[i];
        const float y = cloud.y[i];
        const float z = cloud.z[i];
        if (!(z > 0.0F) || !std::isfinite(x) || !std::isfinite(y) || !std::isfinite(z)) continue;
        append_float(scratch, x);
        append_float(scratch, y);
        append_float(scratch, z);
        if (withIntensity) append_float(scratch, cloud.intensity[i]);
        ++vertices;
    }

    std::string header = "ply\nformat binary_little_endian 1.0\ncomment " + comment + "\nelement vertex " +
                         std::to_string(vertices) + "\nproperty float x\nproperty float y\nproperty float z\n";
    if (withIntensity) header += "property float intensity\n";
    header += "end_header\n";

    format::File file = format::open_file(path, "wb");
    if (!file) return std::nullopt;
    if (std::fwrite(header.data(), 1, header.size(), file.get()) != header.size() ||
        std::fwrite(scratch.data(), 1, scratch.size(), file.get()) != scratch.size())
        return std::nullopt;
    // The last bytes reach the file at the close, which can fail too.
    if (std::fclose(file.release()) != 0) return std::nullopt;
    return vertices;
}

}  // namespace lumora::lmr
