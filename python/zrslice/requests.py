"""Requests as dicts of the module's tagged keys, for the usual pictures.

A request is a plain dict, written with the exact keys of
docs/request-format.md; these functions only fill in the common ones. Any dict
works: the keys are checked against the module's list when rendered, and a
mistyped key is refused naming the nearest one.
"""
import numpy as np

from .objects import Error
from .scene import Camera

SLAB_MODES = {"maximum": 10, "minimum": 11, "average": 12}


def thin_slice(values=False, first=True, final=True, **keys):
    """A thin slice through the volumes; ``values=True`` also returns the
    16-bit value image (stored words: value + the volume's offset)."""
    request = {"_bool_IsFirstRenderer": first, "_bool_IsFinalRenderer": final}
    if values:
        request["_bool_StoreSampleValueToCustomBuffer"] = True
    request.update(keys)
    return request


def slab(thickness, mode="maximum", values=False, first=True, final=True, **keys):
    """A slab ``thickness`` mm thick centred on the image plane, reduced by
    ``mode``: maximum, minimum or average."""
    if mode not in SLAB_MODES:
        raise Error(f"slab mode {mode!r} is not one of {', '.join(SLAB_MODES)}")
    request = thin_slice(values, first, final, _int_VolumeRayCastType=SLAB_MODES[mode],
                         _float_PlaneThickness=float(thickness))
    request.update(keys)
    return request


def mesh_lines(first=False, final=True, line_thickness=1, cross_lines=False, **keys):
    """The cut lines of the scene's meshes with the image plane, drawn over
    what the requests before drew (or, ``cross_lines=True``, returned as
    lines in the result instead). Point sets add ``_double_SphereRadius``."""
    request = {"_string_RenderingSourceType": "SECTIONAL_MESH", "_bool_IsFirstRenderer": first,
               "_bool_IsFinalRenderer": final, "_bool_IsRGBA": True, "_int_LineThickness": int(line_thickness)}
    if cross_lines:
        request["_bool_GetCrossLines"] = True
    request.update(keys)
    return request


def curved(centre_line, up=(0.0, 0.0, 1.0), height=160.0, step=1.0, first=True, final=True, **keys):
    """A curved reformation along ``centre_line`` ((N, 3) LPS points, a
    polyline), unrolled: the picture's columns run along the line, its rows
    along ``up`` (made perpendicular to the line at every point). The line is
    resampled every ``step`` mm. Returns the request and the camera that shows
    the whole unrolled line, ``height`` mm high, at one column per ``step``:
    ``request, camera = curved(points)``; render it on an image of
    ``size = (round(length / step), round(height / step))`` or any other."""
    points = np.asarray(centre_line, dtype=float)
    if points.ndim != 2 or points.shape[1] != 3 or len(points) < 2 or not np.all(np.isfinite(points)):
        raise Error("a centre line is an (N, 3) array of at least two finite points")
    lengths = np.linalg.norm(np.diff(points, axis=0), axis=1)
    along = np.concatenate([[0.0], np.cumsum(lengths)])
    length = float(along[-1])
    if not length > 0.0:
        raise Error("the centre line has no length")
    count = max(2, int(round(length / step)) + 1)
    at = np.linspace(0.0, length, count)
    resampled = np.stack([np.interp(at, along, points[:, axis]) for axis in range(3)], axis=1)
    tangents = np.gradient(resampled, axis=0)
    tangents /= np.linalg.norm(tangents, axis=1, keepdims=True)
    up = np.asarray(up, dtype=float)
    ups = up[None, :] - tangents * (tangents @ up)[:, None]
    norms = np.linalg.norm(ups, axis=1, keepdims=True)
    if not np.all(norms > 1e-6):
        raise Error("the up vector runs along the centre line somewhere; give another")
    ups /= norms
    request = thin_slice(first=first, final=final, _bool_IsNonlinear=True, _float_ExPlaneWidth=length,
                         _float_ExPlaneHeight=float(height), _float_CurveThicknessPositionRange=1.0,
                         _float_ThicknessRatio=0.0,
                         _vlist_FLOAT3_CurveInterpolations=resampled.tolist(),
                         _vlist_FLOAT3_CurveUpVectors=ups.tolist(),
                         _vlist_FLOAT3_CurveTangentVectors=tangents.tolist())
    request.update(keys)
    return request, Camera((0.0, 0.0, 0.0), (0.0, 0.0, 1.0), (0.0, -1.0, 0.0), (length, float(height)))
