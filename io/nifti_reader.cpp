// NIfTI-1 and NIfTI-2, single files (.nii, .nii.gz) and header/image pairs
// (.hdr/.img), by the format's own rules as nibabel reads them:
// - placement: the sform whenever its code is non-zero, else the qform, else
//   pixdim alone (centred on the grid, x flipped, the Analyze convention that
//   nibabel keeps); a non-orthogonal sform is a sheared grid, placed exactly;
// - values: scl_slope and scl_inter apply to every data type; a slope of 0 or
//   not-a-number means no scaling;
// - 4-D files: one time point, chosen by the request's "frame".
// The header is a fixed record of 348 (NIfTI-1) or 540 (NIfTI-2) bytes, read
// here rather than through a toolkit whose orientation policy refuses grids
// the format allows.
#include <algorithm>
#include <cctype>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <optional>

#include "byte_source.h"
#include "grid_placement.h"
#include "input_error.h"
#include "packed_frames.h"
#include "volume_readers.h"

namespace zrio {

namespace {

namespace fs = std::filesystem;

constexpr int kHeader1Bytes = 348;
constexpr int kHeader2Bytes = 540;

struct NiftiHeader {
    int version = 1;
    bool bigEndian = false;
    bool pair = false;  // header and voxels in two files
    int64_t dim[8] = {};
    int datatype = 0;
    double pixdim[8] = {};
    double voxOffset = 0.0;
    double sclSlope = 0.0, sclInter = 0.0;
    double calMin = 0.0, calMax = 0.0;
    int qformCode = 0, sformCode = 0;
    double quatern[3] = {}, qoffset[3] = {};
    double srow[3][4] = {};
    int xyztUnits = 0;
};

std::string Lower(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(), [](unsigned char c) { return std::tolower(c); });
    return text;
}

bool EndsWith(const std::string& text, const std::string& suffix) {
    return text.size() >= suffix.size() && text.compare(text.size() - suffix.size(), suffix.size(), suffix) == 0;
}

// The path with its NIfTI extension (".nii", ".hdr", ".img", each maybe with
// ".gz") replaced by `extension` (keeping ".gz" when `keepGz`).
std::optional<std::string> Sibling(const std::string& path, const std::string& from, const std::string& to) {
    const std::string lower = Lower(path);
    for (const std::string gz : {"", ".gz"}) {
        if (!EndsWith(lower, from + gz)) continue;
        const std::string stem = path.substr(0, path.size() - from.size() - gz.size());
        for (const std::string& candidate : {stem + to + gz, stem + to, stem + to + ".gz"}) {
            std::error_code ec;
            if (fs::is_regular_file(candidate, ec)) return candidate;
        }
        return stem + to + gz;
    }
    return std::nullopt;
}

template <class T>
T Field(const unsigned char* header, size_t offset, bool swap) {
    T value;
    std::memcpy(&value, header + offset, sizeof(T));
    if (swap) SwapBytes(&value, 1, sizeof(T));
    return value;
}

NiftiHeader ParseHeader(const std::string& path) {
    ByteSource source(path);
    unsigned char h[kHeader2Bytes] = {};
    const uint64_t got = source.ReadSome(h, sizeof(int32_t));
    if (got < sizeof(int32_t)) throw InputError(path, "is too short to hold a NIfTI header");
    int32_t size = Field<int32_t>(h, 0, false);
    bool swap = false;
    if (size != kHeader1Bytes && size != kHeader2Bytes) {
        swap = true;
        size = Field<int32_t>(h, 0, true);
    }
    if (size != kHeader1Bytes && size != kHeader2Bytes)
        throw InputError(path, "is not a NIfTI file: its first four bytes give a header size of " +
                                   std::to_string(Field<int32_t>(h, 0, false)) + ", not 348 (NIfTI-1) or 540 (NIfTI-2)");
    source.ReadExactly(h + 4, static_cast<uint64_t>(size) - 4, "the NIfTI header");

    NiftiHeader n;
    n.bigEndian = swap != (std::endian::native == std::endian::big);
    if (size == kHeader1Bytes) {
        n.version = 1;
        const char* magic = reinterpret_cast<const char*>(h + 344);
        if (std::memcmp(magic, "n+1", 4) == 0)
            n.pair = false;
        else if (std::memcmp(magic, "ni1", 4) == 0)
            n.pair = true;
        else
            throw InputError(path, "has a 348-byte header without the NIfTI magic (\"n+1\" or \"ni1\"): an Analyze "
                                   "7.5 file or a damaged NIfTI file, whose placement in the world is unknown; "
                                   "convert it to NIfTI with its orientation");
        for (int k = 0; k < 8; ++k) n.dim[k] = Field<int16_t>(h, 40 + 2 * k, swap);
        n.datatype = Field<int16_t>(h, 70, swap);
        for (int k = 0; k < 8; ++k) n.pixdim[k] = Field<float>(h, 76 + 4 * k, swap);
        n.voxOffset = Field<float>(h, 108, swap);
        n.sclSlope = Field<float>(h, 112, swap);
        n.sclInter = Field<float>(h, 116, swap);
        n.xyztUnits = h[123];
        n.calMax = Field<float>(h, 124, swap);
        n.calMin = Field<float>(h, 128, swap);
        n.qformCode = Field<int16_t>(h, 252, swap);
        n.sformCode = Field<int16_t>(h, 254, swap);
        for (int k = 0; k < 3; ++k) {
            n.quatern[k] = Field<float>(h, 256 + 4 * k, swap);
            n.qoffset[k] = Field<float>(h, 268 + 4 * k, swap);
            for (int c = 0; c < 4; ++c) n.srow[k][c] = Field<float>(h, 280 + 16 * k + 4 * c, swap);
        }
    } else {
        n.version = 2;
        const char* magic = reinterpret_cast<const char*>(h + 4);
        if (std::memcmp(magic, "n+2\0\r\n\032\n", 8) == 0)
            n.pair = false;
        else if (std::memcmp(magic, "ni2\0\r\n\032\n", 8) == 0)
            n.pair = true;
        else
            throw InputError(path, "has a 540-byte header without the NIfTI-2 magic: a damaged NIfTI-2 file");
        n.datatype = Field<int16_t>(h, 12, swap);
        for (int k = 0; k < 8; ++k) n.dim[k] = Field<int64_t>(h, 16 + 8 * k, swap);
        for (int k = 0; k < 8; ++k) n.pixdim[k] = Field<double>(h, 104 + 8 * k, swap);
        n.voxOffset = static_cast<double>(Field<int64_t>(h, 168, swap));
        n.sclSlope = Field<double>(h, 176, swap);
        n.sclInter = Field<double>(h, 184, swap);
        n.calMax = Field<double>(h, 192, swap);
        n.calMin = Field<double>(h, 200, swap);
        n.qformCode = Field<int32_t>(h, 344, swap);
        n.sformCode = Field<int32_t>(h, 348, swap);
        for (int k = 0; k < 3; ++k) {
            n.quatern[k] = Field<double>(h, 352 + 8 * k, swap);
            n.qoffset[k] = Field<double>(h, 376 + 8 * k, swap);
            for (int c = 0; c < 4; ++c) n.srow[k][c] = Field<double>(h, 400 + 32 * k + 8 * c, swap);
        }
        n.xyztUnits = Field<int32_t>(h, 500, swap);
    }
    return n;
}

std::optional<StoredType> StoredTypeOf(int datatype) {
    switch (datatype) {
        case 2: return StoredType::UInt8;
        case 4: return StoredType::Int16;
        case 8: return StoredType::Int32;
        case 16: return StoredType::Float32;
        case 64: return StoredType::Float64;
        case 256: return StoredType::Int8;
        case 512: return StoredType::UInt16;
        case 768: return StoredType::UInt32;
        case 1024: return StoredType::Int64;
        case 1280: return StoredType::UInt64;
        default: return std::nullopt;
    }
}

std::string DatatypeRefusal(int datatype) {
    switch (datatype) {
        case 128:
        case 2304: return "stores colour (RGB) voxels; only scalar volumes can be drawn";
        case 32:
        case 1792:
        case 2048: return "stores complex voxels; only real scalar volumes can be drawn";
        case 1536: return "stores 128-bit floats, which this program cannot read";
        case 1: return "stores 1-bit voxels, which this program cannot read";
        default: return "has datatype code " + std::to_string(datatype) + ", which is not a NIfTI voxel type";
    }
}

const char* CodeMeaning(int code) {
    switch (code) {
        case 1: return "scanner";
        case 2: return "aligned to another file";
        case 3: return "Talairach";
        case 4: return "MNI 152";
        case 5: return "template";
        default: return "unknown meaning";
    }
}

std::string Text(const std::string& format, double a, double b = 0.0) {
    char text[300];
    std::snprintf(text, sizeof(text), format.c_str(), a, b);
    return text;
}

// The qform's voxel-to-RAS matrix: rotation from the quaternion, voxel sizes
// from pixdim, the last axis flipped by qfac.
glm::dmat4 QformMatrix(const NiftiHeader& n, const std::string& path) {
    double b = n.quatern[0], c = n.quatern[1], d = n.quatern[2];
    double a2 = 1.0 - (b * b + c * c + d * d);
    double a = 0.0;
    if (a2 < 1e-7) {
        // A 180-degree rotation: (b, c, d) is the axis and must be a unit vector.
        const double norm = std::sqrt(b * b + c * c + d * d);
        b /= norm, c /= norm, d /= norm;
    } else {
        a = std::sqrt(a2);
    }
    const double qfac = n.pixdim[0] < 0.0 ? -1.0 : 1.0;
    double size[3];
    for (int axis = 0; axis < 3; ++axis) {
        size[axis] = n.pixdim[axis + 1];
        if (!(size[axis] > 0.0) || !std::isfinite(size[axis]))
            throw InputError(path, "pixdim[" + std::to_string(axis + 1) + "] is " + Text("%g", size[axis]) +
                                       ": the qform needs positive voxel sizes");
    }
    size[2] *= qfac;
    const double r[3][3] = {{a * a + b * b - c * c - d * d, 2 * (b * c - a * d), 2 * (b * d + a * c)},
                            {2 * (b * c + a * d), a * a + c * c - b * b - d * d, 2 * (c * d - a * b)},
                            {2 * (b * d - a * c), 2 * (c * d + a * b), a * a + d * d - c * c - b * b}};
    glm::dmat4 m(1.0);
    for (int row = 0; row < 3; ++row) {
        for (int column = 0; column < 3; ++column) m[column][row] = r[row][column] * size[column];
        m[3][row] = n.qoffset[row];
    }
    return m;
}

glm::dmat4 SformMatrix(const NiftiHeader& n) {
    glm::dmat4 m(1.0);
    for (int row = 0; row < 3; ++row)
        for (int column = 0; column < 4; ++column) m[column][row] = n.srow[row][column];
    return m;
}

// Without either transform: pixdim alone, centred on the grid with x flipped.
glm::dmat4 PixdimMatrix(const NiftiHeader& n, const glm::ivec3& dims, const std::string& path) {
    glm::dmat4 m(1.0);
    for (int axis = 0; axis < 3; ++axis) {
        double size = axis < n.dim[0] ? n.pixdim[axis + 1] : 1.0;
        if (!(size > 0.0) || !std::isfinite(size))
            throw InputError(path, "has no sform or qform and pixdim[" + std::to_string(axis + 1) + "] is " +
                                       Text("%g", size) + ": nothing gives the voxel size");
        if (axis == 0) size = -size;
        m[axis][axis] = size;
        m[3][axis] = -(dims[axis] - 1) / 2.0 * size;
    }
    return m;
}

struct NiftiFile {
    NiftiHeader header;
    PackedFrames packed;
    VolumeFileInfo info;
};

NiftiFile Describe(const std::string& path) {
    NiftiFile file;
    std::string headerPath = path;
    if (const auto header = Sibling(path, ".img", ".hdr")) headerPath = *header;
    NiftiHeader& n = file.header = ParseHeader(headerPath);
    PackedFrames& packed = file.packed;
    packed.frameName = "time point";
    packed.bigEndian = n.bigEndian;
    packed.dataPath = headerPath;
    if (n.pair) {
        const auto data = Sibling(headerPath, ".hdr", ".img");
        if (!data) throw InputError(path, "is the header of a .hdr/.img pair but is not named .hdr");
        packed.dataPath = *data;
        std::error_code ec;
        if (!fs::is_regular_file(packed.dataPath, ec))
            throw InputError(path, "is the header of a pair; its voxel file " + packed.dataPath + " is missing");
    }
    VolumeFileInfo& info = file.info;
    info.format = n.version == 1 ? "NIfTI-1" : "NIfTI-2";
    if (n.pair) info.format += " (.hdr/.img pair)";

    // Dimensions: dim[0] axes, the fourth is time, the fifth a vector per voxel.
    const int64_t rank = n.dim[0];
    if (rank < 1 || rank > 7)
        throw InputError(path, "dim[0] is " + std::to_string(rank) + "; a NIfTI image has 1 to 7 dimensions");
    for (int k = 1; k <= rank; ++k)
        if (n.dim[k] < 1)
            throw InputError(path, "dim[" + std::to_string(k) + "] is " + std::to_string(n.dim[k]) +
                                       "; every dimension must hold at least one voxel");
    auto extent = [&](int k) { return k <= rank ? n.dim[k] : int64_t{1}; };
    for (int axis = 0; axis < 3; ++axis) {
        if (extent(axis + 1) > 65536)
            throw InputError(path, "axis " + std::to_string(axis) + " has " + std::to_string(extent(axis + 1)) +
                                       " voxels, more than this program can hold");
        info.dims[axis] = static_cast<int>(extent(axis + 1));
    }
    packed.frames = extent(4);
    if (extent(5) > 1)
        throw InputError(path, "holds " + std::to_string(extent(5)) +
                                   " values per voxel (a vector or tensor image); only scalar volumes can be drawn");
    if (extent(6) > 1 || extent(7) > 1)
        throw InputError(path, "holds a " + std::to_string(rank) + "-D image; only 3-D volumes and 4-D series of them can be drawn");
    info.frames = static_cast<int>(std::min<int64_t>(packed.frames, 1 << 30));

    const auto type = StoredTypeOf(n.datatype);
    if (!type) throw InputError(path, DatatypeRefusal(n.datatype));
    packed.type = *type;
    info.componentType = StoredTypeName(packed.type);

    // Voxel data offset and, for an uncompressed file, whether it is all there.
    const int headerBytes = n.version == 1 ? kHeader1Bytes : kHeader2Bytes;
    if (!std::isfinite(n.voxOffset) || n.voxOffset < 0.0 || n.voxOffset != std::floor(n.voxOffset))
        throw InputError(path, "vox_offset is " + Text("%g", n.voxOffset) + ", not a byte offset");
    packed.dataOffset = static_cast<uint64_t>(n.voxOffset);
    // A single file's voxels follow the header and its 4 extension bytes.
    if (!n.pair) packed.dataOffset = std::max<uint64_t>(packed.dataOffset, static_cast<uint64_t>(headerBytes) + 4);
    const uint64_t frameBytes =
        static_cast<uint64_t>(info.dims.x) * info.dims.y * info.dims.z * StoredTypeBytes(packed.type);
    {
        ByteSource data(packed.dataPath);
        const uint64_t needed = packed.dataOffset + frameBytes * static_cast<uint64_t>(packed.frames);
        if (!data.Compressed() && data.FileBytes() < needed)
            throw InputError(packed.dataPath, "is truncated: it holds " + std::to_string(data.FileBytes()) +
                                                  " bytes, its header needs " + std::to_string(needed) + " (" +
                                                  std::to_string(packed.dataOffset) + " before the voxels)");
    }

    // Values: slope 0 or not-a-number means no scaling.
    if (std::isinf(n.sclSlope)) throw InputError(path, "scl_slope is infinite");
    if (n.sclSlope != 0.0 && !std::isnan(n.sclSlope)) {
        info.slope = n.sclSlope;
        info.intercept = std::isfinite(n.sclInter) ? n.sclInter : 0.0;
    }
    if (std::isfinite(n.calMin) && std::isfinite(n.calMax) && n.calMax > n.calMin)
        info.window = glm::dvec2((n.calMin + n.calMax) / 2.0, n.calMax - n.calMin);

    // Placement.
    glm::dmat4 voxelToRas;
    if (n.sformCode != 0) {
        voxelToRas = SformMatrix(n);
        info.placement = "sform (code " + std::to_string(n.sformCode) + ": " + CodeMeaning(n.sformCode) + ")";
        if (n.qformCode != 0) {
            // The qform may lack usable voxel sizes; it is only compared here.
            try {
                const glm::dmat4 qform = QformMatrix(n, path);
                const double apart = LargestCornerDistance(voxelToRas, qform, info.dims);
                double smallest = 1e300;
                for (int axis = 0; axis < 3; ++axis)
                    smallest = std::min(smallest, glm::length(glm::dvec3(voxelToRas[axis])));
                if (apart > 0.1 * smallest)
                    info.notes.push_back(Text("the qform (code " + std::to_string(n.qformCode) + ": " +
                                                  CodeMeaning(n.qformCode) +
                                                  ") puts the grid up to %.3g mm (%.3g voxels) elsewhere; placed by "
                                                  "the sform, as nibabel, FSL and SPM do",
                                              apart, apart / smallest));
            } catch (const InputError&) {
            }
        }
    } else if (n.qformCode != 0) {
        voxelToRas = QformMatrix(n, path);
        info.placement = "qform (code " + std::to_string(n.qformCode) + ": " + CodeMeaning(n.qformCode) + ")";
    } else {
        voxelToRas = PixdimMatrix(n, info.dims, path);
        info.placement = "pixdim only (no sform or qform): centred on the grid, x flipped, as nibabel places it";
    }
    info.geometry = GeometryFromMatrix(RasToLps(voxelToRas), path, info.notes);
    const int spatialUnits = n.xyztUnits & 7;
    if (spatialUnits == 1 || spatialUnits == 3)
        info.notes.push_back(std::string("the header gives the spatial unit as ") +
                             (spatialUnits == 1 ? "metres" : "micrometres") +
                             "; the numbers are taken as millimetres, as nibabel does");
    return file;
}

}  // namespace

bool IsNiftiFile(const std::string& path) {
    const std::string lower = Lower(path);
    for (const char* extension : {".nii", ".nii.gz", ".hdr", ".hdr.gz", ".img", ".img.gz"})
        if (EndsWith(lower, extension)) return true;
    return false;
}

VolumeFileInfo ReadNiftiInfo(const std::string& path, const VolumeChoice& choice) {
    NiftiFile file = Describe(path);
    return ChooseFrameInfo(file.packed, std::move(file.info), choice, path);
}

VoxelGrid ReadNiftiGrid(const std::string& path, const VolumeChoice& choice, VolumeFileInfo& info) {
    NiftiFile file = Describe(path);
    return ReadChosenFrame(file.packed, std::move(file.info), choice, path, info);
}

LoadedVolume ReadNiftiVolume(const std::string& path, const VolumeChoice& choice, VolumeFileInfo& info,
                             LoadProgress* progress) {
    NiftiFile file = Describe(path);
    return ReadChosenVolume(file.packed, std::move(file.info), choice, path, info, progress);
}

}  // namespace zrio
