"""kvane-batch: reprocesses many recordings on a Dask cluster.

    kvane-batch OUTDIR RECORDING... [--workers N | --scheduler ADDRESS]
                [--set NAME=VALUE ...] [--roll-from-aux] [--beam-image] [--force]

For every recording it writes OUTDIR/<name>.zarr, the data set of
kvane.process_recording, and OUTDIR/<name>.soundings.csv, where <name> is the
recording's file name. The kernel's workspace is process-wide, so the unit of
work is one recording in one worker process; a worker runs its recordings one
after another, each on a private image of the library, so every recording gives
the numbers one process gives it alone.

Outputs are written under temporary names (<final>.partial-<token>) and renamed
into place when complete, the soundings file last: a recording counts as done
when both its store and its soundings file are there. A rerun skips the done
ones (unless --force), removes what interrupted runs left and redoes the rest.
"""

import argparse
import ctypes
import glob
import json
import os
import re
import shutil
import signal
import sys
import threading
import time
import typing
import uuid

import numpy as np

from .blocks import PARAMETER_NAMES, KVaneParams, Params
from .recording import RecordingError

USAGE_ERROR = 2
INTERRUPTED = 130
LOCK_NAME = ".kvane-batch.lock"

# The kernel's workspace is process-wide: recordings given to a worker with
# several threads still run one at a time.
_ONE_AT_A_TIME = threading.Lock()


class UsageError(Exception):
    """A command line that cannot run; the message is the one line printed."""


class CannotRun(Exception):
    """The cluster cannot be reached; the message is the one line printed."""


# ---------------------------------------------------------------------------
# --set NAME=VALUE, as kvane-replay reads it: every field of the parameter
# block by its header name, arrays one entry at a time as NAME[INDEX]=VALUE,
# floats parsed by the C library as the replay tool parses them.

_FIELDS = dict(KVaneParams._fields_)
_INTEGER_RANGES = {
    ctypes.c_int32: (-(2**31), 2**31 - 1),
    ctypes.c_int8: (-128, 127),
    ctypes.c_uint8: (0, 255),
}
_WHOLE = re.compile(r"[ \t\n\v\f\r]*[+-]?[0-9]+")
_SETTING = re.compile(r"([^=\[]+)(?:\[([^\]]*)\])?=(.*)", re.S)
_libc = None


def _parse_float(what, text):
    global _libc
    if _libc is None:
        _libc = ctypes.CDLL(None)
        _libc.strtof.restype = ctypes.c_float
        _libc.strtof.argtypes = [ctypes.c_char_p, ctypes.POINTER(ctypes.c_void_p)]
    raw = text.encode()
    buffer = ctypes.create_string_buffer(raw)
    end = ctypes.c_void_p()
    value = _libc.strtof(buffer, ctypes.byref(end))
    if not raw or end.value - ctypes.addressof(buffer) != len(raw):
        raise UsageError(f"{what}: '{text}' is not a number")
    return value


def _parse_whole(what, text, low, high):
    if not _WHOLE.fullmatch(text):
        raise UsageError(f"{what}: '{text}' is not a whole number")
    value = int(text)
    if not low <= value <= high:
        raise UsageError(f"{what}: {text.strip()} is out of range ({low} to {high})")
    return value


def apply_setting(params, setting):
    """Applies one --set NAME=VALUE (or NAME[INDEX]=VALUE) to params, a
    kvane.Params. Raises UsageError with the line to print."""
    match = _SETTING.fullmatch(setting)
    if match is None:
        raise UsageError(f"--set: '{setting}' is not NAME=VALUE (or NAME[INDEX]=VALUE)")
    name, index_text, value_text = match.groups()
    ctype = _FIELDS.get(name)
    if ctype is None:
        raise UsageError(f"--set: unknown parameter '{name}' (see --help)")
    count = getattr(ctype, "_length_", 0)
    element = ctype._type_ if count else ctype
    if index_text is not None:
        if not count:
            raise UsageError(f"--set: {name} is a single value; give it as {name}=VALUE")
        index = _parse_whole(f"--set {name} index", index_text, 0, count - 1)
    elif count:
        raise UsageError(f"--set: {name} has {count} entries; give one as {name}[INDEX]=VALUE")
    what = f"--set {name}"
    if element is ctypes.c_float:
        value = _parse_float(what, value_text)
    else:
        value = _parse_whole(what, value_text, *_INTEGER_RANGES[element])
    try:
        if name not in PARAMETER_NAMES:  # the unread spans: straight into the block
            if count:
                getattr(params.block, name)[index] = value
            else:
                setattr(params.block, name, value)
        elif count:
            table = getattr(params, name)
            table[index] = value
            setattr(params, name, table)
        else:
            setattr(params, name, value)  # the binding's own checks (beamCount 1 to 256, ...)
    except (TypeError, ValueError) as error:
        raise UsageError(f"{what}: {error}") from None


