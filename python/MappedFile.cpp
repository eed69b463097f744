#include "MappedFile.h"

#include <sys/mman.h>

#include <cerrno>
#include <system_error>

namespace lumora::python {

std::shared_ptr<const MappedFile> MappedFile::map(int descriptor, std::size_t bytes, std::string& error) {
    void* data = mmap(nullptr, bytes, PROT_READ, MAP_SHARED, descriptor, 0);
    if (data == MAP_FAILED) {
        error = "cannot map: " + std::generic_category().message(errno);
        return nullptr;
    }
    return std::shared_ptr<const MappedFile>(new MappedFile(static_cast<std::uint8_t*>(data), bytes));
}

MappedFile::~MappedFile() { munmap(mData, mSize); }

}  // namespace lumora::python
