// A CT in Hounsfield units as files written by ITK (NIfTI, NRRD and a DICOM
// series of signed 16-bit voxels, negative values included) draws exactly as
// the built-in head, which holds the same values and grid: every request of the
// demo gallery that shows the head (each render mode that uses tables, every
// table form and preset it uses) gives the same bytes when the head comes from
// the file instead.
#include <gtest/gtest.h>

#include <itkGDCMImageIO.h>
#include <itkImage.h>
#include <itkImageFileWriter.h>
#include <itkImageSeriesWriter.h>
#include <itkMetaDataObject.h>
#include <itkNiftiImageIOFactory.h>
#include <itkNrrdImageIOFactory.h>

#include <cstdio>
#include <filesystem>
#include <fstream>

#include <nlohmann/json.hpp>

#include "host/phantoms.h"
#include "io/png_io.h"
#include "tests/tools/zrslice_runner.h"

namespace zrio {
namespace {

namespace fs = std::filesystem;
using nlohmann::json;
using Image3 = itk::Image<short, 3>;
using Image2 = itk::Image<short, 2>;

// A grid whose voxel positions every file format stores exactly.
const zrobjects::PhantomGrid kGrid{{48, 48, 36}, {5.0, 5.0, 6.0}};

Image3::Pointer HeadInHounsfieldUnits() {
    auto image = Image3::New();
    Image3::RegionType region;
    region.SetSize({static_cast<unsigned>(kGrid.dims.x), static_cast<unsigned>(kGrid.dims.y),
                    static_cast<unsigned>(kGrid.dims.z)});
    image->SetRegions(region);
    image->Allocate();
    const glm::dvec3 first = zrobjects::PhantomVoxelCentre(kGrid, {0, 0, 0});
    Image3::PointType origin;
    for (int axis = 0; axis < 3; ++axis) origin[axis] = first[axis];
    image->SetOrigin(origin);
    Image3::SpacingType spacing;
    for (int axis = 0; axis < 3; ++axis) spacing[axis] = kGrid.spacing[axis];
    image->SetSpacing(spacing);
    for (int z = 0; z < kGrid.dims.z; ++z)
        for (int y = 0; y < kGrid.dims.y; ++y)
            for (int x = 0; x < kGrid.dims.x; ++x) {
                const uint16_t stored = zrobjects::HeadPhantomValueAt(zrobjects::PhantomVoxelCentre(kGrid, {x, y, z}));
                image->SetPixel({x, y, z}, static_cast<short>(stored - 1024));
            }
    return image;
}

void WriteFile(const Image3::Pointer& image, const std::string& path) {
    itk::NiftiImageIOFactory::RegisterOneFactory();
    itk::NrrdImageIOFactory::RegisterOneFactory();
    auto writer = itk::ImageFileWriter<Image3>::New();
    writer->SetInput(image);
    writer->SetFileName(path);
    writer->Update();
}

// One file per axial slice, each placed by its image position, as a CT
// scanner writes a series.
void WriteDicomSeries(const Image3::Pointer& image, const fs::path& folder) {
    fs::create_directories(folder);
    auto io = itk::GDCMImageIO::New();
    const auto origin = image->GetOrigin();
    const auto spacing = image->GetSpacing();
    auto writer = itk::ImageSeriesWriter<Image3, Image2>::New();
    writer->SetInput(image);
    writer->SetImageIO(io);
    std::vector<std::string> names;
    itk::ImageSeriesWriter<Image3, Image2>::DictionaryArrayType dictionaries;
    std::vector<itk::MetaDataDictionary> storage(static_cast<size_t>(kGrid.dims.z));
    for (int z = 0; z < kGrid.dims.z; ++z) {
        itk::MetaDataDictionary& d = storage[static_cast<size_t>(z)];
        auto put = [&d](const char* tag, const std::string& value) { itk::EncapsulateMetaData<std::string>(d, tag, value); };
        char position[96];
        std::snprintf(position, sizeof(position), "%.10g\\%.10g\\%.10g", origin[0], origin[1], origin[2] + z * spacing[2]);
        put("0008|0060", "CT");
        put("0028|0004", "MONOCHROME2");
        put("0020|000d", "1.2.826.0.1.3680043.2.1125.77.1");
        put("0020|000e", "1.2.826.0.1.3680043.2.1125.77.1.1");
        put("0020|0011", "1");
        put("0020|0013", std::to_string(z + 1));
        put("0020|0032", position);
        put("0020|0037", "1\\0\\0\\0\\1\\0");
        put("0028|0030", std::to_string(spacing[1]) + "\\" + std::to_string(spacing[0]));
        put("0018|0050", std::to_string(spacing[2]));
        names.push_back((folder / ("slice" + std::to_string(1000 + z) + ".dcm")).string());
    }
    for (auto& d : storage) dictionaries.push_back(&d);
    writer->SetMetaDataDictionaryArray(&dictionaries);
    writer->SetFileNames(names);
    writer->Update();
}

// The head (and the labels, which must share its grid) on the test grid.
void UseTestGrid(json& objects) {
    for (auto& [name, object] : objects.items())
        if (object.value("phantom", "") == "head" || object.value("phantom", "") == "labels") {
            object["dims"] = {kGrid.dims.x, kGrid.dims.y, kGrid.dims.z};
            object["spacing"] = {kGrid.spacing.x, kGrid.spacing.y, kGrid.spacing.z};
        }
}

TEST(HounsfieldFiles, DrawExactlyAsTheBuiltInHeadInEveryGalleryRequest) {
    testing::ScratchFolder dir("hu-files");
    const Image3::Pointer head = HeadInHounsfieldUnits();
    WriteFile(head, dir / "head.nii.gz");
    WriteFile(head, dir / "head.nrrd");
    WriteDicomSeries(head, dir.Path() / "series");
    ASSERT_EQ(Zrslice("-q demo --size 48 -o " + Quoted(dir / "gallery"), dir).exitCode, 0);

    int compared = 0;
    for (const auto& entry : fs::directory_iterator(dir.Path() / "gallery")) {
        const std::string name = entry.path().filename().string();
        if (entry.path().extension() != ".json" || name.find(".lists.") != std::string::npos) continue;
        std::ifstream in(entry.path());
        json document = json::parse(in);
        if (!document["objects"].contains("head")) continue;
        UseTestGrid(document["objects"]);
        testing::WriteText(dir / "phantom.json", document.dump());
        RunResult run = Zrslice("-q render --strict " + Quoted(dir / "phantom.json") + " -o " + Quoted(dir / "phantom.png"), dir);
        ASSERT_EQ(run.exitCode, 0) << name << ": " << run.err;
        const RgbaImage expected = ReadPngRgba(dir / "phantom.png");
        for (const std::string file : {"head.nii.gz", "head.nrrd", "series"}) {
            json fromFile = document;
            fromFile["objects"]["head"] = {{"type", "volume"}, {"file", dir / file}};
            testing::WriteText(dir / "file.json", fromFile.dump());
            run = Zrslice("-q render --strict " + Quoted(dir / "file.json") + " -o " + Quoted(dir / "file.png"), dir);
            ASSERT_EQ(run.exitCode, 0) << name << " from " << file << ": " << run.err;
            EXPECT_EQ(ReadPngRgba(dir / "file.png").pixels, expected.pixels) << name << " from " << file;
            ++compared;
        }
    }
    EXPECT_GE(compared, 3 * 10);
}

}  // namespace
}  // namespace zrio
