"""lumora against the simulated cameras: the walk, every mask in both data types, result
codes, keeping lists, two cameras at once, a stalled camera and Ctrl-C during a wait."""

import ast
import signal
import subprocess
import sys
import time
from pathlib import Path

import numpy as np
import pytest

import lumora

SMALL = "sim:2"  # LUMORA_SIM_DEVICES (tests/python/CMakeLists.txt): QRX100A:32x24@120
FLOAT_TYPES = {"depth_data_type": 8, "pointcloud_data_type": 8}
INT_TYPES = {"depth_data_type": 5, "pointcloud_data_type": 5}


def test_walk_every_mask_and_data_type():
    assert all(isinstance(part, str) and part for part in lumora.version())
    sources = lumora.sources()
    assert [s.index for s in sources] == list(range(len(sources)))
    with lumora.open(sources[0].uri) as cam:
        assert (cam.name, cam.serial, cam.uri) == sources[0][1:]
        cam.set("framerate", 15)
        assert cam.get("framerate") == 15 and cam.properties("settings")["framerate"] == 15
        assert isinstance(cam.get("temperature"), float)
        assert cam.properties("fw_info")["fw_version"] > 0
        calibration = cam.calibration()
        assert calibration.fx > 0 and calibration.cx > 0 and calibration.fov.horizontal == 70
        cam.start(lumora.DEPTH | lumora.AMPLITUDE)
        assert cam.state == lumora.State.RUNNING
        frames = next(iter(cam.frames()))
        assert frames.depth.shape == (480, 640) and frames.depth.dtype == np.uint16
        assert not frames.depth.flags.writeable
        cam.stop()
    assert cam.state == lumora.State.NOT_PREPARED

    names = [(lumora.DEPTH, "depth", 2), (lumora.AMPLITUDE, "amplitude", 2),
             (lumora.POINT_CLOUD, "point_cloud", 3), (lumora.INTENSITY_POINT_CLOUD, "intensity_point_cloud", 4)]
    with lumora.open(1) as cam:
        for types, image, cloud in [(INT_TYPES, np.uint16, np.int16), (FLOAT_TYPES, np.float32, np.float32)]:
            cam.set_properties("settings", types)
            for mask in range(2, 32, 2):
                cam.start(mask)
                frames = next(iter(cam.frames()))
                cam.stop()
                for bit, name, dims in names:
                    array = getattr(frames, name)
                    if not mask & bit:
                        assert array is None, (mask, name)
                        continue
                    assert array.shape == (240, 320) + ((dims,) if dims > 2 else ()), (mask, name)
                    assert array.dtype == (image if dims == 2 else cloud), (mask, name)
                if mask == 30:
                    depth = frames.depth.astype(np.float64)
                    for name in ("point_cloud", "intensity_point_cloud"):
                        z = getattr(frames, name)[..., 2].astype(np.float64) * (1000 if cloud == np.float32 else 1)
                        seen = depth > 0
                        assert seen.mean() > 0.5
                        assert np.abs(z[seen] - depth[seen]).max() <= 1.0, name


def test_result_codes_raise_lumora_error():
    def code_of(call, *args):
        with pytest.raises(lumora.Error) as raised:
            call(*args)
        assert isinstance(raised.value, RuntimeError)
        return raised.value.code, str(raised.value)

    assert code_of(lumora.open, "sim:99") == (4, "not found (4)")
    assert code_of(lumora.set, "sim_fault", "0:nonsense") == (11, "invalid parameter (11)")
    with lumora.open(0) as cam:
        assert code_of(cam.set, "framerate", "fast") == (11, "invalid parameter (11)")
        assert code_of(cam.set, "no_such_key", 1) == (7, "not supported (7)")
        assert code_of(cam.set, "width", 10) == (12, "invalid operation (12)")
        assert code_of(cam.set, "framerate", 1000) == (16, "out of range (16)")
        assert code_of(cam.calibration, 5) == (16, "out of range (16)")
        assert code_of(lumora.open, 0) == (18, "already opened (18)")
        assert code_of(cam.frames) == (12, "invalid operation (12)")
        with pytest.raises(TypeError):
            cam.set("framerate", [15])
    assert code_of(cam.get, "framerate") == (12, "invalid operation (12)")


def test_kept_lists_two_cameras_and_a_stall():
    with lumora.open(SMALL) as cam, lumora.open(1) as other:
        cam.set("embedded_data_line", True)
        cam.start(30)
        other.start()
        kept, sums, order = [], [], []
        their = other.frames(count=3, timeout=10)
        for frames in cam.frames(count=500, timeout=10):
            if len(kept) % 200 == 0:
                assert next(their).depth.shape == (240, 320)
            sums.append((int(frames.depth.sum()), frames.embedded_line))
            order.append((frames.index, frames.dropped))
            # Every second list is kept whole, of the others only the depth array.
            kept.append(frames if len(kept) % 2 == 0 else (frames.depth, frames.embedded_line))
        # Each list is its own copy, and an array keeps it: the first ones are unchanged, and
        # nothing held stops the stream.
        assert [(int(k.depth.sum()), k.embedded_line) if i % 2 == 0 else (int(k[0].sum()), k[1])
                for i, k in enumerate(kept)] == sums
        assert len({line for _, line in sums}) == 500
        assert all(b - a - 1 == dropped for (a, _), (b, dropped) in zip(order, order[1:]))

        stream = cam.frames(timeout=0.5)
        next(stream)
        lumora.set("sim_fault", SMALL.split(":")[1] + ":stall:3000")
        with pytest.raises(TimeoutError):
            for _ in stream:
                pass


CHILD = """
import signal, sys, time
import lumora
signal.signal(signal.SIGINT, signal.default_int_handler)
with lumora.open(0) as cam:
    cam.start()
    lumora.set('sim_fault', '0:stall:60000')
    print('waiting', flush=True)
    try:
        for frames in cam.frames(timeout=None):
            pass
    except KeyboardInterrupt:
        print('interrupted', time.monotonic(), flush=True)
print('closed', int(cam.state), flush=True)
"""


def test_ctrl_c_ends_a_wait():
    child = subprocess.Popen([sys.executable, "-c", CHILD], stdout=subprocess.PIPE, text=True)
    assert child.stdout.readline() == "waiting\n"
    time.sleep(0.3)
    sent = time.monotonic()
    child.send_signal(signal.SIGINT)
    interrupted = child.stdout.readline().split()
    assert interrupted[0] == "interrupted" and float(interrupted[1]) - sent < 1.0
    assert child.stdout.readline() == "closed 0\n"
    assert child.wait(timeout=30) == 0


def test_the_stub_names_what_the_module_has():
    stub = ast.parse((Path(lumora.__file__).parent / "__init__.pyi").read_text())
    for node in stub.body:
        if isinstance(node, (ast.ClassDef, ast.FunctionDef)):
            assert hasattr(lumora, node.name), node.name
        if isinstance(node, ast.ClassDef):
            for member in node.body:
                if isinstance(member, ast.FunctionDef):
                    assert hasattr(getattr(lumora, node.name), member.name), (node.name, member.name)
    assert "count: Optional[int] = None" in lumora.Camera.frames.__doc__
