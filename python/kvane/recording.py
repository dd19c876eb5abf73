"""Recorded pings: reading and writing the recording format.

A recording is a plain concatenation of records with no file header, all
integers little-endian:

    offset  size  field
    0       4     headMark
    4       2     headWordA
    6       4     headWordB
    10      2     LC, int16: range setting in metres
    12      2     headWordC
    14      24    reserved
    38      4     sampleBytes, int32
    42      s     sample block: plane I then plane Q, each 64 channels of
                  int32, channel-major; n = s // 512 samples per channel and
                  plane Q starts at s // 2
    42+s    4     auxBytes, int32
    46+s    a     auxiliary block
    46+s+a  2     reserved
    48+s+a  4     tailMark

A record is 52 + sampleBytes + auxBytes bytes long.
"""

import contextlib
import dataclasses
import os
import struct

import numpy as np

from .blocks import CHANNELS, MAX_ROLL, MAX_SAMPLES

HEAD_BYTES = 42
MAX_SAMPLE_BYTES = CHANNELS * MAX_SAMPLES * 8
MIN_SAMPLE_BYTES = 512  # one sample per channel in both planes
MAX_AUX_BYTES = 1 << 20

_HEAD = struct.Struct("<4sHIhH24si")


class RecordingError(ValueError):
    """A recording that cannot be read: truncated, or with impossible lengths.
    The message names the file, the record number (from 1) and the problem."""


@dataclasses.dataclass
class Ping:
    number: int            # 1 for the first record of the file
    lc: int                # range setting, metres
    plane_i: np.ndarray    # int32 (64, n)
    plane_q: np.ndarray    # int32 (64, n)
    aux: bytes             # auxiliary block, as recorded
    head_mark: bytes = b"\0\0\0\0"
    tail_mark: bytes = b"\0\0\0\0"

    @property
    def sample_count(self):
        return self.plane_i.shape[1]


def roll_parameters(aux):
    """The roll table that the simulator keeps in a record's auxiliary block,
    as parameter values for the ping: a dict with rollCount, rollAngle,
    rollTime and pingTime (at most the 100 entries the block holds), ready for
    Params.replace(**...). None if the block holds no well-formed table.

    Block layout, little-endian: "ROLL", int32 pingTime (ms, time of sample
    0), int32 count, then count pairs of int32 time (ms) and float32 roll
    (degrees)."""
    aux = bytes(aux)
    if len(aux) < 12 or aux[:4] != b"ROLL":
        return None
    ping_time, count = struct.unpack_from("<ii", aux, 4)
    if count < 0 or count > (len(aux) - 12) // 8:
        return None
    pairs = np.frombuffer(aux, np.dtype([("time", "<i4"), ("angle", "<f4")]), count, 12)
    used = min(count, MAX_ROLL)
    return {
        "rollCount": used,
        "rollAngle": [float(a) for a in pairs["angle"][:used]],
        "rollTime": [int(t) for t in pairs["time"][:used]],
        "pingTime": ping_time,
    }


def _read_exactly(stream, count):
    chunks = []
    got = 0
    while got < count:
        chunk = stream.read(count - got)
        if not chunk:
            break
        chunks.append(chunk)
        got += len(chunk)
    return b"".join(chunks)


def _planes(block):
    """The two planes of a sample block: n = len // 512 samples per channel,
    plane Q at exactly half the block, also when the length is not a multiple
    of 512 (the kernel splits a raw buffer the same way)."""
    n = len(block) // 512
    half = len(block) // 2
    count = CHANNELS * n
    plane_i = np.frombuffer(block, "<i4", count, 0).astype(np.int32).reshape(CHANNELS, n)
    plane_q = np.frombuffer(block, "<i4", count, half).astype(np.int32).reshape(CHANNELS, n)
    return plane_i, plane_q


