// Merge of two full-size rendered layers into the final output, no resampling:
// the earlier renderers' result is the front layer F, the newly drawn target the
// back layer B. Rows run in parallel; pixel i = row * width + column.
//
// - F's opacity byte 0: the output is B unchanged;
// - else, when the mask at i is > 0 and voxelPitchMin < planeThickness (a real
//   slab): colour = trunc(B w + F (1 - w)), byte 3 = 255;
// - otherwise: fA = F opacity / 255, bA = B opacity / 255,
//   colour = trunc(B bA (1 - fA) + F fA) in byte units, byte 3 = 255.
// A null mask counts as <= 0 everywhere.
#pragma once

#include <cstdint>

namespace zrvolume {

struct LayerMergeArgs {
    // The two values compared to enable the weighted mix: the smallest voxel
    // pitch over the visited volumes (3.4028235e38 when none) and the plane
    // thickness; weighted mixing only when voxelPitchMin < planeThickness.
    float voxelPitchMin = 3.4028235e38f;
    float planeThickness = 0.0f;
    int width = 0;
    int height = 0;
    float weight = 0.7f;                  // w, the weight of the new layer B
    const uint32_t* earlier = nullptr;    // F: usage 1, index 1
    const uint32_t* target = nullptr;     // B: usage 1, index 2
    const float* depthMask = nullptr;     // usage 2, index 0; may be null
    uint32_t* output = nullptr;           // usage 1, index 0
};

void MergeLayers(const LayerMergeArgs& args);

}  // namespace zrvolume
