"""Binary STL and PLY as exporters write them, written here byte by byte with
numpy: an STL's repeated corners are welded where their bits are the same and
nowhere else, every layout a PLY header may declare is read, both formats cut
where VTK cuts and draw the same picture as the surface they hold, damaged
files are refused in one line of ours, and a long load shows a progress line on
a terminal only."""
import json
import os
import pty
import select
import subprocess

import numpy as np
import pytest

vtk = pytest.importorskip("vtk")
from vtk.util.numpy_support import vtk_to_numpy  # noqa: E402

from conftest import PLUGIN, ZRSLICE, info_field, zrslice  # noqa: E402
from mesh_cuts import assert_cuts_like_vtk, cut_request, surface  # noqa: E402

PLY_TYPES = {"i1": "char", "u1": "uchar", "i2": "short", "u2": "ushort", "i4": "int", "u4": "uint",
             "f4": "float", "f8": "double"}
PLY_SIZED_TYPES = {"i1": "int8", "u1": "uint8", "i2": "int16", "u2": "uint16", "i4": "int32", "u4": "uint32",
                   "f4": "float32", "f8": "float64"}


def surface_arrays():
    """The test surface's points (float32, as VTK holds them) and triangles."""
    polydata = surface()
    points = vtk_to_numpy(polydata.GetPoints().GetData())
    assert points.dtype == np.float32
    triangles = vtk_to_numpy(polydata.GetPolys().GetConnectivityArray()).reshape(-1, 3)
    return polydata, points, triangles


def stl(corners, header=b"binary STL written by numpy"):
    """A binary STL of triangles given by their corners (T, 3, 3)."""
    corners = np.asarray(corners, np.float32).reshape(-1, 3, 3)
    records = np.zeros(len(corners), dtype=[("normal", "<f4", 3), ("corners", "<f4", (3, 3)),
                                            ("attribute", "<u2")])
    records["corners"] = corners
    normal = np.cross(corners[:, 1] - corners[:, 0], corners[:, 2] - corners[:, 0])
    records["normal"] = normal / np.maximum(np.linalg.norm(normal, axis=1, keepdims=True), 1e-30)
    return header.ljust(80, b"\0")[:80] + np.array([len(corners)], "<u4").tobytes() + records.tobytes()


def ply(points, faces, order="<", coordinate="f4", count="u1", index="i4", extra=(), names=PLY_TYPES,
        before=b"", after=b"", vertex_name="vertex_indices", comment="numpy"):
    """A binary PLY: `points` (N, 3), `faces` (lists of corners), coordinates of
    numpy type `coordinate`, face lists of `count` and `index` types, extra
    vertex properties (name, type, values), and raw extra elements (header
    text, data) before and after the faces."""
    fields = [(axis, order + coordinate) for axis in "xyz"] + [(name, order + t) for name, t, _ in extra]
    vertices = np.zeros(len(points), dtype=fields)
    for k, axis in enumerate("xyz"):
        vertices[axis] = points[:, k]
    for name, _, values in extra:
        vertices[name] = values
    text = ["ply", f"format binary_{'little' if order == '<' else 'big'}_endian 1.0", f"comment {comment}",
            f"element vertex {len(points)}"]
    text += [f"property {names[t[1:]]} {name}" for name, t in fields]
    data = vertices.tobytes()
    if before:
        text.append(before[0])
        data += before[1]
    text += [f"element face {len(faces)}", f"property list {names[count]} {names[index]} {vertex_name}"]
    for face in faces:
        data += np.array([len(face)], order + count).tobytes() + np.array(face, order + index).tobytes()
    if after:
        text.append(after[0])
        data += after[1]
    return ("\n".join(text) + "\nend_header\n").encode("utf-8") + data


def write(path, data):
    path.write_bytes(data)
    return path


def picture(files, path):
    """The bytes of the picture zrslice draws of the cut of the file at `path`."""
    request = files / "picture.json"
    request.write_text(json.dumps(cut_request(path, (12.5, -30.25, 45.0), (0, 0, 1), (0, -1, 0))))
    run = zrslice("-q", "render", request, "-o", files / "picture.png")
    assert run.code == 0, run
    return (files / "picture.png").read_bytes()


