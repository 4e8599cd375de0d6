// Scene objects: the visual base with its model transforms and bounding box, the
// volume with its voxel grid and table directory, and the triangle mesh
// (primitive) with its data and bounding-volume hierarchy.
#pragma once

#include <map>
#include <memory>
#include <string>

#include <glm/glm.hpp>

#include "zr_object.h"

namespace zrobjects {

class ZrVObject : public ZrObject {
public:
    using ZrObject::ZrObject;

    // Object space to reference space and back.
    glm::mat4 GetMatrixOS2RSf() const { return objectToReference_; }
    glm::mat4 GetMatrixRS2OSf() const { return referenceToObject_; }
    void GetOrthoBoundingBox(AaBbMinMax& box) const { box = boundingBox_; }

    // Sets both transforms (the inverse is computed here) and the box.
    void SetPlacement(const glm::mat4& objectToReference, const AaBbMinMax& boundingBox);

private:
    glm::mat4 objectToReference_{1.0f};
    glm::mat4 referenceToObject_{1.0f};
    AaBbMinMax boundingBox_;
};

class ZrVObjectVolume : public ZrVObject {
public:
    ZrVObjectVolume();

    VolumeData* GetVolumeData() { return &data_; }
    const VolumeData* GetVolumeData() const { return &data_; }
    bool IsDefined() const override { return !data_.slices.empty(); }

    // The table directory: "WINDOWING" and "OTF" name table objects that hold a
    // MapTable under "_TableMap_OTF"; "MASKVOLUME" names the label volume. A
    // missing name reads as null.
    ZrObject* GetTableObject(const std::string& name) const;
    void SetTableObject(const std::string& name, std::shared_ptr<ZrObject> object);

private:
    VolumeData data_;
    std::map<std::string, std::shared_ptr<ZrObject>> tables_;
};

class ZrVObjectPrimitive : public ZrVObject {
public:
    ZrVObjectPrimitive();

    PrimitiveData* GetPrimitiveData() { return &data_; }
    const PrimitiveData* GetPrimitiveData() const { return &data_; }
    // The hierarchy over the triangles, or null when none was built.
    void* GetBVHTree() const { return bvhTree_.get(); }
    void SetBVHTree(std::shared_ptr<void> tree) { bvhTree_ = std::move(tree); }
    bool IsDefined() const override { return data_.FindAttribute("POSITION") != nullptr; }

private:
    PrimitiveData data_;
    std::shared_ptr<void> bvhTree_;
};

}  // namespace zrobjects
