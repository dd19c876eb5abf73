"""kvane-view on short simulated recordings: the page in headless chromium,
and the server's answers to bad input, dropped clients and a recording that
is still being written."""

import json
import os
import pathlib
import re
import socket
import subprocess
import tempfile
import time
import urllib.error
import urllib.request

import pytest

from conftest import ARTEFACTS
from devtools import Browser, BrowserMissing

SOURCE_DIR = pathlib.Path(__file__).resolve().parents[2]


class View:
    """kvane-view running on a free port, stopped at the end of the block."""

    def __init__(self, tool, recording, *options):
        self.errors = tempfile.TemporaryFile("w+")
        self.process = subprocess.Popen([str(tool("kvane-view")), str(recording), "--port", "0", *options],
                                        stdout=subprocess.PIPE, stderr=self.errors, text=True)
        line = self.process.stdout.readline()
        match = re.search(r"http://([\d.]+):(\d+)/", line)
        if not match:
            self.process.kill()
            raise AssertionError(f"kvane-view did not start: {line}{self.stderr()}")
        self.url = match.group(0)
        self.address = (match.group(1), int(match.group(2)))

    def get(self, path):
        with urllib.request.urlopen(self.url + path.lstrip("/"), timeout=30) as reply:
            return json.load(reply)

    def post(self, request):
        data = json.dumps(request).encode()
        try:
            with urllib.request.urlopen(urllib.request.Request(self.url + "api/control", data), timeout=30) as reply:
                return reply.status, json.load(reply)
        except urllib.error.HTTPError as error:
            return error.code, json.load(error)

    def pings(self):
        return self.get("api/pings?after=-1")["pings"]

    def state(self):
        return self.get("api/state")["state"]

    def wait(self, condition, timeout=30.0):
        """Waits until condition(state) holds; returns the state."""
        deadline = time.monotonic() + timeout
        while True:
            state = self.state()
            if condition(state):
                return state
            assert time.monotonic() < deadline, f"kvane-view never got there; last state {state}"
            time.sleep(0.05)

    def stderr(self):
        self.errors.seek(0)
        return self.errors.read()

    def __enter__(self):
        return self

    def __exit__(self, *exc):
        self.process.terminate()
        try:
            self.process.wait(15)
        except subprocess.TimeoutExpired:
            self.process.kill()
            self.process.wait()
        self.errors.close()
        return False


def records_of(path):
    """The records of a recording, each as its bytes."""
    import kvane

    return [kvane.encode_record(p.plane_i, p.plane_q, p.lc, p.aux) for p in kvane.read_recording(path)]


@pytest.fixture(scope="module")
def recording(simulated, tmp_path_factory):
    return simulated(tmp_path_factory.mktemp("view") / "short.kvr", "--pings", 5, "--samples", 1500, "--depth", 15)


def artefact_dir():
    folder = pathlib.Path(os.environ.get("KVANE_BINARY_DIR", SOURCE_DIR / "build")) / "test-artefacts"
    folder.mkdir(parents=True, exist_ok=True)
    return folder


# Per canvas: the share of its pixels in the warm colours of the colour map
# (red well above blue: echoes; the rings, labels and the dark noise floor
# are not), the share that is not dark, and the number of distinct colours.
CANVAS_DRAWN = """(() => {
  const out = {};
  for (const id of ["wedge", "waterfall", "profile"]) {
    const c = document.getElementById(id);
    const d = c.getContext("2d").getImageData(0, 0, c.width, c.height).data;
    let warm = 0, lit = 0; const colours = new Set();
    for (let i = 0; i < d.length; i += 4) {
      if (d[i] - d[i + 2] > 60) warm++;
      if (d[i] + d[i + 1] + d[i + 2] > 60) lit++;
      colours.add((d[i] << 16) | (d[i + 1] << 8) | d[i + 2]);
    }
    const pixels = d.length / 4;
    out[id] = {warm: warm / pixels, lit: lit / pixels, colours: colours.size};
  }
  return out;
})()"""


def test_the_page_draws_the_pings_in_headless_chromium(library, tool, recording):
    try:
        browser = Browser(1280, 860)
    except BrowserMissing as error:
        pytest.skip(str(error))
    with browser, View(tool, recording, "--loop", "--speed", "4") as view:
        browser.navigate(view.url)
        assert browser.wait_for("window.kvaneView && window.kvaneView.pingsShown >= 3", timeout=60)
        first = browser.evaluate("[kvaneView.current.seq, document.getElementById('ping-number').textContent]")
        assert browser.wait_for(f"kvaneView.current.seq >= {first[0] + 2}", timeout=30)
        later = browser.evaluate("[kvaneView.current.seq, document.getElementById('ping-number').textContent]")
        assert later[1] != first[1] and later[1].isdigit()

        drawn = browser.evaluate(CANVAS_DRAWN)
        ARTEFACTS.append(browser.screenshot(str(artefact_dir() / "kvane-view.png")))
        # The seabed lights the fan; a few pings of waterfall lines light
        # the top of theirs; the profile's points are drawn.
        assert drawn["wedge"]["warm"] > 0.03 and drawn["wedge"]["colours"] > 100, drawn
        assert drawn["waterfall"]["warm"] > 0.005 and drawn["waterfall"]["colours"] > 100, drawn
        assert drawn["profile"]["lit"] > 0.01, drawn

        # A bad value typed on the page is refused there and never applied.
        browser.evaluate("""(() => {
          const input = document.querySelector('#params input[name=imageGain]');
          input.value = '-3';
          input.dispatchEvent(new Event('input'));
          document.querySelector('#params button').click();
        })()""")
        note = browser.wait_for("document.getElementById('params-note').textContent", timeout=10)
        assert note.startswith("refused") and "imageGain" in note
        assert view.state()["params"]["imageGain"] == 1.0 and view.state()["pending"] == {}
        assert browser.console == []


