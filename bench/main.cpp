// Runs the benchmarks, then prints each figure the product promises beside its target.
#include <benchmark/benchmark.h>

#include <cmath>
#include <cstdio>
#include <map>
#include <string>

namespace {

// Keeps every run's figures as well as printing them.
class Recorder : public benchmark::ConsoleReporter {
public:
    Recorder() : ConsoleReporter(OO_Tabular) {}

    void ReportRuns(const std::vector<Run>& runs) override {
        for (const auto& run : runs) {
            if (run.run_type != Run::RT_Iteration || run.error_occurred) continue;
            Figures& figures = mFigures[run.benchmark_name()];
            figures.seconds = run.GetAdjustedRealTime() / benchmark::GetTimeUnitMultiplier(run.time_unit);
            for (const auto& [name, counter] : run.counters)
                figures.counters[name] = counter.value;
        }
        ConsoleReporter::ReportRuns(runs);
    }

    struct Figures {
        double seconds = NAN;
        std::map<std::string, double> counters;
    };
    Figures get(const std::string& name) const {
        const auto it = mFigures.find(name);
        return it == mFigures.end() ? Figures{} : it->second;
    }

private:
    std::map<std::string, Figures> mFigures;
};

// A target is a ceiling unless `atLeast` makes it a floor.
void row(const char* figure, double measured, const char* unit, double target, const char* targetText,
         bool atLeast = false) {
    std::printf("| %-46s | %10.3f %-3s | %-16s | %-4s |\n", figure, measured, unit, targetText,
                std::isnan(measured)                                  ? "?"
                : (atLeast ? measured >= target : measured <= target) ? "yes"
                                                                      : "NO");
}

double counterOf(const Recorder::Figures& figures, const char* name) {
    const auto it = figures.counters.find(name);
    return it == figures.counters.end() ? NAN : it->second;
}

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    Recorder recorder;
    benchmark::RunSpecifiedBenchmarks(&recorder);
    benchmark::Shutdown();

    const double all = recorder.get("BM_RenderVgaAllTypes/min_time:1.000").seconds * 1e3;
    const double basic = recorder.get("BM_RenderVgaDepthAmplitude/min_time:1.000").seconds * 1e3;
    const double memcpyTime = recorder.get("BM_MemcpyVgaDepthAmplitude/min_time:1.000").seconds;
    const double copyTime = recorder.get("BM_CopyFrameListVgaDepthAmplitude/min_time:1.000").seconds;
    const auto delivery = recorder.get("BM_DeliveryInterval30fps/iterations:1");
    const auto p99 = delivery.counters.count("p99_ms") != 0 ? delivery.counters.at("p99_ms") : NAN;

    std::printf("\n| %-46s | %14s | %-16s | %-4s |\n", "figure", "measured", "target", "met");
    std::printf("|%s|%s|%s|%s|\n", std::string(48, '-').c_str(), std::string(16, '-').c_str(),
                std::string(18, '-').c_str(), std::string(6, '-').c_str());
    row("VGA list, all four frame types, render time", all, "ms", 4.0, "<= 4 ms");
    row("VGA list, depth + amplitude, render time", basic, "ms", 1.5, "<= 1.5 ms");
    row("30 fps delivery: |p99 interval - 33.33 ms|", std::fabs(p99 - 1000.0 / 30.0), "ms", 2.0, "<= 2 ms");
    row("copy_frame_list VGA depth+amplitude / memcpy", copyTime / memcpyTime, "x", 2.0, "<= 2x");
    std::printf("(baseline of this run: memcpy of a VGA depth + amplitude list, %.1f us)\n", memcpyTime * 1e6);

