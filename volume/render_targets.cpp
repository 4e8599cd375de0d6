#include "render_targets.h"

#include <cstdint>
#include <vector>

#include "common/frame_buffer_descriptors.h"
#include "common/parallel_bytes.h"

namespace zrvolume {

namespace {

void EnsureBuffer(zrobjects::ZrIObject& image, int usage, int index, const zrobjects::data_type& type,
                  const char* descriptor) {
    if (!image.GetFrameBuffer(usage, index)) image.InsertFrameBuffer(type, usage, descriptor);
}

}  // namespace

RenderTargets PrepareRenderTargets(const VolumeRenderSettings& settings, zrobjects::ZrIObject& image) {
    RenderTargets targets;
    targets.blending =
        !settings.isFirstRenderer && !(settings.skipSrOnPlaneRenderer && settings.skipMeshCuttingRenderer);
    targets.targetIndex = targets.blending ? 2 : 1;

    glm::ivec2 size(0);
    image.GetFrameBufferInfo(&size, nullptr, nullptr);
    targets.width = size.x;
    targets.height = size.y;

    const auto colour = zrobjects::MakeDataType<zrobjects::color4>();
    const auto sample = zrobjects::MakeDataType<uint16_t>();
    EnsureBuffer(image, 1, 0, colour, zrcommon::kRenderOutDescriptor);
    EnsureBuffer(image, 1, 1, colour, zrcommon::kRenderBackupDescriptor);
    if (targets.blending) EnsureBuffer(image, 1, 2, colour, zrcommon::kRenderBackupDescriptor);
    if (settings.storeSampleValues) {
        EnsureBuffer(image, 3, 0, sample, zrcommon::kSampleOutDescriptor);
        if (settings.fastQualityMode) EnsureBuffer(image, 3, 1, sample, zrcommon::kSampleBackDescriptor);
    }

    const size_t pixels = static_cast<size_t>(targets.width) * targets.height;
    std::vector<zrcommon::ByteRange> clears{{image.GetFrameBuffer(1, targets.targetIndex)->pixels, nullptr, pixels * 4}};
    for (int index = 0; zrobjects::FrameBuffer* buffer = image.GetFrameBuffer(3, index); ++index)
        clears.push_back({buffer->pixels, nullptr, pixels * 2});
    zrcommon::ParallelWriteBytes(clears);
    return targets;
}

int SampleBufferIndex(const VolumeRenderSettings& settings, bool reducedImage) {
    if (!settings.storeSampleValues) return -1;
    return reducedImage ? 1 : 0;
}

}  // namespace zrvolume
