"""Values meet tables: a CT in Hounsfield units, a float map and a scaled file
give the right grey through one request shape."""
import nibabel as nib
import numpy as np
import pytest

from conftest import render, slice_document, zrslice, info_field


def ct_volume():
    """A CT-like int16 volume in HU: air around a water cylinder holding a bone rod."""
    x, y, z = np.meshgrid(np.arange(40), np.arange(40), np.arange(10), indexing="ij")
    hu = np.full((40, 40, 10), -1000, np.int16)
    r = np.hypot(x - 19.5, y - 19.5)
    hu[r < 15] = 0
    hu[r < 4] = 1000
    return hu


def grey_at_centre(picture):
    h, w = picture.shape[:2]
    return int(picture[h // 2, w // 2, 0])


@pytest.mark.parametrize("table, air, water, bone", [
    ({"window": {"centre": 40, "width": 400}}, 0, 102, 255),
    ({"preset": "softTissue"}, 0, 102, 255),
    ({"preset": "bone"}, 0, 71, 212),
    ({"controlPoints": [[-1000, 0, 0, 0, 1], [1000, 1, 1, 1, 1]]}, 0, 128, 255),
])
def test_ct_in_hounsfield_units_with_every_table_form(files, table, air, water, bone):
    path = files / "ct.nii.gz"
    nib.save(nib.Nifti1Image(ct_volume(), np.eye(4)), str(path))
    # nibabel's affine is RAS: voxel (i, j, k) at RAS (i, j, k) = LPS (-i, -j, k).
    document = slice_document({"type": "volume", "file": str(path)}, centre=(-19.5, -19.5, 5), extent=40,
                              size=(40, 40), table=dict({"type": "table"}, **table))
    run, picture, values, lists = render(files, document)
    assert run.code == 0, run
    assert grey_at_centre(picture) == pytest.approx(bone, abs=1)
    assert int(picture[20, 30, 0]) == pytest.approx(water, abs=1)  # 10 mm off the rod: water
    assert int(picture[1, 1, 0]) == air
    assert picture[1, 1, 3] == 255  # air inside the volume is covered


def test_info_reports_values_in_their_units_and_the_world_convention(files):
    path = files / "ct.nii"
    nib.save(nib.Nifti1Image(ct_volume(), np.eye(4)), str(path))
    run = zrslice("info", path)
    assert run.code == 0, run
    assert info_field(run.out, "values").startswith("-1000 .. 1000")
    assert "LPS" in run.out


def dose_map():
    """A float32 dose map in Gy: a ramp along x from 0 to 2.0 Gy."""
    x = np.arange(21, dtype=np.float32)
    return np.broadcast_to((x * 0.1)[:, None, None], (21, 6, 6)).astype(np.float32).copy()


def expected_grey(v, centre, width):
    lo = centre - width * 0.5
    return np.where(v > lo, np.minimum((v - lo) * np.float32(255.0 / width), 255), 0).astype(int)


@pytest.mark.parametrize("table, grey", [
    # The same request shape as for integer volumes.
    ({"window": {"centre": 1.0, "width": 2.0}}, lambda v: expected_grey(v, 1.0, 2.0)),
    ({"controlPoints": [[0, 0, 0, 0, 1], [2.0, 1, 1, 1, 1]]}, lambda v: (v / 2.0 * 255).astype(int)),
])
def test_a_float_dose_map_is_windowed_by_the_same_descriptions(files, table, grey):
    path = files / "dose.nii.gz"
    nib.save(nib.Nifti1Image(dose_map(), np.eye(4)), str(path))
    # Axial slice at z = 2.5 through RAS voxel (i, j, k) = LPS (-i, -j, k): a row runs along -x.
    document = slice_document({"type": "volume", "file": str(path)}, centre=(-10, -2.5, 2.5), extent=21,
                              size=(21, 6), table=dict({"type": "table"}, **table))
    run, picture, _, lists = render(files, document)
    assert run.code == 0, run
    # Pixel column c lies at LPS x = -10 - 10 + c ... i.e. voxel i = 20 - c.
    row = picture[3, :, 0].astype(int)
    values = (20 - np.arange(21)) * 0.1
    assert np.all(np.abs(row - grey(values)) <= 1), (row, grey(values))
    assert lists["volumes"]["v"]["float"] is True


def test_a_float_volume_with_nothing_to_window_it_is_refused(files):
    path = files / "dose.nii"
    nib.save(nib.Nifti1Image(dose_map(), np.eye(4)), str(path))
    document = slice_document({"type": "volume", "file": str(path)}, centre=(-10, -2.5, 2.5))
    del document["scene"][0]["tables"]
    run, _, _, _ = render(files, document)
    assert run.code == 1 and run.err.count("\n") == 1, run
    assert "objects.v: a float volume needs something to window it" in run.err


def test_packed_and_label_tables_do_not_window_a_float_volume(files):
    path = files / "dose.nii"
    nib.save(nib.Nifti1Image(dose_map(), np.eye(4)), str(path))
    document = slice_document({"type": "volume", "file": str(path)}, centre=(-10, -2.5, 2.5),
                              table={"type": "table", "preset": "labels"})
    run, _, _, _ = render(files, document)
    assert run.code == 1, run
    assert "a float volume is windowed by a window, control points or a window preset" in run.err


def test_the_value_picture_and_lists_carry_the_offset(files):
    path = files / "ct.nii"
    nib.save(nib.Nifti1Image(ct_volume(), np.eye(4)), str(path))
    document = slice_document({"type": "volume", "file": str(path)}, centre=(-19.5, -19.5, 5), extent=40,
                              size=(40, 40))
    run, _, values, lists = render(files, document)
    assert run.code == 0, run
    offset = lists["volumes"]["v"]["valueOffset"]
    assert offset == 1024
    assert int(values[20, 20]) - offset == 1000  # the bone rod, in HU
    assert int(values[1, 1]) - offset == -1000


def test_a_label_map_stored_as_int16_selects_tables_like_bytes(files):
    """Segmentation tools often write labels as 16-bit: as a mask they must
    select the same tables as 8-bit labels."""
    ct = ct_volume()
    labels = np.where(ct > 500, 2, np.where(ct > -500, 1, 0))
    for name, dtype in (("labels8.nii", np.uint8), ("labels16.nii", np.int16)):
        nib.save(nib.Nifti1Image(labels.astype(dtype), np.eye(4)), str(files / name))
    nib.save(nib.Nifti1Image(ct, np.eye(4)), str(files / "ct.nii"))
    pictures = []
    for name in ("labels8.nii", "labels16.nii"):
        document = slice_document({"type": "volume", "file": str(files / "ct.nii")}, centre=(-19.5, -19.5, 5),
                                  extent=40, size=(40, 40),
                                  table={"type": "table", "rows": [{"preset": "softTissue"},
                                                                   {"controlPoints": [[0, 1, 0, 0, 1]]},
                                                                   {"controlPoints": [[0, 0, 0, 1, 1]]}]})
        document["objects"]["mask"] = {"type": "volume", "file": str(files / name)}
        document["scene"][0]["tables"]["MASKVOLUME"] = "mask"
        document["scene"][0]["params"] = {"_bool_MultiOTF": True, "_int_NumOTFs": 2}
        run, picture, _, _ = render(files, document, name)
        assert run.code == 0, run
        pictures.append(picture)
    assert np.array_equal(pictures[0], pictures[1])
    assert pictures[0][20, 20, 2] > pictures[0][20, 20, 0]  # label 2 tints the rod blue


@pytest.mark.parametrize("mask, expected", [
    (np.zeros((20, 20, 5), np.uint8), "a mask must share the volume's grid"),
    (np.full((40, 40, 10), 300, np.int16), "a mask holds whole labels 0 .. 255"),
])
def test_masks_that_would_be_misread_are_refused(files, mask, expected):
    nib.save(nib.Nifti1Image(ct_volume(), np.eye(4)), str(files / "ct.nii"))
    nib.save(nib.Nifti1Image(mask, np.eye(4)), str(files / "mask.nii"))
    document = slice_document({"type": "volume", "file": str(files / "ct.nii")}, centre=(-19.5, -19.5, 5))
    document["objects"]["mask"] = {"type": "volume", "file": str(files / "mask.nii")}
    document["scene"][0]["tables"]["MASKVOLUME"] = "mask"
    run, _, _, _ = render(files, document)
    assert run.code == 1 and run.err.count("\n") == 1, run
    assert expected in run.err, run
