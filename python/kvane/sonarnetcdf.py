"""A recording's data set in the layout of the ICES SONAR-netCDF4 convention
(version 1.0): the netCDF4 group tree that water-column software reads.

    ds = kvane.process_recording("survey.kvr", beam_image=True)
    kvane.to_sonar_netcdf(ds, "survey.nc")
    xarray.open_dataset("survey.nc", group="Sonar/Beam_group1")

This module knows the convention and the names of the data set that
kvane.process_recording returns; it never runs the kernel. Where the
convention names a quantity, its name, type and units are used; what the
convention does not name keeps the data set's own name (the README lists
these additions).
"""

import contextlib
import datetime
import os
import uuid

import numpy as np

from . import __version__

CONVENTION_VERSION = "1.0"
BEAM_GROUP = "Sonar/Beam_group1"
BATHYMETRY_GROUP = BEAM_GROUP + "/Bathymetry"

# Every beam of the array transmits and receives a CW pulse on this carrier.
CARRIER_HZ = 200000.0

# What the writer reads from the data set: variables with their dimensions,
# then global attributes.
_REQUIRED_VARIABLES = {
    "steering_angle": ("ping_time", "beam"),
    "detected_range": ("ping_time", "beam"),
    "beam_angle": ("ping_time", "beam"),
    "across_track": ("ping_time", "beam"),
    "depth": ("ping_time", "beam"),
    "bottom_flag": ("ping_time", "beam"),
    "segmented": ("ping_time",),
}
_REQUIRED_ATTRIBUTES = ("recording", "sample_rate_hz", "dropped_samples", "range_offset_samples",
                        "param_soundSpeed", "param_pulseLength")

# Global attributes of the data set that the file states in its own terms
# (root attributes, source_filenames); all others go to /Provenance as they are.
_RESTATED_ATTRIBUTES = ("title", "Conventions", "date_created", "recording")

_BEAM_STABILISATION = {"not_stabilised": 0, "stabilised": 1}
_BEAM_TYPE = {"single": 0, "split_aperture": 1}
_TRANSMIT_TYPE = {"CW": 0, "LFM": 1, "HFM": 2}

_NS_PER_S = 1_000_000_000


def to_sonar_netcdf(ds, path, *, first_ping_time=None):
    """Writes a data set from kvane.process_recording to path as a
    SONAR-netCDF4 file (netCDF4): root attributes, the groups Annotation,
    Environment, Platform, Provenance and Sonar, the pings and formed beams
    in Sonar/Beam_group1 and the soundings in Sonar/Beam_group1/Bathymetry.

    first_ping_time: when the first ping was sent (datetime, UTC when naive,
        or numpy.datetime64). Recordings carry ping times on a clock without
        a date, so by default ping_time holds nanoseconds from the first ping
        (xarray reads them as timedelta64); with first_ping_time it holds
        nanoseconds since 1970-01-01 00:00:00Z (read as datetime64).

    Without beam images in the data set (process_recording with
    beam_image=False) the file has no backscatter_r and everything else.
    The file is written under a temporary name in the same directory and
    renamed at the end, so a failed write leaves no partial file.

    Raises ValueError naming what the data set lacks and OSError naming the
    path when it cannot be written.
    """
    import netCDF4

    _check_data_set(ds)
    name = os.fspath(path)
    ping_ns, time_attrs = _ping_times(ds, first_ping_time)
    folder, base = os.path.split(os.path.abspath(name))
    temporary = os.path.join(folder, f".{base}.{uuid.uuid4().hex[:12]}.tmp")
    try:
        # Python's open names the reason (missing folder, no permission)
        # more truly than the netCDF library does.
        open(temporary, "xb").close()
    except OSError as error:
        raise type(error)(error.errno, error.strerror, name) from error
    try:
        with netCDF4.Dataset(temporary, "w", format="NETCDF4") as nc:
            _write(nc, ds, ping_ns, time_attrs)
        os.replace(temporary, name)
    except BaseException:
        with contextlib.suppress(OSError):
            os.remove(temporary)
        raise


