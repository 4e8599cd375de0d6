#include "slab_compositing.h"

#include <any>
#include <cmath>

namespace zrvolume {

using zrcommon::TruncateToInt32;

CompositingShading MakeCompositingShading(zrobjects::ZrObject& volume, const glm::vec4& phong,
                                          bool gradientMagnitude, const glm::vec3& viewDirectionVoxel) {
    CompositingShading shading;
    shading.ambient = phong.x;
    shading.diffuse = phong.y;
    shading.specular = phong.z;
    shading.exponent = phong.w;

    const float length = glm::length(viewDirectionVoxel);
    shading.lightDirection = length > 2.220446e-16f ? viewDirectionVoxel / length : glm::vec3(0.0f);

    if (gradientMagnitude) {
        bool found = false;
        const std::any& value = volume.GetObjParamA("_float2_GraidentMagMinMax", found);
        if (found) {
            // A stored value of another type is the caller's error and leaves here.
            const glm::vec2 range = std::any_cast<const glm::vec2&>(value);
            if (std::isfinite(range.y) && range.y > 0.0f) {
                shading.magnitudeWeighted = true;
                shading.magnitudeScale = range.y;
            }
        }
    }
    return shading;
}

namespace {

// trunc(x * 255) limited to 0..255 (a not-a-number gives 0).
uint32_t LimitedByte(float x) {
    const int32_t b = TruncateToInt32(x * 255.0f);
    return static_cast<uint32_t>(b < 0 ? 0 : (b > 255 ? 255 : b));
}

}  // namespace

uint32_t CompositedPixel(const CompositeAccumulator& acc, bool channelSwitch, bool covered) {
    const uint32_t opacityByte = LimitedByte(acc.opacity);
    const float a = static_cast<float>(opacityByte) / 255.0f;
    uint32_t bytes[3];
    for (int c = 0; c < 3; ++c)
        bytes[c] = static_cast<uint32_t>(TruncateToInt32(static_cast<float>(LimitedByte(acc.channel[c])) * a));
    const uint32_t first = channelSwitch ? bytes[0] : bytes[2];
    const uint32_t third = channelSwitch ? bytes[2] : bytes[0];
    return first | (bytes[1] << 8) | (third << 16) | (covered ? 0xff000000u : 0u);
}

bool ResolveThickSectionTarget(zrobjects::ZrIObject& image, int colourIndex, int valueIndex, int width,
                               int height, ThickSectionTarget& target) {
    zrobjects::FrameBuffer* colour = image.GetFrameBuffer(zrenums::EzrFrameBufferUsage_RenderOut, colourIndex);
    if (colour == nullptr || colour->pixels == nullptr || colour->elementType.size != 4) return false;
    if (width > colour->width || height > colour->height) return false;
    target.colour = static_cast<uint32_t*>(colour->pixels);
    target.pitch = colour->width;
    target.values = nullptr;
    if (valueIndex >= 0) {
        zrobjects::FrameBuffer* values = image.GetFrameBuffer(zrenums::EzrFrameBufferUsage_Custom, valueIndex);
        if (values != nullptr && values->pixels != nullptr && values->elementType.size == 2 &&
            values->width == colour->width && values->height >= height)
            target.values = static_cast<uint16_t*>(values->pixels);
    }
    return true;
}

}  // namespace zrvolume
