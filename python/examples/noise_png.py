"""The per-pixel temporal noise of N depth frames (standard deviation, mm) as a PNG.

    /usr/bin/python3 noise_png.py OUT.png [N]
Pixels missing (depth 0) in any frame are left out; whatever moves shows as noise too. Needs
Debian's python3-matplotlib.
"""

import sys

import matplotlib

matplotlib.use("Agg")
import matplotlib.pyplot as plt  # noqa: E402
import numpy as np  # noqa: E402

import lumora  # noqa: E402

path = sys.argv[1]
count = int(sys.argv[2]) if len(sys.argv) > 2 else 100

with lumora.open(0) as cam:
    name = cam.name
    cam.start(lumora.DEPTH)
    depth = np.stack([f.depth for f in cam.frames(count=count)]).astype(np.float64)
    cam.stop()

noise = depth.std(axis=0)
noise[(depth == 0).any(axis=0)] = np.nan
figure, axes = plt.subplots(figsize=(8, 6))
image = axes.imshow(noise, cmap="viridis", vmax=np.nanpercentile(noise, 90))
figure.colorbar(image, ax=axes, label="temporal noise (mm, standard deviation)")
axes.set_title(f"{name}: depth noise over {count} frames, median {np.nanmedian(noise):.1f} mm")
figure.savefig(path, dpi=100)
print(f"{path}: median {np.nanmedian(noise):.2f} mm, 99th percentile {np.nanpercentile(noise, 99):.2f} mm")
