"""Checks of the web view through a real browser (browser.py). Usage:
  web_checks.py page URL_WITH_TOKEN        pictures that update, and the status line
  web_checks.py click URL RECORDING.lmr     a click on the Depth picture reads the recorded depth
  web_checks.py png URL EXPORT_DIR          the lossless pictures equal lmr's export of the record
  web_checks.py cloud URL                   the 3-D view gets thinned clouds, at most ten a second
  web_checks.py measure URL LISTS           Measure over an ROI dragged on a wall 1500 mm away, turned by
                                            10 degrees, with 5 mm of noise: its figures against that truth
Prints what it found; exits non-zero with the reason on a failure."""
import csv
import io
import math
import os
import re
import struct
import sys
import time

from PIL import Image

from browser import Browser
from dumpfile import Dump


def fail(message):
    print(f"FAIL: {message}")
    sys.exit(1)


def check_page(url):
    with Browser() as browser:
        if browser.open(url) != 200:
            fail("the page with the token was not served")
        browser.wait("lumora.pictures[1] >= 5 && lumora.pictures[2] >= 5", "no Depth and Amplitude pictures")
        before = browser.evaluate("[lumora.pictures[1], lumora.shown[1].timestamp]")
        # Pictures that keep coming, of other frames (a replay's stamps come round again with its
        # records, so a later frame may carry an earlier stamp); how fast is make bench's.
        browser.wait(f"lumora.pictures[1] >= {before[0] + 3} && lumora.shown[1].timestamp != {before[1]}",
                     "the Depth picture did not update")
        status = browser.evaluate("document.getElementById('status').textContent")
        if "QRX100A" not in status or "mask 6" not in status:
            fail(f"status line \"{status}\"")
        print(f"page: the Depth picture updates; status \"{status}\"")


def check_click(url, recording):
    recorded = {r.timestamp: r for r in Dump(recording).records}
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
            record, x, y = recorded[stamp], readout["x"], readout["y"]
            if abs(x - fx * record.width) > 2 or abs(y - fy * record.height) > 2:
                fail(f"read-out at ({x}, {y}) for a click at {fx}, {fy} of {record.width} x {record.height}")
            depth = "<H" if record.size == 2 else "<f"
            expected = struct.unpack_from(depth, record.blocks, record.size * (y * record.width + x))[0]
            if readout["value"] != round(expected):
                fail(f"read-out {readout['text']} but the record of {stamp} holds {expected} there")
            caption = browser.evaluate("document.getElementById('readout-1').textContent")
            if readout["text"] not in caption or str(stamp) not in caption:
                fail(f"the page shows \"{caption}\" for {readout}")
            print(f"click: \"{caption.strip()}\" is the recorded depth")


def decode_png(data):
    """(width, height, mode, pixel bytes) of a PNG."""
    image = Image.open(io.BytesIO(data))
    return *image.size, image.mode, image.tobytes()


def check_png(url, export):
    """Both ways the page paints: decoded by ImageDecoder, and (where a browser has no
    WebCodecs, as on a page served over plain http to another machine) through an ImageBitmap."""
    index = {int(row["timestamp"]): row for row in csv.DictReader(open(os.path.join(export, "index.csv")))}
    for direct in (True, False):
        with Browser() as browser:
            if not direct:
                browser.call("Page.enable")
                browser.call("Page.addScriptToEvaluateOnNewDocument", source="delete window.ImageDecoder;")
            if browser.open(url) != 200:
                fail("the page was not served")
            if browser.evaluate("typeof ImageDecoder === 'function'") != direct:
                fail(f"ImageDecoder {'missing' if direct else 'still there'}")
            for view, column in ((1, "depth_colour_png"), (2, "amplitude_png")):
                browser.wait(f"lumora.lastPng[{view}]", f"no lossless picture of view {view}")
                stamp, data, canvas = browser.png_of(view)
                if stamp not in index:
                    fail(f"view {view}: timestamp {stamp} is no exported record")
                shown = decode_png(data)
                exported = decode_png(open(os.path.join(export, index[stamp][column]), "rb").read())
                if shown[:3] != exported[:3]:
                    fail(f"view {view}: {shown[:3]} against the export's {exported[:3]}")
                if shown[3] != exported[3]:
                    fail(f"view {view}: the pixels differ from {index[stamp][column]}")
                painted = Image.frombytes("RGBA", shown[:2], canvas).convert("RGB").tobytes()
                if painted != Image.frombytes(shown[2], shown[:2], shown[3]).convert("RGB").tobytes():
                    fail(f"view {view}: the canvas does not show its picture ({'direct' if direct else 'bitmap'})")
                print(f"png: view {view} of {stamp} is {index[stamp][column]}, pixel for pixel ({shown[0]} x "
                      f"{shown[1]}), and so is its canvas ({'ImageDecoder' if direct else 'ImageBitmap'})")


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


