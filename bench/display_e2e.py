"""End-to-end cost of the live display, VGA at 30 fps with the windows on under Xvfb, SECONDS
per run: mask 6 from a replay of a mode-1 recording and mask 30 from the simulated camera's
loop (bench/livebench.py), beside a bare program that only shows three windows at 30 fps
under the same X server in the same run. Prints a table; with RESULTS_FILE, appends the
figures as "display.FIGURE=VALUE" lines for bench/table.py; with BENCH_LOG set, appends the
shell's output to that file.
Usage: display_e2e.py BUILD_DIR [SECONDS] [RESULTS_FILE]"""
import os
import re
import resource
import subprocess
import sys
import tempfile

import livebench

build = os.path.abspath(sys.argv[1] if len(sys.argv) > 1 else "build")
seconds = float(sys.argv[2]) if len(sys.argv) > 2 else 60
results_path = sys.argv[3] if len(sys.argv) > 3 else os.devnull
with open(results_path, "a") as results:
    results.write(f"display.load={livebench.load_average()}\n")

with tempfile.TemporaryDirectory() as workdir:
    recording = livebench.record(build, workdir, 640, 480, 60)
    runtime = os.path.join(workdir, "runtime")
    os.mkdir(runtime, 0o700)
    xvfb, display = livebench.start_x_server()
    try:
        environment = dict(os.environ, DISPLAY=display, XDG_RUNTIME_DIR=runtime, QT_XCB_GL_INTEGRATION="none")
        before = resource.getrusage(resource.RUSAGE_CHILDREN)
        bare = subprocess.run([os.path.join(build, "bench", "lumora-bare-imshow"), str(int(seconds))],
                              env=environment, check=True, stdout=subprocess.PIPE, text=True).stdout
        after = resource.getrusage(resource.RUSAGE_CHILDREN)
        bare_cpu = 100 * (after.ru_utime + after.ru_stime - before.ru_utime - before.ru_stime) / seconds
        bare_p50, bare_p99 = map(float, re.search(r"imshow p50 ([0-9.]+) ms p99 ([0-9.]+) ms", bare).groups())

        shell = livebench.Shell(build, "QRX100A", workdir, display, runtime)
        shell.command("set log_level 3")
        counts = [0, 0]
        livebench.use_replay(shell, recording)
        # Qt opens the shell's first windows once, slowly: that run is its own figure, and the
        # minutes measured are those of a shell whose windows have been opened before.
        first = livebench.measure_windows(shell, 6, 2, 1, counts)
        m6 = livebench.measure_windows(shell, 6, seconds, 3, counts)
        shell.command("deselect")
        livebench.use_loop(shell, 640, 480)
        m30 = livebench.measure_windows(shell, 30, seconds, livebench.settle_seconds(640, 480), counts)
        shell.quit()
    finally:
        xvfb.terminate()
        xvfb.wait()

print(f"\nDisplay end to end, VGA at 30 fps under Xvfb, {seconds:.0f} s per run (processor time in % of one core; "
      "mask 6 from a replay, mask 30 from the simulated camera's loop):")
print("| run | processor | lists drawn/s | dropped | frame-rate text | delivery to window p50 / p99 |")
print("|---|---|---|---|---|---|")
print(f"| bare imshow loop, 3 windows | {bare_cpu:.1f} % | 30 | - | - | {bare_p50} / {bare_p99} ms |")
for name, figures in (("shell, mask 6, first windows (2 s)", first), ("shell, mask 6", m6),
                      ("shell, mask 30 (six windows)", m30)):
    print(f"| {name} | {100 * figures['cpu']:.1f} % | {figures['drawn_per_s']:.2f} | {figures['dropped']} | "
          f"{figures['fps']:.2f} | {figures['p50_ms']:.2f} / {figures['p99_ms']:.2f} ms |")
with open(results_path, "a") as results:
    results.write(f"display.bare_cpu={bare_cpu:.2f}\ndisplay.bare_p50_ms={bare_p50}\ndisplay.bare_p99_ms={bare_p99}\n")
    for name, figures in (("first", first), ("m6", m6), ("m30", m30)):
        for key, value in figures.items():
            results.write(f"display.{name}.{key}={100 * value if key == 'cpu' else value:.6g}\n")
