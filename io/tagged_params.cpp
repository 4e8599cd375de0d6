#include "tagged_params.h"

#include <array>
#include <cmath>
#include <cstdint>
#include <limits>
#include <stdexcept>
#include <vector>

#include <glm/glm.hpp>

#include "module_keys.h"

namespace zrio {

namespace {

using nlohmann::json;

// Longest first, so that a tag that is a prefix of another never wins early.
constexpr std::array<const char*, 18> kTags = {
    "outptr_delegate", "vlist_DOUBLE2", "vlist_FLOAT3", "vlist_DOUBLE", "vlist_FLOAT", "vlist_INT",
    "ZrIObject*",      "matrix44f",     "TableMap",     "double4",      "string",      "double",
    "float2",          "float3",        "float4",       "float",        "bool",        "int",
};

[[noreturn]] void Fail(const std::string& key, const std::string& what) {
    throw std::invalid_argument("\"" + key + "\" " + what);
}

std::string Shown(const json& value) {
    std::string text = value.dump();
    if (text.size() > 40) text = text.substr(0, 37) + "...";
    return std::string(value.type_name()) + " " + text;
}

double Number(const std::string& key, const json& value, const char* context = nullptr) {
    if (!value.is_number())
        Fail(key, std::string("expects a number") + (context ? context : "") + ", got " + Shown(value));
    const double x = value.get<double>();
    if (!std::isfinite(x)) Fail(key, "expects a finite number");
    return x;
}

float FloatNumber(const std::string& key, const json& value) {
    const double x = Number(key, value);
    if (std::abs(x) > std::numeric_limits<float>::max()) Fail(key, "value " + value.dump() + " does not fit a float");
    return static_cast<float>(x);
}

int32_t IntNumber(const std::string& key, const json& value) {
    if (!value.is_number_integer()) Fail(key, "expects an integer, got " + Shown(value));
    if (value.is_number_unsigned()) {
        if (value.get<uint64_t>() > static_cast<uint64_t>(std::numeric_limits<int32_t>::max()))
            Fail(key, "value " + value.dump() + " does not fit a 32-bit integer");
    } else {
        const int64_t x = value.get<int64_t>();
        if (x < std::numeric_limits<int32_t>::min() || x > std::numeric_limits<int32_t>::max())
            Fail(key, "value " + value.dump() + " does not fit a 32-bit integer");
    }
    return value.get<int32_t>();
}

// A fixed-length array of numbers, converted by `convert`.
template <class Vec, class Convert>
Vec NumberArray(const std::string& key, const json& value, int length, Convert convert) {
    if (!value.is_array() || static_cast<int>(value.size()) != length)
        Fail(key, "expects an array of " + std::to_string(length) + " numbers, got " + Shown(value));
    Vec out{};
    for (int k = 0; k < length; ++k) out[k] = convert(key, value[k]);
    return out;
}

template <class T, class Convert>
std::vector<T> List(const std::string& key, const json& value, Convert convert) {
    if (!value.is_array()) Fail(key, "expects an array, got " + Shown(value));
    std::vector<T> out;
    out.reserve(value.size());
    for (const json& element : value) out.push_back(convert(key, element));
    return out;
}

// A 4x4 matrix written as four rows of four numbers (as on paper), stored
// column-major as glm does.
glm::mat4 Matrix(const std::string& key, const json& value) {
    if (!value.is_array() || value.size() != 4)
        Fail(key, "expects 4 rows of 4 numbers, got " + Shown(value));
    glm::mat4 m(0.0f);
    for (int row = 0; row < 4; ++row) {
        const json& r = value[row];
        if (!r.is_array() || r.size() != 4) Fail(key, "expects 4 rows of 4 numbers, row " + std::to_string(row) + " is " + Shown(r));
        for (int col = 0; col < 4; ++col) m[col][row] = FloatNumber(key, r[col]);
    }
    return m;
}

}  // namespace

std::string KeyTag(const std::string& key) {
    if (key.size() < 2 || key[0] != '_') return {};
    for (const char* tag : kTags) {
        const std::string t(tag);
        if (key.size() > t.size() + 2 && key.compare(1, t.size(), t) == 0 && key[t.size() + 1] == '_') return t;
    }
    return {};
}

std::any ConvertTaggedValue(const std::string& key, const json& value) {
    const std::string tag = KeyTag(key);
    if (tag.empty()) Fail(key, "has no known type tag (keys look like \"_float_Name\")");
    if (tag == "bool") {
        if (!value.is_boolean()) Fail(key, "expects true or false, got " + Shown(value));
        return value.get<bool>();
    }
    if (tag == "int") return IntNumber(key, value);
    if (tag == "float") return FloatNumber(key, value);
    if (tag == "double") return Number(key, value);
    if (tag == "float2") return NumberArray<glm::vec2>(key, value, 2, FloatNumber);
    if (tag == "float3") return NumberArray<glm::vec3>(key, value, 3, FloatNumber);
    if (tag == "float4") return NumberArray<glm::vec4>(key, value, 4, FloatNumber);
    if (tag == "double4")
        return NumberArray<glm::dvec4>(key, value, 4, [](const std::string& k, const json& v) { return Number(k, v); });
    if (tag == "matrix44f") return Matrix(key, value);
    if (tag == "string") {
        if (!value.is_string()) Fail(key, "expects a string, got " + Shown(value));
        return value.get<std::string>();
    }
    if (tag == "vlist_FLOAT") return List<float>(key, value, FloatNumber);
    if (tag == "vlist_INT") return List<int32_t>(key, value, IntNumber);
    if (tag == "vlist_DOUBLE")
        return List<double>(key, value, [](const std::string& k, const json& v) { return Number(k, v); });
    if (tag == "vlist_FLOAT3")
        return List<glm::vec3>(key, value, [](const std::string& k, const json& v) {
            return NumberArray<glm::vec3>(k, v, 3, FloatNumber);
        });
    if (tag == "vlist_DOUBLE2")
        return List<glm::dvec2>(key, value, [](const std::string& k, const json& v) {
            return NumberArray<glm::dvec2>(k, v, 2, [](const std::string& kk, const json& vv) { return Number(kk, vv); });
        });
    if (tag == "ZrIObject*") Fail(key, "is filled in by the host and cannot be given in a request file");
    if (tag == "outptr_delegate") Fail(key, "is a delegate slot that only a host program can provide");
    Fail(key, "is a table record; give tables in the scene entry's \"tables\" instead");
}

zrobjects::ParamMap ConvertParamObject(const json& object, const std::string& where) {
    if (!object.is_object()) throw std::invalid_argument(where + " must be an object of tagged keys, got " + Shown(object));
    zrobjects::ParamMap params;
    for (const auto& [key, value] : object.items()) {
        try {
            params[key] = ConvertTaggedValue(key, value);
            if (!IsModuleKey(key)) {
                const std::string nearest = NearestModuleKey(key);
                Fail(key, "is not a key the module reads" +
                              (nearest.empty() ? std::string(" (docs/request-format.md lists them)")
                                               : "; did you mean \"" + nearest + "\"?"));
            }
        } catch (const std::invalid_argument& e) {
            throw std::invalid_argument(where + ": " + e.what());
        }
    }
    return params;
}

json TaggedValueToJson(const std::any& value) {
    if (const auto* v = std::any_cast<std::vector<double>>(&value)) return *v;
    if (const auto* v = std::any_cast<std::vector<float>>(&value)) return *v;
    if (const auto* v = std::any_cast<std::vector<int32_t>>(&value)) return *v;
    if (const auto* v = std::any_cast<std::vector<glm::vec3>>(&value)) {
        json out = json::array();
        for (const glm::vec3& p : *v) out.push_back({p.x, p.y, p.z});
        return out;
    }
    if (const auto* v = std::any_cast<std::vector<glm::dvec2>>(&value)) {
        json out = json::array();
        for (const glm::dvec2& p : *v) out.push_back({p.x, p.y});
        return out;
    }
    if (const auto* v = std::any_cast<bool>(&value)) return *v;
    if (const auto* v = std::any_cast<std::string>(&value)) return *v;
    return nullptr;
}

}  // namespace zrio
