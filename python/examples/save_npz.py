"""Saves N lists of depth, amplitude and point cloud into one compressed .npz file.

    /usr/bin/python3 save_npz.py OUT.npz [N]
    # later: data = numpy.load("OUT.npz"); data["depth"].shape == (N, 480, 640)
"""

import sys

import numpy as np

import lumora

path = sys.argv[1]
count = int(sys.argv[2]) if len(sys.argv) > 2 else 30

with lumora.open(0) as cam:
    calibration = cam.calibration()
    cam.start(lumora.DEPTH | lumora.AMPLITUDE | lumora.POINT_CLOUD)
    # The lists are copies of their own: keeping them all does not hold the camera up.
    lists = list(cam.frames(count=count))
    cam.stop()

np.savez_compressed(
    path,
    depth=np.stack([f.depth for f in lists]),
    amplitude=np.stack([f.amplitude for f in lists]),
    point_cloud=np.stack([f.point_cloud for f in lists]),
    timestamp=np.array([f.timestamp for f in lists], dtype=np.uint64),
    intrinsics=np.array([calibration.fx, calibration.fy, calibration.cx, calibration.cy]),
)
print(f"{path}: {count} lists, {sum(f.dropped for f in lists[1:])} dropped between them")
