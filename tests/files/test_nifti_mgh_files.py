"""NIfTI and MGH files in the variants that scanners, converters and analysis
tools write, placed and valued as nibabel reads them.

Every file is written by nibabel (some then damaged or edited byte by byte, as
real files are), and every picture is compared with nibabel's own reading:
its best affine (RAS, turned into LPS) and its scaled data, sampled
trilinearly at every pixel's world position.
"""
import gzip
import json
import struct

import nibabel as nib
import numpy as np
import pytest

from conftest import (RAS_TO_LPS, assert_values_where_placed, expected_values, info_field, render, slice_document,
                      zrslice)

def stored_values(shape, dtype=np.int16, base=-1000):
    """Integer voxels that differ along every axis and not linearly, so that any
    misplacement changes the sampled values."""
    i, j, k = np.meshgrid(*[np.arange(n) for n in shape[:3]], indexing="ij")
    v = base + 7 * i * i + 23 * j + 3 * (k * k) + 11 * i * k
    return v.astype(dtype)


def patch(path, offset, fmt, *values):
    """Overwrites header bytes of an uncompressed file, as a damaged or
    hand-edited header would have them."""
    with open(path, "r+b") as f:
        f.seek(offset)
        f.write(struct.pack(fmt, *values))


def assert_placed_as_nibabel_reads(files, path, frame=None):
    """Renders the value picture of `path` through zrslice and compares it with
    nibabel's reading of the same file; returns the run of `zrslice info`."""
    image = nib.load(str(path))
    data = np.asarray(image.get_fdata())
    if data.ndim == 4:
        data = data[..., frame]
    if data.ndim == 2:
        data = data[..., None]
    volume = {"type": "volume", "file": str(path)}
    if frame is not None:
        volume["frame"] = frame
    assert_values_where_placed(files, volume, RAS_TO_LPS @ image.affine, data)
    info = zrslice("info", path, *(["--frame", frame] if frame is not None else []))
    assert info.code == 0, info
    return info


def oblique_affine(spacing=(0.66, 0.66, 2.5), origin=(-84.3, 112.67, -37.25), angle=0.3):
    c, s = np.cos(angle), np.sin(angle)
    rotation = np.array([[c, -s, 0], [s * 0.8, c * 0.8, 0.6], [-s * 0.6, -c * 0.6, 0.8]])
    affine = np.eye(4)
    affine[:3, :3] = rotation @ np.diag(spacing)
    affine[:3, 3] = origin
    return affine


def qform_only(data, affine):
    image = nib.Nifti1Image(data, None)
    image.set_qform(affine, code=1)
    image.set_sform(None, code=0)
    return image


def template_with_scanner_qform(data):
    """Registered to a template (sform code 2) and keeping its scanner qform
    (code 1, rotated and shifted), as registration tools write them."""
    image = nib.Nifti1Image(data, oblique_affine())
    image.set_qform(oblique_affine(origin=(-70, 100, -30), angle=0.1), code=1)
    image.set_sform(oblique_affine(), code=2)
    return image


def big_endian(data, affine):
    header = nib.Nifti1Header(endianness=">")
    header.set_data_dtype(">i2")
    return nib.Nifti1Image(data.astype(">i2"), affine, header=header)


SHAPE = (20, 16, 9)

