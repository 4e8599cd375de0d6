"""DICOM series in folders: every slice placed by its own position, whatever
the orientation, file order, encoding or tilt; several series or several
volumes in one series listed and picked, never the first taken silently."""
import numpy as np
import pytest
from pydicom.uid import DeflatedExplicitVRLittleEndian, ExplicitVRBigEndian, ImplicitVRLittleEndian

from conftest import assert_ramp_picture, info_field, render, slice_document, zrslice
from dicom_writer import Grid, new_dataset, ramp, save, write_series


def tilt_step(degrees, spacing):
    """A gantry tilt: slices `spacing` apart along z, each shifted along y."""
    return (0.0, spacing * np.tan(np.radians(degrees)), spacing)


# name, grid, options for write_series, camera (centre, view, up)
PLACEMENTS = [
    ("axial", Grid((-10, -8, 20), spacing=(1.0, 1.2), step=(0, 0, 2.5)), {}, None),
    ("shuffled files", Grid((-10, -8, 20), spacing=(1.0, 1.2), step=(0, 0, 2.5)),
     {"order": [5, 2, 9, 0, 7, 1, 8, 3, 6, 4]}, None),
    ("feet first", Grid((-10, -8, 40), spacing=(1.0, 1.2), step=(0, 0, -2.5)), {}, None),
    ("implicit VR", Grid((-10, -8, 20), spacing=(1.0, 1.2), step=(0, 0, 2.5)), {"syntax": ImplicitVRLittleEndian}, None),
    ("big endian", Grid((-10, -8, 20), spacing=(1.0, 1.2), step=(0, 0, 2.5)), {"syntax": ExplicitVRBigEndian}, None),
    ("RLE", Grid((-10, -8, 20), spacing=(1.0, 1.2), step=(0, 0, 2.5)), {"rle": True}, None),
    ("JPEG 2000", Grid((-10, -8, 20), spacing=(1.0, 1.2), step=(0, 0, 2.5)), {"jpeg2000": True}, None),
    ("deflated", Grid((-10, -8, 20), spacing=(1.0, 1.2), step=(0, 0, 2.5)),
     {"syntax": DeflatedExplicitVRLittleEndian}, None),
    ("sagittal", Grid((5, -10, 30), row=(0, 1, 0), col=(0, 0, -1), spacing=(1.1, 0.9), step=(2.0, 0, 0)), {},
     ((14, 0, 22), (1, 0, 0), (0, 0, 1))),
    ("coronal", Grid((-10, 5, 30), row=(1, 0, 0), col=(0, 0, -1), spacing=(0.8, 1.0), step=(0, 3.0, 0)), {},
     ((-4, 18, 22), (0, 1, 0), (0, 0, 1))),
    ("oblique", Grid((-6, -6, 10), row=(np.cos(0.5), np.sin(0.5), 0), col=(-np.sin(0.5) * np.cos(0.3),
                                                                        np.cos(0.5) * np.cos(0.3), np.sin(0.3)),
                     spacing=(1.0, 1.0), step=tuple(2.0 * np.cross((np.cos(0.5), np.sin(0.5), 0),
                                                                    (-np.sin(0.5) * np.cos(0.3),
                                                                     np.cos(0.5) * np.cos(0.3), np.sin(0.3))))), {},
     None),
    ("gantry tilt 20", Grid((-10, -8, 20), spacing=(1.0, 1.2), step=tilt_step(20, 2.5)), {}, None),
    ("gantry tilt -15 sagittal view", Grid((-10, -8, 20), spacing=(1.0, 1.2), step=tilt_step(-15, 2.0)), {},
     ((-1, 0, 29), (1, 0, 0), (0, 0, 1))),
]


@pytest.mark.parametrize("name, grid, options, camera", PLACEMENTS, ids=[p[0] for p in PLACEMENTS])
def test_every_slice_is_placed_by_its_own_position(files, name, grid, options, camera):
    dims = (20, 16, 10)
    write_series(files / "series", ramp(grid, dims), grid, **options)
    # A plane through the middle of the volume, between slices.
    assert_ramp_picture(files, {"type": "volume", "file": str(files / "series")}, grid, dims, camera=camera)


