// Strict reads of plain (untagged) JSON fields of a request file. Each read
// names the field by its path in the document ("objects.head.dims[2]") when it
// throws std::invalid_argument, and objects can be checked for unknown fields so
// that a typo is an error rather than a silently ignored setting.
#pragma once

#include <initializer_list>
#include <string>

#include <glm/glm.hpp>
#include <nlohmann/json.hpp>

namespace zrio {

class Fields {
public:
    // `object` must be a JSON object; `where` is its path.
    Fields(const nlohmann::json& object, std::string where);

    // Throws for any member not in `known`.
    void OnlyKnown(std::initializer_list<const char*> known) const;

    bool Has(const char* name) const { return object_.contains(name); }
    const nlohmann::json& Raw(const char* name) const;
    std::string PathOf(const char* name) const { return where_ + "." + name; }
    const std::string& Where() const { return where_; }

    std::string String(const char* name) const;
    std::string String(const char* name, const std::string& fallback) const;
    double Number(const char* name) const;
    double Number(const char* name, double fallback) const;
    int Int(const char* name, int fallback, int low, int high) const;
    int Int(const char* name, int low, int high) const;
    bool Bool(const char* name, bool fallback) const;
    glm::dvec3 Vec3(const char* name, const glm::dvec3& fallback) const;
    glm::dvec3 Vec3(const char* name) const;

private:
    const nlohmann::json& object_;
    std::string where_;
};

// Free-standing conversions of one value at `where`.
double NumberAt(const nlohmann::json& value, const std::string& where);
int IntAt(const nlohmann::json& value, const std::string& where, int low, int high);
template <int N>
glm::vec<N, double> VecAt(const nlohmann::json& value, const std::string& where);
// A 4x4 matrix written as four rows of four numbers.
// True when the columns of `m` are (nearly) linearly dependent: the
// determinant against the product of the column lengths, so that the test does
// not depend on the matrix's scale (a uniform scale of 1e-5 is fine).
bool IsSingular(const glm::dmat3& m);

glm::dmat4 MatrixAt(const nlohmann::json& value, const std::string& where);

// "string 'abc'" / "number 3": a value as shown in messages.
std::string Shown(const nlohmann::json& value);

}  // namespace zrio
