"""nibabel images and files on disk: placed in LPS as the independent numpy
reference says, and byte-identical to `zrslice render` of the same request."""
import json

import nibabel as nib
import numpy as np
import pytest

import zrslice as zr
from conftest import read_png, zrslice_render
from world_sampling import RAS_TO_LPS, pixel_world, trilinear


def oblique_ras_affine():
    """Voxel to RAS: rotated about two axes, anisotropic, off the origin."""
    a, b = np.radians(20.0), np.radians(-35.0)
    rz = np.array([[np.cos(a), -np.sin(a), 0], [np.sin(a), np.cos(a), 0], [0, 0, 1]])
    rx = np.array([[1, 0, 0], [0, np.cos(b), -np.sin(b)], [0, np.sin(b), np.cos(b)]])
    affine = np.eye(4)
    affine[:3, :3] = rz @ rx @ np.diag([1.2, 0.9, 2.0])
    affine[:3, 3] = [14.0, -9.0, 5.0]
    return affine


def smooth_field(shape):
    i, j, k = np.meshgrid(*(np.arange(n, dtype=float) for n in shape), indexing="ij")
    return np.round(400 * np.sin(i / 4.0) + 300 * np.cos(j / 5.0) + 20 * k - 200).astype(np.int16)


def test_nibabel_image_sampled_in_world_coordinates(folder):
    data = smooth_field((30, 26, 18))
    image = nib.Nifti1Image(data, oblique_ras_affine())
    volume = zr.from_nibabel(image)
    lps = RAS_TO_LPS @ oblique_ras_affine()
    centre = lps @ [14.5, 12.5, 8.7, 1.0]
    camera = zr.Camera(centre[:3], view_direction=(0.2, 0.3, 1.0), up=(0.0, -1.0, 0.1), extent=40.0)
    scene = zr.Scene()
    scene.add(volume, window=zr.Table(preset="softTissue"))
    result = zr.render(scene, camera, size=(48, 48), requests=zr.thin_slice(values=True))
    # Where the pixels lie, from the camera alone.
    document = {"image": {"size": [48, 48], "camera": camera.as_json()}}
    world = pixel_world(document)
    assert np.allclose(result.world(*np.meshgrid(np.arange(48), np.arange(48))), world, atol=1e-9)
    voxel = np.einsum("ij,hwj->hwi", np.linalg.inv(lps), np.concatenate([world, np.ones((48, 48, 1))], -1))[..., :3]
    expected = trilinear(data.astype(float), voxel)
    inside = ~np.isnan(expected)
    assert inside.sum() > 800
    real = result.values.astype(float) - volume.value_offset
    assert np.abs(real[inside] - expected[inside]).max() <= 1.001


def test_load_reads_the_file_as_from_nibabel_takes_the_image(folder):
    data = smooth_field((20, 22, 12))
    image = nib.Nifti1Image(data, oblique_ras_affine())
    image.header.set_slope_inter(1.0, -1024.0)  # a CT's intercept: values stay integers
    nib.save(image, folder / "ct.nii.gz")
    loaded, converted = zr.load(folder / "ct.nii.gz"), zr.from_nibabel(nib.load(folder / "ct.nii.gz"))
    assert loaded.value_offset == converted.value_offset and not loaded.is_float
    assert np.allclose(loaded.affine, converted.affine)
    pictures = []
    for volume in (loaded, converted):
        scene = zr.Scene()
        scene.add(volume, window=zr.Table(window=(-1000, 800)))
        camera = zr.Camera((RAS_TO_LPS @ oblique_ras_affine() @ [10, 11, 6, 1])[:3], extent=50.0)
        pictures.append(zr.render(scene, camera, size=(40, 40), requests=zr.thin_slice(values=True)))
    assert np.array_equal(pictures[0].rgba, pictures[1].rgba)
    assert np.array_equal(pictures[0].values, pictures[1].values)
    assert pictures[0].values.any()


