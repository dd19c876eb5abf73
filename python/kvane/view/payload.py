"""What the page receives for one ping: a JSON object whose pictures travel
as base64 of their raw bytes, for the page to colour and draw on canvases.

    {
      "seq": 17,                      # the server's running count of pings shown
      "number": 5, "pass": 2,         # record number from 1, play-through of the recording
      "samples": 8000, "ping_seconds": 0.4, "kernel_ms": 23.4, "real_time_factor": 17.1,
      "ping_time_ms": 12000 or null,  # from the record's roll table
      "params": {"imageGain": 1.0, "sectorPort": 70.0, "sectorStarboard": 70.0, "beamCount": 256},
      "wedge": {...},                 # the kernel's 8-bit raster and where range lies on it
      "waterfall": {...},             # the newest waterfall line, dB, resampled
      "profile": {"across": [...], "depth": [...], "flag": [...],
                  "beams": {NAME: {"values": [...], "units": "m", "label": "..."}},
                  "colour_by": NAME or null},
      "summary": [{"label": "...", "value": 0.97, "units": "..."}]
    }

Soundings and per-ping figures beyond the bottom line enter through
ping_products(): it returns the extra per-beam arrays (the depth
uncertainty, m) and per-ping figures (the share of soundings meeting the
Special Order) that the page shows with the profile. The page colours the
profile's points by profile["colour_by"] when that array is present (or by
any other of profile["beams"], or by origin, as the user picks), and lists
every summary entry beside the ping number.
"""

import base64
import json
import math

import numpy as np

from ..blocks import SAMPLE_RATE
from ..soundings import DROPPED_SAMPLES

# The parameters a user tunes on the page while the recording plays.
TUNABLE = ("imageGain", "sectorPort", "sectorStarboard", "beamCount")

# The IHO order codes of kvane.uncertainty: 3 Special Order, 4 Exclusive Order.
SPECIAL_ORDER = 3

# Columns of a waterfall line on the page: a full-size line (16000 samples)
# is averaged down 16 to 1, shorter lines keep every sample up to this width.
WATERFALL_COLUMNS = 1000


def _b64(array):
    return base64.b64encode(np.ascontiguousarray(array).tobytes()).decode("ascii")


def _rounded(values, digits=3):
    """A list for JSON: floats rounded, None where not finite."""
    return [round(float(v), digits) if math.isfinite(v) else None for v in np.asarray(values, np.float64)]


def wedge_geometry(params, samples):
    """Where range and angle lie on the kernel's wedge raster, for a range
    scale: the apex (raster pixels, x from the left edge of the raster as the
    kernel paints it), pixels per sample across and down, metres per sample.
    The raster's left half shows the starboard beams. The grid is sized as
    the kernel sizes it: its width to height as the sine of the wider sector
    (both ways) to 1, as tall as the raster when the raster is wider than
    tall, and centred across it."""
    width, height = int(params.imageWidth), int(params.imageHeight)
    widest = float(max(np.float32(params.sectorPort), np.float32(params.sectorStarboard)))
    angle = np.float32((180.0 - widest - widest) * 1.5707963705062866 / 180.0)
    half_width = float(np.cos(angle, dtype=np.float32))
    if height <= width:
        rows = height
        cols = int(np.float32(half_width * 2.0) * np.float32(height))
        offset = int((width - cols) * 0.5)
    else:
        cols = width
        rows = int(width * 0.5 / half_width) if half_width > 0 else 0
        offset = 0
    n = max(int(samples), 1)
    return {
        "apex_x": offset + cols / 2.0,
        "pixels_per_sample_x": cols / (2.0 * n * half_width) if half_width > 0 else 0.0,
        "pixels_per_sample_y": rows / n,
        "metres_per_sample": float(np.float32(params.soundSpeed)) / (2.0 * SAMPLE_RATE),
        "dropped_samples": DROPPED_SAMPLES,
        "sector_port": float(params.sectorPort),
        "sector_starboard": float(params.sectorStarboard),
    }