def _check_data_set(ds):
    import xarray as xr

    if not isinstance(ds, xr.Dataset):
        raise TypeError(f"to_sonar_netcdf needs the xarray.Dataset of kvane.process_recording, got {type(ds).__name__}")
    missing = [f"coordinate {c}" for c in ("ping_time", "beam") if c not in ds.coords]
    for key, dims in _REQUIRED_VARIABLES.items():
        if key not in ds.variables:
            missing.append(f"variable {key}")
        elif ds[key].dims != dims:
            missing.append(f"variable {key} with dimensions ({', '.join(dims)})")
    missing += [f"attribute {key}" for key in _REQUIRED_ATTRIBUTES if key not in ds.attrs]
    if missing:
        raise ValueError("data set lacks what the SONAR-netCDF4 file needs: " + ", ".join(missing))


def _ping_times(ds, first_ping_time):
    """ping_time as unsigned nanoseconds and its attributes. A data set whose
    records carried no ping time numbers its pings instead; that index is
    written as it is, not passed off as a time."""
    seconds = ds["ping_time"].values.astype(np.float64)
    meaning = ds["ping_time"].attrs.get("long_name", "")
    if ds["ping_time"].attrs.get("units") != "s" or meaning.startswith("ping index"):
        if first_ping_time is not None:
            raise ValueError("first_ping_time given, but the data set's ping_time is a ping index, not a time")
        return seconds.astype(np.uint64), {"units": "1", "long_name": meaning or "ping index", "axis": "T"}
    ns = np.rint(seconds * _NS_PER_S).astype(np.int64)
    if first_ping_time is None:
        return ns.astype(np.uint64), {
            "units": "nanoseconds",
            "long_name": "time of the ping from the first ping of the recording (the recording holds no date)",
            "axis": "T",
        }
    start = _epoch_ns(first_ping_time)
    return (ns + start).astype(np.uint64), {
        "units": "nanoseconds since 1970-01-01 00:00:00Z",
        "long_name": "Timestamp of each ping",
        "standard_name": "time",
        "calendar": "gregorian",
        "axis": "T",
    }


def _epoch_ns(when):
    if isinstance(when, datetime.datetime):
        if when.tzinfo is not None:
            when = when.astimezone(datetime.timezone.utc).replace(tzinfo=None)
        when = np.datetime64(when)
    if not isinstance(when, np.datetime64):
        raise TypeError(f"first_ping_time must be a datetime or numpy.datetime64, got {type(when).__name__}")
    ns = int(when.astype("datetime64[ns]").astype(np.int64))
    if ns < 0:
        raise ValueError(f"first_ping_time {when} is before 1970")
    return ns


def _now():
    return datetime.datetime.now(datetime.timezone.utc).strftime("%Y-%m-%dT%H:%M:%SZ")


def _write(nc, ds, ping_ns, time_attrs):
    recording = str(ds.attrs["recording"])
    nc.setncatts({
        "Conventions": f"CF-1.7, SONAR-netCDF4-{CONVENTION_VERSION}, ACDD-1.3",
        "sonar_convention_authority": "ICES",
        "sonar_convention_name": "SONAR-netCDF4",
        "sonar_convention_version": CONVENTION_VERSION,
        "date_created": _now(),
        "title": str(ds.attrs.get("title", f"KVane products of {recording}")),
        "summary": f"Formed-beam amplitudes and bottom detections of the multibeam echo sounder recording "
                   f"{recording}, processed by KVane {__version__}.",
        "keywords": "multibeam echosounder, water column, backscatter, bathymetry",
    })
    nc.createGroup("Annotation")
    _write_environment(nc.createGroup("Environment"), ds)
    nc.createGroup("Platform").setncattr(
        "comment", "the data set holds no platform position or attitude; roll, where the recording has it, "
                   "is applied in the soundings' angles")
    _write_provenance(nc.createGroup("Provenance"), ds, recording)
    sonar = nc.createGroup("Sonar")
    sonar.setncatts({"sonar_type": "multibeam echosounder", "sonar_software_name": "KVane",
                     "sonar_software_version": __version__})
    types = {
        "beam_stabilisation": sonar.createEnumType(np.int8, "beam_stabilisation_t", _BEAM_STABILISATION),
        "beam_type": sonar.createEnumType(np.int8, "beam_t", _BEAM_TYPE),
        "transmit_type": sonar.createEnumType(np.int8, "transmit_t", _TRANSMIT_TYPE),
    }
    beams = _write_beam_group(sonar.createGroup("Beam_group1"), ds, ping_ns, time_attrs, types)
    _write_bathymetry(beams.createGroup("Bathymetry"), ds)


