"""The Python module's figures, each beside a baseline measured in the same run:
- the simulated VGA QRX100A at 30 fps, mask 30, streamed for SECONDS into a Python loop that
  reads one value of each array: the lists dropped at the module's queue, and the sink's
  processor time on the delivery thread per list against a memcpy of the list's bytes;
- every record of a 300-record VGA mode-1 dump read and each depth array summed, against
  numpy.fromfile of the same file with the same sums (the better of three runs each);
- `import lumora` in a fresh interpreter, beside `import numpy` (the median of five).
Prints them; with RESULTS_FILE, appends them as "python.FIGURE=VALUE" lines for bench/table.py.
Usage: python_bench.py BUILD_DIR [SECONDS] [RESULTS_FILE]"""

import ctypes
import os
import statistics
import struct
import subprocess
import sys
import time

build = os.path.abspath(sys.argv[1] if len(sys.argv) > 1 else "build")
seconds = float(sys.argv[2]) if len(sys.argv) > 2 else 60
results_path = sys.argv[3] if len(sys.argv) > 3 else os.devnull
os.environ["LUMORA_SIM_DEVICES"] = "QRX100A"
sys.path.insert(0, os.path.join(build, "python"))
import numpy as np  # noqa: E402

import lumora  # noqa: E402

figures = {"load": " ".join(open("/proc/loadavg").read().split()[:3])}


def memcpy_seconds(size, ring=8, repeats=64):
    """Processor time of a memcpy of `size` bytes, cycling through `ring` sources and targets
    so that, as for the sink, neither was just copied."""
    sources = [np.full(size, i, np.uint8) for i in range(ring)]
    targets = [np.zeros(size, np.uint8) for _ in range(ring)]
    times = []
    for i in range(repeats):
        start = time.thread_time()
        ctypes.memmove(targets[i % ring].ctypes.data, sources[i % ring].ctypes.data, size)
        times.append(time.thread_time() - start)
    return statistics.median(times)


def stream():
    with lumora.open(0) as cam:
        cam.start(30)
        lists = dropped = 0
        end = time.monotonic() + seconds
        for frames in cam.frames(timeout=5):
            _ = (frames.depth[240, 320], frames.amplitude[240, 320], frames.point_cloud[240, 320, 2],
                 frames.intensity_point_cloud[240, 320, 3])
            lists, dropped = lists + 1, dropped + frames.dropped
            size = sum(getattr(frames, name).nbytes for name in
                       ("depth", "amplitude", "point_cloud", "intensity_point_cloud"))
            if time.monotonic() >= end:
                break
        copied, spent = cam._sink_cost
    figures.update(stream_lists=lists, stream_dropped=dropped, sink_ms=1e3 * spent / copied,
                   memcpy_ms=1e3 * memcpy_seconds(size), list_bytes=size)


def dump_file(path, records=300, width=640, height=480):
    rng = np.random.default_rng(1)
    head = struct.pack("<HBHH", 0xDF, 1, records, 1) + struct.pack("<H8s", 1, b"sim") + struct.pack(
        "<HH12s20s16s", 2, 0x312, b"2.3.0", b"LM0536240000", b"QRX100A")
    blocks = rng.integers(0, 7000, (2, height, width), dtype=np.uint16).tobytes()
    with open(path, "wb") as out:
        out.write(head)
        for i in range(records):
            out.write(struct.pack("<BHHHQ", i % 256, width, height, 2, 33333 * i) + bytes(width) + blocks)


def read_dump(path):
    total = 0
    for record in lumora.Dump(path):
        total += int(record.depth.sum(dtype=np.uint64))
    return total


def read_fromfile(path, width=640, height=480):
    data = np.fromfile(path, dtype=np.uint8)
    record, block = 15 + width + 4 * width * height, 2 * width * height
    total = 0
    for offset in range(69 + 15 + width, len(data), record):
        total += int(data[offset:offset + block].view("<u2").sum(dtype=np.uint64))
    return total


def best_of(read, path, runs=3):
    times = []
    for _ in range(runs):
        start = time.perf_counter()
        total = read(path)
        times.append(time.perf_counter() - start)
    return min(times), total


def dumps():
    path = os.path.join(build, "bench-python.lmr")
    dump_file(path)
    try:
        lumora_s, lumora_total = best_of(read_dump, path)
        numpy_s, numpy_total = best_of(read_fromfile, path)
        assert lumora_total == numpy_total, (lumora_total, numpy_total)
    finally:
        os.remove(path)
    figures.update(dump_lumora_s=lumora_s, dump_fromfile_s=numpy_s)


def import_ms(module):
    code = f"import time; t = time.perf_counter(); import {module}; print(time.perf_counter() - t)"
    env = dict(os.environ, PYTHONPATH=os.path.join(build, "python"))
    return 1e3 * statistics.median(
        float(subprocess.run(["/usr/bin/python3", "-c", code], env=env, capture_output=True, text=True,
                             check=True).stdout) for _ in range(5))


stream()
dumps()
figures.update(import_ms=import_ms("lumora"), numpy_import_ms=import_ms("numpy"))
with open(results_path, "a") as results:
    for key, value in figures.items():
        results.write(f"python.{key}={value}\n")
print(f"python: {figures['stream_lists']} VGA mask-30 lists in {seconds:.0f} s, {figures['stream_dropped']} dropped; "
      f"sink {figures['sink_ms']:.2f} ms per list, memcpy of its {figures['list_bytes']} bytes "
      f"{figures['memcpy_ms']:.2f} ms; 300-record dump {figures['dump_lumora_s']:.3f} s, numpy.fromfile "
      f"{figures['dump_fromfile_s']:.3f} s; import lumora {figures['import_ms']:.0f} ms, numpy "
      f"{figures['numpy_import_ms']:.0f} ms (load {figures['load']})")
