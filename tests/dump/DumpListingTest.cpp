// The inspector's output, line by line, for files built byte by byte: every mode, and files
// that are odd, short or lie about their size.
#include <fstream>

#include "DumpBytes.h"
#include "DumpListing.h"
#include "DumpTestSupport.h"
#include "dump/FrameDumpSink.h"

namespace lumora::dump::test {
namespace {

using format::test::FileBytes;

const char* const kDescriptors =
    "[Source descriptor]\n"
    "  - source_descriptor.desc_tag (0x01)\n"
    "  - source_descriptor.source_type (sim)\n"
    "[Camera descriptor]\n"
    "  - camera_descriptor.desc_tag (0x02)\n"
    "  - camera_descriptor.firmware_version (0x312)\n"
    "  - camera_descriptor.sdk_version (2.3.0)\n"
    "  - camera_descriptor.serial_number (LM0536240000)\n"
    "  - camera_descriptor.camera_name (QRX100A)\n";

std::string head_lines(const char* sync, int line, int count, int mode, bool ours = true) {
    char text[512];
    std::snprintf(text, sizeof text,
                  "[Dump Header]\n  - dump_header.sync_byte (%s)\n  - dump_header.embedded_line_control (0x%x)\n"
                  "  - dump_header.dump_frame_count (0x%02x)\n  - dump_header.dump_frame_type (0x%02x)\n"
                  "  - [Checking sync byte...]\n    - This is %s latest lmr file%s\n",
                  sync, line, count, mode, ours ? "our" : "not our", ours ? ". Keep going!" : "!");
    return text;
}

std::string frame_lines(int i, int index, int width, int height, int size, std::uint64_t timestamp, bool line,
                        const char* blocks) {
    char text[512];
    std::snprintf(
        text, sizeof text,
        "[Frame header] ==> %d\n  - frame_header[%d].frame_index (0x%x)\n"
        "  - frame_header[%d].frame_width (0x%x)\n  - frame_header[%d].frame_height (0x%02x)\n"
        "  - frame_header[%d].frame_data_size (0x%02x)\n  - frame_header[%d].timestamp (%llu)\n%s%s",
        i, i, index, i, width, i, height, i, size, i, static_cast<unsigned long long>(timestamp),
        line ? "  - [Reading Embedded line frame data...]\n" : "  - [There is no embedded line frame data!]\n", blocks);
    return text;
}

const char* const kBlockLines[] = {
    "  - [Reading Depth frame data...]\n",
    "  - [Reading Depth frame data...]\n  - [Reading Amplitude frame data...]\n",
    "  - [Reading PCL X frame data...]\n  - [Reading PCL Y frame data...]\n  - [Reading PCL Z frame data...]\n",
    ("  - [Reading IPCL X frame data...]\n  - [Reading IPCL Y frame data...]\n  - [Reading IPCL Z frame data...]\n"
     "  - [Reading IPCL I frame data...]\n"),
};

class DumpListingTest : public InScratchDirectory {
protected:
    // What inspecting a file of these bytes prints.
    static std::string inspect(const FileBytes& file) {
        std::ofstream("in.lmr", std::ios::binary) << file.bytes();
        testing::internal::CaptureStdout();
        FrameDumpSink::inspectDumpFile("in.lmr");
        return testing::internal::GetCapturedStdout();
    }
};

// Two records of each mode; the mode-1 file carries embedded lines of frame_width bytes.
TEST_F(DumpListingTest, PrintsEveryMode) {
    for (int mode = 0; mode < 4; ++mode) {
        SCOPED_TRACE(mode);
        const int size = mode < 2 ? 2 : 4;
        const int line = mode == 1 ? 1 : 0;
        FileBytes file;
        file.head(0x00DF, line, 2, mode);
        std::string expected = head_lines("0xdf", line, 2, mode) + kDescriptors;
        for (int i = 0; i < 2; ++i) {
            file.frame(i + 250, 3, 2, size, 1000ULL * i + 7).filler(line * 3 + (mode + 1) * 3 * 2 * size);
            expected += frame_lines(i, i + 250, 3, 2, size, 1000ULL * i + 7, line == 1, kBlockLines[mode]);
        }
        EXPECT_EQ(inspect(file), expected);
    }
}

// Odd files are printed as they are, and the inspector returns.
TEST_F(DumpListingTest, PrintsOddAndShortFiles) {
    // Sync bytes DF 01, and a zero count: the header and the descriptors only.
    EXPECT_EQ(inspect(FileBytes().head(0x01DF, 0, 0, 0)), head_lines("0x1df", 0, 0, 0, false) + kDescriptors);
    // Mode 7: each frame header, then "Invalid dump mode!", and no data read.
    FileBytes unknown;
    unknown.head(0x00DF, 0, 2, 7).frame(0, 3, 2, 2, 1).frame(1, 3, 2, 2, 2);
    EXPECT_EQ(inspect(unknown), head_lines("0xdf", 0, 2, 7) + kDescriptors +
                                    frame_lines(0, 0, 3, 2, 2, 1, false, "Invalid dump mode!\n") +
                                    frame_lines(1, 1, 3, 2, 2, 2, false, "Invalid dump mode!\n"));
    // Wrong descriptor tags are labelled, and the reading goes on.
    const std::string labelled = inspect(FileBytes().head(0x00DF, 0, 0, 0, 9));
    EXPECT_NE(labelled.find("[Source descriptor]\nInvalid source descriptor!\n[Camera descriptor]\n"),
              std::string::npos)
        << labelled;
    // Mode 0 with 4-byte elements: the depth buffer holds 2-byte elements, yet the block is
    // passed whole and the next record is found. Then the file ends: the third header shows
    // what the second left.
    FileBytes wide;
    wide.head(0x00DF, 0, 3, 0).frame(0, 3, 2, 4, 1).filler(24).frame(1, 3, 2, 4, 2).filler(24);
    const std::string second = frame_lines(1, 1, 3, 2, 4, 2, false, kBlockLines[0]);
    EXPECT_EQ(inspect(wide), head_lines("0xdf", 0, 3, 0) + kDescriptors +
                                 frame_lines(0, 0, 3, 2, 4, 1, false, kBlockLines[0]) + second +
                                 frame_lines(2, 1, 3, 2, 4, 2, false, kBlockLines[0]));
    // A header that claims 65535 records of 65535 x 65535 points with a line in a file of
    // 100 bytes: every iteration runs, none allocates beyond the file.
    FileBytes huge;
    huge.head(0x00DF, 1, 65535, 3).frame(0, 65535, 65535, 4, 1).filler(16);
    const std::string out = inspect(huge);
    EXPECT_NE(out.find("[Frame header] ==> 65534\n"), std::string::npos);
    // A file shorter than its header.
    EXPECT_EQ(inspect(FileBytes().number(0xDF, 1)).substr(0, 45), head_lines("0xdf", 0, 0, 0).substr(0, 45));
}

TEST_F(DumpListingTest, UnopenableAndEmptyPaths) {
    testing::internal::CaptureStdout();
    FrameDumpSink::inspectDumpFile("no-such-dir/x.lmr");
    FrameDumpSink::inspectDumpFile("");
    const std::string out = testing::internal::GetCapturedStdout();
    EXPECT_TRUE(out.rfind("\rE/FrameDumpSink:", 0) == 0 && out.find(": fail to open file!\n") != std::string::npos &&
                out.find('[') == std::string::npos)
        << out;
}

}  // namespace
}  // namespace lumora::dump::test
