"""The kernel's workspace as a Python object, and one ping through it."""

import ctypes
import dataclasses
import threading
import time
import weakref

import numpy as np

from .blocks import CHANNELS, MAX_SAMPLES, KVaneInput, KVaneResult, Params
from .library import DenormalsFlushed, load_library, load_private_library, release_private_library

# Capacity of the host's side-scan buffer: 200 rows of 16000 floats always
# suffice for the waterfall.
SIDE_SCAN_FLOATS = 3_200_000
# Cells of the kernel's sector grid: the wedge it copies to the host raster
# never has more.
_GRID_CAPACITY = 2_097_152

# The kernel's workspace is process-wide: one live Workspace at a time, and
# one ping at a time (ctypes lets go of the interpreter lock during a call, so
# two Python threads could otherwise run two pings at once).
_state_lock = threading.RLock()  # re-entrant: a collected Workspace closes itself from any point
_ping_lock = threading.RLock()
_live = None


@dataclasses.dataclass
class PingResult:
    """What one ping yields, as numpy arrays owned by this object."""

    bottom_sample: np.ndarray  # float32[B]: bottom sample per beam, 0 for a rejected beam
    bottom_flag: np.ndarray    # uint8[B]: 1 own detection, 2 copied from a neighbour
    beam_angles: np.ndarray    # float32[B]: steering angles, degrees, negative to port
    beam_image: np.ndarray     # float32[B, n]: beam amplitudes, beam-major
    wedge: np.ndarray          # uint8[imageHeight, imageWidth]: water-column picture
    waterfall: np.ndarray      # float32[rows, 2E]: side-scan waterfall, newest row first, port on
                               # the left; E is n rounded down to even, rows the visible rows
    first_echo: float          # this ping's first-echo sample (unfiltered)
    segment_roll: np.ndarray   # float32[ceil(n/200)]: roll per 200-sample segment (0 unless
                               # the ping took the roll-steered path, rollCount != 1)
    gain_profile: object       # float32[max(n, 600)] with gainSwitch set, else None
    kernel_seconds: float = 0.0  # wall-clock time of the kernel's call for this ping

    @property
    def beam_count(self):
        return self.beam_image.shape[0]

    @property
    def sample_count(self):
        return self.beam_image.shape[1]


def side_scan_rows(requested):
    """Rows the waterfall shows: 10 to 200 stand, anything else gives 100."""
    return requested if 0 <= requested - 10 <= 190 else 100


def _check_plane(name, plane):
    if not isinstance(plane, np.ndarray):
        raise TypeError(f"{name} must be a numpy array of int32, got {type(plane).__name__}")
    if plane.dtype != np.int32:
        raise TypeError(f"{name} must have dtype int32 (native byte order), got {plane.dtype}")
    if plane.ndim != 2 or plane.shape[0] != CHANNELS:
        raise ValueError(f"{name} must have shape ({CHANNELS}, n), got {plane.shape}")
    n = plane.shape[1]
    if not 1 <= n <= MAX_SAMPLES:
        raise ValueError(f"{name} has {n} samples per channel; 1 to {MAX_SAMPLES} are possible")
    return np.ascontiguousarray(plane)


def _wedge_buffer(width, height):
    """Host raster with guard space. The kernel paints at most the sector
    grid's cells; for a raster whose grid comes out wider than the raster
    (tall rasters, wide sectors) rows start left of column 0 or run past the
    last row. The guard space takes those bytes so they never land in memory
    the interpreter owns; the picture returned is the raster itself."""
    before = height + 64
    body = width * height + height + 64
    if height > width:
        body = max(body, _GRID_CAPACITY + 64)
    return np.zeros(before + body, np.uint8), before


