// The header of one DICOM image file, read without its pixel data: how the
// voxels are stored and where each of its frames lies in LPS world space.
//
// Every frame is placed by a position of its own: a single-frame file by its
// ImagePositionPatient; an enhanced multi-frame file by the position in each
// frame's functional groups; a legacy multi-frame file by its one position
// plus the frame index times SpacingBetweenSlices along the normal; an RT dose
// by its position plus its GridFrameOffsetVector. What tells frames at the
// same position apart (echo, time point, acquisition, stack, segment) is kept
// with each frame, so that a series can be split into its volumes.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include <glm/glm.hpp>

namespace zrio::dicom {

// How the pixel data is stored.
struct PixelStorage {
    int rows = 0, columns = 0, frames = 1;
    int samplesPerPixel = 1;
    std::string photometric;
    int bitsAllocated = 0, bitsStored = 0, highBit = 0;
    bool isSigned = false;
    std::string transferSyntax;  // UID
    bool bigEndian = false;
    bool encapsulated = false;  // compressed, in fragments
    bool deflated = false;      // the whole data set is deflated
    // Native data: where the pixel values start in the file, how many bytes
    // the header declares and how many the file holds from there on.
    uint64_t valueOffset = 0, declaredBytes = 0, bytesInFile = 0;

    // Bytes of native pixel data that rows x columns x frames need.
    uint64_t NativeBytes() const;
};

// What may tell images at the same position apart, in the order a series is
// split by them; the text is the value as written (empty when absent).
enum SplitKey { kEcho, kTime, kTrigger, kAcquisition, kStack, kSegment, kSplitKeys };
const char* SplitKeyName(SplitKey key);  // "echo", "time", ...

// One 2-D image: the only frame of a file or one frame of a multi-frame file.
struct DicomFrame {
    size_t file = 0;  // index into the scanned files
    int index = 0;    // frame within its file
    glm::dvec3 position{0.0};  // centre of the first voxel, LPS mm
    glm::dvec3 rowDirection{1, 0, 0}, columnDirection{0, 1, 0};  // along a row (x), down a column (y)
    glm::dvec2 pixelSpacing{1.0};  // between columns (x), between rows (y)
    double thickness = 0.0;        // SliceThickness, 0 when not given
    double slope = 1.0, intercept = 0.0;
    std::optional<glm::dvec2> window;  // centre, width in real values
    std::array<std::string, kSplitKeys> keys;
};

struct DicomImageFile {
    std::string path;
    std::string modality, seriesUid, seriesDescription, seriesNumber;
    PixelStorage storage;
    std::string units;  // "HU", "Gy", ... or empty
    // How the frames were placed, e.g. "per-frame image positions".
    std::string placement;
    // What a user must hear whenever this file's volume is used (a spacing
    // taken from a less reliable attribute); said on standard error.
    std::vector<std::string> warnings;
    std::vector<std::string> notes;
    std::vector<DicomFrame> frames;
};

enum class HeaderResult { Image, NotDicom, NotVolumeImage };

// Reads the header of `path`. Returns NotDicom for a file that is not DICOM
// (a file with the DICM mark whose structure is broken is refused instead)
// and NotVolumeImage for a DICOM file that holds no image placed in the
// patient (a report, a structure set, a radiograph without a position),
// which a folder scan leaves aside. Throws InputError naming the file, in one
// line, for an image whose header cannot be trusted.
HeaderResult ReadDicomHeader(const std::string& path, DicomImageFile& file, std::string& whyNotVolume);

// True when the first bytes of `path` look like DICOM (the DICM mark after
// the preamble, or a data set that starts with a group 0002 or 0008 tag).
bool LooksLikeDicom(const std::string& path);

}  // namespace zrio::dicom
