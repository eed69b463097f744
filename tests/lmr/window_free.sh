#!/bin/sh
# The program $1 loads neither Qt nor OpenCV's highgui, and names no X library itself
# (Debian's OpenCV core brings libX11 in for OpenGL, which no window of ours needs).
# What the dynamic loader would load, asked of the loader itself, as ldd does, so that it
# also answers for a program run under emulation.
loaded=$(LD_TRACE_LOADED_OBJECTS=1 "$1") || exit 1
echo "$loaded" | grep -q libopencv_core || exit 1
if echo "$loaded" | grep -E 'libQt|libopencv_highgui'; then exit 1; fi
if readelf -d "$1" | grep -E 'NEEDED.*\[lib(X11|xcb|Qt)'; then exit 1; fi
exit 0
