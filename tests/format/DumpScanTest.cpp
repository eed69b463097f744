// The scan of a whole file's layout, for files built byte by byte: a whole file, and the
// first problem of files that are cut short, thrown off by an embedded line, or not dumps.
#include <gtest/gtest.h>

#include <cstdio>

#include "DumpBytes.h"
#include "format/DumpFile.h"
#include "format/DumpScan.h"

namespace lumora::format::test {
namespace {

// Records of 4x2 depth + amplitude with embedded lines: 15 + 4 + 2 x 16 bytes each.
TEST(DumpScanTest, FindsTheFirstProblem) {
    const auto scan = [](const FileBytes& file) {
        const File in(std::tmpfile());
        EXPECT_NE(in, nullptr);
        if (!in) return DumpLayout{};
        std::fwrite(file.bytes().data(), 1, file.bytes().size(), in.get());
        std::rewind(in.get());
        return scan_dump(in.get());
    };
    FileBytes whole;
    whole.head(0x00DF, 1, 2, 1).frame(0, 4, 2, 2, 100).filler(4 + 32).frame(1, 4, 2, 2, 133).filler(36);
    DumpLayout layout = scan(whole);
    EXPECT_EQ(layout.problem, ScanProblem::kNone) << layout.problemText;
    ASSERT_EQ(layout.records.size(), 2U);
    // Copied out: gtest binds its arguments to references, which a packed field cannot take.
    EXPECT_EQ(std::uint64_t{layout.records[1].timestamp}, 133U);
    EXPECT_EQ(layout.recordBytes, 51U);
    EXPECT_EQ(layout.dataOffset(1), kHeadBytes + 51 + 15 + 4);
    EXPECT_EQ(layout.cameraName(), "QRX100A");

    FileBytes cut = whole;
    cut.frame(2, 4, 2, 2, 166).filler(35);
    layout = scan(cut);
    EXPECT_EQ(layout.problem, ScanProblem::kTruncatedRecord);
    EXPECT_EQ(layout.problemOffset, kHeadBytes + std::size_t{2} * 51);
    EXPECT_EQ(layout.records.size(), 2U);

    // An embedded line written at twice the frame width throws the next header off.
    FileBytes longLine;
    longLine.head(0x00DF, 1, 2, 1).frame(0, 4, 2, 2, 100).filler(8 + 32).frame(1, 4, 2, 2, 133).filler(40);
    layout = scan(longLine);
    EXPECT_EQ(layout.problem, ScanProblem::kRecordMismatch);
    EXPECT_EQ(layout.problemOffset, kHeadBytes + 51);
    EXPECT_NE(layout.problemText.find("embedded line of record 0"), std::string::npos) << layout.problemText;

    EXPECT_EQ(scan(FileBytes().head(0x00DF, 0, 1, 0).frame(0, 4, 2, 4, 1).filler(32)).problem, ScanProblem::kBadRecord);
    EXPECT_EQ(scan(FileBytes().head(0x01DF, 0, 0, 0)).problem, ScanProblem::kNotADump);
    EXPECT_EQ(scan(FileBytes().head(0x00DF, 0, 0, 7)).problem, ScanProblem::kNotADump);
    EXPECT_EQ(scan(FileBytes().number(0xDF, 2)).problem, ScanProblem::kShortHead);
}

}  // namespace
}  // namespace lumora::format::test
