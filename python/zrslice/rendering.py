"""Rendering: a scene and a camera (or a request document) through the
plug-in, loaded as ``zrslice`` loads it, into numpy arrays.

Python's lock is released while a scene is built and rendered, so separate
scenes may render from separate threads. The plug-in takes one request at a
time (as its contract asks of a host), so the requests themselves wait for
each other; file reading and mesh hierarchies are built side by side. A
fatal failure inside the module (a failed container check, an exhausted
heap) ends the process, as the module's contract specifies.
"""
import json
import os
import threading

import numpy as np

from . import _zrslice
from .objects import Error
from .scene import Scene

_plugin = None
_plugin_lock = threading.Lock()


def plugin_path():
    """The plug-in this package loads: $ZR_PLUGIN when set, otherwise the
    one beside the compiled module."""
    return os.environ.get("ZR_PLUGIN") or os.path.join(os.path.dirname(_zrslice.__file__),
                                                      _zrslice.plugin_file_name())


def _session():
    global _plugin
    with _plugin_lock:
        if _plugin is None:
            _plugin = _zrslice.Plugin(plugin_path())
        return _plugin


def _to_json(document):
    def plain(value):
        if isinstance(value, np.ndarray):
            return value.tolist()
        if isinstance(value, np.generic):
            return value.item()
        raise Error(f"a request holds a {type(value).__name__}, which has no JSON form")

    try:
        return json.dumps(document, default=plain, allow_nan=False)
    except ValueError as e:
        raise Error(f"request: every number must be finite ({e})") from None


class Result:
    """What one render gave back.

    - ``rgba``: the picture, (H, W, 4) uint8, R, G, B, A;
    - ``values``: the 16-bit value image (H, W) uint16 when a request asked for
      it (``_bool_StoreSampleValueToCustomBuffer``), else None; a pixel holds
      value + the volume's offset (``volumes[name]["valueOffset"]``);
    - ``iso_lines``: per request index, a dict name -> (N, 4) array of
      segments (x0, y0, x1, y1) in pixels;
    - ``cross_lines``: (N, 4) float array of mesh cut segments in pixels, with
      ``cross_line_objects`` (per mesh: name, colour, segments);
    - ``pixel_to_world``: 4 x 4 matrix from (x, y, depth mm, 1) to LPS mm;
      ``world(x, y)`` applies it on the image plane;
    - ``lists``: everything the module returned, as ``zrslice render`` writes
      it in OUT.lists.json; ``warnings``: why the picture may not be what was
      wanted;
    - ``pick(x, y)``: for a maximum or minimum slab, where the winning sample
      of that pixel lies.
    """

    def __init__(self, frame, document):
        self._frame = frame
        self.document = document
        self.rgba = frame.picture
        self.values = frame.values
        self.lists = json.loads(frame.lists)
        self.warnings = list(frame.warnings)
        self.pixel_to_world = np.array(frame.pixel_to_world)
        self.volumes = self.lists.get("volumes", {})

    @property
    def iso_lines(self):
        return [{name: np.array(segments, dtype=float).reshape(-1, 4)
                 for name, segments in request.get("isoLines", {}).items()}
                for request in self.lists["requests"]]

    @property
    def cross_lines(self):
        lines = self.lists.get("crossLines")
        return np.array(lines["segments"], dtype=np.float32).reshape(-1, 4) if lines else np.zeros((0, 4), np.float32)

    @property
    def cross_line_objects(self):
        lines = self.lists.get("crossLines")
        return [dict(o, segments=np.array(o["segments"], dtype=np.float32).reshape(-1, 4))
                for o in (lines["objects"] if lines else [])]

    def world(self, x, y):
        """LPS millimetres of pixel (x, y) (scalars or arrays) on the image
        plane; pixel centres are at whole numbers."""
        x, y = np.broadcast_arrays(np.asarray(x, dtype=float), np.asarray(y, dtype=float))
        points = np.stack([x, y, np.zeros_like(x), np.ones_like(x)], axis=-1)
        return (points @ self.pixel_to_world.T)[..., :3]

    def pick(self, x, y, request=None):
        """Where the winning sample under pixel (x, y) of a maximum (10) or
        minimum (11) slab request lies, walking that pixel's layers as the
        module lays them out: a dict with ``world`` (LPS mm), ``voxel``,
        ``layer`` (0 nearest the viewer), ``layer_count``, ``value`` (real)
        and ``volume`` (its name); None outside the image or the volume.
        ``request`` is the request's index (default: the last slab)."""
        if request is None:
            request = len(self.document["requests"]) - 1
            for index, keys in enumerate(self.document["requests"]):
                if keys.get("_int_VolumeRayCastType") in (10, 11):
                    request = index
        picked = self._frame.pick(float(x), float(y), int(request))
        if picked is not None:
            picked["world"] = np.array(picked["world"])
            picked["voxel"] = np.array(picked["voxel"])
        return picked


def render_document(document, objects=None, base_directory=".", name="request"):
    """Renders a request document (a dict in the JSON request format) as
    ``zrslice render`` would. ``objects`` maps object names to Volumes and
    Meshes held in memory, which stand for the document's objects of the same
    names; other objects are read from their descriptions, relative file
    names from ``base_directory``. ``name`` names the document in errors."""
    held = {key: thing._held for key, thing in (objects or {}).items()}
    for key in held:
        if key not in document.get("objects", {}):
            raise Error(f"{name}: objects.{key}: given in memory but not described in the document")
    text = _to_json(document)
    frame = _zrslice.render(text, name, os.fspath(base_directory), held, _session())
    return Result(frame, json.loads(text))


def render(scene, camera, size=(256, 256), requests=None, image_params=None, output=None):
    """Renders ``scene`` seen by ``camera`` on an image of ``size`` = (width,
    height) pixels. ``requests``: one dict or a list of dicts of tagged keys,
    run in order on the one image (default: a thin slice)."""
    if not isinstance(scene, Scene):
        raise Error(f"scene must be a Scene, got {type(scene).__name__}")
    if requests is None:
        requests = [{"_bool_IsFirstRenderer": True, "_bool_IsFinalRenderer": True}]
    document = scene.document(camera, size, requests, image_params, output)
    frame = _zrslice.render(_to_json(document), "request", ".", scene.held(), _session())
    return Result(frame, document)


def render_file(path):
    """Replays a request file, as ``zrslice render PATH`` does."""
    path = os.fspath(path)
    try:
        with open(path) as f:
            document = json.load(f)
    except FileNotFoundError:
        raise Error(f"{path}: no such file") from None
    except json.JSONDecodeError as e:
        raise Error(f"{path}: not valid JSON: {e}") from None
    return render_document(document, base_directory=os.path.dirname(path) or ".", name=path)
