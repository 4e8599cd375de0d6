// Base of every host object: identity, type, definedness, own parameters and a
// descriptor text.
#pragma once

#include <any>
#include <cstdint>
#include <string>

#include "param_map.h"
#include "zr_types.h"

namespace zrobjects {

class ZrObject {
public:
    explicit ZrObject(zrenums::EzrObjectType type, int32_t objectId = NextObjectID());
    virtual ~ZrObject();
    ZrObject(const ZrObject&) = delete;
    ZrObject& operator=(const ZrObject&) = delete;

    int32_t GetObjectID() const { return id_; }
    zrenums::EzrObjectType GetObjectType() const { return type_; }
    virtual bool IsDefined() const { return true; }

    // Own parameter under `key`. `found` tells whether it exists; when it does not,
    // the result is an empty value that must not be written through.
    std::any& GetObjParamA(const std::string& key, bool& found);
    bool SetObjParam(const std::string& key, const std::any& value);
    bool RemoveObjParam(const std::string& key);

    void SetDescriptor(const std::string& text) { descriptor_ = text; }
    const std::string& GetDescriptor() const { return descriptor_; }

    ParamMap& Params() { return params_; }
    const ParamMap& Params() const { return params_; }

    // Ids count up from 1 so that 0 never names an object.
    static int32_t NextObjectID();

private:
    zrenums::EzrObjectType type_;
    int32_t id_;
    ParamMap params_;
    std::string descriptor_;
};

}  // namespace zrobjects
