"""Finding and loading libkvane.so.

Search order: the file named by the environment variable KVANE_LIBRARY, then
the build tree next to this package (build/libkvane.so at the top of the
source tree), then the system's library path. The library is loaded on first
use, so reading and plotting recordings work without it.
"""

import _ctypes
import ctypes
import ctypes.util
import os
import pathlib
import platform
import sys
import threading

from .blocks import KVaneInput, KVaneParams, KVaneResult

_EXPORTS = (
    "kVaneMalloc",
    "kVaneMalloc7420",
    "kVaneFree",
    "kVaneFree7420",
    "kVaneProcess20",
    "kVaneProcess7420",
    "kVaneProcess80",
)

_lock = threading.Lock()
_library = None


def _candidates():
    env = os.environ.get("KVANE_LIBRARY")
    if env:
        # An explicit choice is the only candidate: falling back silently to
        # another build would hide a wrong path.
        return [("KVANE_LIBRARY", env)]
    found = []
    top = pathlib.Path(__file__).resolve().parent.parent.parent
    found.append(("build tree", str(top / "build" / "libkvane.so")))
    name = ctypes.util.find_library("kvane")
    if name:
        found.append(("system", name))
    return found


def _declare(lib):
    for name in _EXPORTS:
        if not hasattr(lib, name):
            raise OSError(f"{lib._name} does not export {name}: not a KVane library")
    for name in ("kVaneMalloc", "kVaneMalloc7420", "kVaneFree", "kVaneFree7420", "kVaneProcess80"):
        getattr(lib, name).argtypes = []
        getattr(lib, name).restype = None
    lib.kVaneProcess20.argtypes = [
        ctypes.POINTER(KVaneParams),
        ctypes.POINTER(KVaneInput),
        ctypes.POINTER(KVaneResult),
    ]
    lib.kVaneProcess20.restype = None
    lib.kVaneProcess7420.argtypes = [
        ctypes.POINTER(KVaneParams),
        ctypes.c_void_p,
        ctypes.POINTER(KVaneResult),
        ctypes.c_void_p,
        ctypes.c_int32,
    ]
    lib.kVaneProcess7420.restype = None
    return lib


def load_library():
    """Returns the loaded library (a ctypes.CDLL), loading it on first call.
    Raises OSError naming every place that was tried."""
    global _library
    with _lock:
        if _library is not None:
            return _library
        tried = []
        for where, path in _candidates():
            if where != "system" and not os.path.exists(path):
                tried.append(f"{where}: {path} (no such file)")
                continue
            try:
                lib = ctypes.CDLL(path)
            except OSError as error:
                tried.append(f"{where}: {path} ({error})")
                continue
            _library = _declare(lib)
            return _library
        if not os.environ.get("KVANE_LIBRARY"):
            tried.append("system: no libkvane found on the library path")
        raise OSError(
            "cannot load libkvane.so; build it (cmake --build build) or set KVANE_LIBRARY. Tried:\n  "
            + "\n  ".join(tried)
        )


class _FloatEnvironment(ctypes.Structure):
    # glibc's fenv_t on x86-64: the x87 environment, then the SSE control word.
    _fields_ = [("x87", ctypes.c_uint8 * 28), ("mxcsr", ctypes.c_uint32)]


class DenormalsFlushed:
    """Context that turns on flush-to-zero and denormals-are-zero (SSE control
    bits 0x8040) for the calling thread and restores the previous state on
    exit. The kernel leaves these modes to its host; the replay tool sets
    them, and a Python host that wants the same numbers sets them too. Worker
    threads the kernel starts inside the context keep the modes they were
    started with. Does nothing where the control word is not reachable (not
    x86-64 Linux)."""

    _libm = None
    _usable = None

    @classmethod
    def _available(cls):
        if cls._usable is None:
            cls._usable = False
            if sys.platform.startswith("linux") and platform.machine() in ("x86_64", "AMD64"):
                name = ctypes.util.find_library("m")
                if name:
                    try:
                        cls._libm = ctypes.CDLL(name)
                        cls._usable = True
                    except OSError:
                        pass
        return cls._usable

    def __init__(self, enabled=True):
        self.enabled = enabled
        self._saved = None

    def __enter__(self):
        if self.enabled and self._available():
            saved = _FloatEnvironment()
            if self._libm.fegetenv(ctypes.byref(saved)) == 0:
                wanted = _FloatEnvironment.from_buffer_copy(saved)
                wanted.mxcsr |= 0x8040
                if self._libm.fesetenv(ctypes.byref(wanted)) == 0:
                    self._saved = saved
        return self

    def __exit__(self, *exc):
        if self._saved is not None:
            self._libm.fesetenv(ctypes.byref(self._saved))
            self._saved = None
        return False


def _loaded_path(lib):
    """The file the dynamic loader mapped for lib (its name may be a bare
    soname found on the library path)."""
    if os.path.sep in lib._name:
        return os.path.realpath(lib._name)
    wanted = os.path.basename(lib._name)
    with open("/proc/self/maps") as maps:
        for line in maps:
            path = line.split(maxsplit=5)[-1].strip()
            if os.path.basename(path).startswith(wanted):
                return path
    raise OSError(f"cannot find the file behind {lib._name} in /proc/self/maps")


def load_private_library():
    """A private image of the library: loaded from an in-memory copy of the
    file, so its retained state (first-echo history, tracker seeds, the
    first-ping marks) starts as in a new process. The kernel keeps that state
    in static storage and no entry point resets it; a private image is how one
    process runs recordings one after another and gets, for each, the numbers
    a fresh process would. Release it with release_private_library once its
    workspace is freed. Linux only (memfd); raises OSError elsewhere."""
    shared = load_library()  # keeps OpenBLAS and the OpenMP runtime loaded for good
    if not hasattr(os, "memfd_create"):
        raise OSError("a private library image needs memfd_create (Linux)")
    path = _loaded_path(shared)
    with open(path, "rb") as source:
        image = source.read()
    fd = os.memfd_create("libkvane-private", 0)
    try:
        os.write(fd, image)
        lib = ctypes.CDLL(f"/proc/self/fd/{fd}")
    finally:
        os.close(fd)
    return _declare(lib)


def release_private_library(lib):
    """Unloads an image from load_private_library. Its workspace must be
    freed; nothing of the image runs afterwards."""
    _ctypes.dlclose(lib._handle)
