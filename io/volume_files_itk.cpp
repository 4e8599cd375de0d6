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
#include <itkNrrdImageIOFactory.h>

#include "data_length.h"
#include "diagnostics.h"
#include "input_error.h"
#include "volume_files.h"
#include "volume_readers.h"

namespace zrio {

namespace {

namespace fs = std::filesystem;

void RegisterFactories() {
    static std::once_flag once;
    std::call_once(once, [] {
        itk::NrrdImageIOFactory::RegisterOneFactory();
        itk::MetaImageIOFactory::RegisterOneFactory();
    });
}

std::string FormatName(const itk::ImageIOBase& io) {
    const std::string name = io.GetNameOfClass();
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

// The pixel count and size of a file before its voxels are read.
itk::ImageIOBase::Pointer ReadHeader(const std::string& path, std::string& format) {
    RegisterFactories();
    std::error_code ec;
    if (!fs::exists(path, ec)) throw InputError(path, "no such file or directory");
    itk::ImageIOBase::Pointer io =
        itk::ImageIOFactory::CreateImageIO(path.c_str(), itk::ImageIOFactory::IOFileModeEnum::ReadMode);
    if (!io) throw InputError(path, "not a volume format this program reads (NIfTI, MGH, NRRD, MetaImage, DICOM; meshes: STL, OBJ, PLY, glTF, VTK)");
    io->SetFileName(path);
    io->ReadImageInformation();
    format = FormatName(*io);
    if (format == "NRRD") CheckNrrdDataLength(path, io->GetImageSizeInBytes());
    if (format == "MetaImage") CheckMetaImageDataLength(path, io->GetImageSizeInBytes());
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

// ITK's descriptions start with the class and its address, and a failed read
// says little more than that it failed; keep what tells the user something.
std::string ItkReason(const itk::ExceptionObject& e, const std::string& fallback) {
    std::string line = FirstLine(e.GetDescription());
    if (line.rfind("ITK ERROR: ", 0) == 0) line.erase(0, 11);
    const size_t address = line.find("(0x");
    const size_t end = line.find("): ");
    if (address != std::string::npos && end != std::string::npos && address < end) line.erase(0, end + 3);
    if (line.empty() || line.find("Error reading") != std::string::npos ||
        line.find("ITK ERROR") != std::string::npos)
        return fallback;
    return line;
}

}  // namespace

VolumeFileInfo ReadItkInfo(const std::string& path, const VolumeChoice& choice) {
    // NRRD and MetaImage files hold one volume: a choice names something that
    // is not there, and is refused rather than ignored.
    if (!choice.series.empty())
        throw InputError(path, "\"series\" picks a DICOM series or part of one; this file holds one volume");
    if (choice.frame && *choice.frame != 0)
        throw InputError(path, "holds one volume; \"frame\": " + std::to_string(*choice.frame) + " does not exist");
    QuietLibraries quiet;
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
        throw InputError(path, "cannot read its header: " + ItkReason(e, "damaged or not in the format its name says"));
    }
}

VoxelGrid ReadItkGrid(const std::string& path, const VolumeChoice& choice, VolumeFileInfo& info) {
    QuietLibraries quiet;
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
        throw InputError(path, "cannot read its voxel data: " +
                                   ItkReason(e, "damaged or cut short (--verbose shows the library's report)"));
    }
}

}  // namespace zrio
