// Draws a point set (a primitive of topology 3): a filled disc of the object
// colour around every projected vertex and, optionally, a short line along each
// vertex normal.
//
// Disc radius in pixels: the sphere radius (millimetres) divided by the
// millimetres per screen pixel (the world length of the screen-to-world
// matrix's first column), but never less than the zoom-in radius (pixels). A
// point thus shows at its true size when the view is zoomed in far enough and
// keeps a readable marker size when zoomed out. Pixels whose centre lies within
// the radius (squared distance not greater than the squared radius) are filled.
//
// Normals: drawn only when the data has a "NORMAL" attribute and sphereRadius x
// 0.333 is greater than the length of the object-to-screen matrix's first
// column. Each normal line starts at the vertex and runs along the unit normal
// for an object-space length that projects to twice the disc radius when the
// normal lies in the image plane; it is drawn one pixel thick, unclipped, when
// its projected length exceeds 0.5 pixel. "TEXCOORD0" carries nothing a
// sectional view shows and is not used.
#pragma once

#include <cstdint>

#include <glm/glm.hpp>

#include "host/zr_types.h"

namespace zrmesh {

// The disc radius in pixels for the given radii and screen-to-world matrix.
float PointDiscRadius(float sphereRadius, float zoominRadius, const glm::mat4& screenToWorld);

void DrawPointSet(const zrobjects::PrimitiveData& data, float sphereRadius, float zoominRadius,
                  const glm::mat4& objectToScreen, uint32_t* target, int width, int height, uint32_t colour,
                  const glm::mat4& screenToWorld);

}  // namespace zrmesh
