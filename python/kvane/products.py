"""A whole recording through the kernel as one labelled data set, and its
soundings as the plain CSV that point-cloud and GIS tools read.

    ds = kvane.process_recording("survey.kvr")
    ds.depth.sel(beam=128)                 # nadir depth of every ping, m
    ds.to_netcdf("survey.nc"); ds.to_zarr("survey.zarr")
    kvane.write_soundings_csv(ds, "survey.soundings.csv")
"""

import datetime
import os

import numpy as np

from . import __version__
from .blocks import DEFAULTS, PARAMETER_NAMES, SAMPLE_RATE, Params
from .recording import RecordingError, read_recording, roll_parameters
from .soundings import CSV_HEADER, compute_soundings, format_csv_row
from .uncertainty import (DEFAULT_ROLL_SIGMA, DEFAULT_SOUND_SPEED_SIGMA, IHO_NAMES, RANGE_OFFSET_SAMPLES,
                          sounding_uncertainty)
from .workspace import Workspace

# Two-dimensional outputs are stored one ping per chunk.
_PING_CHUNK = 1


def _as_params(params):
    if params is None:
        return Params()
    if isinstance(params, Params):
        return params.replace()
    if isinstance(params, dict):
        return Params(**params)
    raise TypeError(f"params must be kvane.Params, a dict or None, got {type(params).__name__}")


