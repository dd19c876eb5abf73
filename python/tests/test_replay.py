"""A simulated recording through the binding gives the replay tool's bottom
line. The kernel keeps state for the life of the process, so the binding's
side runs in a fresh interpreter."""

import json
import os
import subprocess
import sys

import numpy as np
import pytest

from conftest import PYTHON_DIR

BINDING_SIDE = """
import json, sys, kvane
extra = json.loads(sys.argv[3])
with kvane.Workspace() as ws, open(sys.argv[2], "w") as out:
    for ping in kvane.read_recording(sys.argv[1]):
        params = kvane.Params(**extra.get("params", {}))
        if extra.get("roll"):
            params = params.replace(**kvane.roll_parameters(ping.aux))
        result = ws.process(params, ping.plane_i, ping.plane_q)
        out.write(",".join([str(ping.number)] + ["%.9g" % v for v in result.bottom_sample]) + "\\n")
"""


def environment():
    env = dict(os.environ)
    env["PYTHONPATH"] = os.pathsep.join([str(PYTHON_DIR)] + [p for p in [env.get("PYTHONPATH")] if p])
    env["PYTHONDONTWRITEBYTECODE"] = "1"
    return env


def read_lines(path):
    rows = [line.split(",") for line in path.read_text().splitlines() if line.strip()]
    return [int(r[0]) for r in rows], np.array([[np.float32(v) for v in r[1:]] for r in rows], np.float32)


@pytest.fixture(scope="module")
def recording(simulated, tmp_path_factory):
    return simulated(tmp_path_factory.mktemp("replay") / "sim.rec", "--pings", 3, "--samples", 2000, "--depth", 20,
                     "--roll-amplitude", 3)


@pytest.mark.parametrize(
    "replay_options, binding_side",
    [
        ([], {}),
        (["--roll-from-aux", "--set", "beamCount=128"], {"roll": True, "params": {"beamCount": 128}}),
    ],
    ids=["defaults", "roll-128-beams"],
)
def test_bottom_line_matches_the_replay_tool(library, tool, recording, tmp_path, replay_options, binding_side):
    replay_csv = tmp_path / "replay.csv"
    subprocess.run([str(tool("kvane-replay")), str(recording), "--no-dither", "--bottom-csv", str(replay_csv),
                    *replay_options], check=True, capture_output=True)
    binding_csv = tmp_path / "binding.csv"
    subprocess.run([sys.executable, "-c", BINDING_SIDE, str(recording), str(binding_csv), json.dumps(binding_side)],
                   check=True, env=environment())
    replay_pings, replay_lines = read_lines(replay_csv)
    binding_pings, binding_lines = read_lines(binding_csv)
    assert replay_pings == binding_pings == [1, 2, 3]
    beams = binding_side.get("params", {}).get("beamCount", 256)
    assert binding_lines.shape == (3, beams)
    np.testing.assert_array_equal(binding_lines, replay_lines)


def test_plot_example_writes_a_png(library, recording, tmp_path):
    pytest.importorskip("matplotlib")
    out = tmp_path / "ping.png"
    example = PYTHON_DIR / "examples" / "plot_recording.py"
    subprocess.run([sys.executable, str(example), str(recording), "--out", str(out), "--ping", "2"],
                   check=True, env=environment(), capture_output=True)
    assert out.read_bytes()[:4] == b"\x89PNG"
