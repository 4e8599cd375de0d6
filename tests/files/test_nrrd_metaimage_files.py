"""NRRD and MetaImage files: placed by their own fields, and refused in one
line of ours when their voxel data is cut short (the toolkit behind them pads
a short file with whatever memory held)."""
import gzip

import numpy as np
import pytest

from conftest import assert_values_where_placed, render, slice_document, zrslice

vtk = pytest.importorskip("vtk")
from vtk.util import numpy_support  # noqa: E402

SHAPE = (18, 14, 7)


def values():
    i, j, k = np.meshgrid(*[np.arange(n) for n in SHAPE], indexing="ij")
    return (-500 + 9 * i * i + 31 * j + 5 * k * k + 13 * i * k).astype(np.int16)


def nrrd_header(space, directions, origin, encoding="raw", extra=""):
    rows = " ".join("(" + ",".join(repr(float(x)) for x in d) + ")" for d in directions)
    return (f"NRRD0004\n# written as 3D Slicer writes them\ntype: short\ndimension: 3\nspace: {space}\n"
            f"sizes: {SHAPE[0]} {SHAPE[1]} {SHAPE[2]}\nspace directions: {rows}\n"
            f"kinds: domain domain domain\nendian: little\nencoding: {encoding}\n"
            f"space origin: ({','.join(repr(float(x)) for x in origin)})\n{extra}\n").encode()


def voxel_bytes():
    return values().transpose(2, 1, 0).astype("<i2").tobytes()  # x fastest


DIRECTIONS = np.array([[0.7, 0.0, 0.1], [0.0, 0.9, -0.2], [0.3, 0.5, 2.4]])
ORIGIN = np.array([-31.5, 12.25, -80.0])


def lps_of(space):
    m = np.eye(4)
    m[:3, :3] = DIRECTIONS.T
    m[:3, 3] = ORIGIN
    if space == "right-anterior-superior":
        m = np.diag([-1.0, -1.0, 1.0, 1.0]) @ m
    return m


@pytest.mark.parametrize("space", ["left-posterior-superior", "right-anterior-superior"])
@pytest.mark.parametrize("encoding", ["raw", "gzip"])
def test_nrrd_is_placed_by_its_space_directions_and_origin(files, space, encoding):
    path = files / f"volume-{encoding}.nrrd"
    data = voxel_bytes() if encoding == "raw" else gzip.compress(voxel_bytes())
    path.write_bytes(nrrd_header(space, DIRECTIONS, ORIGIN, encoding) + data)
    assert_values_where_placed(files, {"type": "volume", "file": str(path)}, lps_of(space), values())


def vtk_image():
    image = vtk.vtkImageData()
    image.SetDimensions(*SHAPE)
    image.SetSpacing(0.8, 1.1, 2.5)
    image.SetOrigin(-12.0, 30.5, 7.25)
    flat = values().transpose(2, 1, 0).ravel()
    image.GetPointData().SetScalars(numpy_support.numpy_to_vtk(flat, deep=True, array_type=vtk.VTK_SHORT))
    return image


@pytest.mark.parametrize("name, compressed", [("volume.mhd", False), ("volume.mha", True)])
def test_metaimage_written_by_vtk_is_placed_by_its_origin_and_spacing(files, name, compressed):
    writer = vtk.vtkMetaImageWriter()
    writer.SetFileName(str(files / name))
    writer.SetCompression(compressed)
    writer.SetInputData(vtk_image())
    writer.Write()
    lps = np.diag([0.8, 1.1, 2.5, 1.0])
    lps[:3, 3] = [-12.0, 30.5, 7.25]
    assert_values_where_placed(files, {"type": "volume", "file": str(files / name)}, lps, values())


def short_metaimage(files):
    writer = vtk.vtkMetaImageWriter()
    writer.SetFileName(str(files / "short.mhd"))
    writer.SetCompression(False)
    writer.SetInputData(vtk_image())
    writer.Write()
    raw = files / "short.raw"
    raw.write_bytes(raw.read_bytes()[:-62])
    return files / "short.mhd", raw


def short_nrrd(files):
    path = files / "short.nrrd"
    path.write_bytes(nrrd_header("left-posterior-superior", DIRECTIONS, ORIGIN) + voxel_bytes()[:-62])
    return path, path


def short_detached_nrrd(files):
    path = files / "detached.nhdr"
    path.write_bytes(nrrd_header("left-posterior-superior", DIRECTIONS, ORIGIN, extra="data file: detached.raw\n"))
    (files / "detached.raw").write_bytes(voxel_bytes()[:100])
    return path, files / "detached.raw"


def cut_gzip_nrrd(files):
    path = files / "cut.nrrd"
    path.write_bytes(nrrd_header("left-posterior-superior", DIRECTIONS, ORIGIN, "gzip") +
                     gzip.compress(voxel_bytes())[:200])
    return path, path


@pytest.mark.parametrize("make, expected", [
    (short_metaimage, "is truncated: its voxels need 3528 bytes"),
    (short_nrrd, "is truncated: its voxels need 3528 bytes"),
    (short_detached_nrrd, "is truncated: its voxels need 3528 bytes"),
    (cut_gzip_nrrd, "cannot read its voxel data: damaged or cut short"),
])
def test_voxel_data_cut_short_is_refused_at_info_in_one_line(files, make, expected):
    path, named = make(files)
    run = zrslice("info", path)
    assert run.code == 1, run
    assert run.err == f"zrslice: {named}: {run.err.split(': ', 2)[2]}" and run.err.count("\n") == 1, run
    assert expected in run.err and "0x" not in run.err, run


@pytest.mark.parametrize("choice, expected", [
    ({"frame": 2}, "holds one volume; \"frame\": 2 does not exist"),
    ({"series": 3}, "\"series\" picks a DICOM series or part of one; this file holds one volume"),
])
def test_a_choice_naming_a_volume_that_is_not_there_is_refused(files, choice, expected):
    path = files / "volume.nrrd"
    path.write_bytes(nrrd_header("left-posterior-superior", DIRECTIONS, ORIGIN) + voxel_bytes())
    document = slice_document(dict({"type": "volume", "file": str(path)}, **choice), centre=(0, 0, 0))
    run, _, _, _ = render(files, document)
    assert run.code == 1 and expected in run.err and run.err.count("\n") == 1, run
