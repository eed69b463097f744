"""Prints how many distinct colours a rectangle X Y W H of an XWD image (Xvfb's screen file,
24-bit colour in 32-bit pixels) holds, and the share of its pixels taken by the most common
colour: "DISTINCT SHARE"."""
import collections
import struct
import sys

data = open(sys.argv[1], "rb").read()
x, y, w, h = (int(v) for v in sys.argv[2:6])
fields = struct.unpack(">25I", data[:100])
header_size, width, height = fields[0], fields[4], fields[5]
bytes_per_line, ncolors = fields[12], fields[19]
pixels = data[header_size + 12 * ncolors :]
w, h = min(w, width - x), min(h, height - y)
counts = collections.Counter()
for row in range(y, y + h):
    start = row * bytes_per_line + 4 * x
    line = pixels[start : start + 4 * w]
    counts.update(line[i : i + 3] for i in range(0, len(line), 4))
print(len(counts), f"{counts.most_common(1)[0][1] / (w * h):.3f}")
