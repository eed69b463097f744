// Dump files built byte by byte, for the tests of their readers.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace lumora::format::test {

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
    FileBytes& filler(std::size_t count) {
        mBytes.append(count, '\x5a');
        return *this;
    }
    FileBytes& head(std::uint16_t sync, int line, int count, int mode, int sourceTag = 1) {
        number(sync, 2).number(line, 1).number(count, 2).number(mode, 2);
        number(sourceTag, 2).text("sim", 8);
        return number(2, 2).number(0x312, 2).text("2.3.0", 12).text("LM0536240000", 20).text("QRX100A", 16);
    }
    FileBytes& frame(int index, int width, int height, int size, std::uint64_t timestamp) {
        return number(index, 1).number(width, 2).number(height, 2).number(size, 2).number(timestamp, 8);
    }
    const std::string& bytes() const { return mBytes; }

private:
    std::string mBytes;
};

}  // namespace lumora::format::test
