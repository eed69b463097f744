#include "dump/DumpWriter.h"

#include <algorithm>
#include <cerrno>
#include <climits>

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

namespace lumora::dump {

namespace hs = halden::sensor;

DumpWriter::DumpWriter(const std::string& path)
    : mFd(::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644)) {
    if (mFd < 0) mError = errno;
}

DumpWriter::~DumpWriter() {
    if (mFd >= 0) ::close(mFd);
}

bool DumpWriter::removed() const {
    struct stat status {};
    return mFd >= 0 && ::fstat(mFd, &status) == 0 && status.st_nlink == 0;
}

hs::Result DumpWriter::writeHead(const format::dump_header& header, const format::source_descriptor& source,
                                 const format::camera_descriptor& camera) {
    return writeAll({{&header, sizeof header}, {&source, sizeof source}, {&camera, sizeof camera}});
}

hs::Result DumpWriter::writeRecord(const format::frame_header& header, Bytes embeddedLine,
                                   const std::vector<Bytes>& blocks) {
    std::vector<Bytes> parts{{&header, sizeof header}};
    if (embeddedLine.size != 0) parts.push_back(embeddedLine);
    parts.insert(parts.end(), blocks.begin(), blocks.end());
    return writeAll(parts);
}

hs::Result DumpWriter::writeAll(const std::vector<Bytes>& parts) {
    if (mFd < 0) return hs::RESULT_FAIL;
    std::vector<iovec> vectors;
    for (const Bytes& part : parts)
        if (part.size != 0) vectors.push_back({const_cast<void*>(part.data), part.size});
    std::size_t first = 0;
    // One call normally takes everything; a short write resumes where it stopped.
    while (first < vectors.size()) {
        const int count = static_cast<int>(std::min<std::size_t>(vectors.size() - first, IOV_MAX));
        const ssize_t written = ::writev(mFd, vectors.data() + first, count);
        if (written < 0 && errno == EINTR) continue;
        if (written <= 0) {
            mError = written < 0 ? errno : ENOSPC;
            return hs::RESULT_FAIL;
        }
        auto left = static_cast<std::size_t>(written);
        while (first < vectors.size() && left >= vectors[first].iov_len)
            left -= vectors[first++].iov_len;
        if (first < vectors.size()) {
            vectors[first].iov_base = static_cast<char*>(vectors[first].iov_base) + left;
            vectors[first].iov_len -= left;
        }
    }
    return hs::RESULT_SUCCESS;
}

}  // namespace lumora::dump
