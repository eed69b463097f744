"""Checks of the web view through a real browser (browser.py). Usage:
  web_checks.py page URL_WITH_TOKEN        403 without the token; with it, pictures that update
  web_checks.py click URL RECORDING.lmr     a click on the Depth picture reads the recorded depth
  web_checks.py png URL EXPORT_DIR          the lossless pictures equal lmr's export of the record
  web_checks.py cloud URL                   the 3-D view gets thinned clouds, at most ten a second
Prints what it found; exits non-zero with the reason on a failure."""
import csv
import os
import struct
import sys
import time
import zlib

from browser import Browser


def fail(message):
    print(f"FAIL: {message}")
    sys.exit(1)


def without_token(url):
    return url.split("?")[0]


def check_page(url):
    with Browser() as browser:
        for bad in (without_token(url), url[:-1] + ("0" if url[-1] != "0" else "1"),
                    without_token(url) + "ws" + url[url.index("?"):].replace("token=", "tokan=")):
            status = browser.open(bad)
            if status != 403:
                fail(f"{bad} answered {status}, not 403")
            if browser.evaluate("typeof lumora") != "undefined":
                fail(f"{bad} served the page")
        if browser.open(url) != 200:
            fail("the page with the token was not served")
        browser.wait("lumora.pictures[1] >= 5 && lumora.pictures[2] >= 5", "no Depth and Amplitude pictures")
        first = browser.evaluate("JSON.stringify([lumora.pictures, lumora.shown])")
        time.sleep(1)
        second = browser.evaluate("[lumora.pictures[1], lumora.shown[1].timestamp]")
        before = browser.evaluate(f"[{first}][0][0][1]")
        if second[0] < before + 10:
            fail(f"the Depth picture did not update: {before} then {second[0]} in a second")
        status = browser.evaluate("document.getElementById('status').textContent")
        if "QRX100A" not in status or "mask 6" not in status:
            fail(f"status line \"{status}\"")
        print(f"page: 403 without the token; {second[0] - before} Depth pictures in a second; status \"{status}\"")


def records(path):
    """{timestamp: (width, height, depth plane bytes, element size)} of a mode-1 dump."""
    data = open(path, "rb").read()
    lines, found, offset = data[2], {}, 69
    while offset < len(data):
        _, width, height, size, stamp = struct.unpack_from("<BHHHQ", data, offset)
        start = offset + 15 + (width if lines else 0)
        found[stamp] = (width, height, data[start:start + width * height * size], size)
        offset = start + width * height * size * 2
    return found


def check_click(url, recording):
    recorded = records(recording)
    with Browser() as browser:
        if browser.open(url) != 200:
            fail("the page was not served")
        browser.wait("lumora.pictures[1] >= 3", "no Depth picture")
        box = browser.evaluate("(() => { const r = document.getElementById('view-1').getBoundingClientRect();"
                               " return [r.left, r.top, r.width, r.height]; })()")
        for fx, fy in ((0.3, 0.4), (0.75, 0.6)):
            browser.evaluate("lumora.readout = null")
            browser.click(box[0] + fx * box[2], box[1] + fy * box[3])
            readout = browser.wait("lumora.readout", "no read-out after the click")
            if readout.get("none") or readout["letter"] != "d":
                fail(f"read-out {readout}")
            stamp = readout["timestamp"]
            if stamp not in recorded:
                fail(f"the read-out's timestamp {stamp} is no record of the recording")
            width, height, plane, size = recorded[stamp]
            x, y = readout["x"], readout["y"]
            if abs(x - fx * width) > 2 or abs(y - fy * height) > 2:
                fail(f"read-out at ({x}, {y}) for a click at {fx}, {fy} of {width} x {height}")
            expected = struct.unpack_from("<H" if size == 2 else "<f", plane, size * (y * width + x))[0]
            if readout["value"] != round(expected):
                fail(f"read-out {readout['text']} but the record of {stamp} holds {expected} there")
            caption = browser.evaluate("document.getElementById('readout-1').textContent")
            if readout["text"] not in caption or str(stamp) not in caption:
                fail(f"the page shows \"{caption}\" for {readout}")
            print(f"click: \"{caption.strip()}\" is the recorded depth")


