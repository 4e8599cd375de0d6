#include "zr_object.h"

#include <atomic>

namespace zrobjects {

ZrObject::ZrObject(zrenums::EzrObjectType type, int32_t objectId) : type_(type), id_(objectId) {}

ZrObject::~ZrObject() = default;

int32_t ZrObject::NextObjectID() {
    static std::atomic<int32_t> next{1};
    return next.fetch_add(1);
}

std::any& ZrObject::GetObjParamA(const std::string& key, bool& found) {
    auto it = params_.find(key);
    if (it == params_.end()) {
        // A fresh empty value per thread: callers only read it after found == false.
        thread_local std::any missing;
        missing.reset();
        found = false;
        return missing;
    }
    found = true;
    return it->second;
}

bool ZrObject::SetObjParam(const std::string& key, const std::any& value) {
    if (key.empty()) return false;
    params_[key] = value;
    return true;
}

bool ZrObject::RemoveObjParam(const std::string& key) { return params_.erase(key) > 0; }

}  // namespace zrobjects
