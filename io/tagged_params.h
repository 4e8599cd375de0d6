// Typed parameters written as JSON. A key's type tag ("_float_", "_vlist_INT_",
// ...) decides the exact C++ type stored in the ParamMap, because the module
// reads every key by exact type identity: a JSON number under "_float_" becomes
// a float, under "_double_" a double, and a value that does not fit its tag is
// an error that names the key.
#pragma once

#include <any>
#include <string>

#include <nlohmann/json.hpp>

#include "host/param_map.h"

namespace zrio {

// The tags a key may carry, e.g. "float3" or "vlist_DOUBLE2"; empty when the
// key has none of them. The longest matching tag wins ("vlist_FLOAT3" over
// "vlist_FLOAT").
std::string KeyTag(const std::string& key);

// Converts `value` into the type that `key`'s tag stands for. Throws
// std::invalid_argument naming the key for an unknown tag, a value of the wrong
// JSON type or shape, a number out of the tag's range, and for the pointer
// tags, which only the host itself can fill.
std::any ConvertTaggedValue(const std::string& key, const nlohmann::json& value);

// Converts every member of a JSON object. `where` names the object in messages
// (e.g. "requests[1]").
zrobjects::ParamMap ConvertParamObject(const nlohmann::json& object, const std::string& where);

// The JSON form of a stored value, for reports of lists returned by the module.
// Returns null for types it does not know.
nlohmann::json TaggedValueToJson(const std::any& value);

}  // namespace zrio
