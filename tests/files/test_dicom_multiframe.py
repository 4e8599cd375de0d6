"""Multi-frame DICOM files: enhanced files placed frame by frame from their
functional groups, legacy files from one position and a spacing, RT doses
from their grid frame offsets with their dose scaling, and 1-bit
segmentations."""
import numpy as np
import pytest
from pydicom.sequence import Sequence
from pydicom.uid import ExplicitVRBigEndian

from conftest import assert_ramp_picture, info_field, pixel_world, render, slice_document, trilinear, zrslice
from dicom_writer import (NUCLEAR_MEDICINE, SEGMENTATION, Grid, functional_group, new_dataset, ramp, save,
                          set_pixels, write_dose, write_enhanced, write_legacy_multiframe)

GRADIENT = np.array([20.0, 30.0, 40.0])
DIMS = (20, 16, 10)


def check_ramp(files, path, grid, dims=DIMS, camera=None, name="out"):
    return assert_ramp_picture(files, {"type": "volume", "file": str(path)}, grid, dims, GRADIENT, camera=camera,
                               name=name)


def tilted(degrees, spacing):
    return (0.0, spacing * np.tan(np.radians(degrees)), spacing)


MULTIFRAME = [
    ("enhanced CT, frames out of order", "enhanced", Grid((-10, -8, 20), spacing=(1.0, 1.2), step=(0, 0, 2.5)),
     {"order": [3, 0, 9, 5, 1, 7, 2, 8, 4, 6]}, "per-frame image positions of 10 slices, spacing 2.5 mm"),
    ("enhanced CT with gantry tilt", "enhanced", Grid((-10, -8, 20), spacing=(1.0, 1.2), step=tilted(20, 2.5)), {},
     "per-frame image positions of 10 slices, spacing 2.5 mm"),
    ("legacy multi-frame CT", "legacy", Grid((-10, -8, 20), spacing=(1.0, 1.2), step=(0, 0, 3.0)),
     {"spacing_between": 3.0}, "image position and SpacingBetweenSlices of 10 slices, spacing 3 mm"),
    ("NM tomogram, RLE, position in detector information", "legacy",
     Grid((-10, -8, 20), spacing=(2.2, 2.2), step=(0, 0, 2.2)),
     {"spacing_between": 2.2, "rle": True, "detector": True, "sop_class": NUCLEAR_MEDICINE, "modality": "NM"},
     "image position and SpacingBetweenSlices of 10 slices, spacing 2.2 mm"),
]


@pytest.mark.parametrize("name, kind, grid, options, placement", MULTIFRAME, ids=[m[0] for m in MULTIFRAME])
def test_each_frame_is_placed_by_its_own_position(files, name, kind, grid, options, placement):
    volume = ramp(grid, DIMS)
    path = files / "multi.dcm"
    if kind == "enhanced":
        write_enhanced(path, volume, grid, **options)
    else:
        write_legacy_multiframe(path, volume, grid, **options)
    check_ramp(files, path, grid)
    info = zrslice("info", path)
    assert info.code == 0, info
    assert info_field(info.out, "placed by") == placement + (" from the positions" if kind == "enhanced" else "")
    assert np.allclose([float(v) for v in info_field(info.out, "spacing").split()[:3]],
                       [*grid.spacing, np.linalg.norm(grid.step)], atol=1e-4)


def test_pixel_spacing_of_a_compressed_file_falls_back_to_the_imager_spacing_with_a_warning(files):
    grid = Grid((-10, -8, 20), spacing=(1.5, 1.5), step=(0, 0, 2.0))
    path = files / "nm.dcm"
    write_legacy_multiframe(path, ramp(grid, DIMS), grid, spacing_between=2.0, rle=True, sop_class=NUCLEAR_MEDICINE,
                            modality="NM")
    import pydicom
    ds = pydicom.dcmread(str(path))
    ds.ImagerPixelSpacing = ds.PixelSpacing
    del ds.PixelSpacing
    ds.save_as(str(path))
    run = check_ramp(files, path, grid)
    assert "pixel spacing taken from ImagerPixelSpacing" in run.err
    info = zrslice("info", path)
    assert "warning:   pixel spacing taken from ImagerPixelSpacing" in info.out


def dose_grid():
    return Grid((-30, -20, -10), spacing=(2.5, 2.5), step=(0, 0, 3.0))


def dose_values(grid, dims=(24, 16, 8)):
    """A dose in Gy up to about 70 Gy, varied along every axis."""
    world = grid.world_of_all(dims)
    return 70.0 * np.exp(-np.sum((world - [0, 0, 0]) ** 2, axis=-1) / 800.0)


