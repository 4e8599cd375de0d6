// The slice-plane pixel walk shared by the thin-slice families: the row's two
// ends are interpolated between the corners, then the pixel between the ends.
// With a one-pixel axis the divisions give not-a-number on purpose, so every
// pixel of such an image fails the inside test.
#pragma once

#include <glm/glm.hpp>

namespace zrvolume {

struct SliceRow {
    glm::vec3 start;
    glm::vec3 end;
};

// corners: first and last pixel of the first row, first and last of the last row.
inline SliceRow RowEnds(const glm::vec3 corners[4], int y, int height) {
    const float ty = static_cast<float>(y) / static_cast<float>(height - 1);
    return {(1.0f - ty) * corners[0] + ty * corners[2], (1.0f - ty) * corners[1] + ty * corners[3]};
}

inline glm::vec3 PixelPoint(const SliceRow& row, int x, int width) {
    const float tx = static_cast<float>(x) / static_cast<float>(width - 1);
    return (1.0f - tx) * row.start + tx * row.end;
}

}  // namespace zrvolume
