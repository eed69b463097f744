"""How the shell's cost grows with the picture: the simulated QRX100A at 30 fps at QVGA, VGA,
1 MP and 4 MP, masks 6 and 30, with the windows on under Xvfb. For each run: the shell's
processor time per second, the lists delivered, drawn and dropped per second, the times
from delivery to the window system, and a memcpy of the same bytes per second measured in
the same run (libc's memcpy from buffers not in the cache). Prints a table, appends the
figures as "scale.WxH.mMASK.FIGURE=VALUE" lines to RESULTS_FILE, and plots processor time
against pixels per second, with the memcpy as the line to read it against, into PLOT.
The dump writer's rate at each size comes from RESULTS_FILE (lumora-bench's
BM_DumpWriterAtSize) when it is there. With BENCH_LOG set, the shells' output is appended to
that file.
Usage: scaling.py BUILD_DIR RESULTS_FILE PLOT [SECONDS]"""
import ctypes
import os
import re
import subprocess
import sys
import tempfile
import threading
import time

import matplotlib

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


class Shell:
    """The shell on pipes; its output (the sinks' trace lines among it) is kept, not shown."""

    def __init__(self, devices, display, runtime):
        environment = dict(os.environ, LUMORA_SIM_DEVICES=devices, DISPLAY=display, XDG_RUNTIME_DIR=runtime,
                           QT_XCB_GL_INTEGRATION="none")
        self.process = subprocess.Popen([os.path.join(build, "shell", "lumora-shell")], stdin=subprocess.PIPE,
                                        stdout=subprocess.PIPE, stderr=subprocess.STDOUT, env=environment,
                                        cwd=runtime)
        self.output = []
        threading.Thread(target=lambda: [self.output.append(line.decode(errors="replace"))
                                         for line in self.process.stdout], daemon=True).start()

    def say(self, line):
        try:
            self.process.stdin.write((line + "\n").encode())
            self.process.stdin.flush()
        except BrokenPipeError:
            raise RuntimeError(f"the shell ended ({self.process.wait()}); its last lines:\n" +
                               "".join(self.output[-20:])) from None

    def wait_for(self, pattern, after, timeout=30):
        """The first match of `pattern` in the lines from `after` on, in whatever order they came."""
        deadline = time.time() + timeout
        while time.time() < deadline:
            for line in self.output[after:]:
                found = re.search(pattern, line)
                if found:
                    return found
            time.sleep(0.05)
        raise RuntimeError(f"no {pattern!r} from the shell; its last lines:\n" + "".join(self.output[-20:]))

    def cpu_seconds(self):
        fields = open(f"/proc/{self.process.pid}/stat").read().rsplit(")", 1)[1].split()
        return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")


def start_x_server():
    """An X server of our own that answers; (process, display name). Tries three times."""
    log = open(os.environ.get("BENCH_LOG", os.devnull), "a")
    for _ in range(3):
        read_end, write_end = os.pipe()
        # -noreset: the server would otherwise reset whenever its last client leaves, and a
        # client that connects meanwhile (the shell's check for a display is one) loses it.
        xvfb = subprocess.Popen(["Xvfb", "-displayfd", str(write_end), "-screen", "0", "4200x2200x24", "-nolisten",
                                 "tcp", "-noreset"], pass_fds=[write_end], stderr=log)
        os.close(write_end)
        display = ":" + os.read(read_end, 16).decode().strip()
        os.close(read_end)
        # The shell decides once whether there is a display: the server must answer first.
        deadline = time.time() + 20
        while xvfb.poll() is None and time.time() < deadline:
            if subprocess.run(["xdpyinfo", "-display", display], stdout=subprocess.DEVNULL,
                              stderr=log).returncode == 0:
                return xvfb, display
            time.sleep(0.2)
        xvfb.terminate()
        xvfb.wait()
    raise RuntimeError("no X server answered (see the bench log)")


def measure(shell, mask, counts):
    """One run of `mask`; `counts` holds the renderer's totals so far and is brought up to date."""
    mark = len(shell.output)
    shell.say(f"run {mask}")
    shell.wait_for(r"-> result : success", mark)
    began = time.time()
    time.sleep(2)
    c0, t0 = shell.cpu_seconds(), time.time()
    time.sleep(seconds)
    cpu = (shell.cpu_seconds() - c0) / (time.time() - t0)
    mark = len(shell.output)
    shell.say("stop")
    # The renderer logs from its own thread, before or after the result line.
    shell.wait_for(r"-> result : success", mark)
    drawn, dropped = map(int, shell.wait_for(r": ([0-9]+) lists drawn, ([0-9]+) dropped", mark).groups())
    latency = shell.wait_for(r"delivery to the window system p50 ([0-9.]+) ms p99 ([0-9.]+) ms", mark)
    span = time.time() - began
    figures = {"cpu": cpu, "drawn_per_s": (drawn - counts[0]) / span, "dropped": dropped - counts[1],
               "delivered_per_s": (drawn - counts[0] + dropped - counts[1]) / span,
               "p50_ms": float(latency.group(1)), "p99_ms": float(latency.group(2))}
    counts[:] = [drawn, dropped]
    return figures


def main():
    earlier = {}
    if os.path.exists(results_path):
        for line in open(results_path):
            key, _, value = line.strip().partition("=")
            earlier[key] = value
    load = " ".join(open("/proc/loadavg").read().split()[:3])
    with open(results_path, "a") as results:
        results.write(f"scale.load={load}\n")
    with tempfile.TemporaryDirectory() as workdir:
        runtime = os.path.join(workdir, "runtime")
        os.mkdir(runtime, 0o700)
        xvfb, display = start_x_server()
        rows = []
        try:
            for name, width, height in sizes:
                shell = Shell(f"QRX100A:{width}x{height}@30", display, runtime)
                mark = len(shell.output)
                for line in ("set log_level 3", "search", "select 0"):
                    shell.say(line)
                shell.wait_for(r"selected device", mark)
                counts = [0, 0]
                for mask in (6, 30):
                    copy_rate = memcpy_bytes_per_cpu_second(width * height * bytes_per_pixel[mask])
                    figures = measure(shell, mask, counts)
                    figures["pixels_per_s"] = figures["delivered_per_s"] * width * height
                    figures["memcpy_cpu"] = figures["pixels_per_s"] * bytes_per_pixel[mask] / copy_rate
                    rows.append((name, width, height, mask, figures))
                shell.say("quit")
                shell.process.wait(20)
                if os.environ.get("BENCH_LOG"):
                    with open(os.environ["BENCH_LOG"], "a") as log:
                        log.writelines(shell.output)
        finally:
            xvfb.terminate()
            xvfb.wait()

    print(f"\nScaling, the simulated QRX100A at 30 fps, windows on under Xvfb, {seconds:.0f} s per run "
          "(processor time in % of one core; the shell's includes the simulated library's rendering):")
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
    axes.set_title("Live display cost against picture size (simulated camera at 30 fps, Xvfb)\n"
                   f"2 cores, load average {load} at the start", fontsize=10)
    axes.grid(True, which="both", alpha=0.3)
    axes.legend(fontsize=8)
    figure.tight_layout()
    figure.savefig(plot_path)


main()
