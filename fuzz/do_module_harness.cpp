#include "fuzz/do_module_harness.h"

#include <any>
#include <array>
#include <cmath>
#include <memory>
#include <stdexcept>
#include <string>
#include <typeinfo>
#include <vector>

#include "fuzz/request_encoding.h"
#include "host/image_builder.h"
#include "host/mesh_builder.h"
#include "host/plugin_interface.h"
#include "host/table_builder.h"
#include "host/volume_builder.h"
#include "host/zrobjects.h"

namespace zrfuzz {

namespace {

using namespace zrobjects;

// Small on purpose: one input should take milliseconds.
const std::array<SectionView, 4>& Views() {
    static const std::array<SectionView, 4> views = [] {
        std::array<SectionView, 4> v;
        v[0].centre = {8.0, 7.0, 6.0};  // axial through the middle of the ramp
        v[0].pixelSpacing = {0.75, 0.75};
        v[0].size = {32, 24};
        v[1].centre = {6.0, 8.0, 5.0};  // oblique
        v[1].viewDirection = glm::normalize(glm::dvec3(1.0, 2.0, 2.0));
        v[1].up = {0.0, 0.0, 1.0};
        v[1].pixelSpacing = {0.6, 0.8};
        v[1].size = {40, 30};
        v[2].centre = {8.0, 7.0, 6.0};  // sagittal, coarse, partly outside
        v[2].viewDirection = {1.0, 0.0, 0.0};
        v[2].up = {0.0, 0.0, 1.0};
        v[2].pixelSpacing = {2.5, 2.5};
        v[2].size = {16, 16};
        v[3].centre = {40.0, -30.0, 6.0};  // beside the objects
        v[3].size = {8, 5};
        return v;
    }();
    return views;
}

// Object placements (object-to-world) an input may choose for all entries.
glm::mat4 Placement(int index) {
    switch (index % 4) {
        case 1: return glm::mat4(glm::vec4(0.0f, 1.0f, 0.0f, 0.0f), glm::vec4(-1.0f, 0.0f, 0.0f, 0.0f),
                                 glm::vec4(0.0f, 0.0f, 1.0f, 0.0f), glm::vec4(14.0f, 0.0f, 0.0f, 1.0f));
        case 2: return glm::mat4(glm::vec4(1.5f, 0.0f, 0.0f, 0.0f), glm::vec4(0.0f, 0.5f, 0.0f, 0.0f),
                                 glm::vec4(0.0f, 0.0f, 2.0f, 0.0f), glm::vec4(-3.0f, 2.0f, -4.0f, 1.0f));
        case 3: return glm::mat4(glm::vec4(-1.0f, 0.0f, 0.0f, 0.0f), glm::vec4(0.0f, 1.0f, 0.0f, 0.0f),
                                 glm::vec4(0.0f, 0.0f, 1.0f, 0.0f), glm::vec4(16.0f, 0.0f, 0.0f, 1.0f));
        default: return glm::mat4(1.0f);
    }
}

struct FixedScene {
    std::array<std::shared_ptr<ZrVObject>, kSlotCount> objects;
    std::array<ParamMap, kSlotCount> ownParams;  // as built, restored before each input
    std::vector<std::shared_ptr<ZrObject>> keep;  // tables and the mask