PLACEMENTS = [
    # name, writes the file, what `info` says placed it
    ("sform-only-oblique.nii", lambda p: nib.save(nib.Nifti1Image(stored_values(SHAPE), oblique_affine()), p), "sform"),
    ("qform-only.nii.gz", lambda p: nib.save(qform_only(stored_values(SHAPE), oblique_affine()), p), "qform"),
    ("negative-qfac.nii", lambda p: nib.save(qform_only(stored_values(SHAPE), np.diag([1.5, 1.2, -2.0, 1])), p),
     "qform"),
    ("template-and-scanner.nii", lambda p: nib.save(template_with_scanner_qform(stored_values(SHAPE)), p), "sform"),
    ("big-endian.nii", lambda p: nib.save(big_endian(stored_values(SHAPE), oblique_affine()), p), "sform"),
    ("pair.hdr", lambda p: nib.save(nib.Nifti1Pair(stored_values(SHAPE), oblique_affine()), p), "sform"),
    ("nifti2.nii.gz", lambda p: nib.save(nib.Nifti2Image(stored_values(SHAPE, np.int32), oblique_affine()), p),
     "sform"),
    ("sheared.nii", lambda p: nib.save(nib.Nifti1Image(stored_values(SHAPE), np.array(
        [[0.9, 0.3, 0.0, 10.3], [0.0, 1.1, 0.0, -5.2], [0.0, 0.25, 2.0, 3.3], [0, 0, 0, 1]])), p), "sform"),
    ("pixdim-left-at-one.nii", lambda p: nib.save(nib.Nifti1Image(stored_values(SHAPE), np.diag([0.66, 0.7, 3, 1])), p),
     "sform"),
    ("labels-uint8.nii", lambda p: nib.save(nib.Nifti1Image((stored_values(SHAPE) % 7).astype(np.uint8),
                                                            oblique_affine()), p), "sform"),
    ("freesurfer.mgz", lambda p: nib.save(nib.MGHImage(stored_values(SHAPE, np.int16), oblique_affine()), p),
     "direction cosines"),
    ("freesurfer-int32.mgh", lambda p: nib.save(nib.MGHImage(stored_values(SHAPE, np.int32), oblique_affine()), p),
     "direction cosines"),
]


@pytest.mark.parametrize("name, write, rule", PLACEMENTS, ids=[p[0] for p in PLACEMENTS])
def test_files_are_placed_and_valued_as_nibabel_reads_them(files, name, write, rule):
    path = files / name
    write(str(path))
    info = assert_placed_as_nibabel_reads(files, path)
    assert info_field(info.out, "placed by").startswith(rule), info


def test_the_rule_and_its_warnings_are_named_by_info(files):
    cases = {
        "template-and-scanner.nii": (template_with_scanner_qform(stored_values(SHAPE)), "the qform (code 1"),
        "sheared.nii": (nib.Nifti1Image(stored_values(SHAPE), np.array(
            [[0.9, 0.3, 0, 0], [0, 1.1, 0, 0], [0, 0.25, 2, 0], [0, 0, 0, 1]])), "sheared grid"),
    }
    for name, (image, note) in cases.items():
        nib.save(image, str(files / name))
        run = zrslice("info", files / name)
        assert run.code == 0, run
        assert note in info_field(run.out, "note"), run
    # Agreeing transforms give no note.
    nib.save(nib.Nifti1Image(stored_values(SHAPE), oblique_affine()), str(files / "plain.nii"))
    run = zrslice("info", files / "plain.nii")
    assert info_field(run.out, "note") is None, run


def test_a_scaled_ct_is_read_in_hounsfield_units(files):
    """Converters write CT as stored values with scl_inter -1024."""
    path = files / "ct-scaled.nii"
    hu = stored_values(SHAPE, np.int16, base=-1000)
    nib.save(nib.Nifti1Image((hu + 1024).astype(np.uint16), oblique_affine()), str(path))
    patch(path, 112, "<ff", 1.0, -1024.0)
    assert np.array_equal(nib.load(str(path)).get_fdata(), hu)  # nibabel reads HU
    info = assert_placed_as_nibabel_reads(files, path)
    assert info_field(info.out, "values").startswith(f"{hu.min()} .. {hu.max()}"), info


@pytest.mark.parametrize("slope", [0.0, float("nan")])
def test_a_slope_of_zero_or_nan_means_no_scaling(files, slope):
    path = files / "unscaled.nii"
    nib.save(nib.Nifti1Image(stored_values(SHAPE), oblique_affine()), str(path))
    patch(path, 112, "<ff", slope, 500.0)
    assert_placed_as_nibabel_reads(files, path)