def _progress_bar(path, progress):
    """A tqdm bar over the pings of path: on a terminal only when progress is
    None, always when True, never when False. Its total assumes records of the
    first record's length (exact for a recording of equal pings)."""
    if progress is False:
        return None
    try:
        from tqdm.auto import tqdm
    except ImportError:
        return None
    total = None
    try:
        size = os.path.getsize(path)
        with open(path, "rb") as stream:
            head = stream.read(42)
        if len(head) == 42:
            sample_bytes = int.from_bytes(head[38:42], "little", signed=True)
            with open(path, "rb") as stream:
                stream.seek(42 + max(sample_bytes, 0))
                aux = int.from_bytes(stream.read(4), "little", signed=True)
            record = 52 + sample_bytes + max(aux, 0)
            if record > 52:
                total = max(1, size // record)
    except OSError:
        pass
    return tqdm(total=total, unit="ping", desc=os.path.basename(path), disable=None if progress is None else False,
                leave=False)


class _Collected:
    """What every ping leaves for the data set, gathered as the pings run."""

    def __init__(self, beam_image):
        self.keep_images = beam_image
        self.numbers, self.times, self.samples = [], [], []
        self.bottom, self.flag, self.steering, self.first_echo = [], [], [], []
        self.angle, self.range, self.across, self.depth = [], [], [], []
        self.uncertainty = []
        self.wedge, self.images = [], []
        self.waterfall = None
        self.segmented = []


def process_recording(path, params=None, *, roll_from_aux=False, beam_image=False, progress=None,
                      range_offset_samples=RANGE_OFFSET_SAMPLES, sound_speed_sigma=DEFAULT_SOUND_SPEED_SIGMA,
                      roll_sigma=DEFAULT_ROLL_SIGMA):
    """Runs every record of a recording through the kernel and returns an
    xarray.Dataset of the whole recording.

    params: kvane.Params, a dict of parameter values, or None for the replay
        tool's values.
    roll_from_aux: take each ping's roll table from its record (as
        kvane-replay --roll-from-aux), so the kernel steers every 200 samples
        with the roll (the segmented path). Without it the one-shot path runs
        and the soundings' angles are corrected with the record's roll table,
        where it has one.
    beam_image: keep the amplitude image of every ping as
        backscatter_amplitude (ping_time, beam, range_sample), 4 bytes a
        sample: 8 MB a full-size ping.
    progress: a progress bar (tqdm) on a terminal when None, always when
        True, never when False.
    range_offset_samples: subtracted from every raw bottom sample before the
        range is computed: the calibration offset of the detector, in samples
        (default: its mean lateness measured on simulated seabeds).
    sound_speed_sigma (m/s), roll_sigma (degrees): the survey's own 1-sigma
        contributions to every sounding's uncertainty.

    The kernel runs on a private image of the library (Workspace with
    fresh_state), so the same recording gives the same data set whatever
    this process ran before. Raises OSError for a file that cannot be opened
    and RecordingError (a ValueError) naming the file and the record for one
    that cannot be read.
    """
    import xarray as xr

    name = os.fspath(path)
    base = _as_params(params)
    got = _Collected(beam_image)
    settings = {"range_offset_samples": float(range_offset_samples),
                "sound_speed_sigma": float(sound_speed_sigma), "roll_sigma": float(roll_sigma)}
    bar = _progress_bar(name, progress)
    try:
        with Workspace(fresh_state=True) as workspace:
            for ping in read_recording(name):
                last = _run_ping(workspace, base, ping, name, roll_from_aux, settings, got)
                if bar is not None:
                    bar.update(1)
            if got.numbers:
                got.waterfall = last.waterfall.copy()
    finally:
        if bar is not None:
            bar.close()
    if not got.numbers:
        raise RecordingError(f"{name}: no complete record")
    return _dataset(xr, got, base, name, roll_from_aux, settings)


def ping_soundings(result, params, roll=None, *, segmented=None, range_offset_samples=RANGE_OFFSET_SAMPLES,
                   sound_speed_sigma=DEFAULT_SOUND_SPEED_SIGMA, roll_sigma=DEFAULT_ROLL_SIGMA):
    """The soundings of one ping with their uncertainty (a Soundings whose
    .uncertainty is an Uncertainty), from its PingResult, the Params it ran
    with and its record's roll table (a dict from roll_parameters, or None).
    segmented: whether the ping took the roll-steered path; None reads it
    from params (rollCount != 1), which is only right if the kernel did not
    write rollCount back during the ping."""
    if segmented is None:
        segmented = params.rollCount != 1
    table = roll if (roll is not None and not segmented) else None
    soundings = compute_soundings(
        result.bottom_sample,
        result.beam_angles,
        params.soundSpeed,
        segmented=segmented,
        roll_times_ms=None if table is None else table["rollTime"],
        roll_angles_deg=None if table is None else table["rollAngle"],
        ping_time_ms=0 if table is None else table["pingTime"],
        range_offset_samples=range_offset_samples,
    )
    soundings.uncertainty = sounding_uncertainty(
        result.beam_image, result.bottom_sample, result.bottom_flag, result.beam_angles, soundings,
        first_echo=result.first_echo,
        pulse_length=params.pulseLength, sound_speed=params.soundSpeed, sound_speed_sigma=sound_speed_sigma,
        roll_sigma=roll_sigma)
    return soundings


def _run_ping(workspace, base, ping, name, roll_from_aux, settings, got):
    roll = roll_parameters(ping.aux)
    params = base
    if roll_from_aux:
        if roll is None:
            raise RecordingError(f"{name}: record {ping.number}: auxiliary block holds no roll table")
        params = base.replace(**roll)
    segmented = params.rollCount != 1  # decided before the kernel may write rollCount back
    result = workspace.process(params, ping.plane_i, ping.plane_q, reuse_buffers=True)
    sounding = ping_soundings(result, params, roll, segmented=segmented, **settings)
    got.numbers.append(ping.number)
    got.times.append(None if roll is None else roll["pingTime"])
    got.samples.append(ping.sample_count)
    got.segmented.append(segmented)
    got.bottom.append(result.bottom_sample)
    got.flag.append(result.bottom_flag)
    got.steering.append(result.beam_angles)
    got.first_echo.append(result.first_echo)
    got.angle.append(sounding.angle_deg)
    got.range.append(sounding.range_m)
    got.across.append(sounding.across_m)
    got.depth.append(sounding.depth_m)
    got.uncertainty.append(sounding.uncertainty)
    got.wedge.append(result.wedge)
    if got.keep_images:
        got.images.append(result.beam_image.copy())  # the next ping writes over the buffer
    return result


def _ping_seconds(got):
    """Seconds from the first ping: from the ping times the records carry,
    or the ping index where any record carries none."""
    if all(t is not None for t in got.times):
        times = np.array(got.times, np.float64)
        return (times - times[0]) / 1000.0, "s", "time of sample 0 of the ping, from the first ping of the recording"
    return np.arange(len(got.numbers), dtype=np.float64), "1", "ping index (the records carry no ping time)"


def _parameter_attributes(params):
    """The parameter block's fields as attributes param_<name>; the roll
    table, which changes from ping to ping, is left out."""
    attrs = {}
    for field in PARAMETER_NAMES:
        if field in ("rollAngle", "rollTime"):
            continue
        value = getattr(params, field)
        attrs[f"param_{field}"] = np.float32(value) if isinstance(value, float) else np.int32(value)
    return attrs


def _stack_padded(rows, width, dtype, fill):
    out = np.full((len(rows), width), fill, dtype)
    for k, row in enumerate(rows):
        out[k, : len(row)] = row
    return out


def _dataset(xr, got, params, name, roll_from_aux, settings):
    beams = len(got.bottom[0])
    seconds, time_units, time_meaning = _ping_seconds(got)
    ping_beam = ("ping_time", "beam")

    def variable(dims, data, units, long_name, **extra):
        return xr.Variable(dims, data, {"units": units, "long_name": long_name, **extra})

    data = {
        "bottom_sample": variable(ping_beam, np.stack(got.bottom), "1",
                                  "bottom sample of the beam, counted after the 15 dropped samples; 0: none"),
        "bottom_flag": variable(ping_beam, np.stack(got.flag), "1", "origin of the bottom sample",
                                flag_values=np.array([0, 1, 2], np.uint8),
                                flag_meanings="no_detection own_detection copied_from_neighbour"),
        "steering_angle": variable(ping_beam, np.stack(got.steering), "degree",
                                   "steering angle of the beam, negative to port (array frame on the one-shot "
                                   "path, earth frame on the roll-steered path)"),
        "beam_angle": variable(ping_beam, np.stack(got.angle), "degree",
                               "earth-frame angle of the sounding from vertical, negative to port"),
        "detected_range": variable(ping_beam, np.stack(got.range), "m", "one-way slant range of the sounding"),
        "across_track": variable(ping_beam, np.stack(got.across), "m",
                                 "across-track distance of the sounding, positive to starboard"),
        "depth": variable(ping_beam, np.stack(got.depth), "m", "depth of the sounding below the array",
                          positive="down"),
        **_uncertainty_variables(variable, got.uncertainty),
        "first_echo_sample": variable(("ping_time",), np.array(got.first_echo, np.float32), "1",
                                      "first-echo sample of the ping, from the channel magnitudes"),
        "segmented": variable(("ping_time",), np.array(got.segmented, np.uint8), "1",
                              "1: the beams were steered with the roll every 200 samples"),
        "sample_count": variable(("ping_time",), np.array(got.samples, np.int32), "1",
                                 "samples per channel of the ping"),
        "wedge": variable(("ping_time", "y", "x"), np.stack(got.wedge), "1",
                          "water-column picture of the ping as the kernel paints it (8-bit)"),
        "waterfall": variable(("waterfall_row", "waterfall_column"), got.waterfall, "1",
                              "side-scan waterfall after the last ping: newest row first, port on the left"),
    }
    coords = {
        "ping_time": ("ping_time", seconds, {"units": time_units, "long_name": time_meaning}),
        "ping_number": ("ping_time", np.array(got.numbers, np.int32),
                        {"units": "1", "long_name": "record number in the recording, from 1"}),
        "beam": ("beam", np.arange(beams, dtype=np.int32),
                 {"units": "1", "long_name": "beam index, 0 at the port end"}),
    }
    if got.keep_images:
        width = max(got.samples)
        amplitude = _stack_images(got.images, width)
        data["backscatter_amplitude"] = variable(
            ("ping_time", "beam", "range_sample"), amplitude, "1",
            "beam amplitude as the kernel forms it (after half-fan clipping); NaN past the ping's last sample")
        coords["range_sample"] = ("range_sample", np.arange(width, dtype=np.int32),
                                  {"units": "1", "long_name": "sample index after the 15 dropped samples"})
    attrs = {
        "title": f"KVane products of {os.path.basename(name)}",
        "recording": os.path.basename(name),
        "source": f"KVane {__version__} (libkvane through the Python binding)",
        "Conventions": "CF-1.8",
        "date_created": datetime.datetime.now(datetime.timezone.utc).strftime("%Y-%m-%dT%H:%M:%SZ"),
        "sample_rate_hz": np.float64(SAMPLE_RATE),
        "dropped_samples": np.int32(15),
        "range_offset_samples": np.float64(settings["range_offset_samples"]),
        "sound_speed_sigma": np.float64(settings["sound_speed_sigma"]),
        "roll_sigma": np.float64(settings["roll_sigma"]),
        "roll_from_aux": np.int32(1 if roll_from_aux else 0),
        **_parameter_attributes(params),
    }
    ds = xr.Dataset(data, coords, attrs)
    for key in ("wedge", "backscatter_amplitude"):
        if key in ds:
            chunks = (_PING_CHUNK,) + ds[key].shape[1:]
            ds[key].encoding.update(chunksizes=chunks, chunks=chunks)  # netCDF, Zarr
    return ds


def _uncertainty_variables(variable, per_ping):
    ping_beam = ("ping_time", "beam")

    def stack(field):
        return np.stack([getattr(u, field) for u in per_ping])

    return {
        "depth_uncertainty": variable(ping_beam, stack("depth_uncertainty"), "m",
                                      "standard uncertainty (1 sigma) of the depth, detection and survey"),
        "across_uncertainty": variable(ping_beam, stack("across_uncertainty"), "m",
                                       "standard uncertainty (1 sigma) of the across-track distance"),
        "range_uncertainty": variable(ping_beam, stack("range_sigma"), "m",
                                      "standard deviation of the detected range, detection alone"),
        "angle_uncertainty": variable(ping_beam, stack("angle_sigma"), "degree",
                                      "standard deviation of the beam angle, detection alone"),
        "quality_factor": variable(ping_beam, stack("quality_factor"), "1",
                                   "quality factor log10(range / range standard deviation)"),
        "iho_order": variable(ping_beam, stack("iho_order"), "1",
                              "best IHO S-44 (6th edition) order whose vertical limit the sounding meets",
                              flag_values=np.array([0, 1, 2, 3, 4], np.uint8),
                              flag_meanings="none order_2 order_1a_1b special_order exclusive_order"),
        "echo_length": variable(ping_beam, stack("echo_samples"), "1",
                                "samples of the echo around the bottom in the beam image (0: no bottom)"),
        "echo_snr": variable(ping_beam, 10.0 * np.log10(stack("echo_snr")), "dB",
                             "signal-to-noise ratio of the echo around the bottom"),
        "detection_method": variable(ping_beam, stack("method"), "1",
                                     "detection method as the echo shows it",
                                     flag_values=np.array([0, 1, 2, 3], np.uint8),
                                     flag_meanings="none phase amplitude phase_or_amplitude"),
    }


def _stack_images(images, width):
    """The pings' amplitude images as one array (ping, beam, sample), chunked
    one ping per chunk (a dask array when dask is installed)."""
    beams = images[0].shape[0]
    padded = []
    for image in images:
        if image.shape[1] < width:
            full = np.full((beams, width), np.nan, np.float32)
            full[:, : image.shape[1]] = image
            image = full
        padded.append(image)
    try:
        import dask.array as da
    except ImportError:
        return np.stack(padded)
    return da.stack([da.from_array(image, chunks=image.shape) for image in padded])


def soundings_rows(ds):
    """The lines of the soundings CSV of a data set from process_recording,
    header first: one line per beam with a bottom, pings in order."""
    yield CSV_HEADER
    numbers = ds["ping_number"].values
    flags = ds["bottom_flag"].values
    bottom = ds["bottom_sample"].values
    columns = [ds[name].values for name in ("beam_angle", "detected_range", "across_track", "depth")]
    flag_column = [flags]
    extra = [ds[name].values for name in ("depth_uncertainty", "across_uncertainty", "quality_factor")]
    orders = ds["iho_order"].values
    for p in range(len(numbers)):
        for b in np.flatnonzero(np.isfinite(bottom[p]) & (bottom[p] != 0)):
            yield format_csv_row(numbers[p], b, *(c[p, b] for c in columns), *(f[p, b] for f in flag_column),
                                 *(x[p, b] for x in extra), IHO_NAMES[int(orders[p, b])])


def write_soundings_csv(ds, path):
    """Writes the soundings CSV (header ping,beam,angle_deg,range_m,across_m,
    depth_m,flag) of a data set from process_recording."""
    with open(os.fspath(path), "w") as out:
        for line in soundings_rows(ds):
            out.write(line + "\n")
