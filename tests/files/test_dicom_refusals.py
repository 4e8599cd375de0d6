"""DICOM input that would give a wrong or misplaced picture is refused in one
line of ours, by `info` and by `render`, with exit code 1 and nothing
written; library text stays off the terminal."""
import io
import shutil

import numpy as np
import pydicom
import pytest

from conftest import render, slice_document, zrslice
from dicom_writer import (SECONDARY_CAPTURE, Grid, new_dataset, place, save, set_pixels, rewrite_text, write_dose,
                          write_legacy_multiframe, write_series)

GRID = Grid((-10, -8, 20), spacing=(1.0, 1.0), step=(0, 0, 2.5))


def volume(dims=(16, 12, 6)):
    return np.arange(np.prod(dims)).reshape(dims) % 500 + 100


def slice_missing(files):
    write_series(files / "series", volume(), GRID, skip={3})
    return files / "series"


def frames_written_as(text):
    def make(files):
        path = write_legacy_multiframe(files / "multi.dcm", volume((16, 12, 15)), GRID, spacing_between=2.5)
        rewrite_text(path, (0x0028, 0x0008), b"IS", b"15", text)
        return path
    return make


def frames_not_given(files):
    path = write_legacy_multiframe(files / "multi.dcm", volume((16, 12, 15)), GRID, spacing_between=2.5)
    ds = pydicom.dcmread(str(path))
    del ds.NumberOfFrames
    ds.save_as(str(path))
    return path


def pixel_data_short_by(count):
    def make(files):
        path = write_series(files / "one", volume((16, 12, 1)), GRID)[0]
        ds = pydicom.dcmread(str(path))
        ds.PixelData = ds.PixelData[:-count]
        ds.save_as(str(path))
        return path
    return make


def file_cut_short(files):
    path = write_series(files / "one", volume((16, 12, 1)), GRID)[0]
    path.write_bytes(path.read_bytes()[:-62])
    return path


def dose_offsets_beyond_frames(files):
    # One frame, five offsets: GDCM's own reader asserts on this.
    path, _ = write_dose(files / "dose.dcm", np.ones((8, 8, 1)), GRID, offsets=[0, 2.5, 5, 7.5, 10], frames=1)
    return path


def same_image_twice(files):
    paths = write_series(files / "series", volume(), GRID)
    shutil.copy(paths[2], files / "series" / "copy-of-im0002.dcm")
    return files / "series"


def colour_image(files):
    ds = new_dataset(SECONDARY_CAPTURE, modality="OT")
    place(ds, (0, 0, 0), GRID)
    set_pixels(ds, np.zeros((4, 4, 3)), bits=8)
    ds.Rows, ds.Columns, ds.SamplesPerPixel, ds.PhotometricInterpretation = 4, 4, 3, "RGB"
    ds.PlanarConfiguration = 0
    ds.PixelData = bytes(48)
    return save(ds, files / "photo.dcm")


def no_position(files):
    ds = new_dataset(SECONDARY_CAPTURE, modality="OT")
    set_pixels(ds, np.zeros((4, 4)), bits=8)
    ds.PixelSpacing = [1, 1]
    return save(ds, files / "capture.dcm")


def no_dicom_at_all(files):
    folder = files / "empty"
    folder.mkdir()
    (folder / "notes.txt").write_text("nothing here\n")
    return folder


def multiframe_without_spacing(files):
    return write_legacy_multiframe(files / "multi.dcm", volume((16, 12, 4)), GRID)


def broken_rle(files):
    path = write_series(files / "one", volume((16, 12, 1)), GRID, rle=True)[0]
    ds = pydicom.dcmread(str(path))
    fragments = pydicom.encaps.decode_data_sequence(ds.PixelData)
    ds.PixelData = pydicom.encaps.encapsulate([fragments[0][:70]])
    ds.save_as(str(path))
    return path


def jpeg2000_stream(make_stream):
    def make(files):
        path = write_series(files / "one", volume((16, 12, 1)), GRID, jpeg2000=True)[0]
        ds = pydicom.dcmread(str(path))
        ds.PixelData = pydicom.encaps.encapsulate([make_stream(pydicom.encaps.decode_data_sequence(ds.PixelData)[0])])
        ds.save_as(str(path))
        return path
    return make


