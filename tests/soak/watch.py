"""One watcher of the web view for the soak: a headless chromium (tests/e2e/browser.py) on
the page at URL. Every 5 s it appends a line to OUT: seconds since start, the pictures the
page decoded per view, the page's status line and why its socket closed, if it did. Ends,
closing the browser, on SIGTERM. Usage: watch.py URL OUT"""
import json
import os
import signal
import sys
import time

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "e2e"))
from browser import Browser  # noqa: E402

stopping = False


def stop(*_):
    global stopping
    stopping = True


def main(url, out):
    signal.signal(signal.SIGTERM, stop)
    start = time.time()
    with Browser() as browser, open(out, "a", buffering=1) as log:
        if browser.open(url) != 200:
            log.write(json.dumps({"error": "the page was not served"}) + "\n")
            return 1
        while not stopping:
            state = browser.evaluate("JSON.stringify({pictures: lumora.pictures, closed: lumora.closed,"
                                     " status: document.getElementById('status').textContent})")
            log.write(json.dumps({"seconds": round(time.time() - start), **json.loads(state)}) + "\n")
            for _ in range(50):
                if stopping:
                    break
                time.sleep(0.1)
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1], sys.argv[2]))
