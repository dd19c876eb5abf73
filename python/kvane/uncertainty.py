"""The uncertainty of every sounding, from what its ping shows.

The kernel places every sounding on its beam's steering axis, so the error of
a detection moves the sounding along the beam: it is a range error. Around
the bottom sample the beam image shows the echo: its duration N (samples
where the smoothed power stays within 14 dB of the echo's peak and above the
noise) and its signal-to-noise ratio SNR (mean echo power over the noise
power of the ping's water column). The detector measured the echo one of two
ways, and the result block does not say which; the echo tells:

- amplitude (the halving point of the envelope's running integral) near
  normal incidence, where the echo is short: |angle| < 45 degrees and N < 8;
- phase (the zero crossing of the split-aperture phase) on oblique echoes:
  |angle| >= 45 degrees, or N >= 16, or N >= 12 off the centre 20 degrees;
- between the two the method is not certain, and the larger of the two
  models is taken.

Range standard deviation of the detection, in samples, with P the pulse
length in samples (at least 1) and the echo measured in pulse lengths:
    phase:      sqrt(P^2 * PHASE_FLOOR + PHASE_SPREAD * N/P + PHASE_NOISE * (N/P) / SNR)
                (the phase ramp crosses the beam's phase span over the echo,
                so its slope falls as 1/N and its zero crossing scatters as
                N times the phase noise over sqrt(N): the speckle's share
                grows as N, the noise's as N / SNR; the floor is the pulse
                and the whole-sample output); on the outer beams, which the
                detector gates on a smoother envelope,
                sqrt(P^2 * OUTER_PHASE_FLOOR + PHASE_NOISE * (N/P) / SNR)
    amplitude:  sqrt(P^2 * AMPLITUDE_FLOOR + AMPLITUDE_NOISE / SNR)
    either:     the larger of the two
Angle standard deviation of the detection, from the beam's width and the SNR:
    ANGLE_FACTOR * beamwidth(angle) / sqrt(SNR * N / P)
with beamwidth = 0.03515 rad * (c / 1500) / cos(angle), the 3 dB width of the
array's tapered aperture (64 elements 3.75 mm apart at 200 kHz).

The survey adds its own, 1 sigma: the sound speed scales the range
(range * sigma_c / c) and bends the steering (tan(angle) * sigma_c / c), the
roll turns the angle (sigma_roll). First-order propagation through
depth = range cos(angle) and across = range sin(angle) gives
    depth_uncertainty^2  = (cos a * sigma_r)^2 + (range * sin a * sigma_a)^2
    across_uncertainty^2 = (sin a * sigma_r)^2 + (range * cos a * sigma_a)^2
quality_factor = log10(range / detection range sigma) (Lurton and Augustin),
and iho_order the best IHO S-44 (6th edition) order whose total vertical
uncertainty limit sqrt(a^2 + (b * depth)^2) the sounding's 95 % uncertainty,
1.96 depth_uncertainty, meets.

A beam whose bottom was copied from its inner neighbour carries that beam's
range at its own angle: its range uncertainty adds the range change over the
angle between the two, from the slope of the neighbours' ranges.

The constants were calibrated on the simulator's seabeds (flat and sloped,
10 to 40 m, 10 to 30 dB, 50 us pulse): see the README. tools/products/
uncertainty.cpp is the same model for the C++ tools; the tests hold the two
against each other.
"""

import dataclasses

import numpy as np

from .blocks import SAMPLE_RATE
from .soundings import DROPPED_SAMPLES

# Calibrated on simulated seabeds (README, "How sure is a sounding"): the
# detector's mean lateness, and the model's constants fitted to the errors of
# 46,000 own detections within 60 degrees of nadir (10, 20, 40 m; slopes -10
# to 25 degrees; 10, 20, 30 dB), each method scaled so that 71 % of its errors
# lie within 1 sigma.
RANGE_OFFSET_SAMPLES = 2.07   # samples
PHASE_FLOOR = 0.1285          # samples^2 per pulse length^2
PHASE_SPREAD = 0.00111        # samples^2 per pulse length of echo
PHASE_NOISE = 0.132           # samples^2 per pulse length of echo, times the noise-to-signal ratio
OUTER_PHASE_FLOOR = 0.350     # samples^2 per pulse length^2, outer beams
AMPLITUDE_FLOOR = 0.541       # samples^2 per pulse length^2
AMPLITUDE_NOISE = 83.9        # samples^2 times the noise-to-signal ratio
ANGLE_FACTOR = 0.408
# The detector gates beams outside 49 .. 207 (absolute indices) on an
# envelope smoothed over up to 21 samples instead of 3: their phase detections
# scatter more, whatever the echo's length.
INNER_BEAMS = (49, 207)
BEAMWIDTH_RAD = 0.03515       # 3 dB width at broadside for c = 1500 m/s

