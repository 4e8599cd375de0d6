// Volume, mesh and PNG files: what the readers return for small hand-written
// files, and the one-line errors for missing, short or corrupt ones.
#include <gtest/gtest.h>

#include <bit>
#include <functional>
#include <tuple>

#include "host/volume_builder.h"
#include "tests/io/file_test_support.h"
#include "io/input_error.h"
#include "io/mesh_files.h"
#include "io/png_io.h"
#include "io/volume_files.h"

namespace zrio {
namespace {

using testing::ScratchFolder;

std::vector<int16_t> Ramp(int n) {
    std::vector<int16_t> v(n);
    for (int k = 0; k < n; ++k) v[k] = static_cast<int16_t>(k * 3 - 7);
    return v;
}

// The InputError message of `fn`, which must name `file`.
template <class Fn>
std::string ErrorNaming(const std::string& file, Fn fn) {
    try {
        fn();
    } catch (const InputError& e) {
        EXPECT_EQ(e.File(), file);
        return e.what();
    }
    ADD_FAILURE() << "no InputError for " << file;
    return {};
}

TEST(VolumeFiles, NiftiKeepsVoxelsAndSpacingWithSignedValuesOffset) {
    ScratchFolder dir("nifti");
    const std::vector<int16_t> voxels = Ramp(4 * 3 * 2);
    testing::WriteBytes(dir / "ramp.nii", testing::NiftiInt16(4, 3, 2, 0.5f, 0.75f, 2.0f, voxels));
    const VolumeFile file = ReadVolumeFile(dir / "ramp.nii");
    const auto& volume = file.loaded.volume;
    zrobjects::VolumeData& data = *volume->GetVolumeData();
    // Signed values reach the module unsigned, offset by 1024.
    EXPECT_EQ(data.voxelType, zrobjects::MakeDataType<unsigned short>());
    EXPECT_EQ(file.loaded.values.offset, 1024);
    EXPECT_EQ(file.loaded.values.min, -7);
    EXPECT_EQ(file.loaded.values.max, 3 * 23 - 7);
    EXPECT_EQ(data.dims, glm::ivec3(4, 3, 2));
    EXPECT_NEAR(data.voxelPitch.x, 0.5, 1e-6);
    EXPECT_NEAR(data.voxelPitch.z, 2.0, 1e-6);
    for (int z = 0; z < 2; ++z)
        for (int y = 0; y < 3; ++y)
            for (int x = 0; x < 4; ++x)
                EXPECT_EQ(zrobjects::VoxelAt<unsigned short>(data, x, y, z), voxels[(z * 3 + y) * 4 + x] + 1024);
    // Voxel (1, 0, 0) lies one spacing along the grid's first axis.
    const glm::vec4 p = volume->GetMatrixOS2RSf() * glm::vec4(1, 0, 0, 1);
    EXPECT_NEAR(glm::length(glm::vec3(p) - glm::vec3(volume->GetMatrixOS2RSf()[3])), 0.5f, 1e-5f);

    const VolumeFileInfo info = ReadVolumeFileInfo(dir / "ramp.nii");
    EXPECT_EQ(info.format, "NIfTI-1");
    EXPECT_EQ(info.dims, glm::ivec3(4, 3, 2));
    // Converted on request.
    auto floats = ReadVolumeFile(dir / "ramp.nii", {}, VoxelKind::Float32).loaded.volume;
    EXPECT_EQ(floats->GetVolumeData()->voxelType, zrobjects::MakeDataType<float>());
    EXPECT_EQ(zrobjects::VoxelAt<float>(*floats->GetVolumeData(), 0, 0, 0), -7.0f);
}

TEST(VolumeFiles, NrrdKeepsOriginAndDirection) {
    ScratchFolder dir("nrrd");
    // Axes swapped and flipped: the grid's x runs along world -y.
    std::string header =
        "NRRD0004\ntype: unsigned short\ndimension: 3\nsizes: 2 2 1\nspace: left-posterior-superior\n"
        "space directions: (0,-2,0) (3,0,0) (0,0,4)\nspace origin: (10,20,30)\nencoding: raw\nendian: little\n\n";
    std::vector<char> bytes(header.begin(), header.end());
    for (uint16_t v : {1, 2, 3, 4}) testing::Append(bytes, v);
    testing::WriteBytes(dir / "tiny.nrrd", bytes);
    auto volume = ReadVolumeFile(dir / "tiny.nrrd").loaded.volume;
    EXPECT_EQ(volume->GetVolumeData()->voxelType, zrobjects::MakeDataType<unsigned short>());
    const glm::mat4 m = volume->GetMatrixOS2RSf();
    EXPECT_EQ(glm::vec3(m * glm::vec4(0, 0, 0, 1)), glm::vec3(10, 20, 30));
    EXPECT_EQ(glm::vec3(m * glm::vec4(1, 0, 0, 1)), glm::vec3(10, 18, 30));
    EXPECT_EQ(glm::vec3(m * glm::vec4(0, 1, 0, 1)), glm::vec3(13, 20, 30));
    EXPECT_EQ(zrobjects::VoxelAt<unsigned short>(*volume->GetVolumeData(), 1, 1, 0), 4);
}

TEST(VolumeFiles, RawFilesInBothByteOrders) {
    ScratchFolder dir("raw");
    std::vector<char> bytes = {'H', 'D', 'R', '!'};
    for (uint16_t v : {0x0102, 0x0304, 0x0506}) testing::Append(bytes, v);  // little-endian on x86
    testing::WriteBytes(dir / "v.raw", bytes);
    RawVolumeHeader header;
    header.dims = {3, 1, 1};
    header.type = StoredType::UInt16;
    header.headerBytes = 4;
    auto little = ReadRawVolume(dir / "v.raw", header).volume;
    EXPECT_EQ(zrobjects::VoxelAt<unsigned short>(*little->GetVolumeData(), 2, 0, 0), 0x0506);
    header.bigEndian = true;
    auto big = ReadRawVolume(dir / "v.raw", header).volume;
    const uint16_t expected = std::endian::native == std::endian::little ? 0x0605 : 0x0506;
    EXPECT_EQ(zrobjects::VoxelAt<unsigned short>(*big->GetVolumeData(), 2, 0, 0), expected);
}

TEST(VolumeFileErrors, MissingShortTruncatedAndCorrupt) {
    ScratchFolder dir("volume-errors");
    testing::WriteBytes(dir / "short.raw", std::vector<char>(10));
    std::vector<char> nifti = testing::NiftiInt16(8, 8, 8, 1, 1, 1, Ramp(512));
    nifti.erase(nifti.end() - 300, nifti.end());  // cut into the voxels
    testing::WriteBytes(dir / "cut.nii", nifti);
    testing::WriteBytes(dir / "junk.nii", std::vector<char>(400, 'x'));
    const auto raw = [&](glm::ivec3 dims) {
        RawVolumeHeader header;
        header.dims = dims;
        header.type = StoredType::UInt16;
        return [&dir, header] { ReadRawVolume(dir / "short.raw", header); };
    };
    const std::tuple<std::string, std::function<void()>, std::string> cases[] = {
        {"absent.nii", [&] { ReadVolumeFile(dir / "absent.nii"); }, "no such file"},
        {"short.raw", raw({2, 2, 2}), "raw file holds 10 bytes, its header needs 16"},
        {"short.raw", raw({-2, 2, 2}), "positive"},
        {"short.raw", raw({60000, 60000, 60000}), "too large"},
        {"cut.nii", [&] { ReadVolumeFile(dir / "cut.nii"); }, ""},
        {"junk.nii", [&] { ReadVolumeFile(dir / "junk.nii"); }, ""}};
    for (const auto& [file, read, expected] : cases) {
        const std::string message = ErrorNaming(dir / file, read);
        EXPECT_FALSE(message.empty()) << file;
        EXPECT_NE(message.find(expected), std::string::npos) << message;
    }
}

TEST(VolumeFiles, VoxelKindNames) {
    for (VoxelKind k : {VoxelKind::Int8, VoxelKind::UInt8, VoxelKind::Int16, VoxelKind::UInt16, VoxelKind::Float32})
        EXPECT_EQ(ParseVoxelKind(VoxelKindName(k)), k);
    EXPECT_THROW(ParseVoxelKind("int32"), std::invalid_argument);
}

TEST(MeshFiles, AsciiStlAndObj) {
    ScratchFolder dir("mesh");
    testing::WriteText(dir / "tri.stl",
                       "solid t\nfacet normal 0 0 1\nouter loop\nvertex 0 0 0\nvertex 2 0 0\nvertex 0 3 0\n"
                       "endloop\nendfacet\nendsolid t\n");
    auto stl = ReadMeshFile(dir / "tri.stl");
    EXPECT_EQ(stl.topology, 2);
    EXPECT_EQ(stl.indices.size(), 3u);
    const MeshFileInfo info = ReadMeshFileInfo(dir / "tri.stl");
    EXPECT_EQ(info.triangles, 1u);
    EXPECT_EQ(info.boundsMax, glm::dvec3(2, 3, 0));

    // A quad is triangulated into two triangles.
    testing::WriteText(dir / "quad.obj", "v 0 0 0\nv 1 0 0\nv 1 1 0\nv 0 1 0\nf 1 2 3 4\n");
    auto obj = ReadMeshFile(dir / "quad.obj");
    EXPECT_EQ(obj.indices.size(), 6u);
    auto object = MakeMeshObject(obj);
    EXPECT_EQ(object->GetPrimitiveData()->primitiveCount, 2);
    EXPECT_NE(object->GetBVHTree(), nullptr);
}

TEST(MeshFileErrors, MissingAndCorrupt) {
    ScratchFolder dir("mesh-errors");
    EXPECT_NE(ErrorNaming(dir / "none.stl", [&] { ReadMeshFile(dir / "none.stl"); }).find("no such file"),
              std::string::npos);
    testing::WriteText(dir / "bad.obj", "this is not a mesh\n");
    EXPECT_FALSE(ErrorNaming(dir / "bad.obj", [&] { ReadMeshFile(dir / "bad.obj"); }).empty());
    zrobjects::MeshArrays broken;
    broken.positions = {0, 0, 0, 1, 0, 0, 0, 1, 0};
    broken.indices = {0, 1, 7};
    EXPECT_THROW(MakeMeshObject(broken), std::invalid_argument);
}

TEST(PngFiles, RoundTripsColourAndSixteenBitValues) {
    ScratchFolder dir("png");
    RgbaImage colour{3, 2, {}};
    for (int k = 0; k < 24; ++k) colour.pixels.push_back(static_cast<uint8_t>(k * 10));
    WritePngRgba(dir / "c.png", colour);
    const RgbaImage back = ReadPngRgba(dir / "c.png");
    EXPECT_EQ(back.width, 3);
    EXPECT_EQ(back.pixels, colour.pixels);

    GreyImage16 values{2, 2, {0, 1, 0x1234, 65535}};
    WritePngGrey16(dir / "v.png", values);
    EXPECT_EQ(ReadPngGrey16(dir / "v.png").values, values.values);
    // A colour PNG is not a value image.
    EXPECT_THROW(ReadPngGrey16(dir / "c.png"), InputError);
    testing::WriteText(dir / "fake.png", "not a png");
    EXPECT_THROW(ReadPngRgba(dir / "fake.png"), InputError);
}

}  // namespace
}  // namespace zrio