def params_from_settings(settings):
    """The parameter block of the replay tool's values with the --set
    settings applied in order."""
    params = Params()
    for setting in settings:
        apply_setting(params, setting)
    return params


def _block_bytes(params):
    return ctypes.string_at(ctypes.addressof(params.block), ctypes.sizeof(KVaneParams))


def _params_from_bytes(raw):
    params = Params()
    ctypes.memmove(ctypes.addressof(params.block), raw, ctypes.sizeof(KVaneParams))
    return params


# ---------------------------------------------------------------------------
# Outputs and what interrupted runs leave.


def output_paths(outdir, name):
    """The store and the soundings file of recording file name `name`."""
    return os.path.join(outdir, f"{name}.zarr"), os.path.join(outdir, f"{name}.soundings.csv")


def is_done(outdir, name):
    """True when both outputs of the recording are in place. The soundings
    file is renamed into place last, after the store, so it marks the pair as
    complete; the store's consolidated metadata is its own last write."""
    store, soundings = output_paths(outdir, name)
    return os.path.isfile(soundings) and os.path.isfile(os.path.join(store, ".zmetadata"))


def remove_leftovers(outdir, name):
    """Removes the temporary outputs that an interrupted run (or a worker that
    died) left for this recording."""
    store, soundings = output_paths(outdir, name)
    patterns = [f"{glob.escape(store)}.partial-*", f"{glob.escape(store)}.old-*",
                f"{glob.escape(soundings)}.partial-*"]
    for pattern in patterns:
        for path in glob.glob(pattern):
            _remove(path)


def _remove(path):
    if os.path.isdir(path) and not os.path.islink(path):
        shutil.rmtree(path, ignore_errors=True)
    else:
        try:
            os.remove(path)
        except FileNotFoundError:
            pass


def _put_in_place(temporary_store, temporary_soundings, store, soundings, token):
    """Renames finished temporary outputs to their final names. An earlier
    pair is unmarked first (its soundings file removed), so that no moment
    shows a new store beside an old soundings file as complete."""
    if os.path.lexists(soundings):
        os.remove(soundings)
    old = None
    if os.path.lexists(store):
        old = f"{store}.old-{token}"
        os.rename(store, old)
    os.rename(temporary_store, store)
    os.replace(temporary_soundings, soundings)
    if old is not None:
        _remove(old)


def _settings_of_run(params, roll_from_aux, beam_image):
    """What a store records of the settings it was made with, for this run:
    the data set's param_<field> attributes (rollCount as the kernel leaves
    it: above 100 in magnitude it writes 1 back), roll_from_aux, and whether
    it holds the beam images."""
    wanted = {}
    for field in PARAMETER_NAMES:
        if field in ("rollAngle", "rollTime"):
            continue
        value = getattr(params, field)
        if field == "rollCount" and abs(value) > 100:
            value = 1
        wanted[f"param_{field}"] = value
    wanted["roll_from_aux"] = 1 if roll_from_aux else 0
    wanted["beam_image"] = 1 if beam_image else 0
    return wanted


def _shown(key, value):
    if key in ("roll_from_aux", "beam_image"):
        return f"--{key.replace('_', '-')} {'on' if value else 'off'}"
    if isinstance(value, float):
        value = str(np.float32(value))  # the shortest text that gives the block's float back
    return f"{key.replace('param_', '')} {value}"


def different_setting(store, wanted):
    """How a finished store's settings differ from this run's, as
    "stored, this run wanted" (e.g. "beamCount 256, this run beamCount 128"),
    or None when they agree."""
    try:
        with open(os.path.join(store, ".zmetadata")) as stream:
            metadata = json.load(stream)["metadata"]
    except (OSError, ValueError, KeyError):
        return None  # not readable as a store of ours: nothing to compare
    stored = dict(metadata.get(".zattrs", {}))
    stored["beam_image"] = 1 if "backscatter_amplitude/.zarray" in metadata else 0
    for key, value in wanted.items():
        have = stored.get(key)
        if isinstance(value, float):
            same = have is not None and np.float32(have).tobytes() == np.float32(value).tobytes()
        else:
            same = have == value
        if not same:
            return f"{_shown(key, have)}, this run {_shown(key, value)}"
    return None


