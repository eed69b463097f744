// What the readers and writers of dump files share: a C file handle that closes itself, and
// one line of text formatted printf-style for their messages.
#pragma once

#include <cstdio>
#include <memory>
#include <string>

namespace lumora::format {

struct FileCloser {
    void operator()(std::FILE* file) const { std::fclose(file); }
};
// Null when the open failed. A writer that must know whether its last bytes reached the file
// closes it itself: std::fclose(file.release()).
using File = std::unique_ptr<std::FILE, FileCloser>;

inline File open_file(const std::string& path, const char* mode) { return File(std::fopen(path.c_str(), mode)); }

// At most 511 characters; the rest is cut.
template <typename... Args>
std::string format_line(const char* pattern, Args... args) {
    char line[512];
    std::snprintf(line, sizeof line, pattern, args...);
    return line;
}

}  // namespace lumora::format
