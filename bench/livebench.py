"""What the live display's and the web view's benches share: the shell on pipes, an X server
of their own, the machine's load, and cameras that deliver without rendering each list:

- mask 6 (depth and amplitude) from a replay device playing a recording of mode 1, made first
  by the same shell's dump from a simulated camera that delivers a loop (below) at 30 fps;
- masks with point clouds from the simulated camera with `sim_loop`: it renders a short loop
  of lists once and then delivers it again, restamped, at the frame rate.

So the shell's figures are the shell's: a real camera costs the host nothing for its scene.
The simulated library's own cost of rendering is measured apart (lumora-bench)."""
import os
import re
import struct
import subprocess
import sys
import threading
import time

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "tests", "e2e"))
import dumpfile  # noqa: E402

# A machine whose 1-minute load average is at least this at the start of a part is not quiet:
# the part's figures of time and rate are reported, not judged.
QUIET_LOAD = 1.5


def load_average():
    return " ".join(open("/proc/loadavg").read().split()[:3])


class Shell:
    """The shell on pipes; its output (the sinks' trace lines among it) is kept, not shown.
    `display`: the X display for its windows, or None for none."""

    def __init__(self, build, devices, cwd, display=None, runtime=None):
        environment = {k: v for k, v in os.environ.items() if k != "DISPLAY"}
        environment["LUMORA_SIM_DEVICES"] = devices
        if display:
            environment.update(DISPLAY=display, XDG_RUNTIME_DIR=runtime, QT_XCB_GL_INTEGRATION="none")
        self.process = subprocess.Popen([os.path.join(build, "shell", "lumora-shell")], stdin=subprocess.PIPE,
                                        stdout=subprocess.PIPE, stderr=subprocess.STDOUT, env=environment, cwd=cwd)
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

    def wait_for(self, pattern, after, timeout=60):
        """The first match of `pattern` in the lines from `after` on, in whatever order they came."""
        deadline = time.time() + timeout
        while time.time() < deadline:
            for line in self.output[after:]:
                found = re.search(pattern, line)
                if found:
                    return found
            time.sleep(0.05)
        raise RuntimeError(f"no {pattern!r} from the shell; its last lines:\n" + "".join(self.output[-20:]))

    def command(self, line, answer=r"-> result : success", timeout=60):
        mark = len(self.output)
        self.say(line)
        return self.wait_for(answer, mark, timeout)

    def cpu_seconds(self):
        return tree_cpu_seconds(self.process.pid)

    def quit(self):
        self.say("quit")
        self.process.wait(30)
        if os.environ.get("BENCH_LOG"):
            with open(os.environ["BENCH_LOG"], "a") as log:
                log.writelines(self.output)


