"""Prints the table of every figure the product promises: what was measured, the baseline
measured in the same run, the bound and whether it holds. Bounds that only an idle machine
could meet are ratios to (or margins over) a baseline of the same run.
Usage: table.py RESULTS_FILE   (the "KEY=VALUE" lines the parts of `make bench` wrote)"""
import math
import sys

from livebench import QUIET_LOAD

figures = {}
for line in open(sys.argv[1]):
    key, _, value = line.strip().partition("=")
    figures[key] = value


def f(key):
    try:
        return float(figures[key])
    except (KeyError, ValueError):
        return math.nan


def period_error(key):
    return abs(f(key) - 1000 / 30)


# (figure, measured, unit, baseline text, bound text, holds). `measured` and `holds` are
# functions of the figures so that a missing figure shows as "?" rather than stopping the table.
ROWS = [
    ("Simulated library", None),
    ("the scene's own cost: render a VGA list, all four types", lambda: 1e3 * f("BM_RenderVgaAllTypes.seconds"), "ms",
     lambda: f"memcpy VGA depth+amplitude {1e6 * f('BM_MemcpyVgaDepthAmplitude.seconds'):.0f} us", "<= 4 ms",
     lambda m: m <= 4),
    ("render a VGA list, depth + amplitude", lambda: 1e3 * f("BM_RenderVgaDepthAmplitude.seconds"), "ms",
     lambda: "(as above)", "<= 1.5 ms", lambda m: m <= 1.5),
    ("delivery per VGA list of 4 types: looped / rendered",
     lambda: f("BM_DeliveryThreadVgaAllTypes/30.cpu_ms_per_list") / f("BM_DeliveryThreadVgaAllTypes/0.cpu_ms_per_list"),
     "x", lambda: f"rendered {f('BM_DeliveryThreadVgaAllTypes/0.cpu_ms_per_list'):.2f} ms, looped "
                  f"{f('BM_DeliveryThreadVgaAllTypes/30.cpu_ms_per_list'):.2f} ms", "<= 0.2x", lambda m: m <= 0.2),
    ("copy_frame_list VGA depth+amplitude / memcpy",
     lambda: f("BM_CopyFrameListVgaDepthAmplitude.seconds") / f("BM_MemcpyVgaDepthAmplitude.seconds"), "x",
     lambda: f"memcpy {1e6 * f('BM_MemcpyVgaDepthAmplitude.seconds'):.1f} us", "<= 2x", lambda m: m <= 2),
    ("30 fps delivery, abs(p99 interval - 33.33 ms)", lambda: period_error("BM_DeliveryInterval30fps.p99_ms"), "ms",
     lambda: f"bare 30 Hz timer {period_error('BM_DeliveryInterval30fps.ticker_p99_ms'):.2f} ms",
     "<= timer + 2 ms", lambda m: m <= period_error("BM_DeliveryInterval30fps.ticker_p99_ms") + 2),
    ("replay of a 30 fps dump, abs(p99 interval - 33.33 ms)",
     lambda: period_error("BM_ReplayBesideSimulated.replay_p99_ms"), "ms",
     lambda: f"bare 30 Hz timer {period_error('BM_ReplayBesideSimulated.ticker_p99_ms'):.2f} ms",
     "<= timer + 2 ms", lambda m: m <= period_error("BM_ReplayBesideSimulated.ticker_p99_ms") + 2),
    ("simulated camera beside it, abs(p99 interval - 33.33 ms)",
     lambda: period_error("BM_ReplayBesideSimulated.sim_p99_ms"), "ms", lambda: "(as above)",
     "<= timer + 2 ms", lambda m: m <= period_error("BM_ReplayBesideSimulated.ticker_p99_ms") + 2),
    ("replay delivery thread, allocations per list", lambda: f("BM_ReplayBesideSimulated.replay_allocs_per_list"),
     "", lambda: f"simulated {f('BM_ReplayBesideSimulated.sim_allocs_per_list'):.1f}", "0", lambda m: m == 0),
    ("Frame queue and colour tables", None),
    ("push, consumer waiting, p99 / bare queue p99",
     lambda: f("BM_PushConsumerWaiting.p99_us") / f("BM_PushConsumerWaiting.bare_p99_us"), "x",
     lambda: f"bare p99 {f('BM_PushConsumerWaiting.bare_p99_us'):.1f} us", "<= 2x", lambda m: m <= 2),
    ("push, consumer waiting, p99.9 / bare queue p99.9",
     lambda: f("BM_PushConsumerWaiting.p999_us") / f("BM_PushConsumerWaiting.bare_p999_us"), "x",
     lambda: f"bare p99.9 {f('BM_PushConsumerWaiting.bare_p999_us'):.0f} us", "<= 2x", lambda m: m <= 2),
    ("push on a full queue (1 ms wait), p99.9 / 1 ms sleep p99.9",
     lambda: f("BM_PushFull.p999_ms") / f("BM_PushFull.sleep_p999_ms"), "x",
     lambda: f"1 ms sleep p99.9 {f('BM_PushFull.sleep_p999_ms'):.2f} ms", "<= 1.5x", lambda m: m <= 1.5),
    ("hand-over, capacity 4", lambda: f("BM_HandOver.items_per_s") / 1e3, "k/s",
     lambda: f"bare queue {f('BM_HandOver.bare_items_per_s') / 1e3:.0f} k/s", ">= 40 k/s", lambda m: m >= 40),
    ("hand-over, items lost or duplicated", lambda: f("BM_HandOver.lost_or_dup"), "", lambda: "-", "0",
     lambda m: m == 0),
    ("depth colour table rebuild, widest range", lambda: 1e3 * f("BM_DepthTableRebuild.seconds"), "ms",
     lambda: "-", "<= 1 ms", lambda m: m <= 1),
    ("gray table rebuild, widest range", lambda: 1e3 * f("BM_GrayTableRebuild.seconds"), "ms", lambda: "-",
     "<= 1 ms", lambda m: m <= 1),
    ("Display conversion (VGA)", None),
    ("depth+amplitude 16-bit / memcpy of the bytes touched",
     lambda: f("BM_DepthAmplitudeVga.u16_ms") / f("BM_DepthAmplitudeVga.memcpy_ms"), "x",
     lambda: f"memcpy {f('BM_DepthAmplitudeVga.memcpy_ms'):.3f} ms", "<= 2x", lambda m: m <= 2),
    ("depth+amplitude 16-bit / OpenCV convertTo+JET path",
     lambda: f("BM_DepthAmplitudeVga.u16_ms") / f("BM_DepthAmplitudeVga.jet_ms"), "x",
     lambda: f"OpenCV {f('BM_DepthAmplitudeVga.jet_ms'):.3f} ms", "<= 0.6x", lambda m: m <= 0.6),
    ("depth+amplitude 32-bit float / 16-bit",
     lambda: f("BM_DepthAmplitudeVga.f32_ms") / f("BM_DepthAmplitudeVga.u16_ms"), "x",
     lambda: f"16-bit {f('BM_DepthAmplitudeVga.u16_ms'):.3f} ms", "<= 1.5x", lambda m: m <= 1.5),
    ("point-cloud image / bare cv::projectPoints",
     lambda: f("BM_PointCloudVga.image_ms") / f("BM_PointCloudVga.bare_ms"), "x",
     lambda: f"projectPoints {f('BM_PointCloudVga.bare_ms'):.2f} ms", "<= 1.1x", lambda m: m <= 1.1),
    ("Dumps (no display)", None),
    ("VGA dumps of 300 at 30 fps, modes 0-3, lists lost",
     lambda: sum(f(f"BM_Dump300VgaFrames/{mode}.lost") for mode in range(4)), "", lambda: "-", "0",
     lambda m: m == 0, "bench"),
    ("dump callback, depth + amplitude, p99.9 / 1 ms sleep p99.9",
     lambda: f("BM_Dump300VgaFrames/1.p999_ms") / f("BM_PushFull.sleep_p999_ms"), "x",
     lambda: f"1 ms sleep p99.9 {f('BM_PushFull.sleep_p999_ms'):.2f} ms", "<= 1.5x", lambda m: m <= 1.5),
    ("dump writer, mode-3 records / dd",
     lambda: f("BM_DumpWriterThroughput.writer_MBps") / f("BM_DumpWriterThroughput.dd_MBps"), "x",
     lambda: f"dd {f('BM_DumpWriterThroughput.dd_MBps'):.0f} MB/s", ">= 0.8x", lambda m: m >= 0.8),
    ("lmr", None),
    ("export of 300 VGA mode-1 records / cv::imwrite",
     lambda: f("BM_LmrExport300Vga.lmr_s") / f("BM_LmrExport300Vga.imwrite_s"), "x",
     lambda: f"imwrite {f('BM_LmrExport300Vga.imwrite_s'):.2f} s", "<= 1.5x", lambda m: m <= 1.5),
    ("info of the same file / cat", lambda: f("BM_LmrExport300Vga.info_s") / f("BM_LmrExport300Vga.cat_s"), "x",
     lambda: f"cat {f('BM_LmrExport300Vga.cat_s'):.3f} s", "<= 2x", lambda m: m <= 2),
    ("Depth quality", None),
    ("measure one VGA list, default ROI (256x192)", lambda: f("BM_QualityVgaList.measure_ms"), "ms",
     lambda: f"memcpy of the ROI {f('BM_QualityVgaList.memcpy_us'):.1f} us", "<= 2 ms", lambda m: m <= 2),
    ("Python module (VGA)", None),
    ("mask 30 at 30 fps into a Python loop, lists dropped", lambda: f("python.stream_dropped"), "",
     lambda: f"{f('python.stream_lists'):.0f} lists handed over", "0", lambda m: m == 0, "python"),
    ("sink on the delivery thread per list / memcpy of its bytes",
     lambda: f("python.sink_ms") / f("python.memcpy_ms"), "x",
     lambda: f"memcpy {f('python.memcpy_ms'):.2f} ms", "<= 1.5x", lambda m: m <= 1.5),
    ("300 mode-1 records, depth sums: speed / numpy.fromfile",
     lambda: f("python.dump_fromfile_s") / f("python.dump_lumora_s"), "x",
     lambda: f"fromfile {f('python.dump_fromfile_s'):.3f} s", ">= 0.8x", lambda m: m >= 0.8),
    ("import lumora", lambda: f("python.import_ms"), "ms",
     lambda: f"import numpy {f('python.numpy_import_ms'):.0f} ms", "<= 150 ms", lambda m: m <= 150),
    ("Live display end to end (VGA, Xvfb; mask 6 from a replay, mask 30 from the camera's loop)", None),
    ("the shell's first windows (Qt, once): lists dropped", lambda: f("display.first.dropped"), "",
     lambda: f"{f('display.first.waited_for_windows'):.0f} waited, at most {f('display.first.opening_ms'):.0f} ms",
     "(reported)", None, "display"),
    ("mask 6: lists drawn per second", lambda: f("display.m6.drawn_per_s"), "/s", lambda: "camera 30/s",
     "29 to 31", lambda m: 29 <= m <= 31, "display"),
    ("mask 6: frame-rate text at the end", lambda: f("display.m6.fps"), "fps", lambda: "camera 30 fps",
     "29 to 31", lambda m: 29 <= m <= 31, "display"),
    ("mask 6: lists dropped at the renderer's queue in a minute", lambda: f("display.m6.dropped"), "",
     lambda: "-", "0", lambda m: m == 0, "display"),
    ("mask 6: processor time / bare imshow program's",
     lambda: f("display.m6.cpu") / f("display.bare_cpu"), "x",
     lambda: f"bare {f('display.bare_cpu'):.1f} % of a core", "<= 2.5x", lambda m: m <= 2.5, "display"),
    ("mask 6: delivery to window system, p99", lambda: f("display.m6.p99_ms"), "ms",
     lambda: f"bare imshow p99 {f('display.bare_p99_ms'):.1f} ms", "< 33.3 ms", lambda m: m < 1000 / 30, "display"),
    ("mask 30 (six windows): lists drawn per second", lambda: f("display.m30.drawn_per_s"), "/s",
     lambda: "camera 30/s", "29 to 31", lambda m: 29 <= m <= 31, "display"),
    ("mask 30: lists dropped at the renderer's queue in a minute", lambda: f("display.m30.dropped"), "",
     lambda: "-", "0", lambda m: m == 0, "display"),
    ("mask 30: delivery to window system, p99", lambda: f("display.m30.p99_ms"), "ms",
     lambda: f"p50 {f('display.m30.p50_ms'):.1f} ms", "< 33.3 ms", lambda m: m < 1000 / 30, "display"),
    ("Live display at other sizes (Xvfb, 10 s a run)", None),
    ("1 MP, mask 6: lists drawn per second", lambda: f("scale.1024x1024.m6.drawn_per_s"), "/s",
     lambda: f"delivered {f('scale.1024x1024.m6.delivered_per_s'):.1f}/s", "29 to 31", lambda m: 29 <= m <= 31,
     "scale"),
    ("1 MP, mask 6: delivery to window system, p99", lambda: f("scale.1024x1024.m6.p99_ms"), "ms",
     lambda: f"p50 {f('scale.1024x1024.m6.p50_ms'):.1f} ms", "< 33.3 ms", lambda m: m < 1000 / 30, "scale"),
    ("1 MP, mask 30: lists drawn per second", lambda: f("scale.1024x1024.m30.drawn_per_s"), "/s",
     lambda: f"delivered {f('scale.1024x1024.m30.delivered_per_s'):.1f}/s", ">= 20", lambda m: m >= 20, "scale"),
    ("4 MP, mask 6: lists drawn per second", lambda: f("scale.2048x2048.m6.drawn_per_s"), "/s",
     lambda: f"delivered {f('scale.2048x2048.m6.delivered_per_s'):.1f}/s", "29 to 31", lambda m: 29 <= m <= 31,
     "scale"),
    ("4 MP, mask 6: delivery to window system, p99", lambda: f("scale.2048x2048.m6.p99_ms"), "ms",
     lambda: f"p50 {f('scale.2048x2048.m6.p50_ms'):.1f} ms", "< 66.7 ms", lambda m: m < 2000 / 30, "scale"),
    ("4 MP, mask 30: lists drawn per second", lambda: f("scale.2048x2048.m30.drawn_per_s"), "/s",
     lambda: f"processor {100 * f('scale.2048x2048.m30.cpu'):.0f} % of a core", "(reported)", None, "scale"),
    ("Web view (VGA, no display, headless browser; sources as above)", None),
    ("mask 6: depth and amplitude pictures/s / lists drawn/s",
     lambda: f("web.m6.pictures_per_s_min") / f("web.m6.lists_per_s"), "x",
     lambda: f"{f('web.m6.lists_per_s'):.1f} lists/s", ">= 0.95x", lambda m: m >= 0.95, "web"),
    ("mask 30: depth and amplitude pictures/s / lists drawn/s",
     lambda: f("web.m30.pictures_per_s_min") / f("web.m30.lists_per_s"), "x",
     lambda: f"{f('web.m30.lists_per_s'):.1f} lists/s", ">= 0.95x", lambda m: m >= 0.95, "web"),
    ("mask 30: point-cloud pictures/s, the slowest of three views", lambda: f("web.m30.cloud_pictures_per_s_min"),
     "/s", lambda: f"{f('web.m30.lists_per_s'):.1f} lists/s", ">= 10", lambda m: m >= 10, "web"),
    ("mask 6: delivery to decoded in the page, p99", lambda: f("web.m6.decoded_p99_ms"), "ms",
     lambda: f"to socket p99 {f('web.m6.socket_p99_ms'):.1f}, written to decoded p99 {f('web.m6.in_page_p99_ms'):.1f} ms",
     "<= 50 ms", lambda m: m <= 50, "web"),
    ("mask 30: delivery to decoded in the page, p99", lambda: f("web.m30.decoded_p99_ms"), "ms",
     lambda: f"to socket p99 {f('web.m30.socket_p99_ms'):.1f}, written to decoded p99 {f('web.m30.in_page_p99_ms'):.1f} ms",
     "<= 100 ms", lambda m: m <= 100, "web"),
    ("mask 30: the page's browser (on the same two cores), processor time", lambda: f("web.m30.browser_cpu"), "%",
     lambda: f"mask 6 {f('web.m6.browser_cpu'):.0f} % of a core", "(reported)", None, "web"),
    ("mask 6: processor time added by one watcher",
     lambda: f("web.m6.cpu_on") - f("web.m6.cpu_off"), "pp",
     lambda: f"view off {f('web.m6.cpu_off'):.1f} %", "<= 8 pp", lambda m: m <= 8, "web"),
    ("mask 30: processor time added by one watcher",
     lambda: f("web.m30.cpu_on") - f("web.m30.cpu_off"), "pp",
     lambda: f"view off {f('web.m30.cpu_off'):.1f} %", "<= 25 pp", lambda m: m <= 25, "web"),
    ("mask 6: processor time added by Measure in one watcher",
     lambda: f("web.m6.cpu_measure") - f("web.m6.cpu_measure_off"), "pp",
     lambda: f"Measure off {f('web.m6.cpu_measure_off'):.1f} %", "<= 5 pp", lambda m: m <= 5, "web"),
    ("mask 6: processor time added by a second watcher",
     lambda: f("web.m6.cpu_two") - f("web.m6.cpu_on"), "pp",
     lambda: f"one watcher {f('web.m6.cpu_on'):.1f} %", "<= 1 pp", lambda m: m <= 1, "web"),
]