def _variable(group, name, data, dims, attrs, dtype=None, **options):
    """Creates and fills one variable; floats get NaN as their fill value,
    booleans are stored as 0/1 bytes."""
    data = np.asarray(data)
    if data.dtype == np.bool_:
        data = data.astype(np.uint8)
    dtype = data.dtype if dtype is None else dtype
    if isinstance(dtype, np.dtype) and dtype.kind == "f":
        options.setdefault("fill_value", dtype.type(np.nan))
    var = group.createVariable(name, dtype, dims, **options)
    var.setncatts(_attributes(attrs))
    if data.size:
        var[...] = data
    return var


def _attributes(attrs):
    """Attributes netCDF can hold: no reserved names (_FillValue belongs to
    the variable's creation), no None, booleans as 0/1."""
    out = {}
    for key, value in attrs.items():
        if key.startswith("_") or value is None:
            continue
        out[key] = np.int8(value) if isinstance(value, (bool, np.bool_)) else value
    return out


def _write_environment(env, ds):
    env.createDimension("frequency", 1)
    _variable(env, "frequency", np.array([CARRIER_HZ], np.float32), ("frequency",),
              {"units": "Hz", "long_name": "Acoustic frequency", "standard_name": "sound_frequency",
               "valid_min": np.float32(0.0)})
    _variable(env, "sound_speed_indicative", np.float32(ds.attrs["param_soundSpeed"]), (),
              {"units": "m/s", "long_name": "Indicative sound speed", "standard_name": "speed_of_sound_in_sea_water",
               "valid_min": np.float32(0.0)})


def _write_provenance(prov, ds, recording):
    prov.setncatts({"conversion_software_name": "KVane", "conversion_software_version": __version__,
                    "conversion_time": _now()})
    prov.setncatts(_attributes({k: v for k, v in ds.attrs.items() if k not in _RESTATED_ATTRIBUTES}))
    prov.createDimension("filenames", 1)
    _variable(prov, "source_filenames", np.array([recording], object), ("filenames",),
              {"long_name": "Source filenames"}, dtype=str)


def _per_ping(ds, dims):
    """Names of the data set's variables and coordinates over exactly dims,
    in the data set's order, without the dimension coordinates."""
    names = [k for k in ds.data_vars if ds[k].dims == dims]
    names += [k for k in ds.coords if ds[k].dims == dims and k not in ds.dims]
    return names


def _enum(group, name, values, dims, enum_type, members, long_name):
    # The flag attributes repeat the enumeration for readers that show
    # variables as plain integers (xarray among them).
    return _variable(group, name, np.asarray(values, np.int8), dims,
                     {"long_name": long_name, "flag_values": np.array(list(members.values()), np.int8),
                      "flag_meanings": " ".join(members)}, dtype=enum_type)


