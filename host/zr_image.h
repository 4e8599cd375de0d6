// The image object: a fixed pixel size, frame buffers grouped by usage and
// numbered from 0 within a usage, and a camera.
#pragma once

#include <map>
#include <memory>
#include <vector>

#include <glm/glm.hpp>

#include "zr_camera.h"
#include "zr_object.h"

namespace zrobjects {

class ZrIObject : public ZrObject {
public:
    // Throws std::invalid_argument for a non-positive or absurdly large size.
    ZrIObject(int width, int height);

    // Null when no buffer of that usage and index exists.
    FrameBuffer* GetFrameBuffer(int usage, int index);
    // Appends a zeroed buffer of the image's size as the next index of `usage`.
    void InsertFrameBuffer(const data_type& elementType, int usage, const std::string& descriptor);
    // Replaces the buffer at (usage, index) by a zeroed one of `elementType`; the
    // FrameBuffer record keeps its address. False when there is none to replace.
    bool ReplaceFrameBuffer(int usage, int index, const data_type& elementType,
                            const std::string& descriptor);
    // Frame width and height; the optional outputs are the number of buffers of
    // all usages and the byte size of a render-out pixel.
    void GetFrameBufferInfo(glm::ivec2* size, int* bufferCount, int* renderOutPixelBytes) const;

    int CountFrameBuffers(int usage) const;

    ZrCObject* GetCameraObject() { return camera_.get(); }
    void SetCameraObject(std::shared_ptr<ZrCObject> camera) { camera_ = std::move(camera); }

    int Width() const { return width_; }
    int Height() const { return height_; }

    // Bytes every buffer carries past its last pixel, so that a reader running a
    // few elements past the end stays inside the allocation.
    static constexpr size_t kPaddingBytes = 64;

private:
    void Allocate(FrameBuffer& buffer, const data_type& elementType, const std::string& descriptor) const;

    int width_;
    int height_;
    std::map<int, std::vector<std::unique_ptr<FrameBuffer>>> buffers_;
    std::shared_ptr<ZrCObject> camera_;
};

}  // namespace zrobjects
