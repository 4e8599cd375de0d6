"""Writing a scene as a request file that ``zrslice render`` replays.

Volumes and meshes made from arrays are written beside the request file in
formats zrslice reads back to the same bits: a volume as a raw file of its
array's type with its placement in the description, a mesh as a binary PLY
of 32-bit float vertices and 32-bit indices. Objects read from files or
built in keep their descriptions (file names absolute).
"""
import json
import os

import numpy as np

from .objects import Mesh, Volume
from .rendering import _to_json
from .scene import Scene


def _write_atomically(path, write):
    temporary = f"{path}.tmp-{os.getpid()}"
    try:
        with open(temporary, "wb") as f:
            write(f)
        os.replace(temporary, path)
    finally:
        if os.path.exists(temporary):
            os.remove(temporary)


def _write_raw(path, volume):
    voxels = volume._voxels
    little = voxels.astype(voxels.dtype.newbyteorder("<"), copy=False)
    _write_atomically(path, lambda f: f.write(little.tobytes()))
    description = {"type": "volume", "raw": os.path.basename(path), "dims": list(volume.shape),
                   "voxelType": voxels.dtype.name, "byteOrder": "little"}
    description.update(volume._geometry)
    return description


def _write_ply(path, mesh):
    positions, indices, normals = mesh._arrays
    properties = ["property float x", "property float y", "property float z"]
    vertex_fields = [("x", "<f4"), ("y", "<f4"), ("z", "<f4")]
    if normals is not None:
        properties += ["property float nx", "property float ny", "property float nz"]
        vertex_fields += [("nx", "<f4"), ("ny", "<f4"), ("nz", "<f4")]
    vertices = np.zeros(len(positions), dtype=vertex_fields)
    for axis, name in enumerate("xyz"):
        vertices[name] = positions[:, axis]
        if normals is not None:
            vertices["n" + name] = normals[:, axis]
    header = ["ply", "format binary_little_endian 1.0", f"element vertex {len(positions)}"] + properties
    faces = None
    if indices is not None:
        header += [f"element face {len(indices)}", "property list uchar uint vertex_indices"]
        faces = np.zeros(len(indices), dtype=[("n", "u1"), ("i", "<u4", (3,))])
        faces["n"] = 3
        faces["i"] = indices
    header.append("end_header")

    def write(f):
        f.write(("\n".join(header) + "\n").encode("ascii"))
        f.write(vertices.tobytes())
        if faces is not None:
            f.write(faces.tobytes())

    _write_atomically(path, write)
    return {"type": "mesh", "file": os.path.basename(path)}


def to_request_file(path, scene, camera, size=(256, 256), requests=None, image_params=None, output=None,
                    description=None):
    """Writes the request file ``path`` (JSON) that renders, through
    ``zrslice render path -o out.png``, exactly what ``render`` gives for the
    same arguments; volumes and meshes made from arrays go beside it as
    ``<stem>.<object>.raw`` / ``.ply``. Returns the document written."""
    path = os.fspath(path)
    if not isinstance(scene, Scene):
        raise TypeError(f"scene must be a Scene, got {type(scene).__name__}")
    if requests is None:
        requests = [{"_bool_IsFirstRenderer": True, "_bool_IsFinalRenderer": True}]
    document = json.loads(_to_json(scene.document(camera, size, requests, image_params, output, description)))
    folder = os.path.dirname(path) or "."
    os.makedirs(folder, exist_ok=True)
    stem = os.path.splitext(os.path.basename(path))[0]
    for name, thing in scene.objects.items():
        if isinstance(thing, Volume) and thing._voxels is not None:
            document["objects"][name] = _write_raw(os.path.join(folder, f"{stem}.{name}.raw"), thing)
        elif isinstance(thing, Mesh) and thing._arrays is not None:
            document["objects"][name] = _write_ply(os.path.join(folder, f"{stem}.{name}.ply"), thing)
    text = json.dumps(document, indent=2) + "\n"
    _write_atomically(path, lambda f: f.write(text.encode("utf-8")))
    return document
