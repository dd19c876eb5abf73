"""kvane-view RECORDING: runs a recording through the kernel ping by ping and
serves a page that shows it live: the water-column wedge with a range scale,
the side-scan waterfall, the bottom profile in metres and the timing of
every ping, with play, pause, step, speed, loop and the display parameters.

    kvane-view survey.kvr                 # then open http://127.0.0.1:8765/
    kvane-view survey.kvr --follow        # a recording still being written

The page asks for pings with GET /api/pings?after=SEQ&version=V&timeout=S
&limit=N (a long poll: the answer, the newest N pings after SEQ, comes when a
ping newer than SEQ is there, the state changed from V, or after S seconds)
and steers the player with POST /api/control. Everything it loads comes from this package's static/ folder.
"""

import argparse
import json
import os
import pathlib
import signal
import sys
import threading
from http.server import BaseHTTPRequestHandler, ThreadingHTTPServer
from urllib.parse import parse_qs, urlsplit

from ..blocks import PARAMETER_NAMES, Params
from ..recording import RecordingError, read_recording
from ..workspace import Workspace
from .player import FASTEST, HISTORY, Player, parse_speed

STATIC_DIR = pathlib.Path(__file__).resolve().parent / "static"
_TYPES = {".html": "text/html; charset=utf-8", ".css": "text/css; charset=utf-8",
          ".js": "text/javascript; charset=utf-8", ".png": "image/png", ".svg": "image/svg+xml"}
_MAX_BODY = 65536
_MAX_POLL = 30.0


def _static_files():
    files = {}
    for path in sorted(STATIC_DIR.iterdir()):
        if path.suffix in _TYPES and path.is_file():
            files[path.name] = (path.read_bytes(), _TYPES[path.suffix])
    return files


class _Handler(BaseHTTPRequestHandler):
    protocol_version = "HTTP/1.1"  # keep-alive: the page polls many times a second
    server_version = "kvane-view"
    player = None  # set on the subclass made by make_server
    files = {}
    verbose = False

    def do_GET(self):
        url = urlsplit(self.path)
        if url.path in ("/", "/index.html"):
            self._send_file("index.html")
        elif url.path.startswith("/static/"):
            self._send_file(url.path[len("/static/"):])
        elif url.path == "/api/state":
            self._send_json(200, {"state": self.player.state()})
        elif url.path == "/api/pings":
            query = parse_qs(url.query)
            try:
                after = int(query.get("after", ["-1"])[0])
                version = int(query["version"][0]) if "version" in query else None
                timeout = min(max(float(query.get("timeout", ["0"])[0]), 0.0), _MAX_POLL)
                limit = int(query.get("limit", [str(HISTORY)])[0])
            except ValueError:
                self._send_json(400, {"error": "after, version, timeout and limit are numbers"})
                return
            body = self.player.pings_after(after, version, timeout, limit)
            self._send(200, body.encode("utf-8"), "application/json")
        else:
            self._send_json(404, {"error": f"no such page: {url.path}"})

    def do_POST(self):
        if urlsplit(self.path).path != "/api/control":
            self._send_json(404, {"error": "POST goes to /api/control"})
            return
        try:
            length = int(self.headers.get("Content-Length", "0"))
        except ValueError:
            length = -1
        if not 0 < length <= _MAX_BODY:
            self.close_connection = True
            self._send_json(400, {"error": "a control request is a JSON object of at most 64 kB"})
            return
        body = self.rfile.read(length)
        try:
            request = json.loads(body)
            note = self.player.control(request)
        except (ValueError, UnicodeDecodeError) as error:  # json's errors are ValueErrors too
            self._send_json(400, {"error": str(error), "state": self.player.state()})
            return
        self._send_json(200, {"message": note, "state": self.player.state()})

    def _send_file(self, name):
        entry = self.files.get(name)
        if entry is None:
            self._send_json(404, {"error": f"no such file: {name}"})
        else:
            self._send(200, *entry)

    def _send_json(self, code, value):
        self._send(code, json.dumps(value, allow_nan=False).encode("utf-8"), "application/json")

    def _send(self, code, body, content_type):
        try:
            self.send_response(code)
            self.send_header("Content-Type", content_type)
            self.send_header("Content-Length", str(len(body)))
            self.send_header("Cache-Control", "no-store")
            self.end_headers()
            self.wfile.write(body)
        except (BrokenPipeError, ConnectionResetError):
            # The page went away mid-answer (closed, reloaded): nothing to do.
            self.close_connection = True

    def log_message(self, format, *args):
        if self.verbose:
            super().log_message(format, *args)


class _Server(ThreadingHTTPServer):
    daemon_threads = True

    def handle_error(self, request, client_address):
        # A client that drops its connection is no fault of the server's.
        if isinstance(sys.exc_info()[1], ConnectionError):
            return
        super().handle_error(request, client_address)


