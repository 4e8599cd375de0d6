// The stored values of a DICOM image file's frames.
//
// Uncompressed data is read from the file at the offset its header scan
// found, in the file's byte order whatever the bit depth (a 32-bit dose in a
// big-endian file comes out whole, not with its 16-bit halves swapped).
// RLE is decoded here, with every run checked against the frame's size; other
// compressed transfer syntaxes (JPEG, JPEG-LS, JPEG 2000) go through GDCM's
// codecs one frame at a time. 1-bit voxels become bytes of 0 and 1, and
// voxels stored in fewer bits than allocated are masked and sign-extended.
#pragma once

#include <cstdint>
#include <vector>

#include "dicom_header.h"

namespace zrio::dicom {

// Every frame of `file` one after another (rows x columns each, x fastest),
// each voxel in VoxelBytes(storage) bytes of this machine's order: 1 for 1-
// and 8-bit data, else BitsAllocated / 8, signed as the file says. Throws
// InputError naming the file when the data cannot be decoded.
std::vector<unsigned char> ReadStoredFrames(const DicomImageFile& file);

int VoxelBytes(const PixelStorage& storage);

}  // namespace zrio::dicom