def test_parameters_are_checked_and_take_effect_from_the_next_ping(library, tool, recording):
    with View(tool, recording, "--paused") as view:
        check_parameters(view)


def check_parameters(view):
    assert view.state()["seq"] == 0
    assert view.post({"action": "step"})[0] == 200
    view.wait(lambda s: s["seq"] == 1)
    # A refused value names itself; one bad value refuses the whole request.
    for request in ([{"imageGain": v} for v in ("-1", "nan", "inf", "two", "1e40", "")]
                    + [{"beamCount": "128", "sectorPort": "95"}, {"beamCount": "12.5"}, {"beamCount": 300},
                       {"beamCount": 64.0}, {"soundSpeed": "1400"}]):
        status, answer = view.post({"params": request})
        assert status == 400 and list(request)[-1] in answer["error"], (request, answer)
        assert answer["state"]["pending"] == {}
    status, answer = view.post({"params": {"beamCount": "128", "imageGain": "0.5"}})
    assert status == 200 and answer["state"]["pending"] == {"beamCount": 128, "imageGain": 0.5}
    assert view.post({"action": "step"})[0] == 200
    view.wait(lambda s: s["seq"] == 2)
    before, after = view.pings()[-2:]
    assert before["params"]["beamCount"] == 256 and len(before["profile"]["depth"]) == 256
    assert after["params"] == {"imageGain": 0.5, "sectorPort": 70.0, "sectorStarboard": 70.0, "beamCount": 128}
    assert len(after["profile"]["depth"]) == len(after["profile"]["flag"]) == 128
    assert len(after["profile"]["beams"][after["profile"]["colour_by"]]["values"]) == 128
    assert 0 <= after["summary"][0]["value"] <= 100
    assert after["number"] == before["number"] + 1
    assert view.post({"action": "rewind"})[0] == 400
    assert view.post({"speed": "0"})[0] == 400


def test_the_server_survives_clients_that_disconnect_mid_answer(library, tool, recording):
    with View(tool, recording, "--loop", "--speed", "fast") as view:
        view.wait(lambda s: s["seq"] >= 2)
        for path in ("/api/pings?after=-1", "/api/pings?after=1000000&timeout=5", "/"):
            for _ in range(3):
                with socket.create_connection(view.address, timeout=10) as client:
                    client.sendall(f"GET {path} HTTP/1.1\r\nHost: x\r\n\r\n".encode())
                    if "after=-1" in path:
                        client.recv(1000)  # part of a long answer, then gone
        with socket.create_connection(view.address, timeout=10) as client:  # a request cut short
            client.sendall(b"POST /api/control HTTP/1.1\r\nHost: x\r\nContent-Length: 500\r\n\r\n{\"act")
        seq = view.state()["seq"]
        view.wait(lambda s: s["seq"] > seq + 3)
        assert view.process.poll() is None
        assert view.stderr() == ""


def test_a_recording_that_cannot_be_shown_fails_before_serving(tool, recording, tmp_path):
    records = records_of(recording)
    broken = bytearray(records[0])
    broken[38:42] = (-5).to_bytes(4, "little", signed=True)
    (tmp_path / "broken.kvr").write_bytes(bytes(broken) + b"".join(records[1:]))
    (tmp_path / "empty.kvr").write_bytes(b"")
    for name, expected in (("missing.kvr", "No such file"), ("broken.kvr", "record 1: sample block of -5 bytes"),
                           ("empty.kvr", "no complete record")):
        run = subprocess.run([str(tool("kvane-view")), str(tmp_path / name), "--port", "0"],
                             capture_output=True, text=True, timeout=60)
        assert run.returncode == 1, name
        assert run.stdout == "" and run.stderr.count("\n") == 1 and name in run.stderr and expected in run.stderr


def test_a_record_gone_bad_midway_keeps_the_pings_before_it(library, tool, recording, tmp_path):
    records = records_of(recording)
    path = tmp_path / "bad-third.kvr"
    path.write_bytes(b"".join(records[:2]) + records[2][:-100])  # the third record cut short
    with View(tool, path, "--speed", "fast") as view:
        state = view.wait(lambda s: s["status"] == "stopped")
        assert "record 3: truncated" in state["message"]
        assert [p["number"] for p in view.pings()] == [1, 2]
        assert view.process.poll() is None


def test_follow_shows_each_record_as_it_lands(library, tool, recording, tmp_path):
    records = records_of(recording)
    path = tmp_path / "growing.kvr"
    path.write_bytes(b"".join(records[:2]))
    with View(tool, path, "--follow") as view:
        view.wait(lambda s: s["seq"] == 2 and s["status"] == "waiting for record 3 to be written")
        with open(path, "ab") as out:
            out.write(records[2][:5000])
            out.flush()
            time.sleep(0.5)
            assert view.state()["seq"] == 2 and view.state()["message"] is None
            out.write(records[2][5000:] + records[3])
        view.wait(lambda s: s["seq"] == 4)
        assert [p["number"] for p in view.pings()] == [1, 2, 3, 4]
