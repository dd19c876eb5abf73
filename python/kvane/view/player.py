"""Plays a recording through the kernel ping by ping for the page: at the
pace the pings were recorded (or faster, or as fast as the kernel goes),
paused, stepped, looped, with display parameters changed between pings, and
keeps the last pings for the pages that ask for them."""

import collections
import json
import math
import os
import threading
import time

from ..blocks import SAMPLE_RATE
from ..products import ping_soundings
from ..recording import RecordingError, read_recording, roll_parameters
from .payload import TUNABLE, ping_payload

# Waterfall lines kept for a page that opens late or falls behind, and the
# newest wedges (a page draws only the newest ping's wedge of a batch).
HISTORY = 400
WEDGES_KEPT = 4

# Ranges the display accepts for the parameters tuned on the page, inside
# what the parameter block can hold (kvane.Params checks that first).
DISPLAY_RANGES = {
    "imageGain": (1e-6, 1e6),
    "sectorPort": (1.0, 90.0),
    "sectorStarboard": (1.0, 90.0),
    "beamCount": (1, 256),
}

FASTEST = "fast"


def parse_speed(value):
    """A speed: "fast" (as fast as the kernel goes) or a multiple of real
    time, 0.1 to 100. Raises ValueError."""
    if isinstance(value, str) and value.strip().lower() in ("fast", "fastest"):
        return FASTEST
    if isinstance(value, str) and value.strip().lower() in ("real", "realtime", "real-time"):
        return 1.0
    try:
        factor = float(value)
    except (TypeError, ValueError):
        raise ValueError(f"speed {value!r}: give fast or a multiple of real time (0.1 to 100)") from None
    if not 0.1 <= factor <= 100.0:
        raise ValueError(f"speed {value!r}: give fast or a multiple of real time (0.1 to 100)")
    return factor


def parse_tunable(name, value):
    """One display parameter from the page as the number the block takes:
    text or a JSON number. Raises ValueError with the reason."""
    if name not in TUNABLE:
        raise ValueError(f"{name!r} cannot be set from the page (possible: {', '.join(TUNABLE)})")
    whole = name == "beamCount"
    if isinstance(value, str):
        text = value.strip()
        try:
            return int(text) if whole else float(text)
        except ValueError:
            kind = "a whole number" if whole else "a number"
            raise ValueError(f"{name} = {value!r} is not {kind}") from None
    if isinstance(value, bool) or not isinstance(value, (int, float)):
        raise ValueError(f"{name} = {value!r} is not a number")
    return value


class FollowStream:
    """A recording that is still being written, read as a binary stream
    whose read(count) waits for the count bytes to land instead of returning
    short; it gives up (returns what it has) only when stop is set."""

    def __init__(self, path, stop, on_wait=None, poll=0.1):
        self._file = open(path, "rb")
        self._stop = stop
        self._on_wait = on_wait or (lambda waiting: None)
        self._poll = poll

    def read(self, count):
        chunks, got, waited = [], 0, False
        while got < count:
            chunk = self._file.read(count - got)
            if chunk:
                chunks.append(chunk)
                got += len(chunk)
                continue
            if not waited:
                waited = True
                self._on_wait(True)
            if self._stop.wait(self._poll):
                break
        if waited:
            self._on_wait(False)
        return b"".join(chunks)

    def close(self):
        self._file.close()


