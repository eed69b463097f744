"""A real browser for the web view's tests: Debian's chromium, headless, driven through its
debugging protocol (python3-websocket). Every wait is bounded."""
import base64
import json
import os
import shutil
import subprocess
import tempfile
import time

import websocket

FLAGS = ["--headless", "--no-sandbox", "--disable-gpu", "--disable-quic", "--no-first-run",
         "--disable-background-networking", "--disable-component-update", "--disable-sync"]


class Browser:
    def __init__(self):
        self.profile = tempfile.mkdtemp()
        self.process = subprocess.Popen(
            ["chromium", *FLAGS, f"--user-data-dir={self.profile}", "--remote-debugging-port=0", "about:blank"],
            stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        port_file = os.path.join(self.profile, "DevToolsActivePort")
        deadline = time.time() + 30
        while not (os.path.exists(port_file) and len(open(port_file).read().split()) >= 2):
            if time.time() > deadline or self.process.poll() is not None:
                raise RuntimeError("chromium did not start")
            time.sleep(0.1)
        port, path = open(port_file).read().split()[:2]
        self.socket = websocket.create_connection(f"ws://127.0.0.1:{port}{path}", timeout=30)
        self.next_id = 0
        target = self.call("Target.createTarget", url="about:blank")["targetId"]
        self.session = self.call("Target.attachToTarget", targetId=target, flatten=True)["sessionId"]

    def close(self):
        try:
            self.socket.close()
        finally:
            self.process.terminate()
            try:
                self.process.wait(10)
            except subprocess.TimeoutExpired:
                self.process.kill()
            shutil.rmtree(self.profile, ignore_errors=True)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.close()

    def call(self, method, session=True, **params):
        self.next_id += 1
        message = {"id": self.next_id, "method": method, "params": params}
        if session and hasattr(self, "session"):
            message["sessionId"] = self.session
        self.socket.send(json.dumps(message))
        while True:
            answer = json.loads(self.socket.recv())
            if answer.get("id") == self.next_id:
                if "error" in answer:
                    raise RuntimeError(f"{method}: {answer['error']}")
                return answer["result"]

    def evaluate(self, expression):
        result = self.call("Runtime.evaluate", expression=expression, returnByValue=True, awaitPromise=True)
        if "exceptionDetails" in result:
            raise RuntimeError(f"{expression}: {result['exceptionDetails']}")
        return result["result"].get("value")

    def wait(self, expression, message, seconds=20):
        deadline = time.time() + seconds
        while time.time() < deadline:
            value = self.evaluate(expression)
            if value:
                return value
            time.sleep(0.1)
        raise AssertionError(message)

    def open(self, url):
        """Loads url; returns the HTTP status of the document."""
        self.call("Page.navigate", url=url)
        self.wait("document.readyState === 'complete' && location.href !== 'about:blank'", f"{url} did not load")
        return self.evaluate("performance.getEntriesByType('navigation')[0].responseStatus")

    def click(self, x, y):
        for kind in ("mousePressed", "mouseReleased"):
            self.call("Input.dispatchMouseEvent", type=kind, x=x, y=y, button="left", clickCount=1)

    def drag(self, x0, y0, x1, y1):
        self.call("Input.dispatchMouseEvent", type="mousePressed", x=x0, y=y0, button="left", clickCount=1)
        self.call("Input.dispatchMouseEvent", type="mouseMoved", x=x1, y=y1, button="left")
        self.call("Input.dispatchMouseEvent", type="mouseReleased", x=x1, y=y1, button="left", clickCount=1)

    def png_of(self, view):
        """The last lossless picture of a view the page decoded, and what its canvas shows:
        (frame timestamp, PNG bytes, the canvas's RGBA bytes)."""
        text = self.evaluate(f"""(async () => {{
            const p = lumora.lastPng[{view}];
            if (!p) return null;
            const canvas = document.getElementById('view-{view}');
            const shown = canvas.getContext('2d').getImageData(0, 0, canvas.width, canvas.height).data;
            const base64 = (bytes) => {{
                let s = '';
                for (let i = 0; i < bytes.length; i += 4096) s += String.fromCharCode(...bytes.subarray(i, i + 4096));
                return btoa(s);
            }};
            const bytes = new Uint8Array(await p.blob.arrayBuffer());
            return JSON.stringify({{timestamp: p.timestamp, data: base64(bytes), shown: base64(shown)}});
        }})()""")
        if text is None:
            return None
        value = json.loads(text)
        return value["timestamp"], base64.b64decode(value["data"]), base64.b64decode(value["shown"])
