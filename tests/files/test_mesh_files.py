"""Mesh files as segmentation tools write them, written here by VTK: every
format's cut lines agree with VTK's own cutter on the same plane, point clouds
become point sets, and damaged files are refused in one line of ours."""
import json

import pytest

vtk = pytest.importorskip("vtk")

from conftest import info_field, zrslice  # noqa: E402
from mesh_cuts import assert_cuts_like_vtk, cut_request, surface  # noqa: E402


def write_legacy(version, binary):
    def write(polydata, path):
        writer = vtk.vtkPolyDataWriter()
        writer.SetFileVersion(version)
        if binary:
            writer.SetFileTypeToBinary()
        writer.SetFileName(path)
        writer.SetInputData(polydata)
        writer.Write()
    return write


def write_xml(mode):
    def write(polydata, path):
        writer = vtk.vtkXMLPolyDataWriter()
        writer.SetFileName(path)
        writer.SetInputData(polydata)
        if mode == "ascii":
            writer.SetDataModeToAscii()
        elif mode == "binary":
            writer.SetDataModeToBinary()
        elif mode == "raw":
            writer.SetDataModeToAppended()
            writer.SetCompressorTypeToNone()
            writer.EncodeAppendedDataOff()
        elif mode == "base64-big-header":
            writer.SetDataModeToAppended()
            writer.EncodeAppendedDataOn()
            writer.SetHeaderTypeToUInt64()
        writer.Write()
    return write


def write_with(writer_class, binary=None, strips=False):
    def write(polydata, path):
        if strips:
            stripper = vtk.vtkStripper()
            stripper.SetInputData(polydata)
            stripper.Update()
            polydata = stripper.GetOutput()
        writer = writer_class()
        writer.SetFileName(path)
        writer.SetInputData(polydata)
        if binary is not None:
            writer.SetFileTypeToBinary() if binary else writer.SetFileTypeToASCII()
        writer.Write()
    return write


FORMATS = [
    ("legacy-4.2-ascii.vtk", write_legacy(42, False)),
    ("legacy-4.2-binary.vtk", write_legacy(42, True)),
    ("legacy-5.1-ascii.vtk", write_legacy(51, False)),
    ("legacy-5.1-binary.vtk", write_legacy(51, True)),
    ("strips.vtk", write_with(vtk.vtkPolyDataWriter, strips=True)),
    ("ascii.vtp", write_xml("ascii")),
    ("inline-binary.vtp", write_xml("binary")),
    ("appended-zlib.vtp", write_xml("appended")),
    ("appended-raw.vtp", write_xml("raw")),
    ("appended-base64.vtp", write_xml("base64-big-header")),
    ("binary.stl", write_with(vtk.vtkSTLWriter, binary=True)),
    ("ascii.stl", write_with(vtk.vtkSTLWriter, binary=False)),
    ("binary.ply", write_with(vtk.vtkPLYWriter, binary=True)),
    ("surface.obj", write_with(vtk.vtkOBJWriter)),
]

@pytest.mark.parametrize("name, write", FORMATS, ids=[f[0] for f in FORMATS])
def test_every_format_cuts_where_vtk_cuts(files, name, write):
    polydata = surface()
    path = files / name
    write(polydata, str(path))
    info = zrslice("info", path)
    assert info.code == 0, info
    assert int(info_field(info.out, "triangles").split()[0]) == polydata.GetNumberOfPolys()
    assert_cuts_like_vtk(files, path, polydata)


def point_cloud():
    points = vtk.vtkPoints()
    vertices = vtk.vtkCellArray()
    for k, p in enumerate([(1, 2, 3), (4, 5, 6), (-7, 8, 9), (10, -11, 12)]):
        points.InsertNextPoint(*p)
        vertices.InsertNextCell(1)
        vertices.InsertCellPoint(k)
    polydata = vtk.vtkPolyData()
    polydata.SetPoints(points)
    polydata.SetVerts(vertices)
    return polydata


@pytest.mark.parametrize("name, write", [
    ("points.ply", write_with(vtk.vtkPLYWriter, binary=False)),
    ("binary-points.ply", write_with(vtk.vtkPLYWriter, binary=True)),
    ("points.vtk", write_legacy(51, False)),
    ("points.vtp", write_xml("appended")),
    ("points.obj", lambda _, p: open(p, "w").write("v 1 2 3\nv 4 5 6\nv -7 8 9\nv 10 -11 12\n")),
])
def test_files_with_points_but_no_faces_are_point_sets(files, name, write):
    path = files / name
    write(point_cloud(), str(path))
    run = zrslice("info", path)
    assert run.code == 0, run
    assert info_field(run.out, "vertices") == "4"
    assert info_field(run.out, "triangles") == "0 (point set)"
    assert info_field(run.out, "bounds") == "-7.000 -11.000 3.000 .. 10.000 8.000 12.000"


def truncated(polydata, path):
    write_legacy(51, True)(polydata, path)
    data = open(path, "rb").read()
    open(path, "wb").write(data[: len(data) // 2])


def volume_as_vtk(_, path):
    image = vtk.vtkImageData()
    image.SetDimensions(4, 4, 4)
    image.AllocateScalars(vtk.VTK_SHORT, 1)
    writer = vtk.vtkStructuredPointsWriter()
    writer.SetFileName(path)
    writer.SetInputData(image)
    writer.Write()


def index_past_points(polydata, path):
    write_legacy(42, False)(polydata, path)
    text = open(path).read()
    start = text.index("POLYGONS")
    line_end = text.index("\n", start)
    first_cell_end = text.index("\n", line_end + 1)
    open(path, "w").write(text[:line_end + 1] + "3 0 1 99999" + text[first_cell_end:])


@pytest.mark.parametrize("name, write, expected", [
    ("truncated.vtk", truncated, "is truncated"),
    ("volume.vtk", volume_as_vtk, "holds a STRUCTURED_POINTS dataset"),
    ("bad-index.vtk", index_past_points, "names point 99999, past the"),
    ("damaged.vtp", lambda _, p: open(p, "w").write("<VTKFile type='PolyData'><PolyData><Piece"), "is not valid XML"),
    ("image.vtp", lambda _, p: open(p, "w").write("<VTKFile type='ImageData'/>"), "holds ImageData"),
])
def test_damaged_mesh_files_are_refused_in_one_line(files, name, write, expected):
    path = files / name
    write(surface(), str(path))
    for command in (("info", path),
                    ("-q", "render", write_request(files, path), "-o", files / "out.png")):
        run = zrslice(*command)
        assert run.code == 1, run
        assert run.err.count("\n") == 1 and f"{path}: " in run.err and expected in run.err, run
        assert not (files / "out.png").exists()


def write_request(files, path):
    request = files / "request.json"
    request.write_text(json.dumps(cut_request(path, (0, 0, 0), (0, 0, 1), (0, -1, 0))))
    return request


def test_a_mesh_file_given_as_a_volume_says_so(files):
    path = files / "surface.stl"
    write_with(vtk.vtkSTLWriter, binary=True)(surface(), str(path))
    request = files / "request.json"
    request.write_text(json.dumps({
        "image": {"size": [8, 8], "camera": {"position": [0, 0, 0], "viewDirection": [0, 0, 1], "up": [0, -1, 0],
                                             "viewExtent": 10}},
        "objects": {"v": {"type": "volume", "file": str(path)}},
        "scene": [{"object": "v"}],
        "requests": [{"_bool_IsFirstRenderer": True}]}))
    run = zrslice("-q", "render", request, "-o", files / "out.png")
    assert run.code == 1 and "is a mesh file" in run.err and "\"type\": \"mesh\"" in run.err, run
