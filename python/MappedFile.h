// A whole file mapped read-only into memory, for as long as anything holds it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

namespace lumora::python {

class MappedFile {
public:
    // Maps the first `bytes` (at least 1) of the open file `descriptor` (not owned; it may be
    // closed afterwards). Null on failure, with `error` saying why.
    static std::shared_ptr<const MappedFile> map(int descriptor, std::size_t bytes, std::string& error);

    ~MappedFile();
    MappedFile(const MappedFile&) = delete;
    MappedFile& operator=(const MappedFile&) = delete;

    const std::uint8_t* data() const { return mData; }
    std::size_t size() const { return mSize; }

private:
    MappedFile(std::uint8_t* data, std::size_t size) : mData(data), mSize(size) {}

    std::uint8_t* mData;
    std::size_t mSize;
};

}  // namespace lumora::python
