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
