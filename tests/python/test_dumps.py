"""lumora.Dump on files the shell wrote: every array against the file's bytes at the offsets
the documented layout gives, the findings against `lmr info`'s; damaged files."""

import os
import struct
import subprocess
import time

import numpy as np
import pytest

import lumora

HEAD = struct.Struct("<HBHH" "H8s" "HH12s20s16s")  # header, source and camera descriptors
FRAME = struct.Struct("<BHHHQ")


def shell_dumps(directory):
    """Dumps of five lists in each mode, written by the real shell in a scripted session."""
    log = directory / "shell.log"
    env = dict(os.environ, LUMORA_SIM_DEVICES="QRX100A:64x48")
    env.pop("DISPLAY", None)
    with open(log, "w") as out:
        shell = subprocess.Popen([os.environ["LUMORA_SHELL"]], stdin=subprocess.PIPE, stdout=out,
                                 stderr=subprocess.STDOUT, cwd=directory, env=env, text=True)

    def wait_for(text, count=1):
        deadline = time.monotonic() + 60
        while log.read_text(errors="replace").count(text) < count:
            assert time.monotonic() < deadline, f"no {text!r} in {log.read_text(errors='replace')[-2000:]}"
            time.sleep(0.05)

    def send(line):
        shell.stdin.write(line + "\n")
        shell.stdin.flush()

    for line in ("search", "select 0", "run 30"):
        send(line)
    wait_for("source(sim:0) state = 3")
    for mode in range(4):
        time.sleep(1.1 - time.time() % 1)  # a file name of its own: named to the second, by a coarser clock
        send(f"set frame_dump {mode} 5")
        wait_for("Frame dump finished!", mode + 1)
    send("quit")
    shell.stdin.close()
    assert shell.wait(timeout=60) == 0
    return sorted(directory.glob("QRX100A_*.lmr"))


def lmr_findings(path):
    result = subprocess.run([os.environ["LUMORA_LMR"], "info", str(path)], capture_output=True, text=True)
    lines = result.stdout.split("[Verification]\n")[1].splitlines()
    return [line[4:] for line in lines if line.startswith("  - ")]


def test_arrays_are_the_files_bytes(tmp_path):
    files = shell_dumps(tmp_path)
    assert len(files) == 4
    for path in files:
        data = path.read_bytes()
        head = HEAD.unpack_from(data)
        dump = lumora.Dump(str(path))
        assert (dump.sync_byte, dump.embedded_line_control, dump.frame_count, dump.mode) == head[:4]
        assert (dump.source_type, dump.firmware_version) == (head[5].rstrip(b"\0").decode(), head[7])
        assert [dump.sdk_version, dump.serial_number, dump.camera_name] == [
            field.rstrip(b"\0").decode() for field in head[8:]]
        assert dump.findings() == lmr_findings(path)
        assert len(dump) >= 1
        blocks, element = dump.mode + 1, "<u2" if dump.mode <= 1 else "<f4"
        offset = HEAD.size
        for record in dump:
            index, width, height, _, timestamp = FRAME.unpack_from(data, offset)
            assert (record.frame_index, record.width, record.height, record.timestamp) == (
                index, width, height, timestamp)
            offset += FRAME.size
            assert record.embedded_line == data[offset:offset + width]
            offset += width
            planes = [np.frombuffer(data, element, width * height, offset + b * width * height * (2 if
                      dump.mode <= 1 else 4)).reshape(height, width) for b in range(blocks)]
            offset += blocks * planes[0].nbytes
            if dump.mode <= 1:
                assert np.array_equal(record.depth, planes[0]) and record.points is None
                assert (record.amplitude is None) == (dump.mode == 0)
                assert dump.mode == 0 or np.array_equal(record.amplitude, planes[1])
            else:
                assert record.depth is None and record.amplitude is None
                assert np.array_equal(record.points, np.stack(planes, axis=-1), equal_nan=True)
        assert offset == len(data)
    # The mapping outlives the Dump and the Record for as long as an array of it lives.
    points = lumora.Dump(str(path))[-1].points  # out of the assert, which would keep the Dump
    assert np.array_equal(points, np.stack(planes, axis=-1), equal_nan=True)


def test_damaged_files_raise_a_clear_error(tmp_path):
    head = struct.pack("<HBHH", 0xDF, 0, 2, 0) + struct.pack("<H8s", 1, b"sim") + struct.pack(
        "<HH12s20s16s", 2, 1, b"2.3.0", b"LM1", b"QRX100A")
    record = FRAME.pack(0, 4, 2, 2, 100) + bytes(16)
    unreadable = {
        "missing.lmr": (None, "cannot open: No such file or directory"),
        "empty.lmr": (b"", "the file is 0 bytes long"),
        "head.lmr": (head[:40], "the file is 40 bytes long"),
        "garbage.lmr": (b"\x5a" * 4096, "not a dump file: sync byte 0x5a5a"),
    }
    for name, (content, what) in unreadable.items():
        path = tmp_path / name
        if content is not None:
            path.write_bytes(content)
        with pytest.raises(lumora.Error) as raised:
            lumora.Dump(str(path))
        assert str(raised.value).startswith(f"{path}: {what}") and raised.value.code is None

    # Readable up to the damage: the whole records, and the record cut short is an error.
    for name, content, whole in [("cut.lmr", head + record + record[:-3], 1),
                                 ("huge.lmr", head + FRAME.pack(0, 65535, 65535, 2, 0) + bytes(100), 0)]:
        path = tmp_path / name
        path.write_bytes(content)
        dump = lumora.Dump(str(path))
        assert len(dump) == whole and dump.findings() == lmr_findings(path)
        with pytest.raises(lumora.Error, match=rf"^{path}: record {whole} at byte \d+ is cut short"):
            dump[whole]
        with pytest.raises(IndexError):
            dump[whole + 1]