# ---------------------------------------------------------------------------
# The work of one recording, run in a worker process.


class Outcome(typing.NamedTuple):
    path: str
    pings: int
    problem: typing.Optional[str]  # None when the outputs were written, else what went wrong


def describe_failure(path, error):
    """The problem, in one line without the recording's path (the caller
    names the recording as the user gave it)."""
    if isinstance(error, OSError) and error.strerror:
        return error.strerror
    text = str(error) or type(error).__name__
    if text.startswith(f"{path}: "):
        return text[len(path) + 2:]
    return text


def process_one(path, outdir, params_block, roll_from_aux, beam_image):
    """Runs one recording through kvane.process_recording and writes its
    store and soundings file into outdir. A recording that cannot be read
    comes back as an Outcome with the problem; other errors (writing the
    outputs, memory) are raised, so that the cluster retries the recording."""
    import dask

    from .products import process_recording, write_soundings_csv

    name = os.path.basename(path)
    with _ONE_AT_A_TIME:
        try:
            ds = process_recording(path, _params_from_bytes(params_block), roll_from_aux=roll_from_aux,
                                   beam_image=beam_image, progress=False)
        except (RecordingError, OSError) as error:
            return Outcome(path, 0, describe_failure(path, error))
        store, soundings = output_paths(outdir, name)
        remove_leftovers(outdir, name)  # of an earlier attempt whose worker died
        token = uuid.uuid4().hex[:12]
        temporary_store, temporary_soundings = f"{store}.partial-{token}", f"{soundings}.partial-{token}"
        try:
            # The beam images are dask arrays in memory: write them here, not
            # as tasks on the cluster this task is running on.
            with dask.config.set(scheduler="synchronous"):
                ds.to_zarr(temporary_store, mode="w-", consolidated=True)
            write_soundings_csv(ds, temporary_soundings)
            _put_in_place(temporary_store, temporary_soundings, store, soundings, token)
        except BaseException:
            _remove(temporary_store)
            _remove(temporary_soundings)
            raise
        return Outcome(path, int(ds.sizes["ping_time"]), None)


def _ignore_interrupts():
    signal.signal(signal.SIGINT, signal.SIG_IGN)


def _interrupted(signum, frame):
    raise KeyboardInterrupt


# ---------------------------------------------------------------------------
# Command line.


class _Parser(argparse.ArgumentParser):
    def error(self, message):
        raise UsageError(f"{message} (see --help)")


def _build_parser():
    names = ", ".join(name for name, _ in KVaneParams._fields_)
    parser = _Parser(
        prog="kvane-batch",
        usage="kvane-batch OUTDIR RECORDING... [options]",
        description="Runs every RECORDING through the kernel, as kvane.process_recording does, on a Dask "
        "cluster: one recording at a time per worker process. Writes OUTDIR/<name>.zarr (the data set) and "
        "OUTDIR/<name>.soundings.csv (ping,beam,angle_deg,range_m,across_m,depth_m,flag, as kvane-replay "
        "--soundings), <name> being the recording's file name. Outputs are renamed into place when complete; "
        "a rerun skips recordings whose outputs are complete and redoes the rest. Ends with the line "
        "'done: R recordings, P pings, F failed, X pings/s'; exit code 1 if a recording failed.",
        epilog=f"Parameter fields for --set: {names}.",
    )
    parser.add_argument("outdir", metavar="OUTDIR", help="folder for the outputs (created if missing)")
    parser.add_argument("recordings", metavar="RECORDING", nargs="+", help="recordings to process")
    parser.add_argument("--workers", type=int, metavar="N",
                        help="worker processes of the local cluster (default: one per core, at most one "
                        "per recording); each runs the kernel with one OpenMP and one OpenBLAS thread")
    parser.add_argument("--scheduler", metavar="ADDRESS",
                        help="use the workers of a running dask-scheduler (e.g. tcp://host:8786) instead of "
                        "a local cluster; OUTDIR and the recordings must be at the same paths on every worker")
    parser.add_argument("--set", action="append", default=[], metavar="NAME=VALUE", dest="settings",
                        help="set a field of the parameter block on every ping, as kvane-replay --set; "
                        "arrays as NAME[INDEX]=VALUE (repeatable)")
    parser.add_argument("--roll-from-aux", action="store_true",
                        help="steer with the roll table of each record (the segmented path)")
    parser.add_argument("--beam-image", action="store_true",
                        help="keep every ping's beam image in the store (backscatter_amplitude, 8 MB a "
                        "full-size ping)")
    parser.add_argument("--force", action="store_true", help="redo recordings whose outputs are complete")
    return parser