def test_a_non_integral_slope_gives_float_values_windowed_in_real_units(files):
    path = files / "scaled-float.nii"
    nib.save(nib.Nifti1Image(stored_values(SHAPE, np.int16, base=0), oblique_affine()), str(path))
    patch(path, 112, "<ff", 0.25, -3.0)
    real = nib.load(str(path)).get_fdata()
    run = zrslice("info", path)
    assert info_field(run.out, "values").startswith(f"{real.min():g} .. {real.max():g}"), run
    assert "float32 voxels" in info_field(run.out, "module"), run


U16 = "uint16 voxels holding value + "
SMALL_INTEGERS = [
    # stored type, smallest stored value, scl_slope and scl_inter (None: unset), the module's voxels
    (np.int8, -100, None, None, U16 + "1024"),
    (np.uint8, 0, None, None, "uint8 voxels holding value + 0"),
    (np.uint8, 0, 2.0, -100.0, U16 + "1024"),
    (np.int16, -1000, None, None, U16 + "1024"),
    (np.int16, 0, None, None, U16 + "0"),
    (np.int16, -30000, None, None, U16 + "32768"),
    (np.int16, -1000, -1.0, 0.0, U16 + "32768"),  # -3736 .. 1000
    (np.int16, -1000, 3.0, 0.0, U16 + "32768"),
    (np.int16, -1000, 40.0, 0.0, "float32 voxels"),  # too wide for 16 bits
    (np.uint16, 0, None, None, U16 + "0"),
    (np.uint16, 0, 2.0, -1024.0, U16 + "1024"),
]


@pytest.mark.parametrize("dtype, base, slope, inter, module", SMALL_INTEGERS,
                         ids=[f"{t.__name__}-from{b}-slope{s}" for t, b, s, _, _ in SMALL_INTEGERS])
def test_every_small_integer_type_and_integral_scaling_keeps_its_values(files, dtype, base, slope, inter, module):
    """8- and 16-bit voxels are read straight into the module's words and offset
    there; the real values must be nibabel's, the offset the smallest of 0, 1024
    and 32768 that fits them."""
    path = files / "typed.nii.gz"
    nib.save(nib.Nifti1Image(stored_values(SHAPE, dtype, base), oblique_affine()), str(path))
    if slope is not None:
        raw = gzip.decompress(path.read_bytes())
        path.write_bytes(gzip.compress(raw[:112] + struct.pack("<ff", slope, inter) + raw[120:]))
    real = nib.load(str(path)).get_fdata()
    # The value picture holds 16-bit words: float volumes are checked by their range.
    info = zrslice("info", path) if module.startswith("float") else assert_placed_as_nibabel_reads(files, path)
    assert info_field(info.out, "values").startswith(f"{real.min():g} .. {real.max():g}"), info
    assert info_field(info.out, "module").startswith(module), info


def test_a_4d_file_with_an_unset_slope_gives_the_chosen_time_point(files):
    path = files / "bold.nii.gz"
    frames = np.stack([stored_values(SHAPE) + 100 * t for t in range(4)], axis=-1)
    nib.save(nib.Nifti1Image(frames, oblique_affine()), str(path))  # nibabel leaves scl_slope NaN
    assert_placed_as_nibabel_reads(files, path, frame=2)
    run = zrslice("info", path)
    assert run.code == 0 and "4 time points" in run.out, run


def test_a_2d_file_lies_at_its_affine_z(files):
    path = files / "one-slice.nii"
    affine = np.diag([0.8, 0.8, 3.0, 1.0])
    affine[:3, 3] = [-10, 20, 37.5]
    nib.save(nib.Nifti1Image(stored_values((24, 20, 1))[..., 0], affine), str(path))
    image = nib.load(str(path))
    data = np.asarray(image.get_fdata())[..., None]
    lps = RAS_TO_LPS @ image.affine
    centre = lps @ np.array([11.5, 9.5, 0, 1])
    document = slice_document({"type": "volume", "file": str(path)}, centre=tuple(centre[:3]), extent=30)
    run, _, values, lists = render(files, document)
    assert run.code == 0, run
    expected = expected_values(document, lps, data)
    inside = ~np.isnan(expected)
    real = values.astype(float) - lists["volumes"]["v"]["valueOffset"]
    assert inside.sum() > 200 and np.abs(real[inside] - expected[inside]).max() <= 1.001


