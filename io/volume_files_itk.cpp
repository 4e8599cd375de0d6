// The only file that includes ITK: image files through ITK's readers, with the
// IO factories registered by hand so that only the formats we link are known.
#include <algorithm>
#include <cctype>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <span>
#include <vector>

#include <itkImage.h>
#include <itkImageFileReader.h>
#include <itkImageIOFactory.h>
#include <itkMetaImageIOFactory.h>
#include <itkNiftiImageIOFactory.h>
#include <itkNrrdImageIOFactory.h>

#include "input_error.h"
#include "volume_files.h"
#include "volume_readers.h"

namespace zrio {

namespace {

namespace fs = std::filesystem;

void RegisterFactories() {
    static std::once_flag once;
    std::call_once(once, [] {
        itk::NiftiImageIOFactory::RegisterOneFactory();
        itk::NrrdImageIOFactory::RegisterOneFactory();
        itk::MetaImageIOFactory::RegisterOneFactory();
    });
}

std::string FormatName(const itk::ImageIOBase& io) {
    const std::string name = io.GetNameOfClass();
    if (name == "NiftiImageIO") return "NIfTI";
    if (name == "NrrdImageIO") return "NRRD";
    if (name == "MetaImageIO") return "MetaImage";
    return name;
}

template <class Image>
zrobjects::VolumeGeometry GeometryOf(const Image& image, const std::string& path) {
    zrobjects::VolumeGeometry geometry;
    const auto spacing = image.GetSpacing();
    const auto origin = image.GetOrigin();
    const auto direction = image.GetDirection();
    for (int axis = 0; axis < 3; ++axis) {
        geometry.spacing[axis] = spacing[axis];
        geometry.origin[axis] = origin[axis];
        for (int row = 0; row < 3; ++row) geometry.direction[axis][row] = direction[row][axis];
        if (!(spacing[axis] > 0.0) || !std::isfinite(spacing[axis]))
            throw InputError(path, "voxel spacing must be positive, axis " + std::to_string(axis) + " has " +
                                       std::to_string(spacing[axis]));
    }
    return geometry;
}

// ITK's NIfTI reader accepts a single-file .nii whose voxel data stops short
// and pads with garbage, so the length is checked here: the header's voxel
// offset plus the voxel bytes must fit in the file. Compressed files are left
// to the decompressor, which does notice a cut stream.
void CheckNiftiLength(const std::string& path, const itk::ImageIOBase& io) {
    std::string lower = path;
    std::transform(lower.begin(), lower.end(), lower.begin(), [](unsigned char c) { return std::tolower(c); });
    if (lower.size() < 4 || lower.compare(lower.size() - 4, 4, ".nii") != 0) return;
    std::ifstream in(path, std::ios::binary);
    char header[176] = {};
    in.read(header, sizeof(header));
    int32_t headerSize = 0;
    std::memcpy(&headerSize, header, 4);
    const bool swapped = headerSize != 348 && headerSize != 540;
    if (swapped) headerSize = static_cast<int32_t>(__builtin_bswap32(static_cast<uint32_t>(headerSize)));
    double voxelOffset = 0.0;
    if (headerSize == 348) {
        uint32_t bits = 0;
        std::memcpy(&bits, header + 108, 4);
        if (swapped) bits = __builtin_bswap32(bits);
        float offset = 0.0f;
        std::memcpy(&offset, &bits, 4);
        voxelOffset = offset;
    } else if (headerSize == 540) {
        uint64_t offset = 0;
        std::memcpy(&offset, header + 168, 8);
        if (swapped) offset = __builtin_bswap64(offset);
        voxelOffset = static_cast<double>(offset);
    } else {
        return;  // not a header ITK would have accepted either
    }
    const double needed = voxelOffset + static_cast<double>(io.GetImageSizeInBytes());
    std::error_code ec;
    const uint64_t size = fs::file_size(path, ec);
    if (!ec && static_cast<double>(size) < needed)
        throw InputError(path, "NIfTI file is truncated: it holds " + std::to_string(size) + " bytes, its header needs " +
                                   std::to_string(static_cast<uint64_t>(needed)));
}

// The pixel count and size of a file before its voxels are read.
itk::ImageIOBase::Pointer ReadHeader(const std::string& path, std::string& format) {
    RegisterFactories();
    std::error_code ec;
    if (!fs::exists(path, ec)) throw InputError(path, "no such file or directory");
    itk::ImageIOBase::Pointer io =
        itk::ImageIOFactory::CreateImageIO(path.c_str(), itk::ImageIOFactory::IOFileModeEnum::ReadMode);
    if (!io) throw InputError(path, "not a volume format this program reads (NIfTI, NRRD, MetaImage, DICOM)");
    io->SetFileName(path);
    io->ReadImageInformation();
    format = FormatName(*io);
    if (format == "NIfTI") CheckNiftiLength(path, *io);
    return io;
}

glm::ivec3 DimsOf(const itk::ImageIOBase& io, const std::string& path) {
    const unsigned n = io.GetNumberOfDimensions();
    if (n < 2 || n > 3) {
        // A 4-D file with one volume is still a volume.
        bool single = n == 4 && io.GetDimensions(3) == 1;
        if (!single) throw InputError(path, "holds a " + std::to_string(n) + "-D image; only 2-D and 3-D images are volumes");
    }
    glm::ivec3 dims(1);
    for (unsigned axis = 0; axis < std::min(n, 3u); ++axis) {
        const auto d = io.GetDimensions(axis);
        if (d == 0 || d > 65536) throw InputError(path, "axis " + std::to_string(axis) + " has " + std::to_string(d) + " voxels");
        dims[static_cast<int>(axis)] = static_cast<int>(d);
    }
    return dims;
}

template <class T>
VoxelGrid ReadAs(const std::string& path, const glm::ivec3& expectedDims) {
    using Image = itk::Image<T, 3>;
    auto reader = itk::ImageFileReader<Image>::New();
    reader->SetFileName(path);
    reader->Update();
    typename Image::Pointer image = reader->GetOutput();
    const auto size = image->GetLargestPossibleRegion().GetSize();
    const glm::ivec3 dims(static_cast<int>(size[0]), static_cast<int>(size[1]), static_cast<int>(size[2]));
    if (dims != expectedDims) throw InputError(path, "image size changed between header and voxels");
    const size_t count = static_cast<size_t>(dims.x) * dims.y * dims.z;
    VoxelGrid grid;
    grid.dims = dims;
    grid.geometry = GeometryOf(*image, path);
    grid.voxels = std::vector<T>(image->GetBufferPointer(), image->GetBufferPointer() + count);
    return grid;
}

}  // namespace

VolumeFileInfo ReadItkInfo(const std::string& path, const VolumeChoice&) {
    try {
        VolumeFileInfo info;
        auto io = ReadHeader(path, info.format);
        info.componentType = itk::ImageIOBase::GetComponentTypeAsString(io->GetComponentType());
        info.components = static_cast<int>(io->GetNumberOfComponents());
        info.dims = DimsOf(*io, path);
        const unsigned n = std::min(io->GetNumberOfDimensions(), 3u);
        for (unsigned axis = 0; axis < n; ++axis) {
            info.geometry.spacing[axis] = io->GetSpacing(axis);
            info.geometry.origin[axis] = io->GetOrigin(axis);
            const std::vector<double> column = io->GetDirection(axis);
            for (unsigned row = 0; row < std::min<size_t>(column.size(), 3); ++row)
                info.geometry.direction[axis][row] = column[row];
        }
        info.placement = info.format == "NRRD" ? "space directions and origin" : "spacing, origin and direction";
        return info;
    } catch (const itk::ExceptionObject& e) {
        throw InputError(path, "cannot read: " + FirstLine(e.GetDescription()));
    }
}

VoxelGrid ReadItkGrid(const std::string& path, const VolumeChoice& choice, VolumeFileInfo& info) {
    try {
        info = ReadItkInfo(path, choice);
        if (info.components != 1)
            throw InputError(path, "has " + std::to_string(info.components) +
                                       " components per voxel; only scalar volumes can be drawn");
        auto io = ReadHeader(path, info.format);
        using C = itk::IOComponentEnum;
        const C type = io->GetComponentType();
        const size_t bytes = type == C::CHAR || type == C::UCHAR ? 1 : type == C::SHORT || type == C::USHORT ? 2
                           : type == C::DOUBLE ? 8 : 4;
        try {
            CheckVolumeSize(info.dims, bytes);
        } catch (const std::invalid_argument& e) {
            throw InputError(path, e.what());
        }
        switch (type) {
            case C::CHAR: return ReadAs<int8_t>(path, info.dims);
            case C::UCHAR: return ReadAs<uint8_t>(path, info.dims);
            case C::SHORT: return ReadAs<int16_t>(path, info.dims);
            case C::USHORT: return ReadAs<uint16_t>(path, info.dims);
            case C::INT: return ReadAs<int32_t>(path, info.dims);
            case C::UINT: return ReadAs<uint32_t>(path, info.dims);
            case C::FLOAT: return ReadAs<float>(path, info.dims);
            case C::DOUBLE: return ReadAs<double>(path, info.dims);
            default:
                throw InputError(path, "stores " + info.componentType + " voxels, which this program cannot read");
        }
    } catch (const itk::ExceptionObject& e) {
        throw InputError(path, "cannot read: " + FirstLine(e.GetDescription()));
    }
}

// Until its own reader exists, NIfTI goes through ITK as well.
bool IsNiftiFile(const std::string&) { return false; }
VolumeFileInfo ReadNiftiInfo(const std::string& path, const VolumeChoice& choice) { return ReadItkInfo(path, choice); }
VoxelGrid ReadNiftiGrid(const std::string& path, const VolumeChoice& choice, VolumeFileInfo& info) {
    return ReadItkGrid(path, choice, info);
}

}  // namespace zrio
