// The geometry of one sectional request: the camera's transforms, the plane the
// kernels draw, and, in fast quality mode, the reduced image and how it is
// enlarged back.
#pragma once

#include <vector>

#include <glm/glm.hpp>

#include "host/zr_image.h"
#include "volume/kernels/slice_plane.h"
#include "volume/render_settings.h"
#include "volume/volume_selection.h"

namespace zrvolume {

// Fast quality mode draws the screen rectangle the kernels can draw into (the
// one covered by the volumes' boxes, or on a curved view the rectangle of its
// own columns and rows) at a reduced size into the leading rows and columns of the target buffer, and
// enlarges it bilinearly into the final buffer. Reduced pixel (i, j) lies
// exactly on full pixel (x0 + i * stepX, y0 + j * stepY), so the enlarged image
// lines up with the full-quality one. One reduced column and row past the
// rectangle are drawn too, because the bilinear enlargement reads one ahead.
struct FastModeLayout {
    int x0 = 0, x1 = 0;  // destination columns [x0, x1)
    int y0 = 0, rows = 0;  // destination rows y0 .. y0 + rows - 1
    float stepX = 1.0f, stepY = 1.0f;  // full pixels per reduced pixel (>= 1)
};

struct SectionGeometry {
    glm::dmat4 worldToScreen{1.0};
    glm::dmat4 screenToWorld{1.0};
    SlicePlane view;   // the full-quality plane: every pixel of the image
    SlicePlane plane;  // the plane the kernels draw: the view, or the reduced one
    bool reduced = false;
    FastModeLayout fast;
};

// Builds the full-quality plane, or in fast quality mode the reduced one when it
// pays: the rectangle must be at least 2 x 2 pixels, longer than
// "_int_LengthFastModeMax" on one side, and the reduced image (with its extra
// column and row) must fit the buffer; otherwise the request is drawn at full
// quality.
SectionGeometry BuildSectionGeometry(const VolumeRenderSettings& settings, zrobjects::ZrIObject& image,
                                     int width, int height, const std::vector<SelectedVolume>& volumes);

}  // namespace zrvolume
