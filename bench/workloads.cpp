#include "bench/workloads.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <numbers>
#include <span>
#include <stdexcept>

#include "host/table_builder.h"
#include "host/zr_camera.h"

#ifndef ZR_BENCH_DATA_DIR
#define ZR_BENCH_DATA_DIR "bench-data"
#endif

namespace zrbench {

namespace {

constexpr size_t kVolumeV1Count =
    static_cast<size_t>(kVolumeV1Dims.x) * kVolumeV1Dims.y * static_cast<size_t>(kVolumeV1Dims.z);

bool InsideEllipsoid(double x, double y, double z, double a, double b, double c) {
    return x * x / (a * a) + y * y / (b * b) + z * z / (c * c) <= 1.0;
}

bool InsideSphere(double x, double y, double z, double cx, double cy, double cz, double r) {
    const double dx = x - cx, dy = y - cy, dz = z - cz;
    return dx * dx + dy * dy + dz * dz <= r * r;
}

// Every voxel of a V1-sized volume, x fastest.
template <class T, class Voxel>
std::vector<T> GenerateV1Grid(Voxel voxel) {
    std::vector<T> voxels(kVolumeV1Count);
    size_t n = 0;
    for (int k = 0; k < kVolumeV1Dims.z; ++k)
        for (int j = 0; j < kVolumeV1Dims.y; ++j)
            for (int i = 0; i < kVolumeV1Dims.x; ++i) voxels[n++] = voxel(i, j, k);
    return voxels;
}

// Raw little-endian bytes; the machines we run on are little-endian, so the
// in-memory words are the file's bytes.
template <class T>
bool ReadCache(const std::string& path, std::vector<T>& voxels) {
    std::error_code error;
    if (std::filesystem::file_size(path, error) != kVolumeV1Count * sizeof(T) || error) return false;
    std::ifstream in(path, std::ios::binary);
    voxels.resize(kVolumeV1Count);
    in.read(reinterpret_cast<char*>(voxels.data()), static_cast<std::streamsize>(voxels.size() * sizeof(T)));
    return static_cast<bool>(in);
}

template <class T>
void WriteCache(const std::string& path, const std::vector<T>& voxels) {
    std::filesystem::create_directories(std::filesystem::path(path).parent_path());
    const std::string temporary = path + ".partial";
    {
        std::ofstream out(temporary, std::ios::binary | std::ios::trunc);
        const auto bytes = static_cast<std::streamsize>(voxels.size() * sizeof(T));
        out.write(reinterpret_cast<const char*>(voxels.data()), bytes);
        if (!out) {
            out.close();
            std::filesystem::remove(temporary);
            throw std::runtime_error("cannot write the volume cache " + temporary);
        }
    }
    std::filesystem::rename(temporary, path);
}

// The cached voxels at `path`, or generated (and cached) when the file is
// missing or has the wrong size.
template <class T, class Voxel>
std::vector<T> LoadCachedV1Grid(const std::string& path, Voxel voxel) {
    std::vector<T> voxels;
    if (ReadCache(path, voxels)) return voxels;
    voxels = GenerateV1Grid<T>(voxel);
    try {
        WriteCache(path, voxels);
    } catch (const std::exception& e) {
        // Without a cache the next run generates the volume again; the figures
        // do not depend on it.
        std::fprintf(stderr, "warning: %s\n", e.what());
    }
    return voxels;
}

}  // namespace

int VolumeV1Structure(int i, int j, int k) {
    const double x = (i - 255.5) / 256.0;
    const double y = (j - 255.5) / 256.0;
    const double z = (k - 199.5) / 200.0;
    // Later rules overwrite earlier ones.
    int structure = 0;
    if (InsideEllipsoid(x, y, z, 0.9, 0.8, 0.95)) structure = 1;
    if (InsideEllipsoid(x, y, z, 0.85, 0.75, 0.9) && !InsideEllipsoid(x, y, z, 0.8, 0.7, 0.85)) structure = 2;
    if (InsideSphere(x, y, z, 0.3, 0.2, 0.0, 0.06) || InsideSphere(x, y, z, -0.3, 0.2, 0.0, 0.06)) structure = 3;
    if (InsideSphere(x, y, z, 0.0, -0.3, 0.3, 0.1)) structure = 4;
    return structure;
}

uint16_t VolumeV1Voxel(int i, int j, int k) {
    static constexpr int kValue[5] = {0, 1000, 2500, 3500, 1200};
    const int v = kValue[VolumeV1Structure(i, j, k)] + (7 * i + 13 * j + 31 * k) % 17;  // texture
    return static_cast<uint16_t>(v);
}

std::string VolumeV1CachePath() { return std::string(ZR_BENCH_DATA_DIR) + "/v1_u16_512x512x400.raw"; }

std::vector<uint16_t> LoadVolumeV1Voxels() { return LoadCachedV1Grid<uint16_t>(VolumeV1CachePath(), VolumeV1Voxel); }

std::vector<uint8_t> LoadVolumeV1LabelVoxels() {
    const auto label = [](int i, int j, int k) { return static_cast<uint8_t>(VolumeV1Structure(i, j, k)); };
    return LoadCachedV1Grid<uint8_t>(std::string(ZR_BENCH_DATA_DIR) + "/v1l_u8_512x512x400.raw", label);
}

zrobjects::VolumeGeometry VolumeV1Geometry() {
    zrobjects::VolumeGeometry geometry;
    geometry.spacing = kVolumeV1Spacing;
    geometry.origin = glm::dvec3(0.0);
    geometry.direction = glm::dmat3(1.0);
    return geometry;
}

glm::dvec3 VolumeV1Centre() { return 0.5 * glm::dvec3(kVolumeV1Dims - 1) * kVolumeV1Spacing; }

std::shared_ptr<zrobjects::ZrVObjectVolume> VolumeV1() {
    static const std::shared_ptr<zrobjects::ZrVObjectVolume> volume = [] {
        const std::vector<uint16_t> voxels = LoadVolumeV1Voxels();
        return zrobjects::MakeVolume<unsigned short>(std::span<const unsigned short>(voxels), kVolumeV1Dims,
                                                     VolumeV1Geometry());
    }();
    return volume;
}

std::shared_ptr<zrobjects::ZrVObjectVolume> VolumeV1L() {
    static const std::shared_ptr<zrobjects::ZrVObjectVolume> volume = [] {
        const std::vector<uint8_t> voxels = LoadVolumeV1LabelVoxels();
        return zrobjects::MakeVolume<unsigned char>(std::span<const unsigned char>(voxels), kVolumeV1Dims,
                                                    VolumeV1Geometry());
    }();
    return volume;
}

std::shared_ptr<zrobjects::ZrVObjectVolume> VolumeV1F() {
    static const std::shared_ptr<zrobjects::ZrVObjectVolume> volume = [] {
        const std::vector<uint16_t> source = LoadVolumeV1Voxels();
        const std::vector<float> voxels(source.begin(), source.end());
        return zrobjects::MakeVolume<float>(std::span<const float>(voxels), kVolumeV1Dims, VolumeV1Geometry());
    }();
    return volume;
}

glm::dmat3 PlaneP1Rotation() {
    const double ax = 30.0 * std::numbers::pi / 180.0;
    const double ay = 20.0 * std::numbers::pi / 180.0;
    // Column-major: rx[col][row].
    glm::dmat3 rx(1.0), ry(1.0);
    rx[1][1] = std::cos(ax);
    rx[1][2] = std::sin(ax);
    rx[2][1] = -std::sin(ax);
    rx[2][2] = std::cos(ax);
    ry[0][0] = std::cos(ay);
    ry[0][2] = -std::sin(ay);
    ry[2][0] = std::sin(ay);
    ry[2][2] = std::cos(ay);
    return ry * rx;
}

zrobjects::SectionView PlaneP1View() {
    const glm::dmat3 r = PlaneP1Rotation();
    zrobjects::SectionView view;
    view.centre = VolumeV1Centre();
    view.viewDirection = r[2];
    view.up = -r[1];  // rows run down the image y axis, so up is its opposite
    view.pixelSpacing = glm::dvec2(kPlaneP1PixelSpacing);
    view.size = kPlaneP1Size;
    return view;
}

namespace {

std::shared_ptr<zrobjects::ZrIObject> MakeImageWithBuffers(const zrobjects::SectionView& view) {
    auto image = zrobjects::MakeSectionImage(view);
    const std::string colour =
        "default render out frame buffer Backup : defined in zerpha_inbuilt_renderercpu module";
    for (int index = 0; index < 3; ++index)
        image->InsertFrameBuffer(zrobjects::MakeDataType<zrobjects::color4>(), 1, colour);
    image->InsertFrameBuffer(zrobjects::MakeDataType<unsigned short>(), 3,
                             "sample render out frame buffer Backup : defined in zerpha_inbuilt_renderercpu module");
    return image;
}

}  // namespace

std::shared_ptr<zrobjects::ZrIObject> MakePlaneP1Image() { return MakeImageWithBuffers(PlaneP1View()); }

std::shared_ptr<zrobjects::ZrIObject> MakePlaneW12Image() {
    zrobjects::SectionView view = PlaneP1View();
    view.pixelSpacing = glm::dvec2(kPlaneW12PixelSpacing);
    view.size = kPlaneW12Size;
    return MakeImageWithBuffers(view);
}

MeshCutView MeshCutViewOf(zrobjects::ZrIObject& image) {
    glm::vec3 position, view, up;
    zrobjects::ZrCObject& camera = *image.GetCameraObject();
    camera.GetCameraExtStatef(position, view, up);
    const glm::vec3 right = glm::cross(view, up);
    glm::dmat4 f0, f1, f2;
    camera.GetMatrixWStoSS(f0, f1, f2);
    return MeshCutView{position, glm::cross(up, right),
                       zrcommon::ToMatrixRecord(glm::mat4(zrobjects::ComposeApplied(f0, f1, f2)))};
}

SliceGeometry MakeSliceGeometry(zrobjects::ZrIObject& image, const zrobjects::ZrVObjectVolume& volume,
                                const glm::mat4& entryWorld) {
    zrobjects::ZrCObject* camera = image.GetCameraObject();
    if (!camera) throw std::invalid_argument("MakeSliceGeometry: the image has no camera");

    SliceGeometry geometry;
    glm::dmat4 viewportInverse, projectionInverse, viewInverse;
    camera->GetMatrixSStoWS(viewportInverse, projectionInverse, viewInverse);
    geometry.plane.screenToWorld =
        glm::mat4(zrobjects::ComposeApplied(viewportInverse, projectionInverse, viewInverse));
    geometry.plane.width = image.Width();
    geometry.plane.height = image.Height();
    camera->GetImagePlaneRectPointsf(zrenums::EzrCoordSpace_World, geometry.plane.corners[0],
                                     geometry.plane.corners[1], geometry.plane.corners[2],
                                     geometry.plane.corners[3]);

    // Object-to-reference composed with the entry's world matrix, and back.
    geometry.voxelToWorld = zrcommon::ToMatrixRecord(entryWorld * volume.GetMatrixOS2RSf());
    geometry.planeToVoxel = zrcommon::ToMatrixRecord(volume.GetMatrixRS2OSf() * glm::inverse(entryWorld));
    return geometry;
}

std::vector<uint32_t> BenchTableEntries() {
    std::vector<uint32_t> entries(kBenchTableLength);
    for (int t = 0; t < kBenchTableLength; ++t) {
        const double g = std::min(1.0, t / 300.0);
        const double a = std::min(1.0, t / 100.0);
        const auto grey = static_cast<uint8_t>(g * 255.0);
        const auto opacity = static_cast<uint8_t>(a * 255.0);
        entries[t] = zrobjects::PackEntry(grey, grey, grey, opacity);
    }
    return entries;
}

std::shared_ptr<zrobjects::ZrObject> BenchTable() { return zrobjects::MakeTableObject({BenchTableEntries()}); }

std::shared_ptr<zrobjects::ZrObject> MaskTableW7() {
    const std::vector<uint32_t> base = BenchTableEntries();
    std::vector<std::vector<uint32_t>> rows = {base};
    for (int k = 1; k <= 4; ++k) {
        const uint32_t red = static_cast<uint32_t>(255 * k / 4) << 16;
        std::vector<uint32_t> row = base;
        for (uint32_t& entry : row) entry = (entry & 0xff00ffffu) | red;
        rows.push_back(std::move(row));
    }
    return zrobjects::MakeTableObject(rows);
}

std::shared_ptr<zrobjects::ZrObject> LabelTableW8() {
    std::vector<uint32_t> entries(256, 0u);
    for (int k = 1; k < 256; ++k)
        entries[k] = zrobjects::PackEntry(static_cast<uint8_t>((50 * k) % 256),
                                          static_cast<uint8_t>(((255 - 40 * k) % 256 + 256) % 256), 128, 255);
    return zrobjects::MakeTableObject({entries});
}

std::vector<glm::dvec2> GreyCurveW9c() { return {{0, 0}, {900, 40}, {1100, 160}, {3600, 255}}; }

std::vector<uint32_t> ShadedSlabTableEntries() {
    std::vector<uint32_t> entries(kBenchTableLength);
    for (int t = 0; t < kBenchTableLength; ++t) {
        const auto channel = [t](double full) { return static_cast<uint8_t>(std::min(1.0, t / full) * 255.0); };
        const double a = t < 1200 ? 0.0 : std::min(0.8, 0.8 * (t - 1200) / 1400.0);
        entries[t] = zrobjects::PackEntry(channel(3000.0), channel(2600.0), channel(2200.0),
                                          static_cast<uint8_t>(a * 255.0));
    }
    return entries;
}

std::shared_ptr<zrobjects::ZrObject> ShadedSlabTable() {
    return zrobjects::MakeTableObject({ShadedSlabTableEntries()});
}

}  // namespace zrbench