@pytest.mark.parametrize("step, thickness, spacing_text, thickness_note, tilt_note", [
    ((0, 0, 2.5), 2.5, "2.5", None, None),
    ((0, 0, 2.5), 5.0, "2.5", "slice thickness 5 mm differs from the spacing 2.5 mm", None),
    ((0, 0, 3.0), 1.0, "3", "slice thickness 1 mm differs from the spacing 3 mm", None),
    (tilt_step(20, 2.5), 2.5, "2.5", None, "gantry tilt 20\u00b0"),
])
def test_info_gives_the_spacing_from_positions_thickness_and_tilt(files, step, thickness, spacing_text,
                                                                  thickness_note, tilt_note):
    grid = Grid((0, 0, 0), step=step)
    write_series(files / "series", np.zeros((8, 8, 6)), grid, thickness=thickness)
    run = zrslice("info", files / "series")
    assert run.code == 0, run
    placed = info_field(run.out, "placed by")
    assert placed == f"image positions of 6 slices, spacing {spacing_text} mm from the positions", run.out
    # The k axis is the step between positions, tilt included.
    assert np.allclose([float(v) for v in info_field(run.out, "spacing").split()[:3]],
                       [1, 1, np.linalg.norm(step)], atol=1e-4)
    notes = [line for line in run.out.splitlines() if line.strip().startswith("note:")]
    assert any(thickness_note in n for n in notes) if thickness_note else not any("thickness" in n for n in notes)
    assert any(tilt_note in n for n in notes) if tilt_note else not any("tilt" in n for n in notes)


def stray_files(folder):
    (folder / "README.txt").write_text("exported by the PACS\n")
    (folder / "DICOMDIR.bak").write_bytes(b"\0" * 300)
    report = new_dataset(modality="SR", series_uid="1.2.3.999")  # a DICOM file without an image
    save(report, folder / "report.dcm")


def test_stray_files_in_a_series_folder_are_left_aside(files):
    grid = Grid((-10, -8, 20), spacing=(1.0, 1.2), step=(0, 0, 2.5))
    dims = (20, 16, 10)
    write_series(files / "series", ramp(grid, dims), grid)
    stray_files(files / "series")
    run = zrslice("info", files / "series")
    assert run.code == 0, run
    assert info_field(run.out, "size") == "20 x 16 x 10 voxels"
    assert "left aside 2 files that are not DICOM" in run.out
    assert "left aside 1 DICOM file that holds no image" in run.out


def two_series(folder):
    grid_a = Grid((-10, -8, 20), spacing=(1.0, 1.0), step=(0, 0, 2.0))
    grid_b = Grid((-12, -6, 10), spacing=(0.5, 0.5), step=(0, 0, 1.0))
    write_series(folder, ramp(grid_a, (20, 16, 10)), grid_a, number=3, description="CT Abdomen",
                     series_uid="1.2.826.0.1.3680043.2.1125.3", prefix="a")
    write_series(folder, ramp(grid_b, (40, 32, 12), gradient=(-10, 5, 7), base=2000), grid_b, number=7,
                     description="CT Thin", series_uid="1.2.826.0.1.3680043.2.1125.7", prefix="b")
    return grid_a, grid_b


def test_a_folder_of_several_series_is_listed_by_info(files):
    two_series(files / "study")
    run = zrslice("info", files / "study")
    assert run.code == 0, run
    assert "holds:     2 volumes" in run.out
    assert '3: series 3 "CT Abdomen" (1.2.826.0.1.3680043.2.1125.3): 10 slices 20 x 16' in run.out
    assert '7: series 7 "CT Thin" (1.2.826.0.1.3680043.2.1125.7): 12 slices 40 x 32' in run.out
    picked = zrslice("info", files / "study", "--series", "7")
    assert picked.code == 0, picked
    assert info_field(picked.out, "size") == "40 x 32 x 12 voxels"


def test_a_folder_of_several_series_is_refused_without_a_choice(files):
    two_series(files / "study")
    document = slice_document({"type": "volume", "file": str(files / "study")}, centre=(0, 0, 25))
    run, _, _, _ = render(files, document)
    assert run.code == 1 and run.err.count("\n") == 1, run
    assert "holds 2 volumes; pick one with \"series\"" in run.err
    assert "3: series 3" in run.err and "7: series 7" in run.err
    assert not (files / "out.png").exists()