def chain_scene():
    """An oblique int16 volume from an array, a label mask, a mesh and a point
    set from arrays, with a table of control points."""
    data = smooth_field((24, 20, 16))
    volume = zr.Volume(data, affine=RAS_TO_LPS @ oblique_ras_affine())
    scene = zr.Scene()
    scene.add(volume, name="ct", window=zr.Table(control_points=[[-600, 0, 0, 0, 0], [0, 0.5, 0.4, 0.3, 1],
                                                                 [600, 1, 1, 0.9, 1]]))
    angles = np.linspace(0, 2 * np.pi, 24, endpoint=False)
    ring = np.stack([20 * np.cos(angles), 20 * np.sin(angles), np.zeros(24)], 1) + [5, 0, 12]
    vertices = np.concatenate([ring, ring + [0, 0, 6], [[5, 0, 12], [5, 0, 18]]])
    faces = [[k, (k + 1) % 24, 24 + k] for k in range(24)] + [[(k + 1) % 24, 24 + (k + 1) % 24, 24 + k]
                                                              for k in range(24)]
    scene.add(zr.Mesh(vertices, faces), name="band", colour=(1.0, 0.2, 0.1))
    scene.add(zr.Mesh(0.5 * ring + [2.5, 0, 9]), name="dots", colour=(0.2, 0.8, 1.0))
    camera = zr.Camera((5.0, 0.0, 15.0), extent=70.0)
    requests = [zr.thin_slice(values=True, final=False),
                zr.mesh_lines(sceneObjects=["band"], final=False),
                zr.mesh_lines(sceneObjects=["dots"], _double_SphereRadius=2.0, _double_ZoominRadius=3.0)]
    return scene, camera, requests


def test_request_file_replays_byte_identically_in_zrslice(folder):
    scene, camera, requests = chain_scene()
    result = zr.render(scene, camera, size=(64, 48), requests=requests)
    document = zr.to_request_file(folder / "chain.json", scene, camera, size=(64, 48), requests=requests)
    assert document["objects"]["ct"]["raw"] == "chain.ct.raw"
    picture, values = zrslice_render(folder / "chain.json", folder / "chain.png")
    assert np.array_equal(picture, result.rgba)
    assert np.array_equal(values, result.values)
    assert (result.rgba[..., :3].astype(int).sum(-1) > 0).sum() > 500  # it drew the volume
    # The mesh and the points drew over it, in their colours.
    reds = (result.rgba[..., 0] > 200) & (result.rgba[..., 1] < 120)
    blues = (result.rgba[..., 2] > 200) & (result.rgba[..., 0] < 120)
    assert reds.sum() > 10 and blues.sum() > 10
    # And the same file replayed from Python.
    replay = zr.render_file(folder / "chain.json")
    assert np.array_equal(replay.rgba, result.rgba)


def test_a_request_dict_and_its_json_file_give_the_same_bytes(folder):
    document = {
        "image": {"size": [40, 40], "camera": {"position": [0, 0, -30], "viewDirection": [0, 0, 1],
                                               "up": [0, -1, 0], "viewExtent": 240}},
        "objects": {"head": {"type": "volume", "phantom": "head", "dims": [48, 48, 36], "spacing": [4, 4, 5]},
                    "bone": {"type": "table", "preset": "bone"}},
        "scene": [{"object": "head", "tables": {"WINDOWING": "bone"}}],
        "requests": [{"_bool_IsFirstRenderer": True, "_bool_IsFinalRenderer": True,
                      "_int_VolumeRayCastType": 10, "_float_PlaneThickness": 40.0}],
    }
    (folder / "slab.json").write_text(json.dumps(document))
    picture, _ = zrslice_render(folder / "slab.json", folder / "slab.png")
    result = zr.render_document(document)
    assert np.array_equal(result.rgba, picture) and picture[..., :3].any()


def test_pick_finds_the_brightest_voxel_of_a_maximum_slab():
    data = np.zeros((21, 21, 21), np.uint16)
    data[12, 8, 14] = 1000  # voxel (12, 8, 14): world = origin + spacing * index
    spacing, origin = np.array([1.0, 1.0, 1.0]), np.array([-10.0, -10.0, -10.0])
    volume = zr.Volume(data, spacing=spacing, origin=origin)
    scene = zr.Scene()
    scene.add(volume, window=zr.Table(window=(500, 1000)))
    result = zr.render(scene, zr.Camera.axial(extent=21.0), size=(21, 21), requests=zr.slab(15.0))
    bright = origin + spacing * [12, 8, 14]
    assert result.rgba[8, 12, 0] == result.rgba[..., 0].max() > 0  # column i, row j
    picked = result.pick(12, 8)
    assert picked["volume"] == "volume0" and picked["value"] == 1000
    assert np.allclose(picked["world"], bright, atol=0.5 + 1e-9)
    assert picked["layer_count"] == 15  # 1 mm apart, on z = -7 .. 7
    # A pixel that sees nothing bright picks a sample of value 0.
    assert result.pick(2, 2)["value"] == 0
    with pytest.raises(zr.Error):
        zr.render(scene, zr.Camera.axial(extent=21.0), size=(21, 21)).pick(12, 8)
