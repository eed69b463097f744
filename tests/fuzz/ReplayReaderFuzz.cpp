// Fuzzes the reader of replay devices: whatever the bytes, it must return without a crash,
// a read out of bounds or a leak; a file it takes must hold no more in memory than its own
// size, agree with the check made when the device list is read, and give every record's
// line, blocks and intervals within bounds.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "Recording.h"
#include "format/DumpFile.h"

namespace {

// Keeps the reads of each input.
volatile std::uint64_t gTouched = 0;

using File = lumora::format::File;

File open_bytes(std::vector<std::uint8_t>& bytes, std::size_t size) { return File(fmemopen(bytes.data(), size, "rb")); }

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace halden::sensor::sim;
    std::vector<std::uint8_t> bytes(data, data + size);
    bytes.push_back(0);  // fmemopen wants room, also for an empty input
    std::string problem;
    const File in = open_bytes(bytes, size);
    if (!in) return 0;
    const auto recording = Recording::read(in.get(), problem);
    const File again = open_bytes(bytes, size);
    std::string checked;
    const auto info = again ? describe_recording(again.get(), checked) : std::nullopt;
    if (!recording) {
        if (problem.empty() || info) std::abort();
        return 0;
    }
    if (!info || info->records != recording->size() || recording->size() == 0 || recording->heldBytes() > size)
        std::abort();
    std::uint64_t sum = 0;
    for (std::size_t i = 0; i < recording->size(); ++i) {
        const auto interval = recording->intervalBefore(i).count();
        if (interval < 0 || interval > 1000000) std::abort();
        const std::uint8_t* blocks = recording->blocks(i);
        const std::size_t blockBytes = recording->blockBytes() * (recording->info().mode + 1);
        sum += blocks[0] + blocks[blockBytes - 1] + recording->timestamp(i);
        if (const std::uint8_t* line = recording->line(i)) sum += line[0] + line[recording->info().width - 1];
    }
    gTouched = sum;
    return 0;
}