    const auto replay = recorder.get("BM_ReplayBesideSimulated/iterations:1");
    row("replay of 30 fps: |p99 interval - 33.33 ms|", std::fabs(counterOf(replay, "replay_p99_ms") - 1000.0 / 30.0),
        "ms", 2.0, "<= 2 ms");
    row("simulated beside it: |p99 interval - 33.33 ms|", std::fabs(counterOf(replay, "sim_p99_ms") - 1000.0 / 30.0),
        "ms", 2.0, "<= 2 ms");
    row("replay delivery thread, allocations per list", counterOf(replay, "replay_allocs_per_list"), "", 0.0, "0");
    row("simulated delivery thread, allocations per list", counterOf(replay, "sim_allocs_per_list"), "", 0.0,
        "(reported)");
    std::printf(
        "(a recorded VGA depth + amplitude dump at 30 fps played while a simulated VGA camera streams all four "
        "types, 300 intervals each: replay p50 %.3f / min %.3f / max %.3f ms, simulated p50 %.3f / min %.3f / max "
        "%.3f ms)\n",
        counterOf(replay, "replay_p50_ms"), counterOf(replay, "replay_min_ms"), counterOf(replay, "replay_max_ms"),
        counterOf(replay, "sim_p50_ms"), counterOf(replay, "sim_min_ms"), counterOf(replay, "sim_max_ms"));

    const auto waiting = recorder.get("BM_PushConsumerWaiting/iterations:1");
    const auto full = recorder.get("BM_PushFull/iterations:1");
    const auto handOver = recorder.get("BM_HandOver/iterations:1");
    const double depthRebuild = recorder.get("BM_DepthTableRebuild/min_time:0.500").seconds * 1e3;
    const double grayRebuild = recorder.get("BM_GrayTableRebuild/min_time:0.500").seconds * 1e3;
    row("Queue push, consumer waiting, p99", counterOf(waiting, "p99_us"), "us", 30.0, "<= 30 us");
    row("Queue push, consumer waiting, p99.9", counterOf(waiting, "p999_us"), "us", 200.0, "<= 200 us");
    row("Queue push on a full queue (1 ms wait), p99.9", counterOf(full, "p999_ms"), "ms", 1.5, "<= 1.5 ms");
    row("Queue hand-over, capacity 4", counterOf(handOver, "items_per_s"), "/s", 40000.0, ">= 40000/s", true);
    row("Queue hand-over, items lost or duplicated", counterOf(handOver, "lost_or_dup"), "", 0.0, "0");
    row("depth table rebuild, widest range", depthRebuild, "ms", 1.0, "<= 1 ms");
    row("gray table rebuild, widest range", grayRebuild, "ms", 1.0, "<= 1 ms");
    const auto lists = recorder.get("BM_DepthAmplitudeVga/iterations:1");
    const auto cloud = recorder.get("BM_PointCloudVga/iterations:1");
    const double touched = counterOf(lists, "memcpy_ms");
    const double depth16 = counterOf(lists, "u16_ms");
    const double depth32 = counterOf(lists, "f32_ms");
    const double jet = counterOf(lists, "jet_ms");
    const double bareProject = counterOf(cloud, "bare_ms");
    const double cloudImage = counterOf(cloud, "image_ms");
    row("depth+amplitude VGA 16-bit / memcpy touched", depth16 / touched, "x", 2.0, "<= 2x");
    row("depth+amplitude VGA 16-bit / OpenCV JET path", depth16 / jet, "x", 0.6, "<= 0.6x");
    row("depth+amplitude VGA 32-bit float / 16-bit", depth32 / depth16, "x", 1.5, "<= 1.5x");
    row("point cloud VGA image / bare projectPoints", cloudImage / bareProject, "x", 1.1, "<= 1.1x");
    std::printf(
        "(medians of calls interleaved in the same rounds, each call on a list not read since %.0f MB of other "
        "lists (last-level cache %.0f MB): memcpy of 4 bytes read + 4 written per VGA pixel into a fresh colour and "
        "gray image %.3f ms; OpenCV convertTo + applyColorMap(JET) + convertTo %.3f ms; conversion 16-bit %.3f ms, "
        "float %.3f ms. cv::projectPoints of 307200 points %.2f ms, point-cloud image %.2f ms)\n",
        counterOf(lists, "pool_MB"), counterOf(lists, "llc_MB"), touched, jet, depth16, depth32, bareProject,
        cloudImage);
    std::printf(
        "(each after 5 ms idle, as at 30 lists a second, when the conversion's helper thread has gone to "
        "sleep: memcpy touched %.3f ms, 16-bit conversion %.3f ms, %.2fx)\n",
        counterOf(lists, "memcpy_idle_ms"), counterOf(lists, "u16_idle_ms"),
        counterOf(lists, "u16_idle_ms") / counterOf(lists, "memcpy_idle_ms"));
    std::printf(
        "(baseline of this run, a bare mutex + 2 condition variables + deque of capacity 4, interleaved with the "
        "Queue: push with the consumer waiting p50 %.1f / p99 %.1f / p99.9 %.1f us (Queue p50 %.1f us); push on a "
        "full queue p50 %.3f / p99.9 %.3f ms (Queue p50 %.3f ms), a plain 1 ms sleep p99.9 %.3f ms; hand-over "
        "%.0f items/s)\n",
        counterOf(waiting, "bare_p50_us"), counterOf(waiting, "bare_p99_us"), counterOf(waiting, "bare_p999_us"),
        counterOf(waiting, "p50_us"), counterOf(full, "bare_p50_ms"), counterOf(full, "bare_p999_ms"),
        counterOf(full, "p50_ms"), counterOf(full, "sleep_p999_ms"), counterOf(handOver, "bare_items_per_s"));