class Player:
    """Runs the recording through the workspace on a thread of its own
    (start(), stop()); the page's requests read its pings and state and
    steer it through control()."""

    def __init__(self, path, workspace, params, *, follow=False, loop=False, speed=1.0, playing=True,
                 roll_from_aux=False):
        self.path = os.fspath(path)
        self.name = os.path.basename(self.path)
        self._workspace = workspace
        self._params = params
        self._pending = {}
        self.follow = follow
        self.loop = loop
        self.speed = speed
        self.playing = playing
        self._steps = 0
        self._roll_from_aux = roll_from_aux
        self._cond = threading.Condition()
        self._stop = threading.Event()
        self._entries = collections.deque(maxlen=HISTORY)  # (seq, JSON without the wedge)
        self._wedges = collections.deque(maxlen=WEDGES_KEPT)  # (seq, wedge JSON)
        self._seq = 0
        self._version = 0  # bumped on every change of the state a page shows
        self._status = "starting"
        self._message = None
        self._waiting_for = None
        self._seen = 0
        self._pass = 0
        # Pacing, kept across the passes of a loop: the previous ping's start
        # (monotonic clock), ping time (ms) and samples, and the last interval
        # the records' ping times gave.
        self._last_start = self._last_time = self._recorded_interval = None
        self._last_samples = 0
        self._thread = threading.Thread(target=self._run, name="kvane-view player", daemon=True)

    # ---- the page's side -------------------------------------------------

    def start(self):
        self._thread.start()

    def stop(self, timeout=10.0):
        self._stop.set()
        with self._cond:
            self._cond.notify_all()
        if self._thread.is_alive():
            self._thread.join(timeout)

    def state(self):
        with self._cond:
            return self._state_locked()

    def _state_locked(self):
        status = self._status
        if self._waiting_for is not None:
            status = f"waiting for record {self._waiting_for} to be written"
        return {
            "recording": self.name,
            "follow": self.follow,
            "playing": self.playing,
            "speed": self.speed,
            "loop": self.loop,
            "params": {name: getattr(self._params, name) for name in TUNABLE},
            "pending": dict(self._pending),
            "status": status,
            "message": self._message,
            "seq": self._seq,
            "version": self._version,
        }

    def pings_after(self, after, version=None, timeout=0.0, limit=HISTORY):
        """The JSON text of {"pings": [...], "state": {...}}: the newest
        `limit` of the kept pings with seq above `after` (the wedge with the
        newest only), waiting up to timeout seconds for one when there is
        none and the state is still at `version`. A page whose `after` lies
        ahead of the player (the server was restarted) gets the kept pings
        from the start."""
        deadline = time.monotonic() + timeout
        with self._cond:
            while not self._stop.is_set():
                if after > self._seq:
                    after = -1
                if self._seq > after or (version is not None and version != self._version):
                    break
                left = deadline - time.monotonic()
                if left <= 0:
                    break
                self._cond.wait(left)
            entries = [entry for entry in self._entries if entry[0] > after][-max(limit, 1):]
            wedge = self._wedges[-1] if self._wedges else None
            state = self._state_locked()
        parts = [text for _, text in entries]
        if entries and wedge is not None and wedge[0] == entries[-1][0]:
            parts[-1] = parts[-1][:-1] + ',"wedge":' + wedge[1] + "}"
        return '{"pings":[' + ",".join(parts) + '],"state":' + json.dumps(state, allow_nan=False) + "}"

    def control(self, request):
        """Applies a request from the page: {"action": "play" | "pause" |
        "step", "speed": ..., "loop": bool, "params": {name: value}}, any of
        them. Everything is checked before anything changes; a refusal
        raises ValueError with the reason and changes nothing. Returns a
        short note of what changed."""
        if not isinstance(request, dict):
            raise ValueError("a control request is a JSON object")
        unknown = set(request) - {"action", "speed", "loop", "params"}
        if unknown:
            raise ValueError(f"unknown control {sorted(unknown)[0]!r}")
        action = request.get("action")
        if action not in (None, "play", "pause", "step"):
            raise ValueError(f"unknown action {action!r} (possible: play, pause, step)")
        speed = parse_speed(request["speed"]) if "speed" in request else None
        loop = request.get("loop")
        if loop is not None and not isinstance(loop, bool):
            raise ValueError("loop is true or false")
        values = request.get("params") or {}
        if not isinstance(values, dict):
            raise ValueError("params is an object of parameter values")
        parsed = {name: parse_tunable(name, value) for name, value in values.items()}
        notes = []
        with self._cond:
            if parsed:
                merged = {**self._pending, **parsed}
                # The parameter block's own checks, then the display's ranges:
                # a value refused here never reaches the kernel.
                try:
                    trial = self._params.replace(**merged)
                except (TypeError, ValueError) as error:
                    raise ValueError(str(error)) from None
                for name in parsed:
                    low, high = DISPLAY_RANGES[name]
                    value = getattr(trial, name)
                    if not (math.isfinite(value) and low <= value <= high):
                        raise ValueError(f"{name} = {values[name]} is refused: the display takes {low:g} to {high:g}")
                self._pending = merged
                notes.append(", ".join(f"{name} = {value}" for name, value in parsed.items()) + " from the next ping")
            if speed is not None:
                self.speed = speed
            if loop is not None:
                self.loop = loop
            if action == "play":
                self.playing = True
            elif action == "pause":
                self.playing = False
            elif action == "step":
                self.playing = False
                self._steps += 1
            if action in ("play", "step") and self._status in ("ended", "stopped"):
                self._message = None
            self._version += 1
            self._cond.notify_all()
        return "; ".join(notes) or "ok"

    # ---- the player's thread ---------------------------------------------

    def _set(self, **fields):
        with self._cond:
            for key, value in fields.items():
                setattr(self, "_" + key, value)
            self._version += 1
            self._cond.notify_all()

    def _run(self):
        try:
            while not self._stop.is_set():
                self._pass += 1
                outcome = self._play_through()
                if outcome == "stop":
                    break
                if outcome == "end" and self.loop and not self.follow:
                    continue
                # At the end, or at a record that cannot be read: wait until
                # the page says play (or step), then start from the first record.
                with self._cond:
                    self.playing = False
                    self._steps = 0
                    self._status = "ended" if outcome == "end" else "stopped"
                    self._version += 1
                    self._cond.notify_all()
                    while not self._stop.is_set() and not self.playing and self._steps == 0:
                        self._cond.wait()
        except Exception as error:  # a fault of the player itself: shown, never a silent stop
            self._set(status="stopped", message=f"{self.name}: {type(error).__name__}: {error}")
            raise

    def _play_through(self):
        stream = None
        if self.follow:
            stream = FollowStream(self.path, self._stop, self._record_waiting)
        reader = read_recording(self.path, stream=stream)
        with self._cond:
            self._seen = 0  # records of this pass shown so far
        try:
            while True:
                try:
                    ping = next(reader)
                except StopIteration:
                    return "end"
                except RecordingError as error:
                    if self._stop.is_set():
                        return "stop"
                    self._set(message=f"{error}; the pings before it stay shown")
                    return "error"
                roll = roll_parameters(ping.aux)
                ping_time = None if roll is None else roll["pingTime"]
                if not self._wait_turn(self._last_start, self._interval_to(ping_time)):
                    return "stop"
                self._last_start = time.monotonic()
                self._last_time, self._last_samples = ping_time, ping.sample_count
                if not self._show(ping, roll, ping_time):
                    return "error"
        finally:
            reader.close()
            if stream is not None:
                stream.close()

    def _interval_to(self, ping_time):
        """Seconds of recording from the previous ping to this one: from the
        records' ping times, where both have one and they ascend; at the
        start of a loop's next pass the last such interval; else the
        previous ping's duration."""
        if self._last_time is not None and ping_time is not None and ping_time > self._last_time:
            self._recorded_interval = (ping_time - self._last_time) / 1000.0
            return self._recorded_interval
        if ping_time is not None and self._recorded_interval is not None:
            return self._recorded_interval
        return self._last_samples / SAMPLE_RATE

    def _record_waiting(self, waiting):
        with self._cond:
            self._waiting_for = (self._seen + 1) if waiting else None
            self._version += 1
            self._cond.notify_all()

    def _wait_turn(self, last_start, interval):
        """Waits until the ping may run: playing and due (at the chosen
        speed, `interval` seconds of recording after the previous ping's
        start), or a step asked for. False when the player is stopped."""
        with self._cond:
            while True:
                if self._stop.is_set():
                    return False
                if self.playing:
                    if self.speed != FASTEST and last_start is not None:
                        left = last_start + interval / self.speed - time.monotonic()
                        if left > 0:
                            self._cond.wait(left)
                            continue
                    self._status = "playing"
                    return True
                if self._steps > 0:
                    self._steps -= 1
                    self._status = "paused"
                    return True
                if self._status != "paused":
                    self._status = "paused"
                    self._version += 1
                    self._cond.notify_all()
                self._cond.wait()

    def _show(self, ping, roll, ping_time):
        """Runs one ping with the parameters in force and publishes it."""
        with self._cond:
            if self._pending:
                self._params = self._params.replace(**self._pending)
                self._pending = {}
            params = self._params.replace()
        if self._roll_from_aux:
            if roll is None:
                self._set(message=f"{self.path}: record {ping.number}: auxiliary block holds no roll table")
                return False
            params = params.replace(**roll)
        segmented = params.rollCount != 1  # read before the kernel may write rollCount back
        # The workspace's own output buffers: the payload copies what it keeps.
        result = self._workspace.process(params, ping.plane_i, ping.plane_q, reuse_buffers=True)
        soundings = ping_soundings(result, params, roll, segmented=segmented)
        head, wedge = ping_payload(self._seq + 1, ping, result, params, soundings, pass_number=self._pass,
                                   ping_time_ms=ping_time)
        with self._cond:
            self._seq += 1
            self._seen = ping.number
            self._entries.append((self._seq, head))
            self._wedges.append((self._seq, wedge))
            self._version += 1
            self._cond.notify_all()
        return True
