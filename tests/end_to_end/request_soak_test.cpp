// Many mixed requests on one image, as a host that keeps the module loaded for
// a whole session sends them: thin slices, slabs, shaded compositing, fast
// mode, the blending chain, mask tables, curved reformation, iso lines drawn
// and returned, float volumes, thickness bands, and mesh cuts drawn, returned
// as lists, antialiased and as point sets. The process's memory stays flat once
// warmed up, every request kind gives the same bytes each time it runs, and the
// module's tracked heap holds nothing but the cached smoothing kernel between
// requests.
#include <gtest/gtest.h>

#include <algorithm>
#include <any>
#include <array>
#include <cstdint>
#include <cstring>
#include <functional>
#include <iostream>
#include <map>
#include <memory>
#include <string>
#include <vector>

#if defined(__linux__)
#include <unistd.h>

#include <fstream>
#endif

#include "host/image_builder.h"
#include "host/mesh_builder.h"
#include "host/phantoms.h"
#include "host/plugin_loader.h"
#include "host/table_builder.h"
#include "host/zrobjects.h"
#include "mesh/bvh/tracked_heap.h"
#include "mesh/smoothing_kernel.h"
#include "module/dispatch.h"
#include "platform/morphology.h"

using namespace zrobjects;

namespace {

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kSanitized = true;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
constexpr bool kSanitized = true;
#else
constexpr bool kSanitized = false;
#endif
#else
constexpr bool kSanitized = false;
#endif

// Sanitized builds run every request several times slower; a quarter of the
// requests still goes round every kind many times.
constexpr int kRequestCount = kSanitized ? 250 : 1000;
// Resident memory may move by a few pages (allocator arenas, OpenMP stacks
// touched later), but a request that leaked even its smallest list would add
// more than this over the run.
constexpr int64_t kResidentGrowthBound = 2 << 20;

PluginModule& Plugin() {
    static PluginModule plugin(ZR_PLUGIN_PATH);
    static const bool initialised = plugin.initModule();
    (void)initialised;
    return plugin;
}

// Resident bytes of this process; -1 where the system does not say.
int64_t ResidentBytes() {
#if defined(__linux__)
    std::ifstream statm("/proc/self/statm");
    int64_t sizePages = 0, residentPages = -1;
    if (!(statm >> sizePages >> residentPages)) return -1;
    return residentPages * static_cast<int64_t>(sysconf(_SC_PAGESIZE));
#else
    return -1;
#endif
}

// FNV-1a over byte ranges: a fingerprint of a request's whole output.
struct Fingerprint {
    uint64_t value = 0xcbf29ce484222325ull;
    void Add(const void* data, size_t bytes) {
        for (size_t i = 0; i < bytes; ++i)
            value = (value ^ static_cast<const uint8_t*>(data)[i]) * 0x100000001b3ull;
    }
    template <class T>
    void AddVector(const std::vector<T>& values) {
        const uint64_t count = values.size();
        Add(&count, sizeof count);
        Add(values.data(), values.size() * sizeof(T));
    }
};

enum Entry : int { kHead, kDose, kSkin, kBall, kRing, kDots, kEntryCount };

struct Step {
    std::string source = "SECTIONAL_VOLUME";
    std::vector<Entry> enabled;
    ParamMap params;
};

struct RequestKind {
    std::string name;
    std::vector<Step> steps;
    // The antialiasing pass carries its channel sums along the rows each thread
    // happens to take, so its picture may differ from run to run.
    bool repeatable = true;
    bool returnsCrossLines = false;
    // Mask-selected tables are switched on through the head's scene entry.
    bool maskTables = false;
};

// One image and one scene holding every object the request kinds draw.
class SoakScene {
public:
    SoakScene() {
        const PhantomGrid grid{{64, 76, 56}, {2.5, 2.5, 3.2}};
        head_ = MakeHeadPhantom(grid);
        labels_ = MakeLabelPhantom(grid);
        dose_ = MakeDosePhantom(grid);

        // Row 0 is the soft-tissue window; rows 1..5 colour the labels for
        // the mask-selected slice.
        std::vector<std::vector<uint32_t>> rows{WindowTableEntries(1064.0, 400.0)};
        const std::array<uint32_t, 5> labelColours{PackEntry(200, 160, 140, 128), PackEntry(240, 240, 220, 128),
                                                   PackEntry(220, 120, 120, 128), PackEntry(80, 120, 240, 128),
                                                   PackEntry(250, 200, 0, 128)};
        for (uint32_t colour : labelColours) rows.emplace_back(kFullTableLength, colour);
        head_->SetTableObject("WINDOWING", MakeTableObject(rows));
        head_->SetTableObject("OTF", MakeTableObject({ControlPointTableEntries(
                                         {{1000.0, 0.0, 0.0, 0.0, 0.0},
                                          {1100.0, 0.9, 0.6, 0.5, 0.4},
                                          {2024.0, 1.0, 1.0, 0.9, 1.0}})}));
        head_->SetTableObject("MASKVOLUME", labels_);
        head_->SetObjParam("_float2_GraidentMagMinMax", glm::vec2(0.0f, 1000.0f));
        dose_->SetTableObject("WINDOWING", MakeTableObject({WindowTableEntries(30.0, 60.0)}));

        skin_ = MakeMeshPrimitive(MakeEllipsoidMesh(glm::dvec3(0.0), kHeadSkinSemiAxes, 48));
        ball_ = MakeMeshPrimitive(MakeSphereArrays(14.0, 24, 48, kHeadLesionCentre));
        ring_ = MakeMeshPrimitive(MakeTorusMesh({-20.0, -30.0, 23.0}, {1.0, 0.0, 0.0}, 22.0, 6.0, 48));
        dots_ = MakeMeshPrimitive(MakeSkinPointSet(120));

        const std::array<std::pair<ZrVObject*, glm::vec3>, kEntryCount> entries{
            {{head_.get(), glm::vec3(1.0f)},
             {dose_.get(), glm::vec3(1.0f)},
             {skin_.get(), {1.0f, 0.9f, 0.1f}},
             {ball_.get(), {1.0f, 0.15f, 0.1f}},
             {ring_.get(), {0.2f, 1.0f, 0.3f}},
             {dots_.get(), {0.3f, 0.6f, 1.0f}}}};
        for (const auto& [object, colour] : entries) {
            request_.scene.emplace_back();
            request_.scene.back().object = object;
            request_.scene.back().colour = colour;
        }
        request_.scene[kHead].params = {{"_double_ThicknessInside", 3.0}, {"_double_ThicknessOutside", 4.0}};
        request_.scene[kDose].params = {{"_double_WindowingCenter", 30.0}, {"_double_WindowingWidth", 60.0}};
        image_ = MakeSectionImage(
            {{0.0, 0.0, 20.0}, {0.0, 0.0, 1.0}, {0.0, -1.0, 0.0}, {0.95, 0.95}, {kSize, kSize}});
        kinds_ = MakeKinds();
    }

