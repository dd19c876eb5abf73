"""Pictures of a ping, from a hand-made result (no library needed)."""

import numpy as np
import pytest

import kvane

pytest.importorskip("matplotlib")


def made_result(beams=64, samples=300, rows=20):
    image = np.ones((beams, samples), np.float32)
    bottom = np.full(beams, 150.0, np.float32)
    image[np.arange(beams), bottom.astype(int)] = 1000.0
    flag = np.ones(beams, np.uint8)
    flag[10:14] = 2
    bottom[0] = 0.0  # a rejected beam
    return kvane.PingResult(
        bottom_sample=bottom,
        bottom_flag=flag,
        beam_angles=np.linspace(-70, 70, beams, dtype=np.float32),
        beam_image=image,
        wedge=np.tile(np.arange(200, dtype=np.uint8), (100, 1)),
        waterfall=np.random.default_rng(0).random((rows, 2 * samples)).astype(np.float32),
        first_echo=120.0,
        segment_roll=np.zeros(2, np.float32),
        gain_profile=None,
    )


def test_saving_draws_on_agg_without_pyplot(tmp_path):
    import matplotlib.pyplot as plt

    before = plt.get_fignums()
    path = tmp_path / "ping.png"
    figure = kvane.plot_ping(made_result(), path, title="made")
    assert plt.get_fignums() == before
    assert path.read_bytes()[:8] == b"\x89PNG\r\n\x1a\n"
    # The bottom line is drawn where the beams are valid, copied beams apart.
    line, copied = figure.axes[0].lines[:2]
    assert np.isnan(line.get_ydata()[[0, 10]]).all() and line.get_ydata()[1] == 150.0
    assert len(copied.get_xdata()) == 4

