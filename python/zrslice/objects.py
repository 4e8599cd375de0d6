"""Volumes, tables and meshes.

World coordinates are LPS millimetres (x towards the patient's left, y
posterior, z superior), as DICOM and ITK use them; NIfTI's RAS is converted.

Array axis order: a volume array is indexed ``a[i, j, k]``, i along the first
voxel axis (the one that runs fastest in a NIfTI, NRRD or DICOM file), as
nibabel's ``img.get_fdata()`` is. The memory order does not matter: C- and
Fortran-ordered arrays (and any other strides) give the same volume. An array
indexed ``[k, j, i]`` (SimpleITK's ``GetArrayFromImage``, pydicom slices
stacked along the first axis) must be transposed first: ``a.T``.
"""
import json
import os

import numpy as np

from . import _zrslice

Error = _zrslice.Error

_ARRAY_TYPES = ("int8", "uint8", "int16", "uint16", "int32", "uint32", "int64", "uint64", "float32", "float64")


def _vector(value, length, what):
    array = np.asarray(value, dtype=float)
    if array.shape != (length,) or not np.all(np.isfinite(array)):
        raise Error(f"{what} must be {length} finite numbers, got {value!r}")
    return [float(x) for x in array]


def _matrix(value, rows, cols, what):
    array = np.asarray(value, dtype=float)
    if array.shape != (rows, cols) or not np.all(np.isfinite(array)):
        raise Error(f"{what} must be a {rows} x {cols} matrix of finite numbers, got shape {array.shape}")
    return [[float(x) for x in row] for row in array]


class Volume:
    """A volume the plug-in can draw, held in memory between renders.

    ``Volume(array, spacing, origin, direction)`` places voxel (i, j, k) at
    ``origin + direction @ (spacing * (i, j, k))`` in LPS millimetres; the
    columns of ``direction`` are the directions of the i, j and k axes.
    ``Volume(array, affine=A)`` takes a 4 x 4 voxel-to-LPS matrix instead.

    The array's values are the volume's values: unsigned 8-bit stays as it
    is, other integers are handed to the module as unsigned 16-bit value +
    ``value_offset``, non-integral or too wide data as 32-bit float, exactly
    as a raw file of the same type would be (docs/request-format.md, *Values
    meet tables*). Tables are written in these values. Accepted types:
    int8, uint8, int16, uint16, int32, uint32, int64, uint64, float32,
    float64, and bool (as uint8).
    """

    def __init__(self, array, spacing=(1.0, 1.0, 1.0), origin=(0.0, 0.0, 0.0), direction=None, affine=None,
                 units=""):
        voxels = np.asarray(array)
        if voxels.ndim != 3:
            raise Error(f"a volume array has three axes (i, j, k), got shape {voxels.shape}")
        if voxels.dtype == np.bool_:
            voxels = voxels.astype(np.uint8)
        if voxels.dtype.name not in _ARRAY_TYPES:
            raise Error(f"voxels of type {voxels.dtype} cannot be a volume ({', '.join(_ARRAY_TYPES)})")
        if not voxels.dtype.isnative:
            voxels = voxels.astype(voxels.dtype.newbyteorder("="))
        if affine is not None:
            spacing, origin, direction, self.notes = _zrslice.geometry_from_affine(_matrix(affine, 4, 4, "affine"))
        else:
            self.notes = []
        self._geometry = {
            "spacing": _vector(spacing, 3, "spacing"),
            "origin": _vector(origin, 3, "origin"),
            "direction": _matrix(np.eye(3) if direction is None else direction, 3, 3, "direction"),
        }
        # x fastest, as a raw file holds them; kept to write beside a request file.
        self._voxels = np.array(voxels.ravel(order="F"), copy=True)
        self._voxels.setflags(write=False)
        self._held = _zrslice.volume_from_array(self._voxels, list(voxels.shape), units=units, **self._geometry)
        self._description = {"type": "volume", "array": f"{voxels.dtype.name} {voxels.shape}"}

    @classmethod
    def _from_description(cls, description, base_directory="."):
        volume = cls.__new__(cls)
        volume.notes = []
        volume._voxels = None
        volume._description = description
        volume._held = _zrslice.object_from_description(json.dumps(description), base_directory)
        return volume

    shape = property(lambda self: tuple(self._held.shape), doc="(i, j, k) voxel counts")
    voxel_type = property(lambda self: self._held.voxel_type, doc="the module's voxel type")
    value_offset = property(lambda self: self._held.value_offset,
                            doc="stored word = value + value_offset (0 for float volumes)")
    is_float = property(lambda self: self._held.is_float)
    units = property(lambda self: self._held.units)
    value_range = property(lambda self: tuple(self._held.value_range), doc="smallest and largest value")
    percentiles = property(lambda self: tuple(self._held.percentiles), doc="1st and 99th percentile values")
    window = property(lambda self: self._held.window, doc="the file's own window (centre, width), or None")
    warnings = property(lambda self: list(self._held.warnings))

    @property
    def affine(self):
        """Voxel (i, j, k, 1) to LPS millimetres, as the host placed the volume (4 x 4)."""
        return np.array(self._held.affine)

    def __repr__(self):
        return (f"Volume(shape={self.shape}, voxel_type={self.voxel_type!r}, value_offset={self.value_offset}, "
                f"value_range={self.value_range})")