    size_t KindCount() const { return kinds_.size(); }
    const RequestKind& Kind(size_t k) const { return kinds_[k]; }
    int StepCount(size_t k) const { return static_cast<int>(kinds_[k].steps.size()); }

    // Runs every step of kind `k` through `doModule` and fingerprints what the
    // last step leaves: render-out 0, the value buffer, the iso lines returned
    // into the request and, for the kinds that ask for them, the cross lines
    // returned on the image (sorted per object: threads hand in their segments
    // in whatever order they cut them).
    uint64_t Run(size_t k, const std::function<bool(ModuleRequest&)>& doModule) {
        const RequestKind& kind = kinds_[k];
        // The host starts each kind from the same depth buffer: fast mode and
        // blending read the first-hit depth that an earlier mesh request left.
        // Zero depth reads as no depth buffer at all (nothing in front).
        if (FrameBuffer* depth = image_->GetFrameBuffer(2, 0)) std::memset(depth->pixels, 0, kPixels * 4);
        request_.scene[kHead].params["_bool_MultiOTF"] = kind.maskTables;
        request_.scene[kHead].params["_int_NumOTFs"] = 5;
        bool storesValues = false;
        for (const Step& step : kind.steps) {
            storesValues = step.params.count("_bool_StoreSampleValueToCustomBuffer") != 0;
            request_.params = step.params;
            request_.params["_ZrIObject*_RenderOut"] = image_.get();
            request_.params["_string_RenderingSourceType"] = step.source;
            for (int e = 0; e < kEntryCount; ++e)
                request_.scene[e].enabled =
                    std::find(step.enabled.begin(), step.enabled.end(), Entry(e)) != step.enabled.end();
            EXPECT_TRUE(doModule(request_)) << kind.name;
        }

        Fingerprint print;
        const auto* shown = static_cast<const uint32_t*>(image_->GetFrameBuffer(1, 0)->pixels);
        EXPECT_TRUE(std::any_of(shown, shown + kPixels, [](uint32_t pixel) { return pixel != 0; }))
            << kind.name << " drew nothing";
        print.Add(shown, kPixels * 4);
        if (storesValues) print.Add(image_->GetFrameBuffer(3, 0)->pixels, kPixels * 2);
        for (int k4 = 0; k4 < 4; ++k4) {
            auto it = request_.params.find("_vlist_DOUBLE_IsoLines" + std::to_string(k4));
            if (it != request_.params.end()) print.AddVector(std::any_cast<const std::vector<double>&>(it->second));
        }
        if (kind.returnsCrossLines) AddCrossLines(print);
        return print.value;
    }

