"""DICOM files as scanners and planning systems write them, made by pydicom
(Debian's 2.3) at test time, and the world position of every voxel they mean,
computed here from the attributes written (LPS millimetres).

A volume is a numpy array indexed (i, j, k): i along a row (the first three
numbers of ImageOrientationPatient), j down a column (the last three), k from
slice to slice. Voxel (i, j, k) lies at origin + i * sx * row + j * sy * col +
k * step, which is what the files say and what a reader must reproduce.
"""
import io

import numpy as np
from pydicom.dataset import Dataset, FileDataset, FileMetaDataset
from pydicom.encaps import encapsulate
from pydicom.sequence import Sequence
from pydicom.uid import (ExplicitVRBigEndian, ExplicitVRLittleEndian, ImplicitVRLittleEndian, JPEG2000Lossless,
                         RLELossless, generate_uid)

CT_IMAGE = "1.2.840.10008.5.1.4.1.1.2"
MR_IMAGE = "1.2.840.10008.5.1.4.1.1.4"
ENHANCED_CT = "1.2.840.10008.5.1.4.1.1.2.1"
RT_DOSE = "1.2.840.10008.5.1.4.1.1.481.2"
SEGMENTATION = "1.2.840.10008.5.1.4.1.1.66.4"
NUCLEAR_MEDICINE = "1.2.840.10008.5.1.4.1.1.20"
SECONDARY_CAPTURE = "1.2.840.10008.5.1.4.1.1.7"


class Grid:
    """Where the voxels of a volume lie: spacing (sx, sy) within a slice, and
    the step from one slice's first voxel to the next one's."""

    def __init__(self, origin=(0, 0, 0), row=(1, 0, 0), col=(0, 1, 0), spacing=(1.0, 1.0), step=(0, 0, 1)):
        self.origin = np.array(origin, float)
        self.row = np.array(row, float)
        self.col = np.array(col, float)
        self.spacing = np.array(spacing, float)
        self.step = np.array(step, float)

    def matrix(self):
        """Voxel (i, j, k) to world: 3 x 3 columns and the origin."""
        return np.column_stack([self.row * self.spacing[0], self.col * self.spacing[1], self.step])

    def world(self, ijk):
        return self.origin + np.asarray(ijk, float) @ self.matrix().T

    def voxel(self, world):
        """Voxel coordinates of world points (..., 3)."""
        return (np.asarray(world, float) - self.origin) @ np.linalg.inv(self.matrix()).T

    def position(self, k):
        return self.origin + k * self.step

    def world_of_all(self, dims):
        i, j, k = np.meshgrid(*[np.arange(d) for d in dims], indexing="ij")
        return self.world(np.stack([i, j, k], axis=-1))


def ramp(grid, dims, gradient=(20.0, 30.0, 40.0), base=1000.0):
    """Whole values of a linear function of the world position at every voxel:
    trilinear interpolation on any grid, sheared or not, gives the function
    itself, so a slice's values check the placement without our own code."""
    return np.rint(grid.world_of_all(dims) @ np.array(gradient) + base)


def new_dataset(sop_class=CT_IMAGE, syntax=ExplicitVRLittleEndian, modality="CT", series_uid=None, number=1,
                description="test series"):
    meta = FileMetaDataset()
    meta.MediaStorageSOPClassUID = sop_class
    meta.MediaStorageSOPInstanceUID = generate_uid()
    meta.TransferSyntaxUID = syntax
    ds = FileDataset("", {}, file_meta=meta, preamble=b"\0" * 128)
    ds.is_little_endian = syntax != ExplicitVRBigEndian
    ds.is_implicit_VR = syntax == ImplicitVRLittleEndian
    ds.SOPClassUID = sop_class
    ds.SOPInstanceUID = meta.MediaStorageSOPInstanceUID
    ds.StudyInstanceUID = "1.2.826.0.1.3680043.2.1125.1"
    ds.SeriesInstanceUID = series_uid or generate_uid()
    ds.Modality = modality
    if number is not None:
        ds.SeriesNumber = number
    if description:
        ds.SeriesDescription = description
    return ds


