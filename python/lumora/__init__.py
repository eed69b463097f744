"""Time-of-flight depth cameras and their dump files, as numpy arrays.

    import lumora
    with lumora.open(0) as cam:
        cam.start(lumora.DEPTH | lumora.AMPLITUDE)
        for frames in cam.frames(count=100):
            print(frames.index, frames.depth[240, 320])

The cameras come from the camera library libLumora (the simulated one, or a vendor's in its
place); dump files (.lmr) are those the LumoraShell writes. lumora.quality() measures the depth
quality of either, as `lmr quality` does. A result code other than success raises
lumora.Error, a wait that times out TimeoutError.
"""

import enum

from ._lumora import (
    Calibration,
    Camera,
    Distortion,
    Dump,
    Error,
    FieldOfView,
    FrameIterator,
    FrameList,
    Quality,
    Record,
    RecordIterator,
    Source,
    State,
    get,
    open,
    quality,
    set,
    set_log_level,
    sources,
    version,
)


class FrameType(enum.IntFlag):
    """The frame types, as bits of the mask given to Camera.start()."""

    DEPTH = 2
    AMPLITUDE = 4
    POINT_CLOUD = 8
    INTENSITY_POINT_CLOUD = 16


DEPTH = FrameType.DEPTH
AMPLITUDE = FrameType.AMPLITUDE
POINT_CLOUD = FrameType.POINT_CLOUD
INTENSITY_POINT_CLOUD = FrameType.INTENSITY_POINT_CLOUD

__all__ = [
    "AMPLITUDE",
    "Calibration",
    "Camera",
    "DEPTH",
    "Distortion",
    "Dump",
    "Error",
    "FieldOfView",
    "FrameIterator",
    "FrameList",
    "FrameType",
    "INTENSITY_POINT_CLOUD",
    "POINT_CLOUD",
    "Quality",
    "Record",
    "RecordIterator",
    "Source",
    "State",
    "get",
    "open",
    "quality",
    "set",
    "set_log_level",
    "sources",
    "version",
]