    // Sets the antialiasing kernel radius of the kinds that smooth, so that the
    // cached kernel is rebuilt now and then.
    void SetKernelRadius(int radius) {
        for (RequestKind& kind : kinds_)
            for (Step& step : kind.steps)
                if (step.params.count("_bool_ApplyAntialiasing")) step.params["_int_KernelRadius"] = radius;
    }

private:
    static constexpr int kSize = 256;
    static constexpr size_t kPixels = size_t(kSize) * kSize;

    void AddCrossLines(Fingerprint& print) {
        bool found = false;
        const auto& lines = std::any_cast<const std::vector<float>&>(image_->GetObjParamA("_vlist_FLOAT_CrossLines", found));
        ASSERT_TRUE(found);
        const auto& counts =
            std::any_cast<const std::vector<int32_t>&>(image_->GetObjParamA("_vlist_INT_CrossLineObjCount", found));
        const auto& ids =
            std::any_cast<const std::vector<int32_t>&>(image_->GetObjParamA("_vlist_INT_CrossLineObjID", found));
        print.AddVector(counts);
        // Object ids differ from scene to scene; the entry an id names does not.
        std::vector<int32_t> entries;
        for (int32_t id : ids)
            for (int e = 0; e < kEntryCount; ++e)
                if (request_.scene[e].object->GetObjectID() == id) entries.push_back(e);
        EXPECT_EQ(entries.size(), ids.size());
        print.AddVector(entries);
        size_t first = 0;
        for (int32_t count : counts) {
            std::vector<std::array<float, 4>> segments(count);
            ASSERT_LE((first + count) * 4, lines.size());
            std::memcpy(segments.data(), lines.data() + first * 4, count * sizeof(segments[0]));
            std::sort(segments.begin(), segments.end());
            print.AddVector(segments);
            first += count;
        }
        EXPECT_EQ(first * 4, lines.size());
    }

