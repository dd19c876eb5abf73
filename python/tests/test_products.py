"""Soundings in metres and the recording's data set, against the simulator's
seabed: flat, sloped and under a rolling array on both steering paths."""

import subprocess

import numpy as np
import pytest

import kvane

xr = pytest.importorskip("xarray")

DEPTH = 20.0


@pytest.fixture(scope="module")
def simulate(simulated, tmp_path_factory):
    folder = tmp_path_factory.mktemp("products")
    return lambda name, *options: simulated(folder / name, "--depth", DEPTH, *options)


@pytest.fixture(scope="module")
def flat(simulate):
    return simulate("flat.kvr", "--pings", "4", "--samples", "1800")


@pytest.fixture(scope="module")
def flat_ds(library, flat):
    return kvane.process_recording(flat, progress=False)


def inner_own(ds):
    """Own detections on beams within 60 degrees of nadir."""
    return (ds.bottom_flag.values == 1) & (np.abs(ds.beam_angle.values) < 60.0)


def fitted_slopes(ds):
    mask = inner_own(ds)
    x, d = ds.across_track.values, ds.depth.values
    return np.array([np.degrees(np.arctan(np.polyfit(x[p][mask[p]], d[p][mask[p]], 1)[0]))
                     for p in range(len(x))])


def test_flat_seabed_lies_at_its_depth(flat_ds):
    mask = inner_own(flat_ds)
    assert mask.sum() >= 0.8 * mask.shape[0] * 190  # about 218 of 256 beams lie within 60 degrees
    error = flat_ds.depth.values[mask] - DEPTH
    assert np.mean(np.abs(error) <= max(0.15, 0.01 * DEPTH)) >= 0.97
    assert np.all(np.abs(fitted_slopes(flat_ds)) < 0.2)


def test_sloped_seabed_gives_its_slope(library, simulate):
    ds = kvane.process_recording(simulate("slope.kvr", "--pings", "3", "--samples", "2400", "--slope", "15"),
                                 progress=False)
    slopes = fitted_slopes(ds)
    assert np.all(np.abs(slopes - 15.0) <= 1.0), slopes
    mask = inner_own(ds)
    truth = DEPTH + ds.across_track.values * np.tan(np.radians(15.0))
    assert np.mean(np.abs(ds.depth.values - truth)[mask] <= np.maximum(0.15, 0.01 * truth[mask])) >= 0.95


@pytest.mark.parametrize("roll_from_aux", [False, True], ids=["one-shot", "segmented"])
def test_rolling_array_gives_a_flat_seabed(library, simulate, roll_from_aux):
    path = simulate("roll.kvr", "--pings", "5", "--samples", "1800", "--roll-amplitude", "5",
                    "--roll-period", "3", "--ping-interval", "0.4")
    ds = kvane.process_recording(path, roll_from_aux=roll_from_aux, progress=False)
    assert (ds.segmented.values == roll_from_aux).all()
    # The steering angles alone would tilt these pings by several degrees.
    mask = inner_own(ds)
    steering = np.radians(ds.steering_angle.values.astype(np.float64))
    x, d = ds.detected_range.values * np.sin(steering), ds.detected_range.values * np.cos(steering)
    tilts = [np.degrees(np.arctan(np.polyfit(x[p][mask[p]], d[p][mask[p]], 1)[0])) for p in range(len(x))]
    if not roll_from_aux:
        assert max(np.abs(tilts)) > 3.0
    assert np.all(np.abs(fitted_slopes(ds)) < 0.3)
    assert np.mean(np.abs(ds.depth.values[mask] - DEPTH) <= 0.2) >= 0.97