    std::printf("\n");
    for (int mode = 0; mode < 4; ++mode) {
        const auto dump = recorder.get("BM_Dump300VgaFrames/" + std::to_string(mode) + "/iterations:1");
        const std::string figure = "VGA dump of 300 at 30 fps, mode " + std::to_string(mode) + ", lists lost";
        row(figure.c_str(), counterOf(dump, "lost"), "", 0.0, "0");
    }
    const auto depthAmplitude = recorder.get("BM_Dump300VgaFrames/1/iterations:1");
    const auto intensityCloud = recorder.get("BM_Dump300VgaFrames/3/iterations:1");
    const auto throughput = recorder.get("BM_DumpWriterThroughput/iterations:1");
    row("dump callback, VGA depth + amplitude, p99.9", counterOf(depthAmplitude, "p999_ms"), "ms", 1.5, "<= 1.5 ms");
    row("dump callback, VGA intensity cloud, p99.9", counterOf(intensityCloud, "p999_ms"), "ms", 1.5, "(reported)");
    row("dump writer, mode-3 records / dd", counterOf(throughput, "writer_MBps") / counterOf(throughput, "dd_MBps"),
        "x", 0.8, ">= 0.8x", true);
    std::printf(
        "(dumps without a display running; %.0f and %.0f callbacks timed, p50 %.3f / max %.3f ms and p50 %.3f / max "
        "%.3f ms; baseline of this run: dd bs=4M count=256 conv=fsync %.0f MB/s, the dump writer %.0f MB/s, both "
        "with a final fsync, in the working directory)\n",
        counterOf(depthAmplitude, "samples"), counterOf(intensityCloud, "samples"), counterOf(depthAmplitude, "p50_ms"),
        counterOf(depthAmplitude, "max_ms"), counterOf(intensityCloud, "p50_ms"), counterOf(intensityCloud, "max_ms"),
        counterOf(throughput, "dd_MBps"), counterOf(throughput, "writer_MBps"));

    std::printf("\n");
    const auto lmr = recorder.get("BM_LmrExport300Vga/iterations:1");
    row("lmr export, 300 VGA mode-1 records / imwrite", counterOf(lmr, "lmr_s") / counterOf(lmr, "imwrite_s"), "x", 1.5,
        "<= 1.5x");
    row("lmr info, the same file / cat", counterOf(lmr, "info_s") / counterOf(lmr, "cat_s"), "x", 2.0, "<= 2x");
    std::printf(
        "(medians of alternated runs; baseline of this run: cv::imwrite of the 900 PNGs on two threads %.2f s, lmr "
        "export %.2f s; cat of the %.0f MB file to /dev/null %.3f s, lmr info %.3f s)\n",
        counterOf(lmr, "imwrite_s"), counterOf(lmr, "lmr_s"), counterOf(lmr, "file_MB"), counterOf(lmr, "cat_s"),
        counterOf(lmr, "info_s"));
    return 0;
}