    std::vector<RequestKind> MakeKinds() const {
        const int headId = head_->GetObjectID();
        const CentreLine arch = MakeArchCentreLine(48, 20.0);
        const auto slice = [](ParamMap extra) {
            extra["_bool_IsFirstRenderer"] = true;
            extra["_bool_IsFinalRenderer"] = true;
            return Step{"SECTIONAL_VOLUME", {kHead}, std::move(extra)};
        };
        const Step underMesh{"SECTIONAL_VOLUME", {kHead},
                             {{"_bool_IsFirstRenderer", true}, {"_bool_IsFinalRenderer", false}}};
        const auto mesh = [](std::vector<Entry> entries, ParamMap extra) {
            extra["_bool_IsFirstRenderer"] = false;
            extra["_bool_IsFinalRenderer"] = true;
            extra["_bool_IsRGBA"] = true;
            return Step{"SECTIONAL_MESH", std::move(entries), std::move(extra)};
        };

        std::vector<RequestKind> kinds;
        kinds.push_back({"thin slice with values", {slice({{"_bool_StoreSampleValueToCustomBuffer", true}})}});
        kinds.push_back({"slab maximum", {slice({{"_int_VolumeRayCastType", 10}, {"_float_PlaneThickness", 30.0f}})}});
        kinds.push_back({"slab minimum", {slice({{"_int_VolumeRayCastType", 11}, {"_float_PlaneThickness", 30.0f}})}});
        kinds.push_back({"slab average", {slice({{"_int_VolumeRayCastType", 12}, {"_float_PlaneThickness", 30.0f}})}});
        kinds.push_back({"shaded compositing", {slice({{"_int_VolumeRayCastType", 1}, {"_float_PlaneThickness", 60.0f}})}});
        kinds.push_back({"fast mode",
                         {slice({{"_bool_IsFastQualityMode", true},
                                 {"_int_LengthFastModeMax", 32},
                                 {"_bool_StoreSampleValueToCustomBuffer", true}})}});
        kinds.push_back(
            {"blending chain",
             {underMesh, Step{"SECTIONAL_VOLUME",
                              {kDose},
                              {{"_bool_IsFirstRenderer", false}, {"_bool_IsFinalRenderer", true}}}}});
        kinds.push_back({"mask-selected tables", {slice({})}});
        kinds.back().maskTables = true;
        const ParamMap iso{{"_bool_DrawIsoBoundary", true},
                           {"_int_TargetVolumeObjectID", headId},
                           {"_int_IsoValueBoundary", 1094},
                           {"_double4_ColorIso", glm::dvec4(1.0, 0.0, 0.0, 1.0)}};
        const auto with = [](ParamMap map, const ParamMap& more) {
            map.insert(more.begin(), more.end());
            return map;
        };
        kinds.push_back({"iso lines drawn",
                         {slice(with(iso, {{"_int_Density0", 1500},
                                           {"_double4_ColorOuter", glm::dvec4(1.0, 1.0, 0.0, 1.0)}}))}});
        kinds.push_back({"iso lines returned",
                         {slice(with(iso, {{"_bool_GetBoundaryLines", true},
                                           {"_int_Density1", 1044},
                                           {"_double4_ColorInner", glm::dvec4(0.0, 1.0, 1.0, 1.0)}}))}});
        kinds.push_back({"curved reformation",
                         {slice({{"_bool_IsNonlinear", true},
                                 {"_float_ExPlaneWidth", 200.0f},
                                 {"_float_ExPlaneHeight", 160.0f},
                                 {"_float_CurveThicknessPositionRange", 1.0f},
                                 {"_float_ThicknessRatio", 0.0f},
                                 {"_vlist_FLOAT3_CurveInterpolations", arch.points},
                                 {"_vlist_FLOAT3_CurveUpVectors", arch.upVectors},
                                 {"_vlist_FLOAT3_CurveTangentVectors", arch.tangents}})}});
        kinds.push_back({"float volume window", {Step{"SECTIONAL_VOLUME", {kDose}, {{"_bool_IsFirstRenderer", true}}}}});
        kinds.push_back({"thickness bands", {slice({{"_int_VolumeRayCastType", 120}, {"_float_PlaneThickness", 12.0f}})}});
        kinds.push_back({"mesh cut over a slice",
                         {underMesh, mesh({kSkin, kBall, kRing}, {{"_int_LineThickness", 2}})}});
        kinds.push_back({"mesh cross lines", {underMesh, mesh({kSkin, kBall, kRing}, {{"_bool_GetCrossLines", true}})}});
        kinds.back().returnsCrossLines = true;
        kinds.push_back({"antialiased mesh cut",
                         {underMesh, mesh({kBall, kRing}, {{"_bool_ApplyAntialiasing", true},
                                                           {"_int_KernelRadius", 1},
                                                           {"_double_Sigma", 1.0}})}});
        kinds.back().repeatable = false;
        kinds.push_back({"point set", {underMesh, mesh({kDots}, {{"_double_SphereRadius", 2.0}})}});
        return kinds;
    }

