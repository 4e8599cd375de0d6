#include "json_fields.h"

#include <cmath>
#include <stdexcept>

namespace zrio {

using nlohmann::json;

namespace {

[[noreturn]] void Fail(const std::string& where, const std::string& what) {
    throw std::invalid_argument(where + ": " + what);
}

}  // namespace

std::string Shown(const json& value) {
    std::string text = value.dump();
    if (text.size() > 40) text = text.substr(0, 37) + "...";
    return std::string(value.type_name()) + " " + text;
}

double NumberAt(const json& value, const std::string& where) {
    if (!value.is_number()) Fail(where, "expects a number, got " + Shown(value));
    const double x = value.get<double>();
    if (!std::isfinite(x)) Fail(where, "expects a finite number");
    return x;
}

int IntAt(const json& value, const std::string& where, int low, int high) {
    if (!value.is_number_integer()) Fail(where, "expects an integer, got " + Shown(value));
    // Compare as 64-bit so that huge values are refused, not wrapped.
    const bool fits = value.is_number_unsigned()
                          ? value.get<uint64_t>() <= static_cast<uint64_t>(high) &&
                                static_cast<int64_t>(value.get<uint64_t>()) >= low
                          : value.get<int64_t>() >= low && value.get<int64_t>() <= high;
    if (!fits)
        Fail(where, "value " + value.dump() + " is out of range " + std::to_string(low) + ".." + std::to_string(high));
    return value.get<int>();
}

template <int N>
glm::vec<N, double> VecAt(const json& value, const std::string& where) {
    if (!value.is_array() || value.size() != N)
        Fail(where, "expects an array of " + std::to_string(N) + " numbers, got " + Shown(value));
    glm::vec<N, double> out;
    for (int k = 0; k < N; ++k) out[k] = NumberAt(value[k], where + "[" + std::to_string(k) + "]");
    return out;
}

template glm::vec<2, double> VecAt<2>(const json&, const std::string&);
template glm::vec<3, double> VecAt<3>(const json&, const std::string&);
template glm::vec<4, double> VecAt<4>(const json&, const std::string&);

glm::dmat4 MatrixAt(const json& value, const std::string& where) {
    if (!value.is_array() || value.size() != 4) Fail(where, "expects 4 rows of 4 numbers, got " + Shown(value));
    glm::dmat4 m(0.0);
    for (int row = 0; row < 4; ++row) {
        const glm::dvec4 r = VecAt<4>(value[row], where + "[" + std::to_string(row) + "]");
        for (int col = 0; col < 4; ++col) m[col][row] = r[col];
    }
    return m;
}

Fields::Fields(const json& object, std::string where) : object_(object), where_(std::move(where)) {
    if (!object_.is_object()) Fail(where_, "expects an object, got " + Shown(object_));
}

void Fields::OnlyKnown(std::initializer_list<const char*> known) const {
    for (const auto& item : object_.items()) {
        bool ok = false;
        for (const char* name : known) ok = ok || item.key() == name;
        if (!ok) {
            std::string list;
            for (const char* name : known) list += std::string(list.empty() ? "" : ", ") + name;
            Fail(where_, "unknown field \"" + item.key() + "\" (known: " + list + ")");
        }
    }
}

const json& Fields::Raw(const char* name) const {
    if (!object_.contains(name)) Fail(where_, std::string("missing field \"") + name + "\"");
    return object_.at(name);
}

std::string Fields::String(const char* name) const {
    const json& v = Raw(name);
    if (!v.is_string()) Fail(PathOf(name), "expects a string, got " + Shown(v));
    return v.get<std::string>();
}

std::string Fields::String(const char* name, const std::string& fallback) const {
    return Has(name) ? String(name) : fallback;
}

double Fields::Number(const char* name) const { return NumberAt(Raw(name), PathOf(name)); }

double Fields::Number(const char* name, double fallback) const { return Has(name) ? Number(name) : fallback; }

int Fields::Int(const char* name, int low, int high) const { return IntAt(Raw(name), PathOf(name), low, high); }

int Fields::Int(const char* name, int fallback, int low, int high) const {
    return Has(name) ? Int(name, low, high) : fallback;
}

bool Fields::Bool(const char* name, bool fallback) const {
    if (!Has(name)) return fallback;
    const json& v = Raw(name);
    if (!v.is_boolean()) Fail(PathOf(name), "expects true or false, got " + Shown(v));
    return v.get<bool>();
}

glm::dvec3 Fields::Vec3(const char* name) const { return VecAt<3>(Raw(name), PathOf(name)); }

glm::dvec3 Fields::Vec3(const char* name, const glm::dvec3& fallback) const {
    return Has(name) ? Vec3(name) : fallback;
}

bool IsSingular(const glm::dmat3& m) {
    const double scale = glm::length(m[0]) * glm::length(m[1]) * glm::length(m[2]);
    return !(scale > 0.0) || !(std::abs(glm::determinant(m)) > 1e-9 * scale);
}

}  // namespace zrio
