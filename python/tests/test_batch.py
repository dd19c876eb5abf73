"""kvane-batch run as a user runs it (build/tools/kvane-batch), on three short
simulated recordings and a truncated one, against kvane.process_recording in
one process."""

import os
import re
import shutil
import subprocess

import numpy as np
import pytest

for module in ("xarray", "zarr", "dask", "distributed", "tqdm"):
    pytest.importorskip(module)

import dask  # noqa: E402
import xarray as xr  # noqa: E402

GOOD = ("survey1.kvr", "survey2.kvr", "survey3.kvr")
DONE = re.compile(r"done: (\d+) recordings, (\d+) pings, (\d+) failed, [0-9.]+ pings/s")


@pytest.fixture(scope="module")
def recordings(simulated, tmp_path_factory):
    folder = tmp_path_factory.mktemp("recordings")
    shapes = [["--depth", "20"], ["--depth", "15", "--roll-amplitude", "3"], ["--depth", "25", "--slope", "10"]]
    for seed, (name, shape) in enumerate(zip(GOOD, shapes), 1):
        simulated(folder / name, "--pings", 3, "--samples", 1200, "--seed", seed, *shape)
    whole = (folder / GOOD[0]).read_bytes()
    (folder / "cut.kvr").write_bytes(whole[: len(whole) // 2])  # ends inside the second record
    return folder


@pytest.fixture(scope="module")
def reference(library, recordings, tmp_path_factory):
    """Each recording's outputs from kvane.process_recording in this process."""
    import kvane

    folder = tmp_path_factory.mktemp("reference")
    for name in GOOD:
        ds = kvane.process_recording(recordings / name, progress=False)
        with dask.config.set(scheduler="synchronous"):
            ds.to_zarr(folder / f"{name}.zarr")
        kvane.write_soundings_csv(ds, folder / f"{name}.soundings.csv")
    return folder


def batch(tool, outdir, recordings, *options):
    names = [*GOOD, "cut.kvr"]
    return subprocess.run([str(tool("kvane-batch")), str(outdir), *[str(recordings / n) for n in names], *options],
                          capture_output=True, text=True, timeout=600)


def summary(run):
    match = DONE.fullmatch(run.stdout.splitlines()[-1])
    assert match, run.stdout
    return tuple(int(v) for v in match.groups())


def assert_outputs_equal(outdir, reference, name):
    assert (outdir / f"{name}.soundings.csv").read_bytes() == (reference / f"{name}.soundings.csv").read_bytes()
    with xr.open_zarr(outdir / f"{name}.zarr") as got, xr.open_zarr(reference / f"{name}.zarr") as want:
        assert sorted(got.variables) == sorted(want.variables)
        for key in want.variables:
            a, b = got[key].values, want[key].values
            assert a.dtype == b.dtype and a.shape == b.shape and a.tobytes() == b.tobytes(), key
            assert got[key].attrs == want[key].attrs, key
        assert {**got.attrs, "date_created": None} == {**want.attrs, "date_created": None}


@pytest.fixture(scope="module")
def first_run(tool, recordings, tmp_path_factory):
    outdir = tmp_path_factory.mktemp("batch") / "out"  # created by the run
    return outdir, batch(tool, outdir, recordings, "--workers", "2")


def test_two_workers_write_what_one_process_writes(first_run, reference):
    outdir, run = first_run
    assert run.returncode == 1, run.stderr
    assert summary(run) == (3, 9, 1)
    problems = [line for line in run.stderr.splitlines() if line.startswith("kvane-batch:")]
    assert len(problems) == 1 and "cut.kvr: record 2: truncated" in problems[0], run.stderr
    for name in GOOD:  # four recordings on two workers: at least one ran two in turn
        assert_outputs_equal(outdir, reference, name)
    assert sorted(os.listdir(outdir)) == sorted([".kvane-batch.lock"] + [f"{n}.zarr" for n in GOOD]
                                                + [f"{n}.soundings.csv" for n in GOOD])


def test_rerun_leaves_finished_recordings_alone(tool, recordings, first_run):
    outdir, _ = first_run
    stamps = {p: p.stat().st_mtime_ns for p in outdir.glob("*/.zmetadata")}
    stamps.update({p: p.stat().st_ino for p in outdir.glob("*.csv")})
    run = batch(tool, outdir, recordings)
    assert run.returncode == 1 and summary(run) == (0, 0, 1), run.stderr
    assert "3 of 4 recordings already done" in run.stderr
    assert stamps == {p: (p.stat().st_mtime_ns if p.name == ".zmetadata" else p.stat().st_ino) for p in stamps}


def test_store_of_an_interrupted_write_is_redone(tool, recordings, reference, first_run, tmp_path):
    outdir = tmp_path / "out"
    shutil.copytree(first_run[0], outdir)
    # survey1: killed between its two renames (store in place, soundings not);
    # survey2: killed while its store was being written.
    (outdir / "survey1.kvr.soundings.csv").unlink()
    shutil.rmtree(outdir / "survey1.kvr.zarr" / "depth")
    partial = outdir / "survey2.kvr.zarr.partial-0123456789ab"
    shutil.copytree(outdir / "survey2.kvr.zarr", partial)
    (partial / ".zmetadata").unlink()
    run = batch(tool, outdir, recordings, "--workers", "1")
    assert run.returncode == 1 and summary(run) == (1, 3, 1), run.stderr
    assert_outputs_equal(outdir, reference, "survey1.kvr")
    assert not partial.exists()


@pytest.mark.parametrize("setting, message", [
    ("beamCount=300", "--set beamCount: parameter beamCount = 300 is outside 1..256"),
    ("rollAngle=1.5", "--set: rollAngle has 100 entries; give one as rollAngle[INDEX]=VALUE"),
    ("rollTime[100]=5", "--set rollTime index: 100 is out of range (0 to 99)"),
    ("soundSpeed=1500m", "--set soundSpeed: '1500m' is not a number"),
    ("limitMode=128", "--set limitMode: 128 is out of range (-128 to 127)"),
    ("beamcount=128", "--set: unknown parameter 'beamcount' (see --help)"),
])
def test_bad_settings_are_refused_before_any_work(tmp_path, capsys, setting, message):
    from kvane.batch import main

    outdir = tmp_path / "out"
    assert main([str(outdir), "missing.kvr", "--set", "sectorPort=60", "--set", setting]) == 2
    assert capsys.readouterr().err == f"kvane-batch: {message}\n"
    assert not outdir.exists()


def test_settings_reach_the_block_as_the_replay_tool_sets_them():
    from kvane.batch import params_from_settings

    params = params_from_settings(["beamCount=128", "rollAngle[3]=-1.25", "soundSpeed=1.1", "reserved0[1]=2.5",
                                   "sectorPort=nan"])
    assert params.beamCount == 128 and params.rollAngle[3] == -1.25 and np.isnan(params.sectorPort)
    assert params.soundSpeed == float(np.float32(1.1)) and params.block.reserved0[1] == 2.5


def test_finished_outputs_of_other_settings_and_clashing_names_are_refused(tool, recordings, first_run, capsys,
                                                                            tmp_path):
    from kvane.batch import main

    outdir, _ = first_run
    assert main([str(outdir), str(recordings / "survey1.kvr"), "--set", "clipRatio=0.02"]) == 2
    assert "(clipRatio 0.01, this run clipRatio 0.02)" in capsys.readouterr().err
    other = tmp_path / "survey1.kvr"
    other.write_bytes(b"")
    assert main([str(tmp_path / "out"), str(recordings / "survey1.kvr"), str(other)]) == 2
    assert "have the same file name" in capsys.readouterr().err
