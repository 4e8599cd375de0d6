"""zrslice: the CPU sectional render plug-in from Python, numpy in, numpy out.

The plug-in is loaded through the reference host exactly as the ``zrslice``
command loads it ($ZR_PLUGIN, or the one beside this package), and scenes
are checked and run by the same host library, so a request made here and the
same request in a JSON file give the same bytes. docs/python.md is the
tutorial.

    import zrslice
    ct = zrslice.load("ct.nii.gz")                 # or Volume(array, affine=...)
    scene = zrslice.Scene()
    scene.add(ct, window=zrslice.Table(preset="softTissue"))
    result = zrslice.render(scene, zrslice.Camera.axial(extent=240), size=(256, 256))
    result.rgba                                    # (256, 256, 4) uint8

World coordinates are LPS millimetres; volume arrays are indexed a[i, j, k].
"""
from ._zrslice import Error, PluginError
from .objects import Mesh, Table, Volume, builtin_mesh, from_nibabel, load, load_mesh, phantom
from .rendering import Result, plugin_path, render, render_document, render_file
from .request_files import to_request_file
from .requests import curved, mesh_lines, slab, thin_slice
from .scene import Camera, Scene

__all__ = [
    "Camera", "Error", "Mesh", "PluginError", "Result", "Scene", "Table", "Volume", "builtin_mesh", "curved",
    "from_nibabel", "load", "load_mesh", "mesh_lines", "phantom", "plugin_path", "render", "render_document",
    "render_file", "slab", "thin_slice", "to_request_file",
]
