"""kvane.to_sonar_netcdf on a short simulated recording: the group tree and
root attributes of SONAR-netCDF4, every group opened by netCDF4 and by
xarray, amplitudes and soundings read back equal to the data set."""

import datetime
import os
import re

import numpy as np
import pytest

xr = pytest.importorskip("xarray")
netCDF4 = pytest.importorskip("netCDF4")

GROUPS = ("Annotation", "Environment", "Platform", "Provenance", "Sonar",
          "Sonar/Beam_group1", "Sonar/Beam_group1/Bathymetry")


@pytest.fixture(scope="module")
def recording(simulated, tmp_path_factory):
    return simulated(tmp_path_factory.mktemp("sonar") / "flat.kvr", "--pings", 3, "--samples", 1500, "--depth", 20)


@pytest.fixture(scope="module")
def with_images(library, recording):
    import kvane

    ds = kvane.process_recording(recording, beam_image=True, progress=False)
    path = recording.with_suffix(".nc")
    kvane.to_sonar_netcdf(ds, path)
    return ds, path


def test_group_tree_and_attributes_follow_the_convention(with_images):
    ds, path = with_images
    with netCDF4.Dataset(path) as nc:
        assert set(nc.groups) == {"Annotation", "Environment", "Platform", "Provenance", "Sonar"}
        assert set(nc["Sonar"].groups) == {"Beam_group1"}
        assert set(nc["Sonar/Beam_group1"].groups) == {"Bathymetry"}
        assert nc.sonar_convention_authority == "ICES"
        assert nc.sonar_convention_name == "SONAR-netCDF4"
        assert "SONAR-netCDF4-" + nc.sonar_convention_version in nc.Conventions.split(", ")
        assert re.fullmatch(r"\d{4}-\d\d-\d\dT\d\d:\d\d:\d\dZ", nc.date_created)
        assert "flat.kvr" in nc.title
        beams = nc["Sonar/Beam_group1"]
        assert beams["ping_time"].dtype == np.uint64 and beams["beam"].dtype == str
        assert beams["beam_stabilisation"].datatype.enum_dict == {"not_stabilised": 0, "stabilised": 1}
        assert beams["backscatter_r"].chunking() == [1, 256, 1500]
        assert nc["Environment/sound_speed_indicative"][...] == 1500.0
        provenance = nc["Provenance"]
        assert list(provenance["source_filenames"][:]) == ["flat.kvr"]
        assert provenance.conversion_software_name == "KVane"
        assert provenance.param_soundSpeed == ds.attrs["param_soundSpeed"]
    for group in GROUPS:
        xr.open_dataset(path, group=group).close()
    assert not [name for name in os.listdir(path.parent) if name.endswith(".tmp")]


def test_beam_group_reads_back_equal(with_images):
    ds, path = with_images
    with xr.open_dataset(path, group="Sonar/Beam_group1") as beams:
        np.testing.assert_array_equal(beams["backscatter_r"].values, ds["backscatter_amplitude"].values)
        assert beams["backscatter_r"].dtype == np.float32
        np.testing.assert_array_equal(beams["ping_time"].values.astype(np.int64),
                                      np.rint(ds["ping_time"].values * 1e9).astype(np.int64))
        assert [int(b) for b in beams["beam"].values] == list(ds["beam"].values)
        for key in ("steering_angle", "ping_number", "first_echo_sample", "sample_count"):
            np.testing.assert_array_equal(beams[key].values, ds[key].values)
        np.testing.assert_array_equal(beams["beam_stabilisation"].values, ds["segmented"].values)
        np.testing.assert_allclose(beams["beam_direction_y"].values, np.sin(np.deg2rad(ds["steering_angle"])),
                                   atol=1e-6)
        assert (beams["sample_interval"].values == np.float32(1 / 20000)).all()
        assert (beams["transmit_duration_nominal"].values == ds.attrs["param_pulseLength"]).all()
        assert (beams["transmit_frequency_start"].values == 200000).all()
        # The convention's range of sample i, c/2 (i dt - offset), is the soundings' range.
        with xr.open_dataset(path, group="Environment") as environment:
            c = float(environment["sound_speed_indicative"])
        dt, offset = (beams[k].values[:, None].astype(np.float64) for k in ("sample_interval", "sample_time_offset"))
        detected = np.isfinite(ds["detected_range"].values)
        assert detected.sum() > 200
        ranges = c / 2 * (ds["bottom_sample"].values * dt - offset)
        np.testing.assert_allclose(ranges[detected], ds["detected_range"].values[detected], rtol=1e-6)