@pytest.mark.parametrize("syntax, offsets", [
    (None, None),
    (ExplicitVRBigEndian, None),  # a 32-bit dose in big-endian order
    (None, [-10.0 + 3.0 * k for k in range(8)]),  # offsets as z positions: the first is not 0
])
def test_an_rt_dose_is_scaled_to_gray_and_placed_by_its_frame_offsets(files, syntax, offsets):
    grid = dose_grid()
    options = {"syntax": syntax} if syntax else {}
    path, real = write_dose(files / "dose.dcm", dose_values(grid), grid, offsets=offsets, **options)
    # An axial plane between frames 3 and 4, windowed over the dose in Gy.
    document = slice_document({"type": "volume", "file": str(path)}, centre=tuple(grid.world((11.5, 7.5, 3.4))),
                              size=(60, 40), extent=[60.0, 40.0],
                              table={"type": "table", "window": {"centre": 35.0, "width": 70.0}})
    run, picture, _, lists = render(files, document)
    assert run.code == 0, run
    volume = lists["volumes"]["v"]
    assert volume["float"] is True and volume["units"] == "Gy"
    assert np.allclose(volume["range"], [real.min(), real.max()], rtol=1e-5)
    world = pixel_world(document)
    voxel = grid.voxel(world)
    inside = np.all((voxel >= 0) & (voxel <= np.array(real.shape) - 1), axis=-1)
    # The dose between frames, interpolated along each axis in turn.
    expected = np.clip((trilinear(real, voxel) - 0.0) * (255.0 / 70.0), 0, 255)
    assert inside.sum() > 500
    assert np.max(np.abs(picture[:, :, 0][inside] - expected[inside])) <= 1.5


def test_a_one_bit_segmentation_is_split_by_segment_and_reads_zero_and_one(files):
    grid = Grid((-10, -8, 20), spacing=(1.0, 1.0), step=(0, 0, 2.0))
    dims = (24, 16, 4)
    world = grid.world_of_all(dims)
    masks = {1: np.linalg.norm(world - grid.world((8, 8, 1.5)), axis=-1) < 5,
             2: world[..., 0] > grid.world((16, 0, 0))[0]}
    ds = new_dataset(SEGMENTATION, modality="SEG")
    frames, groups = [], []
    for segment, mask in masks.items():
        for k in range(dims[2]):
            frames.append(mask[:, :, k].T)
            groups.append(functional_group(
                PlanePositionSequence={"ImagePositionPatient": [float(v) for v in grid.position(k)]},
                SegmentIdentificationSequence={"ReferencedSegmentNumber": segment}))
    ds.NumberOfFrames = len(frames)
    set_pixels(ds, np.stack(frames), bits=1)
    ds.SharedFunctionalGroupsSequence = Sequence([functional_group(
        PlaneOrientationSequence={"ImageOrientationPatient": [1.0, 0, 0, 0, 1.0, 0]},
        PixelMeasuresSequence={"PixelSpacing": [1.0, 1.0], "SliceThickness": 2.0})])
    ds.PerFrameFunctionalGroupsSequence = Sequence(groups)
    save(ds, files / "seg.dcm")
    info = zrslice("info", files / "seg.dcm")
    assert info.code == 0, info
    assert "/segment=1: " in info.out and "/segment=2: " in info.out
    for segment, mask in masks.items():
        listed = [line.split(":")[0].strip() for line in info.out.splitlines() if f"segment={segment}:" in line][0]
        document = slice_document({"type": "volume", "file": str(files / "seg.dcm"), "series": listed},
                                  centre=tuple(grid.world((11.5, 7.5, 1))), size=dims[:2], extent=float(dims[0]),
                                  table={"type": "table", "window": {"centre": 0.5, "width": 1.0}})
        run, _, values, lists = render(files, document, f"seg{segment}")
        assert run.code == 0, run
        assert lists["volumes"]["v"]["range"] == [0, 1]
        assert np.max(np.abs(values.astype(int) - lists["volumes"]["v"]["valueOffset"] - mask[:, :, 1].T)) == 0


class EchoGrid(Grid):
    """Frames k and k + n at one position: n slices of each of two echoes."""

    def __init__(self, grid, n):
        super().__init__(grid.origin, grid.row, grid.col, grid.spacing, grid.step)
        self.n = n

    def position(self, k):
        return super().position(k % self.n)


def test_an_enhanced_mr_of_two_echoes_is_split_by_echo_time(files):
    grid = Grid((-10, -8, 20), spacing=(1.0, 1.2), step=(0, 0, 2.5))
    echoes = {"echo=10": ((20, 30, 40), 1000), "echo=80": ((-5, 8, 3), 3000)}
    both = np.concatenate([ramp(grid, DIMS, gradient=g, base=b) for g, b in echoes.values()], axis=2)
    path = write_enhanced(files / "mr.dcm", both, EchoGrid(grid, DIMS[2]), sop_class="1.2.840.10008.5.1.4.1.1.4.1",
                          modality="MR", frame_content=lambda n, k: {
                              "MREchoSequence": {"EffectiveEchoTime": 10.0 if k < DIMS[2] else 80.0}})
    info = zrslice("info", path)
    assert info.code == 0, info
    assert "/echo=10: " in info.out and "/echo=80: " in info.out, info.out
    for echo, (gradient, base) in echoes.items():
        assert_ramp_picture(files, {"type": "volume", "file": str(path), "series": echo}, grid, DIMS, gradient, base,
                            size=(32, 32), extent=16.0, name=echo.replace("=", ""))