def set_pixels(ds, frames, bits=16, stored=None, signed=False, big_endian=False):
    """Stored values of one frame (rows, cols) or several (frames, rows, cols)."""
    frames = np.asarray(frames)
    ds.Rows, ds.Columns = frames.shape[-2:]
    ds.SamplesPerPixel = 1
    ds.PhotometricInterpretation = "MONOCHROME2"
    ds.BitsAllocated = bits
    ds.BitsStored = stored or bits
    ds.HighBit = ds.BitsStored - 1
    ds.PixelRepresentation = 1 if signed else 0
    if bits == 1:
        data = np.packbits(frames.astype(np.uint8).ravel(), bitorder="little").tobytes()
    else:
        kind = ("i" if signed else "u") + str(bits // 8)
        data = frames.astype((">" if big_endian else "<") + kind).tobytes()
    if len(data) % 2:
        data += b"\0"
    ds.PixelData = data
    ds["PixelData"].VR = "OB" if bits <= 8 else "OW"


def place(ds, position, grid):
    ds.ImagePositionPatient = [float(v) for v in position]
    ds.ImageOrientationPatient = [float(v) for v in np.concatenate([grid.row, grid.col])]
    ds.PixelSpacing = [float(grid.spacing[1]), float(grid.spacing[0])]  # between rows, then between columns


def compress_jpeg2000(ds):
    """JPEG 2000 lossless, one code stream per frame, written by Pillow's
    OpenJPEG encoder."""
    from PIL import Image

    frames = ds.pixel_array.reshape(-1, ds.Rows, ds.Columns)
    streams = []
    for frame in frames:
        stream = io.BytesIO()
        Image.fromarray(frame.astype(np.uint16), mode="I;16").save(stream, format="JPEG2000", irreversible=False,
                                                                     no_jp2=True)
        streams.append(stream.getvalue())
    ds.PixelData = encapsulate(streams)
    ds["PixelData"].VR = "OB"
    ds.file_meta.TransferSyntaxUID = JPEG2000Lossless


def save(ds, path, rle=False, jpeg2000=False):
    if rle:
        ds.compress(RLELossless)
    if jpeg2000:
        compress_jpeg2000(ds)
    ds.save_as(str(path), write_like_original=False)
    return path


def write_series(folder, volume, grid, syntax=ExplicitVRLittleEndian, bits=16, signed=False, slope=None,
                 intercept=None, window=None, thickness=None, series_uid=None, number=1, description="test series",
                 modality="CT", order=None, rle=False, jpeg2000=False, per_slice=None, skip=(), prefix="im"):
    """One file per slice k of `volume` (i, j, k), named so that a listing
    sorts them in `order` (default: the slices' own order). `per_slice` maps
    an attribute to a list of one value per slice. Returns the file paths."""
    folder.mkdir(parents=True, exist_ok=True)
    series_uid = series_uid or generate_uid()
    slices = list(range(volume.shape[2])) if order is None else list(order)
    paths = []
    for n, k in enumerate(slices):
        if k in skip:
            continue
        ds = new_dataset(MR_IMAGE if modality == "MR" else CT_IMAGE, syntax, modality, series_uid, number, description)
        ds.InstanceNumber = k + 1
        place(ds, grid.position(k), grid)
        if thickness is not None:
            ds.SliceThickness = thickness
        if slope is not None:
            ds.RescaleSlope = slope
            ds.RescaleIntercept = intercept or 0
        if window is not None:
            ds.WindowCenter, ds.WindowWidth = window
        for name, values in (per_slice or {}).items():
            setattr(ds, name, values[k])
        set_pixels(ds, volume[:, :, k].T, bits=bits, signed=signed, big_endian=syntax == ExplicitVRBigEndian)
        paths.append(save(ds, folder / f"{prefix}{n:04d}.dcm", rle=rle, jpeg2000=jpeg2000))
    return paths


def functional_group(**sequences):
    """A functional-group item: name -> Dataset of attributes."""
    item = Dataset()
    for name, attributes in sequences.items():
        inner = Dataset()
        for key, value in attributes.items():
            setattr(inner, key, value)
        setattr(item, name, Sequence([inner]))
    return item


def write_enhanced(path, volume, grid, order=None, sop_class=ENHANCED_CT, modality="CT", slope=1.0, intercept=0.0,
                   thickness=None, frame_content=None, syntax=ExplicitVRLittleEndian):
    """An enhanced multi-frame file: frame n is slice order[n], placed by its
    own functional group; orientation, spacing and rescale are shared."""
    order = list(range(volume.shape[2])) if order is None else list(order)
    ds = new_dataset(sop_class, syntax, modality)
    ds.NumberOfFrames = len(order)
    set_pixels(ds, np.stack([volume[:, :, k].T for k in order]))
    measures = {"PixelSpacing": [float(grid.spacing[1]), float(grid.spacing[0])]}
    if thickness is not None:
        measures["SliceThickness"] = thickness
    ds.SharedFunctionalGroupsSequence = Sequence([functional_group(
        PlaneOrientationSequence={"ImageOrientationPatient": [float(v) for v in np.concatenate([grid.row, grid.col])]},
        PixelMeasuresSequence=measures,
        PixelValueTransformationSequence={"RescaleSlope": slope, "RescaleIntercept": intercept,
                                          "RescaleType": "HU" if modality == "CT" else "US"})])
    frames = []
    for n, k in enumerate(order):
        groups = {"PlanePositionSequence": {"ImagePositionPatient": [float(v) for v in grid.position(k)]}}
        if frame_content:
            groups.update(frame_content(n, k))
        frames.append(functional_group(**groups))
    ds.PerFrameFunctionalGroupsSequence = Sequence(frames)
    return save(ds, path)


def write_legacy_multiframe(path, volume, grid, sop_class=CT_IMAGE, modality="CT", spacing_between=None, rle=False,
                            detector=False, bits=16):
    """A multi-frame file with one position: frame k lies k * SpacingBetweenSlices
    along the normal (NM files keep position and orientation in their
    detector information)."""
    ds = new_dataset(sop_class, ExplicitVRLittleEndian, modality)
    ds.NumberOfFrames = volume.shape[2]
    set_pixels(ds, np.stack([volume[:, :, k].T for k in range(volume.shape[2])]), bits=bits)
    place(ds, grid.position(0), grid)
    if detector:
        item = Dataset()
        item.ImagePositionPatient = ds.ImagePositionPatient
        item.ImageOrientationPatient = ds.ImageOrientationPatient
        ds.DetectorInformationSequence = Sequence([item])
        del ds.ImagePositionPatient
        del ds.ImageOrientationPatient
    if spacing_between is not None:
        ds.SpacingBetweenSlices = spacing_between
    return save(ds, path, rle=rle)


def write_dose(path, dose_gy, grid, scaling=1e-4, offsets=None, syntax=ExplicitVRLittleEndian, frames=None):
    """An RT dose: 32-bit unsigned stored values, DoseGridScaling in Gy per
    unit, frames placed by GridFrameOffsetVector (relative to the first)."""
    stored = np.rint(dose_gy / scaling).astype(np.uint32)
    ds = new_dataset(RT_DOSE, syntax, "RTDOSE")
    n = stored.shape[2] if frames is None else frames
    ds.NumberOfFrames = n
    set_pixels(ds, np.stack([stored[:, :, k].T for k in range(n)]), bits=32,
               big_endian=syntax == ExplicitVRBigEndian)
    place(ds, grid.position(0), grid)
    ds.GridFrameOffsetVector = (list(offsets) if offsets is not None
                                else [float(np.dot(grid.step, np.cross(grid.row, grid.col)) * k) for k in range(n)])
    ds.FrameIncrementPointer = 0x3004000C
    ds.DoseGridScaling = scaling
    ds.DoseUnits = "GY"
    ds.DoseType = "PHYSICAL"
    ds.DoseSummationType = "PLAN"
    return save(ds, path), stored * scaling


def rewrite_text(path, tag, vr, old, new):
    """Replaces the text of an attribute of an explicit little-endian file by
    text of the same length (values pydicom refuses to write, such as
    NumberOfFrames "1A")."""
    data = path.read_bytes()
    group, element = tag
    header = group.to_bytes(2, "little") + element.to_bytes(2, "little") + vr
    at = data.index(header + len(old).to_bytes(2, "little") + old)
    data = data[:at + 8] + new + data[at + 8 + len(old):]
    path.write_bytes(data)
