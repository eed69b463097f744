// Writes one dump file: the head records once, then whole frame records, each in a
// single write call. Used by one thread at a time.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include <halden/sensor/LumoraResult.h>

#include "format/DumpFormat.h"

namespace lumora::dump {

// A run of bytes that the caller keeps alive during the call.
struct Bytes {
    const void* data;
    std::size_t size;
};

class DumpWriter {
public:
    // Creates or truncates the file at `path`; isOpen() tells whether that worked.
    explicit DumpWriter(const std::string& path);
    // Closes the file.
    ~DumpWriter();
    DumpWriter(const DumpWriter&) = delete;
    DumpWriter& operator=(const DumpWriter&) = delete;

    bool isOpen() const { return mFd >= 0; }

    // Each returns RESULT_SUCCESS when every byte reached the file, else RESULT_FAIL with
    // the system's errno in lastError(); the file is then left as far as it got.
    halden::sensor::Result writeHead(const format::dump_header& header, const format::source_descriptor& source,
                                     const format::camera_descriptor& camera);
    // The header, then the embedded line (when not empty), then the blocks in order.
    halden::sensor::Result writeRecord(const format::frame_header& header, Bytes embeddedLine,
                                       const std::vector<Bytes>& blocks);

    int lastError() const { return mError; }
    // True when the file has no name left: removed while it was written.
    bool removed() const;

private:
    halden::sensor::Result writeAll(const std::vector<Bytes>& parts);

    int mFd = -1;
    int mError = 0;
};

}  // namespace lumora::dump