# Echo window: smoothed over 5 samples, peak searched within 8 samples of the
# bottom, edges where the power drops 14 dB below the peak (or to 6 dB above
# the noise), at most 400 samples to each side.
_SMOOTH_HALF = 2
_PEAK_REACH = 8
_EDGE_DROP = 25.0
_NOISE_MARGIN = 4.0
_MAX_REACH = 400
_FIRST_REACH = 48  # the first, short walk of echo_windows
_NOISE_SAMPLES = 64  # water-column samples per beam for the noise estimate

# Method classes.
PHASE, AMPLITUDE, EITHER = 1, 2, 3

# IHO S-44 6th edition: (order code, name, a in m, b) from the strictest; the
# code grows with the order's strictness, 0 for none.
IHO_ORDERS = (
    (4, "exclusive", 0.15, 0.0075),
    (3, "special", 0.25, 0.0075),
    (2, "1a/1b", 0.5, 0.013),
    (1, "2", 1.0, 0.023),
)
IHO_NAMES = {0: "none", **{code: name for code, name, _, _ in IHO_ORDERS}}
DEFAULT_SOUND_SPEED_SIGMA = 2.0  # m/s, 1 sigma
DEFAULT_ROLL_SIGMA = 0.02        # degrees, 1 sigma


@dataclasses.dataclass
class Uncertainty:
    """One ping's uncertainties, one entry per beam; NaN (order 0) where the
    beam has no bottom."""

    echo_samples: np.ndarray       # int32[B]: echo duration N, samples (0: no bottom)
    echo_snr: np.ndarray           # float64[B]: echo signal-to-noise ratio (power ratio)
    method: np.ndarray             # uint8[B]: inferred method, 1 phase, 2 amplitude, 3 either, 0 none
    range_sigma: np.ndarray        # float64[B]: detection range std, m
    angle_sigma: np.ndarray        # float64[B]: detection angle std, degrees
    depth_uncertainty: np.ndarray  # float64[B]: m, 1 sigma, detection and survey
    across_uncertainty: np.ndarray
    quality_factor: np.ndarray     # float64[B]: log10(range / range_sigma)
    iho_order: np.ndarray          # uint8[B]: 4 exclusive, 3 special, 2 1a/1b, 1 order 2, 0 none


