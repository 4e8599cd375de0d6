#include "fuzz/request_encoding.h"

#include <algorithm>
#include <cmath>
#include <cstring>

#include <glm/glm.hpp>

#include "fuzz/byte_reader.h"

namespace zrfuzz {

namespace {

using V = ValueType;

// The record's target byte: one of the ParamTarget values, or this one, which
// starts the next request.
constexpr uint8_t kNextRequestByte = static_cast<uint8_t>(ParamTarget::Count);
constexpr uint8_t kTargetChoices = kNextRequestByte + 1;
// Type bytes from here on pick a type other than the key's own.
constexpr uint8_t kWrongTypeFrom = 0xE0;

template <class T>
void ReadComponents(ByteReader& in, const KeyRule& rule, T* out, int count) {
    for (int i = 0; i < count; ++i) {
        if (rule.Ranged())
            out[i] = static_cast<T>(in.Ranged(rule.lo, rule.hi));
        else
            out[i] = in.Read<T>();
    }
}

template <class T>
std::vector<T> ReadList(ByteReader& in, const KeyRule& rule, int components) {
    const size_t count = in.Byte() % (kMaxListLength + 1);
    std::vector<T> list(count);
    for (T& item : list) ReadComponents(in, rule, reinterpret_cast<typename T::value_type*>(&item), components);
    return list;
}

template <class T>
std::vector<T> ReadScalarList(ByteReader& in, const KeyRule& rule) {
    const size_t count = in.Byte() % (kMaxListLength + 1);
    std::vector<T> list(count);
    ReadComponents(in, rule, list.data(), static_cast<int>(count));
    return list;
}

std::any ReadValue(ByteReader& in, const KeyRule& rule, ValueType type) {
    switch (type) {
        case V::Bool: return (in.Byte() & 1) != 0;
        case V::Int:
            if (rule.Ranged()) {
                const int span = static_cast<int>(rule.hi - rule.lo) + 1;
                return static_cast<int32_t>(rule.lo) + static_cast<int32_t>(in.Read<uint16_t>() % span);
            }
            return in.Read<int32_t>();
        case V::Float: { float v; ReadComponents(in, rule, &v, 1); return v; }
        case V::Double: { double v; ReadComponents(in, rule, &v, 1); return v; }
        case V::Float2: { glm::vec2 v; ReadComponents(in, rule, &v.x, 2); return v; }
        case V::Float3: { glm::vec3 v; ReadComponents(in, rule, &v.x, 3); return v; }
        case V::Float4: { glm::vec4 v; ReadComponents(in, rule, &v.x, 4); return v; }
        case V::Double4: { glm::dvec4 v; ReadComponents(in, rule, &v.x, 4); return v; }
        case V::Matrix44f: {
            glm::mat4 m;
            ReadComponents(in, rule, &m[0][0], 16);
            return m;
        }
        case V::String: return in.Text(kMaxTextLength);
        case V::FloatList: return ReadScalarList<float>(in, rule);
        case V::IntList: return ReadScalarList<int32_t>(in, rule);
        case V::DoubleList: return ReadScalarList<double>(in, rule);
        case V::Float3List: return ReadList<glm::vec3>(in, rule, 3);
        case V::Double2List: return ReadList<glm::dvec2>(in, rule, 2);
        case V::Count: break;
    }
    return {};
}

}  // namespace

const std::vector<KeyRule>& KnownKeys() {
    static const std::vector<KeyRule> keys{
        // Renderer chain and outputs.
        {"_bool_IsFirstRenderer", V::Bool},
        {"_bool_IsFinalRenderer", V::Bool},
        {"_bool_SkipSrOnPlaneRenderer", V::Bool},
        {"_bool_SkipMeshCuttingRenderer", V::Bool},
        {"_bool_IsRGBA", V::Bool},
        {"_bool_StoreSampleValueToCustomBuffer", V::Bool},
        {"_double_BlendingWeight", V::Double},
        {"_string_RenderingSourceType", V::String},
        {"_string_SamplingMode", V::String},
        // Volume path.
        {"_int_VolumeRayCastType", V::Int},
        {"_float_PlaneThickness", V::Float, -5.0, 60.0},
        {"_bool_IsFastQualityMode", V::Bool},
        {"_int_LengthFastModeMax", V::Int, -4.0, 300.0},
        {"_bool_ForceToSkipResampling", V::Bool},
        {"_bool_IsNonlinear", V::Bool},
        {"_bool_IsRightSide", V::Bool},
        {"_float_ExPlaneWidth", V::Float, -80.0, 80.0},
        {"_float_ExPlaneHeight", V::Float, -80.0, 80.0},
        {"_float_CurveThicknessPositionRange", V::Float, -2.0, 4.0},
        {"_float_ThicknessRatio", V::Float, -1.0, 2.0},
        {"_vlist_FLOAT3_CurveInterpolations", V::Float3List, -40.0, 40.0},
        {"_vlist_FLOAT3_CurveUpVectors", V::Float3List},
        {"_vlist_FLOAT3_CurveTangentVectors", V::Float3List},
        {"_bool_MultiOTF", V::Bool},
        {"_int_NumOTFs", V::Int},
        {"_bool_ValidateMaskVolume", V::Bool},
        {"_bool_ApplyColor", V::Bool},
        {"_float4_PhongCoeffs", V::Float4},
        {"_float2_GraidentMagMinMax", V::Float2},
        {"_double_ThresholdGradSqLength", V::Double},
        {"_double_ThresholdLaplacian", V::Double},
        {"_double_WindowingCenter", V::Double},
        {"_double_WindowingWidth", V::Double},
        {"_vlist_DOUBLE2_ITF", V::Double2List},
        {"_double_ThicknessInside", V::Double, -3.0, 12.0},
        {"_double_ThicknessOutside", V::Double, -3.0, 12.0},
        {"_double_KernelSize", V::Double, -3.0, 12.0},
        {"_int_ClippingMode", V::Int},
        {"_bool_ClipFree", V::Bool},
        {"_float3_PosClipPlaneWS", V::Float3},
        {"_float3_VecClipPlaneWS", V::Float3},
        {"_matrix44f_MatrixClipWS2BS", V::Matrix44f},
        // Iso lines.
        {"_bool_DrawIsoBoundary", V::Bool},
        {"_bool_GetBoundaryLines", V::Bool},
        {"_int_TargetVolumeObjectID", V::Int},
        {"_int_Density0", V::Int},
        {"_int_Density1", V::Int},
        {"_int_IsoValueBoundary", V::Int},
        {"_double4_ColorOuter", V::Double4},
        {"_double4_ColorInner", V::Double4},
        {"_double4_ColorIso", V::Double4},
        {"_double4_BoundaryColor", V::Double4},
        // Mesh path.
        {"_bool_GetCrossLines", V::Bool},
        {"_bool_ApplyAntialiasing", V::Bool},
        {"_int_KernelRadius", V::Int, -2.0, 6.0},
        {"_double_Sigma", V::Double, -1.0, 5.0},
        {"_int_LineThickness", V::Int, -2.0, 12.0},
        {"_double_SphereRadius", V::Double, -5.0, 30.0},
        {"_double_ZoominRadius", V::Double, -5.0, 20.0},
        // Lists the renderers write back: present beforehand, they are replaced.
        {"_vlist_FLOAT_CrossLines", V::FloatList},
        {"_vlist_INT_CrossLineObjCount", V::IntList},
        {"_vlist_DOUBLE_IsoLines0", V::DoubleList},
    };
    return keys;
}

const std::vector<std::string>& SourceChoices() {
    static const std::vector<std::string> choices{"SECTIONAL_VOLUME", "SECTIONAL_MESH", "", "VOLUME",
                                                  "MESH", "sectional_volume", "SECTIONAL_VOLUME ",
                                                  "SECTIONAL_MESH"};
    return choices;
}

DecodedInput DecodeInput(const uint8_t* data, size_t size) {
    ByteReader in(data, size);
    DecodedInput input;
    input.source = in.Byte() % SourceChoices().size();
    input.enabledMask = in.Byte();
    input.view = in.Byte();
    input.placement = in.Byte();
    input.requests.emplace_back();
    const auto& keys = KnownKeys();
    while (!in.Empty()) {
        const uint8_t targetByte = in.Byte() % kTargetChoices;
        if (targetByte == kNextRequestByte) {
            if (input.requests.size() == kMaxRequests) break;
            input.requests.emplace_back();
            continue;
        }
        ParamRecord record;
        record.target = static_cast<ParamTarget>(targetByte);
        if (record.target == ParamTarget::SceneEntry || record.target == ParamTarget::Object) record.entry = in.Byte();
        const KeyRule& rule = keys[in.Byte() % keys.size()];
        const uint8_t typeByte = in.Byte();
        ValueType type = rule.type;
        if (typeByte >= kWrongTypeFrom)
            type = static_cast<ValueType>((typeByte - kWrongTypeFrom) % static_cast<int>(ValueType::Count));
        record.key = rule.key;
        record.value = ReadValue(in, rule, type);
        input.requests.back().push_back(std::move(record));
    }
    return input;
}

// ---- Encoding ----

InputEncoder::InputEncoder(int source, uint8_t enabledMask, int view, int placement) {
    bytes_ = {static_cast<uint8_t>(source), enabledMask, static_cast<uint8_t>(view), static_cast<uint8_t>(placement)};
}

template <class T>
void InputEncoder::Put(const T& value) {
    uint8_t raw[sizeof(T)];
    std::memcpy(raw, &value, sizeof(T));
    bytes_.insert(bytes_.end(), raw, raw + sizeof(T));
}

namespace {

template <class T>
uint16_t RangedBits(const KeyRule& rule, T value) {
    const double f = (static_cast<double>(value) - rule.lo) / (rule.hi - rule.lo);
    if (!(f > 0.0)) return 0;
    if (f >= 1.0) return 65535;
    return static_cast<uint16_t>(std::lround(f * 65535.0));
}

template <class T>
const T* As(const std::any& value) {
    return std::any_cast<T>(&value);
}

}  // namespace

void InputEncoder::PutValue(const KeyRule& rule, const std::any& value) {
    const auto components = [&](const auto* p, int count) {
        for (int i = 0; i < count; ++i) {
            if (rule.Ranged())
                Put(RangedBits(rule, p[i]));
            else
                Put(p[i]);
        }
    };
    const auto list = [&](const auto& items, int perItem) {
        const size_t count = std::min(items.size(), kMaxListLength);
        Put(static_cast<uint8_t>(count));
        for (size_t i = 0; i < count; ++i)
            components(reinterpret_cast<const typename std::decay_t<decltype(items)>::value_type::value_type*>(
                           &items[i]),
                       perItem);
    };
    const auto scalarList = [&](const auto& items) {
        const size_t count = std::min(items.size(), kMaxListLength);
        Put(static_cast<uint8_t>(count));
        components(items.data(), static_cast<int>(count));
    };
    switch (rule.type) {
        case V::Bool: Put(static_cast<uint8_t>(*As<bool>(value) ? 1 : 0)); break;
        case V::Int:
            if (rule.Ranged())
                Put(static_cast<uint16_t>(std::clamp(*As<int32_t>(value) - static_cast<int32_t>(rule.lo), 0,
                                                     static_cast<int32_t>(rule.hi - rule.lo))));
            else
                Put(*As<int32_t>(value));
            break;
        case V::Float: components(As<float>(value), 1); break;
        case V::Double: components(As<double>(value), 1); break;
        case V::Float2: components(&As<glm::vec2>(value)->x, 2); break;
        case V::Float3: components(&As<glm::vec3>(value)->x, 3); break;
        case V::Float4: components(&As<glm::vec4>(value)->x, 4); break;
        case V::Double4: components(&As<glm::dvec4>(value)->x, 4); break;
        case V::Matrix44f: components(&(*As<glm::mat4>(value))[0][0], 16); break;
        case V::String: {
            const std::string& text = *As<std::string>(value);
            const size_t length = std::min(text.size(), kMaxTextLength);
            Put(static_cast<uint8_t>(length));
            bytes_.insert(bytes_.end(), text.begin(), text.begin() + static_cast<std::ptrdiff_t>(length));
            break;
        }
        case V::FloatList: scalarList(*As<std::vector<float>>(value)); break;
        case V::IntList: scalarList(*As<std::vector<int32_t>>(value)); break;
        case V::DoubleList: scalarList(*As<std::vector<double>>(value)); break;
        case V::Float3List: list(*As<std::vector<glm::vec3>>(value), 3); break;
        case V::Double2List: list(*As<std::vector<glm::dvec2>>(value), 2); break;
        case V::Count: break;
    }
}

bool InputEncoder::Add(ParamTarget target, int entry, const std::string& key, const std::any& value) {
    const auto& keys = KnownKeys();
    const auto it = std::find_if(keys.begin(), keys.end(), [&](const KeyRule& k) { return key == k.key; });
    if (it == keys.end()) return false;
    bool typeMatches = false;
    switch (it->type) {
        case V::Bool: typeMatches = As<bool>(value) != nullptr; break;
        case V::Int: typeMatches = As<int32_t>(value) != nullptr; break;
        case V::Float: typeMatches = As<float>(value) != nullptr; break;
        case V::Double: typeMatches = As<double>(value) != nullptr; break;
        case V::Float2: typeMatches = As<glm::vec2>(value) != nullptr; break;
        case V::Float3: typeMatches = As<glm::vec3>(value) != nullptr; break;
        case V::Float4: typeMatches = As<glm::vec4>(value) != nullptr; break;
        case V::Double4: typeMatches = As<glm::dvec4>(value) != nullptr; break;
        case V::Matrix44f: typeMatches = As<glm::mat4>(value) != nullptr; break;
        case V::String: typeMatches = As<std::string>(value) != nullptr; break;
        case V::FloatList: typeMatches = As<std::vector<float>>(value) != nullptr; break;
        case V::IntList: typeMatches = As<std::vector<int32_t>>(value) != nullptr; break;
        case V::DoubleList: typeMatches = As<std::vector<double>>(value) != nullptr; break;
        case V::Float3List: typeMatches = As<std::vector<glm::vec3>>(value) != nullptr; break;
        case V::Double2List: typeMatches = As<std::vector<glm::dvec2>>(value) != nullptr; break;
        case V::Count: break;
    }
    if (!typeMatches) return false;
    Put(static_cast<uint8_t>(target));
    if (target == ParamTarget::SceneEntry || target == ParamTarget::Object) Put(static_cast<uint8_t>(entry));
    Put(static_cast<uint8_t>(it - keys.begin()));
    Put(static_cast<uint8_t>(0));  // the key's own type
    PutValue(*it, value);
    return true;
}

void InputEncoder::NextRequest() { Put(kNextRequestByte); }

}  // namespace zrfuzz
