// Small scenes for the thick-section kernel tests: volumes from a voxel function
// placed with voxel (i, j, k) at world (i, j, k) mm, bare target images with
// colour and value buffers, tables whose entries tell which index was read, and
// functions that build the kernels' arguments and compare one and two threads.
#pragma once

#include <gtest/gtest.h>
#include <omp.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <glm/glm.hpp>
#include <memory>
#include <span>
#include <vector>

#include "common/matrix_record.h"
#include "host/table_builder.h"
#include "host/volume_builder.h"
#include "host/zr_image.h"
#include "tests/volume/kernels/slice_fixtures.h"
#include "volume/kernels/curved_reformation.h"
#include "volume/kernels/slab_projection.h"

namespace thicktest {

// Voxel (i, j, k) = value(i, j, k); spacing 1 mm, origin 0, so world and voxel
// coordinates coincide unless `geometry` says otherwise.
template <class T = uint16_t, class F>
std::shared_ptr<zrobjects::ZrVObjectVolume> VolumeFrom(glm::ivec3 dims, F value,
                                                       const zrobjects::VolumeGeometry& geometry = {}) {
    return slicetest::MakeVolumeFrom<T>(dims, value, geometry);
}

// World millimetres to voxel coordinates of a volume built with `geometry`.
inline zrcommon::Matrix16 WorldToVoxel(const zrobjects::VolumeGeometry& geometry = {}) {
    return zrcommon::ToMatrixRecord(glm::inverse(zrobjects::VolumeObjectToReference(geometry)));
}

// Colour buffers (usage 1) 0 and 1 and a 16-bit value buffer (usage 3) 0, the
// colour target being index 1; every buffer starts filled with 0x77 bytes so
// that untouched pixels can be told from written ones.
inline std::shared_ptr<zrobjects::ZrIObject> TargetImage(int width, int height) {
    auto image = std::make_shared<zrobjects::ZrIObject>(width, height);
    for (int i = 0; i < 2; ++i)
        image->InsertFrameBuffer(zrobjects::MakeDataType<zrobjects::color4>(), 1, "colour");
    image->InsertFrameBuffer(zrobjects::MakeDataType<uint16_t>(), 3, "values");
    std::memset(image->GetFrameBuffer(1, 1)->pixels, 0x77, static_cast<size_t>(width) * height * 4);
    std::memset(image->GetFrameBuffer(3, 0)->pixels, 0x77, static_cast<size_t>(width) * height * 2);
    return image;
}

constexpr uint32_t kUntouchedPixel = 0x77777777u;
constexpr uint16_t kUntouchedValue = 0x7777u;

inline const uint32_t* Colour(zrobjects::ZrIObject& image) {
    return static_cast<const uint32_t*>(image.GetFrameBuffer(1, 1)->pixels);
}
inline const uint16_t* Values(zrobjects::ZrIObject& image) {
    return static_cast<const uint16_t*>(image.GetFrameBuffer(3, 0)->pixels);
}
inline std::vector<uint32_t> ColourCopy(zrobjects::ZrIObject& image) {
    return slicetest::ColourCopy(image, 1);
}
inline std::vector<uint16_t> ValueCopy(zrobjects::ZrIObject& image) {
    return {Values(image), Values(image) + image.Width() * image.Height()};
}

inline uint32_t ByteOf(uint32_t pixel, int b) { return (pixel >> (8 * b)) & 0xffu; }

// A 65536-entry table, opaque, whose entry t carries t in its three colour
// bytes as (t & 0xff, (t >> 8) & 0xff, 0): with the direct lookup entry t is
// read for value t, so the colour tells the index.
inline std::shared_ptr<zrobjects::ZrObject> IndexTable(int length = zrobjects::kFullTableLength) {
    std::vector<uint32_t> entries(static_cast<size_t>(length));
    for (int t = 0; t < length; ++t)
        entries[t] = zrobjects::PackEntry(0, static_cast<uint8_t>((t >> 8) & 0xff), static_cast<uint8_t>(t & 0xff), 255);
    return zrobjects::MakeTableObject({entries});
}

// The fields slab and curved arguments share: the whole image, colour buffer 1
// and value buffer 0.
template <class Args>
Args WholeImageArgs(zrobjects::ZrVObjectVolume& volume, zrobjects::ZrObject& table, zrobjects::ZrIObject& image) {
    Args a;
    a.volume = &volume;
    a.tableOwner = &table;
    a.image = &image;
    a.colourIndex = 1;
    a.valueIndex = 0;
    a.width = image.Width();
    a.height = image.Height();
    return a;
}

// A slab drawn over the whole image into colour buffer 1 and value buffer 0.
inline zrvolume::SlabProjectionArgs SlabArgs(zrobjects::ZrVObjectVolume& volume, zrobjects::ZrObject& table,
                                             zrobjects::ZrIObject& image, const zrvolume::SlabGeometry& g,
                                             int code) {
    auto a = WholeImageArgs<zrvolume::SlabProjectionArgs>(volume, table, image);
    a.geometry = g;
    a.projectionCode = code;
    return a;
}

// Lays the curved view on the arguments' image: its first and last column at
// curve x = firstX and lastX millimetres along the unrolled curve, its top and
// bottom row at lateral y = topY and bottomY millimetres from the bottom edge
// (curve space of common/curved_view.h, for the current plane width and
// height). The plane lies in world z = 0, rows along +x, the top towards +y.
inline void SetCurvedView(zrvolume::CurvedReformationArgs& a, float firstX, float lastX, float topY,
                          float bottomY) {
    const float x = 0.5f * a.planeWidth, y = 0.5f * a.planeHeight;
    a.planeCorners[0] = {firstX - x, topY - y, 0.0f};
    a.planeCorners[1] = {lastX - x, topY - y, 0.0f};
    a.planeCorners[2] = {firstX - x, bottomY - y, 0.0f};
    a.planeCorners[3] = {lastX - x, bottomY - y, 0.0f};
}

// The view a camera at the origin with a view extent of the plane width and
// height gives: pixel centres of a grid whose outer edges are the plane's.
inline void WholeCurvedView(zrvolume::CurvedReformationArgs& a) {
    const float dx = 0.5f * a.planeWidth / a.width, dy = 0.5f * a.planeHeight / a.height;
    SetCurvedView(a, dx, a.planeWidth - dx, a.planeHeight - dy, dy);
}

// A thin curved section along `points` (world millimetres, with voxel (i, j, k)
// at (i, j, k) mm) over the whole image into colour buffer 1 and value buffer
// 0: one curve sample per column (column c on curve position c) and 1 mm per
// row, the rows centred on the curve. The vectors must outlive the arguments.
inline zrvolume::CurvedReformationArgs CurvedArgs(zrobjects::ZrVObjectVolume& volume,
                                                  zrobjects::ZrObject& table, zrobjects::ZrIObject& image,
                                                  const std::vector<glm::vec3>& points,
                                                  const std::vector<glm::vec3>& ups,
                                                  const std::vector<glm::vec3>& tangents) {
    auto a = WholeImageArgs<zrvolume::CurvedReformationArgs>(volume, table, image);
    a.curvePoints = points.data();
    a.upVectors = ups.data();
    a.tangents = tangents.data();
    a.curveCount = static_cast<int>(points.size());
    a.worldToVoxel = WorldToVoxel();
    a.planeWidth = static_cast<float>(a.curveCount - 1);
    a.planeHeight = static_cast<float>(image.Height());
    SetCurvedView(a, 0.0f, static_cast<float>(image.Width() - 1), a.planeHeight - 0.5f, 0.5f);
    a.layerStep = 1.0f;
    return a;
}

// Draws with `render` at 1 and at 2 threads and expects the same colour and
// value bytes both times.
template <class Render>
void ExpectSameBytesAtOneAndTwoThreads(zrobjects::ZrIObject& image, Render&& render, int code) {
    std::vector<uint32_t> colour[2];
    std::vector<uint16_t> values[2];
    for (int threads : {1, 2}) {
        slicetest::ThreadCount count(threads);
        ASSERT_TRUE(render());
        colour[threads - 1] = ColourCopy(image);
        values[threads - 1] = ValueCopy(image);
    }
    EXPECT_EQ(colour[0], colour[1]) << code;
    EXPECT_EQ(values[0], values[1]) << code;
}

}  // namespace thicktest
