// Fuzzes the dump file inspector: whatever the bytes, it must return without a crash, a
// read out of bounds, a leak or an allocation beyond the file's size.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <vector>

#include "DumpListing.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static std::FILE* const sink = std::fopen("/dev/null", "w");
    std::vector<std::uint8_t> bytes(data, data + size);
    bytes.push_back(0);  // fmemopen wants room, also for an empty input
    const std::unique_ptr<std::FILE, int (*)(std::FILE*)> in(fmemopen(bytes.data(), size, "rb"), &std::fclose);
    if (in && sink != nullptr) lumora::dump::inspect_dump(in.get(), sink);
    return 0;
}