def _recordings(paths):
    """{absolute path: path as given}, each file once; two different files
    of one name would write the same outputs and are refused."""
    chosen, by_name = {}, {}
    for given in paths:
        path = os.path.abspath(given)
        name = os.path.basename(path)
        if not name:
            raise UsageError(f"'{given}' is not a file name")
        earlier = by_name.get(name)
        if earlier is None:
            by_name[name] = (given, path)
            chosen[path] = given
        elif os.path.realpath(earlier[1]) != os.path.realpath(path):
            raise UsageError(f"'{earlier[0]}' and '{given}' have the same file name and would write the same "
                             f"outputs ({name}.zarr); process them into different OUTDIRs")
    return chosen


def _lock_outdir(outdir):
    """Holds a lock on OUTDIR for the run, so that two runs never remove each
    other's temporary outputs."""
    import fcntl

    handle = open(os.path.join(outdir, LOCK_NAME), "a")
    try:
        fcntl.flock(handle, fcntl.LOCK_EX | fcntl.LOCK_NB)
    except OSError:
        handle.close()
        raise UsageError(f"{outdir}: another kvane-batch run is writing into this folder") from None
    return handle


def _default_workers():
    try:
        return len(os.sched_getaffinity(0))
    except AttributeError:
        return os.cpu_count() or 1


def _start_local_cluster(workers):
    """A local cluster of `workers` processes, one thread each, whose kernel
    runs one OpenMP and one OpenBLAS thread. These variables go into the
    environment the worker processes start with, before anything in them
    loads OpenBLAS; Dask's usual MALLOC_TRIM_THRESHOLD_ does not (it returns
    the ping buffers to the system after every ping and doubles the system
    time of a worker). A worker that dies is replaced by its nanny and its
    recording tried once more. Ctrl-C reaches only this process, which
    closes the cluster."""
    import dask
    from dask.distributed import LocalCluster

    one_thread = {"OMP_NUM_THREADS": "1", "OPENBLAS_NUM_THREADS": "1"}
    os.environ.update(one_thread)  # what the nannies hand on to the processes they start
    previous = signal.signal(signal.SIGINT, signal.SIG_IGN)  # inherited by the worker processes
    try:
        with dask.config.set({"distributed.nanny.pre-spawn-environ": one_thread}):
            return LocalCluster(n_workers=workers, threads_per_worker=1, processes=True, dashboard_address=None,
                                env=one_thread, scheduler_kwargs={"allowed_failures": 1})
    finally:
        signal.signal(signal.SIGINT, previous)


def _progress(total):
    from tqdm import tqdm

    return tqdm(total=total, unit="recording", disable=None, file=sys.stderr, dynamic_ncols=True)


def _report(line, bar):
    if bar is not None and not bar.disable:
        bar.write(line, file=sys.stderr)
    else:
        print(line, file=sys.stderr, flush=True)


def _plan(options, params, recordings):
    """The recordings to process: those without complete outputs, or all
    with --force. Finished outputs made with other settings are refused
    rather than silently kept."""
    outdir = os.path.abspath(options.outdir)
    if options.force:
        return list(recordings)
    todo = []
    wanted = _settings_of_run(params, options.roll_from_aux, options.beam_image)
    for path in recordings:
        name = os.path.basename(path)
        if not is_done(outdir, name):
            todo.append(path)
            continue
        differs = different_setting(output_paths(outdir, name)[0], wanted)
        if differs is not None:
            raise UsageError(f"{os.path.join(options.outdir, name)}.zarr was made with other settings ({differs}): "
                             "give another OUTDIR, or --force to redo it")
    return todo


def _connect(options, recordings):
    """A client of the given scheduler, or of a new local cluster (then also
    returned, for closing) of at most one worker per recording."""
    from dask.distributed import Client

    if options.scheduler:
        try:
            client = Client(options.scheduler, timeout="20s")
        except OSError as error:
            raise CannotRun(f"cannot reach the scheduler at {options.scheduler}: {error}") from None
        if not client.scheduler_info()["workers"]:
            print(f"kvane-batch: waiting for workers at {options.scheduler}", file=sys.stderr)
        return client, None
    cluster = _start_local_cluster(min(options.workers or _default_workers(), recordings))
    client = Client(cluster)
    client.register_worker_callbacks(_ignore_interrupts)  # also on the workers that replace dead ones
    return client, cluster


