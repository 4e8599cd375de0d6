#include "thickness_bands.h"

#include <cstdint>
#include <vector>

#include "platform/morphology.h"
#include "volume/kernels/otf_slice.h"
#include "volume/kernels/parallel_for.h"

namespace zrvolume {

namespace {

uint32_t MixHalf(uint32_t pixel, uint32_t colour) {
    uint32_t mixed = 0;
    for (int byte = 0; byte < 3; ++byte) {
        const uint32_t a = (pixel >> (8 * byte)) & 0xffu, b = (colour >> (8 * byte)) & 0xffu;
        mixed |= ((a + b) / 2) << (8 * byte);
    }
    return mixed | 0xff000000u;
}

}  // namespace

bool RenderThicknessBands(const ThicknessBandArgs& args) {
    if (!RenderOtfSlice(*args.volume, args.planeToVoxel, *args.image, args.plane, args.clip, args.colourIndex,
                        args.valueIndex, *args.tableOwner))
        return false;
    const int width = args.plane.width, height = args.plane.height;
    if (width <= 0 || height <= 0 || (args.insideThickness <= 0 && args.outsideThickness <= 0)) return true;

    zrobjects::FrameBuffer* buffer = args.image->GetFrameBuffer(1, args.colourIndex);
    uint32_t* pixels = static_cast<uint32_t*>(buffer->pixels);
    const int pitch = buffer->width;

    // Visible region as an 8-bit mask, then its eroded and dilated forms.
    const size_t count = static_cast<size_t>(width) * height;
    std::vector<uint8_t> visible(count), eroded(count), dilated(count);
    ParallelFor(0, height, [&](int y) {
        for (int x = 0; x < width; ++x) {
            const uint32_t p = pixels[static_cast<size_t>(y) * pitch + x];
            visible[static_cast<size_t>(y) * width + x] = ((p >> 24) == 255u && (p & 0xffffffu) != 0u) ? 255 : 0;
        }
    });
    const bool inside = args.insideThickness > 0 &&
                        MorphErosionFilter2D(visible.data(), eroded.data(), width, height, args.insideThickness);
    const bool outside = args.outsideThickness > 0 &&
                         MorphDilationFilter2D(visible.data(), dilated.data(), width, height, args.outsideThickness);

    ParallelFor(0, height, [&](int y) {
        for (int x = 0; x < width; ++x) {
            const size_t m = static_cast<size_t>(y) * width + x;
            uint32_t& p = pixels[static_cast<size_t>(y) * pitch + x];
            if (visible[m]) {
                if (inside && !eroded[m]) p = MixHalf(p, kInsideBandColour);
            } else if (outside && dilated[m]) {
                p = kOutsideBandColour;
            }
        }
    });
    return true;
}

}  // namespace zrvolume
