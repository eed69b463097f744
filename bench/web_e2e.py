"""End-to-end cost of the web view: the shell streaming VGA lists at 30 fps with no display,
mask 6 from a replay of a mode-1 recording and mask 30 from the simulated camera's loop
(bench/livebench.py), each first with the web view off, then on with one watcher (headless
chromium), then (mask 6) with Measure on in that watcher (the depth quality of its ROI over the
last 30 lists, once a second) and off again (Measure's cost is against the mean of the figures
before and after it, so that a drift of the machine's load cancels), then with a second watcher
beside it.
Prints a table; with RESULTS_FILE,
appends the figures as "web.FIGURE=VALUE" lines for bench/table.py; with BENCH_LOG set,
appends the shell's output to that file.
Usage: web_e2e.py BUILD_DIR [SECONDS] [RESULTS_FILE]"""
import json
import os
import sys
import tempfile
import threading
import time

import livebench

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "tests", "e2e"))
import websocket  # noqa: E402
from browser import Browser  # noqa: E402

build = os.path.abspath(sys.argv[1] if len(sys.argv) > 1 else "build")
seconds = float(sys.argv[2]) if len(sys.argv) > 2 else 20
results_path = sys.argv[3] if len(sys.argv) > 3 else os.devnull
with open(results_path, "a") as results:
    results.write(f"web.load={livebench.load_average()}\n")
port = 20000 + os.getpid() % 20000


def cpu_percent(*processes):
    """The processor time of each of `processes` (its pid, with its descendants) in % of one
    core over `seconds`."""
    before = [livebench.tree_cpu_seconds(pid) for pid in processes]
    time.sleep(seconds)
    return [100 * (livebench.tree_cpu_seconds(pid) - b) / seconds for pid, b in zip(processes, before)]


def second_watcher(url, stop, counted):
    ws = websocket.create_connection(url.replace("http://", "ws://").replace("/?", "/ws?"), timeout=10)
    while not stop.is_set():
        counted[0] += len(ws.recv())
    ws.close()


rows = []
with tempfile.TemporaryDirectory() as workdir:
    recording = livebench.record(build, workdir, 640, 480, 60)
    shell = livebench.Shell(build, "QRX100A", workdir)
    shell.command("set log_level 3")
    shell.command(f"set web_port {port}")
    livebench.use_replay(shell, recording)
    with Browser() as browser:
        drawn_before = 0  # the renderer counts the lists of every run of the shell
        for mask in (6, 30):
            if mask == 30:
                shell.command("deselect")
                livebench.use_loop(shell, 640, 480)
            shell.command(f"run {mask}")
            run_began = time.time()
            time.sleep(livebench.settle_seconds(640, 480))
            off, = cpu_percent(shell.process.pid)
            url = shell.command("set web_view on", r"web view: (http://\S+)").group(1)
            browser.open(url)
            browser.wait("lumora.pictures[1] >= 30", "no pictures in the page")
            time.sleep(2)
            before = browser.evaluate("JSON.stringify([lumora.pictures, lumora.bytes, performance.now()])")
            on, browser_cpu = cpu_percent(shell.process.pid, browser.process.pid)
            after = browser.evaluate("[lumora.pictures, lumora.bytes, performance.now(), lumora.decodeMs.slice(-300)]")
            p0, b0, t0 = json.loads(before)
            p1, b1, t1, decode = after
            span = (t1 - t0) / 1000
            rates = {view: (p1[view] - p0.get(view, 0)) / span for view in p1}
            bytes_rate = (b1 - b0) / span
            decode.sort()
            page_decode_p99 = decode[int(0.99 * (len(decode) - 1))] if decode else 0
            two = measuring = None
            if mask == 6:
                browser.evaluate("document.getElementById('measure-toggle').click()")
                browser.wait("lumora.quality && lumora.quality.lists === lumora.quality.window",
                             "no figures of a full window in the page", 60)
                measuring, = cpu_percent(shell.process.pid)
                browser.evaluate("document.getElementById('measure-toggle').click()")
                time.sleep(1)
                measure_off = (on + cpu_percent(shell.process.pid)[0]) / 2
                stop, counted = threading.Event(), [0]
                thread = threading.Thread(target=second_watcher, args=(url, stop, counted))
                thread.start()
                time.sleep(2)
                two, = cpu_percent(shell.process.pid)
                stop.set()
                thread.join()
            stats = shell.command("set web_view off", r"delivery to socket p50 ([0-9.]+) ms p99 ([0-9.]+) ms, to "
                                  r"decoded in the page p50 ([0-9.]+) ms p99 ([0-9.]+) ms; written to decoded in "
                                  r"the page p50 ([0-9.]+) ms p99 ([0-9.]+) ms")
            mark = len(shell.output)
            shell.say("stop")
            # The renderer's count comes from its own thread, before or after the result line.
            shell.wait_for(r"-> result : success", mark)
            drawn = int(shell.wait_for(r": ([0-9]+) lists drawn", mark).group(1))
            rows.append((mask, off, on, (measuring, measure_off) if measuring is not None else None, two, rates,
                         bytes_rate, stats.groups(), page_decode_p99,
                         (drawn - drawn_before) / (time.time() - run_began), browser_cpu))
            drawn_before = drawn
    shell.quit()