def load(path, series=None, frame=None, voxel_type=None):
    """A volume file or DICOM folder, read by the same readers as ``zrslice``:
    NIfTI-1/2, MGH, NRRD, MetaImage, DICOM series and multi-frame files.
    ``series`` picks a DICOM series (number, UID or a label ``zrslice info``
    lists), ``frame`` a time point of a 4-D file; ``voxel_type`` forces the
    module's voxel type (values converted)."""
    description = {"type": "volume", "file": os.path.abspath(os.fspath(path))}
    if series is not None:
        description["series"] = series
    if frame is not None:
        description["frame"] = frame
    if voxel_type is not None:
        description["voxelType"] = voxel_type
    return Volume._from_description(description)


def phantom(name="head", dims=None, spacing=None):
    """A built-in phantom: ``head`` (CT-like, Hounsfield units), ``labels``
    (its segmentation) or ``dose`` (float, Gy)."""
    description = {"type": "volume", "phantom": name}
    if dims is not None:
        description["dims"] = [int(d) for d in dims]
    if spacing is not None:
        description["spacing"] = _vector(spacing, 3, "spacing")
    return Volume._from_description(description)


RAS_TO_LPS = np.diag([-1.0, -1.0, 1.0, 1.0])


def from_nibabel(image, frame=None):
    """A nibabel image (NIfTI, MGH, ...) as a volume: its data array with its
    affine converted from RAS to LPS. The data are taken as nibabel scales
    them (integers stay integers when the scaling keeps them whole).
    ``frame`` picks the time point of a 4-D image."""
    data = np.asanyarray(image.dataobj)  # scaled by nibabel when the header scales
    if data.ndim == 4:
        if frame is None:
            raise Error(f"the image holds {data.shape[3]} time points; give frame= to pick one")
        data = data[..., frame]
    stored = np.dtype(image.get_data_dtype())
    if data.dtype.kind == "f" and stored.kind in "iu" and np.all(np.isfinite(data)) and \
            np.array_equal(data, np.floor(data)) and data.size and \
            -2.0 ** 31 <= data.min() and data.max() < 2.0 ** 31:
        # Whole numbers scaled by whole numbers (a CT's intercept): integers,
        # as zrslice's own reader keeps them.
        data = data.astype(np.int32)
    return Volume(data, affine=RAS_TO_LPS @ np.asarray(image.affine, dtype=float))


