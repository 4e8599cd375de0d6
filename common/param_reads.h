// Typed reads of request and object parameters. A missing key yields the
// default (or null for lists and pointers); a present key whose value is empty or
// of any other type than the one asked for throws std::bad_any_cast, which is
// deliberately not caught anywhere in the module.
#pragma once

#include <any>
#include <string>

#include "host/param_map.h"
#include "host/zr_object.h"

namespace zrcommon {

using zrobjects::ParamMap;

namespace detail {

// Exact type identity through the runtime type descriptor; std::any_cast
// compares the same descriptor and throws std::bad_any_cast on an empty value.
template <class T>
const T& Checked(const std::any& value) {
    return std::any_cast<const T&>(value);
}

}  // namespace detail

// Scalars, small vectors, matrices and strings: a copy of the stored value.
template <class T>
T ReadParam(const ParamMap& map, const std::string& key, const T& defaultValue) {
    auto it = map.find(key);
    if (it == map.end()) return defaultValue;
    return detail::Checked<T>(it->second);
}

// Lists ("_vlist_..."): the stored array itself, or null when absent.
template <class T>
const T* ReadList(const ParamMap& map, const std::string& key) {
    auto it = map.find(key);
    if (it == map.end()) return nullptr;
    return &detail::Checked<T>(it->second);
}

// Pointers ("_ZrIObject*_", "_outptr_delegate_"): the stored pointer, or null.
template <class P>
P ReadPointer(const ParamMap& map, const std::string& key) {
    auto it = map.find(key);
    if (it == map.end()) return nullptr;
    return detail::Checked<P>(it->second);
}

// An object's own parameter, through the host's GetObjParamA.
template <class T>
T ReadObjParam(zrobjects::ZrObject& object, const std::string& key, const T& defaultValue) {
    bool found = false;
    const std::any& value = object.GetObjParamA(key, found);
    if (!found) return defaultValue;
    return detail::Checked<T>(value);
}

// An object's own list or record parameter by reference, or null when absent.
template <class T>
const T* ReadObjParamRef(zrobjects::ZrObject& object, const std::string& key) {
    bool found = false;
    const std::any& value = object.GetObjParamA(key, found);
    if (!found) return nullptr;
    return &detail::Checked<T>(value);
}

}  // namespace zrcommon
