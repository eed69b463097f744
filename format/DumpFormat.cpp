#include "format/DumpFormat.h"

#include <algorithm>

#include <sys/types.h>

namespace lumora::format {

void fill_text_field(char* field, std::size_t width, const std::string& text) {
    if (width == 0) return;
    const std::size_t length = std::min(text.size(), width - 1);
    std::copy_n(text.data(), length, field);
    std::fill(field + length, field + width, '\0');
}

std::optional<std::string> source_type_of(const std::string& uri) {
    if (uri.empty()) return std::nullopt;
    return uri.substr(0, std::min(uri.find(':'), std::size_t{7}));
}

std::string dump_file_name(const std::string& name, const std::string& serialNumber, const std::tm& when) {
    char buffer[256];
    std::snprintf(buffer, sizeof buffer, "%s_%s_framedump_%04d%02d%02d%02d%02d%02d.lmr",
                  name.empty() ? "unknown" : name.c_str(), serialNumber.empty() ? "unknown" : serialNumber.c_str(),
                  when.tm_year + 1900, when.tm_mon + 1, when.tm_mday, when.tm_hour, when.tm_min, when.tm_sec);
    return buffer;
}

DumpReader::DumpReader(std::FILE* file) : mFile(file) {
    const off_t start = ftello(mFile);
    if (start < 0 || fseeko(mFile, 0, SEEK_END) != 0) return;
    const off_t end = ftello(mFile);
    if (fseeko(mFile, start, SEEK_SET) != 0 || end < start) return;
    mPosition = static_cast<std::uint64_t>(start);
    mEnd = static_cast<std::uint64_t>(end);
}

std::uint64_t DumpReader::bytesLeft() const { return mEnd > mPosition ? mEnd - mPosition : 0; }

std::size_t DumpReader::readBytes(void* buffer, std::size_t bytes) {
    const std::size_t got = std::fread(buffer, 1, bytes, mFile);
    mPosition += got;
    return got;
}

std::size_t DumpReader::readBlock(void* buffer, std::size_t capacity, std::uint64_t bytes) {
    const std::uint64_t present = std::min(bytes, bytesLeft());
    const auto wanted = static_cast<std::size_t>(std::min<std::uint64_t>(present, capacity));
    const std::size_t stored = readBytes(buffer, wanted);
    if (stored == wanted && present > wanted && fseeko(mFile, static_cast<off_t>(present - wanted), SEEK_CUR) == 0)
        mPosition += present - wanted;
    return stored;
}

}  // namespace lumora::format