def jpeg2000_of_another_size(stream):
    # GDCM's codec asserts when the code stream's image is larger than the header's.
    from PIL import Image
    out = io.BytesIO()
    Image.fromarray(np.zeros((40, 30), np.uint16), mode="I;16").save(out, format="JPEG2000", irreversible=False,
                                                                        no_jp2=True)
    return out.getvalue()


def corrupted(find, replace):
    """A written slice with bytes replaced, as a broken disk or transfer leaves it."""
    def make(files):
        path = write_series(files / "one", volume((16, 12, 1)), GRID, description="broken")[0]
        data = path.read_bytes()
        at = data.index(find)
        path.write_bytes(data[:at] + replace + data[at + len(replace):])
        return path
    return make


REFUSALS = [
    ("slice missing", slice_missing,
     "slices are not evenly spaced: 2.5 mm apart, but 5 mm between the slices at (-10, -8, 25) and (-10, -8, 30)"),
    ("NumberOfFrames 1A", frames_written_as(b"1A"),
     'NumberOfFrames "1A" is not a whole number; its pixel data holds 15 frames of 16 x 12 x 16 bits'),
    ("NumberOfFrames absent over 15 frames", frames_not_given,
     "NumberOfFrames is absent (1); its pixel data holds 15 frames"),
    ("NumberOfFrames 01 over 15 frames", frames_written_as(b"01"), "NumberOfFrames is 01; its pixel data holds 15 frames"),
    ("pixel data short by 62 bytes", pixel_data_short_by(62),
     "pixel data holds 322 bytes; 1 frame of 16 x 12 x 16 bits need 384"),
    ("file cut short", file_cut_short, "file is cut short: 322 bytes of pixel data are left"),
    ("GridFrameOffsetVector longer than the frames", dose_offsets_beyond_frames,
     "GridFrameOffsetVector lists 5 offsets for 1 frame"),
    ("the same image twice", same_image_twice, "nothing tells them apart"),
    ("colour image", colour_image, "holds colour images (RGB)"),
    ("no position", no_position, "cannot be placed in the patient"),
    ("no DICOM image", no_dicom_at_all, "holds no DICOM image that makes a volume"),
    ("multi-frame without spacing", multiframe_without_spacing, "no spacing between its 4 frames"),
    ("broken RLE", broken_rle, "RLE data of frame 1"),
    ("JPEG 2000 of another size", jpeg2000_stream(jpeg2000_of_another_size),
     "frame 1's JPEG 2000 stream holds 30 x 40 pixels of 1 component(s) at 16 bits; the header says 16 x 12"),
    ("JPEG 2000 not a code stream", jpeg2000_stream(lambda stream: bytes(range(256)) * 2),
     "frame 1's JPEG 2000 stream has no image header"),
    # GDCM's parser asserts on both.
    ("meta information broken", corrupted(b"\x02\x00\x10\x00UI", b"\x02\x00\x10\x00U\x01"),
     "is not well-formed DICOM: file meta element (0002,0010) at byte"),
    ("element longer than the file", corrupted(b"\x08\x00\x3e\x10LO\x06\x00", b"\x08\x00\x3e\x10LO\xf0\xff"),
     "is not well-formed DICOM: element (0008,103e) at byte"),
    ("JPEG 2000 cut short", jpeg2000_stream(lambda stream: stream[:len(stream) // 2]), "cannot decode frame 1"),
]


@pytest.mark.parametrize("name, make, expected", REFUSALS, ids=[r[0] for r in REFUSALS])
def test_input_that_would_be_misread_is_refused_in_one_line(files, name, make, expected):
    path = make(files)
    for run in (zrslice("info", path),
                render(files, slice_document({"type": "volume", "file": str(path)}, centre=(0, 0, 25)))[0]):
        assert run.code == 1, run
        assert run.err.count("\n") == 1 and run.err.startswith(f"zrslice: {path}"), run
        assert expected in run.err, run
        assert "gdcm" not in run.err.lower() and "warning" not in run.err.lower()
    assert not (files / "out.png").exists()