    std::shared_ptr<ZrVObjectVolume> head_, labels_, dose_;
    std::shared_ptr<ZrVObjectPrimitive> skin_, ball_, ring_, dots_;
    std::shared_ptr<ZrIObject> image_;
    ModuleRequest request_;
    std::vector<RequestKind> kinds_;
};

bool Smooths(const RequestKind& kind) {
    for (const Step& step : kind.steps)
        if (step.params.count("_bool_ApplyAntialiasing")) return true;
    return false;
}

bool ThroughPlugin(ModuleRequest& request) { return Plugin().doModule(&request); }
bool InProcess(ModuleRequest& request) { return zrmodule::DispatchRequest(request); }

}  // namespace

// Every repeatable kind gives the same bytes in every round, and the same again
// on a fresh image of its own: nothing an earlier request left on the image or
// in the module changes a later result.
TEST(RequestSoak, AThousandMixedRequestsKeepMemoryFlatAndRepeatTheirBytes) {
    SoakScene scene;
    std::map<size_t, uint64_t> firstPrint;  // kind -> fingerprint of its first run
    int requests = 0, round = 0, repeatedChecks = 0;
    int64_t warmResident = -1;
    while (requests < kRequestCount) {
        // Two kernel radii in turn: the cached smoothing kernel is rebuilt
        // every round, which is where a leak would hide.
        scene.SetKernelRadius(1 + round % 2);
        for (size_t k = 0; k < scene.KindCount() && requests < kRequestCount; ++k) {
            const uint64_t print = scene.Run(k, ThroughPlugin);
            requests += scene.StepCount(k);
            if (!scene.Kind(k).repeatable) continue;
            auto [it, first] = firstPrint.try_emplace(k, print);
            repeatedChecks += !first;
            EXPECT_EQ(print, it->second) << scene.Kind(k).name << " gave other bytes in round " << round;
        }
        // Two rounds warm up the allocator, the OpenMP pool and the kernel cache.
        if (++round == 2) warmResident = ResidentBytes();
    }
    const int64_t finalResident = ResidentBytes();
    EXPECT_GT(repeatedChecks, 20);
    std::cout << "soak: " << requests << " requests in " << round << " rounds; resident memory after warm-up "
              << warmResident / 1024 << " KiB, at the end " << finalResident / 1024 << " KiB\n";
    for (const auto& [k, print] : firstPrint)
        EXPECT_EQ(SoakScene().Run(k, ThroughPlugin), print) << scene.Kind(k).name;
    // Without a resident size, or under a sanitizer whose quarantine and shadow
    // memory make it meaningless (its leak checker covers leaks), only the bytes count.
    if (warmResident >= 0 && !kSanitized) {
        EXPECT_LE(finalResident - warmResident, kResidentGrowthBound)
            << "resident memory grew from " << warmResident << " to " << finalResident << " bytes";
    }
}

TEST(RequestSoak, TheTrackedHeapHoldsOnlyTheSmoothingKernelBetweenRequests) {
    // The plug-in's heap counter is its own; the same code linked into this
    // program keeps one that the test can read.
    MoFiInitializeDx11();
    zrmesh::ReleaseSmoothingKernel();
    ASSERT_EQ(zrbvh::HeapBytesInUse(), 0u);

    SoakScene scene;
    uint64_t kernelBytes = 0;  // what the last smoothing request left: its kernel
    for (int round = 0; round < 3; ++round) {
        scene.SetKernelRadius(1 + round % 2);
        for (size_t k = 0; k < scene.KindCount(); ++k) {
            scene.Run(k, InProcess);
            if (Smooths(scene.Kind(k))) {
                kernelBytes = zrbvh::HeapBytesInUse();
                EXPECT_GT(kernelBytes, 0u) << "the smoothing kernel is kept for the next request";
            } else {
                EXPECT_EQ(zrbvh::HeapBytesInUse(), kernelBytes) << scene.Kind(k).name << " in round " << round;
            }
        }
    }
    MoFiDeinitializeDx11();
    zrmesh::ReleaseSmoothingKernel();
    EXPECT_EQ(zrbvh::HeapBytesInUse(), 0u);
}
