"""The three blocks the kernel shares with its host, as ctypes structures laid
out byte for byte like include/kVane.h, and a checked parameter object.

Fields named reserved* are never read by the kernel. They stay part of the
block so that every field after them lands at the offset the kernel expects.
"""

import ctypes
import math
import numbers

import numpy as np

c_float = ctypes.c_float
c_int32 = ctypes.c_int32
c_int8 = ctypes.c_int8
c_uint8 = ctypes.c_uint8

# Limits of the kernel's workspace.
CHANNELS = 64
MAX_SAMPLES = 8000
MAX_BEAMS = 256
MAX_ROLL = 100
SAMPLE_RATE = 20000.0  # samples per second


class KVaneInput(ctypes.Structure):
    """One ping: two planes of 64 x sampleCount int32, channel-major."""

    _fields_ = [
        ("planeI", ctypes.POINTER(c_int32)),
        ("planeQ", ctypes.POINTER(c_int32)),
        ("sampleCount", c_int32),
    ]


class KVaneParams(ctypes.Structure):
    """Parameters, read afresh on every ping (8924 bytes)."""

    _fields_ = [
        ("reserved0", c_float * 3),
        ("depthLimitNear", c_float),
        ("depthLimitFar", c_float),
        ("reserved1", c_int32 * 3),
        ("soundSpeed", c_float),
        ("reserved2", c_int32),
        ("sectorPort", c_float),
        ("sectorStarboard", c_float),
        ("gainSwitch", c_float),
        ("reserved3", c_int32 * 2001),
        ("rollAngle", c_float * MAX_ROLL),
        ("rollTime", c_int32 * MAX_ROLL),
        ("rollCount", c_int32),
        ("pingTime", c_int32),
        ("pulseLength", c_float),
        ("reserved4", c_int32 * 2),
        ("limitMode", c_int8),
        ("beamSpacing", c_int8),
        ("reserved5", c_uint8 * 2),
        ("imageWidth", c_int32),
        ("imageHeight", c_int32),
        ("imageGain", c_float),
        ("beamCount", c_int32),
        ("fixedGainEnable", c_int32),
        ("reserved6", c_int32),
        ("trackEnable", c_int32),
        ("clipRatio", c_float),
        ("sideScanMode", c_int32),
        ("sideScanRows", c_int32),
        ("qualityThreshold", c_float),
    ]


class KVaneResult(ctypes.Structure):
    """Outputs and the addresses of the host's output buffers (18600 bytes on
    a 64-bit host)."""

    _fields_ = [
        ("beamAngleCopies", c_float * 1920),
        ("bottomSample", c_float * 1920),
        ("segmentRoll", c_float * 320),
        ("beamImage", ctypes.POINTER(c_float)),
        ("displayImage", ctypes.POINTER(c_uint8)),
        ("bottomFlag", c_uint8 * 1924),
        ("firstEchoHalf", c_float),
        ("sideScanImage", ctypes.POINTER(c_float)),
        ("gainProfile", ctypes.POINTER(c_float)),
    ]


# The values the replay tool writes on every ping; the fields it leaves open
# (sectors, roll count, clip ratio, quality threshold) get the replay tool's
# choices too, so a ping through Python and through the tool sees one block.
DEFAULTS = {
    "soundSpeed": 1500.0,
    "depthLimitNear": 15.0,
    "depthLimitFar": 30.0,
    "gainSwitch": 0.0,
    "pulseLength": 0.00005,
    "limitMode": 1,
    "beamSpacing": 1,
    "imageWidth": 824,
    "imageHeight": 329,
    "imageGain": 1.0,
    "beamCount": 256,
    "fixedGainEnable": 1,
    "trackEnable": 1,
    "sideScanMode": 1,
    "sideScanRows": 100,
    "sectorPort": 70.0,
    "sectorStarboard": 70.0,
    "rollCount": 1,
    "clipRatio": 0.01,
    "qualityThreshold": 0.0,
    "pingTime": 0,
    "rollAngle": (),
    "rollTime": (),
}

_INT_RANGES = {
    c_int32: (-(2**31), 2**31 - 1),
    c_int8: (-128, 127),
}

# Narrower than the block can hold: values the kernel would not run a ping with
# (it skips such a ping silently), refused here with a reason instead.
_EXTRA_RANGES = {
    "beamCount": (1, MAX_BEAMS),
    "imageWidth": (0, 2**31 - 1),
    "imageHeight": (0, 2**31 - 1),
}

