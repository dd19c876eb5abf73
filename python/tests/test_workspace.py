"""One ping through the library: arguments, workspace life, outputs."""

import platform
import sys

import numpy as np
import pytest

import kvane


def noise_planes(n, seed=0, scale=1000):
    rng = np.random.default_rng(seed)
    return tuple(rng.integers(-scale, scale, (64, n)).astype(np.int32) for _ in range(2))


def plane_wave(n, angle_deg, arrival, sound_speed=1500.0):
    # Element k hears the echo k * 3.75 mm * sin(angle) / c after element 0.
    k = np.arange(64)[:, None]
    t = np.arange(n)[None, :]
    delay = k * 0.00375 * np.sin(np.radians(angle_deg)) / sound_speed
    envelope = np.exp(-0.5 * ((t - arrival - delay * 20000.0) / 1.5) ** 2)
    rng = np.random.default_rng(3)
    wave = 1e7 * envelope * np.exp(-2j * np.pi * 200e3 * delay)
    wave = wave + 1e4 * (rng.standard_normal((64, n)) + 1j * rng.standard_normal((64, n)))
    return np.round(wave.real).astype(np.int32), np.round(wave.imag).astype(np.int32)


good_i, good_q = noise_planes(100)


@pytest.mark.parametrize(
    "plane_i, plane_q, params, error",
    [
        (good_i.tolist(), good_q, None, TypeError),
        (good_i.astype(np.float64), good_q, None, TypeError),
        (good_i.astype(">i4"), good_q, None, TypeError),
        (good_i[:63], good_q[:63], None, ValueError),
        (good_i[:, :0], good_q[:, :0], None, ValueError),
        (np.zeros((64, 8001), np.int32), np.zeros((64, 8001), np.int32), None, ValueError),
        (good_i, good_q[:, :99], None, ValueError),
        (good_i, good_q, 5, TypeError),
        (good_i, good_q, {"beamCount": 300}, ValueError),
    ],
)
def test_arguments_the_kernel_cannot_take_are_refused(workspace, plane_i, plane_q, params, error):
    with pytest.raises(error):
        workspace.process(params, plane_i, plane_q)


def test_one_live_workspace_per_process(library):
    first = kvane.Workspace()
    try:
        with pytest.raises(RuntimeError, match="already live"):
            kvane.Workspace()
    finally:
        first.close()
    first.close()  # a second close does nothing
    with pytest.raises(RuntimeError, match="closed"):
        first.process(None, good_i, good_q)
    with kvane.Workspace() as second:
        second.process(None, good_i, good_q)
    assert second.closed
    # A workspace dropped without a close releases its hold on the process.
    kvane.Workspace()
    kvane.Workspace().close()


def test_outputs_have_the_ping_shapes(workspace):
    n = 1001  # odd: the waterfall shows 2 * 1000 columns
    plane_i, plane_q = noise_planes(n, seed=1)
    params = kvane.Params(beamCount=128, imageWidth=300, imageHeight=200, sideScanRows=9)
    result = workspace.process(params, plane_i, plane_q)
    assert result.bottom_sample.shape == result.bottom_flag.shape == result.beam_angles.shape == (128,)
    assert (result.beam_image.shape, result.wedge.shape, result.wedge.dtype) == ((128, n), (200, 300), np.uint8)
    assert (result.waterfall.shape, result.segment_roll.shape, result.gain_profile) == ((100, 2000), (6,), None)
    assert np.isfinite(result.first_echo)

    result = workspace.process(params.replace(sideScanRows=200, gainSwitch=1.0), plane_i, plane_q)
    assert result.waterfall.shape == (200, 2000)
    assert result.gain_profile.shape == (1001,)
    # The kernel writes a roll count beyond the table back as 1 into the caller's own block.
    params.rollCount = 101
    workspace.process(params, good_i, good_q)
    assert params.rollCount == 1


def test_a_plane_wave_peaks_in_its_beam_at_its_sample(workspace):
    n, angle, arrival = 1000, 20.0, 400
    plane_i, plane_q = plane_wave(n, angle, arrival)
    result = workspace.process(kvane.Params(), plane_i, plane_q)
    beam, sample = np.unravel_index(np.argmax(result.beam_image), result.beam_image.shape)
    assert abs(result.beam_angles[beam] - angle) <= 1.5 * 140.0 / 256
    # The kernel drops the first 15 samples of every channel.
    assert abs(sample - (arrival - 15)) <= 3


@pytest.mark.skipif(not (sys.platform.startswith("linux") and platform.machine() == "x86_64"),
                    reason="the SSE control word is reached on x86-64 Linux only")
def test_denormal_modes_hold_inside_the_context_only():
    tiny = np.array([1e-39], np.float32)
    with kvane.DenormalsFlushed():
        assert (tiny * np.float32(1.0))[0] == 0.0
    assert (tiny * np.float32(1.0))[0] != 0.0
    with kvane.DenormalsFlushed(enabled=False):
        assert (tiny * np.float32(1.0))[0] != 0.0