class Table:
    """A transfer table described in the values of the volume it colours;
    exactly one source:

    - ``Table(window=(centre, width))``: grey ramp over the window;
    - ``Table(preset="brain")``: one of ``brain``, ``softTissue``, ``bone``,
      ``lung``, ``ctAngio``, ``subdural`` (Hounsfield windows), ``boneColour``,
      ``labels``, ``maskLabels``;
    - ``Table(control_points=[[value, r, g, b, a], ...])``: colours in 0..1;
    - ``Table(entries=..., row_length=None)``: packed 32-bit entries (blue in
      bits 0-7, green 8-15, red 16-23, opacity 24-31), taken as they are;
    - ``Table(rows=[Table, ...])``: one row per table (mask-selected tables).

    ``count`` sets the number of entries of a window or control-point table.
    """

    def __init__(self, window=None, preset=None, control_points=None, entries=None, row_length=None, rows=None,
                 count=None):
        given = [k for k, v in (("window", window), ("preset", preset), ("control_points", control_points),
                                ("entries", entries), ("rows", rows)) if v is not None]
        if len(given) != 1:
            raise Error("a table needs exactly one of window, preset, control_points, entries, rows")
        self.description = {"type": "table", **self._row(window, preset, control_points, entries, rows)}
        if row_length is not None:
            self.description["rowLength"] = int(row_length)
        if count is not None:
            self.description["count"] = int(count)

    @staticmethod
    def _row(window, preset, control_points, entries, rows):
        if window is not None:
            centre, width = _vector(window, 2, "window")
            return {"window": {"centre": centre, "width": width}}
        if preset is not None:
            return {"preset": str(preset)}
        if control_points is not None:
            return {"controlPoints": _matrix(control_points, len(control_points), 5, "control_points")}
        if entries is not None:
            packed = np.asarray(entries)
            if packed.ndim != 1 or packed.dtype.kind not in "iu" or packed.size == 0 or \
                    packed.min() < 0 or packed.max() > 0xFFFFFFFF:
                raise Error("entries must be a non-empty 1-D array of 32-bit unsigned entries")
            return {"entries": [int(e) for e in packed]}
        parts = []
        for row in rows:
            if not isinstance(row, Table):
                raise Error("rows must be Tables")
            parts.append({k: v for k, v in row.description.items() if k != "type"})
        return {"rows": parts}

    def __repr__(self):
        return f"Table({self.description})"


class Mesh:
    """A triangle mesh or a point set in LPS millimetres.

    ``Mesh(vertices, faces)``: vertices (N, 3), faces (M, 3) vertex indices.
    ``Mesh(vertices)`` (no faces) is a point set, drawn as spheres by a
    ``SECTIONAL_MESH`` request with ``_double_SphereRadius``.
    """

    def __init__(self, vertices, faces=None, normals=None):
        positions = np.asarray(vertices, dtype=np.float32)
        if positions.ndim != 2 or positions.shape[1] != 3 or positions.shape[0] == 0:
            raise Error(f"vertices must be an (N, 3) array, got shape {positions.shape}")
        if not np.all(np.isfinite(positions)):
            raise Error("vertices must be finite")
        indices = None
        if faces is not None:
            faces = np.asarray(faces)
            if faces.ndim != 2 or faces.shape[1] != 3 or faces.dtype.kind not in "iu":
                raise Error(f"faces must be an (M, 3) array of vertex indices, got shape {faces.shape} "
                            f"of {faces.dtype}")
            if faces.size and (faces.min() < 0 or faces.max() >= len(positions)):
                raise Error(f"faces name vertices outside 0..{len(positions) - 1}")
            indices = np.ascontiguousarray(faces, dtype=np.uint32)
        if normals is not None:
            normals = np.ascontiguousarray(normals, dtype=np.float32)
            if normals.shape != positions.shape:
                raise Error(f"normals must have the shape of the vertices {positions.shape}, got {normals.shape}")
        self._arrays = (np.ascontiguousarray(positions), indices, normals)
        self._held = _zrslice.mesh_from_arrays(*self._arrays)
        kind = "points" if indices is None else "triangles"
        self._description = {"type": "mesh", "array": f"{len(positions)} vertices, {kind}"}

    @classmethod
    def _from_description(cls, description):
        mesh = cls.__new__(cls)
        mesh._arrays = None
        mesh._description = description
        mesh._held = _zrslice.object_from_description(json.dumps(description), ".")
        return mesh

    is_point_set = property(lambda self: self._held.is_point_set)
    count = property(lambda self: self._held.primitive_count, doc="triangles, or points of a point set")

    def __repr__(self):
        return f"Mesh({self.count} {'points' if self.is_point_set else 'triangles'})"


def load_mesh(path):
    """A mesh file: STL, OBJ, PLY, glTF, VTK polydata (.vtk, .vtp); a file
    without faces is a point set."""
    return Mesh._from_description({"type": "mesh", "file": os.path.abspath(os.fspath(path))})


def builtin_mesh(shape, **fields):
    """A built-in shape: ``sphere`` (centre, radius), ``torus`` (centre, axis,
    majorRadius, minorRadius), ``headSurface``, ``pointSet`` (count); fields
    as in docs/request-format.md."""
    return Mesh._from_description({"type": "mesh", "builtin": shape, **fields})