def _write_beam_group(beams, ds, ping_ns, time_attrs, types):
    pings, count = ds.sizes["ping_time"], ds.sizes["beam"]
    each_ping = ("ping_time",)
    beams.setncattr("beam_mode", "vertical")
    beams.createDimension("ping_time", pings)
    beams.createDimension("beam", count)
    _variable(beams, "ping_time", ping_ns, each_ping, time_attrs, dtype=np.uint64)
    _variable(beams, "beam", np.array([str(int(b)) for b in ds["beam"].values], object), ("beam",),
              {"long_name": "Beam name (the beam index, 0 at the port end)"}, dtype=str)

    rate = float(ds.attrs["sample_rate_hz"])

    def constant(value):
        return np.full(pings, value, np.float32)

    _variable(beams, "sample_interval", constant(1.0 / rate), each_ping,
              {"units": "s", "long_name": "Interval between recorded raw data samples", "valid_min": np.float32(0.0)})
    # Sample i of a beam (and bottom sample i) lies at range c/2 * (i * dt - offset).
    offset = (float(ds.attrs["range_offset_samples"]) - float(ds.attrs["dropped_samples"])) / rate
    _variable(beams, "sample_time_offset", constant(offset), each_ping,
              {"units": "s", "long_name": "Time offset that is subtracted from the timestamp of each sample",
               "comment": "(range_offset_samples - dropped_samples) * sample_interval: sample 0 comes "
                          "dropped_samples after the transmission, hence negative"})
    _variable(beams, "transmit_duration_nominal", constant(ds.attrs["param_pulseLength"]), each_ping,
              {"units": "s", "long_name": "Nominal duration of transmitted pulse", "valid_min": np.float32(0.0)})
    for edge in ("start", "stop"):
        _variable(beams, f"transmit_frequency_{edge}", constant(CARRIER_HZ), each_ping,
                  {"units": "Hz", "long_name": f"{edge.capitalize()} frequency in transmitted pulse",
                   "standard_name": "sound_frequency", "valid_min": np.float32(0.0)})
    _enum(beams, "transmit_type", np.zeros(pings), each_ping, types["transmit_type"], _TRANSMIT_TYPE,
          "Type of transmitted pulse")
    _enum(beams, "beam_type", np.zeros(pings), each_ping, types["beam_type"], _BEAM_TYPE, "Type of beam")
    # The roll-steered path forms its beams in the earth frame.
    _enum(beams, "beam_stabilisation", ds["segmented"].values != 0, each_ping, types["beam_stabilisation"],
          _BEAM_STABILISATION, "Beam stabilisation applied (or not)")
    _variable(beams, "non_quantitative_processing", np.ones(pings, np.int16), each_ping,
              {"long_name": "Presence or not of non-quantitative processing applied to the backscattering data "
                            "(sonar specific)",
               "flag_values": np.array([0, 1], np.int16),
               "flag_meanings": "no_non_quantitative_processing kvane_beam_image",
               "comment": "1: the amplitudes are the kernel's beam image, with its gains and half-fan clipping "
                          "(param_gainSwitch, param_fixedGainEnable, param_clipRatio in /Provenance); "
                          "not calibrated backscatter"})

    steering = ds["steering_angle"].values.astype(np.float64)
    # Unit vectors in the platform frame: x forward, y starboard, z down.
    radians = np.deg2rad(steering)
    direction = {"x": np.zeros_like(radians), "y": np.sin(radians), "z": np.cos(radians)}
    for axis, values in direction.items():
        _variable(beams, f"beam_direction_{axis}", values.astype(np.float32), ("ping_time", "beam"),
                  {"units": "1", "valid_range": np.array([-1.0, 1.0], np.float32),
                   "long_name": f"{axis}-component of the vector that gives the pointing direction of the beam, "
                                "in sonar beam coordinate system"})
    _copy(beams, ds, "steering_angle")
    for key in _per_ping(ds, each_ping):
        if key != "segmented":  # written as beam_stabilisation
            _copy(beams, ds, key)

    if "backscatter_amplitude" in ds:
        _write_backscatter(beams, ds["backscatter_amplitude"])
    else:
        beams.setncattr("comment", "no backscatter_r: the data set was made without beam images")
    return beams


def _copy(group, ds, key):
    _variable(group, key, ds[key].values, ds[key].dims, dict(ds[key].attrs))


def _write_backscatter(beams, amplitude):
    """backscatter_r over a fixed sample dimension, one ping per chunk,
    written ping by ping so that only one ping's image is in memory."""
    pings, count, width = amplitude.shape
    beams.createDimension("range_sample", width)
    _variable(beams, "range_sample", np.arange(width, dtype=np.int32), ("range_sample",),
              {"units": "1", "long_name": "sample index after the samples dropped before the first kept sample"})
    var = _variable(beams, "backscatter_r", np.empty(0, np.float32), ("ping_time", "beam", "range_sample"),
                    {"units": amplitude.attrs.get("units", "1"),
                     "long_name": amplitude.attrs.get("long_name", "Raw backscatter measurements (amplitude)"),
                     "comment": "amplitude of the formed beam; over a fixed range_sample dimension, NaN past a "
                                "ping's sample_count, where the convention has a variable-length vector"},
                    chunksizes=(1, count, width))
    for p in range(pings):
        var[p] = np.asarray(amplitude.isel(ping_time=p).values, np.float32)


def _write_bathymetry(bathymetry, ds):
    bathymetry.setncattr("comment", "one sounding per beam of every ping, over the dimensions ping_time and "
                                    "beam of the beam group above; NaN where a beam has no detection")
    for key in _per_ping(ds, ("ping_time", "beam")):
        if key != "steering_angle":  # a property of the beam, in the beam group
            _copy(bathymetry, ds, key)