@pytest.mark.parametrize("offset, value", [(80, 0.0), (84, float("nan"))], ids=["zero", "nan"])
def test_a_bad_pixdim_beside_a_valid_sform_is_ignored_as_nibabel_does(files, offset, value):
    path = files / "bad-pixdim.nii"
    image = nib.Nifti1Image(stored_values(SHAPE), oblique_affine())
    image.set_qform(None, code=0)
    nib.save(image, str(path))
    patch(path, offset, "<f", value)
    assert_placed_as_nibabel_reads(files, path)


def write_nii(path):
    nib.save(nib.Nifti1Image(stored_values(SHAPE), np.eye(4)), str(path))


REFUSALS = [
    ("wrong-magic.nii", lambda p: (write_nii(p), patch(p, 344, "4s", b"xyz\0")), "without the NIfTI magic"),
    ("bad-dimension.nii", lambda p: (write_nii(p), patch(p, 42, "<h", 0)), "dim[1] is 0"),
    ("truncated.nii", lambda p: (write_nii(p), open(p, "r+b").truncate(900)), "is truncated"),
    ("truncated.nii.gz", lambda p: (write_nii(p + ".whole.nii"), open(p, "wb").write(
        gzip.compress(open(p + ".whole.nii", "rb").read())[:-400])), "truncated"),
    ("colour.nii", lambda p: nib.save(nib.Nifti1Image(np.zeros((4, 4, 4), [("R", "u1"), ("G", "u1"), ("B", "u1")]),
                                                      np.eye(4)), p), "colour (RGB) voxels"),
    ("vectors.nii", lambda p: nib.save(nib.Nifti1Image(np.zeros((4, 4, 4, 1, 3), np.float32), np.eye(4)), p),
     "3 values per voxel"),
    ("not-nifti.nii", lambda p: open(p, "wb").write(b"hello, this is text" * 30), "is not a NIfTI file"),
    ("bad-mgh.mgz", lambda p: open(p, "wb").write(gzip.compress(b"\0\0\0\2" + b"\0" * 300)),
     "version field is 2"),
]


@pytest.mark.parametrize("name, write, expected", REFUSALS, ids=[r[0] for r in REFUSALS])
def test_damaged_files_are_refused_in_one_line_of_ours(files, name, write, expected):
    path = files / name
    write(str(path))
    for command in (("info", path),
                    ("-q", "render", write_request(files, path), "-o", files / "out.png")):
        run = zrslice(*command)
        assert run.code == 1, run
        assert run.err.count("\n") == 1 and run.err.startswith(f"zrslice: {path}: "), run
        assert expected in run.err, run
        assert not (files / "out.png").exists()


def write_request(files, path):
    request = files / "request.json"
    request.write_text(json.dumps(slice_document({"type": "volume", "file": str(path)}, centre=(0, 0, 0))))
    return request


@pytest.mark.parametrize("frame, expected", [
    (None, "holds 4 time points; pick one with \"frame\": 0 .. 3"),
    (7, "\"frame\": 7 does not exist; the file holds 4 time points, 0 .. 3"),
])
def test_a_4d_file_needs_a_frame_that_exists(files, frame, expected):
    path = files / "bold.nii"
    nib.save(nib.Nifti1Image(np.zeros(SHAPE + (4,), np.int16), np.eye(4)), str(path))
    volume = {"type": "volume", "file": str(path)}
    if frame is not None:
        volume["frame"] = frame
    run, _, _, _ = render(files, slice_document(volume, centre=(0, 0, 0)))
    assert run.code == 1 and expected in run.err, run
