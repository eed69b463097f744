"""One watcher of the web view for the soak: a headless chromium (tests/e2e/browser.py) on
the page at URL. Every 5 s it appends a line to OUT: the end of the page's status line, the
pictures it decoded per view, and why its socket closed, if it did. Ends, closing the
browser, on SIGTERM. Usage: watch.py URL OUT"""
import json
import os
import signal
import sys
import time

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "e2e"))
from browser import Browser  # noqa: E402

stopping = False
VIEWS = {"1": "depth", "2": "amplitude", "3": "cloud", "4": "ipcl-depth", "5": "ipcl-amplitude"}


def stop(*_):
    global stopping
    stopping = True


def main(url, out):
    signal.signal(signal.SIGTERM, stop)
    with Browser() as browser, open(out, "a", buffering=1) as log:
        if browser.open(url) != 200:
            log.write("the page was not served\n")
            return 1
        while not stopping:
            state = json.loads(browser.evaluate("JSON.stringify({pictures: lumora.pictures, closed: lumora.closed,"
                                                " status: document.getElementById('status').textContent})"))
            pictures = " ".join(f"{VIEWS.get(k, k)} {v}" for k, v in sorted(state.get("pictures", {}).items()))
            closed = f"; closed: {state['closed']}" if state.get("closed") else ""
            log.write(f"{state.get('status', '').split(' · ')[-1]}; decoded {pictures}{closed}\n")
            for _ in range(50):
                if stopping:
                    break
                time.sleep(0.1)
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1], sys.argv[2]))
