"""Headless chromium driven through its DevTools protocol, with the standard
library only: a browser process, one page, a minimal WebSocket client.

    with Browser() as browser:                  # raises BrowserMissing without chromium
        browser.navigate("http://127.0.0.1:8765/")
        browser.wait_for("window.kvaneView.pingsShown >= 3", timeout=20)
        browser.screenshot("page.png")
"""

import base64
import json
import os
import re
import shutil
import signal
import socket
import struct
import subprocess
import tempfile
import time
import urllib.request

CHROMIUM_NAMES = ("chromium", "chromium-browser")
# Headless as root in a container: no sandbox, no GPU, and nothing that
# reaches out to the network (refused connections otherwise stall start-up).
FLAGS = ("--headless", "--no-sandbox", "--disable-gpu", "--disable-quic", "--no-first-run",
         "--disable-background-networking", "--disable-component-update", "--disable-sync",
         "--disable-dev-shm-usage", "--hide-scrollbars", "--mute-audio")


class BrowserMissing(RuntimeError):
    pass


def find_chromium():
    for name in CHROMIUM_NAMES:
        path = shutil.which(name) or (f"/usr/bin/{name}" if os.path.exists(f"/usr/bin/{name}") else None)
        if path:
            return path
    return None


class _WebSocket:
    """A client WebSocket (RFC 6455) for text messages on an already open
    TCP connection to localhost."""

    def __init__(self, url, timeout):
        match = re.match(r"ws://([^/:]+):(\d+)(/.*)", url)
        if not match:
            raise ValueError(f"not a ws:// address: {url}")
        host, port, path = match.group(1), int(match.group(2)), match.group(3)
        self._sock = socket.create_connection((host, port), timeout=timeout)
        key = base64.b64encode(os.urandom(16)).decode()
        self._sock.sendall((f"GET {path} HTTP/1.1\r\nHost: {host}:{port}\r\nUpgrade: websocket\r\n"
                            f"Connection: Upgrade\r\nSec-WebSocket-Key: {key}\r\n"
                            "Sec-WebSocket-Version: 13\r\n\r\n").encode())
        head = b""
        while b"\r\n\r\n" not in head:
            chunk = self._sock.recv(4096)
            if not chunk:
                raise ConnectionError("the browser closed the DevTools connection")
            head += chunk
        status = head.split(b"\r\n", 1)[0]
        if b" 101 " not in status:
            raise ConnectionError(f"DevTools refused the WebSocket: {status.decode(errors='replace')}")
        self._buffer = head.split(b"\r\n\r\n", 1)[1]

    def _exactly(self, count):
        while len(self._buffer) < count:
            chunk = self._sock.recv(max(65536, count - len(self._buffer)))
            if not chunk:
                raise ConnectionError("the browser closed the DevTools connection")
            self._buffer += chunk
        data, self._buffer = self._buffer[:count], self._buffer[count:]
        return data

    def send(self, text):
        payload = text.encode()
        mask = os.urandom(4)
        length = len(payload)
        if length < 126:
            header = struct.pack("!BB", 0x81, 0x80 | length)
        elif length < 65536:
            header = struct.pack("!BBH", 0x81, 0x80 | 126, length)
        else:
            header = struct.pack("!BBQ", 0x81, 0x80 | 127, length)
        masked = bytes(b ^ mask[i % 4] for i, b in enumerate(payload))
        self._sock.sendall(header + mask + masked)

    def receive(self):
        message = b""
        while True:
            first, second = self._exactly(2)
            length = second & 0x7F
            if length == 126:
                (length,) = struct.unpack("!H", self._exactly(2))
            elif length == 127:
                (length,) = struct.unpack("!Q", self._exactly(8))
            payload = self._exactly(length)
            opcode = first & 0x0F
            if opcode == 0x8:
                raise ConnectionError("the browser closed the DevTools connection")
            if opcode in (0x9, 0xA):  # ping, pong: not used by the browser's side
                continue
            message += payload
            if first & 0x80:
                return message.decode()

    def close(self):
        self._sock.close()


