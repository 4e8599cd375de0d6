// The fixed benchmark workloads every performance figure of the module is taken
// on: the phantom volume V1 (and its label and float forms V1L, V1F), the
// oblique section plane P1 and the tables.
// They are built exactly the same way in every benchmark so that figures from
// different kernels and different days can be set side by side.
//
// V1 is 200 MiB (V1L 100 MiB); their voxels are generated once and cached as
// raw files in the build tree (ZR_BENCH_DATA_DIR), then read back by later runs.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include <glm/glm.hpp>

#include "common/matrix_record.h"
#include "host/image_builder.h"
#include "host/volume_builder.h"
#include "host/zr_image.h"
#include "host/zr_object.h"
#include "host/zr_visual.h"
#include "volume/kernels/slice_plane.h"

namespace zrbench {

// ---- Volume V1: 512 x 512 x 400 unsigned 16-bit voxels, x fastest ----

inline constexpr glm::ivec3 kVolumeV1Dims{512, 512, 400};
inline constexpr glm::dvec3 kVolumeV1Spacing{0.4, 0.4, 0.5};

// The structure voxel (i, j, k) of V1 lies in: 0 air, 1 soft tissue, 2 bone
// shell, 3 the two dense spheres, 4 the softer (lesion) sphere.
int VolumeV1Structure(int i, int j, int k);

// The value of voxel (i, j, k) of V1: air, a soft-tissue ellipsoid with a bone
// shell, two dense spheres and one softer sphere, plus a small periodic texture.
uint16_t VolumeV1Voxel(int i, int j, int k);

// All voxels of V1, x fastest. Read from the cache file when it exists with the
// right size, otherwise generated and written to it (through a temporary file,
// so an interrupted run never leaves a truncated cache behind). Throws
// std::runtime_error naming the file when it can be neither read nor written.
std::vector<uint16_t> LoadVolumeV1Voxels();

// The cache file's path.
std::string VolumeV1CachePath();

// Placement of V1: voxel (0, 0, 0) centred at the world origin, axes along
// world x, y, z, margins as the reference host always builds them.
zrobjects::VolumeGeometry VolumeV1Geometry();

// V1's centre in world space, (102.2, 102.2, 99.75) mm.
glm::dvec3 VolumeV1Centre();

// The V1 volume object, built once per process and shared by every benchmark
// (it is only read).
std::shared_ptr<zrobjects::ZrVObjectVolume> VolumeV1();

// V1L: V1's structures (VolumeV1Structure) as unsigned 8-bit labels on V1's
// grid, cached like V1.
std::vector<uint8_t> LoadVolumeV1LabelVoxels();
std::shared_ptr<zrobjects::ZrVObjectVolume> VolumeV1L();

// V1F: V1's values as 32-bit floats.
std::shared_ptr<zrobjects::ZrVObjectVolume> VolumeV1F();

// ---- Plane P1: oblique section through V1's centre ----

inline constexpr glm::ivec2 kPlaneP1Size{512, 512};
inline constexpr double kPlaneP1PixelSpacing = 0.45;  // mm between pixel centres

// R = Ry(20 deg) * Rx(30 deg). Its columns are the image x axis, the image y
// axis (rows, downwards) and the view direction.
glm::dmat3 PlaneP1Rotation();

// The sectional view of P1 (centre, view direction, up = -image y axis).
zrobjects::SectionView PlaneP1View();

// An image object with P1's camera and the buffers a sectional render uses:
// colour buffers (usage 1) 0, 1 and 2 and the 16-bit value buffer (usage 3) 0.
std::shared_ptr<zrobjects::ZrIObject> MakePlaneP1Image();

// ---- W12: P1 at 1024 x 1024 pixels, 0.225 mm apart (the same square of the plane) ----

inline constexpr glm::ivec2 kPlaneW12Size{1024, 1024};
inline constexpr double kPlaneW12PixelSpacing = 0.225;
inline constexpr int kW12LengthFastModeMax = 256;

// As MakePlaneP1Image, on the W12 view.
std::shared_ptr<zrobjects::ZrIObject> MakePlaneW12Image();

// ---- Mesh cut as the sectional mesh renderer sets it up ----

struct MeshCutView {
    glm::vec3 planePoint;   // the camera position
    glm::vec3 planeNormal;  // up x right, that is the view direction
    zrcommon::Matrix16 objectToScreen;
};

// The plane and screen transform the mesh driver forms for an object placed at
// the world origin in the view of `image`'s camera.
MeshCutView MeshCutViewOf(zrobjects::ZrIObject& image);

// ---- Slice geometry as the sectional volume renderer derives it ----

struct SliceGeometry {
    zrvolume::SlicePlane plane;         // corners in world space, size, screen-to-world
    zrcommon::Matrix16 planeToVoxel;    // world (the corners' space) to voxel coordinates
    zrcommon::Matrix16 voxelToWorld;    // voxel coordinates to world
};

// The plane of the image's camera and the transforms of `volume` placed in the
// scene with `entryWorld` (object reference space to world). Throws
// std::invalid_argument when the image has no camera.
SliceGeometry MakeSliceGeometry(zrobjects::ZrIObject& image, const zrobjects::ZrVObjectVolume& volume,
                                const glm::mat4& entryWorld = glm::mat4(1.0f));

// ---- Table: 4096 grey entries, one row ----

inline constexpr int kBenchTableLength = 4096;

// Entry t = (g, g, g, a), g = min(1, t / 300), a = min(1, t / 100), each
// channel x 255 truncated.
std::vector<uint32_t> BenchTableEntries();

// A table object holding BenchTableEntries() as its one row under
// "_TableMap_OTF" (rows padded as the reference host pads them).
std::shared_ptr<zrobjects::ZrObject> BenchTable();

// W7's mask-selected table: 5 rows of 4096 entries, row 0 BenchTableEntries(),
// row k the same with its red channel replaced by trunc(255 k / 4).
std::shared_ptr<zrobjects::ZrObject> MaskTableW7();

// W8's label table: 256 entries, entry 0 transparent, entry k = (r, g, b, a) =
// (50 k mod 256, (255 - 40 k) mod 256, 128, 255).
std::shared_ptr<zrobjects::ZrObject> LabelTableW8();

// W9c's grey curve: (0, 0), (900, 40), (1100, 160), (3600, 255).
std::vector<glm::dvec2> GreyCurveW9c();

// ---- W10's table: 4096 entries, one row ----

// Entry t = (min(1, t / 3000), min(1, t / 2600), min(1, t / 2200)) in colour,
// opacity 0 below 1200, rising linearly to 0.8 at 2600 and 0.8 beyond, each
// channel x 255 truncated.
std::vector<uint32_t> ShadedSlabTableEntries();
std::shared_ptr<zrobjects::ZrObject> ShadedSlabTable();

}  // namespace zrbench