def test_replay_soundings_equal_the_data_set(tool, tmp_path, simulate, library):
    # 1100 samples end before the outer beams' echoes: those are copied from
    # their neighbours. 2.5 m: the tracker's path, with a water column too
    # short for the noise estimate.
    rolling = simulate("roll2.kvr", "--pings", "3", "--samples", "1100", "--roll-amplitude", "4", "--roll-period", "2")
    shallow = simulate("shallow.kvr", "--pings", "3", "--samples", "400", "--depth", "2.5")
    survey = ["--sound-speed-sigma", "3", "--roll-sigma", "0.1", "--range-offset-samples", "1.5"]
    cases = (
        (rolling, [], {}),
        (rolling, ["--roll-from-aux"], {"roll_from_aux": True}),
        (shallow, survey, {"sound_speed_sigma": 3.0, "roll_sigma": 0.1, "range_offset_samples": 1.5}),
    )
    copied = 0
    for path, options, keywords in cases:
        csv = tmp_path / "replay.csv"
        subprocess.run([str(tool("kvane-replay")), str(path), "--soundings", str(csv), *options],
                       check=True, capture_output=True)
        ds = kvane.process_recording(path, progress=False, **keywords)
        ours = tmp_path / "python.csv"
        kvane.write_soundings_csv(ds, ours)
        assert csv.read_text() == ours.read_text()
        # ... and the rows carry the data set's values to their printed digits.
        rows = np.loadtxt(csv, delimiter=",", skiprows=1, usecols=range(10))
        p = rows[:, 0].astype(int) - 1
        b = rows[:, 1].astype(int)
        names = ("beam_angle", "detected_range", "across_track", "depth", "bottom_flag", "depth_uncertainty",
                 "across_uncertainty", "quality_factor")
        for column, name in enumerate(names, start=2):
            np.testing.assert_allclose(rows[:, column], ds[name].values[p, b], atol=5.1e-4 if column == 9 else 5.1e-5)
        assert len(rows) == int((ds.bottom_sample.values != 0).sum())
        copied += int((rows[:, 6] == 2).sum())
    assert copied > 0


def test_the_same_recording_gives_the_same_data_set(flat, flat_ds):
    # The kernel keeps state from ping to ping; each run starts afresh.
    again = kvane.process_recording(flat, progress=False)
    again.attrs["date_created"] = flat_ds.attrs["date_created"]
    xr.testing.assert_identical(again, flat_ds)


def test_data_set_is_labelled(flat_ds):
    assert flat_ds.sizes["ping_time"] == 4 and flat_ds.sizes["beam"] == 256
    np.testing.assert_allclose(flat_ds.ping_time.values, [0.0, 0.5, 1.0, 1.5])  # the simulator's interval
    for name, variable in {**flat_ds.data_vars, **flat_ds.coords}.items():
        assert variable.attrs.get("units") and variable.attrs.get("long_name"), name
    assert flat_ds.attrs["recording"] == "flat.kvr"
    assert flat_ds.attrs["param_soundSpeed"] == 1500.0 and flat_ds.attrs["param_beamCount"] == 256
    assert "backscatter_amplitude" not in flat_ds


def test_netcdf_and_zarr_read_back_equal(library, flat, tmp_path):
    ds = kvane.process_recording(flat, beam_image=True, progress=False)
    amplitude = ds.backscatter_amplitude
    assert amplitude.shape == (4, 256, 1800) and amplitude.chunks[0] == (1, 1, 1, 1)
    ds.to_netcdf(tmp_path / "flat.nc")
    ds.to_zarr(tmp_path / "flat.zarr")
    for back in (xr.open_dataset(tmp_path / "flat.nc"), xr.open_zarr(tmp_path / "flat.zarr")):
        with back:
            xr.testing.assert_equal(back.load(), ds.load())
            assert back.depth.attrs["units"] == "m"
            assert back.attrs["recording"] == "flat.kvr"


def test_unreadable_recordings_are_named(library, flat, tmp_path):
    with pytest.raises(OSError, match="missing.kvr"):
        kvane.process_recording(tmp_path / "missing.kvr", progress=False)
    data = flat.read_bytes()
    cut = tmp_path / "cut.kvr"
    cut.write_bytes(data[: len(data) * 5 // 8])  # ends inside record 3 of 4
    with pytest.raises(kvane.RecordingError, match=r"cut\.kvr: record 3: truncated"):
        kvane.process_recording(cut, progress=False)
    bare = tmp_path / "bare.kvr"
    kvane.write_recording(bare, [(np.zeros((64, 100), np.int32), np.zeros((64, 100), np.int32))])
    with pytest.raises(kvane.RecordingError, match=r"bare\.kvr: record 1: .*roll table"):
        kvane.process_recording(bare, roll_from_aux=True, progress=False)
    # Without roll tables the pings are counted by index.
    assert kvane.process_recording(bare, progress=False).ping_time.values.tolist() == [0.0]