names = {"1": "Depth", "2": "Amplitude", "3": "PCL-Depth", "4": "IPCL-Depth", "5": "IPCL-Amplitude"}
print(f"\nWeb view end to end, VGA at 30 fps, no display, {seconds:.0f} s per figure "
      f"(processor time of the shell in % of one core; mask 6 from a replay, mask 30 from the simulated camera's "
      f"loop):")
print("| mask | off | on, 1 watcher | with Measure (against off before and after) | + 2nd watcher | pictures/s per view | bytes/s per watcher | "
      "delivery to socket p50 / p99 | delivery to page decoded p50 / p99 | written to page decoded p50 / p99 | "
      "decode in page p99 | browser's processor |")
print("|---|---|---|---|---|---|---|---|---|---|---|---|")
results = open(results_path, "a")
for mask, off, on, measuring, two, rates, bytes_rate, stats, page_p99, drawn_rate, browser_cpu in rows:
    views = ", ".join(f"{names[v]} {r:.1f}" for v, r in sorted(rates.items()))
    extra = f"{two:.1f} ({two - on:+.1f})" if two is not None else "-"
    measured = f"{measuring[0]:.1f} ({measuring[0] - measuring[1]:+.1f})" if measuring is not None else "-"
    print(f"| {mask} | {off:.1f} | {on:.1f} ({on - off:+.1f}) | {measured} | {extra} | {views} | "
          f"{bytes_rate / 1e6:.2f} MB/s | {stats[0]} / {stats[1]} ms | {stats[2]} / {stats[3]} ms | "
          f"{stats[4]} / {stats[5]} ms | {page_p99:.1f} ms | {browser_cpu:.0f} % |")
    key = f"web.m{mask}"
    results.write(f"{key}.cpu_off={off:.2f}\n{key}.cpu_on={on:.2f}\n{key}.lists_per_s={drawn_rate:.2f}\n"
                  f"{key}.pictures_per_s_min={min(rates.get(v, 0) for v in ('1', '2')):.2f}\n"
                  f"{key}.socket_p99_ms={stats[1]}\n{key}.decoded_p99_ms={stats[3]}\n"
                  f"{key}.in_page_p99_ms={stats[5]}\n{key}.browser_cpu={browser_cpu:.1f}\n")
    if mask == 30:
        results.write(f"{key}.cloud_pictures_per_s_min={min(rates.get(v, 0) for v in ('3', '4', '5')):.2f}\n")
    if two is not None:
        results.write(f"{key}.cpu_two={two:.2f}\n")
    if measuring is not None:
        results.write(f"{key}.cpu_measure={measuring[0]:.2f}\n{key}.cpu_measure_off={measuring[1]:.2f}\n")
results.close()
