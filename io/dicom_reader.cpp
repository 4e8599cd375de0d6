// DICOM through GDCM: a folder holding one or more series, or a single
// (multi-frame) file. The headers of every file are scanned (dicom_header),
// grouped into volumes (dicom_series), one volume is chosen, and its frames'
// stored values (dicom_pixels) are stacked in order along the normal.
#include <algorithm>
#include <cctype>
#include <cstring>
#include <filesystem>
#include <map>
#include <stdexcept>

#include <gdcmTrace.h>

#include "diagnostics.h"
#include "dicom_header.h"
#include "dicom_pixels.h"
#include "dicom_series.h"
#include "input_error.h"
#include "volume_readers.h"

namespace zrio {

namespace {

namespace fs = std::filesystem;
using dicom::DicomImageFile;
using dicom::DicomVolume;

// GDCM writes its warnings and errors to standard error unless told not to.
void SetGdcmDiagnostics() {
    const bool shown = LibraryDiagnosticsShown();
    gdcm::Trace::SetWarning(shown);
    gdcm::Trace::SetError(shown);
    gdcm::Trace::SetDebug(false);
}

bool IsDirectory(const std::string& path) {
    std::error_code ec;
    return fs::is_directory(path, ec);
}

struct DicomInput {
    std::vector<DicomImageFile> files;
    std::vector<DicomVolume> volumes;
    std::string format;
    std::vector<std::string> notes;
};

std::string Plural(size_t n, const char* one, const char* many) { return std::to_string(n) + " " + (n == 1 ? one : many); }

DicomInput ScanFolder(const std::string& path) {
    DicomInput input;
    input.format = "DICOM folder";
    std::vector<std::string> names;
    size_t folders = 0;
    std::error_code ec;
    for (const auto& entry : fs::directory_iterator(path, ec)) {
        std::error_code kind;
        if (entry.is_regular_file(kind))
            names.push_back(entry.path().string());
        else if (entry.is_directory(kind))
            ++folders;
    }
    if (ec) throw InputError(path, "cannot list the folder: " + ec.message());
    std::sort(names.begin(), names.end());
    size_t notDicom = 0;
    std::map<std::string, size_t> leftAside;  // why -> how many
    for (const std::string& name : names) {
        if (!dicom::LooksLikeDicom(name)) {
            ++notDicom;
            continue;
        }
        DicomImageFile file;
        std::string why;
        switch (dicom::ReadDicomHeader(name, file, why)) {
            case dicom::HeaderResult::Image: input.files.push_back(std::move(file)); break;
            case dicom::HeaderResult::NotDicom: ++notDicom; break;
            case dicom::HeaderResult::NotVolumeImage: ++leftAside[why]; break;
        }
    }
    if (notDicom) input.notes.push_back("left aside " + Plural(notDicom, "file that is", "files that are") + " not DICOM");
    for (const auto& [why, count] : leftAside)
        input.notes.push_back("left aside " + Plural(count, "DICOM file that", "DICOM files that") + " " + why);
    if (input.files.empty()) {
        std::string what = "holds no DICOM image that makes a volume";
        if (!leftAside.empty()) what += " (" + Plural(leftAside.begin()->second, "file", "files") + " " + leftAside.begin()->first + ")";
        if (folders) what += "; its subfolders are not searched: give the folder that holds the series' files";
        throw InputError(path, what);
    }
    if (folders) input.notes.push_back("subfolders are not searched (" + Plural(folders, "subfolder", "subfolders") + ")");
    return input;
}

DicomInput ScanFile(const std::string& path) {
    DicomInput input;
    DicomImageFile file;
    std::string why;
    switch (dicom::ReadDicomHeader(path, file, why)) {
        case dicom::HeaderResult::NotDicom: throw InputError(path, "cannot be read as DICOM");
        case dicom::HeaderResult::NotVolumeImage: throw InputError(path, why);
        case dicom::HeaderResult::Image: break;
    }
    input.format = file.modality == "RTDOSE" ? "DICOM RT dose" : file.storage.frames > 1 ? "DICOM multi-frame" : "DICOM";
    input.files.push_back(std::move(file));
    return input;
}

DicomInput Scan(const std::string& path) {
    SetGdcmDiagnostics();
    DicomInput input = IsDirectory(path) ? ScanFolder(path) : ScanFile(path);
    input.volumes = dicom::SplitIntoVolumes(input.files);
    return input;
}

bool NoChoice(const VolumeChoice& choice) { return choice.series.empty() && !choice.frame; }

std::string ComponentType(const dicom::PixelStorage& s) {
    if (s.bitsAllocated == 1) return "1-bit";
    return std::string(s.isSigned ? "int" : "uint") + std::to_string(s.bitsAllocated) +
           (s.bitsStored != s.bitsAllocated ? " (" + std::to_string(s.bitsStored) + " bits stored)" : "");
}

VolumeFileInfo Describe(const DicomInput& input, const DicomVolume& volume) {
    VolumeFileInfo info;
    const DicomImageFile& file = input.files[volume.slices.front().file];
    info.format = input.format + (input.volumes.size() > 1 ? ", series " + volume.pick : "");
    info.componentType = ComponentType(file.storage);
    info.dims = volume.dims;
    info.geometry = volume.geometry;
    info.placement = volume.placement;
    info.notes = volume.notes;
    info.notes.insert(info.notes.end(), input.notes.begin(), input.notes.end());
    info.warnings = volume.warnings;
    if (volume.sameScale) {
        info.slope = volume.slope;
        info.intercept = volume.intercept;
    }
    info.units = volume.units;
    info.window = volume.window;
    return info;
}

const DicomVolume& Chosen(const std::string& path, const DicomInput& input, const VolumeChoice& choice) {
    try {
        return dicom::ChooseVolume(input.volumes, choice);
    } catch (const std::invalid_argument& e) {
        throw InputError(path, e.what());
    }
}

// The stored values of the volume's slices, in its order, as T.
template <class T>
std::vector<T> StackedValues(const DicomInput& input, const DicomVolume& volume) {
    const size_t sliceVoxels = static_cast<size_t>(volume.dims.x) * volume.dims.y;
    std::vector<T> voxels(sliceVoxels * volume.slices.size());
    // Each file is decoded once; a multi-frame file's data is kept until its
    // last frame has been copied.
    std::map<size_t, size_t> lastUse;
    for (size_t k = 0; k < volume.slices.size(); ++k) lastUse[volume.slices[k].file] = k;
    std::map<size_t, std::vector<unsigned char>> decoded;
    for (size_t k = 0; k < volume.slices.size(); ++k) {
        const dicom::DicomFrame& slice = volume.slices[k];
        auto found = decoded.find(slice.file);
        if (found == decoded.end())
            found = decoded.emplace(slice.file, dicom::ReadStoredFrames(input.files[slice.file])).first;
        const size_t offset = static_cast<size_t>(slice.index) * sliceVoxels * sizeof(T);
        if (found->second.size() < offset + sliceVoxels * sizeof(T))
            throw InputError(input.files[slice.file].path, "decoded pixel data is shorter than its frames");
        std::memcpy(voxels.data() + k * sliceVoxels, found->second.data() + offset, sliceVoxels * sizeof(T));
        if (lastUse[slice.file] == k) decoded.erase(found);
    }
    return voxels;
}

// Real values slice by slice, for a series whose slices are scaled apart.
template <class T>
std::vector<float> RealValues(const std::vector<T>& stored, const DicomVolume& volume) {
    const size_t sliceVoxels = static_cast<size_t>(volume.dims.x) * volume.dims.y;
    std::vector<float> real(stored.size());
    for (size_t k = 0; k < volume.slices.size(); ++k) {
        const double slope = volume.slices[k].slope, intercept = volume.slices[k].intercept;
        for (size_t v = k * sliceVoxels; v < (k + 1) * sliceVoxels; ++v)
            real[v] = static_cast<float>(static_cast<double>(stored[v]) * slope + intercept);
    }
    return real;
}

template <class T>
void FillVoxels(VoxelGrid& grid, const DicomInput& input, const DicomVolume& volume) {
    std::vector<T> stored = StackedValues<T>(input, volume);
    if (volume.sameScale) {
        grid.voxels = std::move(stored);
        grid.slope = volume.slope;
        grid.intercept = volume.intercept;
    } else {
        grid.voxels = RealValues(stored, volume);
    }
}

}  // namespace

bool IsDicomInput(const std::string& path) {
    if (IsDirectory(path)) return true;
    std::string ext = fs::path(path).extension().string();
    std::transform(ext.begin(), ext.end(), ext.begin(), [](unsigned char c) { return std::tolower(c); });
    return ext == ".dcm" || ext == ".dicom" || ext == ".ima" || dicom::LooksLikeDicom(path);
}

VolumeFileInfo ReadDicomInfo(const std::string& path, const VolumeChoice& choice) {
    const DicomInput input = Scan(path);
    if (NoChoice(choice) && input.volumes.size() > 1) {
        // Several volumes and no choice: the list, for `info` to show.
        VolumeFileInfo info;
        info.format = input.format;
        info.notes = input.notes;
        for (const DicomVolume& volume : input.volumes) info.choices.push_back(volume.line);
        return info;
    }
    return Describe(input, Chosen(path, input, choice));
}

VoxelGrid ReadDicomGrid(const std::string& path, const VolumeChoice& choice, VolumeFileInfo& info) {
    const DicomInput input = Scan(path);
    const DicomVolume& volume = Chosen(path, input, choice);
    info = Describe(input, volume);
    const dicom::PixelStorage& s = input.files[volume.slices.front().file].storage;
    try {
        CheckVolumeSize(volume.dims, static_cast<size_t>(dicom::VoxelBytes(s)));
    } catch (const std::invalid_argument& e) {
        throw InputError(path, e.what());
    }
    VoxelGrid grid;
    grid.dims = volume.dims;
    grid.geometry = volume.geometry;
    grid.units = volume.units;
    grid.window = volume.window;
    switch (s.bitsAllocated) {
        case 1: FillVoxels<uint8_t>(grid, input, volume); break;
        case 8: s.isSigned ? FillVoxels<int8_t>(grid, input, volume) : FillVoxels<uint8_t>(grid, input, volume); break;
        case 16: s.isSigned ? FillVoxels<int16_t>(grid, input, volume) : FillVoxels<uint16_t>(grid, input, volume); break;
        default: s.isSigned ? FillVoxels<int32_t>(grid, input, volume) : FillVoxels<uint32_t>(grid, input, volume); break;
    }
    return grid;
}

}  // namespace zrio