class Workspace:
    """The kernel's process-wide workspace, built by kVaneMalloc and released
    by kVaneFree:

        with kvane.Workspace() as ws:
            for ping in kvane.read_recording(path):
                result = ws.process(params, ping.plane_i, ping.plane_q)

    Only one can be live at a time. State that the kernel keeps between pings
    (first-echo history, tracker, sector grid, waterfall) lives in the process
    and, as in any host, also outlives a close and a new Workspace.

    flush_denormals: run pings with flush-to-zero and denormals-are-zero, as
    the replay tool does (x86-64 Linux), so both give the same numbers.

    fresh_state: run on a private image of the library whose retained state
    starts as in a new process, and unload it at close. The pings then give
    the numbers a fresh process gives, whatever ran before in this one
    (kvane.process_recording works this way). Linux only.
    """

    def __init__(self, flush_denormals=True, fresh_state=False):
        global _live
        library = load_library()
        with _state_lock:
            if _live is not None and _live() is not None:
                raise RuntimeError(
                    "a kvane.Workspace is already live in this process; the kernel's "
                    "workspace is process-wide, close the other one first"
                )
            self._private = fresh_state
            if fresh_state:
                library = load_private_library()
            self._library = library
            self._flush = flush_denormals
            with DenormalsFlushed(self._flush):
                library.kVaneMalloc()
            _live = weakref.ref(self)
        self._open = True
        self._kept = {}

    @property
    def closed(self):
        return not self._open

    def close(self):
        global _live
        with _state_lock, _ping_lock:
            if not self._open:
                return
            self._library.kVaneFree()
            self._open = False
            _live = None
            if self._private:
                release_private_library(self._library)
                self._library = None

    def __enter__(self):
        if not self._open:
            raise RuntimeError("this kvane.Workspace is closed")
        return self

    def __exit__(self, *exc):
        self.close()
        return False

    def __del__(self):
        if getattr(self, "_open", False):
            try:
                self.close()
            except Exception:  # interpreter shutdown: nothing left to report to
                pass

    def _buffer(self, name, floats, reuse):
        """A zeroed float buffer of at least floats, new or (reuse) the one
        this Workspace keeps under name, grown when too small."""
        if not reuse:
            return np.zeros(floats, np.float32)
        kept = self._kept.get(name)
        if kept is None or kept.size < floats:
            kept = self._kept[name] = np.zeros(floats, np.float32)
        return kept

    def process(self, params, plane_i, plane_q, *, reuse_buffers=False):
        """Runs one ping. params: a Params, a dict of parameter values, or None
        for the defaults. plane_i, plane_q: int32 arrays of shape (64, n),
        1 <= n <= 8000. Returns a PingResult.

        reuse_buffers: let the kernel write into output buffers this Workspace
        keeps, instead of new ones for every ping: quicker for a stream of
        pings, but the result's beam_image and waterfall are then views that
        the next ping with reuse_buffers overwrites (copy what you keep)."""
        if params is None:
            params = Params()
        elif isinstance(params, dict):
            params = Params(**params)
        elif not isinstance(params, Params):
            raise TypeError(f"params must be kvane.Params, a dict or None, got {type(params).__name__}")
        plane_i = _check_plane("plane_i", plane_i)
        plane_q = _check_plane("plane_q", plane_q)
        if plane_i.shape != plane_q.shape:
            raise ValueError(f"plane_i {plane_i.shape} and plane_q {plane_q.shape} differ in shape")

        n = plane_i.shape[1]
        block = params.block
        beams = block.beamCount
        width, height = block.imageWidth, block.imageHeight

        # Host buffers as large as the kernel may write: with the gain switch
        # the 7x7 smoothing passes a full (n+6) x (B+6) image through beamImage.
        beam_image = self._buffer("beam_image", (n + 6) * (beams + 6), reuse_buffers)
        wedge, wedge_start = _wedge_buffer(width, height)
        gain_profile = self._buffer("gain_profile", max(n, 600), reuse_buffers)
        side_scan = self._buffer("side_scan", SIDE_SCAN_FLOATS, reuse_buffers)
        # A fresh, zeroed result block per ping, as the replay tool gives: the
        # kernel's history lives in the workspace, not in the host's block.
        result = KVaneResult()

        source = KVaneInput()
        source.planeI = plane_i.ctypes.data_as(ctypes.POINTER(ctypes.c_int32))
        source.planeQ = plane_q.ctypes.data_as(ctypes.POINTER(ctypes.c_int32))
        source.sampleCount = n

        with _ping_lock:
            if not self._open:
                raise RuntimeError("this kvane.Workspace is closed")
            result.beamImage = beam_image.ctypes.data_as(ctypes.POINTER(ctypes.c_float))
            result.displayImage = ctypes.cast(wedge.ctypes.data + wedge_start, ctypes.POINTER(ctypes.c_uint8))
            result.sideScanImage = side_scan.ctypes.data_as(ctypes.POINTER(ctypes.c_float))
            result.gainProfile = gain_profile.ctypes.data_as(ctypes.POINTER(ctypes.c_float))
            with DenormalsFlushed(self._flush):
                started = time.perf_counter()
                self._library.kVaneProcess20(ctypes.byref(block), ctypes.byref(source), ctypes.byref(result))
                kernel_seconds = time.perf_counter() - started
            rows = side_scan_rows(block.sideScanRows)
            even = n - n % 2
            segments = (n + 199) // 200
            return PingResult(
                bottom_sample=np.array(result.bottomSample[:beams], np.float32),
                bottom_flag=np.array(result.bottomFlag[:beams], np.uint8),
                beam_angles=np.array(result.beamAngleCopies[:beams], np.float32),
                beam_image=beam_image[: beams * n].reshape(beams, n),
                wedge=wedge[wedge_start : wedge_start + width * height].reshape(height, width).copy(),
                # A view: the buffer is this ping's own, and its untouched pages cost nothing.
                waterfall=side_scan[: rows * 2 * even].reshape(rows, 2 * even),
                first_echo=float(result.firstEchoHalf) * 2.0,
                segment_roll=np.array(result.segmentRoll[:segments], np.float32),
                gain_profile=gain_profile if block.gainSwitch != 0.0 else None,
                kernel_seconds=kernel_seconds,
            )
