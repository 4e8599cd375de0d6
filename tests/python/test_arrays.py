"""numpy volumes of every voxel type, in any memory order, come back as the
values they hold."""
import numpy as np
import pytest

import zrslice as zr

DIMS = (7, 5, 4)  # i, j, k: all different, so that a swapped axis shows


def values_at_slice(volume, k, values=True, window=(0.0, 100.0)):
    """The value image of the axial slice through voxel centres k, one pixel
    per voxel: pixel (row j, column i) lies on voxel (i, j, k)."""
    nx, ny, _ = volume.shape
    scene = zr.Scene()
    scene.add(volume, window=zr.Table(window=window))
    camera = zr.Camera.axial(centre=((nx - 1) / 2, (ny - 1) / 2, k), extent=(nx, ny))
    return zr.render(scene, camera, size=(nx, ny), requests=zr.thin_slice(values=values))


def ramp(dtype):
    i, j, k = np.meshgrid(*(np.arange(n) for n in DIMS), indexing="ij")
    values = 17 * i + 5 * j + 3 * k  # every voxel different
    if np.dtype(dtype).kind == "i":
        values = values - 40  # negative values too
    return values.astype(dtype)


@pytest.mark.parametrize("dtype", ["int8", "uint8", "int16", "uint16", "int32", "uint32", "int64"])
def test_integer_arrays_come_back_as_their_values(dtype):
    array = ramp(dtype)
    volume = zr.Volume(array)
    for k in range(DIMS[2]):
        result = values_at_slice(volume, k)
        real = result.values.astype(np.int64) - volume.value_offset
        assert np.array_equal(real, array[:, :, k].T.astype(np.int64)), (dtype, k)


def test_large_integers_choose_their_offset():
    array = ramp("int32") * 300  # -12000 .. 27300: offset 32768
    volume = zr.Volume(array)
    assert volume.value_offset == 32768 and volume.voxel_type == "uint16"
    real = values_at_slice(volume, 2).values.astype(np.int64) - 32768
    assert np.array_equal(real, array[:, :, 2].T)


@pytest.mark.parametrize("dtype", ["float32", "float64"])
def test_float_arrays_are_float_volumes_in_value_order(dtype):
    array = ramp(dtype) * 0.25 + 0.125
    volume = zr.Volume(array)
    assert volume.is_float and volume.voxel_type == "float32"
    assert volume.value_range == (float(array.min()), float(array.max()))
    grey = values_at_slice(volume, 1, values=False, window=(float(array.mean()), 200.0)).rgba[..., 0].astype(int)
    # A ramp of the values: grey rises along i and j as the values do.
    expected_order = np.argsort(array[:, :, 1].T, axis=None, kind="stable")
    assert np.all(np.diff(grey.ravel()[expected_order]) >= 0)
    assert grey.max() > grey.min()


def test_float64_is_converted_as_float32_is():
    array = ramp("float64") * 0.25
    a = values_at_slice(zr.Volume(array), 1, values=False, window=(10.0, 80.0)).rgba
    b = values_at_slice(zr.Volume(array.astype(np.float32)), 1, values=False, window=(10.0, 80.0)).rgba
    assert np.array_equal(a, b)


def test_memory_order_does_not_matter():
    array = ramp("int16")
    pictures = []
    for variant in (np.ascontiguousarray(array), np.asfortranarray(array),
                    np.ascontiguousarray(np.repeat(array, 2, axis=1))[:, ::2, :],  # strided view
                    array.astype(array.dtype.newbyteorder(">"))):              # big-endian
        assert np.array_equal(variant, array)
        pictures.append(values_at_slice(zr.Volume(variant), 3).values)
    for picture in pictures[1:]:
        assert np.array_equal(picture, pictures[0])


def test_bool_masks_are_bytes():
    mask = ramp("int16") > 20
    volume = zr.Volume(mask)
    assert volume.voxel_type == "uint8" and volume.value_offset == 0
    assert np.array_equal(values_at_slice(volume, 0).values, mask[:, :, 0].T.astype(np.uint16))


def test_spacing_origin_and_direction_place_the_voxels():
    array = ramp("uint16")
    # Axes swapped and scaled: i runs along -y (2 mm), j along +x (3 mm), k along z (1.5 mm).
    direction = np.array([[0.0, 1.0, 0.0], [-1.0, 0.0, 0.0], [0.0, 0.0, 1.0]])
    spacing, origin = np.array([2.0, 3.0, 1.5]), np.array([10.0, -4.0, 7.0])
    volume = zr.Volume(array, spacing=spacing, origin=origin, direction=direction)
    affine = np.eye(4)
    affine[:3, :3] = direction * spacing
    affine[:3, 3] = origin
    assert np.allclose(volume.affine, affine)
    assert np.allclose(zr.Volume(array, affine=affine).affine, affine)
    # The voxel (i=3, j=2, k=1) is where the affine puts it.
    world = affine @ [3, 2, 1, 1]
    scene = zr.Scene()
    scene.add(volume, window=zr.Table(window=(0, 100)))
    result = zr.render(scene, zr.Camera.axial(centre=world[:3], extent=3.0), size=(3, 3),
                       requests=zr.thin_slice(values=True))
    assert result.values[1, 1] == array[3, 2, 1]
