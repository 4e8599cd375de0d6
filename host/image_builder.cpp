#include "image_builder.h"

namespace zrobjects {

std::shared_ptr<ZrIObject> MakeSectionImage(const SectionView& view) {
    auto image = std::make_shared<ZrIObject>(view.size.x, view.size.y);
    auto camera = std::make_shared<ZrCObject>();
    camera->SetOrthographic(view.centre, view.viewDirection, view.up, view.pixelSpacing, view.size);
    image->SetCameraObject(std::move(camera));
    return image;
}

}  // namespace zrobjects
