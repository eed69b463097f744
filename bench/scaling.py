"""How the shell's cost grows with the picture: QVGA, VGA, 1 MP and 4 MP at 30 fps, masks 6
and 30, with the windows on under Xvfb, from cameras that do not render each list (mask 6
from a replay of a mode-1 recording, mask 30 from the simulated camera's loop:
bench/livebench.py). For each run: the shell's processor time per second, the lists
delivered, drawn and dropped per second, the times from delivery to the window system, and a
memcpy of the same bytes per second measured in the same run (libc's memcpy from buffers not
in the cache). Prints a table, appends the figures as "scale.WxH.mMASK.FIGURE=VALUE" lines to
RESULTS_FILE, and plots processor time against pixels per second, with the memcpy as the line
to read it against, into PLOT. The dump writer's rate at each size comes from RESULTS_FILE
(lumora-bench's BM_DumpWriterAtSize) when it is there. With BENCH_LOG set, the shells'
output is appended to that file.
Usage: scaling.py BUILD_DIR RESULTS_FILE PLOT [SECONDS]"""
import ctypes
import os
import sys
import tempfile
import time

import matplotlib

import livebench

matplotlib.use("Agg")
import matplotlib.pyplot as plt  # noqa: E402

build = os.path.abspath(sys.argv[1])
results_path, plot_path = sys.argv[2], sys.argv[3]
seconds = float(sys.argv[4]) if len(sys.argv) > 4 else 10
sizes = [("QVGA", 320, 240), ("VGA", 640, 480), ("1 MP", 1024, 1024), ("4 MP", 2048, 2048)]
# Bytes a list holds per pixel, 16-bit elements: depth and amplitude one plane each, the
# point cloud three, the intensity point cloud four.
bytes_per_pixel = {6: 4, 30: 18}
libc = ctypes.CDLL(None)
libc.memcpy.argtypes = [ctypes.c_void_p, ctypes.c_void_p, ctypes.c_size_t]


def memcpy_bytes_per_cpu_second(size):
    """libc memcpy of `size` bytes at a time, each from a buffer not touched since 96 MB of others."""
    sources = [ctypes.create_string_buffer(size) for _ in range(max(2, (96 << 20) // size))]
    for source in sources:
        ctypes.memset(source, 1, size)
    target = ctypes.create_string_buffer(size)
    copied, begin = 0, time.process_time()
    while time.process_time() - begin < 0.5:
        for source in sources:
            libc.memcpy(target, source, size)
            copied += size
    return copied / (time.process_time() - begin)


def main():
    earlier = {}
    if os.path.exists(results_path):
        for line in open(results_path):
            key, _, value = line.strip().partition("=")
            earlier[key] = value
    load = livebench.load_average()
    with open(results_path, "a") as results:
        results.write(f"scale.load={load}\n")
    with tempfile.TemporaryDirectory() as workdir:
        runtime = os.path.join(workdir, "runtime")
        os.mkdir(runtime, 0o700)
        xvfb, display = livebench.start_x_server()
        rows = []
        try:
            for name, width, height in sizes:
                lists = max(10, min(60, (60 * 640 * 480) // (width * height)))
                recording = livebench.record(build, workdir, width, height, lists)
                shell = livebench.Shell(build, f"QRX100A:{width}x{height}@30", workdir, display, runtime)
                shell.command("set log_level 3")
                counts = [0, 0]
                for mask in (6, 30):
                    if mask == 6:
                        livebench.use_replay(shell, recording)
                    else:
                        shell.command("deselect")
                        livebench.use_loop(shell, width, height)
                    copy_rate = memcpy_bytes_per_cpu_second(width * height * bytes_per_pixel[mask])
                    settle = livebench.settle_seconds(width, height) if mask == 30 else 2
                    figures = livebench.measure_windows(shell, mask, seconds, settle, counts)
                    figures["pixels_per_s"] = figures["delivered_per_s"] * width * height
                    figures["memcpy_cpu"] = figures["pixels_per_s"] * bytes_per_pixel[mask] / copy_rate
                    rows.append((name, width, height, mask, figures))
                shell.quit()
                os.remove(recording)
        finally:
            xvfb.terminate()
            xvfb.wait()

    print(f"\nScaling, QRX100A pictures at 30 fps, windows on under Xvfb, {seconds:.0f} s per run "
          "(processor time in % of one core; mask 6 from a replay, mask 30 from the simulated camera's loop):")
    print("| size | mask | lists delivered/s | drawn/s | dropped | processor | memcpy of the same bytes | "
          "delivery to window p50 / p99 | dump writer, mode 3 | mode 3 at 30/s needs |")
    print("|---|---|---|---|---|---|---|---|---|---|")
    with open(results_path, "a") as results:
        for name, width, height, mask, figures in rows:
            writer = earlier.get(f"BM_DumpWriterAtSize/{width}/{height}.writer_MBps")
            need = 30 * (15 + 4 * 4 * width * height) / 1e6
            writer_text = f"{float(writer):.0f} MB/s" if writer else "-"
            print(f"| {name} {width}x{height} | {mask} | {figures['delivered_per_s']:.1f} | "
                  f"{figures['drawn_per_s']:.1f} | {figures['dropped']} | {100 * figures['cpu']:.1f} % | "
                  f"{100 * figures['memcpy_cpu']:.2f} % | {figures['p50_ms']:.1f} / {figures['p99_ms']:.1f} ms | "
                  f"{writer_text} | {need:.0f} MB/s |")
            for key, value in figures.items():
                results.write(f"scale.{width}x{height}.m{mask}.{key}={value:.6g}\n")
    plot(rows, load)


def plot(rows, load):
    figure, axes = plt.subplots(figsize=(8, 5.5), dpi=100)
    for mask, colour in ((6, "tab:blue"), (30, "tab:red")):
        points = sorted((f["pixels_per_s"], f["cpu"], f["memcpy_cpu"], name) for name, _, _, m, f in rows if m == mask)
        xs = [p[0] for p in points]
        axes.plot(xs, [p[1] for p in points], "o-", color=colour, label=f"shell, mask {mask}")
        axes.plot(xs, [p[2] for p in points], "--", color=colour, alpha=0.6,
                  label=f"memcpy of the same bytes ({bytes_per_pixel[mask]} B/pixel)")
        for x, y, _, name in points:
            axes.annotate(name, (x, y), textcoords="offset points", xytext=(5, -12), fontsize=8)
    axes.set_xscale("log")
    axes.set_yscale("log")
    axes.set_xlabel("pixels delivered per second")
    axes.set_ylabel("processor time per second (1 = one core)")
    axes.set_title("Live display cost against picture size (30 fps from a replay and a loop, Xvfb)\n"
                   f"2 cores, load average {load} at the start", fontsize=10)
    axes.grid(True, which="both", alpha=0.3)
    axes.legend(fontsize=8)
    figure.tight_layout()
    figure.savefig(plot_path)


main()
