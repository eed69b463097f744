"""Streams depth and amplitude and reads out the centre pixel of each list.

    /usr/bin/python3 stream.py [INDEX_OR_URI] [COUNT]
"""

import sys

import lumora

which = sys.argv[1] if len(sys.argv) > 1 else "0"
count = int(sys.argv[2]) if len(sys.argv) > 2 else 300

with lumora.open(int(which) if which.isdigit() else which) as cam:
    print(f"{cam.name} {cam.serial} at {cam.uri}, firmware {cam.properties('fw_info')['fw_version']}")
    cam.start(lumora.DEPTH | lumora.AMPLITUDE)
    for frames in cam.frames(count=count):
        depth, amplitude = frames.depth, frames.amplitude
        row, column = depth.shape[0] // 2, depth.shape[1] // 2
        print(f"\rlist {frames.index:6d}  t {frames.timestamp / 1e6:9.3f} s  "
              f"depth({column},{row}) {depth[row, column]:6.0f} mm  amplitude {amplitude[row, column]:5.0f}  "
              f"dropped {frames.dropped}", end="", flush=True)
    print()