@pytest.mark.parametrize("pick, which", [(7, "b"), ("7", "b"), ("1.2.826.0.1.3680043.2.1125.3", "a"), (3, "a")])
def test_the_request_picks_a_series_by_number_or_uid(files, pick, which):
    grid_a, grid_b = two_series(files / "study")
    grid, gradient, base, dims = ((grid_a, (20, 30, 40), 1000, (20, 16, 10)) if which == "a"
                                  else (grid_b, (-10, 5, 7), 2000, (40, 32, 12)))
    assert_ramp_picture(files, {"type": "volume", "file": str(files / "study"), "series": pick}, grid, dims, gradient,
                        base, size=(32, 32), extent=16.0)


def test_a_series_that_is_not_there_is_refused_with_the_list(files):
    two_series(files / "study")
    document = slice_document({"type": "volume", "file": str(files / "study"), "series": 5}, centre=(0, 0, 25))
    run, _, _, _ = render(files, document)
    assert run.code == 1 and run.err.count("\n") == 1, run
    assert 'holds no series or part "5"' in run.err and "3: series 3" in run.err


def split_by(attribute, values, folder, grid, dims):
    """Two volumes at the same positions, told apart by `attribute`."""
    parts = {}
    for n, value in enumerate(values):
        gradient, base = ((20, 30, 40), 1000) if n == 0 else ((-5, 8, 3), 3000)
        volume = ramp(grid, dims, gradient=gradient, base=base)
        write_series(folder, volume, grid, modality="MR", number=4, description="Parts",
                     series_uid="1.2.826.0.1.3680043.2.1125.4", prefix=f"p{n}-",
                     per_slice={attribute: [value] * dims[2]})
        parts[n] = (gradient, base)
    return parts


@pytest.mark.parametrize("attribute, values, labels", [
    ("EchoNumbers", [1, 2], ["4/echo=1", "4/echo=2"]),
    ("TemporalPositionIdentifier", [1, 2], ["4/time=1", "4/time=2"]),
    ("AcquisitionNumber", [3, 5], ["4/acquisition=3", "4/acquisition=5"]),
    ("TriggerTime", [0, 350], ["4/trigger=0", "4/trigger=350"]),
])
def test_a_series_holding_several_volumes_is_split_listed_and_picked(files, attribute, values, labels):
    grid = Grid((-10, -8, 20), spacing=(1.0, 1.0), step=(0, 0, 2.0))
    dims = (20, 16, 6)
    parts = split_by(attribute, values, files / "series", grid, dims)
    run = zrslice("info", files / "series")
    assert run.code == 0, run
    for label in labels:
        assert f"{label}: series 4 \"Parts\"" in run.out, run.out
    refused, _, _, _ = render(files, slice_document({"type": "volume", "file": str(files / "series")},
                                                    centre=(0, 0, 25)))
    assert refused.code == 1 and refused.err.count("\n") == 1, refused
    assert all(label in refused.err for label in labels) and "not unique" not in refused.err
    for n, label in enumerate(labels):
        gradient, base = parts[n]
        assert_ramp_picture(files, {"type": "volume", "file": str(files / "series"), "series": label}, grid, dims,
                            gradient, base, size=(32, 32), extent=16.0, name=f"part{n}")


def test_a_tri_planar_localizer_is_split_by_orientation(files):
    folder = files / "localizer"
    axial = Grid((-10, -10, 0), step=(0, 0, 5))
    coronal = Grid((-10, 0, 10), row=(1, 0, 0), col=(0, 0, -1), step=(0, 5, 0))
    sagittal = Grid((0, -10, 10), row=(0, 1, 0), col=(0, 0, -1), step=(5, 0, 0))
    for n, grid in enumerate((axial, coronal, sagittal)):
        write_series(folder, np.full((20, 20, 3), 100 * (n + 1)), grid, modality="MR", number=1,
                     description="Localizer", series_uid="1.2.826.0.1.3680043.2.1125.1", prefix=f"l{n}-")
    run = zrslice("info", folder)
    assert run.code == 0, run
    for plane in ("axial", "coronal", "sagittal"):
        assert f'1/orientation={plane}: series 1 "Localizer" orientation {plane}' in run.out, run.out
    picked = zrslice("info", folder, "--series", "1/orientation=coronal")
    assert picked.code == 0, picked
    assert info_field(picked.out, "values").startswith("200 .. 200")


def test_a_dicom_volume_is_not_picked_by_frame(files):
    two_series(files / "study")
    run = zrslice("info", files / "study", "--frame", "1")
    assert run.code == 1 and run.err.count("\n") == 1, run
    assert '"frame" picks a time point of a 4-D NIfTI or MGH file; a DICOM volume is picked with "series"' in run.err
