"""Soundings in metres from the kernel's bottom line.

A beam's bottom sample counts from the first sample the kernel keeps: the
first 15 samples of every channel are dropped, so the two-way travel time of
the sounding is (bottom_sample + 15) / 20000 s, counted from the centre of the
transmitted pulse. Then, in double precision:

    range  = (bottom_sample + 15 - range_offset_samples) * sound_speed / (2 * 20000)   m, one way
    angle  = steering angle - roll at the time of the echo    (one-shot path)
           = steering angle                                    (segmented path)
    across = range * sin(angle)   m, positive to starboard
    depth  = range * cos(angle)   m, positive down, from the array

The segmented path steers its beams with the roll of each 10 ms stretch, so
their angles are already in the earth frame. The one-shot path steers in the
array frame: a beam at array angle a looks at earth angle a - roll, the roll
taken when the echo returns, pingTime + (bottom_sample + 15) / 20 ms. The
roll comes from the recording's roll table (see recording.roll_parameters),
interpolated linearly and held at the table's ends.

tools/products/soundings.cpp is the same computation for the C++ tools; the
tests hold the two against each other.
"""

import dataclasses

import numpy as np

from .blocks import SAMPLE_RATE

DROPPED_SAMPLES = 15  # samples the kernel drops at the head of every channel

# Header of the soundings CSV (kvane-replay --soundings, kvane.write_soundings_csv).
CSV_HEADER = "ping,beam,angle_deg,range_m,across_m,depth_m,flag,depth_unc_m,across_unc_m,qf,iho_order"


@dataclasses.dataclass
class Soundings:
    """One ping's soundings, one entry per beam; NaN where the beam has no
    detection (bottom sample 0 or not finite)."""

    angle_deg: np.ndarray  # float64[B]: earth-frame angle from vertical, negative to port
    range_m: np.ndarray    # float64[B]: one-way slant range, m
    across_m: np.ndarray   # float64[B]: across-track distance, m, positive to starboard
    depth_m: np.ndarray    # float64[B]: depth below the array, m
    uncertainty: object = None  # kvane.uncertainty.Uncertainty, where it was computed

    @property
    def detected(self):
        return np.isfinite(self.range_m)


def interpolate_roll(times_ms, angles_deg, at_ms):
    """Roll (degrees) at the times at_ms, linear between the table's samples
    and held at its ends. times_ms must ascend; an empty table gives 0."""
    times = np.asarray(times_ms, np.float64)
    angles = np.asarray(angles_deg, np.float32).astype(np.float64)
    at = np.asarray(at_ms, np.float64)
    if times.size == 0:
        return np.zeros(at.shape)
    if times.size == 1:
        return np.full(at.shape, angles[0])
    # Interval j holds times[j] <= t < times[j + 1]; outside the table the end
    # interval extrapolates and the result is clamped to the end sample.
    j = np.clip(np.searchsorted(times, at, side="right") - 1, 0, times.size - 2)
    t0, t1 = times[j], times[j + 1]
    a0, a1 = angles[j], angles[j + 1]
    with np.errstate(invalid="ignore", divide="ignore"):
        w = np.where(t1 > t0, (at - t0) / (t1 - t0), 0.0)
    roll = a0 + w * (a1 - a0)
    roll = np.where(at >= times[-1], angles[-1], roll)
    return np.where(at <= times[0], angles[0], roll)


def compute_soundings(
    bottom_sample,
    steering_angle,
    sound_speed,
    *,
    segmented=False,
    roll_times_ms=None,
    roll_angles_deg=None,
    ping_time_ms=0,
    range_offset_samples=0.0,
):
    """Soundings of one ping.

    bottom_sample: the kernel's bottom sample per beam (0 = no detection).
    steering_angle: the ping's steering angles, degrees (beam_angles of a
        PingResult). sound_speed: m/s, the value the ping ran with.
    segmented: the ping took the roll-steered path (its angles are earth angles).
    roll_times_ms, roll_angles_deg, ping_time_ms: the roll table and the time
        of sample 0, same clock; used on the one-shot path only. None: no roll.
    range_offset_samples: subtracted from the raw sample before the range.
    """
    bottom = np.asarray(bottom_sample, np.float32).astype(np.float64)
    steering = np.asarray(steering_angle, np.float32).astype(np.float64)
    detected = np.isfinite(bottom) & (bottom != 0.0)
    raw = np.where(detected, bottom + DROPPED_SAMPLES - float(range_offset_samples), np.nan)
    slant = raw * float(np.float32(sound_speed)) / (2.0 * SAMPLE_RATE)
    angle = np.where(detected, steering, np.nan)
    if not segmented and roll_times_ms is not None and len(roll_times_ms) > 0:
        echo_ms = float(ping_time_ms) + raw * (1000.0 / SAMPLE_RATE)
        angle = angle - interpolate_roll(roll_times_ms, roll_angles_deg, np.where(detected, echo_ms, 0.0))
    radians = np.deg2rad(angle)
    return Soundings(angle, slant, slant * np.sin(radians), slant * np.cos(radians))


def format_csv_row(ping, beam, angle, slant, across, depth, flag, depth_unc, across_unc, quality, order):
    """One line of the soundings CSV (no newline); the C++ tools print the
    same digits. order: the IHO order's name."""
    return (f"{ping},{beam},{angle:.4f},{slant:.4f},{across:.4f},{depth:.4f},{flag},"
            f"{depth_unc:.4f},{across_unc:.4f},{quality:.3f},{order}")
