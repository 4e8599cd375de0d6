"""Files as users bring them, through the zrslice program.

The files are written at test time by the tools users have (nibabel, pydicom,
numpy from Debian), never by our own code, and every placement or value is
checked against an independent computation in LPS world coordinates.
"""
import json
import os
import subprocess

import numpy as np
import pytest

from world_sampling import RAS_TO_LPS, pixel_world, trilinear  # noqa: F401 (used by the tests)

ZRSLICE = os.environ.get("ZRSLICE", "zrslice")
PLUGIN = os.environ.get("ZR_PLUGIN")


class Run:
    def __init__(self, completed):
        self.code = completed.returncode
        self.out = completed.stdout
        self.err = completed.stderr

    def __repr__(self):
        return f"exit {self.code}\nstdout:\n{self.out}\nstderr:\n{self.err}"


def zrslice(*args, timeout=120):
    """Runs zrslice with `args`, returning its exit code and output."""
    command = [ZRSLICE]
    if PLUGIN:
        command += ["--plugin", PLUGIN]
    command += [str(a) for a in args]
    return Run(subprocess.run(command, capture_output=True, text=True, timeout=timeout))


def read_png(path):
    """A PNG as a numpy array: (H, W, 4) uint8 for colour, (H, W) uint16 for values."""
    from PIL import Image

    with Image.open(path) as image:
        if image.mode in ("I;16", "I;16B", "I"):
            return np.array(image, dtype=np.int64).astype(np.uint16)
        return np.array(image.convert("RGBA"))


def render(tmp_path, document, name="out"):
    """Writes `document` as a request file, renders it; returns (run, picture, values, lists)."""
    request = tmp_path / f"{name}.json"
    request.write_text(json.dumps(document))
    out = tmp_path / f"{name}.png"
    run = zrslice("-q", "render", request, "-o", out)
    if run.code != 0:
        return run, None, None, None
    values_path = tmp_path / f"{name}.values.png"
    values = read_png(values_path) if values_path.exists() else None
    lists = json.loads((tmp_path / f"{name}.lists.json").read_text())
    return run, read_png(out), values, lists


def slice_document(volume, centre, view=(0, 0, 1), up=(0, -1, 0), size=(64, 64), extent=64.0, table=None,
                   request=None):
    """A one-volume thin-slice request: `volume` is the object description."""
    document = {
        "image": {"size": list(size), "camera": {"position": list(centre), "viewDirection": list(view),
                                                  "up": list(up), "viewExtent": extent}},
        "objects": {"v": volume, "t": table or {"type": "table", "window": {"centre": 0, "width": 1000}}},
        "scene": [{"object": "v", "tables": {"WINDOWING": "t"}}],
        "requests": [dict({"_bool_IsFirstRenderer": True, "_bool_StoreSampleValueToCustomBuffer": True},
                          **(request or {}))],
    }
    return document


def view_through(lps, shape, size=48):
    """A camera looking along the grid's third axis through its centre, with an
    extent that covers the grid's first two axes."""
    centre = lps @ np.array([(shape[0] - 1) / 2, (shape[1] - 1) / 2, (shape[2] - 1) / 2 + 0.3, 1.0])
    axes = lps[:3, :3]
    view = axes[:, 2] / np.linalg.norm(axes[:, 2])
    up = -axes[:, 1] / np.linalg.norm(axes[:, 1])
    up = up - view * np.dot(up, view)
    extent = 1.3 * max(np.linalg.norm(axes[:, 0]) * shape[0], np.linalg.norm(axes[:, 1]) * shape[1])
    return dict(centre=tuple(centre[:3]), view=tuple(view), up=tuple(up / np.linalg.norm(up)),
                size=(size, size), extent=float(extent))


def expected_values(document, lps, data):
    world = pixel_world(document)
    h, w = world.shape[:2]
    homogeneous = np.concatenate([world, np.ones((h, w, 1))], axis=-1)
    voxel = (np.linalg.inv(lps) @ homogeneous.reshape(-1, 4).T).T[:, :3].reshape(h, w, 3)
    return trilinear(data, voxel)


def assert_values_where_placed(files, volume, lps, data):
    """Renders the value picture of the volume object `volume` through zrslice on
    a plane through the grid, and compares it with trilinear samples of `data`
    (an (X, Y, Z) array of real values) placed by `lps`, the voxel-to-LPS
    matrix computed independently of zrslice."""
    document = slice_document(volume, **view_through(lps, data.shape))
    run, _, values, lists = render(files, document)
    assert run.code == 0, run
    real = values.astype(float) - lists["volumes"]["v"]["valueOffset"]
    expected = expected_values(document, lps, data)
    inside = ~np.isnan(expected)
    assert inside.sum() > 200, "the view must cut the volume"
    difference = np.abs(real[inside] - expected[inside])
    assert difference.max() <= 1.001, f"largest difference {difference.max()} for {volume}"


def assert_ramp_picture(files, volume, grid, dims, gradient=(20.0, 30.0, 40.0), base=1000.0, camera=None,
                        size=(48, 48), extent=48.0, name="out"):
    """Renders the value picture of the volume object `volume` on a plane
    through the middle of `grid` (or `camera`: centre, view, up) and checks it,
    within two levels, against the ramp base + world . gradient at every pixel
    inside the grid; `grid` maps world (LPS) points to voxel coordinates
    (`grid.voxel`) independently of zrslice. Returns the run."""
    centre, view, up = camera or (tuple(grid.world(np.array(dims) / 2 - 0.5) + [0, 0, 0.3]), (0, 0, 1), (0, -1, 0))
    document = slice_document(volume, centre=centre, view=view, up=up, size=size, extent=extent)
    run, _, values, lists = render(files, document, name)
    assert run.code == 0, run
    world = pixel_world(document)
    voxel = grid.voxel(world)
    inside = np.all((voxel >= 0) & (voxel <= np.array(dims) - 1), axis=-1)
    assert inside.sum() > 100, "the plane must cut the volume"
    got = values.astype(float)[inside] - lists["volumes"]["v"]["valueOffset"]
    expected = world[inside] @ np.array(gradient, float) + base
    assert np.max(np.abs(got - expected)) <= 2.0, (volume, np.max(np.abs(got - expected)))
    return run


def info_field(text, name):
    """The value of line `name:` of `zrslice info`."""
    for line in text.splitlines():
        if line.strip().startswith(name + ":"):
            return line.split(":", 1)[1].strip()
    return None


@pytest.fixture
def files(tmp_path):
    return tmp_path