# ---- Welding: which corners of an STL become one vertex ----

def shared_corners():
    _, points, triangles = surface_arrays()
    return points[triangles], len(points)


def no_shared_corners():
    # More vertices than the welder expects of a closed surface: its table grows.
    corners = np.random.default_rng(7).uniform(-50, 50, (700, 3, 3))
    return corners, 2100


def repeated_corner_in_a_triangle():
    return [[(0, 0, 0), (0, 0, 0), (1, 2, 3)], [(1, 2, 3), (0, 0, 0), (4, 0, 0)]], 3


def signed_zeros():
    # 0.0 and -0.0 compare equal but differ in their bits: they stay apart.
    return [[(0.0, 0, 0), (1, 0, 0), (0, 1, 0)], [(-0.0, 0, 0), (1, 0, 0), (0, 0, 1)]], 5


def one_unit_in_the_last_place_apart():
    near = np.nextafter(np.float32(1), np.float32(2))
    return [[(1, 1, 1), (2, 0, 0), (0, 2, 0)], [(near, 1, 1), (2, 0, 0), (0, 0, 2)]], 5


@pytest.mark.parametrize("corners", [shared_corners, no_shared_corners, repeated_corner_in_a_triangle, signed_zeros,
                                     one_unit_in_the_last_place_apart])
def test_stl_corners_become_one_vertex_exactly_where_their_bits_agree(files, corners):
    triangles, vertices = corners()
    path = write(files / "mesh.stl", stl(triangles))
    run = zrslice("info", path)
    assert run.code == 0, run
    assert info_field(run.out, "vertices") == str(vertices)
    assert info_field(run.out, "triangles") == str(len(triangles))
    assert info_field(run.out, "normals") == "no"


# ---- Layouts: every binary file of the surface cuts where VTK cuts ----

def surface_as(kind, **options):
    def make(points, triangles):
        if kind == "stl":
            return stl(points[triangles])
        return ply(points, triangles.tolist(), **options)
    return make


def normals_and_colours(points):
    centre = points.mean(axis=0)
    normal = (points - centre) / np.linalg.norm(points - centre, axis=1, keepdims=True)
    colour = np.arange(len(points)) % 256
    return [("nx", "f4", normal[:, 0]), ("ny", "f4", normal[:, 1]), ("nz", "f4", normal[:, 2]),
            ("red", "u1", colour), ("green", "u1", 255 - colour), ("blue", "u1", 7)]


EDGES = ("element edge 2\nproperty list uchar int vertex_indices\nproperty uchar flag",
         bytes([2]) + np.array([0, 1], "<i4").tobytes() + bytes([9, 3]) + np.array([1, 4, 5], "<i4").tobytes() +
         bytes([8]))
MATERIAL = ("element material 1\nproperty float shininess\nproperty uchar red", np.array([0.5], "<f4").tobytes() +
            bytes([200]))

LAYOUTS = [
    ("welded.stl", surface_as("stl")),
    ("little-endian.ply", surface_as("ply")),
    ("big-endian.ply", surface_as("ply", order=">")),
    ("double-coordinates.ply", surface_as("ply", coordinate="f8")),
    ("ushort-counts-uint-indices.ply", surface_as("ply", count="u2", index="u4")),
    ("sized-type-names.ply", surface_as("ply", names=PLY_SIZED_TYPES, vertex_name="vertex_index")),
    ("utf8-comment.ply", surface_as("ply", comment="segmented by Zoë Ørsted, 3 µm")),
    ("extra-elements.ply", surface_as("ply", before=EDGES, after=MATERIAL)),
    ("empty-element.ply", surface_as("ply", before=("element nothing 4000000000000", b""))),
]


