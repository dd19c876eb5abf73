"""Python binding of the KVane multibeam sonar kernel (libkvane.so, through
ctypes), a reader for recorded pings and pictures of a ping.

    import kvane
    params = kvane.Params(beamCount=256)
    with kvane.Workspace() as ws:
        for ping in kvane.read_recording("survey.rec"):
            result = ws.process(params, ping.plane_i, ping.plane_q)
    kvane.plot_ping(result, "last.png")

The library is found through KVANE_LIBRARY, then build/libkvane.so at the top
of the source tree, then the system's library path.
"""

__version__ = "0.1.0"

from .blocks import DEFAULTS, PARAMETER_NAMES, KVaneInput, KVaneParams, KVaneResult, Params
from .library import DenormalsFlushed, load_library
from .recording import Ping, RecordingError, encode_record, read_recording, roll_parameters, write_recording
from .workspace import PingResult, Workspace, side_scan_rows
from .soundings import Soundings, compute_soundings
from .products import ping_soundings, process_recording, soundings_rows, write_soundings_csv
from .sonarnetcdf import to_sonar_netcdf


def plot_ping(result, path=None, **options):
    """Draws a ping's beam image with the bottom line, the wedge and the
    waterfall; saves to path (Agg) if given. See kvane.plot.plot_ping."""
    from .plot import plot_ping as draw  # matplotlib only when pictures are wanted

    return draw(result, path, **options)


__all__ = [
    "DEFAULTS",
    "PARAMETER_NAMES",
    "KVaneInput",
    "KVaneParams",
    "KVaneResult",
    "Params",
    "DenormalsFlushed",
    "load_library",
    "Ping",
    "RecordingError",
    "encode_record",
    "read_recording",
    "roll_parameters",
    "write_recording",
    "PingResult",
    "Workspace",
    "side_scan_rows",
    "plot_ping",
    "Soundings",
    "compute_soundings",
    "ping_soundings",
    "process_recording",
    "soundings_rows",
    "write_soundings_csv",
    "to_sonar_netcdf",
]
