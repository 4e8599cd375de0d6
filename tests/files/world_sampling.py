"""Independent references in world coordinates: where a request's pixels lie
(LPS millimetres) and trilinear samples of an (X, Y, Z) array, computed with
numpy alone, for the tests that drive zrslice and the Python package."""
import numpy as np


def pixel_world(document):
    """World (LPS) position of every pixel centre of a request's image: (H, W, 3)."""
    image = document["image"]
    w, h = image["size"]
    camera = image["camera"]
    extent = camera["viewExtent"]
    if not isinstance(extent, list):
        longer = max(w, h)
        extent = [extent * w / longer, extent * h / longer]
    view = np.array(camera["viewDirection"], float)
    view /= np.linalg.norm(view)
    up = np.array(camera["up"], float)
    x_axis = np.cross(view, up)
    x_axis /= np.linalg.norm(x_axis)
    y_axis = np.cross(view, x_axis)  # rows run down, against up
    spacing = np.array(extent) / np.array([w, h])
    cols = (np.arange(w) - (w - 1) / 2.0) * spacing[0]
    rows = (np.arange(h) - (h - 1) / 2.0) * spacing[1]
    centre = np.array(camera["position"], float)
    return centre + cols[None, :, None] * x_axis + rows[:, None, None] * y_axis


def trilinear(volume_xyz, voxel):
    """Trilinear samples of a (X, Y, Z) array at voxel coordinates (..., 3); NaN outside."""
    dims = np.array(volume_xyz.shape)
    inside = np.all((voxel > -0.5) & (voxel < dims - 0.5), axis=-1)
    v = np.clip(voxel, 0, dims - 1)
    base = np.minimum(np.floor(v).astype(int), dims - 2).clip(0)
    f = v - base
    out = np.zeros(voxel.shape[:-1])
    for dx in (0, 1):
        for dy in (0, 1):
            for dz in (0, 1):
                idx = np.minimum(base + [dx, dy, dz], dims - 1)
                w = (np.where(dx, f[..., 0], 1 - f[..., 0]) * np.where(dy, f[..., 1], 1 - f[..., 1]) *
                     np.where(dz, f[..., 2], 1 - f[..., 2]))
                out += w * volume_xyz[idx[..., 0], idx[..., 1], idx[..., 2]]
    return np.where(inside, out, np.nan)


RAS_TO_LPS = np.diag([-1.0, -1.0, 1.0, 1.0])
