"""lumora.quality against the truth of a synthetic wall (depth arrays and a dump file of it),
against numpy's own per-pixel spread, on the simulated cameras' lists (depth through the
camera's calibration against its point clouds, and the simulated wall against its truth), and
on bad input."""

import struct

import numpy as np
import pytest

import lumora

HEAD = struct.Struct("<HBHH" "H8s" "HH12s20s16s")
FRAME = struct.Struct("<BHHHQ")
LENS = (80.0, 80.0, 31.5, 23.5)  # no distortion: a pixel's ray is ((u - cx) / fx, (v - cy) / fy, 1)


def wall(lists, distance=1500.0, tilt=15.0, sigma=4.0, seed=1):
    """Depth (float32 mm) of a wall tilted about the y axis, with Gaussian noise."""
    x = (np.arange(64) - LENS[2]) / LENS[0]
    t = np.radians(tilt)
    depth = np.broadcast_to(distance * np.cos(t) / (np.sin(t) * x + np.cos(t)), (48, 64))
    random = np.random.default_rng(seed)
    return [(depth + random.normal(0, sigma, depth.shape)).astype(np.float32) for _ in range(lists)]


def test_a_wall_as_arrays_and_as_a_dump(tmp_path):
    depths = wall(20)
    q = lumora.quality(depths, roi=(8, 6, 48, 36), truth_mm=1490, calibration=LENS)
    assert isinstance(q, lumora.Quality) and q.lists == 20 and q.roi == (8, 6, 48, 36)
    assert q.fill_rate_pct == 100.0
    assert q.distance_mm == pytest.approx(1500, abs=0.5)
    assert q.plane_angle_deg == pytest.approx(15, abs=0.1)
    assert q.z_error_mm == pytest.approx(10, abs=0.5) and q.z_error_pct == pytest.approx(1000 / 1490, abs=0.04)
    spread = np.median(np.stack(depths)[:, 6:42, 8:56].std(axis=0, ddof=1))
    assert q.temporal_noise_mm == pytest.approx(spread, rel=1e-5)
    assert q.temporal_noise_mm == pytest.approx(4 * 0.97, rel=0.03)
    assert q.amplitude_mean is None and q.reasons["amplitude_p5"] == "no amplitude in the lists"

    # The same wall rounded to whole mm in a mode-1 dump, with amplitudes 100 to 199.
    path = tmp_path / "QRX100A_wall.lmr"
    head = HEAD.pack(0xDF, 0, 5, 1, 1, b"sim", 2, 0x312, b"2.3.0", b"LM0536240000", b"QRX100A")
    amplitude = (100 + np.arange(48 * 64) % 100).astype("<u2")
    records = [FRAME.pack(i, 64, 48, 2, i * 33333) + np.rint(d).astype("<u2").tobytes() + amplitude.tobytes()
               for i, d in enumerate(depths[:5])]
    path.write_bytes(head + b"".join(records))
    dump = lumora.Dump(str(path))
    q = lumora.quality(dump, roi=(8, 6, 48, 36), calibration=LENS)
    assert q.lists == 5 and q.distance_mm == pytest.approx(1500, abs=0.5)
    assert q.amplitude_mean == pytest.approx(amplitude.reshape(48, 64)[6:42, 8:56].mean())
    assert q.amplitude_p5 == pytest.approx(104, abs=1)
    # Without a calibration, the rays of the camera that replays the file; none for a path
    # with a comma, which cannot name a replay camera.
    assert lumora.quality(dump).lists == 5
    comma = tmp_path / "a,b.lmr"
    comma.write_bytes(path.read_bytes())
    with pytest.raises(lumora.Error, match="calibration="):
        lumora.quality(lumora.Dump(str(comma)))


def test_camera_lists_against_their_point_clouds():
    with lumora.open("sim:2") as cam:  # QRX100A:32x24@120
        cam.start(lumora.DEPTH | lumora.POINT_CLOUD)
        lists = list(cam.frames(count=10, timeout=10))
        calibration = cam.calibration()
    q = lumora.quality(lists)
    assert q == lumora.quality([f.depth for f in lists], calibration=calibration)
    # The plane through the camera's own points, fitted here: they lie on the calibration's rays.
    x, y, w, h = q.roi
    fits = []
    for frames in lists:
        points = frames.point_cloud[y:y + h, x:x + w].reshape(-1, 3).astype(np.float64) * 1000
        points = points[points[:, 2] > 0]
        normal = np.linalg.svd(points - points.mean(axis=0))[2][2]
        normal *= np.sign(normal[2])
        fits.append((normal @ points.mean(axis=0) / normal[2], np.degrees(np.arccos(normal[2]))))
    distance, angle = np.median(fits, axis=0)
    assert q.distance_mm == pytest.approx(distance, rel=0.01)
    assert q.plane_angle_deg == pytest.approx(angle, abs=0.5)


def test_lists_of_the_simulated_wall_against_its_truth():
    """A VGA camera's wall 1500 mm away, with 5 mm of noise, turned by 10 degrees and then facing
    it; the rays through the calibration each list keeps."""
    with lumora.open("sim:0") as cam:
        cam.set("sim_noise", 5)
        walls = []
        for scene, count in (("wall:1500:10", 30), ("wall:1500", 5)):
            cam.set("sim_scene", scene)
            cam.start(lumora.DEPTH | lumora.AMPLITUDE)
            walls.append(list(cam.frames(count=count, timeout=30)))
            cam.stop()
    q = lumora.quality(walls[0])
    assert q.lists == 30 and q.roi == (192, 144, 256, 192) and q.fill_rate_pct == 100
    assert q.distance_mm == pytest.approx(1500, abs=1) and q.plane_angle_deg == pytest.approx(10, abs=0.2)
    # The residuals trimmed by 1% and the per-pixel spread over 30 lists: 5 mm +- 10%.
    assert q.plane_fit_rms_mm == pytest.approx(5, rel=0.1) and q.temporal_noise_mm == pytest.approx(5, rel=0.1)
    assert lumora.quality(walls[1], truth_mm=1500).z_error_mm == pytest.approx(0, abs=2)


def test_bad_input_raises():
    depths = wall(2)
    for kwargs in ({"roi": 0}, {"roi": 101}, {"roi": (1, 2, 3)}, {"roi": (-1, 0, 5, 5)}, {"truth_mm": -1},
                   {"calibration": (0, 80, 31.5, 23.5)}, {"calibration": (80, 80, 31.5)}, {"roi": (70, 0, 5, 5)},
                   {"roi": "40"}, {"calibration": "fx"}):
        with pytest.raises(ValueError):
            lumora.quality(depths, **{"calibration": LENS, **kwargs})
    for source in ([], "abc", [depths[0].astype(np.float64)], [depths[0], depths[1][:24]], [depths[0]] * 301,
                   [np.zeros((2, 3, 4), np.float32)], [1, 2]):
        with pytest.raises(ValueError):
            lumora.quality(source, calibration=LENS)
    with pytest.raises(ValueError, match="calibration"):
        lumora.quality(depths)
    one = lumora.quality(depths[:1], calibration=LENS)
    assert one.temporal_noise_mm is None and one.reasons["temporal_noise_mm"] == "needs at least 2 lists"
