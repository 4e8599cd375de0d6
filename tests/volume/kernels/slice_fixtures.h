// Small scenes for the slice and contour kernel tests: volumes from a voxel
// function, images with a known camera, planes given directly in voxel
// coordinates, and tables whose every readable entry (including the one past
// the counted length) is distinct.
#pragma once

#include <omp.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <vector>

#include <glm/glm.hpp>
#include <gtest/gtest.h>

#include "common/matrix_record.h"
#include "common/slice_clip.h"
#include "host/image_builder.h"
#include "host/table_builder.h"
#include "host/volume_builder.h"
#include "host/zr_image.h"
#include "volume/kernels/otf_lookup.h"
#include "volume/kernels/slice_plane.h"

namespace slicetest {

// What a buffer is filled with before a draw, so that untouched pixels show.
constexpr uint32_t kUntouched = 0x77777777u;
constexpr uint16_t kUntouchedValue = 0x7777;

using IntegerVoxelTypes = ::testing::Types<char, unsigned char, short, unsigned short>;
using SignedVoxelTypes = ::testing::Types<char, short>;

template <class T, class F>
std::shared_ptr<zrobjects::ZrVObjectVolume> MakeVolumeFrom(glm::ivec3 dims, F value,
                                                           const zrobjects::VolumeGeometry& geometry = {}) {
    std::vector<T> voxels(static_cast<size_t>(dims.x) * dims.y * dims.z);
    size_t n = 0;
    for (int k = 0; k < dims.z; ++k)
        for (int j = 0; j < dims.y; ++j)
            for (int i = 0; i < dims.x; ++i) voxels[n++] = static_cast<T>(value(i, j, k));
    return zrobjects::MakeVolume<T>(std::span<const T>(voxels), dims, geometry);
}

// An image of w x h pixels with colour buffers (usage 1) 0 and 1 and a 16-bit
// value buffer (usage 3) 0. The camera looks along +z through z = planeZ with
// screen (x, y) = world (x, y): world and screen agree on the plane.
inline std::shared_ptr<zrobjects::ZrIObject> MakeImage(int w, int h, double planeZ = 0.0) {
    zrobjects::SectionView view;
    view.centre = glm::dvec3(0.5 * (w - 1), 0.5 * (h - 1), planeZ);
    view.viewDirection = glm::dvec3(0.0, 0.0, 1.0);
    view.up = glm::dvec3(0.0, -1.0, 0.0);
    view.pixelSpacing = glm::dvec2(1.0);
    view.size = glm::ivec2(w, h);
    auto image = zrobjects::MakeSectionImage(view);
    image->InsertFrameBuffer(zrobjects::MakeDataType<zrobjects::color4>(), 1, "out");
    image->InsertFrameBuffer(zrobjects::MakeDataType<zrobjects::color4>(), 1, "backup");
    image->InsertFrameBuffer(zrobjects::MakeDataType<unsigned short>(), 3, "values");
    return image;
}

inline uint32_t* Colours(zrobjects::ZrIObject& image, int index = 0) {
    return static_cast<uint32_t*>(image.GetFrameBuffer(1, index)->pixels);
}
inline uint16_t* Values(zrobjects::ZrIObject& image) {
    return static_cast<uint16_t*>(image.GetFrameBuffer(3, 0)->pixels);
}

// Fills colour buffer 0 and the value buffer, so that untouched pixels show.
inline void Fill(zrobjects::ZrIObject& image, uint32_t colour = kUntouched,
                 uint16_t value = kUntouchedValue) {
    const int n = image.Width() * image.Height();
    for (int i = 0; i < n; ++i) {
        Colours(image)[i] = colour;
        Values(image)[i] = value;
    }
}

inline std::vector<uint32_t> ColourCopy(zrobjects::ZrIObject& image, int index = 0) {
    return {Colours(image, index), Colours(image, index) + image.Width() * image.Height()};
}

// A plane given in voxel coordinates (use with IdentityRecord()): corners are
// the first and last pixel of the first row, then of the last row.
inline zrvolume::SlicePlane PlaneFromCorners(glm::vec3 c0, glm::vec3 c1, glm::vec3 c2, glm::vec3 c3,
                                             int w = 0, int h = 0) {
    zrvolume::SlicePlane plane;
    plane.width = w;
    plane.height = h;
    plane.corners[0] = c0;
    plane.corners[1] = c1;
    plane.corners[2] = c2;
    plane.corners[3] = c3;
    return plane;
}

// A one-row plane from a to b with w pixels (two rows at the same place, since
// one row would divide by zero on purpose).
inline zrvolume::SlicePlane LinePlane(glm::vec3 a, glm::vec3 b, int w) { return PlaneFromCorners(a, b, a, b, w, 2); }

inline zrcommon::Matrix16 IdentityRecord() { return zrcommon::ToMatrixRecord(glm::mat4(1.0f)); }

// The oblique plane the thread-count checks draw: it leaves a 19 x 16 x 9 grid
// on several faces.
inline zrvolume::SlicePlane ObliquePlane(int w, int h) {
    return PlaneFromCorners({-1, 0.3f, 0.2f}, {18.5f, 3, 8.1f}, {0.5f, 15, 1}, {20, 17, 9}, w, h);
}

// A clip plane that removes what lies beyond x = `x`, towards +x.
inline zrcommon::SliceClipState ClipBeyondX(float x) {
    zrcommon::SliceClipState clip;
    clip.clipPlane = true;
    clip.planePoint = {x, 0, 0};
    clip.planeNormal = {1, 0, 0};
    return clip;
}

// The plane of the image's camera and the volume's world-to-voxel record, as
// the renderer builds them for a volume placed at the world origin.
inline zrvolume::SlicePlane CameraPlane(zrobjects::ZrIObject& image) {
    zrvolume::SlicePlane plane;
    plane.width = image.Width();
    plane.height = image.Height();
    image.GetCameraObject()->GetImagePlaneRectPointsf(zrenums::EzrCoordSpace_World, plane.corners[0],
                                                      plane.corners[1], plane.corners[2], plane.corners[3]);
    return plane;
}

constexpr uint32_t Bytes(uint32_t b0, uint32_t b1, uint32_t b2, uint32_t b3) {
    return b0 | (b1 << 8) | (b2 << 16) | (b3 << 24);
}

// Entries packed as the kernels read them: c0 bits 0-7, c1 8-15, c2 16-23.
constexpr uint32_t Entry(uint32_t c0, uint32_t c1, uint32_t c2, uint32_t opacity) {
    return Bytes(c0, c1, c2, opacity);
}

// A table of `rowCount` rows with `counted` counted entries. Every stored entry
// (max(counted + 1, 65536) per row) comes from entry(row, t), so a read at
// index `counted` or beyond is told apart from the last counted entry.
inline std::shared_ptr<zrobjects::ZrObject> MakeExactTable(int rowCount, int counted,
                                                          const std::function<uint32_t(int, int)>& entry) {
    struct Storage {
        std::vector<std::vector<uint32_t>> rows;
        std::vector<uint32_t*> pointers;
    };
    auto storage = std::make_shared<Storage>();
    const int stored = std::max(counted + 1, 65536);
    for (int r = 0; r < rowCount; ++r) {
        std::vector<uint32_t> row(stored);
        for (int t = 0; t < stored; ++t) row[t] = entry(r, t);
        storage->rows.push_back(std::move(row));
    }
    for (auto& row : storage->rows) storage->pointers.push_back(row.data());
    while (storage->pointers.size() < 256) storage->pointers.push_back(storage->rows.back().data());
    zrobjects::MapTable table;
    table.pp_data = storage->pointers.data();
    table.storage = storage;
    table.array_lengths = glm::ivec2(counted, rowCount);
    auto owner = std::make_shared<zrobjects::ZrObject>(zrenums::EzrObjectType_Table);
    owner->SetObjParam("_TableMap_OTF", table);
    return owner;
}

// Sets the OpenMP thread count for a scope.
class ThreadCount {
public:
    explicit ThreadCount(int n) : previous_(omp_get_max_threads()) { omp_set_num_threads(n); }
    ~ThreadCount() { omp_set_num_threads(previous_); }

private:
    int previous_;
};

// Sets a family's channel-order switch for a scope.
class ChannelSwitch {
public:
    ChannelSwitch(zrvolume::ChannelOrderFamily family, bool on)
        : family_(family), previous_(zrvolume::ChannelOrderSwitch(family)) {
        zrvolume::ChannelOrderSwitch(family) = on;
    }
    ~ChannelSwitch() { zrvolume::ChannelOrderSwitch(family_) = previous_; }

private:
    zrvolume::ChannelOrderFamily family_;
    bool previous_;
};

// Renders with `render` at one and at two threads from the same starting
// buffers and returns both colour buffers.
template <class Render>
std::pair<std::vector<uint32_t>, std::vector<uint32_t>> RenderAtOneAndTwoThreads(zrobjects::ZrIObject& image,
                                                                                  Render render) {
    const std::vector<uint32_t> start = ColourCopy(image);
    std::vector<uint32_t> results[2];
    for (int threads = 1; threads <= 2; ++threads) {
        std::copy(start.begin(), start.end(), Colours(image));
        ThreadCount count(threads);
        render();
        results[threads - 1] = ColourCopy(image);
    }
    return {results[0], results[1]};
}

}  // namespace slicetest