def number(value):
    if value == int(value) and abs(value) < 1e6:
        return str(int(value))
    digits = 3 if abs(value) < 1 else 2 if abs(value) < 10 else 1 if abs(value) < 100 else 0
    return f"{value:.{digits}f}"


def loaded(part):
    """The 1-minute load average at the start of `part` when it was at least livebench's
    threshold for a quiet machine, else None."""
    try:
        one = float(figures.get(f"{part}.load", "0").split()[0])
    except ValueError:
        return None
    return one if one >= QUIET_LOAD else None


def main():
    header = ("figure", "measured", "baseline, same run", "bound", "verdict")
    print("\n| %-58s | %14s | %-36s | %-16s | %-7s |" % header)
    print("|%s|%s|%s|%s|%s|" % ("-" * 60, "-" * 16, "-" * 38, "-" * 18, "-" * 9))
    held = missed = voided = 0
    for row in ROWS:
        if row[1] is None:
            print("| %-58s | %14s | %-36s | %-16s | %-7s |" % (f"**{row[0]}**", "", "", "", ""))
            continue
        figure, measured, unit, baseline, bound, holds = row[:6]
        # Figures of time and rate measured end to end are void on a machine that was busy.
        load = loaded(row[6]) if len(row) > 6 else None
        value = measured()
        if math.isnan(value):
            verdict = "?"
        elif holds is None:
            verdict = "-"
        elif holds(value):
            verdict, held = "holds", held + 1
        elif load is not None:
            verdict, voided = f"void (load {load:.1f})", voided + 1
        else:
            verdict, missed = "misses", missed + 1
        text = "?" if math.isnan(value) else number(value)
        print("| %-58s | %10s %-3s | %-36s | %-16s | %-7s |" % (figure, text, unit, baseline(), bound, verdict))
    loads = "; ".join(f"{key.split('.')[0]} {value}" for key, value in figures.items() if key.endswith(".load"))
    busy = [key.split(".")[0] for key in figures if key.endswith(".load") and loaded(key.split(".")[0])]
    print(f"\n{held} hold, {missed} miss, {voided} void. Load average (1, 5, 15 min) at the start of each part: {loads}")
    if busy:
        print(f"Under load (1-minute load average {QUIET_LOAD} or more at the start): {', '.join(busy)}. Their "
              "end-to-end figures of time and rate that miss are void, not misses: run make bench again on a "
              "quiet machine.")


main()