def tree_cpu_seconds(root):
    """Processor seconds of process `root` and its descendants (a browser's, say); those of
    processes that have ended are not counted."""
    parents, used = {}, {}
    for entry in os.listdir("/proc"):
        if not entry.isdigit():
            continue
        try:
            fields = open(f"/proc/{entry}/stat").read().rsplit(")", 1)[1].split()
        except OSError:
            continue
        parents[int(entry)] = int(fields[1])
        used[int(entry)] = (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")
    total = 0.0
    for pid, seconds in used.items():
        ancestor = pid
        while ancestor not in (0, 1, root) and ancestor in parents:
            ancestor = parents[ancestor]
        if ancestor == root:
            total += seconds
    return total


def loop_length(width, height):
    """Lists in the simulated camera's loop: 30, fewer for large pictures, whose rendering at
    the start of each run is slow and whose loop is held in memory."""
    return max(4, min(30, (30 * 640 * 480) // (width * height)))


def settle_seconds(width, height):
    """Time after `run` for the loop to be rendered and the delivery to be steady."""
    return 2 + 0.3 * loop_length(width, height) * (width * height) / (1024 * 1024)


def even_out(path):
    """Restamps the records of a dump 1/30 s apart from the first: a list the camera dropped
    while the dump was written (at 4 MP the writer keeps both cores busy) would otherwise
    leave a double interval, which a replay plays as recorded."""
    dump = dumpfile.Dump(path)
    first = dump.records[0].timestamp
    with open(path, "r+b") as file:
        offset = dumpfile.HEAD_BYTES
        for number, record in enumerate(dump.records):
            file.seek(offset + dumpfile.RECORD_HEADER_BYTES - 8)
            file.write(struct.pack("<Q", first + round(number * 1e6 / 30)))
            offset += dumpfile.RECORD_HEADER_BYTES + len(record.line) + len(record.blocks)


def record(build, workdir, width, height, lists):
    """A mode-1 recording of `lists` lists of a simulated QRX100A of this size at 30 fps,
    dumped by the shell with no display while the camera delivers a loop, and evened out.
    Tried three times until `lmr info` finds it whole with no list skipped; returns its path."""
    for _ in range(3):
        before = set(os.listdir(workdir))
        shell = Shell(build, f"QRX100A:{width}x{height}@30", workdir)
        shell.say("search")
        shell.command("select 0", r"selected device")
        shell.command(f"set sim_loop {loop_length(width, height)}")
        shell.command("run 6")
        time.sleep(settle_seconds(width, height))
        shell.command(f"set frame_dump 1 {lists}", r"Frame dump finished!", timeout=120)
        shell.command("stop")
        shell.quit()
        made = sorted(set(os.listdir(workdir)) - before)
        if not made:
            continue
        path = os.path.join(workdir, made[-1])
        even_out(path)
        info = subprocess.run([os.path.join(build, "lmr", "lmr"), "info", path], stdout=subprocess.PIPE,
                              stderr=subprocess.STDOUT, text=True)
        if info.returncode == 0:
            return path
        os.remove(path)
    raise RuntimeError(f"no whole {width}x{height} recording in three tries")


def use_replay(shell, path):
    """Attaches the recording as a replay device and selects it."""
    attached = shell.command(f"set sim_attach replay:{path}", r"onAttachedLumoraSource\((replay:[0-9]+)\)")
    mark = len(shell.output)
    shell.say("search")
    index = shell.wait_for(r"([0-9]+)\) source name : .*uri : " + re.escape(attached.group(1)), mark).group(1)
    shell.command(f"select {index}", r"selected device")


def use_loop(shell, width, height):
    """Selects the simulated camera (device 0) and makes it deliver a loop."""
    mark = len(shell.output)
    shell.say("search")
    shell.wait_for(r"0\) source name", mark)
    shell.command("select 0", r"selected device")
    shell.command(f"set sim_loop {loop_length(width, height)}")


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
        # The server writes the number and the newline apart: the pipe stays open until the
        # newline, since a server whose second write fails ends at once.
        number = b""
        while not number.endswith(b"\n"):
            piece = os.read(read_end, 16)
            if not piece:
                break
            number += piece
        os.close(read_end)
        display = ":" + number.decode().strip()
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


def measure_windows(shell, mask, seconds, settle, counts):
    """One run of `mask` with the windows on: the shell's processor time per second over
    `seconds` after `settle` s, the lists drawn and delivered per second (from the first
    list's delivery to the last's) and dropped at the renderer's queue over the whole run, its
    delivery-to-window times, and the lists that waited for the windows to open with the
    longest of their times. `counts` holds the renderer's totals so far (drawn, dropped) and
    is brought up to date."""
    mark = len(shell.output)
    shell.say(f"run {mask}")
    shell.wait_for(r"-> result : success", mark)
    time.sleep(settle)
    c0, t0 = shell.cpu_seconds(), time.time()
    time.sleep(seconds)
    cpu = (shell.cpu_seconds() - c0) / (time.time() - t0)
    mark = len(shell.output)
    shell.say("stop")
    # The renderer logs from its own thread, before or after the result line.
    shell.wait_for(r"-> result : success", mark)
    found = shell.wait_for(r": ([0-9]+) lists drawn, ([0-9]+) dropped at the queue, fps : ([0-9.]+).*this run drew "
                           r"([0-9]+), delivered over ([0-9.]+) s", mark)
    drawn, dropped = int(found.group(1)), int(found.group(2))
    # Rates over the time the run's lists were delivered (the first list of a large replay or
    # loop comes a while after `run`), counting intervals between lists.
    run_drawn, delivering = int(found.group(4)), float(found.group(5))
    latency = shell.wait_for(r"delivery to the window system p50 ([0-9.]+) ms p99 ([0-9.]+) ms over [0-9]+ lists "
                             r"drawn in windows; ([0-9]+) lists waited for the windows to open, the longest "
                             r"([0-9.]+) ms", mark)
    intervals, span = max(run_drawn - 1, 0), max(delivering, 1e-6)
    figures = {"cpu": cpu, "drawn_per_s": intervals / span, "dropped": dropped - counts[1],
               "delivered_per_s": (intervals + dropped - counts[1]) / span, "fps": float(found.group(3)),
               "p50_ms": float(latency.group(1)), "p99_ms": float(latency.group(2)),
               "waited_for_windows": int(latency.group(3)), "opening_ms": float(latency.group(4))}
    counts[:] = [drawn, dropped]
    return figures