def noise_power(image, first_echo):
    """Noise power of a ping's beam image: the mean power of the water column
    before the first echo, image samples 16 to 0.8 * first_echo, at most 64
    evenly spaced samples of every beam (from their median: noise power is
    exponentially distributed), or, with less than 16 samples of water column,
    from the 10th percentile of the whole image."""
    image = np.asarray(image, np.float32)
    end = int(0.8 * float(first_echo)) if np.isfinite(first_echo) else 0
    end = min(end, image.shape[1])
    if end - 16 >= 16:
        step = max(1, (end - 16) // _NOISE_SAMPLES)
        return float(np.median(np.square(image[:, 16:end:step].astype(np.float64)))) / np.log(2.0)
    if image.size == 0:
        return float("nan")
    return float(np.percentile(np.square(image.astype(np.float64)), 10.0)) / 0.10536051565782628  # -ln(0.9)


def echo_windows(image, bottom_sample, noise):
    """The echo around the bottom of every beam with one: (N, SNR), the
    window's length in samples and its mean power over the noise power minus
    one (at least 0.01; N is 0 and SNR NaN without a bottom). The bottom
    sample k stands at image sample k - 1. Power is smoothed over 5 samples
    (fewer at the ends of the beam); the peak is sought within 8 samples of
    the bottom; the window ends where the smoothed power falls to a 14 dB
    drop from the peak or to 6 dB above the noise, at most 400 samples from
    the bottom on either side."""
    image = np.asarray(image, np.float32)
    beams, n = image.shape
    bottom = np.asarray(bottom_sample, np.float32)
    length = np.zeros(beams, np.int32)
    snr = np.full(beams, np.nan)
    rows = np.flatnonzero(np.isfinite(bottom) & (bottom != 0.0))
    if rows.size == 0 or n == 0:
        return length, snr
    index = np.clip(bottom[rows].astype(np.int64) - 1, 0, n - 1)
    # Most echoes end within a few dozen samples: walk a short neighbourhood
    # first and only the beams whose echo reaches its end again over the
    # full one. Every value depends only on the samples it covers, so both
    # walks give the same numbers.
    first, last, window = _echo_walk(image, rows, index, noise, _FIRST_REACH)
    again = (first <= 0) | (last >= 2 * _FIRST_REACH)
    if again.any():
        first[again], last[again], window[again] = _echo_walk(image, rows[again], index[again], noise, _MAX_REACH)
    count = last - first + 1
    length[rows] = count
    with np.errstate(invalid="ignore", divide="ignore"):
        snr[rows] = np.maximum(window / count / noise - 1.0, 0.01) if noise > 0 else 1e6
    return length, snr


def _echo_walk(image, rows, index, noise, max_reach):
    """The echo window of the given beams around image sample index, walked
    at most max_reach samples each way: its first and last offsets (counted
    from -max_reach) and its total power, summed in sample order."""
    n = image.shape[1]
    reach = max_reach + _SMOOTH_HALF
    offsets = np.arange(-reach, reach + 1)
    position = index[:, None] + offsets
    inside = (position >= 0) & (position < n)
    power = np.where(inside, np.square(image[rows[:, None], np.clip(position, 0, n - 1)].astype(np.float64)), 0.0)
    counts = inside.astype(np.float64)
    width = power.shape[1] - 2 * _SMOOTH_HALF  # smoothed at offsets -max_reach .. max_reach
    total, count = power[:, :width].copy(), counts[:, :width].copy()
    for k in range(1, 2 * _SMOOTH_HALF + 1):  # sums in sample order
        total += power[:, k: k + width]
        count += counts[:, k: k + width]
    with np.errstate(invalid="ignore", divide="ignore"):
        smoothed = total / count  # NaN outside the beam
    centre = max_reach
    peak = np.nanmax(smoothed[:, centre - _PEAK_REACH: centre + _PEAK_REACH + 1], axis=1)
    edge = np.maximum(peak / _EDGE_DROP, _NOISE_MARGIN * noise)
    above = smoothed > edge[:, None]  # NaN compares false: the beam's ends stop the walk
    left = above[:, centre - 1::-1]
    right = above[:, centre + 1:]
    steps_left = np.where(left.all(axis=1), max_reach, np.argmin(left, axis=1))
    steps_right = np.where(right.all(axis=1), max_reach, np.argmin(right, axis=1))
    first = max_reach - steps_left  # offsets into the smoothed row
    last = max_reach + steps_right
    # The window's power in sample order: a running sum over the row with
    # zeros outside the window (adding zero leaves a sum as it is).
    picked = np.arange(width)[None, :]
    inside_window = (picked >= first[:, None]) & (picked <= last[:, None])
    sample_power = power[:, _SMOOTH_HALF: _SMOOTH_HALF + width]
    window = np.cumsum(np.where(inside_window, sample_power, 0.0), axis=1)[:, -1]
    return first, last, window


def detection_method(angle_deg, echo_samples):
    """The detector's method as the echo shows it: AMPLITUDE for short echoes
    within 45 degrees, PHASE for oblique or long ones, EITHER between; 0 where
    there is no echo."""
    a = np.abs(np.asarray(angle_deg, np.float64))
    n = np.asarray(echo_samples)
    amplitude = (a < 45.0) & (n < 8)
    either = (a < 45.0) & ~amplitude & ((n < 12) | ((a < 20.0) & (n < 16)))
    method = np.where(amplitude, AMPLITUDE, np.where(either, EITHER, PHASE)).astype(np.uint8)
    return np.where(n > 0, method, 0).astype(np.uint8)


def iho_order(depth, depth_uncertainty):
    """The best IHO S-44 order (code of IHO_ORDERS, 0 none) whose vertical
    limit sqrt(a^2 + (b depth)^2) the 95 % uncertainty 1.96 sigma meets."""
    depth = np.abs(np.asarray(depth, np.float64))
    tvu = 1.96 * np.asarray(depth_uncertainty, np.float64)
    order = np.zeros(depth.shape, np.uint8)
    for code, _, a, b in reversed(IHO_ORDERS):  # from the loosest; stricter orders overwrite
        order = np.where(tvu <= np.sqrt(a * a + (b * depth) ** 2), np.uint8(code), order)
    return order


def sounding_uncertainty(image, bottom_sample, bottom_flag, steering_angle, soundings, *, first_echo, pulse_length,
                         sound_speed, sound_speed_sigma=DEFAULT_SOUND_SPEED_SIGMA, roll_sigma=DEFAULT_ROLL_SIGMA):
    """Uncertainty of one ping's soundings.

    image: the ping's beam image (beams, samples); bottom_sample, bottom_flag,
    steering_angle: as the kernel gave them (the method and the beam's width
    follow the steering angle; the propagation the sounding's earth-frame
    angle); soundings: their Soundings (compute_soundings);
    first_echo: the ping's first-echo sample; pulse_length (s) and
    sound_speed (m/s): the parameters it ran with; sound_speed_sigma (m/s)
    and roll_sigma (degrees): the survey's own 1-sigma contributions.
    """
    c = float(np.float32(sound_speed))
    metres_per_sample = c / (2.0 * SAMPLE_RATE)
    pulse = max(float(np.float32(pulse_length)) * SAMPLE_RATE, 1.0)
    noise = noise_power(image, first_echo)
    length, snr = echo_windows(image, bottom_sample, noise)
    angle = soundings.angle_deg
    slant = soundings.range_m
    steering = np.asarray(steering_angle, np.float32).astype(np.float64)
    method = detection_method(steering, length)
    pulses = length.astype(np.float64) / pulse  # echo duration in pulse lengths
    beam = np.arange(len(length))
    inner = (beam >= INNER_BEAMS[0]) & (beam <= INNER_BEAMS[1])
    with np.errstate(invalid="ignore", divide="ignore"):
        spread = np.where(inner, pulse * pulse * PHASE_FLOOR + PHASE_SPREAD * pulses, pulse * pulse * OUTER_PHASE_FLOOR)
        phase = spread + PHASE_NOISE * pulses / snr
        amplitude = pulse * pulse * AMPLITUDE_FLOOR + AMPLITUDE_NOISE / snr
        variance = np.where(method == AMPLITUDE, amplitude,
                            np.where(method == EITHER, np.maximum(phase, amplitude), phase))
        range_sigma = np.where(length > 0, np.sqrt(variance) * metres_per_sample, np.nan)
        radians = np.deg2rad(angle)
        beamwidth = BEAMWIDTH_RAD * (c / 1500.0) / np.cos(np.deg2rad(steering))
        angle_sigma = ANGLE_FACTOR * beamwidth / np.sqrt(snr * pulses)
        range_sigma = _copied_range_sigma(range_sigma, slant, angle, bottom_sample, bottom_flag)
        quality = np.log10(slant / range_sigma)
        survey_range = slant * float(sound_speed_sigma) / c
        survey_angle_sq = np.deg2rad(float(roll_sigma)) ** 2 + (np.tan(radians) * float(sound_speed_sigma) / c) ** 2
        total_range_sq = range_sigma ** 2 + survey_range ** 2
        total_angle_sq = angle_sigma ** 2 + survey_angle_sq
        sin, cos = np.sin(radians), np.cos(radians)
        depth_unc = np.sqrt(cos * cos * total_range_sq + slant * slant * sin * sin * total_angle_sq)
        across_unc = np.sqrt(sin * sin * total_range_sq + slant * slant * cos * cos * total_angle_sq)
    order = np.where(np.isfinite(depth_unc), iho_order(soundings.depth_m, depth_unc), 0).astype(np.uint8)
    return Uncertainty(length, snr, method, range_sigma, np.rad2deg(angle_sigma), depth_unc, across_unc, quality,
                       order)


def _copied_range_sigma(range_sigma, slant, angle, bottom_sample, bottom_flag):
    """A copied beam carries its inner neighbour's range at its own angle: its
    range sigma adds the range change over the angle between the two, from
    the slope of the ranges of that neighbour and the own detection next
    inward of it (or, without one, of a flat seabed, range * tan(angle))."""
    flag = np.asarray(bottom_flag)
    bottom = np.asarray(bottom_sample, np.float32)
    beams = len(flag)
    out = np.array(range_sigma, np.float64)
    centre = beams // 2
    for b in np.flatnonzero((flag == 2) & np.isfinite(slant)):
        inward = -1 if b >= centre else 1
        j = b + inward
        while 0 <= j < beams and not (flag[j] == 1 and bottom[j] == bottom[b]):
            j += inward
        if not 0 <= j < beams:
            out[b] = slant[b]  # no source found: as unsure as the range itself
            continue
        k = j + inward
        while 0 <= k < beams and flag[k] != 1:
            k += inward
        if 0 <= k < beams and angle[k] != angle[j]:
            per_degree = abs((slant[j] - slant[k]) / (angle[j] - angle[k]))
        else:
            per_degree = abs(slant[j] * np.tan(np.deg2rad(angle[j]))) * np.pi / 180.0
        step = per_degree * abs(angle[b] - angle[j])
        out[b] = np.sqrt(out[j] ** 2 + step * step)
    return out
