#include "zr_image.h"

#include <cstring>
#include <stdexcept>
#include <string>

namespace zrobjects {

namespace {
constexpr long long kMaxPixels = 1LL << 28;  // 16384 x 16384
}

ZrIObject::ZrIObject(int width, int height) : ZrObject(zrenums::EzrObjectType_Image), width_(width), height_(height) {
    if (width <= 0 || height <= 0)
        throw std::invalid_argument("image size must be positive, got " + std::to_string(width) + " x " +
                                    std::to_string(height));
    if (static_cast<long long>(width) * height > kMaxPixels)
        throw std::invalid_argument("image size " + std::to_string(width) + " x " + std::to_string(height) +
                                    " is too large");
}

void ZrIObject::Allocate(FrameBuffer& buffer, const data_type& elementType, const std::string& descriptor) const {
    if (elementType.size == 0) throw std::invalid_argument("frame buffer element size must be positive");
    const size_t bytes = static_cast<size_t>(width_) * height_ * elementType.size + kPaddingBytes;
    buffer.storage = std::shared_ptr<std::byte[]>(new std::byte[bytes]);
    std::memset(buffer.storage.get(), 0, bytes);
    buffer.width = width_;
    buffer.height = height_;
    buffer.pixels = buffer.storage.get();
    buffer.elementType = elementType;
    buffer.descriptor = descriptor;
}

FrameBuffer* ZrIObject::GetFrameBuffer(int usage, int index) {
    auto it = buffers_.find(usage);
    if (it == buffers_.end() || index < 0 || index >= static_cast<int>(it->second.size())) return nullptr;
    return it->second[index].get();
}

void ZrIObject::InsertFrameBuffer(const data_type& elementType, int usage, const std::string& descriptor) {
    auto buffer = std::make_unique<FrameBuffer>();
    Allocate(*buffer, elementType, descriptor);
    buffers_[usage].push_back(std::move(buffer));
}

bool ZrIObject::ReplaceFrameBuffer(int usage, int index, const data_type& elementType,
                                   const std::string& descriptor) {
    FrameBuffer* buffer = GetFrameBuffer(usage, index);
    if (!buffer) return false;
    Allocate(*buffer, elementType, descriptor);
    return true;
}

void ZrIObject::GetFrameBufferInfo(glm::ivec2* size, int* bufferCount, int* renderOutPixelBytes) const {
    if (size) *size = glm::ivec2(width_, height_);
    if (bufferCount) {
        int count = 0;
        for (const auto& [usage, list] : buffers_) count += static_cast<int>(list.size());
        *bufferCount = count;
    }
    if (renderOutPixelBytes) *renderOutPixelBytes = static_cast<int>(sizeof(color4));
}

int ZrIObject::CountFrameBuffers(int usage) const {
    auto it = buffers_.find(usage);
    return it == buffers_.end() ? 0 : static_cast<int>(it->second.size());
}

}  // namespace zrobjects
