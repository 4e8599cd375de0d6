#include "volume_selection.h"

#include <cstdio>

#include "common/param_reads.h"

namespace zrvolume {

using zrcommon::ReadObjParam;
using zrcommon::ReadParam;
using zrcommon::SliceClipState;
using zrcommon::ToMatrixRecord;

std::vector<SelectedVolume> SelectVolumes(const zrobjects::ModuleRequest& request) {
    std::vector<SelectedVolume> selected;
    for (const zrobjects::SceneEntry& entry : request.scene) {
        if (!entry.object || entry.object->GetObjectType() != zrenums::EzrObjectType_Volume) continue;
        if (!entry.object->IsDefined() || !entry.enabled) continue;
        auto* volume = dynamic_cast<zrobjects::ZrVObjectVolume*>(entry.object);
        if (!volume) continue;
        SelectedVolume s;
        s.volume = volume;
        s.entry = &entry;
        s.voxelToWorld = entry.objectToWorld * volume->GetMatrixOS2RSf();
        s.worldToVoxel = volume->GetMatrixRS2OSf() * entry.worldToObject;
        selected.push_back(s);
    }
    if (selected.size() > 1) {
        std::printf("WARNNING!! Current version does not support multi-volume rendering\n");
        std::fflush(stdout);
    }
    return selected;
}

namespace {

glm::vec3 Apply(const glm::mat4& m, const glm::vec3& p) {
    const glm::vec4 q = m * glm::vec4(p, 1.0f);
    return glm::vec3(q) / q.w;
}

}  // namespace

SliceClipState BuildClipState(const SelectedVolume& selected) {
    SliceClipState clip;
    if (ReadObjParam<bool>(*selected.volume, "_bool_ClipFree", false)) return clip;

    const auto& p = selected.entry->params;
    const int mode = ReadParam<int>(p, "_int_ClippingMode", 0);
    const glm::vec3 pointWorld = ReadParam<glm::vec3>(p, "_float3_PosClipPlaneWS", glm::vec3(0.0f));
    const glm::vec3 normalWorld = glm::normalize(ReadParam<glm::vec3>(p, "_float3_VecClipPlaneWS", glm::vec3(0, 0, 1)));
    const glm::mat4 worldToBox = ReadParam<glm::mat4>(p, "_matrix44f_MatrixClipWS2BS", glm::mat4(0.0f));
    clip.clipPlane = (mode & 1) != 0;
    clip.clipBox = (mode & 2) != 0;

    // Two in-plane axes, carried into voxel space with the plane point; their
    // cross product is the voxel-space normal (a mirroring placement turns it,
    // so the sign of the determinant turns it back).
    glm::vec3 axisA = glm::cross(normalWorld, glm::vec3(1.0f));
    if (glm::dot(axisA, axisA) < 0.0001f) axisA = glm::cross(normalWorld, glm::vec3(0.0f, 1.0f, 1.0f));
    axisA = glm::normalize(axisA);
    const glm::vec3 axisB = glm::normalize(glm::cross(axisA, normalWorld));  // axisB x axisA = normal
    const glm::vec3 q = Apply(selected.worldToVoxel, pointWorld);
    const glm::vec3 a = Apply(selected.worldToVoxel, pointWorld + axisA) - q;
    const glm::vec3 b = Apply(selected.worldToVoxel, pointWorld + axisB) - q;
    const float handedness = glm::determinant(glm::mat3(selected.worldToVoxel)) < 0.0f ? -1.0f : 1.0f;
    clip.planePoint = q;
    clip.planeNormal = handedness * glm::normalize(glm::cross(b, a));
    clip.boxMatrix = ToMatrixRecord(worldToBox * selected.voxelToWorld);
    return clip;
}

}  // namespace zrvolume