def decode_png(data):
    """(width, height, channels, rows of bytes) of an 8-bit, non-interlaced PNG."""
    if data[:8] != b"\x89PNG\r\n\x1a\n":
        fail("not a PNG")
    offset, idat, head = 8, b"", None
    while offset < len(data):
        length, kind = struct.unpack_from(">I4s", data, offset)
        body = data[offset + 8:offset + 8 + length]
        if kind == b"IHDR":
            head = struct.unpack(">IIBBBBB", body)
        elif kind == b"IDAT":
            idat += body
        offset += 12 + length
    width, height, depth, colour, _, _, interlace = head
    channels = {0: 1, 2: 3}.get(colour)
    if depth != 8 or channels is None or interlace:
        fail(f"PNG of depth {depth}, colour type {colour}, interlace {interlace}")
    raw, stride, rows, previous = zlib.decompress(idat), width * channels, [], bytearray(width * channels)
    for row in range(height):
        kind, line = raw[row * (stride + 1)], bytearray(raw[row * (stride + 1) + 1:(row + 1) * (stride + 1)])
        for i in range(stride):
            a = line[i - channels] if i >= channels else 0
            b, c = previous[i], previous[i - channels] if i >= channels else 0
            if kind == 1:
                line[i] = (line[i] + a) & 255
            elif kind == 2:
                line[i] = (line[i] + b) & 255
            elif kind == 3:
                line[i] = (line[i] + (a + b) // 2) & 255
            elif kind == 4:
                p = a + b - c
                pa, pb, pc = abs(p - a), abs(p - b), abs(p - c)
                line[i] = (line[i] + (a if pa <= pb and pa <= pc else b if pb <= pc else c)) & 255
        rows.append(bytes(line))
        previous = line
    return width, height, channels, rows


def check_png(url, export):
    index = {int(row["timestamp"]): row for row in csv.DictReader(open(os.path.join(export, "index.csv")))}
    with Browser() as browser:
        if browser.open(url) != 200:
            fail("the page was not served")
        for view, column in ((1, "depth_colour_png"), (2, "amplitude_png")):
            browser.wait(f"lumora.lastPng[{view}]", f"no lossless picture of view {view}")
            stamp, data = browser.png_of(view)
            if stamp not in index:
                fail(f"view {view}: timestamp {stamp} is no exported record")
            shown = decode_png(data)
            exported = decode_png(open(os.path.join(export, index[stamp][column]), "rb").read())
            if shown[:3] != exported[:3]:
                fail(f"view {view}: {shown[:3]} against the export's {exported[:3]}")
            differing = sum(a != b for a, b in zip(shown[3], exported[3]))
            if differing:
                fail(f"view {view}: {differing} rows differ from {index[stamp][column]}")
            print(f"png: view {view} of {stamp} is {index[stamp][column]}, pixel for pixel ({shown[0]} x {shown[1]})")


def check_cloud(url):
    with Browser() as browser:
        if browser.open(url) != 200:
            fail("the page was not served")
        browser.wait("lumora.pictures[3] >= 3", "no PCL-Depth picture")
        if not browser.evaluate("!!document.getElementById('cloud-canvas').getContext('webgl')"):
            fail("no WebGL")
        browser.evaluate("document.getElementById('cloud-toggle').click()")
        browser.wait("lumora.clouds >= 2", "no point cloud in the 3-D view")
        first = browser.evaluate("[lumora.clouds, performance.now()]")
        time.sleep(3)
        last = browser.evaluate("[lumora.clouds, performance.now(), lumora.cloudPoints, lumora.pictures[3]]")
        rate = (last[0] - first[0]) / ((last[1] - first[1]) / 1000)
        size = browser.evaluate("lumora.shown[3] && [document.getElementById('view-3').width,"
                                " document.getElementById('view-3').height]")
        if rate > 11 or last[2] > (size[0] // 2) * (size[1] // 2):
            fail(f"{rate:.1f} clouds a second of {last[2]} points for a {size} picture")
        print(f"cloud: {rate:.1f} clouds a second of {last[2]} points in the 3-D view")


if __name__ == "__main__":
    command = sys.argv[1]
    if command == "page":
        check_page(sys.argv[2])
    elif command == "click":
        check_click(sys.argv[2], sys.argv[3])
    elif command == "cloud":
        check_cloud(sys.argv[2])
    elif command == "png":
        check_png(sys.argv[2], sys.argv[3])
    else:
        fail(f"no check {command}")
