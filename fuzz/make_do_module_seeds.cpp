// Writes seed inputs for the DoModule fuzzer: one per request file given on
// the command line (its requests as a chain on one image, its scene settings
// moved onto the fixed scene's matching objects), plus a few written here that
// reach corners the request files do not.
// Usage: make_do_module_seeds OUT_DIR [REQUEST.json ...]
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include <glm/glm.hpp>

#include "fuzz/do_module_harness.h"
#include "fuzz/request_encoding.h"
#include "io/input_error.h"
#include "io/request_file.h"

namespace fs = std::filesystem;
using zrfuzz::InputEncoder;
using zrfuzz::ParamTarget;

namespace {

constexpr uint8_t kAllEntries = 0x3f;

void Write(const fs::path& directory, const std::string& name, const InputEncoder& encoder) {
    std::ofstream out(directory / (name + ".bin"), std::ios::binary);
    out.write(reinterpret_cast<const char*>(encoder.Bytes().data()),
              static_cast<std::streamsize>(encoder.Bytes().size()));
}

// A request file's requests over the fixed scene; keys the fuzzer does not
// know (and the host's own directives) are left out.
InputEncoder FromRequestFile(const zrio::RequestFile& file) {
    InputEncoder encoder(0, kAllEntries, 0, 0);
    for (size_t r = 0; r < file.requests.size() && r < zrfuzz::kMaxRequests; ++r) {
        if (r > 0) encoder.NextRequest();
        for (const auto& [key, value] : file.requests[r]) encoder.Add(ParamTarget::Request, 0, key, value);
        if (r == 0) {
            for (const auto& [key, value] : file.image.params) encoder.Add(ParamTarget::Image, 0, key, value);
            for (const zrio::SceneEntryDescription& entry : file.scene) {
                for (const auto& [key, value] : entry.params)
                    encoder.Add(ParamTarget::SceneEntry, zrfuzz::kRampVolume, key, value);
                for (const auto& [key, value] : entry.objectParams)
                    encoder.Add(ParamTarget::Object, zrfuzz::kRampVolume, key, value);
            }
        }
    }
    return encoder;
}

void WriteHandWritten(const fs::path& out) {
    {
        InputEncoder e(1, kAllEntries, 1, 0);  // mesh cut, antialiased, lines returned
        e.Add(ParamTarget::Request, 0, "_bool_IsFirstRenderer", true);
        e.Add(ParamTarget::Request, 0, "_bool_ApplyAntialiasing", true);
        e.Add(ParamTarget::Request, 0, "_int_KernelRadius", 2);
        e.Add(ParamTarget::Request, 0, "_bool_GetCrossLines", true);
        e.Add(ParamTarget::Request, 0, "_int_LineThickness", 3);
        Write(out, "hand-mesh-antialiased", e);
    }
    {
        InputEncoder e(0, 0x01, 0, 0);  // curved reformation along a short line
        e.Add(ParamTarget::Request, 0, "_bool_IsFirstRenderer", true);
        e.Add(ParamTarget::Request, 0, "_bool_IsNonlinear", true);
        e.Add(ParamTarget::Request, 0, "_float_ExPlaneWidth", 14.0f);
        e.Add(ParamTarget::Request, 0, "_float_ExPlaneHeight", 10.0f);
        e.Add(ParamTarget::Request, 0, "_float_ThicknessRatio", 0.5f);
        e.Add(ParamTarget::Request, 0, "_float_PlaneThickness", 4.0f);
        e.Add(ParamTarget::Request, 0, "_int_VolumeRayCastType", 10);
        e.Add(ParamTarget::Request, 0, "_vlist_FLOAT3_CurveInterpolations",
              std::vector<glm::vec3>{{2, 3, 6}, {6, 6, 6}, {10, 7, 6}, {14, 6, 6}});
        e.Add(ParamTarget::Request, 0, "_vlist_FLOAT3_CurveUpVectors", std::vector<glm::vec3>(4, {0, 0, 1}));
        e.Add(ParamTarget::Request, 0, "_vlist_FLOAT3_CurveTangentVectors",
              std::vector<glm::vec3>{{1, 0.5f, 0}, {1, 0.3f, 0}, {1, 0, 0}, {1, -0.3f, 0}});
        Write(out, "hand-curved-slab", e);
    }
    {
        InputEncoder e(0, 0x01, 0, 2);  // iso lines drawn and returned, mask tables
        e.Add(ParamTarget::Request, 0, "_bool_IsFirstRenderer", true);
        e.Add(ParamTarget::Request, 0, "_bool_DrawIsoBoundary", true);
        e.Add(ParamTarget::Request, 0, "_bool_GetBoundaryLines", true);
        e.Add(ParamTarget::Request, 0, "_int_TargetVolumeObjectID", 0);
        e.Add(ParamTarget::Request, 0, "_int_Density0", 800);
        e.Add(ParamTarget::Request, 0, "_int_IsoValueBoundary", 1200);
        e.Add(ParamTarget::Request, 0, "_double4_ColorIso", glm::dvec4(1, 0, 0, 1));
        e.Add(ParamTarget::SceneEntry, zrfuzz::kRampVolume, "_bool_MultiOTF", true);
        e.Add(ParamTarget::SceneEntry, zrfuzz::kRampVolume, "_int_NumOTFs", 2);
        Write(out, "hand-iso-mask", e);
    }
    {
        InputEncoder e(0, 0x05, 1, 1);  // fast mode, then a blended float volume
        e.Add(ParamTarget::Request, 0, "_bool_IsFirstRenderer", true);
        e.Add(ParamTarget::Request, 0, "_bool_IsFastQualityMode", true);
        e.Add(ParamTarget::Request, 0, "_int_LengthFastModeMax", 9);
        e.Add(ParamTarget::Request, 0, "_bool_StoreSampleValueToCustomBuffer", true);
        e.NextRequest();
        e.Add(ParamTarget::Request, 0, "_bool_IsFinalRenderer", true);
        e.Add(ParamTarget::SceneEntry, zrfuzz::kFloatVolume, "_vlist_DOUBLE2_ITF",
              std::vector<glm::dvec2>{{0.1, 0}, {0.5, 60}, {0.9, 100}});
        Write(out, "hand-fast-then-blend", e);
    }
    {
        InputEncoder e(0, 0x01, 0, 0);  // thickness bands and a clip box
        e.Add(ParamTarget::Request, 0, "_bool_IsFirstRenderer", true);
        e.Add(ParamTarget::Request, 0, "_int_VolumeRayCastType", 120);
        e.Add(ParamTarget::Request, 0, "_float_PlaneThickness", 3.0f);
        e.Add(ParamTarget::SceneEntry, zrfuzz::kRampVolume, "_double_ThicknessInside", 2.0);
        e.Add(ParamTarget::SceneEntry, zrfuzz::kRampVolume, "_int_ClippingMode", 3);
        e.Add(ParamTarget::Object, zrfuzz::kRampVolume, "_matrix44f_MatrixClipWS2BS", glm::mat4(0.1f));
        e.Add(ParamTarget::Object, zrfuzz::kRampVolume, "_float3_VecClipPlaneWS", glm::vec3(1, 0, 0));
        Write(out, "hand-bands-clip", e);
    }
    {
        InputEncoder e(0, 0x3f, 2, 3);  // shaded slab over every volume type, then points
        e.Add(ParamTarget::Request, 0, "_bool_IsFirstRenderer", true);
        e.Add(ParamTarget::Request, 0, "_int_VolumeRayCastType", 1);
        e.Add(ParamTarget::Request, 0, "_float_PlaneThickness", 8.0f);
        e.NextRequest();
        e.Add(ParamTarget::Request, 0, "_string_RenderingSourceType", std::string("SECTIONAL_MESH"));
        e.Add(ParamTarget::Request, 0, "_double_SphereRadius", 3.0);
        e.Add(ParamTarget::Request, 0, "_bool_IsFinalRenderer", true);
        Write(out, "hand-shaded-then-points", e);
    }
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 2) {
        std::fprintf(stderr, "usage: %s OUT_DIR [REQUEST.json ...]\n", argv[0]);
        return 2;
    }
    const fs::path out = argv[1];
    fs::create_directories(out);
    int written = 0;
    for (int i = 2; i < argc; ++i) {
        try {
            const zrio::RequestFile file = zrio::ParseRequestFile(argv[i]);
            Write(out, "request-" + fs::path(argv[i]).stem().string(), FromRequestFile(file));
            ++written;
        } catch (const zrio::InputError& e) {
            std::fprintf(stderr, "skipped %s\n", e.Line().c_str());
        }
    }
    WriteHandWritten(out);
    std::printf("%d seeds from request files and 6 written by hand in %s\n", written, out.string().c_str());
    return 0;
}
