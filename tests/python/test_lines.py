"""Iso-lines and mesh cut lines come back as numpy arrays of segments in
pixels, where geometry says the cuts lie."""
import numpy as np

import zrslice as zr


def test_iso_lines_of_a_ball_lie_on_its_circle():
    i, j, k = np.meshgrid(*(np.arange(41),) * 3, indexing="ij")
    r = np.sqrt((i - 20.0) ** 2 + (j - 20.0) ** 2 + (k - 20.0) ** 2)
    ball = np.clip(200 - 10 * r, 0, 200).astype(np.uint16)  # value 100 at r = 10 mm
    volume = zr.Volume(ball, origin=(-20, -20, -20))
    scene = zr.Scene()
    scene.add(volume, name="ball", window=zr.Table(window=(100, 200)))
    request = zr.thin_slice(targetVolume="ball", _bool_DrawIsoBoundary=True, _bool_GetBoundaryLines=True,
                            _int_IsoValueBoundary=100 + volume.value_offset, _double4_ColorIso=[1, 0, 0, 1])
    result = zr.render(scene, zr.Camera.axial(centre=(0, 0, 6), extent=41), size=(41, 41), requests=request)
    lines = result.iso_lines[0]["IsoLines3"]
    assert lines.shape[1] == 4 and len(lines) > 40
    # The plane z = 6 cuts the sphere r = 10 in a circle of radius 8 around pixel (20, 20).
    ends = lines.reshape(-1, 2)
    radius = np.hypot(ends[:, 0] - 20, ends[:, 1] - 20)
    assert np.all(np.abs(radius - 8.0) < 0.1)
    world = result.world(ends[:, 0], ends[:, 1])
    assert np.allclose(np.linalg.norm(world, axis=1), 10.0, atol=0.1)


def test_cross_lines_of_a_sphere_mesh_lie_on_its_circle():
    u, v = np.meshgrid(np.linspace(0, np.pi, 60), np.linspace(0, 2 * np.pi, 120, endpoint=False), indexing="ij")
    vertices = 15 * np.stack([np.sin(u) * np.cos(v), np.sin(u) * np.sin(v), np.cos(u)], -1).reshape(-1, 3)
    faces = [[a * 120 + b, a * 120 + (b + 1) % 120, (a + 1) * 120 + b] for a in range(59) for b in range(120)]
    faces += [[a * 120 + (b + 1) % 120, (a + 1) * 120 + (b + 1) % 120, (a + 1) * 120 + b]
              for a in range(59) for b in range(120)]
    scene = zr.Scene()
    scene.add(zr.Mesh(vertices, faces), name="sphere", colour=(1, 0, 0))
    result = zr.render(scene, zr.Camera.axial(centre=(0, 0, 9), extent=64), size=(128, 128),
                       requests=zr.mesh_lines(first=True, cross_lines=True))
    segments = result.cross_lines
    assert segments.dtype == np.float32 and len(segments) > 50
    ends = segments.reshape(-1, 2).astype(float)
    radius = np.hypot(ends[:, 0] - 63.5, ends[:, 1] - 63.5) * 0.5  # pixels of 0.5 mm
    assert np.all(np.abs(radius - 12.0) < 0.1)  # z = 9 cuts the radius 15 sphere at 12 mm
    (sphere,) = result.cross_line_objects
    assert sphere["object"] == "sphere" and len(sphere["segments"]) == len(segments)
