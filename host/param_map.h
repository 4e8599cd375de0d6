// The typed parameter map carried by requests and host objects: exact string keys
// ("_" + type tag + "_" + name) to type-erased values that keep their exact type.
#pragma once

#include <any>
#include <string>
#include <unordered_map>

namespace zrobjects {

using ParamMap = std::unordered_map<std::string, std::any>;

// A delegate of the module's interop protocol: takes one untyped pointer.
using Delegate = void (*)(void*);

}  // namespace zrobjects