_FLOAT32_MAX = 3.4028234663852886e38


def _field_types():
    types = {}
    for name, ctype in KVaneParams._fields_:
        if not name.startswith("reserved"):
            types[name] = ctype
    return types


_FIELD_TYPES = _field_types()
PARAMETER_NAMES = tuple(_FIELD_TYPES)


def _check_integer(name, value, low, high):
    if not isinstance(value, numbers.Integral):
        raise TypeError(f"parameter {name} must be an integer, got {type(value).__name__} {value!r}")
    value = int(value)
    if not low <= value <= high:
        raise ValueError(f"parameter {name} = {value} is outside {low}..{high}")
    return value


def _check_real(name, value):
    if not isinstance(value, numbers.Real):
        raise TypeError(f"parameter {name} must be a number, got {type(value).__name__} {value!r}")
    value = float(value)
    # NaN and infinities pass on as they are; a finite value that a float32
    # cannot hold would silently become an infinity.
    if math.isfinite(value) and abs(value) > _FLOAT32_MAX:
        raise ValueError(f"parameter {name} = {value!r} does not fit a 32-bit float")
    return value


def _check_table(name, values, check_one):
    if isinstance(values, (str, bytes)) or not hasattr(values, "__len__"):
        raise TypeError(f"parameter {name} must be a sequence of at most {MAX_ROLL} numbers")
    if len(values) > MAX_ROLL:
        raise ValueError(f"parameter {name} has {len(values)} entries, at most {MAX_ROLL} fit")
    return [check_one(f"{name}[{k}]", v) for k, v in enumerate(values)]


def check_parameter(name, value):
    """Returns value as the block will hold it, or raises TypeError (unknown
    name, wrong type) or ValueError (outside what the field can hold)."""
    ctype = _FIELD_TYPES.get(name)
    if ctype is None:
        raise TypeError(f"unknown parameter {name!r}; known: {', '.join(PARAMETER_NAMES)}")
    if name == "rollAngle":
        return _check_table(name, value, _check_real)
    if name == "rollTime":
        low, high = _INT_RANGES[c_int32]
        return _check_table(name, value, lambda n, v: _check_integer(n, v, low, high))
    if ctype is c_float:
        return _check_real(name, value)
    low, high = _EXTRA_RANGES.get(name, _INT_RANGES[ctype])
    return _check_integer(name, value, low, high)


class Params:
    """The parameter block of a ping, built from keyword arguments named as the
    header's fields, with the replay tool's values as defaults:

        Params(beamCount=128, gainSwitch=1.0, sectorPort=60.0)

    Every assignment is checked before it reaches the block. The kernel writes
    one field back (a rollCount above 100 in magnitude becomes 1); reading the
    attribute after a ping shows the block's current value.
    """

    __slots__ = ("block",)

    def __init__(self, **values):
        object.__setattr__(self, "block", KVaneParams())
        # The words a host of this kernel keeps in the unread spans.
        self.block.reserved0[:] = (0.4, 15.0, 70.0)
        self.block.reserved6 = 3
        for name, value in {**DEFAULTS, **values}.items():
            setattr(self, name, value)

    def __setattr__(self, name, value):
        value = check_parameter(name, value)
        if name in ("rollAngle", "rollTime"):
            table = getattr(self.block, name)
            for k in range(MAX_ROLL):
                table[k] = value[k] if k < len(value) else 0
        else:
            setattr(self.block, name, value)

    def __getattr__(self, name):
        if name in ("rollAngle", "rollTime"):
            return list(getattr(self.block, name))
        if name in _FIELD_TYPES:
            return getattr(self.block, name)
        raise AttributeError(name)

    def replace(self, **values):
        """A copy with some fields changed."""
        copy = Params()
        ctypes.memmove(ctypes.byref(copy.block), ctypes.byref(self.block), ctypes.sizeof(KVaneParams))
        for name, value in values.items():
            setattr(copy, name, value)
        return copy

    __copy__ = replace

    def __deepcopy__(self, memo):
        return self.replace()

    def as_dict(self):
        return {name: getattr(self, name) for name in PARAMETER_NAMES}

    def __repr__(self):
        shown = []
        for name in PARAMETER_NAMES:
            if name in ("rollAngle", "rollTime"):
                continue
            value = getattr(self, name)
            # floats in the shortest form that gives back the block's float32
            shown.append(f"{name}={str(np.float32(value))}" if isinstance(value, float) else f"{name}={value}")
        return f"Params({', '.join(shown)})"
