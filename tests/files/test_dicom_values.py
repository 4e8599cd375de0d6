"""DICOM values: stored bits, rescale slope and intercept, the series' own
window and units reach the module as real values, with no "voxelType"."""
import numpy as np
import pytest

from conftest import info_field, render, slice_document, zrslice
from dicom_writer import Grid, write_series

DIMS = (20, 16, 5)
GRID = Grid((-9.5, -7.5, 10.0), spacing=(1.0, 1.0), step=(0, 0, 2.0))


def through_slice(path, k=2, table=None, extra=None):
    """A thin slice exactly through slice k, one pixel per voxel: pixel (c, r)
    is voxel (c, r, k)."""
    volume = dict({"type": "volume", "file": str(path)}, **(extra or {}))
    document = slice_document(volume, centre=tuple(GRID.world((9.5, 7.5, k))), size=DIMS[:2], extent=float(DIMS[0]),
                              table=table)
    return document


def pattern(low, high):
    """Values from `low` to `high` over the volume, varied along every axis."""
    i, j, k = np.meshgrid(*[np.arange(d) for d in DIMS], indexing="ij")
    t = (i * 7 + j * 13 + k * 29) % 97 / 96.0
    return np.rint(low + t * (high - low))


# name, write_series options, stored values, real values, module offset (None for float)
def integer_cases():
    hu = pattern(-1000, 2000)
    garbage = np.where(pattern(0, 1) > 0.5, 0xF000, 0x5000)
    signed12 = pattern(-2048, 2047)
    return [
        ("CT uint16 with intercept -1024", {"slope": 1, "intercept": -1024}, hu + 1024, hu, 1024),
        ("CT int16 with padding -2000", {"slope": 1, "intercept": -1024, "signed": True},
         np.where(hu < -900, -2000, hu + 1024), np.where(hu < -900, -3024, hu), 32768),
        ("12 of 16 bits, high bits in use", {"stored": 12}, hu + 1024 + garbage, hu + 1024, 0),
        ("signed 12 of 16 bits", {"stored": 12, "signed": True}, np.where(signed12 < 0, signed12 + 4096, signed12),
         signed12, 32768),
        ("8-bit", {"bits": 8}, pattern(0, 255), pattern(0, 255), 0),
    ]


@pytest.mark.parametrize("name, options, stored, real, offset", integer_cases(), ids=[c[0] for c in integer_cases()])
def test_stored_values_become_real_values(files, name, options, stored, real, offset):
    options = dict(options)
    stored_bits = options.pop("stored", None)
    paths = write_series(files / "series", stored, GRID, **options)
    if stored_bits:
        import pydicom
        for path in paths:  # BitsStored below BitsAllocated, as the data says
            ds = pydicom.dcmread(str(path))
            ds.BitsStored, ds.HighBit = stored_bits, stored_bits - 1
            ds.save_as(str(path))
    run, _, values, lists = render(files, through_slice(files / "series"))
    assert run.code == 0, run
    assert lists["volumes"]["v"]["valueOffset"] == offset
    got = values.astype(int) - offset
    # Pixel centres lie on voxel centres up to float rounding, which the
    # module's truncation may turn into one less.
    assert np.max(np.abs(got - real[:, :, 2].T)) <= 1, name
    assert lists["volumes"]["v"]["range"] == [real.min(), real.max()]


@pytest.mark.parametrize("name, options, slopes, intercepts", [
    ("non-integral slope", {"slope": 0.5, "intercept": -100}, [0.5] * 5, [-100] * 5),
    ("per-slice slope (PET)", {"slope": 1, "per_slice": {"RescaleSlope": [0.25, 0.5, 1.5, 2.0, 0.125]}},
     [0.25, 0.5, 1.5, 2.0, 0.125], [0] * 5),
])
def test_scaled_values_become_float_values(files, name, options, slopes, intercepts):
    stored = pattern(0, 4000)
    write_series(files / "series", stored, GRID, **options)
    real = stored * np.array(slopes)[None, None, :] + np.array(intercepts)[None, None, :]
    centre, width = float(np.percentile(real, 50)), float(np.ptp(real))
    run, picture, _, lists = render(files, through_slice(files / "series",
                                                          table={"type": "table",
                                                                 "window": {"centre": centre, "width": width}}))
    assert run.code == 0, run
    assert lists["volumes"]["v"]["float"] is True
    assert np.allclose(lists["volumes"]["v"]["range"], [real.min(), real.max()], rtol=1e-6)
    lo = centre - width / 2
    expected = np.clip((real[:, :, 2].T - lo) * (255.0 / width), 0, 255)
    assert np.max(np.abs(picture[:, :, 0].astype(float) - expected)) <= 1.0, name


def test_a_rescaled_ct_opens_in_hounsfield_units_with_its_own_window(files):
    hu = pattern(-1000, 2000)
    write_series(files / "series", hu + 1024, GRID, slope=1, intercept=-1024, window=(40, 400))
    document = through_slice(files / "series")
    del document["scene"][0]["tables"]
    run, picture, values, lists = render(files, document)
    assert run.code == 0, run
    assert "using the file's own window (centre 40, width 400)" in run.err
    assert lists["volumes"]["v"]["units"] == "HU" and lists["volumes"]["v"]["valueOffset"] == 1024
    expected = np.clip((hu[:, :, 2].T - (40 - 200)) * (255.0 / 400), 0, 255)
    assert np.max(np.abs(picture[:, :, 0].astype(float) - expected)) <= 1.0
    info = zrslice("info", files / "series")
    assert info.code == 0, info
    assert info_field(info.out, "window").startswith("centre 40, width 400")
    assert "value = stored x 1 + -1024" in info_field(info.out, "voxels")
    assert info_field(info.out, "values").startswith("-1000 .. 2000 HU")