def read_recording(path, *, stream=None):
    """Yields the pings of a recording one at a time, as Ping objects. A file
    that ends exactly at a record boundary ends the iteration; anything else
    raises RecordingError after the complete pings before it were yielded.

    stream: read the records from this binary file object instead of opening
    path (path then only names the recording in messages). A stream whose
    read waits for more bytes, as of a recording still being written, makes
    the reader wait on a partial record instead of failing."""
    name = os.fspath(path)
    with open(name, "rb") if stream is None else contextlib.nullcontext(stream) as stream:
        number = 0
        while True:
            number += 1
            where = f"{name}: record {number}"
            head = _read_exactly(stream, HEAD_BYTES)
            if not head:
                return
            if len(head) < HEAD_BYTES:
                raise RecordingError(f"{where}: truncated header (got {len(head)} of {HEAD_BYTES} bytes)")
            head_mark, _, _, lc, _, _, sample_bytes = _HEAD.unpack(head)
            if sample_bytes < MIN_SAMPLE_BYTES or sample_bytes > MAX_SAMPLE_BYTES:
                raise RecordingError(
                    f"{where}: sample block of {sample_bytes} bytes "
                    f"(possible: {MIN_SAMPLE_BYTES} to {MAX_SAMPLE_BYTES})"
                )
            block = _read_exactly(stream, sample_bytes)
            if len(block) < sample_bytes:
                raise RecordingError(
                    f"{where}: truncated sample block (got {len(block)} of {sample_bytes} bytes)"
                )
            word = _read_exactly(stream, 4)
            if len(word) < 4:
                raise RecordingError(f"{where}: truncated before the auxiliary length")
            (aux_bytes,) = struct.unpack("<i", word)
            if aux_bytes < 0 or aux_bytes > MAX_AUX_BYTES:
                raise RecordingError(
                    f"{where}: auxiliary block of {aux_bytes} bytes (possible: 0 to {MAX_AUX_BYTES})"
                )
            aux = _read_exactly(stream, aux_bytes)
            if len(aux) < aux_bytes:
                raise RecordingError(
                    f"{where}: truncated auxiliary block (got {len(aux)} of {aux_bytes} bytes)"
                )
            tail = _read_exactly(stream, 6)
            if len(tail) < 6:
                raise RecordingError(f"{where}: truncated tail (got {len(tail)} of 6 bytes)")
            plane_i, plane_q = _planes(block)
            yield Ping(number, lc, plane_i, plane_q, aux, head_mark, tail[2:])


def encode_record(plane_i, plane_q, lc=0, aux=b"", head_mark=b"\0\0\0\0", tail_mark=b"\0\0\0\0"):
    """One record as bytes. plane_i, plane_q: integer arrays of shape (64, n),
    values within int32."""
    planes = []
    shapes = []
    for name, plane in (("plane_i", plane_i), ("plane_q", plane_q)):
        plane = np.asarray(plane)
        if plane.dtype.kind not in "iu":
            raise TypeError(f"{name} must hold integers, got {plane.dtype}")
        if plane.ndim != 2 or plane.shape[0] != CHANNELS or not 1 <= plane.shape[1] <= MAX_SAMPLES:
            raise ValueError(f"{name} must have shape ({CHANNELS}, n) with 1 <= n <= {MAX_SAMPLES}, got {plane.shape}")
        if plane.size and (plane.min() < -(2**31) or plane.max() > 2**31 - 1):
            raise ValueError(f"{name} holds values outside int32")
        planes.append(plane.astype("<i4").tobytes())
        shapes.append(plane.shape)
    if shapes[0] != shapes[1]:
        raise ValueError(f"plane_i {shapes[0]} and plane_q {shapes[1]} differ in shape")
    for name, mark in (("head_mark", head_mark), ("tail_mark", tail_mark)):
        if len(mark) != 4:
            raise ValueError(f"{name} must be 4 bytes, got {len(mark)}")
    if not -(2**15) <= lc < 2**15:
        raise ValueError(f"lc = {lc} does not fit int16")
    if len(aux) > MAX_AUX_BYTES:
        raise ValueError(f"auxiliary block of {len(aux)} bytes; at most {MAX_AUX_BYTES}")
    samples = planes[0] + planes[1]
    head = _HEAD.pack(bytes(head_mark), 0, 0, lc, 0, bytes(24), len(samples))
    return b"".join((head, samples, struct.pack("<i", len(aux)), bytes(aux), bytes(2), bytes(tail_mark)))


def write_recording(path, pings):
    """Writes pings to a new recording. pings: Ping objects, or tuples
    (plane_i, plane_q) or (plane_i, plane_q, lc, aux)."""
    with open(os.fspath(path), "wb") as stream:
        for ping in pings:
            if isinstance(ping, Ping):
                record = encode_record(ping.plane_i, ping.plane_q, ping.lc, ping.aux, ping.head_mark, ping.tail_mark)
            else:
                record = encode_record(*ping)
            stream.write(record)
