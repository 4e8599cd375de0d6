"""Cuts of mesh files through zrslice and through VTK's cutter, and the closed
surface the mesh file tests write in every format."""
import json

import numpy as np
import pytest

from conftest import pixel_world, zrslice

vtk = pytest.importorskip("vtk")


def surface():
    """A closed, lopsided surface away from the origin, so that a misplaced or
    misread vertex moves the cut."""
    source = vtk.vtkSphereSource()
    source.SetThetaResolution(40)
    source.SetPhiResolution(30)
    source.SetRadius(20)
    transform = vtk.vtkTransform()
    transform.Translate(12.5, -30.25, 41.0)
    transform.Scale(1.0, 0.7, 1.3)
    transform.RotateZ(25)
    apply = vtk.vtkTransformPolyDataFilter()
    apply.SetTransform(transform)
    apply.SetInputConnection(source.GetOutputPort())
    apply.Update()
    return apply.GetOutput()


SIZE, EXTENT = 96, 80.0


def cut_request(path, position, view, up):
    return {
        "image": {"size": [SIZE, SIZE], "camera": {"position": list(position), "viewDirection": list(view),
                                                    "up": list(up), "viewExtent": EXTENT}},
        "objects": {"m": {"type": "mesh", "file": str(path)}},
        "scene": [{"object": "m", "colour": [1, 0.5, 0]}],
        "requests": [{"_string_RenderingSourceType": "SECTIONAL_MESH", "_bool_IsFirstRenderer": True,
                      "_bool_IsFinalRenderer": True, "_bool_GetCrossLines": True}],
    }


def our_cut(files, path, position, view, up):
    """The cut segments zrslice returns, as world (LPS) end points (n, 2, 3)."""
    document = cut_request(path, position, view, up)
    request = files / "cut.json"
    request.write_text(json.dumps(document))
    run = zrslice("-q", "render", request, "-o", files / "cut.png")
    assert run.code == 0, run
    lists = json.loads((files / "cut.lists.json").read_text())
    segments = np.array(lists["crossLines"]["segments"], float).reshape(-1, 2, 2)
    # Screen pixels to world: the image plane is affine in the pixel position.
    world = pixel_world(document)
    origin, along_x, along_y = world[0, 0], world[0, 1] - world[0, 0], world[1, 0] - world[0, 0]
    return origin + segments[..., :1] * along_x + segments[..., 1:] * along_y


def vtk_cut(polydata, position, view):
    plane = vtk.vtkPlane()
    plane.SetOrigin(*position)
    plane.SetNormal(*view)
    cutter = vtk.vtkCutter()
    cutter.SetCutFunction(plane)
    cutter.SetInputData(polydata)
    cutter.Update()
    out = cutter.GetOutput()
    points = np.array([out.GetPoint(k) for k in range(out.GetNumberOfPoints())])
    lines = out.GetLines()
    lines.InitTraversal()
    ids = vtk.vtkIdList()
    segments = []
    while lines.GetNextCell(ids):
        for k in range(ids.GetNumberOfIds() - 1):
            segments.append((points[ids.GetId(k)], points[ids.GetId(k + 1)]))
    return np.array(segments)


def distance_to_segments(p, segments):
    a, b = segments[:, 0], segments[:, 1]
    ab = b - a
    t = np.clip(np.einsum("ij,ij->i", p - a, ab) / np.maximum(np.einsum("ij,ij->i", ab, ab), 1e-30), 0, 1)
    return np.min(np.linalg.norm(a + t[:, None] * ab - p, axis=1))



# Two planes: one axial through the surface, one oblique.
PLANES = [((12.5, -30.25, 45.0), (0, 0, 1), (0, -1, 0)), ((10.0, -28.0, 40.0), (0.6, 0.0, 0.8), (0, 1, 0))]


def assert_cuts_like_vtk(files, path, polydata, planes=PLANES):
    """zrslice's cut of the file at `path` lies on VTK's cut of `polydata` and is
    as long, on every plane."""
    for position, view, up in planes:
        ours = our_cut(files, path, position, view, up)
        theirs = vtk_cut(polydata, position, view)
        assert len(ours) > 3 and len(theirs) > 3
        # Every end point of ours lies on VTK's cut, and the cuts are equally long.
        worst = max(distance_to_segments(p, theirs) for p in ours.reshape(-1, 3))
        assert worst < 0.01, f"{path.name}: an end point lies {worst} mm off VTK's cut"
        ours_length = np.linalg.norm(ours[:, 1] - ours[:, 0], axis=1).sum()
        theirs_length = np.linalg.norm(theirs[:, 1] - theirs[:, 0], axis=1).sum()
        assert ours_length == pytest.approx(theirs_length, rel=1e-3)
