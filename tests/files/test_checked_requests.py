"""Requests that would silently draw nothing or the wrong thing are refused or
warned about, in one line naming what is wrong, with no output left behind."""
import json

import nibabel as nib
import numpy as np
import pytest

from conftest import render, slice_document, zrslice


def head_document(**request):
    return {
        "image": {"size": [32, 32], "camera": {"position": [0, 0, 20], "viewDirection": [0, 0, 1],
                                               "up": [0, -1, 0], "viewExtent": 240}},
        "objects": {"head": {"type": "volume", "phantom": "head", "dims": [32, 32, 24], "spacing": [6, 6, 8]},
                    "window": {"type": "table", "preset": "softTissue"}},
        "scene": [{"object": "head", "tables": {"WINDOWING": "window"}}],
        "requests": [dict({"_bool_IsFirstRenderer": True}, **request)],
    }


def with_changes(document, change):
    document = json.loads(json.dumps(document))
    change(document)
    return document


def write_and_render(tmp_path, document, *flags):
    path = tmp_path / "request.json"
    path.write_text(json.dumps(document) if not isinstance(document, str) else document)
    return zrslice("-q", "render", *flags, path, "-o", tmp_path / "out.png")


def outputs(tmp_path):
    return sorted(p.name for p in tmp_path.iterdir() if p.name != "request.json")


# Mistakes the module would take without a word: each refused in one line.
@pytest.mark.parametrize("change, expected", [
    (lambda d: d["requests"][0].update({"_double_PlaneThickness": 40.0}),
     '"_double_PlaneThickness" is not a key the module reads; did you mean "_float_PlaneThickness"?'),
    (lambda d: d["requests"][0].update({"_float_PlaneThicknes": 40.0}), 'did you mean "_float_PlaneThickness"?'),
    (lambda d: d["requests"][0].update({"_int_volumeraycasttype": 10}), 'did you mean "_int_VolumeRayCastType"?'),
    (lambda d: d["scene"][0].update({"params": {"_bool_MultiOtf": True}}), 'did you mean "_bool_MultiOTF"?'),
    (lambda d: d["image"].update({"params": {"_bool_SkipSrOnPlane": True}}),
     'did you mean "_bool_SkipSrOnPlaneRenderer"?'),
    (lambda d: d["requests"][0].update({"_string_RenderingSourceType": "sectional_volume"}),
     'did you mean "SECTIONAL_VOLUME"?'),
    (lambda d: d["requests"][0].update({"_float_PlaneThickness": 1e30}), "beyond any scan"),
    (lambda d: d["requests"][0].update({"_float_PlaneThickness": -1e30}), "beyond any scan"),
])
def test_mistaken_keys_and_values_are_refused_with_the_nearest_key(tmp_path, change, expected):
    run = write_and_render(tmp_path, with_changes(head_document(), change))
    assert run.code == 1, run
    assert run.err.count("\n") == 1 and run.err.startswith("zrslice: "), run
    assert expected in run.err, run
    assert outputs(tmp_path) == []


def test_numbers_json_cannot_hold_are_one_line_naming_the_file(tmp_path):
    text = json.dumps(head_document()).replace('"viewExtent": 240', '"viewExtent": 1e999')
    run = write_and_render(tmp_path, text)
    assert run.code == 1 and run.err.count("\n") == 1, run
    assert "request.json: not valid JSON: number overflow" in run.err and "[json." not in run.err, run


def test_a_tiny_uniform_scale_is_not_singular(tmp_path):
    document = head_document()
    document["scene"][0]["matrix"] = [[1e-5, 0, 0, 0], [0, 1e-5, 0, 0], [0, 0, 1e-5, 0], [0, 0, 0, 1]]
    document["image"]["camera"].update({"position": [0, 0, 0], "viewExtent": 0.003})
    run = write_and_render(tmp_path, document, "--strict")
    assert run.code == 0, run


# Requests that draw nothing: a warning naming the reason; --strict refuses.
@pytest.mark.parametrize("change, expected", [
    (lambda d: d["scene"][0].pop("tables"), "objects.head: no WINDOWING table"),
    (lambda d: d["requests"][0].update({"_int_VolumeRayCastType": 5, "_float_PlaneThickness": 40.0}),
     "_int_VolumeRayCastType 5 is not a render mode"),
    (lambda d: d["requests"][0].update({"_bool_IsFastQualityMode": True, "_int_LengthFastModeMax": 0}),
     "_int_LengthFastModeMax 0 leaves no pixels"),
    (lambda d: d["image"].update({"size": [32, 1]}), "one pixel high"),
    (lambda d: d["image"]["camera"].update({"position": [0, 0, 300]}),
     'the view misses every volume (the nearest, "head", lies'),
    (lambda d: d["image"]["camera"].update({"position": [500, 0, 0]}), "the view misses every volume"),
    (lambda d: d["scene"][0].update({"enabled": False}), "no enabled volume"),
])
def test_requests_that_draw_nothing_say_why(tmp_path, change, expected):
    document = with_changes(head_document(), change)
    run = write_and_render(tmp_path, document)
    assert run.code == 0, run
    assert f"zrslice: warning: {tmp_path / 'request.json'}: " in run.err, run
    assert expected in run.err, run
    (tmp_path / "out.png").unlink()
    for extra in tmp_path.glob("out.*"):
        extra.unlink()
    strict = write_and_render(tmp_path, document, "--strict")
    assert strict.code == 1, strict
    assert "refused under --strict" in strict.err.splitlines()[-1], strict
    assert outputs(tmp_path) == []


def test_a_clean_request_gives_no_warning(tmp_path):
    run = write_and_render(tmp_path, head_document(_float_PlaneThickness=40.0, _int_VolumeRayCastType=10), "--strict")
    assert run.code == 0 and run.err == "", run


def test_a_thick_slab_far_beyond_the_volume_is_quick_and_the_same(tmp_path):
    """Layers that lie outside the volume cannot change a maximum."""
    thin = head_document(_float_PlaneThickness=400.0, _int_VolumeRayCastType=10)
    thick = head_document(_float_PlaneThickness=9000.0, _int_VolumeRayCastType=10)
    pictures = []
    for name, document in (("thin", thin), ("thick", thick)):
        run, picture, _, _ = render(tmp_path, document, name)
        assert run.code == 0, run
        pictures.append(picture)
    assert np.array_equal(pictures[0], pictures[1])


def test_forcing_a_signed_voxel_type_warns_about_the_slabs(tmp_path):
    path = tmp_path / "ct.nii"
    nib.save(nib.Nifti1Image(np.full((8, 8, 8), -500, np.int16), np.eye(4)), str(path))
    document = slice_document({"type": "volume", "file": str(path), "voxelType": "int16"}, centre=(-3.5, -3.5, 3.5),
                              extent=8, size=(8, 8))
    run = write_and_render(tmp_path, document)
    assert run.code == 0, run
    assert 'voxelType "int16" hands the module signed voxels' in run.err, run