def check_measure(url, lists):
    with Browser() as browser:
        if browser.open(url) != 200:
            fail("the page was not served")
        browser.wait("lumora.pictures[1] >= 1", "no Depth picture", 120)
        browser.evaluate("document.getElementById('measure-toggle').click()")
        browser.wait("lumora.quality", "no figures after Measure on", 120)
        width, height = map(int, re.search(r"(\d+) x (\d+)", browser.evaluate(
            "document.getElementById('status').textContent")).groups())
        box = browser.evaluate("(() => { const r = document.getElementById('view-1').getBoundingClientRect();"
                               " return [r.left, r.top, r.width, r.height]; })()")
        # A box other than the default, centred across (the wall turns about the vertical axis).
        corners = [(box[0] + fx * box[2], box[1] + fy * box[3]) for fx, fy in ((0.2513, 0.3012), (0.7487, 0.6511))]
        browser.drag(*corners[0], *corners[1])
        shares = [((x - box[0]) / box[2], (y - box[1]) / box[3]) for x, y in corners]
        expected = [math.floor(shares[0][0] * width), math.floor(shares[0][1] * height)]
        expected += [math.ceil(shares[1][0] * width) - expected[0], math.ceil(shares[1][1] * height) - expected[1]]
        roi = browser.wait("lumora.roi", "no ROI after the drag")
        if any(abs(a - b) > 1 for a, b in zip(roi, expected)):
            fail(f"ROI {roi} drawn for a drag over {expected} of {width} x {height}")
        q = browser.wait(f"lumora.quality.roi.join() === lumora.roi.join() && lumora.quality.lists === {lists} &&"
                         " lumora.quality", f"no figures of {lists} lists over the dragged ROI", 120)
        shown = {key: browser.evaluate(f"document.getElementById('figure-{key}').lastChild.textContent")
                 for key in ("fill_rate_pct", "distance_mm", "plane_angle_deg", "plane_fit_rms_mm", "temporal_noise_mm")}
        value = {key: float(text.split()[0]) for key, text in shown.items()}
        head = browser.evaluate("document.getElementById('measure-head').textContent")
        x, y, w, h = roi
        if f"ROI {x},{y} {w}x{h} · {lists} of {lists} lists" not in head or q["window"] != int(lists):
            fail(f"the page heads the figures \"{head}\" for the ROI {roi}")
        for key, low, high in (("fill_rate_pct", 100, 100), ("distance_mm", 1499, 1501), ("plane_angle_deg", 9.8, 10.2),
                               ("plane_fit_rms_mm", 4.5, 5.5), ("temporal_noise_mm", 4.5, 5.5)):
            if not low <= value[key] <= high:
                fail(f"{key} shown as {shown[key]}, not {low} to {high}")
        print(f"measure: {head}: " + ", ".join(shown.values()))


if __name__ == "__main__":
    {"page": check_page, "click": check_click, "png": check_png, "cloud": check_cloud,
     "measure": check_measure}[sys.argv[1]](*sys.argv[2:])
