// lmr on files written by the project's own dump writer: what `info` finds in whole and
// damaged files and the exit statuses of the real program, what `export` writes, and what
// `quality` measures of a known wall.
#include <cinttypes>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <random>
#include <sstream>

#include <sys/wait.h>

#include <opencv2/imgcodecs.hpp>

#include "DumpExport.h"
#include "DumpInfo.h"
#include "DumpTestSupport.h"
#include "dump/DumpWriter.h"
#include "format/DumpScan.h"
#include "imaging/ColorMaps.h"
#include "imaging/FrameConversion.h"

namespace lumora::dump::test {
namespace {

using lmr::InfoStatus;

constexpr std::uint64_t kInterval = 33333;  // 30 per second, in microseconds

struct Record {
    std::uint8_t index;
    std::uint64_t timestamp;
    std::size_t lineBytes;  // the embedded line as written; a reader takes frame_width
};

// Records 0, 1, 2, ... at 30 per second, each with a line of the frame width.
std::vector<Record> steady(std::size_t count, int width) {
    std::vector<Record> records;
    for (std::size_t i = 0; i < count; ++i)
        records.push_back({static_cast<std::uint8_t>(i), 1000000 + i * kInterval, static_cast<std::size_t>(width)});
    return records;
}

// Mode 0 and 1: depth (with missing zeros) and amplitude planes of record `r`.
std::vector<std::uint16_t> sample_planes(std::size_t r, int width, int height) {
    const std::size_t n = static_cast<std::size_t>(width) * height;
    std::vector<std::uint16_t> planes(2 * n);
    for (std::size_t i = 0; i < n; ++i) {
        planes[i] = i % 13 == 0 ? 0 : static_cast<std::uint16_t>((i * 37 + r * 101) % 5000);
        planes[n + i] = static_cast<std::uint16_t>((i * 3 + r) % 1600);
    }
    return planes;
}

// Mode 3: x, y, z, intensity, with missing points (z 0, negative, NaN, infinite).
std::vector<float> cloud_planes(std::size_t r, int width, int height) {
    const std::size_t n = static_cast<std::size_t>(width) * height;
    std::vector<float> planes(4 * n);
    for (std::size_t i = 0; i < n; ++i) {
        const std::size_t row = i / width;
        planes[i] = static_cast<float>(i % width) * 0.01F - 0.2F;
        planes[n + i] = static_cast<float>(row) * -0.01F;
        planes[2 * n + i] = i % 5 == 0    ? 0.0F
                            : i % 7 == 0  ? -1.0F
                            : i % 11 == 0 ? NAN
                            : i % 17 == 0 ? INFINITY
                                          : 0.5F + static_cast<float>(i + r) * 0.001F;
        planes[3 * n + i] = static_cast<float>(i % 100);
    }
    return planes;
}

void write_dump(const std::string& path, std::uint16_t mode, std::uint16_t announced, int width, int height,
                bool embedded, const std::vector<Record>& records, const char* camera = "QRX200AP") {
    DumpWriter writer(path);
    ASSERT_TRUE(writer.isOpen());
    format::camera_descriptor cameraDescriptor{format::kCameraDescriptorTag, 0x312, {}, {}, {}};
    format::fill_text_field(cameraDescriptor.sdk_version, "2.3.0");
    format::fill_text_field(cameraDescriptor.serial_number, "LM0536240000");
    format::fill_text_field(cameraDescriptor.camera_name, camera);
    ASSERT_EQ(writer.writeHead({format::kSyncByte, static_cast<std::uint8_t>(embedded ? 1 : 0), announced, mode},
                               {format::kSourceDescriptorTag, "sim"}, cameraDescriptor),
              hs::RESULT_SUCCESS);
    const std::size_t n = static_cast<std::size_t>(width) * height;
    for (std::size_t r = 0; r < records.size(); ++r) {
        const std::vector<std::uint8_t> line(records[r].lineBytes, 0xE1);
        const auto samples = sample_planes(r, width, height);
        const auto cloud = cloud_planes(r, width, height);
        std::vector<Bytes> blocks;
        for (std::size_t b = 0; b < format::block_count(mode); ++b)
            blocks.push_back(mode <= format::DUMP_DEPTH_AMPLITUDE ? Bytes{samples.data() + b * n, n * 2}
                                                                  : Bytes{cloud.data() + b * n, n * 4});
        ASSERT_EQ(
            writer.writeRecord({records[r].index, static_cast<std::uint16_t>(width), static_cast<std::uint16_t>(height),
                                format::element_size(mode), records[r].timestamp},
                               embedded ? Bytes{line.data(), line.size()} : Bytes{nullptr, 0}, blocks),
            hs::RESULT_SUCCESS);
    }
}

lmr::Verification verify_file(const std::string& path) {
    std::FILE* file = std::fopen(path.c_str(), "rb");
    EXPECT_NE(file, nullptr);
    if (file == nullptr) return {};
    const format::DumpLayout layout = format::scan_dump(file);
    std::fclose(file);
    return lmr::verify(layout);
}

std::string joined(const std::vector<std::string>& lines) {
    std::string text;
    for (const auto& line : lines)
        text += line + "\n";
    return text;
}

// The real program's exit status, its output in `output`.
int run_lmr(const std::string& arguments, std::string* output = nullptr) {
    const std::string command = std::string(LMR_BINARY) + " " + arguments + " >lmr.out 2>&1";
    const int status = std::system(command.c_str());  // NOLINT(concurrency-mt-unsafe): one thread here
    if (output != nullptr) {
        std::ifstream in("lmr.out");
        *output = {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

using LmrInfo = InScratchDirectory;
using LmrExport = InScratchDirectory;

TEST_F(LmrInfo, FindsWhatIsWrongAndSaysSoInItsExitStatus) {
    // Whole: 300 records at 30 per second; frame_index wraps from 255 to 0 without a gap.
    write_dump("whole.lmr", format::DUMP_DEPTH_AMPLITUDE, 300, 4, 2, true, steady(300, 4));
    const auto whole = verify_file("whole.lmr");
    EXPECT_EQ(whole.status, InfoStatus::kWhole) << joined(whole.findings);
    EXPECT_EQ(whole.found, 300U);
    EXPECT_EQ(whole.skippedLists, 0U);
    EXPECT_NEAR(whole.intervals.framesPerSecond, 1e6 / kInterval, 1e-6);
    EXPECT_EQ(whole.intervals.smallest, double(kInterval));
    EXPECT_EQ(whole.intervals.largest, double(kInterval));
    EXPECT_NEAR(whole.intervals.jitter, 0.0, 1e-6);

    // The sink skipped lists: 2 before the first record, 250 between records 1 and 2, and 2
    // (255 and 0) across the wrap between records 2 and 3; one list was lost before it
    // reached the writer, which only the timestamps show.
    std::vector<Record> gaps = steady(4, 4);
    gaps[0].index = 2;
    gaps[1].index = 3;
    gaps[2].index = 254;
    gaps[3].index = 1;
    gaps[3].timestamp += 2 * kInterval;
    write_dump("gaps.lmr", format::DUMP_DEPTH, 10, 4, 2, false, gaps);
    const auto skipped = verify_file("gaps.lmr");
    EXPECT_EQ(skipped.status, InfoStatus::kFindings);
    EXPECT_EQ(skipped.skippedLists, 2U + 250U + 2U);
    const std::string skippedText = joined(skipped.findings);
    EXPECT_NE(skippedText.find("6 of the 10 announced records are missing"), std::string::npos) << skippedText;
    EXPECT_NE(skippedText.find("record 0 has frame_index 2: 2 lists skipped"), std::string::npos) << skippedText;
    EXPECT_NE(skippedText.find("jumps from 254 to 1 at record 3: 2 lists skipped"), std::string::npos) << skippedText;
    EXPECT_DOUBLE_EQ(skipped.intervals.largest, 3.0 * kInterval);

    // The last record cut short by 3 bytes.
    write_dump("cut.lmr", format::DUMP_DEPTH, 3, 4, 2, true, steady(3, 4));
    const auto size = fs::file_size("cut.lmr");
    fs::resize_file("cut.lmr", size - 3);
    const auto cut = verify_file("cut.lmr");
    EXPECT_EQ(cut.status, InfoStatus::kFindings);
    EXPECT_EQ(cut.found, 2U);
    const std::string cutText = joined(cut.findings);
    const std::uint64_t record = 15 + 4 + 4 * 2 * 2;
    EXPECT_NE(cutText.find("record 2 at byte " + std::to_string(format::kHeadBytes + 2 * record) + " is cut short"),
              std::string::npos)
        << cutText;

    // Record 1's embedded line is 3 bytes longer than the frame width: record 2 is not where
    // a reader looks for it, and nothing after it can be read.
    std::vector<Record> longLine = steady(4, 4);
    longLine[1].lineBytes = 7;
    write_dump("line.lmr", format::DUMP_DEPTH, 4, 4, 2, true, longLine);
    const auto line = verify_file("line.lmr");
    EXPECT_EQ(line.status, InfoStatus::kFindings);
    EXPECT_EQ(line.found, 2U);
    const std::string lineText = joined(line.findings);
    EXPECT_NE(lineText.find("record 2 at byte " + std::to_string(format::kHeadBytes + 2 * record)), std::string::npos)
        << lineText;
    EXPECT_NE(lineText.find("embedded line of record 1"), std::string::npos) << lineText;
    EXPECT_NE(lineText.find("cannot be read past byte " + std::to_string(format::kHeadBytes + 2 * record)),
              std::string::npos)
        << lineText;

    std::ofstream("garbage.lmr", std::ios::binary) << std::string(4096, '\x5a');

    // The real program: its exit statuses (0 and 1 on the shell's dumps are tests/e2e's), and
    // the report on one screen.
    std::string report;
    EXPECT_EQ(run_lmr("info whole.lmr", &report), 0);
    EXPECT_NE(report.find("camera_name             QRX200AP"), std::string::npos) << report;
    EXPECT_NE(report.find("frame rate              30.00 per second"), std::string::npos) << report;
    EXPECT_NE(report.find("whole and consistent"), std::string::npos) << report;
    EXPECT_EQ(run_lmr("info line.lmr", &report), 1);
    EXPECT_NE(report.find("cannot be read past byte"), std::string::npos) << report;
    EXPECT_EQ(run_lmr("info garbage.lmr", &report), 2);
    EXPECT_NE(report.find("not a dump file"), std::string::npos) << report;
    EXPECT_EQ(run_lmr("info missing.lmr"), 2);
}

// The colour and gray images the live display shows for the record's planes.
void displayed(const std::vector<std::uint16_t>& planes, int width, int height, imaging::WindowImage& colour,
               imaging::WindowImage& gray) {
    const std::size_t n = static_cast<std::size_t>(width) * height;
    const auto depth = hs::sim::make_frame(hs::LumoraFrame::FRAME_DEPTH, hs::DATA_TYPE_UINT16, width, height, 1, 0);
    const auto amplitude =
        hs::sim::make_frame(hs::LumoraFrame::FRAME_AMPLITUDE, hs::DATA_TYPE_UINT16, width, height, 1, 0);
    std::memcpy(hs::sim::frame_data(depth), planes.data(), n * 2);
    std::memcpy(hs::sim::frame_data(amplitude), planes.data() + n, n * 2);
    imaging::ConversionContext context;
    imaging::convertDepthAmplitude(context, depth, amplitude, {width, height}, {0, 0}, {0, 0}, colour, gray);
}

bool same(const cv::Mat& a, const cv::Mat& b) {
    return a.size() == b.size() && a.type() == b.type() && cv::norm(a, b, cv::NORM_INF) == 0.0;
}

TEST_F(LmrExport, WritesTheRecordedValuesAndTheDisplaysPictures) {
    constexpr int kWidth = 64;
    constexpr int kHeight = 48;
    constexpr std::size_t kRecords = 5;
    write_dump("depth.lmr", format::DUMP_DEPTH_AMPLITUDE, kRecords, kWidth, kHeight, true, steady(kRecords, kWidth));
    lmr::ExportOptions options;
    options.file = "depth.lmr";
    options.directory = "out";
    options.depthMin = 500.0F;
    ASSERT_EQ(lmr::export_dump(options, stderr), lmr::ExportStatus::kDone);

    // The colour map from 500 to the model's far end, the model's gray range.
    const imaging::ModelRanges model = imaging::modelRanges("QRX200AP");
    imaging::setDepthRange({model.depth.first, 500.0F});
    imaging::setGrayRange(model.gray);
    std::ifstream index("out/index.csv");
    std::string row;
    std::getline(index, row);
    EXPECT_EQ(row, "record,frame_index,timestamp,depth_png,depth_colour_png,amplitude_png,point_cloud_ply");
    for (std::size_t r = 0; r < kRecords; ++r) {
        const auto planes = sample_planes(r, kWidth, kHeight);
        const cv::Mat depth = cv::imread("out/record_000" + std::to_string(r) + "_depth.png", cv::IMREAD_UNCHANGED);
        EXPECT_TRUE(same(depth, cv::Mat(kHeight, kWidth, CV_16UC1, const_cast<std::uint16_t*>(planes.data()))))
            << "record " << r;
        imaging::WindowImage colour;
        imaging::WindowImage gray;
        displayed(planes, kWidth, kHeight, colour, gray);
        const std::string stem = "record_000" + std::to_string(r);
        EXPECT_TRUE(same(cv::imread("out/" + stem + "_depth_colour.png", cv::IMREAD_UNCHANGED), colour.image))
            << "record " << r;
        EXPECT_TRUE(same(cv::imread("out/" + stem + "_amplitude.png", cv::IMREAD_UNCHANGED), gray.image))
            << "record " << r;
        std::getline(index, row);
        const std::uint64_t timestamp = 1000000 + r * kInterval;
        char expected[256];
        std::snprintf(expected, sizeof expected,
                      "%zu,%zu,%" PRIu64 ",%s_depth.png,%s_depth_colour.png,%s_amplitude.png,", r, r, timestamp,
                      stem.c_str(), stem.c_str(), stem.c_str());
        EXPECT_EQ(row, expected);
    }
    EXPECT_FALSE(std::getline(index, row));
}

// The vertices of a binary PLY file of x, y, z, intensity, and the count its header announces.
std::vector<float> ply_vertices(const std::string& path, std::size_t& announced) {
    std::ifstream in(path, std::ios::binary);
    std::string line;
    announced = 0;
    while (std::getline(in, line) && line != "end_header")
        std::sscanf(line.c_str(), "element vertex %zu", &announced);
    const std::string rest{std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
    std::vector<float> vertices(rest.size() / sizeof(float));
    std::memcpy(vertices.data(), rest.data(), vertices.size() * sizeof(float));
    return vertices;
}

TEST_F(LmrExport, WritesThePointsOfARecordAsPly) {
    constexpr int kWidth = 40;
    constexpr int kHeight = 30;
    write_dump("cloud.lmr", format::DUMP_INTENSITY_POINTCLOUD, 4, kWidth, kHeight, false, steady(4, kWidth));
    EXPECT_EQ(run_lmr("export --records 1-2 cloud.lmr out"), 0);
    EXPECT_FALSE(fs::exists("out/record_0000.ply"));
    EXPECT_FALSE(fs::exists("out/record_0003.ply"));
    for (std::size_t r = 1; r <= 2; ++r) {
        const auto planes = cloud_planes(r, kWidth, kHeight);
        const std::size_t n = static_cast<std::size_t>(kWidth) * kHeight;
        std::vector<float> expected;
        for (std::size_t i = 0; i < n; ++i)
            if (planes[2 * n + i] > 0.0F && std::isfinite(planes[2 * n + i]))
                expected.insert(expected.end(), {planes[i], planes[n + i], planes[2 * n + i], planes[3 * n + i]});
        std::size_t announced = 0;
        const auto vertices = ply_vertices("out/record_000" + std::to_string(r) + ".ply", announced);
        EXPECT_EQ(announced, expected.size() / 4);
        EXPECT_EQ(vertices, expected) << "record " << r;
    }
    std::string output;
    EXPECT_EQ(run_lmr("export --records 2-9 cloud.lmr out", &output), 1);
    EXPECT_NE(output.find("has records 0-3"), std::string::npos) << output;
}

// A wall 1200 mm along the optical axis, its normal tilted 20 degrees towards x, through a
// lens without distortion (fx = fy = 60, centred on 64 x 48): depth with Gaussian noise of
// 3 mm (mode 0, rounded to whole mm), or the same as points and intensity 700 (mode 3).
void write_wall(const std::string& path, std::uint16_t mode) {
    constexpr int kWidth = 64;
    constexpr int kHeight = 48;
    constexpr std::size_t kPixels = std::size_t{kWidth} * kHeight;
    DumpWriter writer(path);
    format::camera_descriptor camera{format::kCameraDescriptorTag, 0x312, {}, {}, {}};
    format::fill_text_field(camera.serial_number, "LM0536240000");
    format::fill_text_field(camera.camera_name, "QRX200AP");
    ASSERT_EQ(writer.writeHead({format::kSyncByte, 0, 10, mode}, {format::kSourceDescriptorTag, "sim"}, camera),
              hs::RESULT_SUCCESS);
    std::mt19937 random(17);
    std::normal_distribution<double> noise(0.0, 3.0);
    const double tilt = 20.0 * M_PI / 180.0;
    for (std::uint8_t r = 0; r < 10; ++r) {
        std::vector<std::uint16_t> depth(kPixels);
        std::vector<float> cloud(4 * kPixels);
        for (std::size_t i = 0; i < kPixels; ++i) {
            const std::size_t row = i / kWidth;
            const double x = (static_cast<double>(i % kWidth) - 31.5) / 60.0;
            const double y = (static_cast<double>(row) - 23.5) / 60.0;
            const double d = 1200.0 * std::cos(tilt) / (std::sin(tilt) * x + std::cos(tilt)) + noise(random);
            depth[i] = static_cast<std::uint16_t>(std::lround(d));
            const double point[4] = {x * d / 1000.0, y * d / 1000.0, d / 1000.0, 700.0};
            for (std::size_t c = 0; c < 4; ++c)
                cloud[c * kPixels + i] = static_cast<float>(point[c]);
        }
        std::vector<Bytes> blocks{{depth.data(), kPixels * 2}};
        if (mode == format::DUMP_INTENSITY_POINTCLOUD)
            blocks = {{cloud.data(), kPixels * 4},
                      {cloud.data() + kPixels, kPixels * 4},
                      {cloud.data() + 2 * kPixels, kPixels * 4},
                      {cloud.data() + 3 * kPixels, kPixels * 4}};
        ASSERT_EQ(writer.writeRecord({r, kWidth, kHeight, format::element_size(mode), 1000000 + r * kInterval},
                                     Bytes{nullptr, 0}, blocks),
                  hs::RESULT_SUCCESS);
    }
}

// The number after `key` in a report.
double after(const std::string& report, const std::string& key) {
    const auto at = report.find(key);
    EXPECT_NE(at, std::string::npos) << key << " in " << report;
    return at == std::string::npos ? NAN : std::strtod(report.c_str() + at + key.size(), nullptr);
}

using LmrQuality = InScratchDirectory;

TEST_F(LmrQuality, MeasuresAKnownWallAndChecksLimits) {
    write_wall("depth.lmr", format::DUMP_DEPTH);
    write_wall("cloud.lmr", format::DUMP_INTENSITY_POINTCLOUD);
    std::string report;
    ASSERT_EQ(run_lmr("quality --roi 8,6,48,36 --truth 1190 --intrinsics 60,60,31.5,23.5 depth.lmr", &report), 0);
    EXPECT_NE(report.find("rays: --intrinsics"), std::string::npos) << report;
    EXPECT_NE(report.find("depth quality of QRX200AP LM0536240000: 10 lists, ROI 8,6 48x36\n"), std::string::npos)
        << report;
    EXPECT_NEAR(after(report, "distance"), 1200.0, 1.0);
    EXPECT_NEAR(after(report, "plane angle"), 20.0, 0.2);
    // Noise of 3 mm along z, seen across the plane at cos 20, trimmed; rounding adds 1/12 mm^2.
    EXPECT_NEAR(after(report, "plane-fit RMS"), 0.96 * std::sqrt(9.0 + 1.0 / 12) * std::cos(20 * M_PI / 180), 0.15);
    EXPECT_NEAR(after(report, "temporal noise"), 3.0 * 0.96, 0.2);
    EXPECT_NEAR(after(report, "fill rate"), 100.0, 1e-9);
    EXPECT_NE(report.find("amplitude          no amplitude in the lists"), std::string::npos) << report;

    // The recorded points give the same wall, and the intensity its amplitude.
    ASSERT_EQ(
        run_lmr("quality --json --roi 8,6,48,36 --truth 1190 --max-z-error 1 --min-fill-rate 99 cloud.lmr", &report),
        0);
    EXPECT_NE(report.find("rays: the points recorded in the file"), std::string::npos) << report;
    for (const char* key : {"fill_rate_pct", "distance_mm", "plane_angle_deg", "plane_fit_rms_mm", "temporal_noise_mm",
                            "z_error_mm", "z_error_pct", "amplitude_mean", "amplitude_p5", "lists", "roi"})
        EXPECT_NE(report.find("\"" + std::string(key) + "\": "), std::string::npos) << key << " in " << report;
    EXPECT_NEAR(after(report, "\"distance_mm\": "), 1200.0, 1.0);
    EXPECT_NEAR(after(report, "\"z_error_pct\": "), 100.0 * 10 / 1190, 0.1);
    EXPECT_EQ(after(report, "\"amplitude_p5\": "), 700.0);

    // A limit missed (the other holds); a file that cannot be read; depth without rays (a path with a comma
    // makes no replay camera).
    EXPECT_EQ(
        run_lmr("quality --roi 8,6,48,36 --truth 1190 --max-z-error 0.5 --max-plane-fit-rms 9 cloud.lmr", &report), 1);
    EXPECT_NEAR(after(report, "limit missed: Z error "), 100.0 * 10 / 1190, 0.1);
    EXPECT_NE(report.find(" %, above 0.5 %\n"), std::string::npos) << report;
    EXPECT_EQ(report.find("limit missed: plane-fit RMS"), std::string::npos) << report;
    std::ofstream("garbage.lmr", std::ios::binary) << std::string(4096, '\x5a');
    EXPECT_EQ(run_lmr("quality garbage.lmr"), 2);
    fs::copy_file("depth.lmr", "a,b.lmr");
    EXPECT_EQ(run_lmr("quality a,b.lmr", &report), 2);
    EXPECT_NE(report.find("no rays for the depth of a,b.lmr"), std::string::npos) << report;
    // Without --intrinsics the replay camera of the file's model gives the rays.
    EXPECT_EQ(run_lmr("quality depth.lmr", &report), 0);
    EXPECT_NE(report.find("rays: the replay camera's lens 0, QRX200AP at 64x48"), std::string::npos) << report;
}

}  // namespace
}  // namespace lumora::dump::test
