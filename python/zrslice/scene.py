"""A camera, a scene and the request document they make.

Everything here becomes one request document in the format of
docs/request-format.md (``Scene.document``), which the host library checks
and runs exactly as ``zrslice render`` runs a request file.
"""
import numpy as np

from .objects import Error, Mesh, Table, Volume, _matrix, _vector


class Camera:
    """An orthographic sectional camera. The slice plane passes through
    ``position`` (LPS mm) perpendicular to ``view_direction``; ``up`` points to
    the top of the image; the image's x axis is ``view_direction x up``.
    ``extent`` is the millimetres the image covers: one number for the longer
    side (square pixels) or (width, height). Pixel spacing = extent / size."""

    def __init__(self, position=(0.0, 0.0, 0.0), view_direction=(0.0, 0.0, 1.0), up=(0.0, -1.0, 0.0), extent=256.0):
        self.position = _vector(position, 3, "position")
        self.view_direction = _vector(view_direction, 3, "view_direction")
        self.up = _vector(up, 3, "up")
        self.extent = float(extent) if np.ndim(extent) == 0 else _vector(extent, 2, "extent")

    # Radiological conventions: the patient's left on the image's right in
    # axial and coronal views, anterior on the left in sagittal views.
    @classmethod
    def axial(cls, centre=(0.0, 0.0, 0.0), extent=256.0):
        """Looking from the feet (+z), anterior at the top."""
        return cls(centre, (0.0, 0.0, 1.0), (0.0, -1.0, 0.0), extent)

    @classmethod
    def coronal(cls, centre=(0.0, 0.0, 0.0), extent=256.0):
        """Looking from the front (+y), head at the top."""
        return cls(centre, (0.0, 1.0, 0.0), (0.0, 0.0, 1.0), extent)

    @classmethod
    def sagittal(cls, centre=(0.0, 0.0, 0.0), extent=256.0):
        """Looking from the patient's left (-x), head at the top."""
        return cls(centre, (-1.0, 0.0, 0.0), (0.0, 0.0, 1.0), extent)

    def as_json(self):
        return {"position": self.position, "viewDirection": self.view_direction, "up": self.up,
                "viewExtent": self.extent}

    def __repr__(self):
        return f"Camera({self.as_json()})"


class Scene:
    """The objects to draw, in order, each with its colour, placement, tables
    and parameters. ``add`` returns the entry's object name, which requests
    may name (``"targetVolume"``, ``"sceneObjects"``)."""

    def __init__(self):
        self.entries = []
        self._objects = {}  # name -> Volume, Mesh or Table
        self._names = {}    # id(object) -> name

    def _name_of(self, thing, name, prefix):
        known = self._names.get(id(thing))
        if known is not None:
            return known
        if name is None:
            name = f"{prefix}{len(self._objects)}"
        if name in self._objects:
            raise Error(f"the scene already has an object named {name!r}")
        self._objects[name] = thing
        self._names[id(thing)] = name
        return name

    def add(self, thing, name=None, window=None, otf=None, mask=None, colour=None, matrix=None, enabled=True,
            params=None, object_params=None):
        """Adds a Volume or Mesh. A volume's tables: ``window`` (WINDOWING, a
        Table), ``otf`` (OTF), ``mask`` (MASKVOLUME, a label Volume on the same
        grid). ``colour`` (r, g, b in 0..1) colours a mesh's lines;
        ``matrix`` (4 x 4) places the object in the world; ``params`` and
        ``object_params`` are tagged keys of the scene entry and the object."""
        if not isinstance(thing, (Volume, Mesh)):
            raise Error(f"a scene holds Volumes and Meshes, got {type(thing).__name__}")
        entry = {"object": self._name_of(thing, name, "volume" if isinstance(thing, Volume) else "mesh")}
        if not enabled:
            entry["enabled"] = False
        if colour is not None:
            entry["colour"] = _vector(colour, 3, "colour")
        if matrix is not None:
            entry["matrix"] = _matrix(matrix, 4, 4, "matrix")
        tables = {}
        for key, table, kind in (("WINDOWING", window, Table), ("OTF", otf, Table), ("MASKVOLUME", mask, Volume)):
            if table is None:
                continue
            if not isinstance(thing, Volume):
                raise Error("only volumes have tables")
            if not isinstance(table, kind):
                raise Error(f"{key} must be a {kind.__name__}, got {type(table).__name__}")
            tables[key] = self._name_of(table, None, "table" if kind is Table else "mask")
        if tables:
            entry["tables"] = tables
        if params:
            entry["params"] = dict(params)
        if object_params:
            entry["objectParams"] = dict(object_params)
        self.entries.append(entry)
        return entry["object"]

    @property
    def objects(self):
        """Name -> Volume, Mesh or Table."""
        return dict(self._objects)

    def document(self, camera, size, requests, image_params=None, output=None, description=None):
        """The request document of this scene seen by ``camera`` on an image of
        ``size`` = (width, height) pixels running ``requests`` (a list of dicts
        of tagged keys, in order)."""
        if not isinstance(camera, Camera):
            raise Error(f"camera must be a Camera, got {type(camera).__name__}")
        if isinstance(requests, dict):
            requests = [requests]
        width, height = (int(s) for s in size)
        document = {}
        if description:
            document["description"] = description
        image = {"size": [width, height], "camera": camera.as_json()}
        if image_params:
            image["params"] = dict(image_params)
        document["image"] = image
        document["objects"] = {name: (thing.description if isinstance(thing, Table) else thing._description)
                               for name, thing in self._objects.items()}
        document["scene"] = [dict(entry) for entry in self.entries]
        document["requests"] = [dict(request) for request in requests]
        if output:
            document["output"] = dict(output)
        return document

    def held(self):
        """Name -> the compiled object of every Volume and Mesh."""
        return {name: thing._held for name, thing in self._objects.items() if not isinstance(thing, Table)}