@pytest.mark.parametrize("name, make", LAYOUTS, ids=[layout[0] for layout in LAYOUTS])
def test_binary_files_cut_where_vtk_cuts_and_draw_what_the_surface_draws(files, name, make):
    polydata, points, triangles = surface_arrays()
    path = write(files / name, make(points, triangles))
    assert_cuts_like_vtk(files, path, polydata)
    # The same surface through our VTK polydata reader: the same bits, so the
    # same picture.
    reference = files / "surface.vtp"
    writer = vtk.vtkXMLPolyDataWriter()
    writer.SetFileName(str(reference))
    writer.SetInputData(polydata)
    writer.Write()
    assert picture(files, path) == picture(files, reference)


def test_ply_extra_vertex_properties_give_normals(files):
    _, points, triangles = surface_arrays()
    path = write(files / "normals.ply", ply(points, triangles.tolist(), extra=normals_and_colours(points)))
    run = zrslice("info", path)
    assert run.code == 0, run
    assert info_field(run.out, "normals") == "yes"
    assert info_field(run.out, "vertices") == str(len(points))


def test_ply_polygons_become_fans(files):
    """A cube of six quads cuts where VTK cuts the quads."""
    corners = np.array([(x, y, z) for z in (35, 55) for y in (-40.25, -20.25) for x in (2.5, 22.5)], np.float32)
    quads = [[0, 2, 3, 1], [4, 5, 7, 6], [0, 1, 5, 4], [2, 6, 7, 3], [0, 4, 6, 2], [1, 3, 7, 5]]
    path = write(files / "cube.ply", ply(corners, quads))
    cube = vtk.vtkPolyData()
    cube_points = vtk.vtkPoints()
    for p in corners:
        cube_points.InsertNextPoint(*p)
    cells = vtk.vtkCellArray()
    for quad in quads:
        cells.InsertNextCell(4, quad)
    cube.SetPoints(cube_points)
    cube.SetPolys(cells)
    run = zrslice("info", path)
    assert run.code == 0 and info_field(run.out, "triangles") == "12", run
    assert_cuts_like_vtk(files, path, cube)


# ---- Damaged files: one line of ours, nothing written ----

def small_stl():
    _, points, triangles = surface_arrays()
    return stl(points[triangles[:10]])


def small_ply(**options):
    points = np.random.default_rng(3).uniform(-20, 20, (40, 3))
    return ply(points, [[k, k + 1, k + 2] for k in range(10)], **options)


def replaced(data, old, new):
    assert old in data
    return data.replace(old, new, 1)


def nan_corner():
    data = bytearray(small_stl())
    data[84 + 3 * 50 + 12 + 4:84 + 3 * 50 + 12 + 8] = np.array([np.nan], "<f4").tobytes()
    return bytes(data)


DAMAGED = [
    ("cut-in-a-triangle.stl", lambda: small_stl()[:-30],
     "is truncated: its header counts 10 triangles, which take 584 bytes, the file holds 554"),
    ("solid-header-cut-short.stl", lambda: stl(np.zeros((4, 3, 3)), header=b"solid binary")[:-50],
     "is truncated: its header counts 4 triangles"),
    ("bytes-beyond-the-triangles.stl", lambda: small_stl() + b"\0" * 7,
     "is not a consistent binary STL: its header counts 10 triangles, which take 584 bytes, the file holds 591"),
    ("shorter-than-a-header.stl", lambda: b"\x01\x02" * 20, "shorter than a binary STL's 84-byte header"),
    ("no-triangles.stl", lambda: stl(np.zeros((0, 3, 3))), "holds no triangles"),
    ("not-a-number.stl", nan_corner, "triangle 3 has a corner that is not a finite number"),
    ("cut-in-the-vertices.ply", lambda: small_ply()[:400], "is truncated: its header declares 40 vertex, 10 face"),
    ("cut-in-the-faces.ply", lambda: small_ply(count="u4")[:-40], "is truncated: it ends in face 7 of 10"),
    ("index-past-the-vertices.ply", lambda: replaced(small_ply(), b"\x03" + np.array([0, 1, 2], "<i4").tobytes(),
                                                     b"\x03" + np.array([0, 1, 40], "<i4").tobytes()),
     "face 0 names vertex 40, past the 40 vertices"),
    ("negative-index.ply", lambda: small_ply()[:-4] + np.array([-1], "<i4").tobytes(),
     "face 9 names vertex -1, past the 40 vertices"),
    ("no-end-header.ply", lambda: replaced(small_ply(), b"end_header\n", b"comment\n"),
     "its header has no end_header line before its binary data"),
    ("header-cut-short.ply", lambda: small_ply()[:60], "is truncated: its header has no end_header line"),
    ("no-coordinates.ply", lambda: replaced(small_ply(), b"property float z\n", b"property float w\n"),
     "its vertex element has no x, y and z properties"),
    ("float-indices.ply", lambda: small_ply(index="f4"), "its face vertex indices are not integers"),
    ("edges-only.ply", lambda: ply(np.zeros((3, 3)), [[0, 1], [1, 2]]),
     "its faces have fewer than three corners; only surfaces and point sets can be drawn"),
    ("unknown-type.ply", lambda: replaced(small_ply(), b"property float x", b"property float16 x"),
     "header line 5: expects \"property TYPE NAME\""),
    ("not-a-ply.ply", lambda: b"PLY?\n" + small_ply()[4:], "is not a PLY file: its first line is not \"ply\""),
]