class _Tally:
    def __init__(self):
        self.written = self.pings = self.failed = 0
        self.seconds = 0.0


def _process_all(client, options, block, recordings, todo, tally):
    """Submits every recording of todo and collects the outcomes as they
    come, reporting failures on stderr."""
    from dask.distributed import KilledWorker, as_completed

    outdir = os.path.abspath(options.outdir)
    started = time.perf_counter()
    futures = {
        client.submit(process_one, path, outdir, block, options.roll_from_aux, options.beam_image, pure=False,
                      retries=1): path
        for path in todo
    }
    bar = _progress(len(todo))
    try:
        for future in as_completed(futures):
            path = futures[future]
            try:
                outcome = future.result()
                problem = outcome.problem
            except KilledWorker:
                problem = "the worker processes running it died (out of memory? fewer workers give each more)"
            except Exception as error:  # raised in the worker, after the retry
                problem = describe_failure(path, error)
            if problem is None:
                tally.written += 1
                tally.pings += outcome.pings
            else:
                tally.failed += 1
                _report(f"kvane-batch: {recordings[path]}: {problem}", bar)
            bar.set_postfix_str(f"{tally.pings} pings, {tally.failed} failed", refresh=False)
            bar.update(1)
    finally:
        bar.close()
        tally.seconds = time.perf_counter() - started


def _run(options, block, recordings, todo):
    outdir = os.path.abspath(options.outdir)
    for path in recordings:
        remove_leftovers(outdir, os.path.basename(path))
    skipped = len(recordings) - len(todo)
    if skipped:
        print(f"kvane-batch: {skipped} of {len(recordings)} recordings already done in {options.outdir}, skipped "
              "(--force redoes them)", file=sys.stderr)
    tally = _Tally()
    if todo:
        client, cluster = _connect(options, len(todo))
        try:
            with client:
                _process_all(client, options, block, recordings, todo, tally)
        finally:
            if cluster is not None:
                cluster.close()
    return tally


def main(argv=None):
    """Runs kvane-batch with the given arguments (sys.argv[1:] when None) and
    returns the exit code: 0, 1 when a recording failed, 2 for a command line
    that cannot run, 130 when interrupted."""
    try:
        options = _build_parser().parse_args(argv)
        params = params_from_settings(options.settings)
        if options.workers is not None and options.workers < 1:
            raise UsageError(f"--workers: {options.workers} is out of range (1 or more)")
        if options.workers is not None and options.scheduler:
            raise UsageError("--workers and --scheduler: the scheduler's workers are used; give one of them")
        recordings = _recordings(options.recordings)
        outdir = os.path.abspath(options.outdir)
        try:
            os.makedirs(outdir, exist_ok=True)
        except OSError as error:
            raise UsageError(f"{options.outdir}: cannot create the folder: {error.strerror}") from None
        lock = _lock_outdir(outdir)
        try:
            todo = _plan(options, params, recordings)
        except UsageError:
            lock.close()
            raise
    except UsageError as error:
        print(f"kvane-batch: {error}", file=sys.stderr)
        return USAGE_ERROR

    previous = signal.signal(signal.SIGTERM, _interrupted)  # a killed job closes its cluster too
    try:
        tally = _run(options, _block_bytes(params), recordings, todo)
    except CannotRun as error:
        print(f"kvane-batch: {error}", file=sys.stderr)
        return 1
    except KeyboardInterrupt:
        print("kvane-batch: interrupted; the recordings not finished are redone by a rerun", file=sys.stderr)
        return INTERRUPTED
    finally:
        signal.signal(signal.SIGTERM, previous)
        lock.close()
    rate = tally.pings / tally.seconds if tally.seconds > 0 else 0.0
    print(f"done: {tally.written} recordings, {tally.pings} pings, {tally.failed} failed, {rate:.1f} pings/s",
          flush=True)
    return 1 if tally.failed else 0


if __name__ == "__main__":
    # Through the package's module, so that the cluster ships kvane.batch's
    # functions by name rather than as code of __main__.
    from kvane.batch import main as batch_main

    sys.exit(batch_main())
