#include "module_keys.h"

#include <algorithm>
#include <cctype>
#include <set>

namespace zrio {

namespace {

// Written back by the module (iso-lines, cross lines) or filled in by the host
// itself (the image pointer, tables): never read from a request file.
const char* const kKeys[] = {
    // Every request.
    "_string_RenderingSourceType",
    // Sectional volumes: the request.
    "_bool_IsFirstRenderer", "_bool_IsFinalRenderer", "_bool_GetCrossLines", "_bool_ApplyAntialiasing",
    "_bool_IsRGBA", "_bool_StoreSampleValueToCustomBuffer", "_bool_IsNonlinear", "_float_ExPlaneWidth",
    "_float_ExPlaneHeight", "_float_CurveThicknessPositionRange", "_float_ThicknessRatio", "_bool_IsRightSide",
    "_bool_ValidateMaskVolume", "_float_PlaneThickness", "_string_SamplingMode", "_bool_ForceToSkipResampling",
    "_bool_DrawIsoBoundary", "_bool_GetBoundaryLines", "_bool_IsFastQualityMode", "_int_VolumeRayCastType",
    "_int_LengthFastModeMax", "_vlist_FLOAT3_CurveInterpolations", "_vlist_FLOAT3_CurveUpVectors",
    "_vlist_FLOAT3_CurveTangentVectors", "_int_TargetVolumeObjectID", "_int_IsoValueBoundary",
    "_double4_BoundaryColor", "_int_Density0", "_int_Density1", "_double_KernelSize",
    "_double_ThresholdGradSqLength", "_double_ThresholdLaplacian", "_double4_ColorOuter", "_double4_ColorInner",
    "_double4_ColorIso", "_double_BlendingWeight",
    // Sectional volumes: the scene entry and the objects.
    "_double_WindowingCenter", "_double_WindowingWidth", "_vlist_DOUBLE2_ITF", "_double_ThicknessInside",
    "_double_ThicknessOutside", "_bool_ApplyColor", "_float4_PhongCoeffs", "_bool_MultiOTF", "_int_NumOTFs",
    "_bool_ClipFree", "_int_ClippingMode", "_float3_PosClipPlaneWS", "_float3_VecClipPlaneWS",
    "_matrix44f_MatrixClipWS2BS", "_float2_GraidentMagMinMax",
    // The image object.
    "_bool_SkipSrOnPlaneRenderer", "_bool_SkipMeshCuttingRenderer",
    // Sectional meshes.
    "_int_LineThickness", "_double_SphereRadius", "_double_ZoominRadius", "_int_KernelRadius", "_double_Sigma",
};

std::string Lower(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(), [](unsigned char c) { return std::tolower(c); });
    return text;
}

// The name after the type tag: "_float_PlaneThickness" -> "planethickness".
std::string NameOf(const std::string& key) {
    const size_t at = key.find('_', 1);
    return Lower(at == std::string::npos ? key : key.substr(at + 1));
}

size_t EditDistance(const std::string& a, const std::string& b) {
    std::vector<size_t> row(b.size() + 1);
    for (size_t j = 0; j <= b.size(); ++j) row[j] = j;
    for (size_t i = 1; i <= a.size(); ++i) {
        size_t diagonal = row[0];
        row[0] = i;
        for (size_t j = 1; j <= b.size(); ++j) {
            const size_t above = row[j];
            row[j] = std::min({row[j] + 1, row[j - 1] + 1, diagonal + (a[i - 1] == b[j - 1] ? 0 : 1)});
            diagonal = above;
        }
    }
    return row[b.size()];
}

}  // namespace

const std::vector<std::string>& ModuleKeys() {
    static const std::vector<std::string> keys(std::begin(kKeys), std::end(kKeys));
    return keys;
}

bool IsModuleKey(const std::string& key) {
    static const std::set<std::string> known(std::begin(kKeys), std::end(kKeys));
    return known.count(key) > 0;
}

std::string NearestModuleKey(const std::string& key) {
    const std::string name = NameOf(key);
    for (const std::string& known : ModuleKeys())
        if (NameOf(known) == name) return known;
    // A name cut short or run on: "SkipSrOnPlane" for "SkipSrOnPlaneRenderer".
    if (name.size() >= 6)
        for (const std::string& known : ModuleKeys()) {
            const std::string other = NameOf(known);
            if (other.rfind(name, 0) == 0 || name.rfind(other, 0) == 0) return known;
        }
    const std::string lower = Lower(key);
    std::string best;
    size_t bestDistance = std::max<size_t>(3, lower.size() / 4) + 1;
    for (const std::string& known : ModuleKeys()) {
        const size_t d = EditDistance(lower, Lower(known));
        if (d < bestDistance) bestDistance = d, best = known;
    }
    return best;
}

const std::vector<std::string>& RenderingSourceTypes() {
    static const std::vector<std::string> types = {"SECTIONAL_VOLUME", "SECTIONAL_MESH"};
    return types;
}

const std::vector<int>& RenderModes() {
    static const std::vector<int> modes = {0, 1, 10, 11, 12, 101, 120};
    return modes;
}

}  // namespace zrio
