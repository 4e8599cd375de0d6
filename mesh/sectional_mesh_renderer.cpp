#include "sectional_mesh_renderer.h"

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include <glm/glm.hpp>

#include "common/frame_buffer_descriptors.h"
#include "common/matrix_record.h"
#include "common/parallel_bytes.h"
#include "common/param_reads.h"
#include "host/zr_camera.h"
#include "host/zr_image.h"
#include "mesh/bvh/tracked_heap.h"
#include "mesh/clip_setup.h"
#include "mesh/curved_surface_cut.h"
#include "mesh/line_drawing.h"
#include "mesh/plane_cut.h"
#include "mesh/point_set_drawing.h"
#include "mesh/smoothing.h"
#include "mesh/smoothing_kernel.h"
#include "platform/os_services.h"

namespace zrmesh {

using zrcommon::kAntialiasingDescriptor;
using zrcommon::kDepthDescriptor;
using zrcommon::kRenderBackupDescriptor;
using zrcommon::kRenderOutDescriptor;
using zrcommon::ReadList;
using zrcommon::ReadObjParam;
using zrcommon::ReadParam;
using zrcommon::ReadPointer;
using zrcommon::ToMatrixRecord;
using zrcommon::TransformPoint;
using zrobjects::FrameBuffer;

namespace {

constexpr const char* kMeshDescriptor = "CPU Mesh Slicer By Orrik 2022.03.12";

constexpr int kRenderOut = zrenums::EzrFrameBufferUsage_RenderOut;
constexpr int kDepth = zrenums::EzrFrameBufferUsage_Depth;
constexpr int kCustom = zrenums::EzrFrameBufferUsage_Custom;

// Room made in the segment list before each object.
constexpr size_t kCrossLineReserve = 30000;

// Every byte of the depth buffer is set to this before a chain starts: each
// float then reads about 5.0192e33, the depth of "nothing hit".
constexpr int kNothingHitByte = 0x77;

uint32_t* Pixels(FrameBuffer* buffer) { return static_cast<uint32_t*>(buffer->pixels); }

glm::mat4 ThreeFactorProduct(const glm::dmat4& first, const glm::dmat4& second, const glm::dmat4& third) {
    return glm::mat4(zrobjects::ComposeApplied(first, second, third));
}

WorldClip ReadWorldClip(zrobjects::ZrObject& object) {
    WorldClip clip;
    if (ReadObjParam<bool>(object, "_bool_ClipFree", false)) return clip;
    const int mode = ReadObjParam<int>(object, "_int_ClippingMode", 0);
    clip.clipPlane = (mode & 1) != 0;
    clip.clipBox = (mode & 2) != 0;
    clip.planePoint = ReadObjParam<glm::vec3>(object, "_float3_PosClipPlaneWS", glm::vec3(0.0f));
    clip.planeNormal = ReadObjParam<glm::vec3>(object, "_float3_VecClipPlaneWS", glm::vec3(0.0f, 0.0f, 1.0f));
    clip.worldToBox = ReadObjParam<glm::mat4>(object, "_matrix44f_MatrixClipWS2BS", glm::mat4(0.0f));
    return clip;
}

// Depth 0 where the target's alpha byte is not zero; elsewhere the nothing-hit
// fill when `fill` is set (a chain starts here), the depth as it was otherwise.
void MarkDepth(const uint32_t* target, float* depth, size_t pixelCount, bool fill) {
    float nothingHit;
    std::memset(&nothingHit, kNothingHitByte, sizeof nothingHit);
    constexpr int64_t kChunk = 16384;
    const int64_t chunks = (static_cast<int64_t>(pixelCount) + kChunk - 1) / kChunk;
#pragma omp parallel for schedule(dynamic, 1) if (pixelCount * sizeof(float) >= zrcommon::kParallelBytes)
    for (int64_t c = 0; c < chunks; ++c) {
        const size_t begin = static_cast<size_t>(c * kChunk);
        const size_t end = std::min(pixelCount, begin + kChunk);
        if (fill) {
            for (size_t i = begin; i < end; ++i) depth[i] = (target[i] >> 24) != 0 ? 0.0f : nothingHit;
        } else {
            for (size_t i = begin; i < end; ++i)
                if ((target[i] >> 24) != 0) depth[i] = 0.0f;
        }
    }
}

}  // namespace

bool RenderSectionalMesh(zrobjects::ModuleRequest& request) {
    const zrobjects::ParamMap& params = request.params;

    // The image object is required and deliberately not tested for null.
    zrobjects::ZrIObject& image = *ReadPointer<zrobjects::ZrIObject*>(params, "_ZrIObject*_RenderOut");
    const bool skipPlaneRenderer = ReadObjParam<bool>(image, "_bool_SkipSrOnPlaneRenderer", false);
    const bool isFirst = ReadParam<bool>(params, "_bool_IsFirstRenderer", false);
    const bool isFinal = ReadParam<bool>(params, "_bool_IsFinalRenderer", false);
    const bool getCrossLines = ReadParam<bool>(params, "_bool_GetCrossLines", false);
    const bool antialiasing = ReadParam<bool>(params, "_bool_ApplyAntialiasing", false);
    const bool rgba = ReadParam<bool>(params, "_bool_IsRGBA", false);
    const bool nonlinear = ReadParam<bool>(params, "_bool_IsNonlinear", false);
    const int lineThickness = ReadParam<int>(params, "_int_LineThickness", 1);
    const float sphereRadius = static_cast<float>(ReadParam<double>(params, "_double_SphereRadius", 0.3));
    const float zoominRadius = static_cast<float>(ReadParam<double>(params, "_double_ZoominRadius", 3.0));
    const bool directDrawing = !isFirst && !skipPlaneRenderer;

    // Frame buffers: the two render-out buffers, the smoothing scratch, and a
    // fresh depth buffer.
    const zrobjects::data_type colourType = zrobjects::MakeDataType<zrobjects::color4>();
    if (!image.GetFrameBuffer(kRenderOut, 0)) image.InsertFrameBuffer(colourType, kRenderOut, kRenderOutDescriptor);
    if (!image.GetFrameBuffer(kRenderOut, 1)) image.InsertFrameBuffer(colourType, kRenderOut, kRenderBackupDescriptor);
    const SmoothingKernel* kernel = nullptr;
    if (antialiasing) {
        if (!image.GetFrameBuffer(kCustom, 0)) image.InsertFrameBuffer(colourType, kCustom, kAntialiasingDescriptor);
        const int kernelRadius = ReadParam<int>(params, "_int_KernelRadius", 3);
        const float sigma = static_cast<float>(ReadParam<double>(params, "_double_Sigma", 1.0));
        kernel = &BuildSmoothingKernel(kernelRadius, sigma);
    }
    const zrobjects::data_type depthType = zrobjects::MakeDataType<float>();
    if (!image.ReplaceFrameBuffer(kDepth, 0, depthType, kDepthDescriptor))
        image.InsertFrameBuffer(depthType, kDepth, kDepthDescriptor);
    glm::ivec2 size(0);
    image.GetFrameBufferInfo(&size, nullptr, nullptr);
    const int width = size.x, height = size.y;
    const size_t pixelCount = static_cast<size_t>(width) * height;

    FrameBuffer* renderOut = image.GetFrameBuffer(kRenderOut, 0);
    FrameBuffer* backup = image.GetFrameBuffer(kRenderOut, 1);
    image.GetFrameBuffer(kRenderOut, 2);  // asked for by the chain protocol, not used here
    FrameBuffer* depth = image.GetFrameBuffer(kDepth, 0);

    if (request.scene.empty()) {
        if (skipPlaneRenderer && isFinal) std::memset(renderOut->pixels, 0, pixelCount * 4);
        image.SetObjParam("_bool_SkipSrOnPlaneRenderer", true);
        return true;
    }
    image.SetObjParam("_bool_SkipSrOnPlaneRenderer", false);

    // Starting a chain, the depth buffer is filled with the nothing-hit bytes
    // and the target cleared. Nothing before the depth marking at the end
    // reads or writes the depth buffer, so the fill is made there, in the same
    // pass (the depth of every pixel written once).
    uint32_t* target = Pixels(renderOut);
    if (!directDrawing) {
        target = Pixels(backup);
        zrcommon::ParallelWriteBytes({{target, nullptr, pixelCount * 4}});
    }

    const int64_t ticksPerSecond = platform::TimerFrequency();
    const int64_t startTicks = platform::TimerTicks();
    zrobjects::ZrCObject* camera = image.GetCameraObject();
    if (!camera) {
        if (!directDrawing) zrcommon::ParallelWriteBytes({{depth->pixels, nullptr, pixelCount * 4, kNothingHitByte}});
        return false;
    }

    CurvedSurface surface;
    if (nonlinear) {
        const float planeWidth = ReadParam<float>(params, "_float_ExPlaneWidth", 1.0f);
        const float planeHeight = ReadParam<float>(params, "_float_ExPlaneHeight", 1.0f);
        const float positionRange = ReadParam<float>(params, "_float_CurveThicknessPositionRange", 0.0f);
        const float thicknessRatio = ReadParam<float>(params, "_float_ThicknessRatio", 1.0f);
        const bool rightSide = ReadParam<bool>(params, "_bool_IsRightSide", false);
        using Vec3List = std::vector<glm::vec3>;
        const Vec3List* points = ReadList<Vec3List>(params, "_vlist_FLOAT3_CurveInterpolations");
        const Vec3List* ups = ReadList<Vec3List>(params, "_vlist_FLOAT3_CurveUpVectors");
        const Vec3List* tangents = ReadList<Vec3List>(params, "_vlist_FLOAT3_CurveTangentVectors");
        // One entry per sample is expected; a shorter list limits the samples so
        // that nothing is read past an array.
        int32_t samples = 0;
        if (points && ups && tangents)
            samples = static_cast<int32_t>(std::min({points->size(), ups->size(), tangents->size()}));
        const float halfThickness = positionRange * thicknessRatio * 0.5f;
        surface = BuildCurvedSurface(points ? points->data() : nullptr, ups ? ups->data() : nullptr,
                                     tangents ? tangents->data() : nullptr, samples, planeWidth, planeHeight,
                                     halfThickness, rightSide, image);
    }

    // Camera frame and the screen transforms.
    glm::vec3 position, viewDirection, up;
    camera->GetCameraExtStatef(position, viewDirection, up);
    const glm::vec3 right = glm::cross(viewDirection, up);
    glm::dmat4 f0, f1, f2;
    camera->GetMatrixWStoSS(f0, f1, f2);
    const glm::mat4 worldToScreen = ThreeFactorProduct(f0, f1, f2);
    camera->GetMatrixSStoWS(f0, f1, f2);
    const glm::mat4 screenToWorld = ThreeFactorProduct(f0, f1, f2);

    request.results.erase("_vlist_FLOAT_CrossLines");
    request.results.erase("_vlist_FLOAT3_CrossLineObjColor");
    request.results.erase("_vlist_INT_CrossLineObjCount");

    std::vector<float> crossLines;
    std::vector<glm::vec3> objectColours;
    std::vector<int32_t> objectCounts;
    std::vector<int32_t> objectIds;
    std::vector<float>* lineList = getCrossLines ? &crossLines : nullptr;
    // Whether anything may have been drawn into the target: plane cuts that
    // collect cross lines draw nothing.
    bool drewPixels = false;

    for (const zrobjects::SceneEntry& entry : request.scene) {
        zrobjects::ZrVObject* object = entry.object;
        if (!object || object->GetObjectType() != zrenums::EzrObjectType_Primitive || !object->IsDefined() ||
            !entry.enabled)
            continue;
        auto& primitive = static_cast<zrobjects::ZrVObjectPrimitive&>(*object);
        const zrobjects::PrimitiveData& data = *primitive.GetPrimitiveData();
        const auto* tree = static_cast<const zrbvh::BvhTree*>(primitive.GetBVHTree());

        const uint32_t colour = PackColour(entry.colour, rgba);
        const WorldClip worldClip = ReadWorldClip(primitive);
        const MeshClipState clip = MakeScreenClipState(worldClip, worldToScreen, screenToWorld);
        const size_t floatsBefore = crossLines.size();

        if (!nonlinear || data.topology != zrenums::EzrPrimitiveTopology_Triangles) {
            const glm::mat4 objectToScreen = worldToScreen * entry.objectToWorld;
            // The view plane in object space: the camera position and the
            // (unnormalised) cross product of the up and right directions taken
            // into the object.
            const zrcommon::Matrix16 toObject = ToMatrixRecord(entry.worldToObject);
            const glm::vec3 p = TransformPoint(toObject, position);
            const glm::vec3 pu = TransformPoint(toObject, position + up);
            const glm::vec3 pr = TransformPoint(toObject, position + right);
            const glm::vec3 planeNormal = glm::cross(pu - p, pr - p);
            if (data.topology == zrenums::EzrPrimitiveTopology_Triangles) {
                if (getCrossLines) crossLines.reserve(kCrossLineReserve);
                SegmentTarget segmentTarget;
                segmentTarget.pixels = target;
                segmentTarget.width = width;
                segmentTarget.height = height;
                segmentTarget.colour = colour;
                segmentTarget.thickness = lineThickness;
                segmentTarget.clip = clip;
                segmentTarget.crossLines = lineList;
                CutMeshWithPlane(p, planeNormal, data, tree, ToMatrixRecord(objectToScreen), segmentTarget);
                drewPixels = drewPixels || !getCrossLines;
            } else if (data.topology == zrenums::EzrPrimitiveTopology_Points) {
                drewPixels = true;
                DrawPointSet(data, sphereRadius, zoominRadius, objectToScreen, target, width, height, colour,
                             screenToWorld);
            }
        } else {
            if (getCrossLines) crossLines.reserve(kCrossLineReserve);
            drewPixels = true;
            CutMeshWithCurvedSurface(data, tree, worldClip, entry.objectToWorld, surface, target, width, height,
                                     colour, lineThickness, entry.worldToObject, lineList);
        }

        if (getCrossLines) {
            const size_t segments = (crossLines.size() - floatsBefore) / 4;
            if (segments != 0) {
                objectColours.push_back(entry.colour);
                objectCounts.push_back(static_cast<int32_t>(segments));
                objectIds.push_back(object->GetObjectID());
            }
        }
    }

    // Empty lists are not written, so an earlier value on the image stays.
    if (!crossLines.empty()) image.SetObjParam("_vlist_FLOAT_CrossLines", crossLines);
    if (!objectColours.empty()) image.SetObjParam("_vlist_FLOAT3_CrossLineObjColor", objectColours);
    if (!objectCounts.empty()) image.SetObjParam("_vlist_INT_CrossLineObjCount", objectCounts);
    if (!objectIds.empty()) image.SetObjParam("_vlist_INT_CrossLineObjID", objectIds);

    if (nonlinear) FinishCurvedSurface(surface);

    if (antialiasing) {
        // The custom buffer 0 is the scratch image. Another renderer of the chain
        // may already hold a narrower buffer there (16-bit values); it is left
        // alone and a scratch image of the module's own is used instead.
        FrameBuffer* custom = image.GetFrameBuffer(kCustom, 0);
        const bool customFits = custom && custom->elementType.size >= 4 && custom->width == width &&
                                custom->height >= height;
        uint32_t* scratch = customFits ? Pixels(custom)
                                       : static_cast<uint32_t*>(zrbvh::Allocate(pixelCount * 4 + 4));
        SmoothImage(target, scratch, width, height, *kernel);
        std::memcpy(target, scratch, pixelCount * 4);
        if (!customFits) zrbvh::Free(scratch);
    }

    // Every drawn pixel (alpha byte non-zero) lies on the section: depth 0.
    if (!directDrawing && !drewPixels && !antialiasing)
        zrcommon::ParallelWriteBytes({{depth->pixels, nullptr, pixelCount * 4, kNothingHitByte}});  // target all clear
    else
        MarkDepth(target, static_cast<float*>(depth->pixels), pixelCount, !directDrawing);

    if (isFinal && !directDrawing) zrcommon::ParallelWriteBytes({{renderOut->pixels, target, pixelCount * 4}});

    const double elapsedSeconds =
        static_cast<double>(platform::TimerTicks() - startTicks) / static_cast<double>(ticksPerSecond);
    (void)elapsedSeconds;  // measured, deliberately not reported
    image.SetDescriptor(kMeshDescriptor);
    return true;
}

}  // namespace zrmesh
