"""The packaged Python module, imported from where the package put it: 30 lists streamed
from a simulated camera, and the dump of the shell's session read.
Usage: lumora_session.py DUMP.lmr (with LUMORA_SIM_DEVICES=QRX100A:160x120)"""

import sys

import lumora

assert "/usr/lib/python3/dist-packages/lumora/" in lumora.__file__, lumora.__file__
dump = lumora.Dump(sys.argv[1])
assert dump.mode == 1 and dump.camera_name == "QRX100A" and 1 <= len(dump) <= 5, dump
assert all(r.depth.shape == r.amplitude.shape == (120, 160) for r in dump)
with lumora.open(0) as cam:
    cam.start(lumora.DEPTH | lumora.AMPLITUDE)
    shapes = [(frames.depth.shape, frames.amplitude.dtype.name) for frames in cam.frames(count=30, timeout=10)]
assert shapes == [((120, 160), "uint16")] * 30, shapes
print(f"python: 30 lists streamed, {len(dump)} records of {dump.path} read")