def make_server(player, host, port, verbose=False):
    """An HTTP server for player on host:port (port 0: any free port)."""
    handler = type("Handler", (_Handler,), {"player": player, "files": _static_files(), "verbose": verbose})
    return _Server((host, port), handler)


def _parameter(text):
    name, _, value = text.partition("=")
    if name not in PARAMETER_NAMES or name in ("rollAngle", "rollTime") or not value:
        raise argparse.ArgumentTypeError(f"expected NAME=VALUE with NAME a scalar parameter, got {text!r}")
    whole = isinstance(getattr(Params(), name), int)
    try:
        return name, int(value) if whole else float(value)
    except ValueError:
        raise argparse.ArgumentTypeError(f"{name}: {value!r} is not {'a whole number' if whole else 'a number'}")


def _speed(text):
    try:
        return parse_speed(text)
    except ValueError as error:
        raise argparse.ArgumentTypeError(str(error))


def _check_recording(path, follow):
    """Refuses a recording that cannot be shown, before the page is served:
    one that cannot be opened, or (unless it is followed while it is being
    written) whose first record cannot be read."""
    if follow:
        with open(path, "rb"):
            return
    pings = read_recording(path)
    try:
        next(pings)
    except StopIteration:
        raise RecordingError(f"{path}: no complete record") from None
    finally:
        pings.close()


def main(argv=None):
    parser = argparse.ArgumentParser(
        prog="kvane-view", description="Runs a recording through the kernel and shows it live in the browser.")
    parser.add_argument("recording", help="recorded pings, e.g. from kvane-simulate")
    parser.add_argument("--port", type=int, default=8765, help="port to serve on (default 8765; 0: any free port)")
    parser.add_argument("--host", default="127.0.0.1",
                        help="address to listen on (default 127.0.0.1, this machine only)")
    parser.add_argument("--follow", action="store_true",
                        help="the recording is still being written: show each record as it lands")
    parser.add_argument("--loop", action="store_true", help="start again from the first ping at the end")
    parser.add_argument("--speed", type=_speed, default=None, metavar="X",
                        help="multiple of real time (default 1; with --follow: fast), or fast: as fast "
                             "as the kernel goes")
    parser.add_argument("--paused", action="store_true", help="start paused (the page's play or step starts)")
    parser.add_argument("--set", type=_parameter, action="append", default=[], metavar="NAME=VALUE",
                        help="parameter value, e.g. --set imageGain=0.5 (repeatable)")
    parser.add_argument("--roll-from-aux", action="store_true",
                        help="steer with the roll table of each record (the segmented path)")
    parser.add_argument("--verbose", action="store_true", help="log every request on stderr")
    args = parser.parse_args(argv)
    if not 0 <= args.port <= 65535:
        parser.error(f"--port {args.port}: give 0 to 65535")

    # The page's browser shares the processor with the kernel: waiting
    # OpenMP threads sleep rather than spin, or the two slow each other down
    # several times over. Read when the library is loaded, so set it first.
    os.environ.setdefault("OMP_WAIT_POLICY", "passive")
    try:
        params = Params(**dict(args.set))
        _check_recording(args.recording, args.follow)
        workspace = Workspace(fresh_state=True)
    except OSError as error:
        where = error.filename if error.filename is not None else args.recording
        print(f"kvane-view: {where}: {error.strerror or error}", file=sys.stderr)
        return 1
    except (ValueError, TypeError, RuntimeError) as error:
        print(f"kvane-view: {error}", file=sys.stderr)
        return 1

    speed = args.speed if args.speed is not None else FASTEST if args.follow else 1.0
    player = Player(args.recording, workspace, params, follow=args.follow, loop=args.loop, speed=speed,
                    playing=not args.paused, roll_from_aux=args.roll_from_aux)
    try:
        server = make_server(player, args.host, args.port, args.verbose)
    except OSError as error:
        workspace.close()
        print(f"kvane-view: cannot listen on {args.host}:{args.port}: {error.strerror or error}", file=sys.stderr)
        return 1

    def terminate(signum, frame):
        raise KeyboardInterrupt

    if threading.current_thread() is threading.main_thread():
        signal.signal(signal.SIGTERM, terminate)
    host, port = server.server_address[:2]
    shown = f"[{host}]" if ":" in host else host
    player.start()
    print(f"kvane-view: {player.name} on http://{shown}:{port}/ (Ctrl-C stops)", flush=True)
    try:
        server.serve_forever(poll_interval=0.2)
    except KeyboardInterrupt:
        pass
    finally:
        player.stop()
        server.server_close()
        workspace.close()
    return 0


if __name__ == "__main__":
    sys.exit(main())
