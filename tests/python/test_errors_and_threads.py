"""Mistakes are exceptions with the command-line host's words; threads
render side by side with the results of one after the other."""
import os
import subprocess
import sys
import threading

import numpy as np
import pytest

import zrslice as zr


def small_scene(volume=None):
    scene = zr.Scene()
    scene.add(volume or zr.phantom("head", dims=(32, 32, 24), spacing=(8, 8, 10)),
              window=zr.Table(preset="softTissue"))
    return scene


def test_a_mistyped_key_names_the_nearest_key():
    with pytest.raises(zr.Error) as caught:
        zr.render(small_scene(), zr.Camera.axial(extent=240), size=(8, 8),
                  requests={"_bool_IsFirstRenderer": True, "_float_PlaneThicknes": 3.0})
    assert str(caught.value) == ('request: requests[0]: "_float_PlaneThicknes" is not a key the module reads; '
                                 'did you mean "_float_PlaneThickness"?')
    assert isinstance(caught.value, ValueError)
    with pytest.raises(zr.Error, match='"_int_PlaneThickness" .*did you mean "_float_PlaneThickness"'):
        zr.render(small_scene(), zr.Camera.axial(), size=(8, 8), requests={"_int_PlaneThickness": 3})


def test_a_wrong_value_type_names_the_key():
    with pytest.raises(zr.Error, match='"_float_PlaneThickness" expects a number'):
        zr.render(small_scene(), zr.Camera.axial(), size=(8, 8), requests={"_float_PlaneThickness": "3"})
    with pytest.raises(zr.Error, match="finite"):
        zr.render(small_scene(), zr.Camera.axial(), size=(8, 8), requests={"_float_PlaneThickness": float("nan")})


@pytest.mark.parametrize("array, words", [
    (np.zeros((4, 4)), "three axes"),
    (np.zeros((2, 2, 2), np.complex64), "complex64 cannot be a volume"),
    (np.zeros((0, 2, 2), np.int16), "dimensions must be positive"),
])
def test_bad_arrays_are_refused(array, words):
    with pytest.raises(zr.Error, match=words):
        zr.Volume(array)


def test_bad_placement_and_meshes_are_refused():
    with pytest.raises(zr.Error, match="spacing must be positive"):
        zr.Volume(np.zeros((2, 2, 2)), spacing=(1, 0, 1))
    with pytest.raises(zr.Error, match="spacing must be 3 finite numbers"):
        zr.Volume(np.zeros((2, 2, 2)), spacing=(1, np.nan, 1))
    with pytest.raises(zr.Error, match="axis 2 no length"):
        zr.Volume(np.zeros((2, 2, 2)), affine=np.diag([1.0, 1.0, 0.0, 1.0]))
    flat = np.eye(4)
    flat[:3, 2] = [1.0, 1.0, 0.0]  # the k axis in the i-j plane
    with pytest.raises(zr.Error, match="singular"):
        zr.Volume(np.zeros((2, 2, 2)), affine=flat)
    with pytest.raises(zr.Error, match="faces name vertices outside 0..2"):
        zr.Mesh(np.zeros((3, 3)), [[0, 1, 3]])
    with pytest.raises(zr.Error, match=r"vertices must be an \(N, 3\) array"):
        zr.Mesh(np.zeros((3, 2)))


def test_missing_files_name_the_file(tmp_path):
    missing = tmp_path / "absent.nii.gz"
    with pytest.raises(zr.Error, match=f"^{missing}: no such file"):
        zr.load(missing)
    with pytest.raises(zr.Error, match=f"{tmp_path / 'absent.stl'}: "):
        zr.load_mesh(tmp_path / "absent.stl")
    with pytest.raises(zr.Error, match=f"^{tmp_path / 'absent.json'}: no such file"):
        zr.render_file(tmp_path / "absent.json")


def test_a_missing_plug_in_is_a_plugin_error(tmp_path):
    code = ("import zrslice, sys\n"
            "try:\n    zrslice.render(zrslice.Scene(), zrslice.Camera(), (4, 4))\n"
            "except zrslice.PluginError as e:\n    print(e); sys.exit(3)\n")
    env = dict(os.environ, ZR_PLUGIN=str(tmp_path / "nothing.so"))
    run = subprocess.run([sys.executable, "-c", code], env=env, capture_output=True, text=True, timeout=60)
    assert run.returncode == 3, run.stderr
    assert "nothing.so" in run.stdout


def render_one(scene, z):
    return zr.render(scene, zr.Camera.axial(centre=(0, 0, z), extent=240), size=(96, 96),
                     requests=zr.slab(20.0, values=True))


def test_threads_give_the_results_of_one_after_the_other():
    # Separate scenes of separate volumes, and one volume shared by two scenes.
    shared = zr.phantom("head", dims=(64, 64, 48), spacing=(4, 4, 5))
    scenes = [small_scene(zr.phantom("head", dims=(64, 64, 48), spacing=(4, 4, 5))) for _ in range(3)]
    scenes += [small_scene(shared), small_scene(shared)]
    heights = [-30.0, -5.0, 10.0, 25.0, 40.0]
    serial = [render_one(scene, z) for scene, z in zip(scenes, heights)]
    for _ in range(3):
        results = [None] * len(scenes)

        def work(k):
            results[k] = render_one(scenes[k], heights[k])

        threads = [threading.Thread(target=work, args=(k,)) for k in range(len(scenes))]
        for t in threads:
            t.start()
        for t in threads:
            t.join()
        for got, expected in zip(results, serial):
            assert np.array_equal(got.rgba, expected.rgba) and np.array_equal(got.values, expected.values)
    assert len({r.rgba.tobytes() for r in serial}) == len(serial)  # different pictures


def test_python_keeps_running_while_a_scene_renders():
    scene = small_scene(zr.phantom("head", dims=(128, 128, 96)))
    ticks = []
    done = threading.Event()

    def count():
        while not done.is_set():
            ticks.append(1)
            done.wait(0.001)

    counter = threading.Thread(target=count)
    counter.start()
    zr.render(scene, zr.Camera.axial(extent=240), size=(512, 512), requests=zr.slab(150.0))
    done.set()
    counter.join()
    assert len(ticks) > 3  # the counter ran while the module drew