def test_soundings_read_back_equal(with_images):
    ds, path = with_images
    with xr.open_dataset(path, group="Sonar/Beam_group1/Bathymetry") as soundings:
        expected = {k for k in ds.data_vars if ds[k].dims == ("ping_time", "beam")} - {"steering_angle"}
        assert set(soundings.data_vars) == expected
        for key in expected:
            assert soundings[key].dtype == ds[key].dtype and soundings[key].attrs["units"] == ds[key].attrs["units"]
            np.testing.assert_array_equal(soundings[key].values, ds[key].values)


def test_without_beam_images_everything_but_the_amplitudes(library, recording, with_images, tmp_path):
    import kvane

    ds = kvane.process_recording(recording, beam_image=False, progress=False)
    kvane.to_sonar_netcdf(ds, tmp_path / "plain.nc")
    with xr.open_dataset(tmp_path / "plain.nc", group="Sonar/Beam_group1") as plain, \
            xr.open_dataset(with_images[1], group="Sonar/Beam_group1") as full:
        assert "backscatter_r" not in plain and "range_sample" not in plain.dims
        assert "beam images" in plain.attrs["comment"]
        xr.testing.assert_identical(plain, full.drop_vars(["backscatter_r", "range_sample"]).assign_attrs(
            comment=plain.attrs["comment"]))


def test_ping_time_with_a_known_start_or_as_an_index(with_images, tmp_path):
    import kvane

    ds, _ = with_images
    start = datetime.datetime(2024, 5, 6, 9, 8, 7, tzinfo=datetime.timezone(datetime.timedelta(hours=2)))
    kvane.to_sonar_netcdf(ds, tmp_path / "dated.nc", first_ping_time=start)
    with xr.open_dataset(tmp_path / "dated.nc", group="Sonar/Beam_group1") as beams:
        expected = np.datetime64("2024-05-06T07:08:07", "ns") + (ds["ping_time"].values * 1e9).astype("timedelta64[ns]")
        np.testing.assert_array_equal(beams["ping_time"].values, expected)

    numbered = ds.assign_coords(ping_time=("ping_time", [0.0, 1.0, 2.0],
                                           {"units": "s", "long_name": "ping index (the records carry no ping time)"}))
    kvane.to_sonar_netcdf(numbered, tmp_path / "numbered.nc")
    with xr.open_dataset(tmp_path / "numbered.nc", group="Sonar/Beam_group1") as beams:
        assert beams["ping_time"].attrs["units"] == "1" and list(beams["ping_time"].values) == [0, 1, 2]
    with pytest.raises(ValueError, match="ping index"):
        kvane.to_sonar_netcdf(numbered, tmp_path / "x.nc", first_ping_time=start)


def test_errors_name_what_is_missing_and_leave_no_partial_file(with_images, tmp_path):
    import kvane

    ds, _ = with_images
    with pytest.raises(ValueError, match=r"variable depth.*attribute param_soundSpeed"):
        kvane.to_sonar_netcdf(_without(ds.drop_vars("depth"), "param_soundSpeed"), tmp_path / "x.nc")
    missing = tmp_path / "no such folder" / "x.nc"
    with pytest.raises(FileNotFoundError, match="no such folder"):
        kvane.to_sonar_netcdf(ds, missing)

    target = tmp_path / "kept.nc"
    target.write_bytes(b"an earlier file")
    broken = ds.copy()
    broken["depth"] = broken["depth"].assign_attrs(comment={"not": "writable"})
    with pytest.raises(TypeError):
        kvane.to_sonar_netcdf(broken, target)
    assert target.read_bytes() == b"an earlier file"
    assert sorted(os.listdir(tmp_path)) == ["kept.nc"]


def _without(ds, attribute):
    out = ds.copy()
    out.attrs = {k: v for k, v in ds.attrs.items() if k != attribute}
    return out
