#include "layer_merge.h"

#include <cstddef>

#include "volume/kernels/parallel_for.h"
#include "volume/kernels/pixel_bytes.h"

namespace zrvolume {

namespace {

void MergeRow(const LayerMergeArgs& a, bool slab, int r) {
    const float w = a.weight;
    const ptrdiff_t rowStart = static_cast<ptrdiff_t>(r) * a.width;
    for (int c = 0; c < a.width; ++c) {
        const ptrdiff_t i = rowStart + c;
        const uint32_t front = a.earlier[i];
        const uint32_t back = a.target[i];
        if ((front >> 24) == 0) {
            a.output[i] = back;  // nothing in front: the new layer shows through
            continue;
        }
        uint32_t out = 0xff000000u;
        if (slab && a.depthMask != nullptr && a.depthMask[i] > 0.0f) {
            for (int b = 0; b < 3; ++b) out |= TruncatedByte(Byte(back, b) * w + Byte(front, b) * (1.0f - w)) << (8 * b);
        } else {
            // The front layer over the back one, each by its own opacity, in byte units.
            const float fA = Byte(front, 3) / 255.0f;
            const float bA = Byte(back, 3) / 255.0f;
            for (int b = 0; b < 3; ++b)
                out |= TruncatedByte(Byte(back, b) * bA * (1.0f - fA) + Byte(front, b) * fA) << (8 * b);
        }
        a.output[i] = out;
    }
}

}  // namespace

void MergeLayers(const LayerMergeArgs& args) {
    if (args.earlier == nullptr || args.target == nullptr || args.output == nullptr) return;
    // The constant-weight mix is meant for real slabs only: thinner planes are
    // always drawn as a slice and merge by opacity.
    const bool slab = args.voxelPitchMin < args.planeThickness;
    ParallelFor(0, args.height, [&args, slab](int r) { MergeRow(args, slab, r); });
}

}  // namespace zrvolume