    FixedScene() {
        // 16 x 14 x 12 ramp with a bright one-voxel spike; the mask labels run
        // 0..3 with one voxel of label 200 (tables expose 256 readable rows).
        const glm::ivec3 dims(16, 14, 12);
        std::vector<uint16_t> ramp;
        std::vector<uint8_t> labels;
        for (int z = 0; z < dims.z; ++z)
            for (int y = 0; y < dims.y; ++y)
                for (int x = 0; x < dims.x; ++x) {
                    ramp.push_back(static_cast<uint16_t>(100 + 40 * x + 15 * y + 90 * z));
                    labels.push_back(static_cast<uint8_t>((x / 4 + y / 5) % 4));
                }
        ramp[(6 * dims.y + 7) * dims.x + 8] = 65535;
        labels[(3 * dims.y + 3) * dims.x + 3] = 200;
        VolumeGeometry geometry;
        geometry.spacing = {1.0, 1.0, 1.25};
        auto rampVolume = MakeVolume<uint16_t>(ramp, dims, geometry);
        auto mask = MakeVolume<uint8_t>(labels, dims, geometry);
        const std::vector<uint32_t> grey = WindowTableEntries(1000.0, 1600.0);
        auto windowing = MakeTableObject({grey, std::vector<uint32_t>(grey.size(), PackEntry(255, 0, 0, 128)),
                                          std::vector<uint32_t>(grey.size(), PackEntry(0, 0, 255, 255))});
        auto opacity = MakeTableObject({ControlPointTableEntries(
            {{200.0, 0.0, 0.0, 0.0, 0.0}, {900.0, 1.0, 0.8, 0.6, 0.5}, {2000.0, 1.0, 1.0, 1.0, 1.0}}, 4096)});
        rampVolume->SetTableObject("WINDOWING", windowing);
        rampVolume->SetTableObject("OTF", opacity);
        rampVolume->SetTableObject("MASKVOLUME", mask);
        rampVolume->SetObjParam("_float2_GraidentMagMinMax", glm::vec2(0.0f, 200.0f));

        std::vector<char> signedVoxels;
        for (int i = 0; i < 10 * 9 * 8; ++i) signedVoxels.push_back(static_cast<char>((i * 37) % 256 - 128));
        auto charVolume = MakeVolume<char>(signedVoxels, {10, 9, 8});
        charVolume->SetTableObject("WINDOWING", MakeTableObject({WindowTableEntries(0.0, 200.0, 256)}));

        std::vector<float> dose;
        for (int z = 0; z < 8; ++z)
            for (int y = 0; y < 8; ++y)
                for (int x = 0; x < 8; ++x) dose.push_back(std::exp(-0.1f * float((x - 4) * (x - 4) + (y - 3) * (y - 3) + z)));
        VolumeGeometry doseGeometry;
        doseGeometry.spacing = {2.0, 2.0, 2.0};
        auto floatVolume = MakeVolume<float>(dose, {8, 8, 8}, doseGeometry);
        floatVolume->SetTableObject("WINDOWING", MakeTableObject({WindowTableEntries(0.5, 1.0)}));

        objects = {rampVolume,
                   charVolume,
                   floatVolume,
                   MakeMeshPrimitive(MakeSphereArrays(5.0, 8, 12, {8.0, 7.0, 6.0})),
                   MakeMeshPrimitive(MakeTorusArrays(6.0, 1.5, 12, 6, {6.0, 8.0, 6.5})),
                   MakeMeshPrimitive([] {
                       MeshArrays points;
                       points.topology = zrenums::EzrPrimitiveTopology_Points;
                       for (int i = 0; i < 12; ++i) {
                           points.positions.insert(points.positions.end(),
                                                   {float(i), float(i % 5) * 3.0f, 6.0f + float(i % 3)});
                           points.normals.insert(points.normals.end(), {0.0f, 1.0f, float(i % 2)});
                       }
                       return points;
                   }())};
        keep = {windowing, opacity, mask};
        for (int s = 0; s < kSlotCount; ++s) ownParams[s] = objects[s]->Params();
    }
};

FixedScene& Scene() {
    static FixedScene scene;
    return scene;
}

void ApplyRecord(const ParamRecord& record, ModuleRequest& request, ZrIObject& image, FixedScene& scene) {
    std::any value = record.value;
    // Small target ids name the scene's objects, so that iso lines find one.
    if (record.key == "_int_TargetVolumeObjectID" && value.type() == typeid(int32_t)) {
        const int32_t slot = std::any_cast<int32_t>(value);
        if (slot >= 0 && slot < kSlotCount) value = scene.objects[slot]->GetObjectID();
    }
    const int slot = record.entry % kSlotCount;
    switch (record.target) {
        case ParamTarget::Request: request.params[record.key] = value; break;
        case ParamTarget::Image: image.SetObjParam(record.key, value); break;
        case ParamTarget::SceneEntry: request.scene[slot].params[record.key] = value; break;
        case ParamTarget::Object: scene.objects[slot]->SetObjParam(record.key, value); break;
        case ParamTarget::Count: break;
    }
}

}  // namespace

int ViewCount() { return static_cast<int>(Views().size()); }

int RunDoModuleInput(const uint8_t* data, size_t size) {
    static const bool initialised = InitModule();
    (void)initialised;
    FixedScene& scene = Scene();
    const DecodedInput input = DecodeInput(data, size);

    for (int s = 0; s < kSlotCount; ++s) scene.objects[s]->Params() = scene.ownParams[s];
    std::shared_ptr<ZrIObject> image = MakeSectionImage(Views()[input.view % Views().size()]);
    ModuleRequest request;
    const glm::mat4 toWorld = Placement(input.placement);
    for (int s = 0; s < kSlotCount; ++s) {
        SceneEntry entry;
        entry.object = scene.objects[s].get();
        entry.enabled = (input.enabledMask >> s) & 1;
        entry.colour = glm::vec3(0.2f * float(s), 1.0f - 0.15f * float(s), 0.5f);
        entry.objectToWorld = toWorld;
        entry.worldToObject = glm::inverse(toWorld);
        request.scene.push_back(entry);
    }

    for (const std::vector<ParamRecord>& records : input.requests) {
        request.params.clear();
        request.params["_ZrIObject*_RenderOut"] = image.get();
        if (input.source != kNoSourceKey) request.params["_string_RenderingSourceType"] = SourceChoices()[input.source];
        for (const ParamRecord& record : records) ApplyRecord(record, request, *image, scene);
        try {
            DoModule(&request);
        } catch (const std::bad_any_cast&) {
            // A parameter stored with the wrong type: the module's documented answer.
        } catch (const std::out_of_range& e) {
            // An empty grey-level curve fails the curve's checked element access,
            // which also leaves DoModule by design. Any other range error is a bug.
            if (std::string(e.what()) != "invalid vector subscript") throw;
        }
    }
    return 0;
}

}  // namespace zrfuzz