def waterfall_line(row, columns=WATERFALL_COLUMNS):
    """The newest waterfall line (2E floats, port on the left) as at most
    `columns` values of 20 log10 of the mean amplitude over equal spans;
    NaN where nothing was averaged (no beam reached those samples)."""
    row = np.asarray(row, np.float64)
    count = min(len(row), columns)
    if count == 0:
        return np.zeros(0, np.float32)
    edges = np.linspace(0, len(row), count + 1).astype(np.int64)
    mean = np.add.reduceat(row, edges[:-1]) / np.diff(edges)
    with np.errstate(divide="ignore", invalid="ignore"):
        db = np.where(mean > 0.0, 20.0 * np.log10(mean), np.nan)
    return db.astype(np.float32)


def ping_products(result, params, soundings):
    """Per-beam arrays and per-ping figures shown with the profile beyond the
    bottom line itself. Returns (beams, colour_by, summary): beams maps a
    name to {"values": float array per beam (NaN: none), "units", "label"};
    colour_by names the one the profile is coloured by (or None); summary
    is a list of {"label", "value", "units"}. Here: the soundings' depth
    uncertainty, when they carry one, and the share of the ping's soundings
    whose uncertainty meets the IHO Special Order (or the stricter
    Exclusive Order)."""
    uncertainty = getattr(soundings, "uncertainty", None)
    if uncertainty is None:
        return {}, None, []
    beams = {"depth_uncertainty": {"values": uncertainty.depth_uncertainty, "units": "m",
                                   "label": "depth uncertainty"}}
    detected = np.isfinite(soundings.depth_m)
    count = int(detected.sum())
    special = int(np.count_nonzero(uncertainty.iho_order[detected] >= SPECIAL_ORDER))
    share = 100.0 * special / count if count else float("nan")
    return beams, "depth_uncertainty", [{"label": "Special Order", "value": share, "units": "%"}]


def ping_payload(seq, ping, result, params, soundings, *, pass_number, ping_time_ms):
    """The page's JSON for one ping, as two strings: the object without its
    wedge, and the wedge object (sent only with the newest ping of a batch)."""
    samples = result.sample_count
    ping_seconds = samples / SAMPLE_RATE
    kernel = result.kernel_seconds
    beams, colour_by, summary = ping_products(result, params, soundings)
    profile = {
        "across": _rounded(soundings.across_m),
        "depth": _rounded(soundings.depth_m),
        "flag": [int(f) for f in result.bottom_flag],
        "beams": {
            name: {"values": _rounded(entry["values"], 4), "units": entry.get("units", ""),
                   "label": entry.get("label", name)}
            for name, entry in beams.items()
        },
        "colour_by": colour_by if colour_by in beams else None,
    }
    row = result.waterfall[0] if result.waterfall.shape[0] else np.zeros(0, np.float32)
    line = waterfall_line(row)
    geometry = wedge_geometry(params, samples)
    head = {
        "seq": seq,
        "number": ping.number,
        "pass": pass_number,
        "samples": samples,
        "ping_seconds": ping_seconds,
        "kernel_ms": round(kernel * 1000.0, 3),
        "real_time_factor": round(ping_seconds / kernel, 2) if kernel > 0 else None,
        "ping_time_ms": ping_time_ms,
        "first_echo": round(result.first_echo, 1),
        "sound_speed": float(params.soundSpeed),
        "params": {name: getattr(params, name) for name in TUNABLE},
        "waterfall": {
            "db": _b64(line),
            "columns": len(line),
            "half_range_m": (len(row) // 2) * geometry["metres_per_sample"],
        },
        "profile": profile,
        "summary": [{"label": s["label"], "value": _rounded([s["value"]], 4)[0], "units": s.get("units", "")}
                    for s in summary],
    }
    wedge = {
        "width": int(result.wedge.shape[1]),
        "height": int(result.wedge.shape[0]),
        "data": _b64(result.wedge),
        **geometry,
    }
    return json.dumps(head, allow_nan=False), json.dumps(wedge, allow_nan=False)
