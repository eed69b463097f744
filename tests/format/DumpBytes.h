// Dump files built byte by byte, for the tests of their readers.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace lumora::format::test {

// The fields of a file's descriptors, each cut to its width in the file.
struct DumpCamera {
    std::string source = "sim";
    int firmware = 0x312;
    std::string sdk = "2.3.0";
    std::string serial = "LM0536240000";
    std::string name = "QRX100A";
};

// A dump file, little-endian field by field.
class FileBytes {
public:
    FileBytes& number(std::uint64_t value, int width) {
        for (int i = 0; i < width; ++i)
            mBytes.push_back(static_cast<char>(value >> (8 * i)));
        return *this;
    }
    FileBytes& text(const std::string& value, std::size_t width) {
        std::string field = value;
        field.resize(width, '\0');
        mBytes += field;
        return *this;
    }
    FileBytes& raw(const std::vector<std::uint8_t>& bytes) {
        mBytes.append(bytes.begin(), bytes.end());
        return *this;
    }
    FileBytes& filler(std::size_t count) {
        mBytes.append(count, '\x5a');
        return *this;
    }
    FileBytes& head(std::uint16_t sync, int line, int count, int mode, int sourceTag = 1,
                    const DumpCamera& camera = {}) {
        number(sync, 2).number(line, 1).number(count, 2).number(mode, 2);
        number(sourceTag, 2).text(camera.source, 8).number(2, 2).number(camera.firmware, 2).text(camera.sdk, 12);
        return text(camera.serial, 20).text(camera.name, 16);
    }
    FileBytes& frame(int index, int width, int height, int size, std::uint64_t timestamp) {
        return number(index, 1).number(width, 2).number(height, 2).number(size, 2).number(timestamp, 8);
    }
    const std::string& bytes() const { return mBytes; }

private:
    std::string mBytes;
};

}  // namespace lumora::format::test
