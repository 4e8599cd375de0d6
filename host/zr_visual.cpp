#include "zr_visual.h"

namespace zrobjects {

void ZrVObject::SetPlacement(const glm::mat4& objectToReference, const AaBbMinMax& boundingBox) {
    objectToReference_ = objectToReference;
    // Inverted in double so that the round trip is as close as float storage allows.
    referenceToObject_ = glm::mat4(glm::inverse(glm::dmat4(objectToReference)));
    boundingBox_ = boundingBox;
}

ZrVObjectVolume::ZrVObjectVolume() : ZrVObject(zrenums::EzrObjectType_Volume) {}

ZrObject* ZrVObjectVolume::GetTableObject(const std::string& name) const {
    auto it = tables_.find(name);
    return it == tables_.end() ? nullptr : it->second.get();
}

void ZrVObjectVolume::SetTableObject(const std::string& name, std::shared_ptr<ZrObject> object) {
    if (object)
        tables_[name] = std::move(object);
    else
        tables_.erase(name);
}

ZrVObjectPrimitive::ZrVObjectPrimitive() : ZrVObject(zrenums::EzrObjectType_Primitive) {}

}  // namespace zrobjects
