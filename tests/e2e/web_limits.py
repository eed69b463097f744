"""The web view's limits against the running shell. Usage: web_limits.py URL SHELL_PID
HTTP requests without the token, outside the routes, too large or malformed; page messages
that are not the page's; the ninth watcher; a watcher that stops reading for 10 s beside
100 idle connections and a good watcher. Exits non-zero with the reason on a failure."""
import json
import os
import socket
import sys
import time

import websocket

URL, PID = sys.argv[1], int(sys.argv[2])
HOST, PORT = URL.split("/")[2].split(":")
PORT = int(PORT)
QUERY = URL[URL.index("?"):]
SOCKET_URL = f"ws://{HOST}:{PORT}/ws{QUERY}"


def fail(message):
    print(f"FAIL: {message}")
    sys.exit(1)


def exchange(request):
    """Sends raw bytes; returns all the server answers before it closes."""
    with socket.create_connection((HOST, PORT), timeout=15) as s:
        s.sendall(request)
        answer = b""
        while chunk := s.recv(65536):
            answer += chunk
        return answer


def status_of(target, extra=b""):
    answer = exchange(b"GET " + target.encode() + b" HTTP/1.1\r\nHost: x\r\n" + extra + b"\r\n")
    return int(answer.split(b" ")[1]) if answer else None, answer


def check_http():
    for target in ("/", "/ws", "/etc/passwd", "/?token=0", "/..%2f..%2fetc/passwd" + QUERY.replace("token", "t")):
        status, answer = status_of(target)
        if status != 403 or b"<html" in answer.lower():
            fail(f"{target} answered {status}")
    for target in ("/etc/passwd" + QUERY, "/web/page/app.js" + QUERY, "/index.html" + QUERY):
        if status_of(target)[0] != 404:
            fail(f"{target} is not 404")
    if status_of("/" + QUERY, b"X-Big: " + b"a" * 5000 + b"\r\n")[0] != 431:
        fail("a 5 kB header was not refused with 431")
    answer = exchange(b"POST /" + QUERY.encode() + b" HTTP/1.1\r\nHost: x\r\nContent-Length: 100\r\n\r\n" + b"a" * 100)
    if not answer.startswith(b"HTTP/1.1 413"):
        fail(f"a request with a body got {answer[:40]}")
    if exchange(b"GARBAGE\x00\x01 nonsense\r\n\r\n") != b"":
        fail("a malformed request got an answer")
    print("http: 403 without the token, 404 outside the routes, 431 and 413 over the limits, malformed closed")


def closed(ws, seconds=5):
    """True when the server closes the socket within the time."""
    ws.settimeout(seconds)
    try:
        while True:
            opcode, _ = ws.recv_data(control_frame=True)
            if opcode == websocket.ABNF.OPCODE_CLOSE:
                return True
    except (websocket.WebSocketConnectionClosedException, ConnectionError):
        return True
    except websocket.WebSocketTimeoutException:
        return False


def check_messages():
    for message, binary in (("hello", False), ("click 1 1 1", False), ("x" * 200, False), ("decoded 1", True)):
        ws = websocket.create_connection(SOCKET_URL, timeout=10)
        ws.send_binary(message.encode()) if binary else ws.send(message)
        if not closed(ws):
            fail(f"the message {message[:20]!r} did not close the connection")
    print("messages: what is not the page's closes the connection")


def check_watchers():
    watchers = [websocket.create_connection(SOCKET_URL, timeout=10) for _ in range(8)]
    for ws in watchers:
        ws.settimeout(10)
        if not isinstance(ws.recv(), (bytes, str)):
            fail("a watcher of the eight got nothing")
    ninth = websocket.create_connection(SOCKET_URL, timeout=10)
    opcode, data = ninth.recv_data(control_frame=True)
    while opcode != websocket.ABNF.OPCODE_CLOSE:
        opcode, data = ninth.recv_data(control_frame=True)
    if b"at most 8 watchers" not in data:
        fail(f"the ninth watcher was closed with {data!r}")
    for ws in watchers:
        ws.close()
    print(f"watchers: eight served, the ninth told \"{data[2:].decode()}\" and closed")


def rss_kib():
    for line in open(f"/proc/{PID}/status"):
        if line.startswith("VmRSS:"):
            return int(line.split()[1])
    return 0


def check_slow_watcher():
    idle = [socket.create_connection((HOST, PORT), timeout=5) for _ in range(100)]
    slow = websocket.create_connection(SOCKET_URL, timeout=10,
                                       sockopt=((socket.SOL_SOCKET, socket.SO_RCVBUF, 4096),))
    good = websocket.create_connection(SOCKET_URL, timeout=10)
    start = time.time()
    while time.time() - start < 2:
        good.recv()
    start_rss, pictures, size, status = rss_kib(), 0, 0, []
    start = time.time()
    while time.time() - start < 10:
        message = good.recv()
        size += len(message)
        if isinstance(message, bytes) and message[0] == 1 and message[1] == 1:
            pictures += 1
            newest = int.from_bytes(message[4:8], "little")
        elif isinstance(message, str):
            status.append(json.loads(message))
    growth = rss_kib() - start_rss
    rate, bytes_per_second = pictures / 10, size / 10
    drawn = status[-1]["drawn"] - status[0]["drawn"]
    dropped = status[-1]["dropped"] - status[0]["dropped"]
    print(f"slow watcher: the good one got {rate:.1f} Depth pictures/s, {bytes_per_second / 1e6:.2f} MB/s; "
          f"{drawn} lists drawn, {dropped} dropped; memory {growth:+d} KiB")
    # Against the lists drawn in the same time, so that it holds in slow builds too.
    if pictures < 0.8 * drawn:
        fail("the good watcher was slowed down")
    if dropped != 0:
        fail("the camera's lists were not all delivered")
    # A watcher that kept every picture would hold about 8 s of the stream by now. The
    # sanitizers keep freed memory (AddressSanitizer's quarantine) or shadow it: no measure.
    sanitized = "ASAN_OPTIONS" in os.environ or "TSAN_OPTIONS" in os.environ
    if growth * 1024 > bytes_per_second * 8 / 2 and not sanitized:
        fail("memory grew with the stalled watcher")
    slow.settimeout(10)
    latest, deadline = 0, time.time() + 5
    while time.time() < deadline and latest < newest:
        message = slow.recv()
        if isinstance(message, bytes) and message[0] == 1:
            latest = int.from_bytes(message[4:8], "little")
    if latest < newest:
        fail(f"the slow watcher did not catch up: picture {latest}, newest {newest}")
    for s in idle:
        s.close()
    slow.close()
    good.close()


check_http()
check_messages()
check_watchers()
check_slow_watcher()