class Browser:
    """A headless chromium with a fresh profile and one page, driven over the
    DevTools protocol. Raises BrowserMissing where there is no chromium."""

    def __init__(self, width=1280, height=900, timeout=30.0):
        binary = find_chromium()
        if binary is None:
            raise BrowserMissing("no chromium on this machine (Debian: apt-get install chromium)")
        self._profile = tempfile.mkdtemp(prefix="kvane-chromium-")
        self._timeout = timeout
        self._process = subprocess.Popen(
            [binary, *FLAGS, f"--user-data-dir={self._profile}", f"--window-size={width},{height}",
             "--remote-debugging-port=0", "about:blank"],
            stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, start_new_session=True)
        try:
            self._socket = self._connect()
        except BaseException:
            self.close()
            raise
        self._next_id = 0
        self.console = []
        self.send("Page.enable")
        self.send("Runtime.enable")
        self.send("Emulation.setDeviceMetricsOverride", width=width, height=height, deviceScaleFactor=1,
                  mobile=False)  # messages the page logged, and its uncaught exceptions

    def _connect(self):
        # The browser writes its DevTools port to the profile once it listens.
        port_file = os.path.join(self._profile, "DevToolsActivePort")
        deadline = time.monotonic() + self._timeout
        while time.monotonic() < deadline:
            if self._process.poll() is not None:
                raise BrowserMissing(f"chromium exited with code {self._process.returncode} at start")
            try:
                with open(port_file) as lines:
                    port = int(lines.readline())
                with urllib.request.urlopen(f"http://127.0.0.1:{port}/json/list", timeout=5) as reply:
                    targets = json.load(reply)
                page = next(t for t in targets if t.get("type") == "page")
                return _WebSocket(page["webSocketDebuggerUrl"], self._timeout)
            except (OSError, ValueError, StopIteration):
                time.sleep(0.1)
        raise TimeoutError("chromium did not open its DevTools port")

    def send(self, method, **params):
        """Sends one command and returns its result; events that arrive in
        the meantime are kept in console when they are log messages."""
        self._next_id += 1
        ident = self._next_id
        self._socket.send(json.dumps({"id": ident, "method": method, "params": params}))
        while True:
            message = json.loads(self._socket.receive())
            if message.get("id") == ident:
                if "error" in message:
                    raise RuntimeError(f"{method}: {message['error'].get('message')}")
                return message.get("result", {})
            if message.get("method") == "Runtime.consoleAPICalled":
                args = message["params"].get("args", [])
                self.console.append(" ".join(str(a.get("value", a.get("description", ""))) for a in args))
            elif message.get("method") == "Runtime.exceptionThrown":
                details = message["params"]["exceptionDetails"]
                self.console.append("exception: " + details.get("exception", {}).get("description",
                                                                                        details.get("text", "")))

    def navigate(self, url):
        self.send("Page.navigate", url=url)

    def evaluate(self, expression):
        """The value of a JavaScript expression (promises awaited)."""
        result = self.send("Runtime.evaluate", expression=expression, returnByValue=True, awaitPromise=True)
        if "exceptionDetails" in result:
            raise RuntimeError(f"{expression}: {result['exceptionDetails'].get('exception', {}).get('description')}")
        return result["result"].get("value")

    def wait_for(self, expression, timeout=20.0, poll=0.1):
        """Waits until expression is true in the page; returns its last value."""
        deadline = time.monotonic() + timeout
        while True:
            try:
                value = self.evaluate(expression)
            except RuntimeError:
                value = None
            if value or time.monotonic() > deadline:
                return value
            time.sleep(poll)

    def screenshot(self, path):
        data = self.send("Page.captureScreenshot", format="png")["data"]
        with open(path, "wb") as out:
            out.write(base64.b64decode(data))
        return path

    def close(self):
        if getattr(self, "_socket", None) is not None:
            self._socket.close()
            self._socket = None
        if self._process.poll() is None:
            self._process.terminate()
            try:
                self._process.wait(10)
            except subprocess.TimeoutExpired:
                self._process.kill()
                self._process.wait()
        try:  # the browser's helper processes, in the session it was started in
            os.killpg(self._process.pid, signal.SIGKILL)
        except ProcessLookupError:
            pass
        shutil.rmtree(self._profile, ignore_errors=True)

    def __enter__(self):
        return self

    def __exit__(self, *exc):
        self.close()
        return False