@pytest.mark.parametrize("name, make, expected", DAMAGED, ids=[d[0] for d in DAMAGED])
def test_damaged_binary_files_are_refused_in_one_line(files, name, make, expected):
    path = write(files / name, make())
    request = files / "request.json"
    request.write_text(json.dumps(cut_request(path, (0, 0, 0), (0, 0, 1), (0, -1, 0))))
    for command in (("info", path), ("-q", "render", request, "-o", files / "out.png")):
        run = zrslice(*command)
        assert run.code == 1, run
        assert run.err.count("\n") == 1 and f"zrslice: {path}: " in run.err and expected in run.err, run
        assert not (files / "out.png").exists()


# ---- Progress: a line on a terminal, for loads that take long enough ----

def screen_lines(text):
    """The lines a terminal shows for `text`: what follows the last carriage
    return of each line, without the erase-to-end sequences."""
    return [line.split("\r")[-1].replace("\033[K", "") for line in text.replace("\r\n", "\n").split("\n")
            if line.split("\r")[-1].replace("\033[K", "")]


def on_terminal(*args):
    """Runs zrslice with its standard error on a pseudo-terminal; returns the
    exit code and what it wrote there."""
    command = [ZRSLICE] + (["--plugin", PLUGIN] if PLUGIN else []) + [str(a) for a in args]
    main, side = pty.openpty()
    process = subprocess.Popen(command, stdout=subprocess.DEVNULL, stderr=side)
    os.close(side)
    text = b""
    while True:
        ready, _, _ = select.select([main], [], [], 60)
        try:
            chunk = os.read(main, 4096) if ready else b""
        except OSError:  # the terminal closed with the program
            chunk = b""
        if not chunk:
            break
        text += chunk
    os.close(main)
    return process.wait(timeout=60), text.decode()


@pytest.mark.parametrize("args, shown", [
    (("--progress-after", "0"), True),
    (("--progress-after", "0", "-q"), False),
    (("--progress-after", "1000"), False),
], ids=["over-the-delay", "quiet", "under-the-delay"])
def test_a_load_shows_a_progress_line_on_a_terminal(files, args, shown):
    path = write(files / "mesh.stl", small_stl())
    code, text = on_terminal(*args, "info", path)
    assert code == 0
    shown_lines = [line for line in screen_lines(text) if line.startswith("zrslice:")]
    assert len(shown_lines) == (1 if shown else 0), text
    assert all(line.startswith(f"zrslice: {path}: loaded in ") for line in shown_lines), text


def test_no_progress_line_off_a_terminal(files):
    path = write(files / "mesh.stl", small_stl())
    run = zrslice("--progress-after", "0", "info", path)
    assert run.code == 0 and run.err == "", run


def test_a_failed_load_on_a_terminal_leaves_only_its_error(files):
    path = write(files / "cut.stl", small_stl()[:-30])
    code, text = on_terminal("--progress-after", "0", "info", path)
    assert code == 1
    lines = screen_lines(text)
    assert len(lines) == 1 and lines[0].startswith(f"zrslice: {path}: is truncated"), text
