"""The uncertainty of every sounding against the simulator's truth: at every
signal-to-noise ratio the errors must spread as the predicted sigma says."""


import numpy as np
import pytest

import kvane
from kvane import uncertainty

SNRS = (10, 20, 30)
DEPTH = 20.0


@pytest.fixture(scope="module")
def surveys(simulated, tmp_path_factory, library):
    """Flat and 15-degree seabeds at 20 m, each at three signal-to-noise
    ratios, with the survey's own contributions at 0 (the simulator knows its
    sound speed and roll exactly)."""
    folder = tmp_path_factory.mktemp("uncertainty")
    out = {}
    for snr in SNRS:
        for slope in (0, 15):
            path = folder / f"s{snr}_{slope}.kvr"
            simulated(path, "--depth", DEPTH, "--slope", slope, "--snr", snr, "--pings", 6, "--samples", 2400,
                      "--seed", 100 + snr + slope)
            truth = np.loadtxt(f"{path}.truth.csv", delimiter=",", skiprows=1)
            ds = kvane.process_recording(path, sound_speed_sigma=0.0, roll_sigma=0.0, progress=False)
            out[snr, slope] = ds, truth[:, 1], path
    return out


def errors_and_sigmas(ds, truth_raw, path=None):
    """Depth error along each beam's ray against the truth of that beam, and
    the predicted sigma, for own detections within 60 degrees of nadir."""
    angle = ds.beam_angle.values
    truth_depth = truth_raw[None, :] * 1500.0 / 40000.0 * np.cos(np.radians(angle))
    own = (ds.bottom_flag.values == 1) & (np.abs(angle) < 60.0)
    return (ds.depth.values - truth_depth)[own], ds.depth_uncertainty.values[own], np.abs(angle[own])


@pytest.mark.parametrize("snr", SNRS)
def test_errors_spread_as_predicted(surveys, snr):
    errors, sigmas = [], []
    for slope in (0, 15):
        e, s, _ = errors_and_sigmas(*surveys[snr, slope])
        errors.append(e)
        sigmas.append(s)
    z = np.abs(np.concatenate(errors) / np.concatenate(sigmas))
    assert z.size > 2000
    assert 0.60 <= np.mean(z <= 1.0) <= 0.80
    assert np.mean(z <= 2.0) >= 0.92


def test_sigma_grows_as_the_echo_weakens_and_outward(surveys):
    bins = (0, 10, 20, 30, 40, 50)
    medians = {}
    for snr in SNRS:
        _, s, a = errors_and_sigmas(*surveys[snr, 0])
        medians[snr] = [np.median(s[(a >= lo) & (a < lo + 10)]) for lo in bins]
    for lower, higher in ((10, 20), (20, 30)):
        assert all(x > y for x, y in zip(medians[lower], medians[higher])), medians
    # With the survey's own contributions (sound speed and roll at their
    # defaults) the soundings grow less sure from 20 degrees outward, as the
    # sound speed bends the steering more. Within 20 degrees the short echoes
    # of normal incidence are timed by amplitude, less precisely than a phase
    # ramp (the truth shows it too).
    ds, _, path = surveys[20, 0]
    default = kvane.process_recording(path, progress=False)
    angle = np.abs(default.beam_angle.values)
    own = default.bottom_flag.values == 1
    sigma = [np.median(default.depth_uncertainty.values[own & (angle >= lo) & (angle < lo + 10)]) for lo in bins]
    assert sigma[2:] == sorted(sigma[2:]) and sigma[0] > sigma[2], sigma


def test_survey_contributions_propagate(surveys):
    # The same soundings with the survey's sigmas: the added variance is what
    # first-order propagation through range cos(a) and range sin(a) gives.
    ds, _, path = surveys[20, 15]
    sigma_c, sigma_roll, c = 3.0, 0.1, 1500.0
    with_survey = kvane.process_recording(path, sound_speed_sigma=sigma_c, roll_sigma=sigma_roll, progress=False)
    a, r = np.radians(ds.beam_angle.values), ds.detected_range.values
    r_var = (r * sigma_c / c) ** 2
    a_var = np.radians(sigma_roll) ** 2 + (np.tan(a) * sigma_c / c) ** 2
    expected_d = np.sqrt(ds.depth_uncertainty.values ** 2 + np.cos(a) ** 2 * r_var + (r * np.sin(a)) ** 2 * a_var)
    expected_x = np.sqrt(ds.across_uncertainty.values ** 2 + np.sin(a) ** 2 * r_var + (r * np.cos(a)) ** 2 * a_var)
    np.testing.assert_allclose(with_survey.depth_uncertainty.values, expected_d, rtol=1e-9)
    np.testing.assert_allclose(with_survey.across_uncertainty.values, expected_x, rtol=1e-9)
    # The detection's own share is untouched, and so is the quality factor.
    np.testing.assert_array_equal(with_survey.quality_factor.values, ds.quality_factor.values)


@pytest.mark.parametrize(
    "depth, sigma, order",
    [
        (20.0, 0.29 / 1.96 - 1e-6, "special"),   # special: sqrt(0.25^2 + (0.0075 * 20)^2) = 0.2915
        (20.0, 0.2916 / 1.96, "1a/1b"),
        (20.0, 0.15 / 1.96, "exclusive"),          # exclusive: sqrt(0.15^2 + 0.15^2) = 0.2121
        (20.0, 0.2122 / 1.96, "special"),
        (100.0, 2.5 / 1.96, "2"),                  # order 2: sqrt(1 + 2.3^2) = 2.508
        (100.0, 2.6 / 1.96, "none"),
    ],
)
def test_iho_orders_follow_their_limits(depth, sigma, order):
    code = uncertainty.iho_order(np.array([depth]), np.array([sigma]))[0]
    assert uncertainty.IHO_NAMES[int(code)] == order


def test_echo_window_short_long_and_at_the_beams_ends():
    """Echoes of 6, 150 and 1000 samples (the last cut at 400 each way), one
    at the start of its beam, one at the end: each window is where the
    smoothed power crosses the edge, whatever the length of the first walk."""
    rng = np.random.default_rng(7)
    n = 3000
    image = rng.rayleigh(1.0, (5, n)).astype(np.float32)
    bottom = np.array([1000, 1000, 1500, 3, n - 2], np.float32)
    for beam, (start, stop) in enumerate([(997, 1003), (940, 1090), (1000, 2000), (0, 6), (n - 6, n)]):
        image[beam, start:stop] = 100.0
    noise = 1.0 / np.log(2.0) * np.median(np.square(rng.rayleigh(1.0, 4000)))
    length, snr = uncertainty.echo_windows(image, bottom, noise)
    # The five-sample smoothing carries each edge two samples out; at a
    # beam's end the smoothing's own shorter windows do the same.
    assert list(length) == [6 + 4, 150 + 4, 801, 6 + 4, 6 + 4]
    assert np.all(snr > 1000.0)
    # The short first walk changes nothing against the full walk alone.
    rows = np.arange(5)
    index = bottom.astype(np.int64) - 1
    first, last, window = uncertainty._echo_walk(image, rows, index, noise, uncertainty._MAX_REACH)
    np.testing.assert_array_equal(length, last - first + 1)
    np.testing.assert_array_equal(snr, np.maximum(window / (last - first + 1) / noise - 1.0, 0.01))
