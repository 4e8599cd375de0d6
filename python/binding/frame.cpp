#include "frame.h"

#include <algorithm>
#include <mutex>
#include <vector>

#include "host/zr_camera.h"

namespace zrpython {

namespace {

// The plug-in expects one request at a time (its progress value and its
// cached smoothing kernel are module-wide), so this host hands them over one
// at a time, whichever thread they come from.
std::mutex& PluginTurn() {
    static std::mutex turn;
    return turn;
}

glm::dmat4 PixelToWorld(zrobjects::ZrIObject& image) {
    const zrobjects::ZrCObject* camera = image.GetCameraObject();
    glm::dmat4 viewportInverse, projectionInverse, viewInverse;
    camera->GetMatrixSStoWS(viewportInverse, projectionInverse, viewInverse);
    return zrobjects::ComposeApplied(viewportInverse, projectionInverse, viewInverse);
}

}  // namespace

std::unique_ptr<Frame> RenderDocument(const nlohmann::json& document, const std::string& name,
                                      const std::string& baseDirectory,
                                      std::map<std::string, std::shared_ptr<HeldObject>> held,
                                      zrio::PluginSession& plugin) {
    auto frame = std::make_unique<Frame>();
    frame->file = zrio::ParseRequestDocument(document, name, baseDirectory);
    frame->held = std::move(held);

    // Every shared object is locked for the whole build and run, in one order
    // (by address), so that two threads never wait for each other in a circle.
    std::vector<HeldObject*> order;
    for (const auto& [objectName, object] : frame->held) order.push_back(object.get());
    std::sort(order.begin(), order.end());
    order.erase(std::unique(order.begin(), order.end()), order.end());
    std::vector<std::unique_lock<std::mutex>> locks;
    for (HeldObject* object : order) locks.emplace_back(object->inUse);

    zrio::LoadedObjects kept;
    const nlohmann::json& objects = document.at("objects");
    for (const auto& [objectName, object] : frame->held)
        kept.byName[objectName] = {objects.at(objectName), frame->file.baseDirectory, object->object, object->volume};
    frame->scene = zrio::BuildScene(frame->file, &kept);
    {
        const std::lock_guard<std::mutex> turn(PluginTurn());
        frame->output = zrio::RunRequests(frame->file, frame->scene, plugin);
    }
    frame->pixelToWorld = PixelToWorld(*frame->scene.image);
    return frame;
}

}  // namespace zrpython
